# Peers that bench_geodesy runs side by side with the kit, when installed (scripts/setup --bench
# installs them). Without them the bench still builds and measures the kit alone; nothing
# outside the bench ever links them.
if(TARGET bench_geodesy)
    find_package(PROJ CONFIG QUIET)
    if(TARGET PROJ::proj)
        target_link_libraries(bench_geodesy PRIVATE PROJ::proj)
        target_compile_definitions(bench_geodesy PRIVATE SORVAN_BENCH_PROJ=1)
    else()
        pkg_check_modules(SORVAN_PEER_PROJ QUIET IMPORTED_TARGET proj)
        if(SORVAN_PEER_PROJ_FOUND)
            target_link_libraries(bench_geodesy PRIVATE PkgConfig::SORVAN_PEER_PROJ)
            target_compile_definitions(bench_geodesy PRIVATE SORVAN_BENCH_PROJ=1)
        endif()
    endif()

    find_library(SORVAN_PEER_GEOGRAPHICLIB NAMES GeographicLib Geographic)
    find_path(SORVAN_PEER_GEOGRAPHICLIB_INCLUDE GeographicLib/UTMUPS.hpp)
    if(SORVAN_PEER_GEOGRAPHICLIB AND SORVAN_PEER_GEOGRAPHICLIB_INCLUDE)
        target_include_directories(bench_geodesy SYSTEM PRIVATE ${SORVAN_PEER_GEOGRAPHICLIB_INCLUDE})
        target_link_libraries(bench_geodesy PRIVATE ${SORVAN_PEER_GEOGRAPHICLIB})
        target_compile_definitions(bench_geodesy PRIVATE SORVAN_BENCH_GEOGRAPHICLIB=1)
    endif()
endif()
