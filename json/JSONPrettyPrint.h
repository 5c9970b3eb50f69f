// JSON_PrettyPrint: lays a compact JSON text out over several lines with tab indentation.
// It does not parse; any text gives output. Safe from any thread. It takes a std::string,
// so unlike the plain-function interface it has C++ linkage.
#ifndef JSON_JSONPRETTYPRINT_H_
#define JSON_JSONPRETTYPRINT_H_

#include <string>

#include "common/QVExport.h"

// Clears out, then fills it with the NUL-terminated text laid out: every '[' and '{' goes on
// a line of its own at its container's depth with its content starting one tab deeper on
// the next line, every ']' and '}' starts a line at its container's depth, and a ',' outside
// any array breaks the line. Line breaks are 0x0A followed by one tab per open bracket (none
// at depth 0 or below); no other white space is added, and the output ends without a line
// break. Brackets and commas inside strings count like structure; unbalanced closing
// brackets drive the depth below 0. A null text gives an empty output.
QV_API void JSON_PrettyPrint(const char* text, std::string& out);

#endif  // JSON_JSONPRETTYPRINT_H_
