// CParamsX: building and indexing a length-prefixed parameter text. Every length read from a
// text is checked against what is left of the text before an offset moves by it, so no text
// makes a walk go backwards, overflow or read past the end.
#include "QVUtilities/Utilities/CParamsX.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/Portable.h"

namespace {

// The throw sites of getLength, named by a stable file-and-line text rather than this file's
// build path, so that the texts stay the same wherever the library is built.
const char* const PARAMSX_SOURCE = "QVIPC/QVIPCLibrary/../../QVUtilities/Utilities/CParamsX";
constexpr long PARAMSX_LINE_EMPTY_LENGTH = 111;
constexpr long PARAMSX_LINE_NO_SEPARATOR = 115;

constexpr size_t HRESULT_TEXT_LENGTH = 10;  // "0x" and eight hexadecimal digits

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// Reads the 10 characters at text as "0x%08X"; 0 when they do not match.
long ParseResult(const char* text) {
    char buf[HRESULT_TEXT_LENGTH + 1];
    memcpy(buf, text, HRESULT_TEXT_LENGTH);
    buf[HRESULT_TEXT_LENGTH] = '\0';
    unsigned value = 0;
    if (sscanf(buf, "0x%08X", &value) != 1) return 0;
    return static_cast<long>(value);
}

}  // namespace

CParamsX::CParamsX() : m_headerLength(0), m_pText(nullptr) {}

CParamsX::CParamsX(long reserve) : m_headerLength(0), m_pText(nullptr) {
    if (reserve > 0) m_paramList.reserve(static_cast<size_t>(reserve));
}

CParamsX::CParamsX(const std::string& text) : m_headerLength(0), m_pText(nullptr) {
    try {
        constructor(text);
    } catch (LQException&) {
        // A malformed text is an empty list; std::out_of_range and allocation failures pass.
        clear();
    }
}

CParamsX::CParamsX(const CParamsX& other)
    : m_headerLength(other.m_headerLength),
      m_paramList(other.m_paramList),
      m_pText(nullptr),
      m_offsets(other.m_offsets) {}

CParamsX& CParamsX::operator=(const CParamsX& other) {
    if (this != &other) {
        m_headerLength = other.m_headerLength;
        m_paramList = other.m_paramList;
        m_offsets = other.m_offsets;
    }
    m_pText = m_paramList.c_str();
    return *this;
}

CParamsX::~CParamsX() = default;

void CParamsX::constructor(const std::string& text) {
    m_paramList = text;
    m_pText = nullptr;
    m_headerLength = 0;
    if (m_paramList.empty()) return;
    if (!IsDigit(m_paramList[0])) {
        const size_t semi = m_paramList.find(';');
        if (semi != std::string::npos) m_headerLength = semi + 1;
    }
    if (m_headerLength >= m_paramList.size()) return;
    indexFrom(m_headerLength);
}

void CParamsX::addHeader(std::string header) {
    if (header.empty()) return;
    m_paramList = header + ";";
    m_headerLength = m_paramList.size();
    m_pText = nullptr;
}

void CParamsX::addEncoded(const char* value, unsigned long size) {
    // Room for any long in decimal: the designed 7-character buffer holds lengths of at most
    // six digits only.
    char lengthText[34] = "000000";
    CPortable::ltoa(static_cast<long>(size), lengthText, 10);
    if (m_paramList.size() > m_headerLength) m_paramList += ';';
    m_offsets.push_back(static_cast<long>(m_paramList.size()));
    m_paramList += lengthText;
    m_paramList += ';';
    m_paramList.append(value, size);
    m_pText = nullptr;
}

void CParamsX::addParam(const std::string& value) { addEncoded(value.data(), value.size()); }

void CParamsX::addParam(int value) { addEncoded(value != 0 ? "T" : "F", 1); }

void CParamsX::addParam(long value) {
    // The decimal text of the whole long: what "%d" writes for a value that fits 32 bits, and
    // on x86-64 every digit of a wider one, which getLongParamAt reads back.
    char buf[63];
    const int n = snprintf(buf, sizeof buf, "%ld", value);
    addEncoded(buf, static_cast<unsigned long>(n));
}

void CParamsX::addParam(unsigned long long value) {
    const std::string text = CPortable::ulltos(value);
    addEncoded(text.data(), text.size());
}

void CParamsX::addResult(long hr) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%08X", static_cast<unsigned>(hr));
    addEncoded(buf, HRESULT_TEXT_LENGTH);
}

void CParamsX::append(const std::string& encoded) {
    if (m_paramList.size() > m_headerLength) m_paramList += ';';
    const size_t start = m_paramList.size();
    m_paramList += encoded;
    m_pText = nullptr;
    if (m_paramList.size() == start) return;
    indexFrom(start);
}

