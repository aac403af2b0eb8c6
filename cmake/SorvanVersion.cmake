# SorvanMapSDK/Version.hpp: the version as macros, for checks at compile time.
configure_file(${CMAKE_CURRENT_LIST_DIR}/Version.hpp.in
               ${PROJECT_BINARY_DIR}/include/SorvanMapSDK/Version.hpp @ONLY)
