// String escaping for JSON text. The set of bytes that need escaping is a constant, so
// first calls from several threads at once need no initialisation.
#include "json/JSONEscape.h"

#include <cstddef>
#include <cstring>
#include <string>

namespace {

// True when text holds a byte that must be escaped.
bool NeedsEscaping(const char* text) {
    // The accept set of strpbrk: 0x01 to 0x1F, backslash, double quote, terminator.
    static constexpr char szStopChar[34] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09,
                                            0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11, 0x12,
                                            0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B,
                                            0x1C, 0x1D, 0x1E, 0x1F, '\\', '"',  '\0'};
    return std::strpbrk(text, szStopChar) != nullptr;
}

// The letter after the backslash for bytes with a two-byte escape, else null.
const char* ShortEscape(unsigned char c) {
    // Pairs of a byte and its letter.
    static constexpr char szShort[] = "\"\"\\\\\bb\tt\nn\ff\rr";
    for (const char* p = szShort; *p != '\0'; p += 2) {
        if (static_cast<unsigned char>(*p) == c) return p + 1;
    }
    return nullptr;
}

}  // namespace

namespace JSON {

void EscapeString(std::string& out, const char* text) {
    static constexpr char szHex[] = "0123456789abcdef";

    if (text == nullptr) return;
    if (!NeedsEscaping(text)) {
        out.append(text);
        return;
    }
    for (const char* p = text; *p != '\0'; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        const char* shortForm = ShortEscape(c);
        if (shortForm != nullptr) {
            out.push_back('\\');
            out.push_back(*shortForm);
        } else if (c < 0x20) {
            const char escaped[6] = {'\\', 'u', '0', '0', szHex[c >> 4], szHex[c & 0x0F]};
            out.append(escaped, sizeof escaped);
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
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
