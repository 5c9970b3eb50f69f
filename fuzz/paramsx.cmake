qvipc_add_fuzzer(paramsx SOURCE paramsx.cpp PARTS qvipc_paramsx qvipc_platform qvipc_common)
