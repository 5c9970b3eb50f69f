// CParamsX: the texts it builds and indexes, hostile length fields, result codes and appending.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <tuple>
#include <vector>

#include "QVUtilities/Utilities/CParamsX.h"

namespace {

const long E = PARAMSX_E_FORMAT;
using Strings = std::vector<std::string>;

Strings Values(const CParamsX& p) {
    Strings values;
    for (int i = 0; i < p.count(); ++i) values.push_back(p.getstringParamAt(unsigned(i)));
    return values;
}

}  // namespace

TEST(ParamsXTest, WorkedExampleBuildsAndIndexesTheSameList) {
    const std::string text = "GetStatus;10;0x80004005;3;abc;1;T;2;42;11;12345678901";
    CParamsX built;
    built.addHeader("GetStatus");
    built.addResult(static_cast<long>(0x80004005u));
    built.addParam(std::string("abc"));
    built.addParam(1);
    built.addParam(42L);
    built.addParam(12345678901ULL);
    CParamsX assigned;
    assigned = built;
    for (const CParamsX& p : {built, CParamsX(text), assigned}) {
        EXPECT_EQ(text, p.paramList());
        EXPECT_EQ("GetStatus", p.getHeader());
        EXPECT_EQ((Strings{"0x80004005", "abc", "T", "42", "12345678901"}), Values(p));
        EXPECT_EQ(static_cast<long>(0x80004005u), p.getHRESULT());
    }
}

// A value may hold any byte, separators and NUL included: its length alone ends it.
TEST(ParamsXTest, StringListsRoundTripThroughTheirText) {
    const std::tuple<const char*, Strings, std::string> cases[] = {
        {"", {"a;b", "12;x;", "", ";"}, "3;a;b;5;12;x;;0;;1;;"},
        {"Cmd", {"x", ""}, "Cmd;1;x;0;"},
        {"", {std::string("a\0b", 3), "c"}, std::string("3;a\0b;1;c", 9)},
        {"Cmd", {}, "Cmd;"},
    };
    for (const auto& [header, values, text] : cases) {
        SCOPED_TRACE(text);
        CParamsX built;
        built.addHeader(header);
        for (const std::string& v : values) built.addParam(v);
        EXPECT_EQ(text, built.paramList());
        const CParamsX parsed(text);
        EXPECT_EQ(header, parsed.getHeader());
        EXPECT_EQ(values, Values(parsed));
    }
}

TEST(ParamsXTest, TypedValuesEncodeAndReadBack) {
    CParamsX p;
    p.addResult(0xABCDEFL);
    p.addParam(0);
    p.addParam(7);
    p.addParam(LONG_MIN);  // 64 bits wide on x86-64, written whole
    p.addParam(ULLONG_MAX);
    p.addParam(std::string("abc"));
    EXPECT_EQ(
        (Strings{"0x00ABCDEF", "F", "T", std::to_string(LONG_MIN), "18446744073709551615", "abc"}),
        Values(p));
    EXPECT_EQ(0xABCDEFL, p.getHRESULT());
    EXPECT_EQ(1, p.getBOOLParamAt(2) - p.getBOOLParamAt(1));
    EXPECT_EQ(LONG_MIN, p.getLongParamAt(3));
    EXPECT_EQ(ULLONG_MAX, p.getULONGLONGParamAt(4));
    // The numeric getters do not check the value text; an index past the end reads empty.
    EXPECT_EQ(0L, p.getLongParamAt(5));
    for (unsigned long i : {6ul, ULONG_MAX}) {
        EXPECT_EQ(0L, p.getLongParamAt(i) + p.getBOOLParamAt(i));
        EXPECT_EQ(0ULL, p.getULONGLONGParamAt(i));
        EXPECT_EQ("", p.getstringParamAt(i));
    }
    CParamsX big;  // a length of seven digits
    big.addParam(std::string(1000000, 'x'));
    EXPECT_EQ(0u, big.paramList().find("1000000;x"));
    EXPECT_EQ(1000000u, CParamsX(big.paramList()).getstringParamAt(0).size());
}

// Malformed lengths give an empty list; parameter 0 is the result code when 10 characters long.
TEST(ParamsXTest, HostileTextsAndTheirResultCodes) {
    const std::tuple<const char*, long, Strings> cases[] = {
        {"5abc", E, {}},                                  // no ";" after the length
        {"Cmd;10", E, {}},                                // the same after a header
        {"Cmd;;", E, {}},                                 // an empty length field
        {"abc", E, {}},                                   // a header without its ";"
        {"-4;ab", E, {}},                                 // negative: would walk backwards
        {"2;ab;-3;;1;x", E, {}},                          // negative, would revisit a field
        {"1;a;x;b", E, {"a", ""}},                        // a length that is no number reads as 0
        {"2;ab;", E, {"ab"}},                             // a ";" at the very end starts nothing
        {"5;abc", E, {"abc"}},                            // past the end: the value is cut short
        {"1;a;99999999999999999999;xy", E, {"a", "xy"}},  // beyond every long
        {"1;a;9223372036854775807;", E, {"a", ""}},
        {"", E, {}},
        {"GetStatus;10;0x80004005;3;abc", long(0x80004005u), {"0x80004005", "abc"}},
        {"10;0xC1210E12", E, {"0xC1210E12"}},          // the code that also says "no code"
        {"X;10;0xZZZZZZZZ", 0, {"0xZZZZZZZZ"}},        // 10 characters that are no code: 0
        {"10;0x1234567G", 0x1234567, {"0x1234567G"}},  // read as "0x%08X" reads it
        {"10;0x1234", E, {"0x1234"}},                  // cut short
    };
    for (const auto& [text, hr, values] : cases) {
        SCOPED_TRACE(text);
        const CParamsX p((std::string(text)));
        EXPECT_EQ(values, Values(p));
        EXPECT_EQ(values.empty() ? "" : text, p.paramList());
        EXPECT_EQ(hr, p.getHRESULT());
        EXPECT_EQ(hr, CParamsX::getHRESULT(text));
    }
}

TEST(ParamsXTest, AppendIndexesEncodedParametersAndKeepsWhatItFound) {
    CParamsX p;
    p.addHeader("Op");
    p.append("");  // nothing, not even a separator
    p.append("1;a;3;b;c");
    p.append("2;xy");
    EXPECT_EQ((Strings{"a", "b;c", "xy"}), Values(p));
    // A malformed length throws; the text stays appended and the offsets found before it stay.
    EXPECT_THROW(p.append("1;d;-7;zz"), LQException);
    EXPECT_EQ("Op;1;a;3;b;c;2;xy;1;d;-7;zz", p.paramList());
    ASSERT_EQ(5, p.count());
    EXPECT_EQ("d", p.getstringParamAt(3));
    EXPECT_THROW(p.getstringParamAt(4), LQException);
    CParamsX q;
    EXPECT_THROW(q.append("x"), LQException);
    EXPECT_THROW(q.getHRESULT(), LQException);
    q.append("1;a");  // after the one character left behind, a separator all the same
    EXPECT_EQ("x;1;a", q.paramList());
}
