// Values and containers: conversions, lookups with their lazy indexes, release and deep copy.
#include "json/JSONValue.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "json/JSONContainerPool.h"

namespace JSON {

namespace {

char* CopyText(const char* text, int32_t* pLength) {
    if (text == nullptr) {
        *pLength = 0;
        return nullptr;
    }
    const size_t len = strlen(text);
    char* copy = new char[len + 1];
    memcpy(copy, text, len + 1);
    *pLength = static_cast<int32_t>(std::min<size_t>(len, INT32_MAX));
    return copy;
}

char* Shift(char* p, Delta delta) {
    // Done on integers: the two buffers are different objects, so pointer arithmetic from one
    // into the other would be undefined.
    if (p == nullptr) return nullptr;
    return reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(delta));
}

}  // namespace

BaseValue::~BaseValue() = default;
JSONValue::~JSONValue() = default;
UnsafeJSONValue::~UnsafeJSONValue() = default;
CompositeValue::~CompositeValue() = default;

// ---- JSONValue: lookups and conversions

int JSONValue::Size() const { return m_pComposite != nullptr ? m_pComposite->Size() : 0; }

JSONValue* JSONValue::GetByOrdinal(int ordinal) const {
    return m_pComposite != nullptr ? m_pComposite->GetByOrdinal(ordinal) : nullptr;
}

JSONValue* JSONValue::GetByName(const char* name, int length) const {
    return m_pComposite != nullptr ? m_pComposite->GetByName(name, length) : nullptr;
}

const JSONValue& JSONValue::operator[](int ordinal) const {
    const JSONValue* p = GetByOrdinal(ordinal);
    return p != nullptr ? *p : None();
}

JSONValue& JSONValue::operator[](int ordinal) {
    JSONValue* p = GetByOrdinal(ordinal);
    return p != nullptr ? *p : NonConstNone();
}

const JSONValue& JSONValue::operator[](const char* name) const {
    const JSONValue* p = GetByName(name, -1);
    return p != nullptr ? *p : None();
}

JSONValue& JSONValue::operator[](const char* name) {
    JSONValue* p = GetByName(name, -1);
    return p != nullptr ? *p : NonConstNone();
}

namespace {

// Converting an out-of-range double to an integer is undefined, so clamp first.
int SaturateToInt(double d) {
    if (std::isnan(d)) return 0;
    if (d >= static_cast<double>(INT_MAX)) return INT_MAX;
    if (d <= static_cast<double>(INT_MIN)) return INT_MIN;
    return static_cast<int>(d);
}

long ReadLong(const char* text) { return text != nullptr ? strtol(text, nullptr, 10) : 0; }
double ReadDouble(const char* text) { return text != nullptr ? strtod(text, nullptr) : 0.0; }
bool IsTrue(const JSONValue& v) { return v.m_pText != nullptr && v.m_pText[0] == 't'; }

}  // namespace

int JSONValue::AsInt() const {
    switch (m_type) {
        case TypeInteger: {
            // strtol saturates at the range of long, which is wider than int on a 64-bit
            // target; saturating again at int gives both targets the same answer.
            const long l = ReadLong(m_pText);
            if (l > INT_MAX) return INT_MAX;
            if (l < INT_MIN) return INT_MIN;
            return static_cast<int>(l);
        }
        case TypeReal:
            return SaturateToInt(ReadDouble(m_pText));
        case TypeBoolean:
            return IsTrue(*this) ? 1 : 0;
        default:
            return 0;
    }
}

double JSONValue::AsDouble() const {
    switch (m_type) {
        case TypeReal:
            return ReadDouble(m_pText);
        case TypeInteger:
            return static_cast<double>(ReadLong(m_pText));
        case TypeBoolean:
            return IsTrue(*this) ? 1.0 : 0.0;
        default:
            return 0.0;
    }
}

