# Build options of the project; every one can be set on the cmake command line or in a preset.
include_guard(GLOBAL)

set(_qvipc_top OFF)
if(CMAKE_SOURCE_DIR STREQUAL PROJECT_SOURCE_DIR)
    set(_qvipc_top ON)
endif()

option(QVIPC_BUILD_TESTS "Build the unit and integration tests" ${_qvipc_top})
option(QVIPC_BUILD_TOOLS "Build the command-line tools" ${_qvipc_top})
option(QVIPC_BUILD_EXAMPLES "Build the examples" OFF)
option(QVIPC_BUILD_BENCHMARKS "Build the Google Benchmark programs" OFF)
option(QVIPC_BUILD_FUZZERS "Link the fuzz targets with libFuzzer (clang only)" OFF)
option(QVIPC_WERROR "Treat warnings as errors" OFF)
option(QVIPC_GTEST_FROM_SOURCE "Build GoogleTest from /usr/src/googletest (for -m32)" OFF)
set(QVIPC_SANITIZER "none" CACHE STRING "none, address (with undefined), undefined, thread")
set_property(CACHE QVIPC_SANITIZER PROPERTY STRINGS none address undefined thread)
option(QVIPC_THREAD_SAFETY
       "clang: check the lock annotations of the library and tools (-Wthread-safety)" OFF)

if(QVIPC_THREAD_SAFETY)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "QVIPC_THREAD_SAFETY needs clang")
    endif()
    # Tests opt out in QVIPCTesting.cmake: they set an endpoint's members directly, on
    # endpoints no other thread sees.
    add_compile_options(-Wthread-safety)
endif()
