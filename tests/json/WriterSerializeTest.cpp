// JSON::Serialize: separators and quotes placed by the writer, every kind of refusal with
// its sticky error, and the nesting bound of the bit stacks.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <tuple>

#include "json/JSONSerialize.h"

namespace {

using Calls = std::function<void(JSON::Serialize&)>;

struct WriteCase {
    const char* what;
    Calls calls;
    std::string expected;
};

TEST(WriterSerializeTest, WritesCompactText) {
    const WriteCase cases[] = {
        {"worked example",
         [](JSON::Serialize& w) { w.OO().N("a").V(1).N("b").AO().V("x").V(2.5).AC().OC(); },
         R"({"a":1,"b":["x",2.5]})"},
        {"nested empties", [](JSON::Serialize& w) { w.AO().V(1).V(2).AO().AC().OO().OC().AC(); },
         "[1,2,[],{}]"},
        {"empty object", [](JSON::Serialize& w) { w.OO().OC(); }, "{}"},
        {"empty array", [](JSON::Serialize& w) { w.AO().AC(); }, "[]"},
        {"null string",
         [](JSON::Serialize& w) { w.OO().N("k").V(static_cast<const char*>(nullptr)).OC(); },
         R"({"k":null})"},
        {"escaped name and value",
         [](JSON::Serialize& w) { w.OO().N("q\"\n").V("say \"hi\"").OC(); },
         R"({"q\"\n":"say \"hi\""})"},
        {"ready JSON", [](JSON::Serialize& w) { w.AO().JS(R"({"x":1})").JS("").JS(nullptr).AC(); },
         R"([{"x":1},null,null])"},
        {"ready JSON by length",
         [](JSON::Serialize& w) {
             w.OO().N("a").JS_N("[1,2]tail", 5).N("b").JS_N("", 3).N("c").JS_N(nullptr, 2);
             w.N("d").JS_N(nullptr, -1).OC();  // a null text does not use the length
         },
         R"({"a":[1,2],"b":null,"c":null,"d":null})"},
        {"raw text",
         [](JSON::Serialize& w) {
             w.AO();
             w.AppendString("true");
             w.AppendString(nullptr);
             w.AC();
         },
         "[true,null]"},
        {"numbers", [](JSON::Serialize& w) { w.AO().V(-5).V(4294967295UL).V(0.5).AC(); },
         "[-5,4294967295,0.5]"},
        {"number limits",
         [](JSON::Serialize& w) {
             w.AO().V(INT_MIN).V(LLONG_MIN).V(ULLONG_MAX).V(-2147483647L).V(4000000000U).AC();
         },
         "[-2147483648,-9223372036854775808,18446744073709551615,-2147483647,4000000000]"},
        // The fixed-width types pick long or long long by target; either way they are whole.
        {"64-bit and size types",
         [](JSON::Serialize& w) {
             w.AO().V(int64_t{10000000000}).V(INT64_MIN).V(UINT64_MAX).V(SIZE_MAX).AC();
         },
         "[10000000000,-9223372036854775808,18446744073709551615," + std::to_string(SIZE_MAX) +
             "]"},
        {"containers as members and elements",
         [](JSON::Serialize& w) {
             w.OO().N("a").OO().OC().N("b").AO().OO().N("c").V(0).OC().AO().AC().AC().OC();
         },
         R"({"a":{},"b":[{"c":0},[]]})"},
        {"second top-level container follows directly",
         [](JSON::Serialize& w) { w.OO().OC().AO().V("x").AC(); }, R"({}["x"])"},
    };
    for (const WriteCase& c : cases) {
        JSON::Serialize w;
        c.calls(w);
        EXPECT_EQ(w.String(), c.expected) << c.what;
        EXPECT_FALSE(w.m_error) << c.what;
        EXPECT_EQ(w.m_depth, 0u) << c.what;
    }
}

TEST(WriterSerializeTest, RefusedCallLeavesTextAndBlocksLaterCalls) {
    // Each case's last call is the refused one; `expected` is the text before it.
    const WriteCase cases[] = {
        {"value at depth 0", [](JSON::Serialize& w) { w.V(1); }, ""},
        {"string at depth 0", [](JSON::Serialize& w) { w.V("x"); }, ""},
        {"ready JSON at depth 0", [](JSON::Serialize& w) { w.JS("1"); }, ""},
        {"raw text at depth 0", [](JSON::Serialize& w) { w.AppendString("1"); }, ""},
        {"name at depth 0", [](JSON::Serialize& w) { w.N("a"); }, ""},
        {"close object at depth 0", [](JSON::Serialize& w) { w.OC(); }, ""},
        {"close array at depth 0", [](JSON::Serialize& w) { w.AC(); }, ""},
        {"value after top-level close", [](JSON::Serialize& w) { w.AO().AC().V(1); }, "[]"},
        {"name in array", [](JSON::Serialize& w) { w.AO().N("a"); }, "["},
        {"second name", [](JSON::Serialize& w) { w.OO().N("a").N("b"); }, R"({"a":)"},
        {"null name", [](JSON::Serialize& w) { w.OO().N(nullptr); }, "{"},
        {"value where a name belongs", [](JSON::Serialize& w) { w.OO().V(1); }, "{"},
        {"value after a member", [](JSON::Serialize& w) { w.OO().N("a").V(1).V(2); }, R"({"a":1)"},
        {"object where a name belongs", [](JSON::Serialize& w) { w.OO().OO(); }, "{"},
        {"array where a name belongs", [](JSON::Serialize& w) { w.OO().N("a").V(1).AO(); },
         R"({"a":1)"},
        {"array closed as object", [](JSON::Serialize& w) { w.AO().V(1).OC(); }, "[1"},
        {"object closed as array", [](JSON::Serialize& w) { w.OO().AC(); }, "{"},
        {"negative length", [](JSON::Serialize& w) { w.AO().JS_N("1", -1); }, "["},
    };
    for (const WriteCase& c : cases) {
        JSON::Serialize w;
        c.calls(w);
        EXPECT_TRUE(w.m_error) << c.what;
        EXPECT_EQ(w.String(), c.expected) << c.what;

        const JSON::Serialize before = w;
        w.AO().OO().N("z").V("v").V(1).JS("2").JS_N("3", 1).OC().AC();
        w.AppendString("4");
        EXPECT_EQ(w.String(), c.expected) << c.what;
        EXPECT_TRUE(w.m_error) << c.what;
        EXPECT_EQ(std::make_tuple(w.m_firstStack, w.m_objectStack, w.m_depth, w.m_expectName),
                  std::make_tuple(before.m_firstStack, before.m_objectStack, before.m_depth,
                                  before.m_expectName))
            << c.what;
    }
}

TEST(WriterSerializeTest, NestsThirtyTwoLevelsAndRefusesTheNext) {
    JSON::Serialize w;
    for (int i = 0; i < 16; ++i) w.AO().OO().N("k");
    EXPECT_EQ(w.m_depth, 32u);
    w.V(true);
    for (int i = 0; i < 16; ++i) w.OC().AC();
    std::string expected;
    for (int i = 0; i < 16; ++i) expected += R"([{"k":)";
    expected += "1";
    for (int i = 0; i < 16; ++i) expected += "}]";
    EXPECT_EQ(w.String(), expected);
    EXPECT_FALSE(w.m_error);

    JSON::Serialize deep;
    for (int i = 0; i < 32; ++i) deep.AO();
    deep.OO();
    EXPECT_TRUE(deep.m_error);
    EXPECT_EQ(deep.String(), std::string(32, '['));
    EXPECT_EQ(deep.m_depth, 32u);
}

}  // namespace
