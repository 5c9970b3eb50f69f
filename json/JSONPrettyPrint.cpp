// The pretty printer: one pass over the bytes with a depth counter and a stack of the open
// brackets' kinds.
#include "json/JSONPrettyPrint.h"

#include <string>
#include <vector>

namespace {

void LineBreak(std::string& out, long depth) {
    out.push_back('\n');
    if (depth > 0) out.append(static_cast<size_t>(depth), '\t');
}

}  // namespace

void JSON_PrettyPrint(const char* text, std::string& out) {
    out.clear();
    if (text == nullptr) return;
    std::string result;
    // long, not int: a text of more than 2^31 brackets must not overflow the counter.
    long depth = 0;
    std::vector<bool> isArray;  // one entry per open bracket: true for '[', false for '{'
    for (const char* p = text; *p != '\0'; ++p) {
        const char c = *p;
        switch (c) {
            case '[':
            case '{':
                LineBreak(result, depth);
                result.push_back(c);
                ++depth;
                isArray.push_back(c == '[');
                LineBreak(result, depth);
                break;
            case ']':
            case '}':
                --depth;
                // A closing bracket with nothing open leaves the stack empty.
                if (!isArray.empty()) isArray.pop_back();
                LineBreak(result, depth);
                result.push_back(c);
                break;
            case ',':
                result.push_back(c);
                if (isArray.empty() || !isArray.back()) LineBreak(result, depth);
                break;
            default:
                result.push_back(c);
                break;
        }
    }
    out.swap(result);
}
