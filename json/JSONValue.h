// The JSON document model: the type tag, the value record, arrays and objects with their lazy
// lookup indexes, conversions, updates and compact serialization. Parsed values point into
// their message's text buffer; texts written by the updates are owned by the value's container.
// No locks: a tree belongs to one thread at a time, and even lookups change its indexes.
#ifndef JSON_JSONVALUE_H_
#define JSON_JSONVALUE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/QVExport.h"

namespace JSON {

enum Type : int32_t {
    TypeInvalid = -1,  // under construction, failed to parse, or a container not read to its end
    TypeNone = 0,      // the shared none value that answers a miss; never stored in a tree
    TypeNull = 1,
    TypeBoolean = 2,  // text "true" or "false"; only its first byte is looked at
    TypeInteger = 3,  // a number literal without '.', 'e' or 'E', kept as written
    TypeReal = 4,     // a number literal with '.', 'e' or 'E', kept as written
    TypeString = 5,   // unescaped UTF-8, NUL-terminated
    TypeArray = 6,    // m_pComposite is an ArrayValue
    TypeObject = 7,   // m_pComposite is an ObjectValue
};

class QV_API BaseValue {
public:
    explicit BaseValue(Type type = TypeInvalid) : m_type(type) {}
    virtual ~BaseValue();

    Type m_type;
};

class CompositeValue;

// One value. Destroying or copying a JSONValue releases nothing: the container holding the
// value (or the Message, for the root) releases its owned text and its child container.
class QV_API JSONValue : public BaseValue {
public:
    explicit JSONValue(Type type = TypeInvalid) : BaseValue(type) {}
    ~JSONValue() override;

    // Lookups forward to the child container; without one they miss (0, null).
    virtual int Size() const;
    virtual JSONValue* GetByOrdinal(int ordinal) const;
    // length -1: name is NUL-terminated; 0 or more: exactly that many bytes are compared.
    virtual JSONValue* GetByName(const char* name, int length = -1) const;
    // Never null: a miss gives None() (const forms) or NonConstNone(), so lookups chain.
    virtual const JSONValue& operator[](int ordinal) const;
    virtual JSONValue& operator[](int ordinal);
    virtual const JSONValue& operator[](const char* name) const;
    virtual JSONValue& operator[](const char* name);
    // Appends the compact JSON text of the value (out is not cleared). False only for a none
    // value met in the tree, with the output then cut short.
    virtual bool Serialize(std::string& out) const;

    // Integer: strtol, saturated to the range of int so that both word sizes agree. Real:
    // strtod truncated toward zero, saturated to the range of int (NaN gives 0). Boolean: 1 for
    // a text starting with 't'. Anything else, strings of digits included: 0.
    int AsInt() const;
    // Real: strtod. Integer: strtol. Boolean: 1.0 or 0.0. Anything else: 0.0.
    double AsDouble() const;

    // The shared none values that answer misses; the updates refuse to change either.
    static const JSONValue& None();
    static JSONValue& NonConstNone();

    // Updates. The ordinal forms make this value an array when it has no child container, the
    // name forms an object; the text stored is a library-owned copy (numbers are formatted as
    // text). Each returns the element now holding the data, valid until its container next
    // grows, is cleared or destroyed; or None() when nothing was stored (a negative ordinal, an
    // ordinal beyond the members of an object, a name on an array, a null name, a none value).
    JSONValue& SetNull(int ordinal);
    JSONValue& SetNull(const char* name);
    JSONValue& Set(int ordinal, bool value);
    JSONValue& Set(const char* name, bool value);
    JSONValue& Set(int ordinal, const char* value);  // a null value stores a string without text
    JSONValue& Set(const char* name, const char* value);
    JSONValue& Set(int ordinal, double value);
    JSONValue& Set(const char* name, double value);
    JSONValue& Set(int ordinal, unsigned long long value);
    JSONValue& Set(const char* name, unsigned long long value);
    JSONValue& Set(int ordinal, unsigned long value);
    JSONValue& Set(const char* name, unsigned long value);
    JSONValue& Set(int ordinal, long value);
    JSONValue& Set(const char* name, long value);
    JSONValue& Set(int ordinal, int value);
    JSONValue& Set(const char* name, int value);
    // Without these an unsigned int or a long long would be ambiguous among the forms above.
    JSONValue& Set(int ordinal, unsigned int value);
    JSONValue& Set(const char* name, unsigned int value);
    JSONValue& Set(int ordinal, long long value);
    JSONValue& Set(const char* name, long long value);

    // Replaces the text by an owned copy of the NUL-terminated text (null: no text); the value
    // is marked owned either way.
    void InternalUpdateValue(const char* text);
    // Gives the value a child container when it has none and forwards to its update; null when
    // this is a none value or the container refuses.
    JSONValue* InternalUpdateByOrdinal(int ordinal, const char* text, Type type);
    JSONValue* InternalUpdateByName(const char* name, const char* text, Type type);

    char* m_pText = nullptr;   // see Type; parsed numbers are not NUL-terminated
    int32_t m_nLength = 0;     // bytes of text (for strings: unescaped, without the terminator)
    bool m_bOwned = false;     // m_pText was new[]-allocated by the library
    int32_t m_nNameIndex = 0;  // in an object: position of the member's entry in the name index
    CompositeValue* m_pComposite = nullptr;  // child of an array or object value

private:
    JSONValue& Result(JSONValue* p);
};

// The element type of the containers: copies share text and child with their source, so
// exactly one holder, the container, releases them.
class QV_API UnsafeJSONValue : public JSONValue {
public:
    UnsafeJSONValue() = default;
    UnsafeJSONValue(const JSONValue& v) : JSONValue(v) {}  // NOLINT: shallow on purpose
    ~UnsafeJSONValue() override;
};

// Pointer offsets between two text buffers. The design's int would cut the distance between
// two heap blocks on a 64-bit target, so the full pointer difference is kept.
using Delta = std::ptrdiff_t;

// The container interface. m_type stays TypeInvalid until the parser has read the container
// to its closing bracket.
class QV_API CompositeValue : public BaseValue {
public:
    CompositeValue() = default;
    CompositeValue(const CompositeValue&) = delete;
    CompositeValue& operator=(const CompositeValue&) = delete;
    ~CompositeValue() override;

