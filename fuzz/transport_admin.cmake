qvipc_add_fuzzer(transport_admin SOURCE transport_admin.cpp
    PARTS qvipc_transport qvipc_platform qvipc_common qvipc_json)
target_sources(fuzz_transport_admin PRIVATE transport_endpoint.cpp)
target_include_directories(fuzz_transport_admin PRIVATE ${PROJECT_SOURCE_DIR})
