# Test helpers: GoogleTest (the system's, or built from Debian's sources for -m32), and
# qvipc_add_gtest() which makes one test program from sources and the parts it exercises.
include_guard(GLOBAL)
include(GoogleTest)

if(QVIPC_GTEST_FROM_SOURCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
    # GoogleTest's own sources do not build warning-free under our flags.
    set(_saved_opts "${CMAKE_CXX_FLAGS}")
    add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/_googletest EXCLUDE_FROM_ALL)
    foreach(t gtest gtest_main)
        target_compile_options(${t} PRIVATE -w)
    endforeach()
    if(NOT TARGET GTest::gtest)
        add_library(GTest::gtest ALIAS gtest)
        add_library(GTest::gtest_main ALIAS gtest_main)
    endif()
else()
    find_package(GTest REQUIRED)
endif()

# Tests that re-execute themselves must go through the emulator when there is one: under
# qemu-user a process cannot exec an i386 binary directly.
set(QVIPC_TEST_EMULATOR "")
if(CMAKE_CROSSCOMPILING_EMULATOR)
    list(GET CMAKE_CROSSCOMPILING_EMULATOR 0 QVIPC_TEST_EMULATOR)
endif()

# The one support library of every test program, reliability program, fuzz harness and
# benchmark. Its transport helpers take the library's symbols from the program that links them.
add_library(qvipc_test_support STATIC ${PROJECT_SOURCE_DIR}/tests/support/TestSupport.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/IpcSupport.cpp)
target_include_directories(qvipc_test_support PUBLIC ${PROJECT_SOURCE_DIR})
target_compile_definitions(qvipc_test_support PUBLIC
    QVIPC_TEST_EMULATOR="${QVIPC_TEST_EMULATOR}")
target_link_libraries(qvipc_test_support PUBLIC GTest::gtest Threads::Threads)

# qvipc_add_gtest(<name> SOURCES <files...> PARTS <object libs...> [LABELS <labels...>]
#                 [TIMEOUT <seconds>] [NO_MAIN])
function(qvipc_add_gtest name)
    cmake_parse_arguments(T "NO_MAIN" "TIMEOUT" "SOURCES;PARTS;LABELS" ${ARGN})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 120)
    endif()
    if(NOT T_LABELS)
        set(T_LABELS unit)
    endif()
    add_executable(${name} ${T_SOURCES})
    target_link_libraries(${name} PRIVATE ${T_PARTS} qvipc_test_support)
    if(QVIPC_THREAD_SAFETY)
        target_compile_options(${name} PRIVATE -Wno-thread-safety)
    endif()
    if(NOT T_NO_MAIN)
        target_link_libraries(${name} PRIVATE GTest::gtest_main)
    endif()
    # A list of labels must reach the generated test file as one value. On its way there every
    # unquoted expansion (in CMake and in the shell of the discovery step) takes one backslash
    # off an escaped semicolon: eight backslashes see it through.
    string(REPLACE ";" [=[\\\\\\\\;]=] _labels "${T_LABELS}")
    gtest_discover_tests(${name}
        DISCOVERY_TIMEOUT 120
        PROPERTIES TIMEOUT ${T_TIMEOUT} LABELS "${_labels}")
endfunction()