// Non-const statics behind both: Set hands None() out as a non-const reference on a refusal,
// and any write through it is refused by address, so nothing ever changes them.
const JSONValue& JSONValue::None() {
    static JSONValue jvNone(TypeNone);
    return jvNone;
}

JSONValue& JSONValue::NonConstNone() {
    static JSONValue jvNonConstNone(TypeNone);
    return jvNonConstNone;
}

// ---- ArrayValue

bool ArrayValue::OrdinalMap::Less(const OrdinalMap& a, const OrdinalMap& b) {
    return strcmp(a.pText != nullptr ? a.pText : "", b.pText != nullptr ? b.pText : "") < 0;
}

ArrayValue::ArrayValue(int capacity) : CompositeValue() {
    if (capacity > 0) m_values.reserve(static_cast<size_t>(capacity));
}

// The values are destroyed right after their release, so they are not reset one by one.
ArrayValue::~ArrayValue() { pool::ReleaseValues(m_values); }

CompositeValue* ArrayValue::Clone(Delta delta) const {
    std::unique_ptr<ArrayValue> clone(new ArrayValue(4));
    CopyTo(*clone, delta);
    return clone.release();
}

int ArrayValue::Size() const { return static_cast<int>(m_values.size()); }

void ArrayValue::Clear() {
    pool::ReleaseValues(m_values);
    m_values.clear();
    m_valueIndex.clear();
}

void ArrayValue::AddValue(JSONValue& v) { m_values.push_back(UnsafeJSONValue(v)); }

JSONValue* ArrayValue::GetByOrdinal(int ordinal) const {
    if (ordinal < 0 || ordinal >= Size()) return nullptr;
    // Lookups are const but hand out writable elements, as the index operators need.
    return const_cast<UnsafeJSONValue*>(&m_values[static_cast<size_t>(ordinal)]);
}

JSONValue* ArrayValue::GetByName(const char* name, int /*length*/) const {
    if (name == nullptr) return nullptr;
    const long ordinal = strtol(name, nullptr, 10);
    if (ordinal < 0 || ordinal > INT_MAX) return nullptr;
    return GetByOrdinal(static_cast<int>(ordinal));
}

bool ArrayValue::MakeMap() const {
    m_valueIndex.clear();
    m_valueIndex.reserve(m_values.size());
    for (size_t i = 0; i < m_values.size(); ++i) {
        if (m_values[i].m_type != TypeString) {
            m_valueIndex.clear();
            return false;
        }
        m_valueIndex.push_back(OrdinalMap{m_values[i].m_pText, static_cast<int32_t>(i)});
    }
    std::sort(m_valueIndex.begin(), m_valueIndex.end(), OrdinalMap::Less);
    return true;
}

int ArrayValue::OrdinalOf(const char* name, int length) const {
    if (name == nullptr) return 0;
    if (m_valueIndex.empty() && !MakeMap()) return -1;
    // Bytes after a NUL could not change a strcmp, so the key stops there too, and a length
    // beyond the name's terminator reads nothing past it.
    const std::string key =
        length >= 0 ? std::string(name, strnlen(name, static_cast<size_t>(length))) : name;
    const OrdinalMap probe{const_cast<char*>(key.c_str()), 0};
    auto it = std::lower_bound(m_valueIndex.begin(), m_valueIndex.end(), probe, OrdinalMap::Less);
    if (it == m_valueIndex.end() || OrdinalMap::Less(probe, *it)) return -1;
    return it->nOrdinal;
}

const char* ArrayValue::NameAt(int ordinal) const {
    if (m_valueIndex.empty() && !MakeMap()) return nullptr;
    if (ordinal < 0 || ordinal >= Size()) return nullptr;
    const UnsafeJSONValue& v = m_values[static_cast<size_t>(ordinal)];
    return v.m_type == TypeString ? v.m_pText : nullptr;
}

