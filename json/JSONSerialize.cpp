// The streaming writer: each operation checks that it is allowed, places the separator the
// text needs, appends its token and updates the two bit stacks.
#include "json/JSONSerialize.h"

#include <cstdint>
#include <string>

#include "json/JSONEscape.h"
#include "json/JSONNumbers.h"

namespace JSON {

namespace {

// Buffer sizes of the numeric values: room for any "%g" text, any 64-bit and any 32-bit
// decimal text with sign and terminator. long and unsigned long are written whole, so they
// take the 64-bit size where they are 64 bits wide and the designed 14 bytes where they are not.
constexpr int DOUBLE_BUFFER_SIZE = 32;
constexpr int LONG64_BUFFER_SIZE = 28;
constexpr int INT_BUFFER_SIZE = 14;
constexpr int LONG_BUFFER_SIZE = sizeof(long) > 4 ? LONG64_BUFFER_SIZE : INT_BUFFER_SIZE;

// Formats value in a stack buffer and hands the text to the writer.
template <int SIZE, typename T>
void AppendNumber(Serialize& writer, T value, char* (*format)(T, char*, int)) {
    char buf[SIZE];
    format(value, buf, SIZE);
    writer.AppendString(buf);
}

// True when the innermost open container is an array that already has an element, so the
// next element needs a comma before it. Callers check that a container is open.
bool ArrayHasElement(uint32_t firstStack, uint32_t objectStack) {
    return (objectStack & 1u) == 0 && (firstStack & 1u) == 0;
}

}  // namespace

// The text is returned in every state, so that after an error the caller can see what was
// written before the refused call; there is no state in which an empty text would say more.
const std::string& Serialize::String() const { return m_str; }

bool Serialize::BeginValue() {
    if (m_error) return false;
    if (m_depth == 0 || m_expectName) {
        m_error = true;
        return false;
    }
    // Inside an object the comma was written with the name.
    if (ArrayHasElement(m_firstStack, m_objectStack)) m_str.push_back(',');
    return true;
}

void Serialize::ValueWritten() {
    m_firstStack &= ~1u;
    m_expectName = (m_objectStack & 1u) != 0;
}

void Serialize::OpenContainer(bool isObject) {
    if (m_error) return;
    // Deeper nesting would push the outermost levels' bits out of the stacks and the
    // closes further out would then be checked against the wrong kind.
    if (m_expectName || m_depth >= MAX_DEPTH) {
        m_error = true;
        return;
    }
    if (m_depth > 0 && ArrayHasElement(m_firstStack, m_objectStack)) m_str.push_back(',');
    m_str.push_back(isObject ? '{' : '[');
    m_firstStack = (m_firstStack << 1) | 1u;
    m_objectStack = (m_objectStack << 1) | (isObject ? 1u : 0u);
    ++m_depth;
    m_expectName = isObject;
}

void Serialize::CloseContainer(bool isObject) {
    if (m_error) return;
    if (m_depth == 0 || ((m_objectStack & 1u) != 0) != isObject) {
        m_error = true;
        return;
    }
    m_str.push_back(isObject ? '}' : ']');
    --m_depth;
    m_firstStack >>= 1;
    m_objectStack >>= 1;
    // The closed container is an element of the one around it.
    if (m_depth > 0) m_firstStack &= ~1u;
    m_expectName = (m_objectStack & 1u) != 0;
}

Serialize& Serialize::OO() {
    OpenContainer(true);
    return *this;
}

Serialize& Serialize::AO() {
    OpenContainer(false);
    return *this;
}

Serialize& Serialize::OC() {
    CloseContainer(true);
    return *this;
}

Serialize& Serialize::AC() {
    CloseContainer(false);
    return *this;
}

Serialize& Serialize::N(const char* name) {
    if (m_error) return *this;
    if (name == nullptr || m_depth == 0 || (m_objectStack & 1u) == 0 || !m_expectName) {
        m_error = true;
        return *this;
    }
    // The first-member bit stays set until the member's value is written.
    if ((m_firstStack & 1u) == 0) m_str.push_back(',');
    m_str.push_back('"');
    EscapeString(m_str, name);
    m_str.append("\":", 2);
    m_expectName = false;
    return *this;
}

Serialize& Serialize::V(const char* s) {
    if (!BeginValue()) return *this;
    if (s == nullptr) {
        m_str.append("null", 4);
    } else {
        m_str.push_back('"');
        EscapeString(m_str, s);
        m_str.push_back('"');
    }
    ValueWritten();
    return *this;
}

Serialize& Serialize::JS(const char* json) {
    if (json == nullptr || *json == '\0') json = "null";
    AppendString(json);
    return *this;
}

Serialize& Serialize::JS_N(const char* json, int len) {
    const bool isNull = json == nullptr || *json == '\0';
    // A negative count of bytes to copy is refused; a null text does not use the count.
    if (!isNull && len < 0) {
        m_error = true;
        return *this;
    }
    if (!BeginValue()) return *this;
    if (isNull) {
        m_str.append("null", 4);
    } else {
        m_str.append(json, static_cast<size_t>(len));
    }
    ValueWritten();
    return *this;
}

void Serialize::AppendString(const char* text) {
    if (!BeginValue()) return;
    // A null text is written as null, like the other value operations, so the output
    // keeps one value per call.
    m_str.append(text != nullptr ? text : "null");
    ValueWritten();
}

Serialize& Serialize::V(double value) {
    AppendNumber<DOUBLE_BUFFER_SIZE>(*this, value, DoubleToStr);
    return *this;
}

Serialize& Serialize::V(unsigned long long value) {
    AppendNumber<LONG64_BUFFER_SIZE>(*this, value, UnsignedLong64ToStr);
    return *this;
}

Serialize& Serialize::V(long long value) {
    AppendNumber<LONG64_BUFFER_SIZE>(*this, value, Long64ToStr);
    return *this;
}

Serialize& Serialize::V(unsigned long value) {
    AppendNumber<LONG_BUFFER_SIZE>(*this, value, UnsignedLongToStr);
    return *this;
}

Serialize& Serialize::V(long value) {
    AppendNumber<LONG_BUFFER_SIZE>(*this, value, LongToStr);
    return *this;
}

Serialize& Serialize::V(int value) {
    AppendNumber<INT_BUFFER_SIZE>(*this, value, IntToStr);
    return *this;
}

Serialize& Serialize::V(unsigned int value) {
    AppendNumber<INT_BUFFER_SIZE>(*this, static_cast<unsigned long>(value), UnsignedLongToStr);
    return *this;
}

}  // namespace JSON
