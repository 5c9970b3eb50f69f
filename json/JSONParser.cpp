// The in-place reader and Message::Parse. One pass; values point into the buffer, strings are
// unescaped behind the read position. The values of the containers still open are collected on
// one scratch stack and moved into their container when it ends, so each container's vectors
// are allocated once at their final size instead of growing from a few entries.
#include "json/JSONParser.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <typeinfo>
#include <vector>

#include "json/JSONMessage.h"

namespace JSON {

namespace {

// Outside strings a NUL ends the text just as pEnd does. *pEnd itself is never read.
bool AtEnd(const ParseContext& ctx) { return ctx.pCur >= ctx.pEnd || *ctx.pCur == '\0'; }

constexpr std::array<bool, 256> MakeSpaceTable() {
    std::array<bool, 256> table{};
    table[' '] = table['\t'] = table['\f'] = table['\n'] = table['\r'] = true;
    return table;
}

constexpr std::array<bool, 256> SPACE = MakeSpaceTable();

// Skips white space; true when the text ends there. Works on local copies of the cursor: the
// unescaping writes bytes, which the compiler must otherwise assume may change the context.
bool SkipSpace(ParseContext& ctx) {
    char* p = ctx.pCur;
    char* const end = ctx.pEnd;
    while (p < end && SPACE[static_cast<unsigned char>(*p)]) ++p;
    ctx.pCur = p;
    return p >= end || *p == '\0';
}

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

// A value read but not yet in its container: a plain record, so that collecting and moving
// values costs no constructor or destructor calls.
struct Entry {
    char* pText;
    CompositeValue* pComposite;
    int32_t nLength;
    Type type;
};

// The values and names read for the containers still open, innermost last. A container takes
// its own range when it ends, however it ends.
struct Scratch {
    std::vector<Entry> values;
    std::vector<ObjectValue::NameMap> names;
};

// Gives a parse a scratch stack and empties it again afterwards. Each thread keeps its stack
// between parses: growing it anew for every document would allocate, and free, blocks large
// enough to make the allocator consolidate its free lists each time. What an exception leaves
// on the stack belongs to no container yet and is released here.
class ScratchLease {
public:
    ScratchLease() : m_scratch(Local()) {
        // Re-entered on one thread (a parse never calls out, so only by a future change):
        // the second parse works on a stack of its own.
        if (m_scratch.values.empty() && m_scratch.names.empty() && !InUse()) {
            InUse() = true;
            m_bShared = true;
        } else {
            m_pOwn.reset(new Scratch);
        }
    }
    ~ScratchLease() {
        Scratch& scratch = Get();
        for (Entry& e : scratch.values) delete e.pComposite;
        scratch.values.clear();
        scratch.names.clear();
        if (!m_bShared) return;
        // A stack grown by a huge document is not kept for ever.
        if (scratch.values.capacity() > KEEP_ENTRIES) std::vector<Entry>().swap(scratch.values);
        if (scratch.names.capacity() > KEEP_ENTRIES) {
            std::vector<ObjectValue::NameMap>().swap(scratch.names);
        }
        InUse() = false;
    }
    ScratchLease(const ScratchLease&) = delete;
    ScratchLease& operator=(const ScratchLease&) = delete;

    Scratch& Get() { return m_bShared ? m_scratch : *m_pOwn; }

private:
    static constexpr size_t KEEP_ENTRIES = 16 * 1024;

    static Scratch& Local() {
        static thread_local Scratch t_scratch;
        return t_scratch;
    }
    static bool& InUse() {
        static thread_local bool t_bInUse = false;
        return t_bInUse;
    }

