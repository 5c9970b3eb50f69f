// The in-place reader and Message::Parse. One pass; values point into the buffer, strings are
// unescaped behind the read position; the only allocations are containers and vector growth.
#include "json/JSONParser.h"

#include <cstdlib>
#include <cstring>

#include "json/JSONMessage.h"

namespace JSON {

namespace {

// Outside strings a NUL ends the text just as pEnd does. *pEnd itself is never read.
bool AtEnd(const ParseContext& ctx) { return ctx.pCur >= ctx.pEnd || *ctx.pCur == '\0'; }

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\f' || c == '\n' || c == '\r'; }

// Skips white space; true when the text ends there.
bool SkipSpace(ParseContext& ctx) {
    while (ctx.pCur < ctx.pEnd && IsSpace(*ctx.pCur)) ++ctx.pCur;
    return AtEnd(ctx);
}

bool IsNumberByte(char c) { return (c >= '0' && c <= '9') || c == '+' || c == '-'; }
bool IsRealByte(char c) { return c == '.' || c == 'e' || c == 'E'; }

// Counts the containers open around the cursor, so that nesting has a bound.
class DepthGuard {
public:
    explicit DepthGuard(ParseContext& ctx) : m_ctx(ctx) { ++m_ctx.nDepth; }
    ~DepthGuard() { --m_ctx.nDepth; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;
    bool TooDeep() const { return m_ctx.nDepth > Parser::MAX_DEPTH; }

private:
    ParseContext& m_ctx;
};

// Writes code point c (at most 16 bits used) as UTF-8 at w; returns the last byte written.
char* WriteUtf8(char* w, unsigned long c) {
    if (c < 0x80) {
        *w = static_cast<char>(c);
    } else if (c <= 0x7FF) {
        *w++ = static_cast<char>(0xC0 | ((c >> 6) & 0x1F));
        *w = static_cast<char>(0x80 | (c & 0x3F));
    } else {
        *w++ = static_cast<char>(0xE0 | ((c >> 12) & 0x0F));
        *w++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        *w = static_cast<char>(0x80 | (c & 0x3F));
    }
    return w;
}

}  // namespace

Type Parser::ParseJSONValue(ParseContext& ctx, CompositeValue& parent) {
    if (AtEnd(ctx) || SkipSpace(ctx)) return TypeInvalid;
    JSONValue v;
    Type result = TypeInvalid;
    switch (*ctx.pCur) {
        case '"':
            result = ParseString(ctx, v);
            break;
        case '+':
        case '-':
        case '0':
        case '1':
        case '2':
        case '3':
        case '4':
        case '5':
        case '6':
        case '7':
        case '8':
        case '9':
            result = ParseNumber(ctx, v);
            break;
        case 't':
        case 'f':
            result = ParseBoolean(ctx, v);
            break;
        case 'n':
            result = ParseNull(ctx, v);
            break;
        case '[': {
            // Owned by the parent from here on, also when it fails.
            ArrayValue* array = new ArrayValue(4);
            v.m_pComposite = array;
            parent.AddValue(v);
            result = ParseArray(ctx, *array);
            parent.GetByOrdinal(parent.Size() - 1)->m_type = result;
            return result;
        }
        case '{': {
            ObjectValue* object = new ObjectValue(4);
            v.m_pComposite = object;
            parent.AddValue(v);
            result = ParseObject(ctx, *object);
            parent.GetByOrdinal(parent.Size() - 1)->m_type = result;
            return result;
        }
        default:
            return TypeInvalid;
    }
    parent.AddValue(v);
    return result;
}

Type Parser::ParseObject(ParseContext& ctx, ObjectValue& object) {
    object.m_type = TypeInvalid;
    DepthGuard depth(ctx);
    if (depth.TooDeep()) return TypeInvalid;
    ++ctx.pCur;  // '{'
    if (AtEnd(ctx)) return TypeInvalid;
    // A text cut off after the brace and white space is an empty, complete object.
    if (!SkipSpace(ctx)) {
        if (*ctx.pCur == '}') {
            ++ctx.pCur;
            object.m_type = TypeObject;
            return TypeObject;
        }
        for (;;) {
            JSONValue name;
            // Whatever byte stands here is taken as the opening quote.
            if (ParseString(ctx, name) == TypeInvalid) return TypeInvalid;
            object.AddName(name);
            if (AtEnd(ctx) || SkipSpace(ctx)) return TypeInvalid;
            if (*ctx.pCur != ':') return TypeInvalid;
            ++ctx.pCur;
            SkipSpace(ctx);
            if (ParseJSONValue(ctx, object) == TypeInvalid) return TypeInvalid;
            if (AtEnd(ctx) || SkipSpace(ctx)) return TypeInvalid;
            if (*ctx.pCur == '}') {
                ++ctx.pCur;
                break;
            }
            if (*ctx.pCur != ',') return TypeInvalid;
            ++ctx.pCur;
            // A text cut off after a comma (and white space) ends the object.
            if (SkipSpace(ctx)) break;
        }
    }
    object.Sort();
    object.m_type = TypeObject;
    return TypeObject;
}

// A text ending right after a comma completes only the array that the comma is in: its
// parent then finds the end where a ',' or a closing bracket belongs and fails, so "[[1,"
// is refused while "[1," is accepted, as the reading rules (not the looser summary that
// "the open containers are complete") have it.
Type Parser::ParseArray(ParseContext& ctx, ArrayValue& array) {
    array.m_type = TypeInvalid;
    DepthGuard depth(ctx);
    if (depth.TooDeep()) return TypeInvalid;
    ++ctx.pCur;  // '['
    if (AtEnd(ctx)) return TypeInvalid;
    if (!SkipSpace(ctx)) {
        if (*ctx.pCur == ']') {
            ++ctx.pCur;
        } else {
            for (;;) {
                SkipSpace(ctx);
                if (!AtEnd(ctx) && (*ctx.pCur == ',' || *ctx.pCur == ']')) {
                    // An empty element reads as null; the cursor stays on the separator.
                    JSONValue empty(TypeNull);
                    array.AddValue(empty);
                } else if (ParseJSONValue(ctx, array) == TypeInvalid) {
                    return TypeInvalid;
                }
                if (AtEnd(ctx) || SkipSpace(ctx)) return TypeInvalid;
                if (*ctx.pCur == ']') {
                    ++ctx.pCur;
                    break;
                }
                if (*ctx.pCur != ',') return TypeInvalid;
                ++ctx.pCur;
                if (AtEnd(ctx)) break;
            }
        }
    }
    array.m_type = TypeArray;
    return TypeArray;
}

Type Parser::ParseString(ParseContext& ctx, JSONValue& value) {
    char* r = ctx.pCur + 1;  // over the opening quote
    char* w = r;
    value.m_pText = r;
    // The closing quote must lie before pEnd; the byte at pEnd is never read.
    while (r < ctx.pEnd && *r != '"') {
        if (*r != '\\') {
            *w = *r;
        } else {
            if (ctx.pEnd - r < 2) break;  // a backslash with nothing after it
            ++r;
            switch (*r) {
                case 'b':
                    *w = '\b';
                    break;
                case 'f':
                    *w = '\f';
                    break;
                case 'n':
                    *w = '\n';
                    break;
                case 'r':
                    *w = '\r';
                    break;
                case 't':
                    *w = '\t';
                    break;
                case 'u': {
                    // Four bytes after the 'u', and the closing quote still to come.
                    if (ctx.pEnd - r <= 4) {
                        value.m_type = TypeInvalid;
                        return TypeInvalid;
                    }
                    char hex[5];
                    memcpy(hex, r + 1, 4);
                    hex[4] = '\0';
                    r += 4;
                    w = WriteUtf8(w, strtoul(hex, nullptr, 16));
                    break;
                }
                default:  // '"', '\\', '/' and any other byte stand for themselves
                    *w = *r;
                    break;
            }
        }
        ++r;
        ++w;
    }
    if (r >= ctx.pEnd || *r != '"') {
        value.m_type = TypeInvalid;
        return TypeInvalid;
    }
    *w = '\0';
    value.m_nLength = static_cast<int32_t>(w - value.m_pText);
    value.m_type = TypeString;
    ctx.pCur = r + 1;
    return TypeString;
}

Type Parser::ParseNumber(ParseContext& ctx, JSONValue& value) {
    char* p = ctx.pCur;
    bool real = false;
    // The last byte before pEnd is never taken, so the literal always has a byte after it.
    while (ctx.pEnd - p > 1) {
        if (IsRealByte(*p)) {
            real = true;
        } else if (!IsNumberByte(*p)) {
            break;
        }
        ++p;
    }
    value.m_pText = ctx.pCur;
    value.m_nLength = static_cast<int32_t>(p - ctx.pCur);
    value.m_type = real ? TypeReal : TypeInteger;
    ctx.pCur = p;
    return value.m_type;
}

namespace {

Type ParseKeyword(ParseContext& ctx, JSONValue& value, const char* word, int32_t length,
                  Type type) {
    if (ctx.pEnd - ctx.pCur < length || memcmp(ctx.pCur, word, static_cast<size_t>(length)) != 0) {
        return TypeInvalid;
    }
    value.m_pText = ctx.pCur;
    value.m_nLength = length;
    value.m_type = type;
    ctx.pCur += length;
    return type;
}

}  // namespace

Type Parser::ParseBoolean(ParseContext& ctx, JSONValue& value) {
    value.m_type = TypeInvalid;
    if (ParseKeyword(ctx, value, "true", 4, TypeBoolean) == TypeBoolean) return TypeBoolean;
    return ParseKeyword(ctx, value, "false", 5, TypeBoolean);
}

Type Parser::ParseNull(ParseContext& ctx, JSONValue& value) {
    value.m_type = TypeInvalid;
    return ParseKeyword(ctx, value, "null", 4, TypeNull);
}

bool Message::Parse(const char* text, int length) {
    if (text == nullptr || length == 0) return false;
    char* buffer = nullptr;
    size_t size = 0;
    if (m_bInPlace) {
        // The caller's text is unescaped where it stands, as documented at Parse.
        buffer = const_cast<char*>(text);
        size = length < 0 ? strlen(text) : static_cast<size_t>(length);
    } else {
        // The old tree still points into the old buffer, but releasing it reads no text.
        if (length < 0) {
            m_strText.assign(text);
        } else {
            m_strText.assign(text, static_cast<size_t>(length));
        }
        buffer = &m_strText[0];
        size = m_strText.size();
    }
    m_context.pBegin = buffer;
    m_context.pEnd = buffer + size;
    m_context.pCur = buffer;
    m_context.nDepth = 0;

    SkipSpace(m_context);
    const bool isArray = !AtEnd(m_context) && *m_context.pCur == '[';
    const bool isObject = !AtEnd(m_context) && *m_context.pCur == '{';
    if (!isArray && !isObject) {
        if (m_pComposite != nullptr) m_pComposite->Clear();
        return false;
    }
    // A root of the same kind is cleared and reused; any other is replaced.
    CompositeValue* root = m_pComposite;
    if (root != nullptr && (isArray ? dynamic_cast<ArrayValue*>(root) == nullptr
                                    : dynamic_cast<ObjectValue*>(root) == nullptr)) {
        ReleaseRoot();
        root = nullptr;
    }
    if (root != nullptr) {
        root->Clear();
    } else if (isArray) {
        root = m_pComposite = new ArrayValue(4);
    } else {
        root = m_pComposite = new ObjectValue(4);
    }
    m_type = isArray ? TypeArray : TypeObject;
    const Type result = isArray ? Parser::ParseArray(m_context, *static_cast<ArrayValue*>(root))
                                : Parser::ParseObject(m_context, *static_cast<ObjectValue*>(root));
    return result != TypeInvalid;
}

}  // namespace JSON
