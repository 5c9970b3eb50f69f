qvipc_add_fuzzer(transport_request SOURCE transport_request.cpp
    PARTS qvipc_transport qvipc_platform qvipc_common qvipc_json)
target_sources(fuzz_transport_request PRIVATE transport_endpoint.cpp)
target_include_directories(fuzz_transport_request PRIVATE ${PROJECT_SOURCE_DIR})

# Inputs that end in a torn header and so break the good client's connection: its reconnect
# runs while the client sends, which is what showed (under ThreadSanitizer) a connect thread
# closing a write end that sendRequest was still writing to.
set(_reconnect_corpus ${CMAKE_CURRENT_SOURCE_DIR}/corpus/transport_request_reconnect)
if(QVIPC_BUILD_FUZZERS)
    set(_reconnect_args -runs=0 ${_reconnect_corpus})
else()
    set(_reconnect_args ${_reconnect_corpus})
endif()
set(_reconnect_test fuzz_replay_transport_request_reconnect)
add_test(NAME ${_reconnect_test} COMMAND fuzz_transport_request ${_reconnect_args})
set_tests_properties(${_reconnect_test} PROPERTIES LABELS fuzz TIMEOUT 300)
