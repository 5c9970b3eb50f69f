// Decimal text of numbers, written into a buffer the caller owns; nothing is allocated.
// The writer and the value updates format their numbers here. The functions have C linkage
// and plain names: they belong to the library's plain-function interface, which C callers
// use too, so this header is valid C as well as C++. Safe from any thread.
#ifndef JSON_JSONNUMBERS_H_
#define JSON_JSONNUMBERS_H_

#include "common/QVExport.h"

#ifdef __cplusplus
extern "C" {
#endif

// Every function writes a NUL-terminated text into buf, whose size in bytes (terminator
// included) is `size`, and returns a pointer to that terminator (buf + length of the text),
// so a caller can go on writing there. Nothing is ever written outside buf[0..size-1].
//
// Integer functions: the decimal digits, with a leading '-' for a negative value and no
// leading zeros; 0 gives "0". The most negative values give their exact texts,
// "-2147483648" and "-9223372036854775808". Room needed: digits + sign + terminator, so 12
// bytes cover any 32-bit value and 21 bytes any 64-bit value. LongToStr and UnsignedLongToStr
// write the whole value of their type, which is 64 bits wide on x86-64: a value that fits 32
// bits gives the same text on both targets, a wider one is never cut.
// - size < 1: nothing is written, the result is NULL.
// - size >= 1 but the text does not fit: buf holds the empty text (buf[0] is NUL) and the
//   result is NULL; a cut number would be a different number.
QV_API char* IntToStr(int value, char* buf, int size);
QV_API char* LongToStr(long value, char* buf, int size);
QV_API char* UnsignedLongToStr(unsigned long value, char* buf, int size);
QV_API char* Long64ToStr(long long value, char* buf, int size);
QV_API char* UnsignedLong64ToStr(unsigned long long value, char* buf, int size);

// The "%g" text of value (at most six significant digits: "2.5", "1.23457e+06", "1e-05");
// non-finite values give "nan", "-nan", "inf" or "-inf", which are not JSON numbers.
// 32 bytes hold any "%g" text.
// - size < 1: nothing is written, the result is NULL.
// - the text does not fit: buf holds its first size - 1 bytes and the result points to the
//   terminator at buf + size - 1, never beyond the buffer.
QV_API char* DoubleToStr(double value, char* buf, int size);

#ifdef __cplusplus
}

// The same functions, reachable from the JSON namespace too, where the writer lives.
namespace JSON {
using ::DoubleToStr;
using ::IntToStr;
using ::Long64ToStr;
using ::LongToStr;
using ::UnsignedLong64ToStr;
using ::UnsignedLongToStr;
}  // namespace JSON
#endif

#endif  // JSON_JSONNUMBERS_H_
