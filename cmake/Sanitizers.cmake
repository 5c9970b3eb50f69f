# Adds the sanitizer flags chosen by QVIPC_SANITIZER to everything built after this point.
include_guard(GLOBAL)

if(QVIPC_SANITIZER STREQUAL "address")
    set(_qvipc_san_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined
                         -fno-omit-frame-pointer)
elseif(QVIPC_SANITIZER STREQUAL "undefined")
    set(_qvipc_san_flags -fsanitize=undefined -fno-sanitize-recover=undefined)
elseif(QVIPC_SANITIZER STREQUAL "thread")
    set(_qvipc_san_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT QVIPC_SANITIZER STREQUAL "none")
    message(FATAL_ERROR "QVIPC_SANITIZER: unknown value '${QVIPC_SANITIZER}'")
endif()

if(_qvipc_san_flags)
    add_compile_options(${_qvipc_san_flags})
    add_link_options(${_qvipc_san_flags})
endif()

# In fuzzing builds the library's own code carries libFuzzer's coverage hooks, not just the
# harnesses, or the fuzzer sees only the harness's branches.
if(QVIPC_BUILD_FUZZERS)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
