qvipc_add_fuzzer(json_path SOURCE json_path.cpp PARTS qvipc_json qvipc_common)
