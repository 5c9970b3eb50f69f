// The reader's outcomes and leniencies, checked on the trees it leaves and on their compact text.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/JSONMessage.h"

namespace {

std::string Text(const JSON::JSONValue& v) {
    std::string out;
    v.Serialize(out);
    return out;
}

struct Outcome {
    const char* text;
    bool ok;
    const char* tree;  // compact text of what was read
};

TEST(DomParserTest, OutcomeTable) {
    const std::vector<Outcome> cases = {
        {R"({"a":1,"b":[true,null,"x"]})", true, R"({"a":1,"b":[true,null,"x"]})"},
        {"[1,,2]", true, "[1,null,2]"},
        {"[,]", true, "[null,null]"},
        {"[1,]", true, "[1,null]"},
        {"[]", true, "[]"},
        {"{}", true, "{}"},
        {"[ ", true, "[]"},  // cut off after the bracket and white space
        {"{ \t", true, "{}"},
        {"[", false, "[]"},  // cut off right after the bracket
        {"{", false, "{}"},
        {"[1,", true, "[1]"},                 // cut off right after a comma
        {R"({"a":1, )", true, R"({"a":1})"},  // after a comma and white space in an object
        {"[1, ", false, "[1]"},               // after a comma and white space in an array
        {"[[1,", false, "[[1]]"},             // only the innermost array is completed
        {"[1] trailing {", true, "[1]"},
        {R"({"a":1,})", false, R"({"a":1})"},       // trailing comma: '}' read as a quote
        {R"({x":1})", true, R"({"":1})"},           // any byte opens a name
        {R"({"a" 1})", false, R"({})"},             // missing ':'
        {R"({"a":1 "b":2})", false, R"({"a":1})"},  // missing ','
        {"[1 2]", false, "[1]"},
        {"[truex]", false, "[true]"},      // keyword taken, the container fails on x
        {"[nul]", false, "[null]"},        // failed value written as null
        {"[\"abc", false, "[null]"},       // unterminated string
        {"[\"ab\\", false, "[null]"},      // escape cut off
        {"[\"\\u12\"]", false, "[null]"},  // \u without room for four digits
        {"[@]", false, "[]"},              // no value starts with @
        {"[+-1e.E]", true, "[+-1e.E]"},    // number form is not checked
        {"  {\"k\":\"v\"}", true, R"({"k":"v"})"},
    };
    for (const Outcome& c : cases) {
        SCOPED_TRACE(c.text);
        JSON::Message copied;
        EXPECT_EQ(c.ok, copied.Parse(c.text));
        EXPECT_EQ(c.tree, Text(copied));

        std::string buffer(c.text);
        JSON::Message inPlace(true);
        EXPECT_EQ(c.ok, inPlace.Parse(&buffer[0]));
        EXPECT_EQ(c.tree, Text(inPlace));
    }
}

TEST(DomParserTest, RefusesScalarOrEmptyRootAndClearsTheTree) {
    for (const char* text : {"", "   ", "1", "\"a\"", "true", "x[1]"}) {
        SCOPED_TRACE(text);
        JSON::Message m;
        ASSERT_TRUE(m.Parse("[1,2]"));
        EXPECT_FALSE(m.Parse(text));
        EXPECT_EQ(0, m.Size());
    }
    JSON::Message m;
    ASSERT_TRUE(m.Parse("[1,2]"));
    EXPECT_FALSE(m.Parse(nullptr));
    EXPECT_FALSE(m.Parse("[3]", 0));
    EXPECT_EQ("[1,2]", Text(m));  // null text and length 0 leave the message as it was
}

TEST(DomParserTest, FailedParseKeepsWhatWasReadAndTheCursor) {
    JSON::Message m;
    const char* text = R"({"a":[1,"x"],"b":@})";
    EXPECT_FALSE(m.Parse(text));
    EXPECT_EQ(JSON::TypeInvalid, m.m_pComposite->m_type);
    EXPECT_EQ(JSON::TypeArray, m["a"].m_type);
    EXPECT_EQ(1, m.Size());
    EXPECT_EQ('@', *m.m_context.pCur);
}

TEST(DomParserTest, ExplicitLengthStopsTheText) {
    JSON::Message m;
    EXPECT_TRUE(m.Parse("[1,2]garbage", 5));
    EXPECT_EQ("[1,2]", Text(m));
    EXPECT_FALSE(m.Parse("[1,2]", 4));      // the 2 touches the end and is not taken
    EXPECT_TRUE(m.Parse("[1,2]\0[3]", 9));  // a NUL ends the text
    EXPECT_EQ("[1,2]", Text(m));
}

TEST(DomParserTest, ScalarsKeepTheirTextAndType) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"([1.5e3,-12,true,false,null,"s"])"));
    const JSON::Type types[] = {JSON::TypeReal,    JSON::TypeInteger, JSON::TypeBoolean,
                                JSON::TypeBoolean, JSON::TypeNull,    JSON::TypeString};
    const int lengths[] = {5, 3, 4, 5, 4, 1};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(types[i], m[i].m_type) << i;
        EXPECT_EQ(lengths[i], m[i].m_nLength) << i;
        EXPECT_FALSE(m[i].m_bOwned);
    }
    EXPECT_EQ(1500, m[0].AsInt());
    EXPECT_EQ(-12, m[1].AsInt());
}

