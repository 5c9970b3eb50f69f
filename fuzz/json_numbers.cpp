// Fuzz target: every number formatter at every buffer size from -1 to past the longest text,
// with guard bytes around the buffer; the text must match the C library's, or be empty with
// a null result when it does not fit.
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "json/JSONNumbers.h"

namespace {

constexpr int GUARD_BYTES = 16;
constexpr char GUARD = '\xA5';
constexpr int MAX_SIZE = 40;

// Formats with a buffer of `size` bytes and checks the guards, the text and the result.
template <typename Format>
void Check(Format format, const std::string& full, bool cutAllowed) {
    for (int size = -1; size <= MAX_SIZE; ++size) {
        std::vector<char> area(static_cast<size_t>(GUARD_BYTES * 2 + (size > 0 ? size : 0)), GUARD);
        char* buf = area.data() + GUARD_BYTES;
        char* end = format(buf, size);
        for (int i = 0; i < GUARD_BYTES; ++i) {
            if (area[static_cast<size_t>(i)] != GUARD) abort();
            if (area[area.size() - 1 - static_cast<size_t>(i)] != GUARD) abort();
        }
        if (size < 1) {
            if (end != nullptr) abort();
            continue;
        }
        const size_t room = static_cast<size_t>(size) - 1;
        if (full.size() <= room) {
            if (end != buf + full.size() || full != buf) abort();
        } else if (cutAllowed) {
            if (end != buf + room || full.compare(0, room, buf) != 0 || buf[room] != '\0') abort();
        } else if (end != nullptr || buf[0] != '\0') {
            abort();
        }
    }
}

template <typename T>
T Take(const uint8_t* data, size_t size) {
    T value{};
    std::memcpy(&value, data, size < sizeof value ? size : sizeof value);
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    char text[64];
    const long long ll = Take<long long>(data, size);
    std::snprintf(text, sizeof text, "%lld", ll);
    Check([ll](char* b, int n) { return Long64ToStr(ll, b, n); }, text, false);
    std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(ll));
    Check([ll](char* b,
               int n) { return UnsignedLong64ToStr(static_cast<unsigned long long>(ll), b, n); },
          text, false);

    const long l = Take<long>(data, size);
    std::snprintf(text, sizeof text, "%ld", l);
    Check([l](char* b, int n) { return LongToStr(l, b, n); }, text, false);
    std::snprintf(text, sizeof text, "%lu", static_cast<unsigned long>(l));
    Check([l](char* b, int n) { return UnsignedLongToStr(static_cast<unsigned long>(l), b, n); },
          text, false);

    const int i = Take<int>(data, size);
    std::snprintf(text, sizeof text, "%d", i);
    Check([i](char* b, int n) { return IntToStr(i, b, n); }, text, false);

    const double d = Take<double>(data, size);
    std::snprintf(text, sizeof text, "%g", d);
    Check([d](char* b, int n) { return DoubleToStr(d, b, n); }, text, true);
    return 0;
}