void CParamsX::indexFrom(unsigned long start) {
    const size_t size = m_paramList.size();
    size_t next = start;
    for (;;) {
        m_offsets.push_back(static_cast<long>(next));
        long consumed = 0;
        const long n = getLength(static_cast<long>(next), &consumed);
        // getLength found the field's ";" inside the text and rejects negative lengths, so
        // valueStart <= size and n >= 0. Compared with what is left before adding, a huge n
        // ends the walk, as the next offset would lie beyond the end, without overflowing.
        const size_t valueStart = next + static_cast<size_t>(consumed);
        if (static_cast<size_t>(n) >= size - valueStart) break;
        next = valueStart + static_cast<size_t>(n) + 1;
        if (next >= size) break;
    }
}

void CParamsX::clear() {
    m_headerLength = 0;
    m_paramList.clear();
    m_pText = nullptr;
    m_offsets.clear();
}

int CParamsX::count() const { return static_cast<int>(m_offsets.size()); }

int CParamsX::length() const { return static_cast<int>(m_paramList.size()); }

std::string CParamsX::paramList() const { return m_paramList; }

std::string& CParamsX::paramListRef() { return m_paramList; }

const std::string& CParamsX::paramListRef() const { return m_paramList; }

std::string CParamsX::getHeader() const {
    if (m_headerLength == 0 || m_headerLength > m_paramList.size()) return "";
    return m_paramList.substr(0, m_headerLength - 1);
}

long CParamsX::getLength(long offset, long* consumed) const {
    // The text may have moved behind a reference from paramListRef(); take it again then.
    if (m_pText == nullptr || m_pText != m_paramList.c_str()) m_pText = m_paramList.c_str();
    const size_t size = m_paramList.size();
    // An offset outside the text has no ";" after it.
    if (offset < 0 || static_cast<size_t>(offset) > size) {
        throw LQException(PARAMSX_E_FORMAT, PARAMSX_SOURCE, PARAMSX_LINE_NO_SEPARATOR);
    }
    const char* field = m_pText + offset;
    // strtol stops at the ";" or at the terminating NUL of the string at the latest.
    const long n = strtol(field, nullptr, 10);
    const void* semi = memchr(field, ';', size - static_cast<size_t>(offset));
    if (semi == nullptr) {
        throw LQException(PARAMSX_E_FORMAT, PARAMSX_SOURCE, PARAMSX_LINE_NO_SEPARATOR);
    }
    // A negative length would walk backwards (or in circles); no encoder writes one, so it is
    // malformed like an empty field.
    if (semi == field || n < 0) {
        throw LQException(PARAMSX_E_FORMAT, PARAMSX_SOURCE, PARAMSX_LINE_EMPTY_LENGTH);
    }
    *consumed = static_cast<const char*>(semi) - field + 1;
    return n;
}

std::string CParamsX::valueAt(unsigned long i) const {
    long consumed = 0;
    const long offset = m_offsets[i];
    const long n = getLength(offset, &consumed);
    // substr takes fewer characters when the text ends first; the field's ";" lies inside
    // the text, so the start is never beyond it.
    return m_paramList.substr(static_cast<size_t>(offset + consumed), static_cast<size_t>(n));
}

std::string CParamsX::getstringParamAt(unsigned long i) const {
    if (i >= m_offsets.size()) return "";
    return valueAt(i);
}

long CParamsX::getLongParamAt(unsigned long i) const {
    if (i >= m_offsets.size()) return 0;
    return strtol(valueAt(i).c_str(), nullptr, 10);
}

int CParamsX::getBOOLParamAt(unsigned long i) const {
    if (i >= m_offsets.size()) return 0;
    return valueAt(i) == "T" ? 1 : 0;
}

unsigned long long CParamsX::getULONGLONGParamAt(unsigned long i) const {
    if (i >= m_offsets.size()) return 0;
    return CPortable::stoull(valueAt(i));
}

long CParamsX::getHRESULT() const {
    if (m_offsets.empty()) return PARAMSX_E_FORMAT;
    // A malformed length field of parameter 0 throws, as every reader of a parameter does.
    const std::string value = valueAt(0);
    if (value.size() != HRESULT_TEXT_LENGTH) return PARAMSX_E_FORMAT;
    return ParseResult(value.data());
}

long CParamsX::getHRESULT(const std::string& text) {
    if (text.empty()) return PARAMSX_E_FORMAT;
    size_t start = 0;
    if (!IsDigit(text[0])) {
        const size_t semi = text.find(';');
        if (semi == std::string::npos || semi + 1 >= text.size()) return PARAMSX_E_FORMAT;
        start = semi + 1;
    }
    if (strtol(text.c_str() + start, nullptr, 10) != static_cast<long>(HRESULT_TEXT_LENGTH)) {
        return PARAMSX_E_FORMAT;
    }
    const size_t semi = text.find(';', start);
    if (semi == std::string::npos || text.size() - (semi + 1) < HRESULT_TEXT_LENGTH) {
        return PARAMSX_E_FORMAT;
    }
    return ParseResult(text.data() + semi + 1);
}

void CParamsX::dump() {}
