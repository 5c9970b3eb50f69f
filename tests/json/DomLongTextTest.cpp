// Texts long and wide enough to reach the reader's word-at-a-time string scan, its scratch
// stack of open containers, and the writers' block-wise output: every run length and escape
// position around the 8- and 16-byte steps, output past several blocks, documents with tens of
// thousands of values, and strings cut off at the very end of a buffer.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "json/JSONEscape.h"
#include "json/JSONMessage.h"
#include "json/JSONPrettyPrint.h"

namespace {

std::string Text(const JSON::JSONValue& v) {
    std::string out;
    v.Serialize(out);
    return out;
}

// A string as it is held and as it is written between quotes.
struct Sample {
    std::string raw;
    std::string escaped;
};

// Every length up to 40 with no special byte, or one of several at the start, the middle or
// the end; then runs long enough to bypass the output blocks.
std::vector<Sample> Samples() {
    const Sample specials[] = {{"\"", "\\\""},      {"\\", "\\\\"},      {"\n", "\\n"},
                               {"\x01", "\\u0001"}, {"\x1f", "\\u001f"}, {"\xC3\xA9", "\xC3\xA9"}};
    std::vector<Sample> samples;
    for (size_t length = 0; length <= 40; ++length) {
        const std::string plain(length, 'a');
        samples.push_back({plain, plain});
        if (length == 0) continue;
        for (size_t at : {size_t{0}, length / 2, length - 1}) {
            for (const Sample& s : specials) {
                const std::string head = plain.substr(0, at);
                const std::string tail = plain.substr(at + 1);
                samples.push_back({head + s.raw + tail, head + s.escaped + tail});
            }
        }
    }
    const std::string longRun(20000, 'y');
    samples.push_back({longRun + "\"" + longRun, longRun + "\\\"" + longRun});
    samples.push_back({std::string(5000, 'x'), std::string(5000, 'x')});
    return samples;
}

std::string ArrayOf(const std::vector<Sample>& samples) {
    std::string doc = "[";
    for (const Sample& s : samples) doc += (doc.size() > 1 ? ",\"" : "\"") + s.escaped + "\"";
    return doc + "]";
}

TEST(DomLongTextTest, StringsOfEveryLengthReadBackAndWriteBackExactly) {
    const std::vector<Sample> samples = Samples();
    const std::string doc = ArrayOf(samples);
    std::string buffer = doc;
    JSON::Message inPlace(true);
    ASSERT_TRUE(inPlace.Parse(&buffer[0], static_cast<int>(buffer.size())));
    ASSERT_EQ(static_cast<int>(samples.size()), inPlace.Size());
    for (size_t i = 0; i < samples.size(); ++i) {
        const JSON::JSONValue& v = inPlace[static_cast<int>(i)];
        ASSERT_EQ(samples[i].raw, std::string(v.m_pText, static_cast<size_t>(v.m_nLength))) << i;
        std::string escaped;
        JSON::EscapeString(escaped, samples[i].raw.c_str());
        ASSERT_EQ(samples[i].escaped, escaped) << i;
    }
    EXPECT_EQ(doc, Text(inPlace));

    // Names go through the same scan and escaping; the serializer appends to what out holds.
    std::string object = "{";
    for (size_t i = 0; i < samples.size(); ++i) {
        object += (i != 0 ? ",\"" : "\"") + samples[i].escaped + "\":" + std::to_string(i);
    }
    object += "}";
    JSON::Message m;
    ASSERT_TRUE(m.Parse(object.c_str()));
    std::string out = "prefix";
    EXPECT_TRUE(m.Serialize(out));
    EXPECT_EQ("prefix" + object, out);
}

TEST(DomLongTextTest, LongNumbersAndLayoutSurviveBlockEnds) {
    std::string doc = "[";
    for (int i = 0; i < 2000; ++i) {
        doc += i % 2 == 0 ? "-123456789012345678901234567890," : "1.2345678901234567890e+300,";
    }
    doc += "[[[[[[[[[[[[[[[[[[[[0]]]]]]]]]]]]]]]]]]]]]";
    JSON::Message m;
    ASSERT_TRUE(m.Parse(doc.c_str()));
    EXPECT_EQ(doc, Text(m));

    // Twenty levels: the deeper line breaks take more tabs than one short copy holds.
    std::string expected;
    for (size_t depth = 0; depth < 20; ++depth) {
        expected += "\n" + std::string(depth, '\t') + "[\n" + std::string(depth + 1, '\t');
    }
    expected += "0";
    for (int depth = 19; depth >= 0; --depth) {
        expected += "\n" + std::string(static_cast<size_t>(depth), '\t') + "]";
    }
    std::string pretty;
    JSON_PrettyPrint("[[[[[[[[[[[[[[[[[[[[0]]]]]]]]]]]]]]]]]]]]", pretty);
    EXPECT_EQ(expected, pretty);

    const std::string run(30000, 'r');
    JSON_PrettyPrint(("[\"" + run + "\",1]").c_str(), pretty);
    EXPECT_EQ("\n[\n\t\"" + run + "\",1\n]", pretty);
}

TEST(DomLongTextTest, StringCutOffAtTheBufferEndFailsWithinTheBuffer) {
    // Exactly sized heap buffers, so that a read past the end is a fault under the sanitizer.
    for (size_t length = 0; length <= 24; ++length) {
        for (const char* ending : {"", "\\", "\\u12", "b\\\""}) {
            const std::string text = "[\"" + std::string(length, 'a') + ending;
            SCOPED_TRACE(text);
            std::unique_ptr<char[]> buffer(new char[text.size()]);
            std::copy(text.begin(), text.end(), buffer.get());
            JSON::Message m(true);
            EXPECT_FALSE(m.Parse(buffer.get(), static_cast<int>(text.size())));
            EXPECT_EQ("[null]", Text(m));
        }
    }
}

TEST(DomLongTextTest, WideDocumentsAndTheirFailuresKeepEveryValue) {
    std::string array = "[";
    std::string object = "{";
    for (int i = 0; i < 100000; ++i) {
        array += std::to_string(i) + ",";
        if (i < 30000) object += "\"k" + std::to_string(i) + "\":[" + std::to_string(i) + "],";
    }
    const std::string good = array.substr(0, array.size() - 1) + "]";
    object.back() = '}';
    JSON::Message m;
    for (int round = 0; round < 2; ++round) {  // the second parse reuses what the first grew
        ASSERT_TRUE(m.Parse(good.c_str()));
        EXPECT_EQ(100000, m.Size());
        EXPECT_EQ(good, Text(m));
        ASSERT_TRUE(m.Parse(object.c_str()));
        EXPECT_EQ(30000, m.Size());
        EXPECT_EQ(29999, m.Path("k29999.0").AsInt());
        EXPECT_EQ(object, Text(m));
    }
    EXPECT_FALSE(m.Parse((array + "@]").c_str()));
    EXPECT_EQ(100000, m.Size());
    EXPECT_EQ(JSON::TypeInvalid, m.m_pComposite->m_type);
    // A nested failure: every open container keeps what it had, the failing one included.
    EXPECT_FALSE(m.Parse(R"({"a":[1,{"b":[2,3,{"c":@}]}]})"));
    EXPECT_EQ(R"({"a":[1,{"b":[2,3,{}]}]})", Text(m));
}

TEST(DomLongTextTest, ValueReadIntoAParentGoesAfterItsValues) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse("[1,2]"));
    char text[] = R"({"x":[3,"four"]} tail)";
    JSON::ParseContext ctx;
    ctx.pBegin = ctx.pCur = text;
    ctx.pEnd = text + sizeof text - 1;
    EXPECT_EQ(JSON::TypeObject, JSON::Parser::ParseJSONValue(ctx, *m.m_pComposite));
    EXPECT_EQ(R"([1,2,{"x":[3,"four"]}])", Text(m));
    EXPECT_EQ(' ', *ctx.pCur);
    char bad[] = "[5,@]";
    ctx.pBegin = ctx.pCur = bad;
    ctx.pEnd = bad + sizeof bad - 1;
    EXPECT_EQ(JSON::TypeInvalid, JSON::Parser::ParseJSONValue(ctx, *m.m_pComposite));
    EXPECT_EQ(R"([1,2,{"x":[3,"four"]},[5]])", Text(m));
}