TEST(DomParserTest, UnescapesStringsInPlace) {
    struct Case {
        const char* text;
        std::string value;
    };
    const std::vector<Case> cases = {
        {R"(["\u00e9"])", "\xC3\xA9"},
        {R"(["\u20AC"])", "\xE2\x82\xAC"},
        {R"(["\u0041"])", "A"},
        {R"(["\ud83d\ude00"])", "\xED\xA0\xBD\xED\xB8\x80"},  // surrogates encoded one by one
        {R"(["\b\f\n\r\t\"\\\/\q"])", "\b\f\n\r\t\"\\/q"},
        {"[\"raw\ttab\"]", "raw\ttab"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::string buffer(c.text);
        JSON::Message m(true);
        ASSERT_TRUE(m.Parse(&buffer[0]));
        EXPECT_EQ(c.value, std::string(m[0].m_pText, m[0].m_nLength));
        EXPECT_EQ('\0', m[0].m_pText[m[0].m_nLength]);
        // In place means in the caller's buffer.
        EXPECT_GE(m[0].m_pText, &buffer[0]);
        EXPECT_LT(m[0].m_pText, &buffer[0] + buffer.size());
    }
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"(["a\u0000b"])"));
    EXPECT_EQ(3, m[0].m_nLength);  // an escaped NUL is counted
    EXPECT_STREQ("a", m[0].m_pText);
}

TEST(DomParserTest, ReparseReusesOrReplacesTheRoot) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"a":{"b":[1]}})"));
    JSON::CompositeValue* root = m.m_pComposite;
    ASSERT_TRUE(m.Parse(R"({"c":2})"));
    EXPECT_EQ(root, m.m_pComposite);
    EXPECT_EQ(R"({"c":2})", Text(m));
    ASSERT_TRUE(m.Parse("[3]"));
    EXPECT_EQ(JSON::TypeArray, m.m_type);
    EXPECT_EQ("[3]", Text(m));
}

// A root that was looked up (its names sorted) and then reused by a parse that fails must
// answer lookups, updates and serialization as a fresh message given the same text does.
TEST(DomParserTest, FailedParseIntoASortedRootActsAsIntoAFreshOne) {
    for (const char* text : {R"({"b":1,"a":2,"c":3,"d":)", R"({"b":1,"a":2,"c":tru})"}) {
        SCOPED_TRACE(text);
        JSON::Message fresh;
        JSON::Message reused;
        ASSERT_TRUE(reused.Parse(R"({"x":1})"));
        ASSERT_EQ(1, reused["x"].AsInt());
        EXPECT_FALSE(fresh.Parse(text));
        EXPECT_FALSE(reused.Parse(text));
        EXPECT_EQ(2, reused["a"].AsInt());
        EXPECT_EQ(Text(fresh), Text(reused));
        fresh.Set("a", 9);
        reused.Set("a", 9);
        EXPECT_EQ(Text(fresh), Text(reused));
    }
}

TEST(DomParserTest, NestingBeyondTheBoundFailsWithoutCrashing) {
    const int limit = JSON::Parser::MAX_DEPTH;
    const std::string ok = std::string(limit, '[') + std::string(limit, ']');
    JSON::Message m;
    EXPECT_TRUE(m.Parse(ok.c_str()));
    EXPECT_EQ(ok, Text(m));
    const std::string deep = std::string(limit + 1, '[') + std::string(limit + 1, ']');
    EXPECT_FALSE(m.Parse(deep.c_str()));
    std::string hostile;
    for (int i = 0; i < 200000; ++i) hostile += "{\"a\":[";
    EXPECT_FALSE(m.Parse(hostile.c_str()));
}

TEST(DomParserTest, CompactDocumentsRoundTrip) {
    const char* docs[] = {
        R"({"a":1,"b":[true,null,"x"]})",
        R"([[],{},[[]],{"":{}}])",
        R"({"s":"q\"b\\c\u0001\n","n":-0.5e-3,"i":+1,"d":[1,1,1]})",
        R"({"dup":1,"dup":2,"b":"\u00e9"})",
        R"(["/path/x",12345678901234567890])",
    };
    const char* expected[] = {
        R"({"a":1,"b":[true,null,"x"]})",
        R"([[],{},[[]],{"":{}}])",
        R"({"s":"q\"b\\c\u0001\n","n":-0.5e-3,"i":+1,"d":[1,1,1]})",
        "{\"dup\":1,\"dup\":2,\"b\":\"\xC3\xA9\"}",
        R"(["/path/x",12345678901234567890])",
    };
    for (size_t i = 0; i < sizeof docs / sizeof docs[0]; ++i) {
        SCOPED_TRACE(docs[i]);
        JSON::Message m;
        ASSERT_TRUE(m.Parse(docs[i]));
        const std::string once = Text(m);
        EXPECT_EQ(expected[i], once);
        JSON::Message again;
        ASSERT_TRUE(again.Parse(once.c_str()));
        EXPECT_EQ(once, Text(again));
    }
    JSON::Message spaced;
    ASSERT_TRUE(spaced.Parse(R"({ "a" : 1 , "b" : [ true , null , "x" ] })"));
    EXPECT_EQ(R"({"a":1,"b":[true,null,"x"]})", Text(spaced));
}

}  // namespace
