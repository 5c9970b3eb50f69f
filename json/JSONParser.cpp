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

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "json/JSONContainerPool.h"
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

// The bytes that stop neither reading nor white space skipping: anything but white space and
// NUL.
constexpr std::array<bool, 256> MakeSignificantTable() {
    std::array<bool, 256> table{};
    for (size_t c = 1; c < 256; ++c) table[c] = !SPACE[c];
    return table;
}

constexpr std::array<bool, 256> SIGNIFICANT = MakeSignificantTable();

// Words of eight bytes are tested at once where the byte order allows it.
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr bool WORD_SCAN = true;
#else
constexpr bool WORD_SCAN = false;
#endif

constexpr uint64_t ONES = 0x0101010101010101ULL;

// The first byte in [p, end) that is not a space (0x20), or end; only whole words before end
// are read. Indentation after a line break is where long runs of white space are.
__attribute__((noinline)) char* SkipIndentation(char* p, char* const end) {
    if (WORD_SCAN) {
        while (end - p >= 8) {
            uint64_t word;
            std::memcpy(&word, p, sizeof word);
            const uint64_t other = word ^ (ONES * ' ');  // zero bytes where the spaces are
            if (other != 0) return p + (__builtin_ctzll(other) >> 3);
            p += 8;
        }
    }
    while (p < end && *p == ' ') ++p;
    return p;
}

