# One interface target carries the language level, warnings and sanitizers for every target.
add_library(sorvan_options INTERFACE)
target_compile_features(sorvan_options INTERFACE cxx_std_20)
target_compile_options(sorvan_options INTERFACE
    -Wall -Wextra -Wshadow -Wnon-virtual-dtor
    # The geodesy and projection code depends on the exact order and rounding of
    # floating-point operations: never fuse multiply-adds or reassociate.
    -ffp-contract=off -fno-fast-math)
if(SORVAN_WERROR)
    target_compile_options(sorvan_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(sorvan_options INTERFACE -Wthread-safety)
endif()
if(SORVAN_SANITIZE)
    target_compile_options(sorvan_options INTERFACE -fsanitize=${SORVAN_SANITIZE} -fno-omit-frame-pointer)
    # Optimised sanitizer builds make GCC report uninitialised members inside the standard
    # library's own std::function and std::regex; the reports are false and not ours.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(sorvan_options INTERFACE -Wno-maybe-uninitialized)
    endif()
    target_link_options(sorvan_options INTERFACE -fsanitize=${SORVAN_SANITIZE})
endif()

# sorvan_sanitizer_defaults(target) gives an executable of an address-sanitizer build the kit's
# leak-checker defaults: the slow unwinder and the suppressions of bounded leaks in system
# libraries. A program's leaks are checked as a test's are, whoever starts it.
function(sorvan_sanitizer_defaults target)
    if(SORVAN_SANITIZE MATCHES "address")
        target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tools/sanitizer_defaults.cpp)
    endif()
endfunction()

if(SORVAN_FUZZ)
    # Coverage for the fuzzer everywhere; the fuzz targets themselves add -fsanitize=fuzzer
    # (libFuzzer's main). Undefined behaviour stops the run like a crash.
    target_compile_options(sorvan_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined
        -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(sorvan_options INTERFACE -fsanitize=address,undefined)
endif()

# sorvan_glob(VAR dir...) collects the .cpp files of the given directories, re-globbing on build.
function(sorvan_glob var)
    set(files)
    foreach(dir ${ARGN})
        file(GLOB_RECURSE found CONFIGURE_DEPENDS ${dir}/*.cpp)
        list(APPEND files ${found})
    endforeach()
    set(${var} ${files} PARENT_SCOPE)
endfunction()

# sorvan_library_objects(target) makes a target's objects fit for the installed shared library:
# position-independent, and hidden unless a public header marks them SORVAN_EXPORT. Inline
# functions are hidden too, so an application always uses its own copies of them and never
# depends on a private symbol through a header.
function(sorvan_library_objects target)
    set_target_properties(${target} PROPERTIES
        POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden
        C_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
endfunction()
