# Every dependency is a Debian package installed by scripts/setup.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(CURL REQUIRED)
find_package(PNG REQUIRED)
find_package(JPEG REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(ZLIB REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(fmt REQUIRED)
pkg_check_modules(CAIRO REQUIRED IMPORTED_TARGET cairo)
pkg_check_modules(PIXMAN REQUIRED IMPORTED_TARGET pixman-1)
pkg_check_modules(PANGO REQUIRED IMPORTED_TARGET pangocairo)
pkg_check_modules(GPS REQUIRED IMPORTED_TARGET libgps)
pkg_check_modules(EXPAT REQUIRED IMPORTED_TARGET expat)
# Media and web: GStreamer plays camera streams and the embedded service encodes them; WPE WebKit
# draws web views headless through its freedesktop backend's shared-memory buffers.
# One module per target: the package files name each target's module.
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0)
pkg_check_modules(GSTREAMER REQUIRED IMPORTED_TARGET gstreamer-1.0)
pkg_check_modules(GSTREAMER_APP REQUIRED IMPORTED_TARGET gstreamer-app-1.0)
pkg_check_modules(GSTREAMER_VIDEO REQUIRED IMPORTED_TARGET gstreamer-video-1.0)
pkg_check_modules(WPE_WEBKIT REQUIRED IMPORTED_TARGET wpe-webkit-1.1)
pkg_check_modules(WPE_FDO REQUIRED IMPORTED_TARGET wpebackend-fdo-1.0)
pkg_check_modules(WAYLAND_SERVER REQUIRED IMPORTED_TARGET wayland-server)

# How an application that links the static libSorvanMapSDK finds each private dependency that
# comes from find_package: "<target>|<find_package arguments>|<pkg-config module>". Targets made
# by pkg_check_modules(... IMPORTED_TARGET ...) need no line here; header-only ones neither.
set(SORVAN_PACKAGE_DEPENDENCIES
    "Threads::Threads|Threads|"
    "CURL::libcurl|CURL|libcurl"
    "PNG::PNG|PNG|libpng"
    "JPEG::JPEG|JPEG|libjpeg"
    "SQLite::SQLite3|SQLite3|sqlite3"
    "OpenSSL::Crypto|OpenSSL|libcrypto"
    "ZLIB::ZLIB|ZLIB|zlib"
    "fmt::fmt|fmt|fmt")
