# Compares the dynamic symbols that LIB defines (demangled, sorted, one per line) with EXPECTED.
# Runtime-support symbols of the toolchain (_init, _fini, sanitizer hooks) and weak copies of
# standard templates are left out.
execute_process(COMMAND nm -D --defined-only -C --format=posix ${LIB}
    OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${out}")
set(names)
foreach(line IN LISTS lines)
    if(line STREQUAL "")
        continue()
    endif()
    # posix format: "<name> <type> <value> [<size>]"; names may contain spaces when demangled.
    string(REGEX REPLACE " [A-Za-z] [0-9a-f]+( [0-9a-f]+)?$" "" name "${line}")
    if(name MATCHES "^(_init|_fini|__bss_start|_edata|_end|__asan|__ubsan|__tsan|__sanitizer|__odr_asan|___asan)")
        continue()
    endif()
    # Instantiations of standard templates are weak copies that depend on the optimiser and
    # the target, not part of our surface.
    string(REGEX REPLACE "\\(.*" "" qualified "${name}")
    if(qualified MATCHES "std::|__gnu_cxx::" OR name MATCHES " for std::")
        continue()
    endif()
    list(APPEND names "${name}")
endforeach()
list(REMOVE_DUPLICATES names)
list(SORT names)
string(REPLACE ";" "\n" actual "${names}")
file(READ ${EXPECTED} expected)
string(STRIP "${expected}" expected)
string(STRIP "${actual}" actual)
if(NOT actual STREQUAL expected)
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/exported-symbols.actual.txt "${actual}\n")
    message(FATAL_ERROR "exported symbols differ from ${EXPECTED}; actual list written to "
                        "${CMAKE_CURRENT_BINARY_DIR}/exported-symbols.actual.txt")
endif()
