// The reader: every kind of text, copied and in place, the end of a buffer, the depth bound.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/JSONMessage.h"
#include "tests/json/TreeText.h"

namespace {

// Copied, in place, and into a root a lookup had sorted; `expected` is "!tree" on failure.
void ExpectRead(const std::string& text, int length, const std::string& expected) {
    SCOPED_TRACE(text);
    const bool ok = expected[0] != '!';
    const std::string tree = expected.substr(ok ? 0 : 1);
    JSON::Message copied, inPlace(true), reused;
    EXPECT_EQ(ok, copied.Parse(text.c_str(), length));
    EXPECT_EQ(tree, Text(copied));
    std::string buffer = text;
    EXPECT_EQ(ok, inPlace.Parse(&buffer[0], length));
    EXPECT_EQ(tree, Text(inPlace));
    ASSERT_TRUE(reused.Parse(R"({"a":1,"x":2})"));
    ASSERT_EQ(2, reused["x"].AsInt());
    EXPECT_EQ(ok, reused.Parse(text.c_str(), length));
    copied.Set("a", 9);
    reused.Set("a", 9);
    EXPECT_EQ(Text(copied), Text(reused));
}

TEST(DomParserTest, OutcomeTable) {
    const std::string indent(9, ' ');
    ExpectRead(" \t\n\r\f[\n" + indent + "1,\n" + indent + indent + "2 \t\r\f\n" + indent + "]", -1,
               "[1,2]");
    ExpectRead("[\n" + indent, -1, "[]");  // cut off after the bracket and white space
    const char* const cases[][2] = {
        {R"({ "a" : 1 , "b" : [ true , null , "x" ] })", R"({"a":1,"b":[true,null,"x"]})"},
        {"[\v1]", "![]"},  // a vertical tab is not white space
        {"[1,,2]", "[1,null,2]"},
        {"[,]", "[null,null]"},
        {"{ \t", "{}"},
        {"[", "![]"},  // cut off right after the bracket
        {"{", "!{}"},
        {"[1,", "[1]"},                 // cut off right after a comma
        {R"({"a":1, )", R"({"a":1})"},  // after a comma and white space in an object
        {"[1, ", "![1]"},               // after a comma and white space in an array
        {"[[1,", "![[1]]"},             // only the innermost array is completed
        {"[{}] trailing {", "[{}]"},
        {R"({"a":1,})", R"(!{"a":1})"},  // trailing comma: '}' read as a quote
        {R"({x":1})", R"({"":1})"},      // any byte opens a name
        {R"({"a\"b":1,"a":2,"a":3})", R"({"a\"b":1,"a":2,"a":3})"},
        {R"({"b":1,"a" 2})", R"(!{"b":1})"},
        {R"({"b":1,"a":2 "c":3})", R"(!{"b":1,"a":2})"},
        {R"({"b":1,"a":2,"c":tru})", R"(!{"b":1,"a":2,"c":null})"},
        {"[1 2]", "![1]"},
        {"[truex]", "![true]"},  // keyword taken, the container fails on x
        {"[\"abc", "![null]"},
        {"[\"\\u12\"]", "![null]"},  // \u without room for four digits and a quote
        {"[\"raw\ttab\"]", R"(["raw\ttab"])"},
        // Escapes are unescaped, and written back escaped only where needed.
        {R"(["\u0041\u007f\u0080\u00e9\u07FF"])", "[\"A\x7F\xC2\x80\xC3\xA9\xDF\xBF\"]"},
        {R"(["\u0800\u20AC\uffff"])", "[\"\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF\"]"},
        {R"(["\ud83d\ude00"])", "[\"\xED\xA0\xBD\xED\xB8\x80\"]"},  // surrogates one by one
        {R"(["\u12G4x"])", R"(["\u0012x"])"},                       // the hex digits end at the G
        {R"(["\b\f\n\r\t\"\\\/\q"])", R"(["\b\f\n\r\t\"\\/q"])"},
        {R"(["a\u0000b"])", R"(["a"])"},  // the NUL ends the text as C reads it
        {"[false,@]", "![false]"},
        {"[+-1e.E]", "[+-1e.E]"},  // the form of a number is not checked
        {R"({"a":[1,{"b":[2,3,{"c":@}]}]})", R"(!{"a":[1,{"b":[2,3,{}]}]})"},
        {"", "!null"},  // the root must be an object or an array
        {" 1", "!null"},
    };
    for (const auto& c : cases) ExpectRead(c[0], -1, c[1]);
    // Only `length` bytes are read, though the bytes after them would change the outcome.
    ExpectRead("[1,2]garbage", 5, "[1,2]");
    ExpectRead("[1,2]", 4, "![1,2]");  // the 2 touches the end and is not taken
    ExpectRead(std::string("[1,2]\0[3]", 9), 9, "[1,2]");
    ExpectRead(R"(["ab"])", 4, "![null]");
    ExpectRead(R"({"ab":1})", 4, "!{}");
    ExpectRead("[null]", 4, "![null]");
    ExpectRead("[true]", 4, "![null]");
    JSON::Message m;  // no text at all leaves the message as it was
    ASSERT_TRUE(m.Parse("[3]"));
    EXPECT_FALSE(m.Parse(nullptr));
    EXPECT_FALSE(m.Parse("[4]", 0));
    EXPECT_EQ("[3]", Text(m));
}

