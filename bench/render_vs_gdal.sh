#!/usr/bin/env bash
# `sorvan render` against gdal_translate, side by side in one run, both fetching the same
# {z}/{x}/{y} tiles from the same embedded service into a 2048 x 2048 PNG (an 8 x 8 tile
# mosaic of Bangkok at zoom 13). Each run starts cold: sorvan with its caches folder removed
# (no tile or URL cache; its preferences stay, as on any second start), GDAL with no cache
# element. Then the first frame and peak memory of a
# 1280 x 720 view at scale 2 with three layers, every tile already in the disk cache.
#   bench/render_vs_gdal.sh [RUNS]     (scripts/bench calls it; needs scripts/setup --bench)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=${1:-10}
build=${SORVAN_BUILD_DIR:-$root/build-release}
sorvan=$build/tools/sorvan/sorvan
work=$root/out/bench-render
rm -rf "$work"
mkdir -p "$work"

port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
origin="http://127.0.0.1:$port"
"$sorvan" serve --port "$port" >"$work/serve.log" 2>&1 &
serve_pid=$!
trap 'kill $serve_pid 2>/dev/null || true; wait $serve_pid 2>/dev/null || true' EXIT
for _ in $(seq 100); do
    curl -fsS -o /dev/null "$origin/terms" 2>/dev/null && break
    sleep 0.1
done

# The 8 x 8 tiles of zoom 13 around Bangkok: their corner coordinates in degrees and metres.
read -r lat lon ulx uly lrx lry < <(python3 - <<'PY'
import math
z, n = 13, 8
half = 20037508.342789244
x0 = int((100.5018 + 180) / 360 * 2**z) - n // 2
lat0 = math.radians(13.7563)
y0 = int((1 - math.log(math.tan(lat0) + 1 / math.cos(lat0)) / math.pi) / 2 * 2**z) - n // 2
size = 2 * half / 2**z
ulx, uly = -half + x0 * size, half - y0 * size
lrx, lry = ulx + n * size, uly - n * size
cx, cy = (ulx + lrx) / 2, (uly + lry) / 2
lon = cx / half * 180
lat = math.degrees(2 * math.atan(math.exp(cy / half * math.pi)) - math.pi / 2)
print(f"{lat:.12f} {lon:.12f} {ulx:.6f} {uly:.6f} {lrx:.6f} {lry:.6f}")
PY
)

cat >"$work/tiles.xml" <<XML
<GDAL_WMS>
  <Service name="TMS"><ServerUrl>$origin/tiles/\${z}/\${x}/\${y}.png</ServerUrl></Service>
  <DataWindow>
    <UpperLeftX>-20037508.342789244</UpperLeftX><UpperLeftY>20037508.342789244</UpperLeftY>
    <LowerRightX>20037508.342789244</LowerRightX><LowerRightY>-20037508.342789244</LowerRightY>
    <TileLevel>13</TileLevel><TileCountX>1</TileCountX><TileCountY>1</TileCountY>
    <YOrigin>top</YOrigin>
  </DataWindow>
  <Projection>EPSG:3857</Projection>
  <BlockSizeX>256</BlockSizeX><BlockSizeY>256</BlockSizeY>
  <BandsCount>4</BandsCount>
  <MaxConnections>4</MaxConnections>
</GDAL_WMS>
XML

sorvan_cmd="SORVAN_SERVICE_ORIGIN=$origin SORVAN_HOME=$work/home $sorvan render \
--center $lat,$lon --zoom 13 --size 2048x2048 --template '$origin/tiles/{z}/{x}/{y}.png' \
--no-cache -o $work/sorvan.png"
gdal_cmd="gdal_translate -q -of PNG -outsize 2048 2048 -projwin $ulx $uly $lrx $lry \
$work/tiles.xml $work/gdal.png"
# sorvan writes at zlib level 1 by default, GDAL at 6: also GDAL at level 1, like for like.
gdal1_cmd="gdal_translate -q -of PNG -co ZLEVEL=1 -outsize 2048 2048 \
-projwin $ulx $uly $lrx $lry $work/tiles.xml $work/gdal1.png"

echo "== 2048 x 2048 mosaic (64 tiles of zoom 13), $runs runs each"
if command -v hyperfine >/dev/null; then
    hyperfine --warmup 1 --runs "$runs" --prepare "rm -rf $work/home/caches" \
        -n "sorvan render" "$sorvan_cmd" -n gdal_translate "$gdal_cmd" \
        -n "gdal_translate ZLEVEL=1" "$gdal1_cmd"
else
    for name in sorvan gdal gdal1; do
        cmd_var=${name}_cmd
        start=$(date +%s.%N)
        for _ in $(seq "$runs"); do rm -rf "$work/home/caches"; bash -c "${!cmd_var}"; done
        end=$(date +%s.%N)
        echo "$name: $(python3 -c "print(f'{($end - $start) / $runs * 1000:.1f} ms per run')")"
    done
fi

# Peak memory of a process, as the kernel counts it.
peak() {
    python3 -c 'import resource, subprocess, sys
r = subprocess.run(sys.argv[1:])
print(f"{resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss / 1024:.1f} MB peak RSS")
sys.exit(r.returncode)' "$@"
}
echo "== peak memory of one mosaic render"
rm -rf "$work/home"
printf "sorvan render:  "
SORVAN_SERVICE_ORIGIN=$origin SORVAN_HOME=$work/home peak "$sorvan" render --center "$lat,$lon" \
    --zoom 13 --size 2048x2048 --template "$origin/tiles/{z}/{x}/{y}.png" --no-cache \
    -o "$work/sorvan.png"
printf "gdal_translate: "
peak gdal_translate -q -of PNG -outsize 2048 2048 -projwin "$ulx" "$uly" "$lrx" "$lry" \
    "$work/tiles.xml" "$work/gdal.png"

echo "== 1280 x 720 at scale 2, three layers, every tile in the disk cache"
view=(render --center 13.7563,100.5018 --zoom 15 --size 1280x720 --scale 2
    --layers base,hydro,icons -o "$work/view.png")
rm -rf "$work/home"
SORVAN_SERVICE_ORIGIN=$origin SORVAN_HOME=$work/home "$sorvan" "${view[@]}"  # fills the cache
printf "first frame, fresh process: "
SORVAN_SERVICE_ORIGIN=$origin SORVAN_HOME=$work/home peak "$sorvan" "${view[@]}"
if command -v hyperfine >/dev/null; then
    hyperfine --warmup 1 --runs "$runs" -n "sorvan render 1280x720@2, cached" \
        "SORVAN_SERVICE_ORIGIN=$origin SORVAN_HOME=$work/home $sorvan ${view[*]}"
fi
echo "pictures: $work/sorvan.png $work/gdal.png $work/view.png"
