// CParamsX: the text it builds, how it indexes good and malformed texts, and what its getters
// and both getHRESULT forms answer.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "QVUtilities/Utilities/CParamsX.h"

namespace {

const char WORKED_TEXT[] = "GetStatus;10;0x80004005;3;abc;1;T;2;42;11;12345678901";

CParamsX WorkedExample() {
    CParamsX p;
    p.addHeader("GetStatus");
    p.addResult(static_cast<long>(0x80004005u));
    p.addParam(std::string("abc"));
    p.addParam(1);
    p.addParam(42L);
    p.addParam(12345678901ULL);
    return p;
}

// Checks the worked example's values, whether it was built or indexed from its text.
void ExpectWorkedValues(const CParamsX& p) {
    EXPECT_EQ(WORKED_TEXT, p.paramList());
    EXPECT_EQ(53, p.length());
    ASSERT_EQ(5, p.count());
    EXPECT_EQ("GetStatus", p.getHeader());
    EXPECT_EQ(static_cast<long>(0x80004005u), p.getHRESULT());
    EXPECT_EQ("0x80004005", p.getstringParamAt(0));
    EXPECT_EQ("abc", p.getstringParamAt(1));
    EXPECT_EQ(1, p.getBOOLParamAt(2));
    EXPECT_EQ(42L, p.getLongParamAt(3));
    EXPECT_EQ(12345678901ULL, p.getULONGLONGParamAt(4));
    // The length fields begin at the designed offsets, right after the 10-character header.
    EXPECT_EQ(10ul, p.m_headerLength);
    EXPECT_EQ((std::vector<long>{10, 24, 30, 34, 39}), p.m_offsets);
    const long offsets[] = {10, 24, 30, 34, 39};
    const long lengths[] = {10, 3, 1, 2, 11};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        long consumed = 0;
        EXPECT_EQ(lengths[i], p.getLength(offsets[i], &consumed));
        EXPECT_EQ(lengths[i] >= 10 ? 3 : 2, consumed);
    }
}

std::string ThrowText(const CParamsX& p, long offset) {
    long consumed = 0;
    try {
        p.getLength(offset, &consumed);
    } catch (LQException& e) {
        EXPECT_EQ(PARAMSX_E_FORMAT, e.code);
        return e.text;
    }
    return "no exception";
}

}  // namespace

TEST(ParamsXTest, WorkedExampleBuildsTheDesignedText) { ExpectWorkedValues(WorkedExample()); }

TEST(ParamsXTest, WorkedExampleTextIndexesToTheSameList) {
    ExpectWorkedValues(CParamsX(std::string(WORKED_TEXT)));
}

TEST(ParamsXTest, ValueMayContainSemicolonsAndLeadingDigits) {
    CParamsX p;
    p.addParam(std::string("a;b"));
    p.addParam(std::string("12;x;"));
    p.addParam(std::string(""));
    p.addParam(std::string(";"));
    EXPECT_EQ("3;a;b;5;12;x;;0;;1;;", p.paramList());
    const CParamsX parsed(p.paramList());
    const CParamsX* const lists[] = {&p, &parsed};
    for (const CParamsX* list : lists) {
        ASSERT_EQ(4, list->count());
        EXPECT_EQ("", list->getHeader());
        EXPECT_EQ("a;b", list->getstringParamAt(0));
        EXPECT_EQ("12;x;", list->getstringParamAt(1));
        EXPECT_EQ("", list->getstringParamAt(2));
        EXPECT_EQ(";", list->getstringParamAt(3));
    }
}

TEST(ParamsXTest, EmptyStringIsOneEmptyParameter) {
    CParamsX p;
    p.addParam(std::string(""));
    EXPECT_EQ("0;", p.paramList());
    EXPECT_EQ(1, p.count());
    EXPECT_EQ("", p.getstringParamAt(0));
}

TEST(ParamsXTest, HeaderOnlyListHasNoParametersNorResult) {
    CParamsX built;
    built.addHeader("Cmd");
    built.addHeader("");  // an empty header changes nothing
    const CParamsX parsed(std::string("Cmd;"));
    const CParamsX* const lists[] = {&built, &parsed};
    for (const CParamsX* p : lists) {
        EXPECT_EQ("Cmd;", p->paramList());
        EXPECT_EQ(0, p->count());
        EXPECT_EQ("Cmd", p->getHeader());
        EXPECT_EQ(PARAMSX_E_FORMAT, p->getHRESULT());
        EXPECT_EQ(PARAMSX_E_FORMAT, CParamsX::getHRESULT(p->paramList()));
    }
    // The first parameter follows the header's ";" directly.
    built.addParam(std::string("x"));
    EXPECT_EQ("Cmd;1;x", built.paramList());
}