// A container type of an application's own, placed in a tree: it writes itself.
class TaggedArray : public JSON::ArrayValue {
public:
    bool Serialize(std::string& out) const override {
        out += "<tag>";
        return JSON::ArrayValue::Serialize(out);
    }
};

TEST(DomLongTextTest, ForeignContainerInATreeWritesItselfInPlace) {
    JSON::Message m;
    ASSERT_TRUE(
        m.Parse((R"({"before":")" + std::string(9000, 'b') + R"(","own":0,"after":1})").c_str()));
    JSON::JSONValue& own = m["own"];
    own.m_pComposite = new TaggedArray;
    own.m_type = JSON::TypeArray;
    own.Set(0, 7);
    const std::string text = Text(m);
    EXPECT_EQ(R"(","own":<tag>[7],"after":1})", text.substr(9011));
}

// Containers of an application's own types that watch what is added to them.
class CountingArray : public JSON::ArrayValue {
public:
    void AddValue(JSON::JSONValue& v) override {
        ++m_nAdded;
        JSON::ArrayValue::AddValue(v);
    }
    int m_nAdded = 0;
};

class CountingObject : public JSON::ObjectValue {
public:
    void AddName(JSON::JSONValue& v) override {
        m_strNames += std::string(v.m_pText, static_cast<size_t>(v.m_nLength)) + ";";
        JSON::ObjectValue::AddName(v);
    }
    std::string m_strNames;
};

TEST(DomLongTextTest, ContainersOfDerivedTypesGetValuesThroughTheirOwnAdd) {
    char arrayText[] = R"([1,[2,3],{"x":4}])";
    JSON::ParseContext ctx;
    ctx.pBegin = ctx.pCur = arrayText;
    ctx.pEnd = arrayText + sizeof arrayText - 1;
    CountingArray array;
    EXPECT_EQ(JSON::TypeArray, JSON::Parser::ParseArray(ctx, array));
    EXPECT_EQ(3, array.m_nAdded);
    std::string out;
    EXPECT_TRUE(array.Serialize(out));
    EXPECT_EQ(R"([1,[2,3],{"x":4}])", out);

    char objectText[] = R"({"b":1,"a":[2],"c":@})";
    ctx.pBegin = ctx.pCur = objectText;
    ctx.pEnd = objectText + sizeof objectText - 1;
    CountingObject object;
    EXPECT_EQ(JSON::TypeInvalid, JSON::Parser::ParseObject(ctx, object));
    EXPECT_EQ("b;a;c;", object.m_strNames);
    EXPECT_EQ(2, object.Size());
    EXPECT_EQ(2, object.GetByName("a")->GetByOrdinal(0)->AsInt());
}

}  // namespace
