// The in-place JSON reader: recursive descent over a writable byte buffer, strings unescaped
// where they stand and NUL-terminated, every value pointing into the buffer. Lenient where that
// costs nothing (number syntax unchecked, empty array elements read as null, a text cut off at
// its end accepted with what was read); failure is only ever TypeInvalid. Stateless.
#ifndef JSON_JSONPARSER_H_
#define JSON_JSONPARSER_H_

#include "common/QVExport.h"
#include "json/JSONValue.h"

namespace JSON {

// The text being read. A NUL byte ends the text outside strings just as pEnd does. The reader
// never looks at *pEnd itself; conversions of a number literal that runs up to pEnd read the
// byte there (strtol), so a caller's buffer must have a readable delimiter at pEnd.
struct QV_API ParseContext {
    char* pBegin = nullptr;  // first byte of the text
    char* pEnd = nullptr;    // one past the last byte
    char* pCur = nullptr;    // where reading goes on, and where it stopped after a failure
    int nDepth = 0;          // containers open around the cursor
};

// Each operation reads at pCur, moves it past what it read and returns the type read (1 to 7)
// or TypeInvalid. The leaf operations also store the type in the value.
class QV_API Parser {
public:
    // Containers nest at most this deep; a deeper text fails instead of exhausting the stack.
    // No real document comes near it.
    static constexpr int MAX_DEPTH = 512;

    // Reads one value and appends it to parent, also when it failed (then TypeInvalid); at the
    // end of the text or on a byte that starts no value nothing is appended.
    static Type ParseJSONValue(ParseContext& ctx, CompositeValue& parent);
    // Cursor on '{' / '['. TypeObject / TypeArray once read to the closing bracket (or to a
    // cut-off end that the leniencies accept), which also sets the container's m_type.
    static Type ParseObject(ParseContext& ctx, ObjectValue& object);
    static Type ParseArray(ParseContext& ctx, ArrayValue& array);
    // Cursor on the opening quote (whatever byte it is). Unescapes in place; \uXXXX is written
    // as UTF-8 from its low 16 bits, surrogates unpaired.
    static Type ParseString(ParseContext& ctx, JSONValue& value);
    // Takes bytes of "+-0123456789.eE" without checking their form; never fails.
    static Type ParseNumber(ParseContext& ctx, JSONValue& value);
    // "true"/"false" and "null"; the byte after the keyword is not looked at.
    static Type ParseBoolean(ParseContext& ctx, JSONValue& value);
    static Type ParseNull(ParseContext& ctx, JSONValue& value);
};

}  // namespace JSON

#endif  // JSON_JSONPARSER_H_
