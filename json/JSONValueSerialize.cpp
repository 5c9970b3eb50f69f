// Compact JSON text of a tree: scalars copied from their stored text, names and strings
// re-escaped, members in insertion order.
#include <cstring>

#include "json/JSONEscape.h"
#include "json/JSONValue.h"

namespace JSON {

bool JSONValue::Serialize(std::string& out) const {
    if (m_type == TypeNone) return false;
    if (m_pComposite != nullptr) return m_pComposite->Serialize(out);
    switch (m_type) {
        case TypeString:
            out += '"';
            if (m_pText != nullptr) EscapeString(out, m_pText);
            out += '"';
            break;
        // A parsed number is not NUL-terminated: it ends at the first byte outside its set.
        case TypeInteger: {
            static const char* const szSkip = "+-0123456789";
            if (m_pText != nullptr) out.append(m_pText, strspn(m_pText, szSkip));
            break;
        }
        case TypeReal: {
            static const char* const szSkip = "+-0123456789.eE";
            if (m_pText != nullptr) out.append(m_pText, strspn(m_pText, szSkip));
            break;
        }
        case TypeBoolean:
            out += (m_pText != nullptr && m_pText[0] == 't') ? "true" : "false";
            break;
        default:  // null, and anything without a readable form
            out += "null";
            break;
    }
    return true;
}

bool ArrayValue::Serialize(std::string& out) const {
    out += '[';
    for (size_t i = 0; i < m_values.size(); ++i) {
        if (i != 0) out += ',';
        if (!m_values[i].Serialize(out)) return false;
    }
    out += ']';
    return true;
}

bool ObjectValue::Serialize(std::string& out) const {
    if (!m_bSorted) Sort();
    out += '{';
    for (size_t i = 0; i < m_members.m_values.size(); ++i) {
        const UnsafeJSONValue& member = m_members.m_values[i];
        if (i != 0) out += ',';
        out += '"';
        const int32_t index = member.m_nNameIndex;
        // A member added without a name entry is written with the empty name.
        if (index >= 0 && static_cast<size_t>(index) < m_names.size() &&
            m_names[static_cast<size_t>(index)].pName != nullptr) {
            EscapeString(out, m_names[static_cast<size_t>(index)].pName);
        }
        out += "\":";
        if (!member.Serialize(out)) return false;
    }
    out += '}';
    return true;
}

}  // namespace JSON
