qvipc_add_fuzzer(json_parse SOURCE json_parse.cpp PARTS qvipc_json qvipc_common)