// Lengths around the reader's 8- and 16-byte steps, with an escape at the start, middle or end.
TEST(DomParserTest, StringsOfEveryLengthReadWriteAndCutOffExactly) {
    const std::pair<std::string, std::string> specials[] = {
        {"", ""},      {"\"", "\\\""},      {"\\", "\\\\"},
        {"\n", "\\n"}, {"\x1f", "\\u001f"}, {"\xC3\xA9", "\xC3\xA9"}};
    for (size_t length = 0; length <= 40; ++length) {
        for (const auto& s : specials) {
            for (size_t at : {size_t{0}, length / 2, length}) {
                const std::string head(at, 'a'), tail(length - at, 'b');
                const std::string raw = head + s.first + tail, escaped = head + s.second + tail;
                const std::string text = "[\"" + escaped + "\"]";
                for (size_t cut = 2; cut <= text.size(); ++cut) {
                    std::string buffer = text;
                    JSON::Message m(true);
                    ASSERT_EQ(cut == text.size(), m.Parse(&buffer[0], static_cast<int>(cut)));
                    if (cut + 1 < text.size()) {
                        ASSERT_EQ("[null]", Text(m)) << cut << " of " << text;
                        continue;
                    }
                    ASSERT_EQ(raw, std::string(m[0].m_pText, static_cast<size_t>(m[0].m_nLength)));
                    ASSERT_EQ(text, Text(m));
                }
            }
        }
    }
}

TEST(DomParserTest, NestingDeeperThan512LevelsFails) {
    std::string ok = "0";
    for (int i = 0; i < 256; ++i) ok = "[{\"\":" + ok + "}]";
    JSON::Message m;
    EXPECT_TRUE(m.Parse(ok.c_str()));
    EXPECT_EQ(ok, Text(m));
    EXPECT_FALSE(m.Parse(("[" + ok + "]").c_str()));
    EXPECT_FALSE(m.Parse(("{\"\":" + ok + "}").c_str()));
    std::string hostile;
    for (int i = 0; i < 200000; ++i) hostile += "{\"a\":[";
    EXPECT_FALSE(m.Parse(hostile.c_str()));
}

TEST(DomParserTest, WideDocumentsKeepEveryValue) {
    const std::string run(20000, 'y');
    std::string array = "[\"" + run + "\\\"" + run + "\",", object = "{";
    for (int i = 0; i < 100000; ++i) {
        array += std::to_string(i) + ",";
        if (i < 30000) object += "\"k" + std::to_string(i) + "\":[" + std::to_string(i) + "],";
    }
    object.back() = '}';
    const std::string failing = array + "@]";
    array.back() = ']';
    JSON::Message m;
    for (int round = 0; round < 2; ++round) {  // the second round reuses what the first grew
        ASSERT_TRUE(m.Parse(array.c_str()));
        EXPECT_EQ(array, Text(m));
        ASSERT_TRUE(m.Parse(object.c_str()));
        EXPECT_EQ(29999, m.Path("k29999.0").AsInt());
        EXPECT_EQ(object, Text(m));
    }
    EXPECT_FALSE(m.Parse(failing.c_str()));
    EXPECT_EQ(100001, m.Size());
    EXPECT_EQ(99999, m[100000].AsInt());
}

// An application's own container types: read through their own Add, written by their Serialize.
std::string g_added;

class TaggedArray : public JSON::ArrayValue {
    void AddValue(JSON::JSONValue& v) override {
        g_added += "v;";
        JSON::ArrayValue::AddValue(v);
    }
    bool Serialize(std::string& out) const override {
        return JSON::ArrayValue::Serialize(out += "<a>");
    }
};

class TaggedObject : public JSON::ObjectValue {
    void AddName(JSON::JSONValue& v) override {
        g_added += std::string(v.m_pText, static_cast<size_t>(v.m_nLength)) + ";";
        JSON::ObjectValue::AddName(v);
    }
    bool Serialize(std::string& out) const override {
        return JSON::ObjectValue::Serialize(out += "<o>");
    }
};

TEST(DomParserTest, DerivedContainersGetWhatIsReadThroughTheirOwnAddAndWriteThemselves) {
    char text[] = R"([1,[2]] {"b":1,"a":[2],"c":@} [5,@])";
    JSON::ParseContext ctx;
    ctx.pBegin = ctx.pCur = text;
    ctx.pEnd = text + sizeof text - 1;
    auto* array = new TaggedArray;
    auto* object = new TaggedObject;
    JSON::Message m;  // a tree of its own, after a text longer than one output block
    ASSERT_TRUE(m.Parse(("[\"" + std::string(9000, 'b') + "\",0,0]").c_str()));
    m[1].m_pComposite = array;
    m[2].m_pComposite = object;
    EXPECT_EQ(JSON::TypeArray, JSON::Parser::ParseArray(ctx, *array));
    ctx.pCur += 1;
    EXPECT_EQ(JSON::TypeInvalid, JSON::Parser::ParseObject(ctx, *object));
    EXPECT_EQ("v;v;b;a;c;", g_added);
    EXPECT_EQ(R"(",<a>[1,[2]],<o>{"b":1,"a":[2]}])", Text(m).substr(9002));
    // A value read into a parent goes after what it holds, also when it fails.
    ctx.pCur += 2;
    EXPECT_EQ(JSON::TypeInvalid, JSON::Parser::ParseJSONValue(ctx, *array));
    EXPECT_EQ('@', *ctx.pCur);
    EXPECT_EQ("v;v;b;a;c;v;", g_added);
    EXPECT_EQ("<a>[1,[2],[5]]", Text(*m[1].m_pComposite));
}

}  // namespace
