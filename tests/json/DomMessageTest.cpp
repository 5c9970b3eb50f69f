// Messages: dotted paths, deep copies that own their text, and the C interface driven from C.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "json/JSONMessage.h"

extern "C" {
int DomCExerciseWorkedExample(void);
int DomCExerciseConversions(void);
int DomCExerciseFreshMessage(void);
}

namespace {

std::string Text(const JSON::JSONValue& v) {
    std::string out;
    v.Serialize(out);
    return out;
}

bool Inside(const char* p, const std::string& buffer) {
    return p >= buffer.data() && p < buffer.data() + buffer.size();
}

TEST(DomMessageTest, PathsFollowNamesAndOrdinals) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"a":1,"b":[true,null,"x"],"":{"":5},"e":{"":{"b":7}},".k":8})"));
    const JSON::JSONValue& none = JSON::JSONValue::None();
    EXPECT_EQ(1, m.Path("a").AsInt());
    EXPECT_STREQ("x", m.Path("b.2").m_pText);
    EXPECT_EQ(JSON::TypeArray, m.Path("b").m_type);
    EXPECT_EQ(JSON::TypeNull, m.Path("b.1").m_type);
    EXPECT_EQ(JSON::TypeBoolean, m.Path("b.").m_type);    // empty segment: element 0
    EXPECT_EQ(JSON::TypeBoolean, m.Path("b.0x").m_type);  // strtol stops at the x
    EXPECT_EQ(7, m.Path("e..b").AsInt());                 // the empty name inside e
    EXPECT_EQ(8, m.Path(".k").AsInt());                   // a leading dot stays in the name
    for (const char* miss : {"b.5", "c", "b.2.z", "a.x", "", "b.-1", "e..c"}) {
        SCOPED_TRACE(miss);
        EXPECT_EQ(&none, &m.Path(miss));
    }
    EXPECT_EQ(&none, &m.Path(nullptr));
    JSON::Message fresh;
    EXPECT_EQ(&none, &fresh.Path("a"));
}

TEST(DomMessageTest, CopiesOwnTheirTextAndTree) {
    std::string buffer = R"({"a":"one","b":[1,{"c":"two"}]})";
    JSON::Message inPlace(true);
    ASSERT_TRUE(inPlace.Parse(&buffer[0]));
    inPlace["b"][1].Set("d", "owned");
    inPlace.Set("e", 3);

    JSON::Message* source = new JSON::Message(inPlace);
    JSON::Message copy(*source);
    EXPECT_TRUE(copy.m_bInPlace);
    EXPECT_TRUE(Inside(copy["a"].m_pText, copy.m_strText));
    EXPECT_TRUE(Inside(copy.Path("b.1.c").m_pText, copy.m_strText));
    EXPECT_FALSE(Inside(copy.Path("b.1.d").m_pText, copy.m_strText));
    EXPECT_NE(source->Path("b.1.d").m_pText, copy.Path("b.1.d").m_pText);

    const std::string expected = R"({"a":"one","b":[1,{"c":"two","d":"owned"}],"e":3})";
    delete source;
    buffer.assign(buffer.size(), 'X');  // the in-place source's text is gone too
    inPlace.m_bInPlace = false;
    ASSERT_TRUE(inPlace.Parse("[9]"));
    EXPECT_EQ(expected, Text(copy));
    EXPECT_EQ("two", std::string(copy.Path("b.1.c").m_pText));

    JSON::Message assigned;
    ASSERT_TRUE(assigned.Parse(R"({"old":[1,2,3]})"));
    assigned = copy;
    EXPECT_EQ(expected, Text(assigned));
    const JSON::Message& self = assigned;
    assigned = self;
    EXPECT_EQ(expected, Text(assigned));
    assigned.Set("e", 4);  // copies are independent of each other
    EXPECT_EQ(3, copy["e"].AsInt());
}

TEST(DomMessageTest, CopyOfAnUnparsedMessageHasNoTree) {
    JSON::Message empty;
    JSON::Message copy(empty);
    EXPECT_EQ(nullptr, copy.m_pComposite);
    EXPECT_EQ(0, copy.Size());
    EXPECT_EQ("null", Text(copy));
    EXPECT_EQ(Text(empty), Text(copy));
}

TEST(DomMessageTest, CopyOfAFailedParseIsSafe) {
    JSON::Message m;
    EXPECT_FALSE(m.Parse(R"({"a":[1,"x"],"b":"unterminated)"));
    JSON::Message copy(m);
    EXPECT_EQ(Text(m), Text(copy));
    EXPECT_EQ(R"({"a":[1,"x"],"b":null})", Text(copy));
}

TEST(DomMessageTest, CInterfaceFromC) {
    EXPECT_EQ(0, DomCExerciseWorkedExample());
    EXPECT_EQ(0, DomCExerciseConversions());
    EXPECT_EQ(0, DomCExerciseFreshMessage());
}

}  // namespace
