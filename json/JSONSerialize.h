// JSON::Serialize, a streaming writer of compact JSON: one call per token, every comma,
// colon and quote placed by the writer, calls out of place refused. A writer is a plain
// value owned by one thread at a time.
#ifndef JSON_JSONSERIALIZE_H_
#define JSON_JSONSERIALIZE_H_

#include <cstdint>
#include <string>

#include "common/QVExport.h"

namespace JSON {

// Writes JSON text into its one string, which only ever grows. A call that is not allowed
// at this point sets m_error and writes nothing; from then on every call is ignored, so
// the text stays as it was before the offending call and a caller checks m_error once at
// the end. A text is complete when m_depth is 0 after at least one container and m_error
// is clear. Refused: an opening where a name is expected, a name outside an object or
// where a value is expected, a value at depth 0 or where a name is expected, a close at
// depth 0 or of the wrong kind, and an opening beyond MAX_DEPTH levels.
// Every operation but AppendString returns the writer, so calls can be chained:
//   w.OO().N("a").V(1).N("b").AO().V("x").V(2.5).AC().OC();   // {"a":1,"b":["x",2.5]}
class QV_API Serialize {
public:
    // The two bit stacks hold one bit per open container.
    static constexpr uint32_t MAX_DEPTH = 32;

    Serialize() = default;

    // The text written so far, also after an error (the text before the refused call).
    const std::string& String() const;

    Serialize& OO();  // "{"; allowed when no name is expected
    Serialize& AO();  // "["; allowed when no name is expected
    Serialize& OC();  // "}"; allowed when the innermost container is an object
    Serialize& AC();  // "]"; allowed when the innermost container is an array

    // The escaped name in double quotes, then ':'. Allowed inside an object where a name is
    // expected; a null name is refused.
    Serialize& N(const char* name);

    // Values: allowed when a container is open and no name is expected.
    // The escaped text in double quotes; a null pointer writes null.
    Serialize& V(const char* s);
    // json as it stands (not checked); null or empty writes null.
    Serialize& JS(const char* json);
    // The first len bytes of json as they stand (json must hold them); null or a text
    // starting with NUL writes null whatever len is; otherwise a negative len is refused.
    Serialize& JS_N(const char* json, int len);
    // text as it stands; a null pointer writes null.
    void AppendString(const char* text);
    Serialize& V(double value);
    Serialize& V(unsigned long long value);
    Serialize& V(long long value);
    Serialize& V(unsigned long value);
    Serialize& V(long value);
    Serialize& V(int value);
    // Without it an unsigned int would be ambiguous among the overloads above.
    Serialize& V(unsigned int value);

    // State, readable for checks; changed only by the operations above.
    std::string m_str;           // the text written so far
    uint32_t m_firstStack = 0;   // per open container, innermost in bit 0: 1 while empty
    uint32_t m_objectStack = 0;  // per open container, innermost in bit 0: 1 object, 0 array
    uint32_t m_depth = 0;        // number of open containers
    bool m_expectName = false;   // the next token must be a name
    bool m_error = false;        // a call was refused; sticky

private:
    // Checks that a value is allowed here (else sets m_error and gives false) and writes
    // the comma before a further element of an array.
    bool BeginValue();
    void OpenContainer(bool isObject);
    void CloseContainer(bool isObject);
    // After a value: the container has an element, and in an object a name comes next.
    void ValueWritten();
};

}  // namespace JSON

#endif  // JSON_JSONSERIALIZE_H_
