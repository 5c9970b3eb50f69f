qvipc_add_fuzzer(json_numbers SOURCE json_numbers.cpp PARTS qvipc_json qvipc_common)
