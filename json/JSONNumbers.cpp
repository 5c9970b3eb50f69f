// Decimal formatting for the writer: digits are built from the right end of the caller's
// buffer and moved to its start once; no heap memory.
#include "json/JSONNumbers.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

// Room for the longest text the fast path writes, "-0.000123457", with its terminator.
constexpr int SHORT_DOUBLE_ROOM = 16;

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

#if defined(__SIZEOF_INT128__)
// "%g" text of a value whose magnitude lies in [1e-4, 1e6), the range in which "%g" writes
// plain decimals (or "1e+06" when six digits round up to it), made with exact integer
// arithmetic: value = m * 2^e with a 53-bit m and, in this range, -67 <= e <= -33, so
// m * 5^k * 2^(e+k) for k <= 9 fits in 128 bits and its rounding to an integer is exact, half
// to even as the C library rounds. Returns the length, or 0 when the value is not handled.
int FormatShortDouble(double value, char* out) {
    const double magnitude = std::fabs(value);
    if (!(magnitude >= 1e-4 && magnitude < 1e6)) return 0;
    int binaryExponent = 0;
    const double fraction = std::frexp(magnitude, &binaryExponent);
    const auto mantissa = static_cast<unsigned __int128>(std::ldexp(fraction, 53));
    const int e = binaryExponent - 53;
    static constexpr uint64_t POW5[] = {1, 5, 25, 125, 625, 3125, 15625, 78125, 390625, 1953125};
    // The decimal exponent, first from the logarithm and then made exact on the digits.
    int exponent = static_cast<int>(std::floor(std::log10(magnitude)));
    uint64_t digits = 0;
    for (int attempt = 0;; ++attempt) {
        const int k = 5 - exponent;  // digits after the point that make six significant ones
        if (k < 0 || k > 9 || attempt > 2) return 0;
        const int shift = -(e + k);
        if (shift < 1 || shift > 100) return 0;
        const unsigned __int128 scaled = mantissa * POW5[k];
        const unsigned __int128 whole = scaled >> shift;
        if (whole < 100000) {
            --exponent;
            continue;
        }
        if (whole >= 1000000) {
            ++exponent;
            continue;
        }
        const unsigned __int128 rest = scaled - (whole << shift);
        const unsigned __int128 half = static_cast<unsigned __int128>(1) << (shift - 1);
        digits = static_cast<uint64_t>(whole);
        if (rest > half || (rest == half && (digits & 1u) != 0)) ++digits;
        break;
    }
    if (digits == 1000000) {  // rounded up to the next power of ten
        digits = 100000;
        ++exponent;
    }
    if (exponent < -4 || exponent > 6) return 0;
    int n = 0;
    if (value < 0) out[n++] = '-';
    if (exponent == 6) {
        std::memcpy(out + n, "1e+06", 5);
        return n + 5;
    }
    char six[6];
    for (int i = 5; i >= 0; --i) {
        six[i] = static_cast<char>('0' + digits % 10u);
        digits /= 10u;
    }
    int last = 5;  // trailing zeros are dropped, and the point with them
    while (last > 0 && six[last] == '0') --last;
    if (exponent >= 0) {
        std::memcpy(out + n, six, static_cast<size_t>(exponent) + 1);
        n += exponent + 1;
        if (last > exponent) {
            out[n++] = '.';
            const int count = last - exponent;
            std::memcpy(out + n, six + exponent + 1, static_cast<size_t>(count));
            n += count;
        }
    } else {
        out[n++] = '0';
        out[n++] = '.';
        for (int i = 0; i < -exponent - 1; ++i) out[n++] = '0';
        std::memcpy(out + n, six, static_cast<size_t>(last) + 1);
        n += last + 1;
    }
    return n;
}
#endif

}  // namespace

extern "C" {

char* IntToStr(int value, char* buf, int size) {
    return FormatSigned<int, unsigned int>(value, buf, size);
}

// long and unsigned long are formatted at their own width: on x86-64 int64_t, uint64_t and
// size_t are these types, and cutting them to 32 bits would lose data silently. Callers that
// mean a 32-bit word convert to it first.
char* LongToStr(long value, char* buf, int size) {
    return FormatSigned<long, unsigned long>(value, buf, size);
}

char* UnsignedLongToStr(unsigned long value, char* buf, int size) {
    return FormatMagnitude<unsigned long>(value, false, buf, size);
}

char* Long64ToStr(long long value, char* buf, int size) {
    return FormatSigned<long long, unsigned long long>(value, buf, size);
}

char* UnsignedLong64ToStr(unsigned long long value, char* buf, int size) {
    return FormatMagnitude<unsigned long long>(value, false, buf, size);
}

char* DoubleToStr(double value, char* buf, int size) {
    if (size < 1) return nullptr;
#if defined(__SIZEOF_INT128__)
    // Most numbers written are of moderate size; they skip the C library's general formatter.
    // The text is the same: the fast path is checked against snprintf over many values.
    if (size >= SHORT_DOUBLE_ROOM) {
        const int length = FormatShortDouble(value, buf);
        if (length > 0) {
            buf[length] = '\0';
            return buf + length;
        }
    }
#endif
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
