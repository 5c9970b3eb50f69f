// Escaping of a text for use between the double quotes of a JSON string. Bytes are handled
// as bytes: UTF-8 sequences pass through unchanged and are not validated. Safe from any
// thread; the set of bytes that need escaping is a constant.
#ifndef JSON_JSONESCAPE_H_
#define JSON_JSONESCAPE_H_

#include "common/QVExport.h"

#ifdef __cplusplus
#include <string>

namespace JSON {

// Appends the escaped form of the NUL-terminated text to out (out is not cleared):
// '"' and '\\' get a backslash, 0x08 0x09 0x0A 0x0C 0x0D become \b \t \n \f \r, every other
// byte from 0x01 to 0x1F becomes \u00XX with lower-case hex digits; all other bytes, the
// solidus '/', 0x7F and bytes from 0x80 up included, are copied. A text without any of
// these bytes is appended in one piece. A null text appends nothing.
QV_API void EscapeString(std::string& out, const char* text);

}  // namespace JSON

extern "C" {
#endif

// Plain-function form for a fixed buffer: writes the escaped text and its terminator to
// *pos when it fits, that is when its length + 1 is less than end - *pos, so at least one
// byte of the buffer stays free. Returns 1 when it wrote, 0 when it did not (the buffer is
// then unchanged). *pos is not advanced. A null text is the empty text.
QV_API int JSON_EscapeString(char** pos, char* end, const char* text);

#ifdef __cplusplus
}
#endif

#endif  // JSON_JSONESCAPE_H_
