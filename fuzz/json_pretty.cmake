qvipc_add_fuzzer(json_pretty SOURCE json_pretty.cpp PARTS qvipc_json qvipc_common)