    Scratch& m_scratch;
    std::unique_ptr<Scratch> m_pOwn;
    bool m_bShared = false;
};

// Moves the values from base on to the end of dst, in one allocation.
void TakeValues(std::vector<UnsafeJSONValue>& dst, Scratch& scratch, size_t base) {
    const size_t count = scratch.values.size() - base;
    if (count == 0) return;
    dst.reserve(dst.size() + count);
    for (size_t i = base; i < scratch.values.size(); ++i) {
        const Entry& e = scratch.values[i];
        dst.emplace_back();
        UnsafeJSONValue& v = dst.back();
        v.m_type = e.type;
        v.m_pText = e.pText;
        v.m_nLength = e.nLength;
        v.m_pComposite = e.pComposite;
    }
    scratch.values.resize(base);
}

void TakeNames(std::vector<ObjectValue::NameMap>& dst, Scratch& scratch, size_t base) {
    const size_t count = scratch.names.size() - base;
    if (count == 0) return;
    // Element by element: a range insert would instantiate free std templates on the exported
    // NameMap type, which unoptimised builds then export.
    dst.reserve(dst.size() + count);
    for (size_t i = base; i < scratch.names.size(); ++i) dst.push_back(scratch.names[i]);
    scratch.names.resize(base);
}

// A container of a type derived elsewhere gets its values and names through its own AddValue
// and AddName, as if they had been added one by one.
void GiveValues(CompositeValue& dst, Scratch& scratch, size_t base) {
    for (size_t i = base; i < scratch.values.size(); ++i) {
        Entry& e = scratch.values[i];
        JSONValue v;
        v.m_type = e.type;
        v.m_pText = e.pText;
        v.m_nLength = e.nLength;
        v.m_pComposite = e.pComposite;
        dst.AddValue(v);
        e.pComposite = nullptr;  // dst owns it now
    }
    scratch.values.resize(base);
}

void GiveNames(ObjectValue& dst, Scratch& scratch, size_t base) {
    for (size_t i = base; i < scratch.names.size(); ++i) {
        JSONValue name;
        name.m_pText = scratch.names[i].pName;
        name.m_nLength = scratch.names[i].nLength;
        dst.AddName(name);
    }
    scratch.names.resize(base);
}

// The readers of the scalars, on an Entry; the Parser operations of the same name wrap them.

// The text starts after the quote even when reading fails; the length is set on success only.
Type ScanString(ParseContext& ctx, char** pText, int32_t* pLength);

// Which bytes a number literal may hold.
constexpr unsigned char NUMBER_BYTE = 1;
constexpr unsigned char REAL_BYTE = 2;  // a literal holding one is a real

constexpr std::array<unsigned char, 256> MakeNumberTable() {
    std::array<unsigned char, 256> table{};
    for (int c = '0'; c <= '9'; ++c) table[static_cast<size_t>(c)] = NUMBER_BYTE;
    table['+'] = table['-'] = NUMBER_BYTE;
    table['.'] = table['e'] = table['E'] = NUMBER_BYTE | REAL_BYTE;
    return table;
}

constexpr std::array<unsigned char, 256> NUMBER = MakeNumberTable();

// The scanners write into an entry already in place on the scratch stack: assembling one
// elsewhere and copying it whole makes the CPU reload fields just stored piecewise, which
// stalls it on every value.
void ScanNumber(ParseContext& ctx, Entry& e) {
    char* p = ctx.pCur;
    // The last byte before pEnd is never taken, so the literal always has a byte after it.
    char* const last = ctx.pEnd - 1;
    unsigned char seen = 0;
    while (p < last) {
        const unsigned char kind = NUMBER[static_cast<unsigned char>(*p)];
        if (kind == 0) break;
        seen |= kind;
        ++p;
    }
    e.pText = ctx.pCur;
    e.nLength = static_cast<int32_t>(p - ctx.pCur);
    e.type = (seen & REAL_BYTE) != 0 ? TypeReal : TypeInteger;
    ctx.pCur = p;
}

// Sets e to the keyword when it stands at the cursor; otherwise leaves e as it is.
bool ScanKeyword(ParseContext& ctx, Entry& e, const char* word, int32_t length, Type type) {
    if (ctx.pEnd - ctx.pCur < length || memcmp(ctx.pCur, word, static_cast<size_t>(length)) != 0) {
        return false;
    }
    e.pText = ctx.pCur;
    e.nLength = length;
    e.type = type;
    ctx.pCur += length;
    return true;
}

// e.type is TypeInvalid when neither keyword stands at the cursor.
void ScanBoolean(ParseContext& ctx, Entry& e) {
    e.type = TypeInvalid;
    if (!ScanKeyword(ctx, e, "true", 4, TypeBoolean)) ScanKeyword(ctx, e, "false", 5, TypeBoolean);
}

void ScanNull(ParseContext& ctx, Entry& e) {
    e.type = TypeInvalid;
    ScanKeyword(ctx, e, "null", 4, TypeNull);
}

// A new, empty entry on top of the scratch stack.
Entry& NewEntry(Scratch& scratch) {
    scratch.values.emplace_back();
    return scratch.values.back();
}

Type ReadArray(ParseContext& ctx, ArrayValue& array, Scratch& scratch);
Type ReadObject(ParseContext& ctx, ObjectValue& object, Scratch& scratch);

// Starts a container value on the scratch stack, reads it, and stores the result as its type.
template <typename Container>
Type ReadContainer(ParseContext& ctx, Scratch& scratch,
                   Type (*read)(ParseContext&, Container&, Scratch&)) {
    std::unique_ptr<Container> owned(new Container(0));
    Container* container = owned.get();
    scratch.values.push_back(Entry{nullptr, container, 0, TypeInvalid});
    owned.release();  // the scratch stack owns it now, also when reading it fails
    const size_t index = scratch.values.size() - 1;
    const Type result = read(ctx, *container, scratch);
    scratch.values[index].type = result;
    return result;
}

// Reads one value onto the scratch stack, also when it fails (then TypeInvalid); at the end of
// the text or on a byte that starts no value nothing is added.
Type ReadValue(ParseContext& ctx, Scratch& scratch) {
    if (AtEnd(ctx) || SkipSpace(ctx)) return TypeInvalid;
    switch (*ctx.pCur) {
        case '"': {
            Entry& e = NewEntry(scratch);
            e.type = ScanString(ctx, &e.pText, &e.nLength);
            return e.type;
        }
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
        case '9': {
            Entry& e = NewEntry(scratch);
            ScanNumber(ctx, e);
            return e.type;
        }
        case 't':
        case 'f': {
            Entry& e = NewEntry(scratch);
            ScanBoolean(ctx, e);
            return e.type;
        }
        case 'n': {
            Entry& e = NewEntry(scratch);
            ScanNull(ctx, e);
            return e.type;
        }
        case '[':
            return ReadContainer<ArrayValue>(ctx, scratch, ReadArray);
        case '{':
            return ReadContainer<ObjectValue>(ctx, scratch, ReadObject);
        default:
            return TypeInvalid;
    }
}

Type ReadMembers(ParseContext& ctx, const ObjectValue& object, Scratch& scratch, size_t nameBase) {
    // A text cut off after the brace and white space is an empty, complete object.
    if (SkipSpace(ctx)) return TypeObject;
    if (*ctx.pCur == '}') {
        ++ctx.pCur;
        return TypeObject;
    }
    const size_t ordinalBase = object.m_names.size();
    for (;;) {
        // Scanned into its place on the stack, for the same reason as the values.
        const size_t ordinal = ordinalBase + (scratch.names.size() - nameBase);
        scratch.names.emplace_back();
        ObjectValue::NameMap& name = scratch.names.back();
        name.nOrdinal = static_cast<int32_t>(ordinal);
        // Whatever byte stands here is taken as the opening quote.
        if (ScanString(ctx, &name.pName, &name.nLength) == TypeInvalid) {
            scratch.names.pop_back();
            return TypeInvalid;
        }
        if (AtEnd(ctx) || SkipSpace(ctx)) return TypeInvalid;
        if (*ctx.pCur != ':') return TypeInvalid;
        ++ctx.pCur;
        SkipSpace(ctx);
        if (ReadValue(ctx, scratch) == TypeInvalid) return TypeInvalid;
        if (AtEnd(ctx) || SkipSpace(ctx)) return TypeInvalid;
        if (*ctx.pCur == '}') {
            ++ctx.pCur;
            return TypeObject;
        }
        if (*ctx.pCur != ',') return TypeInvalid;
        ++ctx.pCur;
        // A text cut off after a comma (and white space) ends the object.
        if (SkipSpace(ctx)) return TypeObject;
    }
}

Type ReadObject(ParseContext& ctx, ObjectValue& object, Scratch& scratch) {
    object.m_type = TypeInvalid;
    // The object may come sorted (a message root that is cleared and reused keeps its flag);
    // the names read now are unsorted until the object ends, and a failed read never ends it.
    object.m_bSorted = false;
    DepthGuard depth(ctx);
    if (depth.TooDeep()) return TypeInvalid;
    ++ctx.pCur;  // '{'
    if (AtEnd(ctx)) return TypeInvalid;
    const size_t base = scratch.values.size();
    const size_t nameBase = scratch.names.size();
    const Type result = ReadMembers(ctx, object, scratch, nameBase);
    // A failed object keeps what was read, a name without its value included.
    if (typeid(object) == typeid(ObjectValue)) {
        TakeNames(object.m_names, scratch, nameBase);
        TakeValues(object.m_members.m_values, scratch, base);
    } else {
        GiveNames(object, scratch, nameBase);
        GiveValues(object, scratch, base);
    }
    if (result == TypeInvalid) return TypeInvalid;
    object.Sort();
    object.m_type = TypeObject;
    return TypeObject;
}

// A text ending right after a comma completes only the array that the comma is in: its
// parent then finds the end where a ',' or a closing bracket belongs and fails, so "[[1,"
// is refused while "[1," is accepted, as the reading rules (not the looser summary that
// "the open containers are complete") have it.
Type ReadElements(ParseContext& ctx, Scratch& scratch) {
    if (SkipSpace(ctx)) return TypeArray;
    if (*ctx.pCur == ']') {
        ++ctx.pCur;
        return TypeArray;
    }
    for (;;) {
        SkipSpace(ctx);
        if (!AtEnd(ctx) && (*ctx.pCur == ',' || *ctx.pCur == ']')) {
            // An empty element reads as null; the cursor stays on the separator.
            scratch.values.push_back(Entry{nullptr, nullptr, 0, TypeNull});
        } else if (ReadValue(ctx, scratch) == TypeInvalid) {
            return TypeInvalid;
        }
        if (AtEnd(ctx) || SkipSpace(ctx)) return TypeInvalid;
        if (*ctx.pCur == ']') {
            ++ctx.pCur;
            return TypeArray;
        }
        if (*ctx.pCur != ',') return TypeInvalid;
        ++ctx.pCur;
        if (AtEnd(ctx)) return TypeArray;
    }
}

Type ReadArray(ParseContext& ctx, ArrayValue& array, Scratch& scratch) {
    array.m_type = TypeInvalid;
    DepthGuard depth(ctx);
    if (depth.TooDeep()) return TypeInvalid;
    ++ctx.pCur;  // '['
    if (AtEnd(ctx)) return TypeInvalid;
    const size_t base = scratch.values.size();
    const Type result = ReadElements(ctx, scratch);
    if (typeid(array) == typeid(ArrayValue)) {
        TakeValues(array.m_values, scratch, base);
    } else {
        GiveValues(array, scratch, base);
    }
    array.m_type = result;
    return result;
}

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr bool WORD_SCAN = true;
#else
constexpr bool WORD_SCAN = false;
#endif

// The first '"' or '\\' in [p, end), or end. Whole 8-byte words are tested at once while a
// whole word lies before end, so nothing at or beyond end is ever read.
char* FindQuoteOrBackslash(char* p, char* end) {
    if (WORD_SCAN) {
        constexpr uint64_t ONES = 0x0101010101010101ULL;
        constexpr uint64_t HIGHS = 0x8080808080808080ULL;
        while (end - p >= 8) {
            uint64_t word;
            std::memcpy(&word, p, sizeof word);
            const uint64_t quote = word ^ (ONES * '"');
            const uint64_t backslash = word ^ (ONES * '\\');
            // Sets the high bit of a zero byte; bits above the first zero byte may be wrong,
            // the lowest one never is.
            const uint64_t found =
                ((quote - ONES) & ~quote & HIGHS) | ((backslash - ONES) & ~backslash & HIGHS);
            if (found != 0) return p + (__builtin_ctzll(found) >> 3);
            p += 8;
        }
    }
    while (p < end && *p != '"' && *p != '\\') ++p;
    return p;
}

Type ScanString(ParseContext& ctx, char** pText, int32_t* pLength) {
    char* r = ctx.pCur + 1;  // over the opening quote
    char* w = r;
    *pText = r;
    // The closing quote must lie before pEnd; the byte at pEnd is never read.
    for (;;) {
        // Plain bytes are moved as a run, and not at all until the first escape.
        char* stop = FindQuoteOrBackslash(r, ctx.pEnd);
        if (w != r) std::memmove(w, r, static_cast<size_t>(stop - r));
        w += stop - r;
        r = stop;
        if (r >= ctx.pEnd || *r == '"') break;
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
                if (ctx.pEnd - r <= 4) return TypeInvalid;
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
        ++r;
        ++w;
    }
    if (r >= ctx.pEnd || *r != '"') return TypeInvalid;
    *w = '\0';
    *pLength = static_cast<int32_t>(w - *pText);
    ctx.pCur = r + 1;
    return TypeString;
}

void StoreEntry(const Entry& e, JSONValue& value) {
    value.m_pText = e.pText;
    value.m_nLength = e.nLength;
    value.m_type = e.type;
}

}  // namespace

Type Parser::ParseJSONValue(ParseContext& ctx, CompositeValue& parent) {
    ScratchLease lease;
    const Type result = ReadValue(ctx, lease.Get());
    GiveValues(parent, lease.Get(), 0);
    return result;
}

Type Parser::ParseObject(ParseContext& ctx, ObjectValue& object) {
    ScratchLease lease;
    return ReadObject(ctx, object, lease.Get());
}

Type Parser::ParseArray(ParseContext& ctx, ArrayValue& array) {
    ScratchLease lease;
    return ReadArray(ctx, array, lease.Get());
}

Type Parser::ParseString(ParseContext& ctx, JSONValue& value) {
    value.m_type = ScanString(ctx, &value.m_pText, &value.m_nLength);
    return value.m_type;
}

Type Parser::ParseNumber(ParseContext& ctx, JSONValue& value) {
    Entry e{nullptr, nullptr, 0, TypeInvalid};
    ScanNumber(ctx, e);
    StoreEntry(e, value);
    return value.m_type;
}

Type Parser::ParseBoolean(ParseContext& ctx, JSONValue& value) {
    Entry e{value.m_pText, nullptr, value.m_nLength, TypeInvalid};
    ScanBoolean(ctx, e);
    StoreEntry(e, value);
    return value.m_type;
}

Type Parser::ParseNull(ParseContext& ctx, JSONValue& value) {
    Entry e{value.m_pText, nullptr, value.m_nLength, TypeInvalid};
    ScanNull(ctx, e);
    StoreEntry(e, value);
    return value.m_type;
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
        root = m_pComposite = new ArrayValue(0);
    } else {
        root = m_pComposite = new ObjectValue(0);
    }
    m_type = isArray ? TypeArray : TypeObject;
    // The lease, not a bare stack: an allocation failure leaves the containers still open on
    // the stack, and only the lease releases them.
    ScratchLease lease;
    Scratch& scratch = lease.Get();
    const Type result = isArray ? ReadArray(m_context, *static_cast<ArrayValue*>(root), scratch)
                                : ReadObject(m_context, *static_cast<ObjectValue*>(root), scratch);
    return result != TypeInvalid;
}

}  // namespace JSON
