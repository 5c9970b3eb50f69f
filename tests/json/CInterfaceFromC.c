/* The C interface, compiled as C; returns 0 or the line of the first failed check. */
#include <string.h>

#include "json/JSON_C.h"

int DomCExercise(void);

#define CHECK(cond) \
    if (!(cond)) return JSON_FreeMessage(msg), __LINE__

int DomCExercise(void) {
    const char* s;
    char buf[14];
    char* pos = buf;
    void* msg = JSON_AllocMessage();
    int i;
    /* The members below in order: negative and too large values wrap and saturate. */
    static const unsigned long long u64[] = {
        2, 18446744073709551615ull, 10000000000000000000ull, 9300000000000000000ull, 7, 1, 0,
        0, 18446744073709551615ull, 18446744073709551614ull};
    CHECK(JSON_MessageSize(msg) == 0 && JSON_GetNameAsString(msg, "a") == NULL);
    CHECK(JSON_GetPathAsString(msg, "a.b") == NULL && JSON_GetOrdinalAsInt(msg, 0) == 0);
    CHECK(JSON_GetPathAsDouble(msg, "a") == 0.0 && JSON_GetNameAsUnsignedLong64(msg, "a") == 0);
    CHECK(JSON_ParseMessage(msg, "{\"a\":1,\"b\":[true,null,\"x\"],\"c\":null}") == 1);
    CHECK(JSON_MessageSize(msg) == 3 && JSON_GetNameAsString(msg, "a") == NULL);
    CHECK(JSON_GetNameAsInt(msg, "a") == 1 && JSON_GetOrdinalAsInt(msg, 0) == 1);
    s = JSON_GetPathAsString(msg, "b.2");
    CHECK(s != NULL && strcmp(s, "x") == 0);
    CHECK(JSON_IsPathNull(msg, "b.1") == 1 && JSON_IsNameNull(msg, "c") == 1);
    CHECK(JSON_IsOrdinalNull(msg, 2) == 1 && JSON_GetPathAsDouble(msg, "b.0") == 1.0);
    CHECK(JSON_GetPathAsInt(msg, "b.0") == 1 && JSON_GetOrdinalAsDouble(msg, 0) == 1.0);
    CHECK(JSON_ParseMessage(msg,
                            "{\"r\":2.5,\"m\":-1,\"big\":1e19,\"top\":9.3e18,\"i\":7,"
                            "\"t\":true,\"f\":false,\"s\":\"12\",\"huge\":1e30,\"neg\":-2.5}") ==
          1);
    CHECK(JSON_GetNameAsDouble(msg, "r") == 2.5 && JSON_GetNameAsInt(msg, "r") == 2);
    for (i = 0; i < 10; ++i) CHECK(JSON_GetOrdinalAsUnsignedLong64(msg, i) == u64[i]);
    CHECK(JSON_GetNameAsUnsignedLong64(msg, "m") == 18446744073709551615ull);
    CHECK(JSON_ParseMessage(msg, "[\"p\",\"q\"") == 0);
    s = JSON_GetOrdinalAsString(msg, 1);
    CHECK(s != NULL && strcmp(s, "q") == 0 && JSON_GetOrdinalAsString(msg, 2) == NULL);
    CHECK(JSON_ParseMessage(msg, "") == 0 && JSON_MessageSize(msg) == 0);
    /* The escaping and number functions come with the same header. An escaped text is copied
       only when a byte of the room stays free. */
    CHECK(JSON_EscapeString(&pos, buf + 6, "a\"b") == 1 && strcmp(buf, "a\\\"b") == 0);
    CHECK(JSON_EscapeString(&pos, buf + 5, "abcd") == 0 && strcmp(buf, "a\\\"b") == 0);
    CHECK(IntToStr(-42, buf, 14) == buf + 3 && strcmp(buf, "-42") == 0);
    JSON_FreeMessage(msg);
    JSON_FreeMessage(NULL);
    return 0;
}
