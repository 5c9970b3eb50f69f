#include "common/LQException.h"

#include <cstdio>

LQException::LQException(long c, const char* file, long line) : code(c), text() {
    if (file == nullptr) {
        text[0] = '\0';
        return;
    }
    snprintf(text, 270, "%s.%ld", file, line);
    text[270] = '\0';
}

LQException::~LQException() = default;
