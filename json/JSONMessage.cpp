// Message: owning the root and the text buffer, deep copies, dotted paths. Parse lives with
// the reader.
#include "json/JSONMessage.h"

#include <cstdint>
#include <cstring>
#include <memory>

#include "json/JSONContainerPool.h"

namespace JSON {

Message::Message(const Message& src) : JSONValue(), m_bInPlace(src.m_bInPlace) {
    src.CopyTo(*this);
}

Message& Message::operator=(const Message& src) {
    if (&src == this) return *this;
    m_bInPlace = src.m_bInPlace;
    ReleaseRoot();
    src.CopyTo(*this);
    return *this;
}

Message::~Message() { ReleaseRoot(); }

void Message::ReleaseRoot() {
    pool::Release(m_pComposite);
    m_pComposite = nullptr;
}

void Message::CopyTo(Message& dst) const {
    if (&dst == this) return;
    dst.ReleaseRoot();
    const size_t size = m_context.pBegin != nullptr && m_context.pEnd > m_context.pBegin
                            ? static_cast<size_t>(m_context.pEnd - m_context.pBegin)
                            : 0;
    if (size != 0) {
        dst.m_strText.assign(m_context.pBegin, size);
    } else {
        dst.m_strText.clear();
    }
    dst.m_context.pBegin = &dst.m_strText[0];
    dst.m_context.pEnd = dst.m_context.pBegin + size;
    dst.m_type = m_type;
    if (m_pComposite != nullptr) {
        // Distances are taken on integers: the two buffers are different objects.
        const Delta delta =
            m_context.pBegin == nullptr
                ? 0
                : static_cast<Delta>(reinterpret_cast<uintptr_t>(dst.m_context.pBegin) -
                                     reinterpret_cast<uintptr_t>(m_context.pBegin));
        dst.m_pComposite = m_pComposite->Clone(delta);
    }
}

const JSONValue& Message::Path(const char* path) const {
    if (path == nullptr || path[0] == '\0' || m_pComposite == nullptr) return None();
    const JSONValue* current = nullptr;
    const char* segment = path;
    // The first segment's end is looked for from the second byte, so a leading '.' stays in it.
    const char* end = strchr(path + 1, '.');
    for (;;) {
        const int length = static_cast<int>(end != nullptr ? end - segment : strlen(segment));
        current = current == nullptr ? m_pComposite->GetByName(segment, length)
                                     : current->GetByName(segment, length);
        if (current == nullptr) return None();
        if (end == nullptr) return *current;
        segment = end + 1;
        end = strchr(segment, '.');
    }
}

}  // namespace JSON