void ArrayValue::CopyTo(ArrayValue& dst, Delta delta) const {
    dst.m_values.reserve(dst.m_values.size() + m_values.size());
    for (const UnsafeJSONValue& src : m_values) {
        UnsafeJSONValue v;
        v.m_type = src.m_type;
        v.m_nNameIndex = src.m_nNameIndex;
        if (src.m_bOwned) {
            v.m_pText = CopyText(src.m_pText, &v.m_nLength);
            v.m_bOwned = true;
        } else {
            v.m_pText = Shift(src.m_pText, delta);
            v.m_nLength = src.m_nLength;
        }
        // In the destination before the child is cloned, so that it is released if that throws.
        dst.m_values.push_back(v);
        if (src.m_pComposite != nullptr) {
            dst.m_values.back().m_pComposite = src.m_pComposite->Clone(delta);
        }
    }
}

// ---- ObjectValue

void ObjectValue::NameMap::UpdateName(const char* name) {
    int32_t length = 0;
    char* copy = CopyText(name, &length);
    if (bOwned && pName != nullptr) delete[] pName;
    pName = copy;
    nLength = length;
    bOwned = true;
}

namespace {

// NameMap::Less, inline for the sort. The bytes are compared as strncmp does (unsigned, up to
// a NUL), without a call per comparison: names are short and mostly differ early.
inline bool NameLess(const ObjectValue::NameMap& a, const ObjectValue::NameMap& b) {
    if (a.nLength != b.nLength) return a.nLength < b.nLength;
    // Equal lengths; a length of 0 may come with a null name, which must not be read.
    const auto* pa = reinterpret_cast<const unsigned char*>(a.pName);
    const auto* pb = reinterpret_cast<const unsigned char*>(b.pName);
    for (int32_t i = 0; i < a.nLength; ++i) {
        if (pa[i] != pb[i]) return pa[i] < pb[i];
        if (pa[i] == '\0') return false;
    }
    return false;
}

// Up to this many entries the standard library's sort is a plain insertion sort (libstdc++'s
// threshold), so sorting them the same way orders equal names as it would.
constexpr size_t SMALL_SORT = 16;

}  // namespace

bool ObjectValue::NameMap::Less(const NameMap& a, const NameMap& b) { return NameLess(a, b); }

ObjectValue::ObjectValue(int capacity) : CompositeValue(), m_members(capacity) {
    if (capacity > 0) m_names.reserve(static_cast<size_t>(capacity));
}

ObjectValue::~ObjectValue() {
    for (NameMap& n : m_names) {
        if (n.bOwned && n.pName != nullptr) delete[] n.pName;
    }
}

CompositeValue* ObjectValue::Clone(Delta delta) const {
    std::unique_ptr<ObjectValue> clone(new ObjectValue(4));
    CopyTo(*clone, delta);
    return clone.release();
}

int ObjectValue::Size() const { return m_members.Size(); }

void ObjectValue::Clear() {
    m_members.Clear();
    for (NameMap& n : m_names) {
        if (n.bOwned && n.pName != nullptr) delete[] n.pName;
        n.pName = nullptr;
        n.nLength = 0;
    }
    m_names.clear();
}

void ObjectValue::AddValue(JSONValue& v) { m_members.AddValue(v); }

void ObjectValue::AddName(JSONValue& v) {
    m_names.push_back(NameMap{v.m_pText, v.m_nLength, false, static_cast<int32_t>(m_names.size())});
}

JSONValue* ObjectValue::GetByOrdinal(int ordinal) const { return m_members.GetByOrdinal(ordinal); }

JSONValue* ObjectValue::GetByName(const char* name, int length) const {
    const int ordinal = OrdinalOf(name, length);
    return ordinal >= 0 && ordinal < Size() ? m_members.GetByOrdinal(ordinal) : nullptr;
}