// Skips white space; true when the text ends there. Works on local copies of the cursor: the
// unescaping writes bytes, which the compiler must otherwise assume may change the context.
bool SkipSpace(ParseContext& ctx) {
    char* p = ctx.pCur;
    char* const end = ctx.pEnd;
    // Mostly the cursor is on a significant byte already: nothing to move.
    if (p < end && SIGNIFICANT[static_cast<unsigned char>(*p)]) return false;
    while (p < end && SPACE[static_cast<unsigned char>(*p)]) {
        if (*p++ == '\n') p = SkipIndentation(p, end);
    }
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

// A stack of plain records whose storage is kept from parse to parse: a push is a compare and
// a store, and popping destroys nothing. Records above the top are stale.
template <typename T>
class RecordStack {
public:
    size_t Size() const { return m_nSize; }
    size_t Capacity() const { return m_storage.size(); }
    T& operator[](size_t i) { return m_storage[i]; }
    T& Push(const T& record) {
        if (m_nSize == m_storage.size()) Grow();
        T& top = m_storage[m_nSize++];
        top = record;
        return top;
    }
    void Pop() { --m_nSize; }
    void Resize(size_t size) { m_nSize = size; }  // never above Size()
    void Release() {
        std::vector<T>().swap(m_storage);
        m_nSize = 0;
    }

private:
    __attribute__((noinline)) void Grow() {
        m_storage.resize(m_storage.empty() ? 64 : 2 * m_storage.size());
    }

    std::vector<T> m_storage;
    size_t m_nSize = 0;
};

// The values and names read for the containers still open, innermost last. A container takes
// its own range when it ends, however it ends.
struct Scratch {
    RecordStack<Entry> values;
    RecordStack<ObjectValue::NameMap> names;
    pool::Cache* pCache = nullptr;  // the thread's, fetched once per parse
};

// Gives a parse a scratch stack and empties it again afterwards. Each thread keeps its stack
// between parses: growing it anew for every document would allocate, and free, blocks large
// enough to make the allocator consolidate its free lists each time. What an exception leaves
// on the stack belongs to no container yet and is released here.
class ScratchLease {
public:
    ScratchLease() : m_local(Local()) {
        // Re-entered on one thread (a parse never calls out, so only by a future change):
        // the second parse works on a stack of its own.
        if (!m_local.bInUse) {
            m_local.bInUse = true;
            m_bShared = true;
        } else {
            m_pOwn.reset(new Scratch);
        }
        Get().pCache = &pool::Local();
        pool::BeginParse(*Get().pCache);
    }
    ~ScratchLease() {
        Scratch& scratch = Get();
        for (size_t i = 0; i < scratch.values.Size(); ++i)
            pool::Delete(scratch.values[i].pComposite);
        scratch.values.Resize(0);
        scratch.names.Resize(0);
        if (!m_bShared) return;
        // A stack grown by a huge document is not kept for ever.
        if (scratch.values.Capacity() > KEEP_ENTRIES) scratch.values.Release();
        if (scratch.names.Capacity() > KEEP_ENTRIES) scratch.names.Release();
        m_local.bInUse = false;
    }
    ScratchLease(const ScratchLease&) = delete;
    ScratchLease& operator=(const ScratchLease&) = delete;

    Scratch& Get() { return m_bShared ? m_local.scratch : *m_pOwn; }

private:
    static constexpr size_t KEEP_ENTRIES = 16 * 1024;

    struct ThreadScratch {
        Scratch scratch;
        bool bInUse = false;
    };
    static ThreadScratch& Local() {
        static thread_local ThreadScratch t_scratch;
        return t_scratch;
    }

    ThreadScratch& m_local;
    std::unique_ptr<Scratch> m_pOwn;
    bool m_bShared = false;
};

// Moves the values from base on into the values at dst that pool::Reserve made room for,
// setting every field: those values may hold what a released container left in them.
void TakeValues(UnsafeJSONValue* dst, Scratch& scratch, size_t base) {
    const size_t count = scratch.values.Size() - base;
    for (size_t i = 0; i < count; ++i) {
        const Entry& e = scratch.values[base + i];
        UnsafeJSONValue& v = dst[i];
        v.m_type = e.type;
        v.m_pText = e.pText;
        v.m_nLength = e.nLength;
        v.m_bOwned = false;
        v.m_nNameIndex = 0;
        v.m_pComposite = e.pComposite;
    }
    scratch.values.Resize(base);
}

void TakeNames(std::vector<ObjectValue::NameMap>& dst, Scratch& scratch, size_t base) {
    for (size_t i = base; i < scratch.names.Size(); ++i) dst.push_back(scratch.names[i]);
    scratch.names.Resize(base);
}

// A container of a type derived elsewhere gets its values and names through its own AddValue
// and AddName, as if they had been added one by one.
void GiveValues(CompositeValue& dst, Scratch& scratch, size_t base) {
    for (size_t i = base; i < scratch.values.Size(); ++i) {
        Entry& e = scratch.values[i];
        JSONValue v;
        v.m_type = e.type;
        v.m_pText = e.pText;
        v.m_nLength = e.nLength;
        v.m_pComposite = e.pComposite;
        dst.AddValue(v);
        e.pComposite = nullptr;  // dst owns it now
    }
    scratch.values.Resize(base);
}

void GiveNames(ObjectValue& dst, Scratch& scratch, size_t base) {
    for (size_t i = base; i < scratch.names.Size(); ++i) {
        JSONValue name;
        name.m_pText = scratch.names[i].pName;
        name.m_nLength = scratch.names[i].nLength;
        dst.AddName(name);
    }
    scratch.names.Resize(base);
}

// The readers of the scalars, on an Entry; the Parser operations of the same name wrap them.

// The first '"' or '\\' in [p, end), or end. Blocks of 16 bytes (SSE2) or words of 8 are
// tested at once while a whole block lies before end, so nothing at or beyond end is read.
__attribute__((noinline)) char* FindQuoteOrBackslashFrom(char* p, char* end) {
#if defined(__SSE2__)
    const __m128i quotes = _mm_set1_epi8('"');
    const __m128i backslashes = _mm_set1_epi8('\\');
    while (end - p >= 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const int found = _mm_movemask_epi8(
            _mm_or_si128(_mm_cmpeq_epi8(bytes, quotes), _mm_cmpeq_epi8(bytes, backslashes)));
        if (found != 0) return p + __builtin_ctz(static_cast<unsigned>(found));
        p += 16;
    }
#endif
    if (WORD_SCAN) {
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

// The same; the first block is tested inline, as most names and strings end within it.
inline char* FindQuoteOrBackslash(char* p, char* end) {
#if defined(__SSE2__)
    if (end - p >= 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const int found = _mm_movemask_epi8(_mm_or_si128(
            _mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')), _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))));
        if (found != 0) return p + __builtin_ctz(static_cast<unsigned>(found));
        p += 16;
    }
#endif
    return FindQuoteOrBackslashFrom(p, end);
}

// The rest of a string that holds an escape: r is its first backslash (or where the text
// ended), and the bytes before it are in place. Plain bytes are moved as a run.
__attribute__((noinline)) Type ScanEscapedString(ParseContext& ctx, char* text, char* r,
                                                 int32_t* pLength) {
    char* w = r;
    // The closing quote must lie before pEnd; the byte at pEnd is never read.
    for (;;) {
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
        char* stop = FindQuoteOrBackslash(r, ctx.pEnd);
        std::memmove(w, r, static_cast<size_t>(stop - r));
        w += stop - r;
        r = stop;
    }
    if (r >= ctx.pEnd || *r != '"') return TypeInvalid;
    *w = '\0';
    *pLength = static_cast<int32_t>(w - text);
    ctx.pCur = r + 1;
    return TypeString;
}

// Cursor on the opening quote. The text starts after the quote even when reading fails; the
// length is set on success only. A string without escapes is only looked at.
inline Type ScanString(ParseContext& ctx, char** pText, int32_t* pLength) {
    char* const text = ctx.pCur + 1;
    *pText = text;
    char* const stop = FindQuoteOrBackslash(text, ctx.pEnd);
    if (stop < ctx.pEnd && *stop == '"') {
        *stop = '\0';
        *pLength = static_cast<int32_t>(stop - text);
        ctx.pCur = stop + 1;
        return TypeString;
    }
    return ScanEscapedString(ctx, text, stop, pLength);
}

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
    return scratch.values.Push(Entry{nullptr, nullptr, 0, TypeInvalid});
}

Type ReadArray(ParseContext& ctx, ArrayValue& array, Scratch& scratch);
Type ReadObject(ParseContext& ctx, ObjectValue& object, Scratch& scratch);

// Starts a container value on the scratch stack, reads it, and stores the result as its type.
template <typename Container>
Type ReadContainer(ParseContext& ctx, Scratch& scratch, Container* (*make)(pool::Cache&),
                   Type (*read)(ParseContext&, Container&, Scratch&)) {
    // The entry first: once made, the container is owned by the stack, which releases it
    // also when reading it fails.
    scratch.values.Push(Entry{nullptr, nullptr, 0, TypeInvalid});
    const size_t index = scratch.values.Size() - 1;
    Container* container = make(*scratch.pCache);
    scratch.values[index].pComposite = container;
    const Type result = read(ctx, *container, scratch);
    scratch.values[index].type = result;
    return result;
}

// Reads one value onto the scratch stack, also when it fails (then TypeInvalid); at the end of
// the text or on a byte that starts no value nothing is added.
inline __attribute__((always_inline)) Type ReadValue(ParseContext& ctx, Scratch& scratch) {
    if (SkipSpace(ctx)) return TypeInvalid;
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
            return ReadContainer<ArrayValue>(ctx, scratch, pool::NewArray, ReadArray);
        case '{':
            return ReadContainer<ObjectValue>(ctx, scratch, pool::NewObject, ReadObject);
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
        const size_t ordinal = ordinalBase + (scratch.names.Size() - nameBase);
        ObjectValue::NameMap& name = scratch.names.Push(
            ObjectValue::NameMap{nullptr, 0, false, static_cast<int32_t>(ordinal)});
        // Whatever byte stands here is taken as the opening quote.
        if (ScanString(ctx, &name.pName, &name.nLength) == TypeInvalid) {
            scratch.names.Pop();
            return TypeInvalid;
        }
        if (SkipSpace(ctx)) return TypeInvalid;
        if (*ctx.pCur != ':') return TypeInvalid;
        ++ctx.pCur;
        SkipSpace(ctx);
        if (ReadValue(ctx, scratch) == TypeInvalid) return TypeInvalid;
        if (SkipSpace(ctx)) return TypeInvalid;
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
    const size_t base = scratch.values.Size();
    const size_t nameBase = scratch.names.Size();
    const Type result = ReadMembers(ctx, object, scratch, nameBase);
    // A failed object keeps what was read, a name without its value included.
    if (typeid(object) == typeid(ObjectValue)) {
        UnsafeJSONValue* values = pool::Reserve(
            *scratch.pCache, object, scratch.values.Size() - base, scratch.names.Size() - nameBase);
        TakeNames(object.m_names, scratch, nameBase);
        TakeValues(values, scratch, base);
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
        if (!SkipSpace(ctx) && (*ctx.pCur == ',' || *ctx.pCur == ']')) {
            // An empty element reads as null; the cursor stays on the separator.
            scratch.values.Push(Entry{nullptr, nullptr, 0, TypeNull});
        } else if (ReadValue(ctx, scratch) == TypeInvalid) {
            return TypeInvalid;
        }
        if (SkipSpace(ctx)) return TypeInvalid;
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
    const size_t base = scratch.values.Size();
    const Type result = ReadElements(ctx, scratch);
    if (typeid(array) == typeid(ArrayValue)) {
        TakeValues(pool::Reserve(*scratch.pCache, array, scratch.values.Size() - base), scratch,
                   base);
    } else {
        GiveValues(array, scratch, base);
    }
    array.m_type = result;
    return result;
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
    if (root != nullptr) root->Clear();
    // The lease, not a bare stack: an allocation failure leaves the containers still open on
    // the stack, and only the lease releases them.
    ScratchLease lease;
    Scratch& scratch = lease.Get();
    if (root == nullptr) {
        root = m_pComposite = isArray
                                  ? static_cast<CompositeValue*>(pool::NewArray(*scratch.pCache))
                                  : pool::NewObject(*scratch.pCache);
    }
    m_type = isArray ? TypeArray : TypeObject;
    const Type result = isArray ? ReadArray(m_context, *static_cast<ArrayValue*>(root), scratch)
                                : ReadObject(m_context, *static_cast<ObjectValue*>(root), scratch);
    return result != TypeInvalid;
}

}  // namespace JSON
