// Public: CParamsX, a message body as one line of text: an optional header word ending in ";"
// and typed parameters, each written as its length in decimal, ";" and its characters, joined
// by ";". Example: "GetStatus;10;0x80004005;3;abc;1;T;2;42;11;12345678901".
// A CParamsX is a plain value without locking; even its getters update a cached pointer, so
// one object belongs to one thread at a time.
#ifndef QVUTILITIES_UTILITIES_CPARAMSX_H_
#define QVUTILITIES_UTILITIES_CPARAMSX_H_

#include <string>
#include <vector>

#include "common/LQException.h"
#include "common/QVExport.h"

// A malformed parameter text, or a list that holds no result code. Held in a long like every
// result code of this class (negative where long has 32 bits).
constexpr long PARAMSX_E_FORMAT = static_cast<long>(0xC1210E12u);

class QV_API CParamsX {
public:
    CParamsX();
    // An empty list whose text has room for reserve characters.
    explicit CParamsX(long reserve);
    // Indexes text; a malformed text gives an empty list instead of an exception.
    CParamsX(const std::string& text);  // NOLINT: a text converts to its list
    // Copies take their own cached pointer; declared, so moves copy too.
    CParamsX(const CParamsX& other);
    CParamsX& operator=(const CParamsX& other);
    ~CParamsX();

    // Replaces the text with text and appends its parameters' offsets (meant for a list with
    // no offsets). Throws LQException PARAMSX_E_FORMAT on a malformed length field; the
    // offsets found before it stay.
    void constructor(const std::string& text);

    // Makes the whole text header + ";" (nothing when header is empty). For an empty list,
    // before any parameter; the header must not begin with a digit nor hold a ";".
    void addHeader(std::string header);
    void addParam(const std::string& value);
    void addParam(int value);   // a BOOL: "T" when nonzero, "F" when zero
    void addParam(long value);  // decimal, the whole value ("%ld")
    void addParam(unsigned long long value);
    // Appends hr as "0x%08X"; added first, where getHRESULT looks for it.
    void addResult(long hr);
    // Appends already encoded parameters (a list text without its header) and indexes them.
    // Throws LQException PARAMSX_E_FORMAT on a malformed length field; the text stays
    // appended and the offsets found before it stay.
    void append(const std::string& encoded);
    void clear();

    int count() const;
    int length() const;
    std::string paramList() const;
    // A caller that changes the text through the reference must not read parameters after.
    std::string& paramListRef();
    const std::string& paramListRef() const;
    // The header without its ";", or "" when there is none.
    std::string getHeader() const;

    // Parameter i's value; "", 0 or 0 when i is not below count(). Throw LQException
    // PARAMSX_E_FORMAT when the parameter's length field is malformed.
    std::string getstringParamAt(unsigned long i) const;
    long getLongParamAt(unsigned long i) const;  // strtol, base 10
    int getBOOLParamAt(unsigned long i) const;   // 1 only for exactly "T"
    unsigned long long getULONGLONGParamAt(unsigned long i) const;

    // The result code held by parameter 0, or PARAMSX_E_FORMAT when there is none. A value of
    // 10 characters that does not read as "0x%08X" gives 0. Throws LQException
    // PARAMSX_E_FORMAT when parameter 0's length field is malformed.
    long getHRESULT() const;
    // The same for the first parameter of a list text, without building a list.
    static long getHRESULT(const std::string& text);

    // Reads the length field that begins at offset: returns its number and sets *consumed to
    // the characters up to and including its ";". Throws LQException PARAMSX_E_FORMAT when
    // the field is empty or negative, or when no ";" follows within the text.
    long getLength(long offset, long* consumed) const;

    void dump();

    // State, readable for checks; changed only by the operations above.
    unsigned long m_headerLength;  // characters of the header including its ";"; 0 for none
    std::string m_paramList;       // the whole text
    // The characters of m_paramList for getLength; null after every change of the text.
    mutable const char* m_pText;
    std::vector<long> m_offsets;  // per parameter, where its length field begins

private:
    void addEncoded(const char* value, unsigned long size);
    // Indexes the parameters from start to the end of the text.
    void indexFrom(unsigned long start);
    std::string valueAt(unsigned long i) const;
};

#endif  // QVUTILITIES_UTILITIES_CPARAMSX_H_
