# Every dependency is a Debian package installed by scripts/setup.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(CURL REQUIRED)
find_package(PNG REQUIRED)
find_package(JPEG REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(fmt REQUIRED)
pkg_check_modules(CAIRO REQUIRED IMPORTED_TARGET cairo)
pkg_check_modules(PIXMAN REQUIRED IMPORTED_TARGET pixman-1)
pkg_check_modules(PANGO REQUIRED IMPORTED_TARGET pangocairo)

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
    "fmt::fmt|fmt|fmt")
