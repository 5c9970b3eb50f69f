// String escaping for JSON text. The table of bytes that need escaping is a constant, so
// first calls from several threads at once need no initialisation.
#include "json/JSONEscape.h"

#include <cstddef>
#include <cstring>
#include <string>

#include "json/JSONTextSink.h"

namespace {

// True when text holds a byte that must be escaped.
bool NeedsEscaping(const char* text) {
    const unsigned char* stop = JSON::text::SkipPlain(reinterpret_cast<const unsigned char*>(text));
    return JSON::text::ESCAPE[*stop] != JSON::text::END;
}

}  // namespace

namespace JSON {

void EscapeString(std::string& out, const char* text) {
    if (text == nullptr) return;
    text::EscapeRuns(text, [&out](const char* p, size_t n) { out.append(p, n); });
}

}  // namespace JSON

extern "C" int JSON_EscapeString(char** pos, char* end, const char* text) {
    if (pos == nullptr || *pos == nullptr || end == nullptr) return 0;
    if (text == nullptr) text = "";
    // Compared as signed: an end before *pos leaves no room at all.
    const std::ptrdiff_t room = end - *pos;
    // Most texts need no escaping: they are copied without a temporary string.
    std::string escaped;
    const char* source = text;
    size_t length = 0;
    if (NeedsEscaping(text)) {
        JSON::EscapeString(escaped, text);
        source = escaped.c_str();
        length = escaped.size();
    } else {
        length = std::strlen(text);
    }
    if (static_cast<std::ptrdiff_t>(length) + 1 >= room) return 0;
    std::memcpy(*pos, source, length + 1);
    return 1;
}
