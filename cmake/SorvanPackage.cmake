# The library applications link, and what installing puts where.
#
# libSorvanMapSDK holds both layers (the SDK and the platform layer it stands on). It is made
# from the very objects of the internal archives SorvanMapSDK and sorvan_platform, compiled once
# with hidden visibility, so the shared library shows applications only what the public headers
# mark SORVAN_EXPORT, while tests, benchmarks, the embedded service and the sorvan tool link the
# archives and reach everything. The tool is linked that way on purpose: it uses the service
# clients and the embedded service, which are not part of the public API, and linking the
# shared library as well would give it two copies of every process-wide object (URL session,
# defaults, settings). In the tree, SorvanMapSDK::SorvanMapSDK names the installed shape.
#
#   SORVAN_BUILD_SHARED=ON   libSorvanMapSDK.so.3.13.0 (SONAME libSorvanMapSDK.so.3)
#   SORVAN_BUILD_SHARED=OFF  libSorvanMapSDK.a; its private dependencies are found again by
#                            SorvanMapSDKConfig.cmake and listed in sorvanmapsdk.pc
include(CMakePackageConfigHelpers)

if(SORVAN_BUILD_SHARED)
    set(SORVAN_PACKAGE_KIND SHARED)
else()
    set(SORVAN_PACKAGE_KIND STATIC)
endif()
add_library(sorvan_package ${SORVAN_PACKAGE_KIND}
    $<TARGET_OBJECTS:sorvan_platform> $<TARGET_OBJECTS:SorvanMapSDK>)
