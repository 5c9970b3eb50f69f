// The number formatters: exact texts at the ends of each range, and every buffer size up to
// the text's, with guard bytes around the buffer.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "json/JSONNumbers.h"

namespace {

using Formatter = std::function<char*(char*, int)>;

constexpr int GUARD_BYTES = 8;

// Formats into a buffer of `size` bytes inside `area`, whose other bytes must stay 'G'.
char* FormatGuarded(const Formatter& format, int size, std::string& area) {
    area.assign(static_cast<size_t>(2 * GUARD_BYTES + std::max(size, 0)), 'G');
    char* end = format(&area[GUARD_BYTES], size);
    EXPECT_EQ(area.substr(0, GUARD_BYTES), std::string(GUARD_BYTES, 'G'));
    EXPECT_EQ(area.substr(area.size() - GUARD_BYTES), std::string(GUARD_BYTES, 'G'));
    return end;
}

TEST(WriterNumbersTest, IntegersFitExactlyOrGiveEmptyTextAndNull) {
    const bool longIs32 = sizeof(long) == 4;
    const struct {
        Formatter format;
        std::string expected;
    } cases[] = {
        {[](char* b, int n) { return IntToStr(0, b, n); }, "0"},
        {[](char* b, int n) { return IntToStr(INT_MIN, b, n); }, "-2147483648"},
        {[](char* b, int n) { return LongToStr(-42L, b, n); }, "-42"},
        {[](char* b, int n) { return LongToStr(-2147483647L - 1, b, n); }, "-2147483648"},
        {[](char* b, int n) { return UnsignedLongToStr(4294967295UL, b, n); }, "4294967295"},
        // Where long is 64 bits wide, the low 32 bits are formatted: the same text as the
        // 32-bit build gives for the same word.
        {[](char* b, int n) { return LongToStr(static_cast<long>(2147483648UL), b, n); },
         "-2147483648"},
        {[](char* b, int n) {
             return LongToStr(longIs32 ? -1L : static_cast<long>(0xFFFFFFFFUL), b, n);
         },
         "-1"},
        {[](char* b, int n) {
             return UnsignedLongToStr(longIs32 ? 5UL : static_cast<unsigned long>(0x100000005ULL),
                                      b, n);
         },
         "5"},
        {[](char* b, int n) { return Long64ToStr(-9223372036854775807LL, b, n); },
         "-9223372036854775807"},
        {[](char* b, int n) { return Long64ToStr(LLONG_MIN, b, n); }, "-9223372036854775808"},
        {[](char* b, int n) { return UnsignedLong64ToStr(ULLONG_MAX, b, n); },
         "18446744073709551615"},
    };
    for (const auto& c : cases) {
        const int fit = static_cast<int>(c.expected.size()) + 1;
        for (int size = -1; size <= fit + 1; ++size) {
            std::string area;
            char* end = FormatGuarded(c.format, size, area);
            const char* buf = &area[GUARD_BYTES];
            if (size >= fit) {
                EXPECT_STREQ(buf, c.expected.c_str());
                EXPECT_EQ(end, buf + c.expected.size()) << c.expected;
            } else {
                EXPECT_EQ(end, nullptr) << c.expected << " size " << size;
                // size < 1 writes nothing; a buffer too small is left holding "".
                EXPECT_EQ(area.substr(GUARD_BYTES, 1), size < 1 ? "G" : std::string(1, '\0'));
            }
        }
    }
}

TEST(WriterNumbersTest, DoublesUseGeneralFormAndCutInsideBuffer) {
    const struct {
        double value;
        const char* expected;
    } cases[] = {
        {2.5, "2.5"},
        {1234567.0, "1.23457e+06"},
        {0.0001, "0.0001"},
        {0.00001, "1e-05"},
        {100.0, "100"},
        {0.0, "0"},
        {-0.0, "-0"},
        {std::numeric_limits<double>::infinity(), "inf"},
        {-std::numeric_limits<double>::infinity(), "-inf"},
        {std::numeric_limits<double>::quiet_NaN(), "nan"},
        {std::numeric_limits<double>::lowest(), "-1.79769e+308"},
    };
    for (const auto& c : cases) {
        char buf[32];
        EXPECT_EQ(DoubleToStr(c.value, buf, sizeof buf), buf + std::strlen(c.expected));
        EXPECT_STREQ(buf, c.expected);
    }

    const Formatter format = [](char* b, int n) { return DoubleToStr(1234567.0, b, n); };
    std::string area;
    char* end = FormatGuarded(format, 5, area);
    EXPECT_EQ(end, &area[GUARD_BYTES + 4]);
    EXPECT_STREQ(&area[GUARD_BYTES], "1.23");
    end = FormatGuarded(format, 1, area);
    EXPECT_EQ(end, &area[GUARD_BYTES]);
    EXPECT_EQ(*end, '\0');
    EXPECT_EQ(FormatGuarded(format, 0, area), nullptr);
}

}  // namespace