TEST(ParamsXTest, TypedValuesEncodeAndReadBack) {
    CParamsX p;
    p.addParam(0);
    p.addParam(7);
    p.addParam(static_cast<long>(INT_MIN));
    p.addParam(-5L);
    p.addParam(ULLONG_MAX);
    p.addParam(std::string("abc"));
    p.addParam(LONG_MIN);  // 64 bits wide on x86-64, written whole
    EXPECT_EQ("F", p.getstringParamAt(0));
    EXPECT_EQ("T", p.getstringParamAt(1));
    EXPECT_EQ(0, p.getBOOLParamAt(0));
    EXPECT_EQ(1, p.getBOOLParamAt(1));
    EXPECT_EQ(static_cast<long>(INT_MIN), p.getLongParamAt(2));
    EXPECT_EQ("-5", p.getstringParamAt(3));
    EXPECT_EQ(ULLONG_MAX, p.getULONGLONGParamAt(4));
    EXPECT_EQ("18446744073709551615", p.getstringParamAt(4));
    // The numeric getters do not check the value text.
    EXPECT_EQ(0L, p.getLongParamAt(5));
    EXPECT_EQ(0, p.getBOOLParamAt(5));
    EXPECT_EQ(0ULL, p.getULONGLONGParamAt(5));
    EXPECT_EQ(std::to_string(LONG_MIN), p.getstringParamAt(6));
    EXPECT_EQ(LONG_MIN, p.getLongParamAt(6));
}

TEST(ParamsXTest, GettersOutOfRangeGiveEmptyValues) {
    CParamsX p(std::string("1;a;2;42"));
    ASSERT_EQ(2, p.count());
    for (unsigned long i : {2ul, 5ul, ULONG_MAX}) {
        SCOPED_TRACE(i);
        EXPECT_EQ("", p.getstringParamAt(i));
        EXPECT_EQ(0L, p.getLongParamAt(i));
        EXPECT_EQ(0, p.getBOOLParamAt(i));
        EXPECT_EQ(0ULL, p.getULONGLONGParamAt(i));
    }
}

TEST(ParamsXTest, ResultCodeFormsOnGoodAndMalformedTexts) {
    struct Case {
        const char* text;
        long member;    // getHRESULT() of the list indexed from text
        long fromText;  // getHRESULT(text)
    };
    const long E = PARAMSX_E_FORMAT;
    const Case cases[] = {
        {"GetStatus;10;0x80004005;3;abc", static_cast<long>(0x80004005u),
         static_cast<long>(0x80004005u)},
        {"10;0x00000000", 0, 0},
        {"10;0xC1210E12", E, E},
        {"X;10;0xZZZZZZZZ", 0, 0},      // 10 characters that are no code read as 0
        {"10;0x0000000A;1;T", 10, 10},  // more parameters may follow
        {"", E, E},
        {"Cmd;", E, E},
        {"Cmd", E, E},
        {"3;abc", E, E},                          // parameter 0 is not 10 characters long
        {"10;0x1234", E, E},                      // cut short: the list keeps the shorter value
        {"10;0x1234567G", 0x1234567, 0x1234567},  // read as "0x%08X" reads it
        {"Cmd;10", E, E},                         // no ";" after the length
        {"9;0x1234567", E, E},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(c.member, CParamsX(std::string(c.text)).getHRESULT());
        EXPECT_EQ(c.fromText, CParamsX::getHRESULT(c.text));
    }
}

TEST(ParamsXTest, MalformedTextsGiveAnEmptyList) {
    const char* const texts[] = {
        "5abc",          // no ";" after the length
        "Cmd;;",         // empty length field
        "abc",           // a header without its ";" and nothing else
        "-4;ab",         // negative length: would walk backwards
        "1;a;-1;xyz",    // negative length after a good parameter
        "2;ab;-3;;1;x",  // negative length that would revisit a field
    };
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        const CParamsX p((std::string(text)));
        EXPECT_EQ(0, p.count());
        EXPECT_EQ("", p.paramList());
        EXPECT_EQ("", p.getHeader());
        EXPECT_EQ(PARAMSX_E_FORMAT, p.getHRESULT());
    }
}

