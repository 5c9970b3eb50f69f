// The number formatters: exact texts at the ends of each range, and every buffer size up to
// the text's, with guard bytes around the buffer.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
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
        // long is written whole at its own width.
        {[](char* b, int n) { return LongToStr(LONG_MIN, b, n); },
         longIs32 ? "-2147483648" : "-9223372036854775808"},
        {[](char* b, int n) { return UnsignedLongToStr(ULONG_MAX, b, n); },
         longIs32 ? "4294967295" : "18446744073709551615"},
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

// Doubles of moderate size take a path of their own; their texts must still be exactly the
// C library's, at rounding ties, at the ends of the plain-decimal range and in short buffers.
TEST(WriterNumbersTest, DoubleTextsAreTheCLibraryTexts) {
    std::vector<double> values = {
        1e-4, 0.000099999995, 999999.5, 999999.49999999, 1e6, 123456.5, 0.1, 0.3, 2.5, 5e-5};
    std::mt19937_64 rng(20261123);
    std::uniform_real_distribution<double> decade(-6.0, 7.0);
    for (int i = 0; i < 100000; ++i) values.push_back(std::pow(10.0, decade(rng)));
    for (long d = 100000; d < 1000000; d += 997) {
        for (int k = -10; k <= 0; ++k) {
            const double tie = (static_cast<double>(d) + 0.5) * std::pow(10.0, k);
            values.push_back(tie);
            values.push_back(std::nextafter(tie, 0.0));
            values.push_back(std::nextafter(tie, 1e300));
        }
    }
    for (long d = 1; d < 2000000; d += 4999) {
        for (int k = 0; k < 30; ++k) values.push_back(std::ldexp(static_cast<double>(d), -k));
    }
    for (double v : values) {
        for (double sample : {v, -v}) {
            char ours[32];
            char theirs[32];
            DoubleToStr(sample, ours, sizeof ours);
            std::snprintf(theirs, sizeof theirs, "%g", sample);
            ASSERT_STREQ(theirs, ours) << std::hexfloat << sample;
        }
    }
    for (int size = 1; size <= 16; ++size) {
        const Formatter format = [](char* b, int n) { return DoubleToStr(-0.000123457, b, n); };
        std::string area;
        char* end = FormatGuarded(format, size, area);
        const std::string full = "-0.000123457";
        const std::string kept = full.substr(0, std::min<size_t>(full.size(), size - 1));
        EXPECT_EQ(kept, &area[GUARD_BYTES]) << size;
        EXPECT_EQ(&area[GUARD_BYTES] + kept.size(), end) << size;
    }
}

}  // namespace