add_library(SorvanMapSDK::SorvanMapSDK ALIAS sorvan_package)
set_target_properties(sorvan_package PROPERTIES
    OUTPUT_NAME SorvanMapSDK
    EXPORT_NAME SorvanMapSDK
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINKER_LANGUAGE CXX
    ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
target_include_directories(sorvan_package PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(sorvan_package PUBLIC cxx_std_20)
if(SORVAN_BUILD_SHARED)
    target_link_options(sorvan_package PRIVATE
        LINKER:--version-script=${CMAKE_CURRENT_LIST_DIR}/SorvanMapSDK.map)
    set_property(TARGET sorvan_package APPEND PROPERTY
        LINK_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/SorvanMapSDK.map)
    if(NOT SORVAN_SANITIZE)
        # A dependency added to the objects but not to the link shows up here, not in an
        # application that loads the library.
        target_link_options(sorvan_package PRIVATE LINKER:--no-undefined)
    endif()
endif()

# The private dependencies are whatever the two archives link; the libraries they name are the
# ones the installed library needs. Each becomes a link dependency of the library and, for the
# static library only, a find_dependency of the CMake package and a Libs.private entry of the
# pkg-config file.
set(SORVAN_PACKAGE_LINK)
set(SORVAN_PACKAGE_FIND)
set(SORVAN_PC_MODULES)
set(SORVAN_PC_LIBS)
foreach(archive sorvan_platform SorvanMapSDK)
    get_target_property(links ${archive} LINK_LIBRARIES)
    foreach(lib IN LISTS links)
        if(lib MATCHES "^\\$<")
            message(WARNING "libSorvanMapSDK: ${archive} links '${lib}', which the installed "
                            "package cannot name; link a plain target or library instead")
            continue()
        endif()
        if(NOT TARGET ${lib})
            # A plain library name, a library file or a linker flag.
            list(APPEND SORVAN_PACKAGE_LINK ${lib})
            if(lib MATCHES "^-" OR IS_ABSOLUTE "${lib}")
                list(APPEND SORVAN_PC_LIBS ${lib})
            else()
                list(APPEND SORVAN_PC_LIBS -l${lib})
            endif()
            continue()
        endif()
        get_target_property(imported ${lib} IMPORTED)
        if(NOT imported)
            continue()  # our own targets: their objects are in the library already
        endif()
        get_target_property(type ${lib} TYPE)
        get_target_property(interface ${lib} INTERFACE_LINK_LIBRARIES)
        if(type STREQUAL "INTERFACE_LIBRARY" AND NOT interface)
            continue()  # headers only: nothing to link
        endif()
        list(APPEND SORVAN_PACKAGE_LINK ${lib})
        if(lib MATCHES "^PkgConfig::(.+)$")
            set(prefix ${CMAKE_MATCH_1})
            set(modules ${${prefix}_MODULE_NAME})
            if(NOT modules)
                # pkg_check_modules with several modules records each as <prefix>_<module>.
                get_cmake_property(cached CACHE_VARIABLES)
                foreach(variable IN LISTS cached)
                    if(variable MATCHES "^${prefix}_(.+)_MODULE_NAME$"
                       AND "${${variable}}" STREQUAL "${CMAKE_MATCH_1}")
                        list(APPEND modules ${CMAKE_MATCH_1})
                    endif()
                endforeach()
            endif()
            if(NOT modules)
                message(FATAL_ERROR "libSorvanMapSDK: no pkg-config module is known for ${lib}")
            endif()
            list(JOIN modules " " moduleList)
            string(CONCAT find "if(NOT TARGET ${lib})\n"
                   "    pkg_check_modules(${prefix} REQUIRED QUIET IMPORTED_TARGET ${moduleList})\n"
                   "endif()")
            list(APPEND SORVAN_PACKAGE_FIND "find_dependency(PkgConfig)" "${find}")
            list(APPEND SORVAN_PC_MODULES ${modules})
            continue()
        endif()
        set(known OFF)
        foreach(entry IN LISTS SORVAN_PACKAGE_DEPENDENCIES)
            string(REPLACE "|" ";" fields "${entry}|")
            list(GET fields 0 target)
            list(GET fields 1 findArguments)
            list(GET fields 2 module)
            if(target STREQUAL lib)
                set(known ON)
                list(APPEND SORVAN_PACKAGE_FIND "find_dependency(${findArguments})")
                if(module)
                    list(APPEND SORVAN_PC_MODULES ${module})
                elseif(lib STREQUAL "Threads::Threads")
                    list(APPEND SORVAN_PC_LIBS -pthread)
                endif()
            endif()
        endforeach()
        if(NOT known)
            set(why "libSorvanMapSDK: ${lib} has no line in SORVAN_PACKAGE_DEPENDENCIES "
                    "(cmake/SorvanDependencies.cmake), so a static link cannot find it again")
            if(SORVAN_BUILD_SHARED)
                message(WARNING ${why})
            else()
                message(FATAL_ERROR ${why})
            endif()
        endif()
    endforeach()
endforeach()
list(REMOVE_DUPLICATES SORVAN_PACKAGE_LINK)
target_link_libraries(sorvan_package PRIVATE $<BUILD_INTERFACE:sorvan_options>
                      ${SORVAN_PACKAGE_LINK})

# A shared library carries its dependencies itself: an application needs none of their
# development files, so the package files name them only for the static library. The
# pkg-config file lists the libraries to link rather than requiring their modules: a module's
# own static dependencies (which pkg-config --static would follow) are rarely installed, and a
# static SorvanMapSDK links the system's shared libraries like any other program.
set(SORVAN_CONFIG_DEPENDENCIES "")
set(SORVAN_PC_PRIVATE "")
if(NOT SORVAN_BUILD_SHARED)
    list(REMOVE_DUPLICATES SORVAN_PACKAGE_FIND)
    list(JOIN SORVAN_PACKAGE_FIND "\n" SORVAN_CONFIG_DEPENDENCIES)
    if(SORVAN_PC_MODULES)
        list(REMOVE_DUPLICATES SORVAN_PC_MODULES)
        execute_process(COMMAND ${PKG_CONFIG_EXECUTABLE} --libs ${SORVAN_PC_MODULES}
            OUTPUT_VARIABLE moduleLibs OUTPUT_STRIP_TRAILING_WHITESPACE
            RESULT_VARIABLE status)
        if(NOT status EQUAL 0)
            message(FATAL_ERROR "libSorvanMapSDK: pkg-config --libs ${SORVAN_PC_MODULES} failed")
        endif()
        separate_arguments(moduleLibs UNIX_COMMAND "${moduleLibs}")
        list(APPEND SORVAN_PC_LIBS ${moduleLibs})
    endif()
    list(REMOVE_DUPLICATES SORVAN_PC_LIBS)
    list(JOIN SORVAN_PC_LIBS " " libs)
    set(SORVAN_PC_PRIVATE "Libs.private: ${libs}\n")
endif()

set(SORVAN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/SorvanMapSDK)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/SorvanMapSDKConfig.cmake.in
    ${PROJECT_BINARY_DIR}/package/SorvanMapSDKConfig.cmake
    INSTALL_DESTINATION ${SORVAN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/SorvanMapSDKConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)

# The pkg-config file finds its prefix from where it lies, so an installed tree still works
# after it is moved.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(SORVAN_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(SORVAN_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
    set(SORVAN_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
    file(RELATIVE_PATH up "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
    string(REGEX REPLACE "/$" "" up "${up}")
    set(SORVAN_PC_PREFIX "\${pcfiledir}/${up}")
    set(SORVAN_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    set(SORVAN_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/sorvanmapsdk.pc.in
               ${PROJECT_BINARY_DIR}/package/sorvanmapsdk.pc @ONLY)

if(SORVAN_INSTALL)
    install(TARGETS sorvan_package EXPORT SorvanMapSDKTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
                COMPONENT Runtime NAMELINK_COMPONENT Development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ ${PROJECT_BINARY_DIR}/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
        FILES_MATCHING PATTERN "*.hpp")
    install(EXPORT SorvanMapSDKTargets NAMESPACE SorvanMapSDK::
        DESTINATION ${SORVAN_CMAKE_DIR} COMPONENT Development)
    install(FILES ${PROJECT_BINARY_DIR}/package/SorvanMapSDKConfig.cmake
                  ${PROJECT_BINARY_DIR}/package/SorvanMapSDKConfigVersion.cmake
        DESTINATION ${SORVAN_CMAKE_DIR} COMPONENT Development)
    install(FILES ${PROJECT_BINARY_DIR}/package/sorvanmapsdk.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
    install(TARGETS sorvan RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
endif()
