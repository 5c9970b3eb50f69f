// The writers: number texts, the streaming writer and the pretty printer.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "json/JSONNumbers.h"
#include "json/JSONPrettyPrint.h"
#include "json/JSONSerialize.h"

namespace {

// Rounding ties and the ends of the plain-decimal range, where the fast path is likeliest wrong.
TEST(WriterNumbersTest, DoubleTextsAreTheCLibraryTexts) {
    std::vector<double> values = {1e-4, 0.000099999995, 999999.5, 999999.49999999, 1e6, 0.3};
    for (long d = 100000; d < 1000000; d += 997) {
        for (int k = -10; k <= 0; ++k) {
            const double tie = (static_cast<double>(d) + 0.5) * std::pow(10.0, k);
            values.insert(values.end(), {tie, std::nextafter(tie, 0.0), std::nextafter(tie, 1e9)});
        }
    }
    for (double v : values) {
        for (double sample : {v, -v}) {
            char ours[32], theirs[32];
            DoubleToStr(sample, ours, sizeof ours);
            std::snprintf(theirs, sizeof theirs, "%g", sample);
            ASSERT_STREQ(theirs, ours) << std::hexfloat << sample;
        }
    }
}

TEST(WriterSerializeTest, WritesCompactText) {
    JSON::Serialize w;
    w.OO().N("a").V(1).N("b").AO().V("x").V(2.5).AC().N("q\"\n").V("say \"hi\"").OC();
    w.AO().V(1).V(2).AO().AC().OO().OC().V(static_cast<const char*>(nullptr)).AC();
    w.AO().JS(R"({"x":1})").JS("").JS(nullptr).JS_N("[1,2]tail", 5);
    w.JS_N("x", 0).JS_N("", 3).JS_N(nullptr, -1);
    w.AppendString("true");
    w.AppendString(nullptr);
    w.V(-5).V(4294967295UL).V(0.5).V(INT_MIN).V(LLONG_MIN).V(ULLONG_MAX).V(4000000000U);
    w.V(int64_t{10000000000}).V(SIZE_MAX).AC();  // long or long long by target, whole either way
    EXPECT_EQ(R"({"a":1,"b":["x",2.5],"q\"\n":"say \"hi\""}[1,2,[],{},null])"
              R"([{"x":1},null,null,[1,2],,null,null,true,null,-5,4294967295,0.5,-2147483648,)"
              R"(-9223372036854775808,18446744073709551615,4000000000,10000000000,)" +
                  std::to_string(SIZE_MAX) + "]",
              w.String());
    EXPECT_FALSE(w.m_error);
}

TEST(WriterSerializeTest, RefusedCallLeavesTextAndBlocksLaterCalls) {
    const struct {  // the last call is refused; the text is what came before it
        void (*calls)(JSON::Serialize&);
        const char* text;
    } cases[] = {
        {[](JSON::Serialize& w) { w.V(1); }, ""},
        {[](JSON::Serialize& w) { w.AppendString("1"); }, ""},
        {[](JSON::Serialize& w) { w.AO().AC().N("a"); }, "[]"},
        {[](JSON::Serialize& w) { w.OC(); }, ""},
        {[](JSON::Serialize& w) { w.OO().N("a").AO().N("b"); }, R"({"a":[)"},
        {[](JSON::Serialize& w) { w.OO().N("a").N("b"); }, R"({"a":)"},
        {[](JSON::Serialize& w) { w.OO().N(nullptr); }, "{"},
        {[](JSON::Serialize& w) { w.OO().N("a").V(1).JS("2"); }, R"({"a":1)"},
        {[](JSON::Serialize& w) { w.OO().OO(); }, "{"},
        {[](JSON::Serialize& w) { w.AO().V(1).OC(); }, "[1"},
        {[](JSON::Serialize& w) { w.OO().AC(); }, "{"},
        {[](JSON::Serialize& w) { w.AO().JS_N("1", -1); }, "["},
        {[](JSON::Serialize& w) {
             for (int i = 0; i < 33; ++i) w.AO();
         },
         "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[["},
    };
    for (const auto& c : cases) {
        JSON::Serialize w;
        c.calls(w);
        EXPECT_TRUE(w.m_error) << c.text;
        w.AO().OO().N("z").V("v").V(1).JS("2").JS_N("3", 1).V(1.5).OC().AC();
        w.AppendString("4");
        EXPECT_EQ(c.text, w.String());
        EXPECT_TRUE(w.m_error) << c.text;
    }
}

std::string Pretty(const char* text) {
    std::string out = "left over";
    JSON_PrettyPrint(text, out);
    return out;
}

TEST(WriterPrettyPrintTest, LaysOutBracketsAndCommas) {
    const char* const cases[][2] = {
        {R"({"a":1,"b":[true,null,"x"]})",
         "\n{\n\t\"a\":1,\n\t\"b\":\n\t[\n\t\ttrue,null,\"x\"\n\t]\n}"},
        {"[]", "\n[\n\t\n]"},
        {"[[1],{}]", "\n[\n\t\n\t[\n\t\t1\n\t],\n\t{\n\t\t\n\t}\n]"},
        {R"({"a":"x,y"})", "\n{\n\t\"a\":\"x,\n\ty\"\n}"},  // strings are not told apart
        {R"(["[,"])", "\n[\n\t\"\n\t[\n\t\t,\"\n\t]"},
        {"]},[1,2]", "\n]\n},\n\n[\n1,2\n]"},  // below depth 0 no tab is written
    };
    for (const auto& c : cases) EXPECT_EQ(c[1], Pretty(c[0])) << c[0];
    EXPECT_EQ("", Pretty(nullptr));
    const std::string run(30000, 'r');
    EXPECT_EQ("\n[\n\t\"" + run + "\",1\n]", Pretty(("[\"" + run + "\",1]").c_str()));
}

// Breaks with more tabs than one short store, some straddling the end of an output block.
TEST(WriterPrettyPrintTest, DeepLinesAcrossTheOutputBlocks) {
    const std::string deep = std::string(41, '[') + "0" + std::string(41, ']');
    std::string expected, closing;
    for (size_t depth = 0; depth <= 40; ++depth) {
        expected += "\n" + std::string(depth, '\t') + "[\n" + std::string(depth + 1, '\t');
        closing = "\n" + std::string(depth, '\t') + "]" + closing;
    }
    expected += "0" + closing;
    EXPECT_EQ(expected, Pretty(deep.c_str()));
    std::string ones(7800, '1');
    for (size_t i = 1; i < ones.size(); i += 2) ones[i] = ',';
    for (; ones.size() < 8400; ones += "1,") {
        ASSERT_EQ("\n[\n\t" + ones + expected.substr(4),
                  Pretty(("[" + ones + deep.substr(1)).c_str()));
    }
}

}  // namespace