TEST(ParamsXTest, LengthBeyondTheTextEndsTheListWithAShortValue) {
    struct Case {
        const char* text;
        const char* last;
    };
    const Case cases[] = {
        {"5;abc", "abc"},
        {"1;a;99999999999999999999;xy", "xy"},  // beyond every long: strtol's maximum
        {"1;a;2147483648;xy", "xy"},
        {"1;a;4294967295;xy", "xy"},
        {"1;a;9223372036854775807;", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const CParamsX p((std::string(c.text)));
        EXPECT_EQ(c.text, p.paramList());
        ASSERT_GE(p.count(), 1);
        EXPECT_EQ(c.last, p.getstringParamAt(static_cast<unsigned long>(p.count() - 1)));
    }
}

TEST(ParamsXTest, GetLengthNamesItsThrowSites) {
    const CParamsX p(std::string("X;3;abc"));
    ASSERT_EQ(1, p.count());
    EXPECT_EQ("QVIPC/QVIPCLibrary/../../QVUtilities/Utilities/CParamsX.111", ThrowText(p, 1));
    EXPECT_EQ("QVIPC/QVIPCLibrary/../../QVUtilities/Utilities/CParamsX.115", ThrowText(p, 5));
    // Offsets outside the text have no ";" after them.
    EXPECT_EQ("QVIPC/QVIPCLibrary/../../QVUtilities/Utilities/CParamsX.115", ThrowText(p, 7));
    EXPECT_EQ("QVIPC/QVIPCLibrary/../../QVUtilities/Utilities/CParamsX.115", ThrowText(p, 8));
    EXPECT_EQ("QVIPC/QVIPCLibrary/../../QVUtilities/Utilities/CParamsX.115", ThrowText(p, -1));
}

TEST(ParamsXTest, AppendIndexesEncodedParameters) {
    CParamsX p;
    p.addHeader("Op");
    p.append("");  // appends nothing, not even a separator
    EXPECT_EQ("Op;", p.paramList());
    p.append("1;a;3;b;c");
    EXPECT_EQ("Op;1;a;3;b;c", p.paramList());
    p.append("2;xy");
    EXPECT_EQ("Op;1;a;3;b;c;2;xy", p.paramList());
    ASSERT_EQ(3, p.count());
    EXPECT_EQ("b;c", p.getstringParamAt(1));
    EXPECT_EQ("xy", p.getstringParamAt(2));
}

TEST(ParamsXTest, AppendOfAMalformedTextKeepsTextAndOffsetsFound) {
    CParamsX p;
    p.addParam(std::string("a"));
    EXPECT_THROW(p.append("1;b;-7;zz"), LQException);
    EXPECT_EQ("1;a;1;b;-7;zz", p.paramList());
    // The bad parameter's offset is kept; reading it throws, the others still read.
    ASSERT_EQ(3, p.count());
    EXPECT_EQ("b", p.getstringParamAt(1));
    EXPECT_THROW(p.getstringParamAt(2), LQException);
    EXPECT_THROW(p.append(";"), LQException);

    CParamsX q;
    EXPECT_THROW(q.append("garbage"), LQException);
    // Parameter 0's length field is malformed: reading it for the result code throws too.
    EXPECT_THROW(q.getHRESULT(), LQException);
}

TEST(ParamsXTest, CopiesAreIndependent) {
    CParamsX a(std::string("1;a;1;b"));
    CParamsX b(a);
    CParamsX c;
    c = a;
    a.clear();
    a.addParam(std::string("zzz"));
    EXPECT_EQ("3;zzz", a.paramList());
    for (const CParamsX* p : {&b, &c}) {
        ASSERT_EQ(2, p->count());
        EXPECT_EQ("b", p->getstringParamAt(1));
    }
    const CParamsX& alias = c;
    c = alias;  // self-assignment keeps the list
    EXPECT_EQ("a", c.getstringParamAt(0));
}

TEST(ParamsXTest, CachedTextPointerFollowsTheText) {
    CParamsX p;
    p.addParam(std::string("abc"));
    EXPECT_EQ(nullptr, p.m_pText);
    EXPECT_EQ("abc", p.getstringParamAt(0));
    EXPECT_EQ(p.m_paramList.c_str(), p.m_pText);
    // Growing the text may move it; the pointer is dropped and taken again.
    p.addParam(std::string(1000, 'x'));
    EXPECT_EQ(nullptr, p.m_pText);
    EXPECT_EQ(std::string(1000, 'x'), p.getstringParamAt(1));
    EXPECT_EQ(p.m_paramList.c_str(), p.m_pText);
    CParamsX q;
    q = p;
    EXPECT_EQ(q.m_paramList.c_str(), q.m_pText);
}

TEST(ParamsXTest, ClearEmptiesHeaderTextAndParameters) {
    CParamsX p = WorkedExample();
    p.clear();
    EXPECT_EQ(0, p.count());
    EXPECT_EQ(0, p.length());
    EXPECT_EQ("", p.getHeader());
    p.addParam(std::string("x"));
    EXPECT_EQ("1;x", p.paramList());
}

TEST(ParamsXTest, HundredThousandParametersRoundTrip) {
    const int n = 100000;
    CParamsX built(static_cast<long>(n) * 12);
    built.addHeader("Bulk");
    for (int i = 0; i < n; ++i) built.addParam(static_cast<long>(i) * 7);
    const CParamsX parsed(built.paramList());
    ASSERT_EQ(n, built.count());
    ASSERT_EQ(n, parsed.count());
    EXPECT_EQ("Bulk", parsed.getHeader());
    for (int i = 0; i < n; ++i) {
        if (parsed.getLongParamAt(static_cast<unsigned long>(i)) != static_cast<long>(i) * 7) {
            FAIL() << "parameter " << i;
        }
    }
}
