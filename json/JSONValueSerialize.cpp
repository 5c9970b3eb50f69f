// Compact JSON text of a tree: scalars copied from their stored text, names and strings
// re-escaped, members in insertion order. One sink collects the text of the whole tree.
#include <array>
#include <cstring>
#include <typeinfo>

#include "json/JSONMessage.h"
#include "json/JSONTextSink.h"
#include "json/JSONValue.h"

namespace JSON {

namespace {

using text::TextSink;

// Bytes that a parsed number may hold: INTEGER_BYTE for "+-0123456789", REAL_BYTE for those and
// ".eE". A parsed number is not NUL-terminated: it ends at the first byte outside its set.
constexpr unsigned char INTEGER_BYTE = 1;
constexpr unsigned char REAL_BYTE = 2;

constexpr std::array<unsigned char, 256> MakeNumberTable() {
    std::array<unsigned char, 256> table{};
    for (int c = '0'; c <= '9'; ++c) table[static_cast<size_t>(c)] = INTEGER_BYTE | REAL_BYTE;
    table['+'] = table['-'] = INTEGER_BYTE | REAL_BYTE;
    table['.'] = table['e'] = table['E'] = REAL_BYTE;
    return table;
}

constexpr std::array<unsigned char, 256> NUMBER = MakeNumberTable();

// Scanning and copying go together, a small block at a time: most numbers and names are short,
// and a separate scan and copy would read them twice and call memcpy for a few bytes.
void PutNumber(TextSink& sink, const char* text, unsigned char kind) {
    if (text == nullptr) return;
    const char* p = text;
    for (;;) {
        char* w = sink.Room(TextSink::SMALL);
        size_t i = 0;
        while (i < TextSink::SMALL && (NUMBER[static_cast<unsigned char>(p[i])] & kind) != 0) {
            w[i] = p[i];
            ++i;
        }
        sink.Advance(i);
        if (i < TextSink::SMALL) return;
        p += i;
    }
}

void PutEscaped(TextSink& sink, const char* text) {
    static constexpr char szHex[] = "0123456789abcdef";
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    for (;;) {
        char* w = sink.Room(TextSink::SMALL);
        size_t i = 0;
        while (i < TextSink::SMALL && text::ESCAPE[p[i]] == text::PLAIN) {
            w[i] = static_cast<char>(p[i]);
            ++i;
        }
        sink.Advance(i);
        p += i;
        if (i == TextSink::SMALL) continue;
        const unsigned char kind = text::ESCAPE[*p];
        if (kind == text::END) return;
        w = sink.Room(6);
        w[0] = '\\';
        if (kind == 'u') {
            w[1] = 'u';
            w[2] = '0';
            w[3] = '0';
            w[4] = szHex[*p >> 4];
            w[5] = szHex[*p & 0x0F];
            sink.Advance(6);
        } else {
            w[1] = static_cast<char>(kind);
            sink.Advance(2);
        }
        ++p;
    }
}

bool WriteValue(TextSink& sink, const JSONValue& v);

bool WriteArray(TextSink& sink, const ArrayValue& array) {
    sink.Put('[');
    const size_t count = array.m_values.size();
    for (size_t i = 0; i < count; ++i) {
        if (i != 0) sink.Put(',');
        if (!WriteValue(sink, array.m_values[i])) return false;
    }
    sink.Put(']');
    return true;
}

bool WriteObject(TextSink& sink, const ObjectValue& object) {
    if (!object.m_bSorted) object.Sort();
    sink.Put('{');
    const std::vector<UnsafeJSONValue>& members = object.m_members.m_values;
    const std::vector<ObjectValue::NameMap>& names = object.m_names;
    for (size_t i = 0; i < members.size(); ++i) {
        const UnsafeJSONValue& member = members[i];
        char* w = sink.Room(2);
        if (i != 0) {
            w[0] = ',';
            w[1] = '"';
            sink.Advance(2);
        } else {
            w[0] = '"';
            sink.Advance(1);
        }
        const int32_t index = member.m_nNameIndex;
        // A member added without a name entry is written with the empty name.
        if (index >= 0 && static_cast<size_t>(index) < names.size() &&
            names[static_cast<size_t>(index)].pName != nullptr) {
            PutEscaped(sink, names[static_cast<size_t>(index)].pName);
        }
        sink.Put("\":", 2);
        if (!WriteValue(sink, member)) return false;
    }
    sink.Put('}');
    return true;
}

// The library's own containers are written here directly; a container type derived from them
// elsewhere keeps its own Serialize.
bool WriteComposite(TextSink& sink, const CompositeValue& composite) {
    // Addresses first: a full type_info comparison of two different types compares names.
    const std::type_info& type = typeid(composite);
    if (&type == &typeid(ArrayValue) ||
        (&type != &typeid(ObjectValue) && type == typeid(ArrayValue))) {
        return WriteArray(sink, static_cast<const ArrayValue&>(composite));
    }
    if (&type == &typeid(ObjectValue) || type == typeid(ObjectValue)) {
        return WriteObject(sink, static_cast<const ObjectValue&>(composite));
    }
    return composite.Serialize(sink.Finish());
}

bool WriteValue(TextSink& sink, const JSONValue& v) {
    if (v.m_type == TypeNone) return false;
    if (v.m_pComposite != nullptr) return WriteComposite(sink, *v.m_pComposite);
    switch (v.m_type) {
        case TypeString:
            sink.Put('"');
            if (v.m_pText != nullptr) PutEscaped(sink, v.m_pText);
            sink.Put('"');
            break;
        case TypeInteger:
            PutNumber(sink, v.m_pText, INTEGER_BYTE);
            break;
        case TypeReal:
            PutNumber(sink, v.m_pText, REAL_BYTE);
            break;
        case TypeBoolean:
            if (v.m_pText != nullptr && v.m_pText[0] == 't') {
                sink.Put("true", 4);
            } else {
                sink.Put("false", 5);
            }
            break;
        default:  // null, and anything without a readable form
            sink.Put("null", 4);
            break;
    }
    return true;
}

}  // namespace

bool JSONValue::Serialize(std::string& out) const {
    // A parsed message's compact text is about as long as the text it was read from: one
    // allocation of that size up front spares the string its chain of doublings, each of which
    // touches fresh pages.
    if (const Message* message = dynamic_cast<const Message*>(this)) {
        const ParseContext& ctx = message->m_context;
        if (ctx.pBegin != nullptr && ctx.pEnd > ctx.pBegin) {
            out.reserve(out.size() + static_cast<size_t>(ctx.pEnd - ctx.pBegin));
        }
    }
    TextSink sink(out);
    const bool result = WriteValue(sink, *this);
    sink.Finish();
    return result;
}

bool ArrayValue::Serialize(std::string& out) const {
    TextSink sink(out);
    const bool result = WriteArray(sink, *this);
    sink.Finish();
    return result;
}

bool ObjectValue::Serialize(std::string& out) const {
    TextSink sink(out);
    const bool result = WriteObject(sink, *this);
    sink.Finish();
    return result;
}

}  // namespace JSON
