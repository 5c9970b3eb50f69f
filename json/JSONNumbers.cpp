// Decimal formatting for the writer: digits are built from the right end of the caller's
// buffer and moved to its start once; no heap memory.
#include "json/JSONNumbers.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

// Writes the magnitude (and a '-' when negative) right-aligned before the terminator at
// buf[size - 1], then moves the text to the start of buf. Every store is checked against
// buf[0] first, so a buffer that is too small is never overrun.
template <typename Unsigned>
char* FormatMagnitude(Unsigned magnitude, bool negative, char* buf, int size) {
    if (size < 1) return nullptr;
    int pos = size - 1;
    buf[pos] = '\0';
    do {
        if (pos == 0) {
            buf[0] = '\0';
            return nullptr;
        }
        buf[--pos] = static_cast<char>('0' + static_cast<int>(magnitude % 10u));
        magnitude /= 10u;
    } while (magnitude != 0);
    if (negative) {
        if (pos == 0) {
            buf[0] = '\0';
            return nullptr;
        }
        buf[--pos] = '-';
    }
    const int length = size - 1 - pos;
    std::memmove(buf, buf + pos, static_cast<size_t>(length) + 1);
    return buf + length;
}

// The magnitude is taken in the unsigned type: negating the most negative value in the
// signed type would overflow, in the unsigned type it is exact.
template <typename Signed, typename Unsigned>
char* FormatSigned(Signed value, char* buf, int size) {
    const bool negative = value < 0;
    Unsigned magnitude = static_cast<Unsigned>(value);
    if (negative) magnitude = static_cast<Unsigned>(Unsigned(0) - magnitude);
    return FormatMagnitude<Unsigned>(magnitude, negative, buf, size);
}

}  // namespace

extern "C" {

char* IntToStr(int value, char* buf, int size) {
    return FormatSigned<int, unsigned int>(value, buf, size);
}

// long and unsigned long are formatted as the 32-bit words they are on the 32-bit target, on
// every target: a value above 32 bits keeps its low 32 bits (taken as signed by LongToStr), so a
// connect id of 2^31 or more prints negative on x86-64 too and 14 bytes always suffice.
char* LongToStr(long value, char* buf, int size) {
    const int32_t word = static_cast<int32_t>(static_cast<uint32_t>(value));
    return FormatSigned<int32_t, uint32_t>(word, buf, size);
}

char* UnsignedLongToStr(unsigned long value, char* buf, int size) {
    return FormatMagnitude<uint32_t>(static_cast<uint32_t>(value), false, buf, size);
}

char* Long64ToStr(long long value, char* buf, int size) {
    return FormatSigned<long long, unsigned long long>(value, buf, size);
}

char* UnsignedLong64ToStr(unsigned long long value, char* buf, int size) {
    return FormatMagnitude<unsigned long long>(value, false, buf, size);
}

char* DoubleToStr(double value, char* buf, int size) {
    if (size < 1) return nullptr;
    const int count = std::snprintf(buf, static_cast<size_t>(size), "%g", value);
    buf[size - 1] = '\0';
    if (count < 0) {
        buf[0] = '\0';
        return buf;
    }
    // A cut text ends at the buffer's last byte; the full length would point past it.
    if (count >= size) return buf + size - 1;
    return buf + count;
}

}  // extern "C"
