// JSON::Message, the document root: it owns the text buffer that the parsed tree points into
// (its own copy, or the caller's text in in-place mode) and the tree itself, and answers
// dotted paths. One thread at a time: lookups build the tree's indexes.
#ifndef JSON_JSONMESSAGE_H_
#define JSON_JSONMESSAGE_H_

#include <string>

#include "common/QVExport.h"
#include "json/JSONParser.h"
#include "json/JSONValue.h"

namespace JSON {

class QV_API Message : public JSONValue {
public:
    // bInPlace sets m_bInPlace: Parse then works in the caller's text instead of a copy. The
    // flag may also be set directly between parses; copies take it over.
    explicit Message(bool bInPlace = false) : m_bInPlace(bInPlace) {}
    // A deep copy that owns its text: pointers into the source's buffer are moved into the
    // copy's own m_strText, owned texts and names are duplicated.
    Message(const Message& src);
    Message& operator=(const Message& src);
    ~Message() override;

    // Replaces text and tree by those of text. length < 0: text is NUL-terminated. True when
    // the root, which must be an object or an array, was read to its closing bracket; bytes
    // after it are not looked at. A failed parse keeps what was read, the failing value with
    // TypeInvalid, and m_context.pCur where reading stopped. Null text or length 0: false, the
    // message unchanged; an empty or blank text or a scalar root: false, the tree cleared.
    // In-place mode: text must be writable (it is unescaped where it stands, the const is cast
    // away), must outlive the tree, and must have a readable byte after the text that does not
    // continue a number, normally its NUL terminator.
    bool Parse(const char* text, int length = -1);

    // The value named by a dotted path from the root ("b.2.x"), or None(). Each segment is a
    // member name of exactly its bytes in an object, a decimal ordinal (strtol) in an array; an
    // empty segment is the empty name or element 0. A path starting with '.' keeps that dot in
    // its first segment. There is no escape for a dot inside a name.
    const JSONValue& Path(const char* path) const;

    // Deep copy of text and tree into dst, replacing dst's tree.
    void CopyTo(Message& dst) const;

    bool m_bInPlace = false;
    ParseContext m_context;  // the range every non-owned text of the tree lies in
    std::string m_strText;   // the message's own buffer, unless m_bInPlace is set

private:
    void ReleaseRoot();
};

}  // namespace JSON

#endif  // JSON_JSONMESSAGE_H_
