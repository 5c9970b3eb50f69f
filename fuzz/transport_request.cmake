qvipc_add_fuzzer(transport_request SOURCE transport_request.cpp
    PARTS qvipc_transport qvipc_platform qvipc_common qvipc_json)
target_sources(fuzz_transport_request PRIVATE transport_endpoint.cpp)
target_include_directories(fuzz_transport_request PRIVATE ${PROJECT_SOURCE_DIR})
