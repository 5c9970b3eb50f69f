// Fuzz target: JSON::Serialize driven by a stream of operations, each checked against a small
// model of the writer's rules (separators, refusals, sticky error, 32 levels), plus the
// fixed-buffer escaping with guard bytes around the buffer.
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "json/JSONEscape.h"
#include "json/JSONSerialize.h"

namespace {

class Input {
public:
    Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Empty() const { return m_pos >= m_size; }
    uint8_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    // A short text: a length byte, then up to that many bytes, cut at the first NUL.
    std::string Text() {
        const size_t want = Byte() % 24u;
        std::string s;
        while (s.size() < want && !Empty()) s.push_back(static_cast<char>(Byte()));
        return std::string(s.c_str());
    }
    template <typename T>
    T Number() {
        uint64_t bits = 0;
        for (size_t i = 0; i < sizeof(T); ++i) bits = (bits << 8) | Byte();
        T value;
        std::memcpy(&value, &bits, sizeof value);  // little-endian: the low bytes
        return value;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

// What the writer must do, kept independently of its bit stacks.
struct Model {
    std::string text;
    std::vector<bool> isObject;  // per open container
    std::vector<bool> hasElement;
    bool expectName = false;
    bool error = false;

    bool Refuse() {
        error = true;
        return false;
    }
    bool Comma() const { return !isObject.empty() && !isObject.back() && hasElement.back(); }
    bool Open(bool object) {
        if (error) return false;
        if (expectName || isObject.size() >= JSON::Serialize::MAX_DEPTH) return Refuse();
        if (Comma()) text += ',';
        text += object ? '{' : '[';
        isObject.push_back(object);
        hasElement.push_back(false);
        expectName = object;
        return true;
    }
    bool Close(bool object) {
        if (error) return false;
        if (isObject.empty() || isObject.back() != object) return Refuse();
        text += object ? '}' : ']';
        isObject.pop_back();
        hasElement.pop_back();
        if (!hasElement.empty()) hasElement.back() = true;
        expectName = !isObject.empty() && isObject.back();
        return true;
    }
    bool Name(const char* name) {
        if (error) return false;
        if (name == nullptr || isObject.empty() || !isObject.back() || !expectName) {
            return Refuse();
        }
        if (hasElement.back()) text += ',';
        text += '"';
        JSON::EscapeString(text, name);
        text += "\":";
        expectName = false;
        return true;
    }
    bool Value(const std::string& value) {
        if (error) return false;
        if (isObject.empty() || expectName) return Refuse();
        if (Comma()) text += ',';
        text += value;
        hasElement.back() = true;
        expectName = isObject.back();
        return true;
    }
};

std::string Quoted(const std::string& s) {
    std::string q = "\"";
    JSON::EscapeString(q, s.c_str());
    return q + "\"";
}

void CheckSame(const JSON::Serialize& w, const Model& m) {
    if (w.String() != m.text || w.m_error != m.error || w.m_expectName != m.expectName ||
        w.m_depth != m.isObject.size()) {
        abort();
    }
    uint32_t first = 0;
    uint32_t kinds = 0;
    for (size_t i = 0; i < m.isObject.size(); ++i) {
        first = (first << 1) | (m.hasElement[i] ? 0u : 1u);
        kinds = (kinds << 1) | (m.isObject[i] ? 1u : 0u);
    }
    if (w.m_firstStack != first || w.m_objectStack != kinds) abort();
}

void CheckFixedBufferEscape(const std::string& s, int room) {
    constexpr int GUARD_BYTES = 8;
    std::vector<char> area(static_cast<size_t>(room + 2 * GUARD_BYTES), '\x5A');
    char* pos = area.data() + GUARD_BYTES;
    char* const start = pos;
    std::string escaped;
    JSON::EscapeString(escaped, s.c_str());
    const int copied = JSON_EscapeString(&pos, start + room, s.c_str());
    if (pos != start) abort();
    const bool fits = static_cast<int>(escaped.size()) + 1 < room;
    if (copied != (fits ? 1 : 0)) abort();
    for (size_t i = 0; i < area.size(); ++i) {
        const bool written = fits && i >= GUARD_BYTES && i <= GUARD_BYTES + escaped.size();
        if (!written && area[i] != '\x5A') abort();
    }
    if (fits && escaped != start) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    JSON::Serialize w;
    Model m;
    char number[64];
    while (!in.Empty()) {
        switch (in.Byte() % 16u) {
            case 0:
                w.OO();
                m.Open(true);
                break;
            case 1:
                w.AO();
                m.Open(false);
                break;
            case 2:
                w.OC();
                m.Close(true);
                break;
            case 3:
                w.AC();
                m.Close(false);
                break;
            case 4: {
                const std::string s = in.Text();
                w.N(s.c_str());
                m.Name(s.c_str());
                break;
            }
            case 5: {
                const std::string s = in.Text();
                w.V(s.c_str());
                m.Value(Quoted(s));
                break;
            }
            case 6:
                w.V(static_cast<const char*>(nullptr));
                m.Value("null");
                break;
            case 7: {
                const std::string s = in.Text();
                w.JS(s.c_str());
                m.Value(s.empty() ? "null" : s);
                break;
            }
            case 8: {
                const std::string s = in.Text();
                const uint8_t b = in.Byte();
                const int len = b == 0xFF ? -1 : static_cast<int>(b % (s.size() + 1));
                w.JS_N(s.c_str(), len);
                if (s.empty()) {
                    m.Value("null");  // whatever the length
                } else if (len < 0) {
                    m.Refuse();
                } else {
                    m.Value(s.substr(0, static_cast<size_t>(len)));
                }
                break;
            }
            case 9: {
                const std::string s = in.Text();
                w.AppendString(s.c_str());
                m.Value(s);
                break;
            }
            case 10: {
                const int v = in.Number<int>();
                std::snprintf(number, sizeof number, "%d", v);
                w.V(v);
                m.Value(number);
                break;
            }
            case 11: {
                const long long v = in.Number<long long>();
                std::snprintf(number, sizeof number, "%lld", v);
                w.V(v);
                m.Value(number);
                break;
            }
            case 12: {
                const double v = in.Number<double>();
                std::snprintf(number, sizeof number, "%g", v);
                w.V(v);
                m.Value(number);
                break;
            }
            case 13: {
                const unsigned long v = in.Number<unsigned long>();
                std::snprintf(number, sizeof number, "%lu", v);
                w.V(v);
                m.Value(number);
                break;
            }
            case 14:
                w.N(nullptr);
                m.Name(nullptr);
                break;
            default: {
                const std::string s = in.Text();
                CheckFixedBufferEscape(s, in.Byte() % 64);
                break;
            }
        }
        CheckSame(w, m);
    }
    return 0;
}