    // A deep copy whose texts that pointed into a message buffer are moved by delta bytes.
    virtual CompositeValue* Clone(Delta delta) const = 0;
    virtual int Size() const = 0;
    // Releases every value (owned texts, child containers) and empties the container.
    virtual void Clear() = 0;
    // Appends a shallow copy of v; the container then owns v's owned text and child.
    virtual void AddValue(JSONValue& v) = 0;
    virtual JSONValue* GetByOrdinal(int ordinal) const = 0;
    virtual JSONValue* GetByName(const char* name, int length = -1) const = 0;
    // The name of a member (object) or the string element (array) at an ordinal, or null.
    virtual const char* NameAt(int ordinal) const = 0;
    // The ordinal for a name, or -1; a null name gives 0.
    virtual int OrdinalOf(const char* name, int length = -1) const = 0;
    virtual bool MakeMap() const = 0;
    virtual JSONValue* UpdateByOrdinal(int ordinal, const char* text, Type type) = 0;
    virtual JSONValue* UpdateByName(const char* name, const char* text, Type type) = 0;
    virtual bool Serialize(std::string& out) const = 0;
};

class QV_API ArrayValue : public CompositeValue {
public:
    // Index entry of a string element.
    struct QV_API OrdinalMap {
        char* pText;
        int32_t nOrdinal;
        // strcmp order of the texts; the comparator of the index's sort and search.
        static bool Less(const OrdinalMap& a, const OrdinalMap& b);
    };

    explicit ArrayValue(int capacity = 4);
    ~ArrayValue() override;

    CompositeValue* Clone(Delta delta) const override;
    int Size() const override;
    void Clear() override;  // keeps the vector's storage
    void AddValue(JSONValue& v) override;
    JSONValue* GetByOrdinal(int ordinal) const override;
    // The name read as a decimal ordinal with strtol (length unused): "2" is element 2, a name
    // without digits element 0. A null name gives null.
    JSONValue* GetByName(const char* name, int length = -1) const override;
    const char* NameAt(int ordinal) const override;
    // Ordinal of the string element equal to the name, or -1 (also when any element is not a
    // string).
    int OrdinalOf(const char* name, int length = -1) const override;
    // Builds the string index; false, leaving it empty, when an element is not a string.
    bool MakeMap() const override;
    // Replaces element i or appends it after null fillers; null for a negative ordinal.
    JSONValue* UpdateByOrdinal(int ordinal, const char* text, Type type) override;
    JSONValue* UpdateByName(const char* name, const char* text, Type type) override;  // null
    bool Serialize(std::string& out) const override;

    // Deep copy into an empty array.
    void CopyTo(ArrayValue& dst, Delta delta) const;

    std::vector<UnsafeJSONValue> m_values;
    mutable std::vector<OrdinalMap> m_valueIndex;  // empty: not built
};

class QV_API ObjectValue : public CompositeValue {
public:
    // Name index entry: one per member.
    struct QV_API NameMap {
        char* pName;
        int32_t nLength;
        bool bOwned;  // pName was new[]-allocated by the library; the object releases it
        int32_t nOrdinal;

        // Replaces the name by an owned copy (null: no name) and marks the entry owned.
        void UpdateName(const char* name);

        // Length first, then strncmp over that length: every 1-byte name sorts before any
        // 2-byte name. The comparator of the name index's sort and search.
        static bool Less(const NameMap& a, const NameMap& b);
    };

    explicit ObjectValue(int capacity = 4);
    ~ObjectValue() override;

    CompositeValue* Clone(Delta delta) const override;
    int Size() const override;
    void Clear() override;  // leaves m_bSorted as it was
    void AddValue(JSONValue& v) override;
    JSONValue* GetByOrdinal(int ordinal) const override;
    JSONValue* GetByName(const char* name, int length = -1) const override;
    const char* NameAt(int ordinal) const override;
    int OrdinalOf(const char* name, int length = -1) const override;
    bool MakeMap() const override;  // does nothing: the sorted name index is the map
    // Replaces the value of an existing member; objects never grow by ordinal.
    JSONValue* UpdateByOrdinal(int ordinal, const char* text, Type type) override;
    // Replaces the member's value, or appends a member with an owned copy of the name.
    JSONValue* UpdateByName(const char* name, const char* text, Type type) override;
    bool Serialize(std::string& out) const override;
    // Appends a name entry for v's text (not owned) with the next ordinal.
    virtual void AddName(JSONValue& v);

    // Sorts the name index and points every member at its own entry.
    void Sort() const;
    // Deep copy into an empty object.
    void CopyTo(ObjectValue& dst, Delta delta) const;

    // The members in insertion order; their m_nNameIndex back-links are set by Sort.
    ArrayValue m_members;
    mutable bool m_bSorted = false;
    mutable std::vector<NameMap> m_names;

private:
    // A parse cut off after a name leaves that name without a member; it is dropped before the
    // object is changed, so that names and members stay one to one.
    void DropDanglingNames();
};

}  // namespace JSON

#endif  // JSON_JSONVALUE_H_
