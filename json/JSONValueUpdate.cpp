// Changing a tree: Set/SetNull and the container updates beneath them. Every text stored is a
// library-owned copy; numbers are formatted to text when they are stored.
#include <cstring>
#include <memory>

#include "json/JSONContainerPool.h"
#include "json/JSONNumbers.h"
#include "json/JSONValue.h"

namespace JSON {

void JSONValue::InternalUpdateValue(const char* text) {
    // The copy is made before the old text goes, so a failed allocation leaves the value whole.
    char* copy = nullptr;
    int32_t length = 0;
    if (text != nullptr) {
        const size_t len = strlen(text);
        copy = new char[len + 1];
        memcpy(copy, text, len + 1);
        length = static_cast<int32_t>(len);
    }
    if (m_bOwned && m_pText != nullptr) delete[] m_pText;
    m_pText = copy;
    m_nLength = length;
    m_bOwned = true;
}

JSONValue* JSONValue::InternalUpdateByOrdinal(int ordinal, const char* text, Type type) {
    if (this == &None() || this == &NonConstNone()) return nullptr;
    if (m_pComposite == nullptr) {
        m_pComposite = new ArrayValue(4);
        m_type = TypeArray;
    }
    return m_pComposite->UpdateByOrdinal(ordinal, text, type);
}

JSONValue* JSONValue::InternalUpdateByName(const char* name, const char* text, Type type) {
    if (this == &None() || this == &NonConstNone()) return nullptr;
    if (m_pComposite == nullptr) {
        m_pComposite = new ObjectValue(4);
        m_type = TypeObject;
    }
    return m_pComposite->UpdateByName(name, text, type);
}

JSONValue& JSONValue::Result(JSONValue* p) {
    // None() is never written through: every update checks for it by address first.
    return p != nullptr ? *p : const_cast<JSONValue&>(None());
}

namespace {

// The text of a number as the updates store it, formatted with the buffer sizes the writer
// uses: 32 bytes for doubles, 28 for 64-bit and 14 for 32-bit integers; long takes the size of
// its width, as it is stored whole.
class NumberText {
public:
    explicit NumberText(double v) { DoubleToStr(v, m_buf, 32); }
    explicit NumberText(unsigned long long v) { UnsignedLong64ToStr(v, m_buf, 28); }
    explicit NumberText(long long v) { Long64ToStr(v, m_buf, 28); }
    explicit NumberText(unsigned long v) { UnsignedLongToStr(v, m_buf, LONG_SIZE); }
    explicit NumberText(long v) { LongToStr(v, m_buf, LONG_SIZE); }
    explicit NumberText(int v) { IntToStr(v, m_buf, 14); }
    const char* Get() const { return m_buf; }

private:
    static constexpr int LONG_SIZE = sizeof(long) > 4 ? 28 : 14;
    char m_buf[32] = {};
};

}  // namespace

JSONValue& JSONValue::SetNull(int ordinal) {
    return Result(InternalUpdateByOrdinal(ordinal, nullptr, TypeNull));
}
JSONValue& JSONValue::SetNull(const char* name) {
    return Result(InternalUpdateByName(name, nullptr, TypeNull));
}
JSONValue& JSONValue::Set(int ordinal, bool value) {
    return Result(InternalUpdateByOrdinal(ordinal, value ? "true" : "false", TypeBoolean));
}
JSONValue& JSONValue::Set(const char* name, bool value) {
    return Result(InternalUpdateByName(name, value ? "true" : "false", TypeBoolean));
}
JSONValue& JSONValue::Set(int ordinal, const char* value) {
    return Result(InternalUpdateByOrdinal(ordinal, value, TypeString));
}
JSONValue& JSONValue::Set(const char* name, const char* value) {
    return Result(InternalUpdateByName(name, value, TypeString));
}
// A double keeps TypeReal even when its text has neither '.' nor exponent.
JSONValue& JSONValue::Set(int ordinal, double value) {
    return Result(InternalUpdateByOrdinal(ordinal, NumberText(value).Get(), TypeReal));
}
JSONValue& JSONValue::Set(const char* name, double value) {
    return Result(InternalUpdateByName(name, NumberText(value).Get(), TypeReal));
}
JSONValue& JSONValue::Set(int ordinal, unsigned long long value) {
    return Result(InternalUpdateByOrdinal(ordinal, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(const char* name, unsigned long long value) {
    return Result(InternalUpdateByName(name, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(int ordinal, unsigned long value) {
    return Result(InternalUpdateByOrdinal(ordinal, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(const char* name, unsigned long value) {
    return Result(InternalUpdateByName(name, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(int ordinal, long value) {
    return Result(InternalUpdateByOrdinal(ordinal, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(const char* name, long value) {
    return Result(InternalUpdateByName(name, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(int ordinal, int value) {
    return Result(InternalUpdateByOrdinal(ordinal, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(const char* name, int value) {
    return Result(InternalUpdateByName(name, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(int ordinal, unsigned int value) {
    return Set(ordinal, static_cast<unsigned long>(value));
}
JSONValue& JSONValue::Set(const char* name, unsigned int value) {
    return Set(name, static_cast<unsigned long>(value));
}
JSONValue& JSONValue::Set(int ordinal, long long value) {
    return Result(InternalUpdateByOrdinal(ordinal, NumberText(value).Get(), TypeInteger));
}
JSONValue& JSONValue::Set(const char* name, long long value) {
    return Result(InternalUpdateByName(name, NumberText(value).Get(), TypeInteger));
}

JSONValue* ArrayValue::UpdateByOrdinal(int ordinal, const char* text, Type type) {
    if (ordinal < 0) return nullptr;
    m_valueIndex.clear();
    const size_t i = static_cast<size_t>(ordinal);
    if (i < m_values.size()) {
        UnsafeJSONValue& v = m_values[i];
        if (v.m_pComposite != nullptr) {
            pool::Delete(v.m_pComposite);
            v.m_pComposite = nullptr;
        }
        v.InternalUpdateValue(text);
        v.m_type = type;
        return &v;
    }
    // The new element's text is made first, so a failed allocation leaves no half element.
    UnsafeJSONValue added;
    added.InternalUpdateValue(text);
    added.m_type = type;
    try {
        m_values.reserve(i + 1);
    } catch (...) {
        delete[] added.m_pText;
        throw;
    }
    m_values.resize(i, UnsafeJSONValue(JSONValue(TypeNull)));
    m_values.push_back(added);
    return &m_values.back();
}

JSONValue* ArrayValue::UpdateByName(const char* /*name*/, const char* /*text*/, Type /*type*/) {
    return nullptr;
}

JSONValue* ObjectValue::UpdateByOrdinal(int ordinal, const char* text, Type type) {
    if (ordinal < 0 || ordinal >= Size()) return nullptr;
    return m_members.UpdateByOrdinal(ordinal, text, type);
}

JSONValue* ObjectValue::UpdateByName(const char* name, const char* text, Type type) {
    if (name == nullptr) return nullptr;
    DropDanglingNames();
    const int ordinal = OrdinalOf(name, -1);
    if (ordinal >= 0) return m_members.UpdateByOrdinal(ordinal, text, type);

    NameMap entry{nullptr, 0, false, static_cast<int32_t>(m_names.size())};
    entry.UpdateName(name);
    std::unique_ptr<char[]> guard(entry.pName);
    m_names.reserve(m_names.size() + 1);
    JSONValue* added = m_members.UpdateByOrdinal(Size(), text, type);
    if (added == nullptr) return nullptr;
    guard.release();
    m_names.push_back(entry);
    m_bSorted = false;
    return added;
}

}  // namespace JSON
