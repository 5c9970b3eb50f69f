// The number formatters: designed texts and return values, the most negative values, and
// buffers of every size up to and past the text, checked with guard bytes.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "json/JSONNumbers.h"

namespace {

using Formatter = std::function<char*(char*, int)>;

struct IntegerCase {
    const char* what;
    Formatter format;
    std::string expected;
};

// The texts of every integer function at the ends of its range and at 0.
std::vector<IntegerCase> IntegerCases() {
    const bool longIs32 = sizeof(long) == 4;
    return {
        {"int 0", [](char* b, int n) { return IntToStr(0, b, n); }, "0"},
        {"int -42", [](char* b, int n) { return IntToStr(-42, b, n); }, "-42"},
        {"int max", [](char* b, int n) { return IntToStr(INT_MAX, b, n); }, "2147483647"},
        {"int min", [](char* b, int n) { return IntToStr(INT_MIN, b, n); }, "-2147483648"},
        {"long -42", [](char* b, int n) { return LongToStr(-42L, b, n); }, "-42"},
        {"long min", [](char* b, int n) { return LongToStr(LONG_MIN, b, n); },
         longIs32 ? "-2147483648" : "-9223372036854775808"},
        {"ulong max", [](char* b, int n) { return UnsignedLongToStr(ULONG_MAX, b, n); },
         longIs32 ? "4294967295" : "18446744073709551615"},
        {"ulong 4294967295", [](char* b, int n) { return UnsignedLongToStr(4294967295UL, b, n); },
         "4294967295"},
        {"ulong 0", [](char* b, int n) { return UnsignedLongToStr(0UL, b, n); }, "0"},
        {"long64 -9223372036854775807",
         [](char* b, int n) { return Long64ToStr(-9223372036854775807LL, b, n); },
         "-9223372036854775807"},
        {"long64 min", [](char* b, int n) { return Long64ToStr(LLONG_MIN, b, n); },
         "-9223372036854775808"},
        {"long64 100", [](char* b, int n) { return Long64ToStr(100LL, b, n); }, "100"},
        {"ulong64 max", [](char* b, int n) { return UnsignedLong64ToStr(ULLONG_MAX, b, n); },
         "18446744073709551615"},
        {"ulong64 0", [](char* b, int n) { return UnsignedLong64ToStr(0ULL, b, n); }, "0"},
    };
}

constexpr char GUARD = '\x5A';
constexpr int GUARD_BYTES = 8;

// Runs format on a buffer of `size` bytes surrounded by guard bytes and checks that no guard
// byte changed.
char* FormatGuarded(const Formatter& format, int size, std::vector<char>& area) {
    area.assign(static_cast<size_t>(GUARD_BYTES * 2 + (size > 0 ? size : 0)), GUARD);
    char* buf = area.data() + GUARD_BYTES;
    char* end = format(buf, size);
    for (int i = 0; i < GUARD_BYTES; ++i) {
        EXPECT_EQ(area[static_cast<size_t>(i)], GUARD) << "byte before the buffer changed";
        EXPECT_EQ(area[area.size() - 1 - static_cast<size_t>(i)], GUARD)
            << "byte after the buffer changed";
    }
    return end;
}

TEST(WriterNumbersTest, IntegersGiveExactTextAndPointToTerminator) {
    for (const IntegerCase& c : IntegerCases()) {
        std::vector<char> area;
        char* end = FormatGuarded(c.format, 28, area);
        char* buf = area.data() + GUARD_BYTES;
        EXPECT_EQ(std::string(buf), c.expected) << c.what;
        EXPECT_EQ(end, buf + c.expected.size()) << c.what;
    }
}

TEST(WriterNumbersTest, IntegerBufferTooSmallGivesEmptyTextAndNull) {
    for (const IntegerCase& c : IntegerCases()) {
        const int fit = static_cast<int>(c.expected.size()) + 1;
        for (int size = -2; size <= fit; ++size) {
            std::vector<char> area;
            char* end = FormatGuarded(c.format, size, area);
            char* buf = area.data() + GUARD_BYTES;
            if (size == fit) {
                EXPECT_EQ(std::string(buf), c.expected) << c.what << " size " << size;
                EXPECT_EQ(end, buf + c.expected.size()) << c.what;
            } else {
                EXPECT_EQ(end, nullptr) << c.what << " size " << size;
                // size < 1 writes nothing at all; a small buffer is left holding "".
                if (size >= 1) {
                    EXPECT_EQ(buf[0], '\0') << c.what << " size " << size;
                }
            }
        }
    }
}

TEST(WriterNumbersTest, DoublesUseShortestGeneralForm) {
    const struct {
        double value;
        const char* expected;
    } cases[] = {
        {2.5, "2.5"},
        {1234567.0, "1.23457e+06"},
        {0.0001, "0.0001"},
        {0.00001, "1e-05"},
        {100.0, "100"},
        {0.1, "0.1"},
        {1e20, "1e+20"},
        {0.0, "0"},
        {-0.0, "-0"},
        {-1.5, "-1.5"},
        {std::numeric_limits<double>::infinity(), "inf"},
        {-std::numeric_limits<double>::infinity(), "-inf"},
        {std::numeric_limits<double>::quiet_NaN(), "nan"},
        {std::numeric_limits<double>::lowest(), "-1.79769e+308"},
        {std::numeric_limits<double>::denorm_min(), "4.94066e-324"},
    };
    for (const auto& c : cases) {
        char buf[32];
        char* end = DoubleToStr(c.value, buf, sizeof buf);
        EXPECT_STREQ(buf, c.expected);
        EXPECT_EQ(end, buf + std::strlen(c.expected)) << c.expected;
    }
}

TEST(WriterNumbersTest, DoubleCutTextEndsInsideBuffer) {
    const Formatter format = [](char* b, int n) { return DoubleToStr(1234567.0, b, n); };
    std::vector<char> area;
    char* end = FormatGuarded(format, 5, area);
    char* buf = area.data() + GUARD_BYTES;
    EXPECT_STREQ(buf, "1.23");
    EXPECT_EQ(end, buf + 4);

    EXPECT_EQ(FormatGuarded(format, 0, area), nullptr);
    EXPECT_EQ(FormatGuarded(format, -1, area), nullptr);
    end = FormatGuarded(format, 1, area);
    EXPECT_EQ(end, area.data() + GUARD_BYTES);
    EXPECT_EQ(*end, '\0');
}

}  // namespace