void ObjectValue::Sort() const {
    const size_t count = m_names.size();
    if (count <= SMALL_SORT) {
        // For so few entries the standard sort is this very insertion sort, which keeps equal
        // names in their order; written out, it compares inline and moves nothing when the
        // names already ascend, as they mostly do in objects a program wrote.
        NameMap* names = m_names.data();
        for (size_t i = 1; i < count; ++i) {
            if (!NameLess(names[i], names[i - 1])) continue;
            const NameMap item = names[i];
            size_t j = i;
            do {
                names[j] = names[j - 1];
                --j;
            } while (j > 0 && NameLess(item, names[j - 1]));
            names[j] = item;
        }
    } else {
        // Names already in strictly ascending order have exactly one sorted order, which the
        // sort would reach too; with equal names the sort runs, since it may reorder them.
        // Lambdas, not the function itself, so that the comparisons are inlined.
        const auto less = [](const NameMap& a, const NameMap& b) { return NameLess(a, b); };
        const auto notLess = [](const NameMap& a, const NameMap& b) { return !NameLess(a, b); };
        if (std::adjacent_find(m_names.begin(), m_names.end(), notLess) != m_names.end()) {
            std::sort(m_names.begin(), m_names.end(), less);
        }
    }
    // A parse cut off after a name leaves an entry whose ordinal has no member: skip it.
    // The back-links are index state like the names, kept current by this const operation.
    auto& values = const_cast<std::vector<UnsafeJSONValue>&>(m_members.m_values);
    const int32_t members = static_cast<int32_t>(values.size());
    for (size_t i = 0; i < m_names.size(); ++i) {
        const int32_t ordinal = m_names[i].nOrdinal;
        if (ordinal >= 0 && ordinal < members) {
            values[static_cast<size_t>(ordinal)].m_nNameIndex = static_cast<int32_t>(i);
        }
    }
    m_bSorted = true;
}

int ObjectValue::OrdinalOf(const char* name, int length) const {
    if (name == nullptr) return 0;
    if (!m_bSorted) Sort();
    const size_t n = length >= 0 ? static_cast<size_t>(length) : strlen(name);
    if (n > INT32_MAX) return -1;
    const NameMap key{const_cast<char*>(name), static_cast<int32_t>(n), false, 0};
    auto it = std::lower_bound(m_names.begin(), m_names.end(), key, NameMap::Less);
    if (it == m_names.end() || NameMap::Less(key, *it)) return -1;
    return it->nOrdinal;
}

const char* ObjectValue::NameAt(int ordinal) const {
    if (ordinal < 0 || static_cast<size_t>(ordinal) >= m_names.size()) return nullptr;
    // The name left by a parse cut off after it has no member to link back from.
    if (ordinal >= Size()) return nullptr;
    if (!m_bSorted) Sort();
    const int32_t index = m_members.GetByOrdinal(ordinal)->m_nNameIndex;
    if (index < 0 || static_cast<size_t>(index) >= m_names.size()) return nullptr;
    return m_names[static_cast<size_t>(index)].pName;
}

bool ObjectValue::MakeMap() const { return false; }

void ObjectValue::CopyTo(ObjectValue& dst, Delta delta) const {
    m_members.CopyTo(dst.m_members, delta);
    dst.m_names.reserve(dst.m_names.size() + m_names.size());
    for (const NameMap& src : m_names) {
        NameMap n{nullptr, 0, false, src.nOrdinal};
        if (src.bOwned) {
            n.UpdateName(src.pName);
        } else {
            n.pName = Shift(src.pName, delta);
            n.nLength = src.nLength;
        }
        dst.m_names.push_back(n);
    }
    dst.m_bSorted = m_bSorted;
}

void ObjectValue::DropDanglingNames() {
    const int32_t members = static_cast<int32_t>(m_members.m_values.size());
    if (m_names.size() <= static_cast<size_t>(members)) return;
    auto dangling = [members](const NameMap& n) { return n.nOrdinal < 0 || n.nOrdinal >= members; };
    for (NameMap& n : m_names) {
        if (dangling(n) && n.bOwned && n.pName != nullptr) delete[] n.pName;
    }
    m_names.erase(std::remove_if(m_names.begin(), m_names.end(), dangling), m_names.end());
    m_bSorted = false;
}

}  // namespace JSON
