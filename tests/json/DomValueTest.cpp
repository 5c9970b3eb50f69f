// The value model and messages: misses, conversions, lookups, indexes, updates and copies.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "json/JSONMessage.h"
#include "json/JSON_C.h"
#include "tests/json/TreeText.h"

extern "C" int DomCExercise(void);

namespace {

TEST(DomValueTest, PathsLookupsAndConversions) {
    JSON::Message m;
    ASSERT_TRUE(
        m.Parse(R"({"a":1,"b":[true,null,"x",2.9,-2.9,"12",5e-1,1e300,-1e300,)"
                R"(99999999999,-99999999999,+12,false,[7]],"":{"":5},"e":{"":{"b":7}},".k":8})"));
    // Strings are not read as numbers; strtol saturates at the range of long.
    const double longMax = sizeof(long) == 4 ? 2147483647.0 : 99999999999.0;
    const double longMin = sizeof(long) == 4 ? -2147483648.0 : -99999999999.0;
    const int ints[] = {1, 0, 0, 2, -2, 0, 0, INT_MAX, INT_MIN, INT_MAX, INT_MIN, 12, 0, 0};
    const double doubles[] = {1,     0,      0,       2.9,     -2.9, 0, 0.5,
                              1e300, -1e300, longMax, longMin, 12,   0, 0};
    for (int i = 0; i < 14; ++i) {
        EXPECT_EQ(ints[i], m["b"][i].AsInt()) << i;
        EXPECT_EQ(doubles[i], m["b"][i].AsDouble()) << i;
    }
    // A segment without digits is element 0 of an array; a leading dot stays in the first name.
    const char* const paths[][2] = {
        {"a", "1"},        {"b.2", "\"x\""},  {"b.13", "[7]"}, {"b.", "true"},
        {"b.abc", "true"}, {"b. 1x", "null"}, {"e..b", "7"},   {"e.", "{\"b\":7}"},
        {".k", "8"},       {"b.14", ""},      {"b.-1", ""},    {"b.4294967297", ""},
        {"c", ""},         {"ab", ""},        {"b.2.z", ""},   {"a.x", ""},
        {"e..c", ""},      {"..", ""},        {"", ""},
    };
    for (const auto& p : paths) {
        const JSON::JSONValue& v = m.Path(p[0]);
        EXPECT_EQ(p[1], Text(v)) << p[0];
        EXPECT_EQ(*p[1] == '\0', &v == &JSON::JSONValue::None()) << p[0];
    }
    EXPECT_EQ(&JSON::JSONValue::None(), &m.Path(nullptr));
    EXPECT_EQ(&JSON::JSONValue::None(), &JSON::Message().Path("a"));
    // Index operators chain misses: the non-const none value, or the const one.
    EXPECT_EQ(&JSON::JSONValue::NonConstNone(), &m["x"]["y"][3]);
    EXPECT_EQ(&JSON::JSONValue::None(), &static_cast<const JSON::Message&>(m)["b"][99]["c"]);
    EXPECT_EQ(nullptr, JSON::JSONValue::None().GetByName("a"));
    m.Set(0, std::nan(""));  // a real that is not a number reads as 0
    EXPECT_EQ(0, m[0].AsInt());
    for (JSON::Type type : {JSON::TypeInteger, JSON::TypeReal, JSON::TypeBoolean}) {
        ASSERT_NE(nullptr, m.m_pComposite->UpdateByOrdinal(0, nullptr, type));
        EXPECT_EQ(0, m[0].AsInt());  // nor does a value without text
        EXPECT_EQ(0.0, m[0].AsDouble());
        EXPECT_EQ(0u, JSON_GetOrdinalAsUnsignedLong64(&m, 0));
    }
}

// Names and strings of several lengths, in no order: short and long lists are sorted apart.
TEST(DomValueTest, LookupsFindEveryNameAndString) {
    for (int count : {1, 2, 3, 16, 17, 40}) {
        SCOPED_TRACE(count);
        std::vector<std::string> names;
        std::string object = "{", array = "[";
        for (int i = 0; i < count; ++i) {
            names.push_back(std::string(static_cast<size_t>(i % 3), 'x') +
                            std::to_string((i * 37) % 101));
            object += (i != 0 ? ",\"" : "\"") + names.back() + "\":" + std::to_string(i);
            array += (i != 0 ? ",\"" : "\"") + names.back() + "\"";
        }
        JSON::Message o, a;
        ASSERT_TRUE(o.Parse((object + "}").c_str()));
        ASSERT_TRUE(a.Parse((array + "]").c_str()));
        for (int i = 0; i < count; ++i) {
            const std::string& name = names[static_cast<size_t>(i)];
            const int length = static_cast<int>(name.size());
            for (const JSON::CompositeValue* c : {o.m_pComposite, a.m_pComposite}) {
                EXPECT_EQ(i, c->OrdinalOf(name.c_str())) << name;
                EXPECT_EQ(i, c->OrdinalOf((name + "zz").c_str(), length)) << name;
                EXPECT_EQ(-1, c->OrdinalOf((name + "z").c_str())) << name;
                EXPECT_STREQ(name.c_str(), c->NameAt(i));
            }
            EXPECT_EQ(i, o[name.c_str()].AsInt()) << name;
        }
        // Names added later, in descending order, are found as well as the parsed ones.
        for (int i = count; i > 0; --i) o.Set(("n" + std::to_string(i)).c_str(), i);
        for (int i = 1; i <= count; ++i) EXPECT_EQ(i, o[("n" + std::to_string(i)).c_str()].AsInt());
        EXPECT_EQ(0, o[names[0].c_str()].AsInt());
        EXPECT_STREQ("n1", o.m_pComposite->NameAt(2 * count - 1));
    }
}

TEST(DomValueTest, IndexesOfEmptyMixedDuplicateAndCutOffContents) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse("{}"));
    EXPECT_EQ(-1, m.m_pComposite->OrdinalOf("a"));
    EXPECT_EQ(nullptr, m.m_pComposite->NameAt(0));
    ASSERT_TRUE(m.Parse(R"({"k":1,"k":2})"));
    EXPECT_STREQ("k", m.m_pComposite->NameAt(1));
    EXPECT_EQ(m.m_pComposite->OrdinalOf("k") & ~1, 0);  // either of them
    ASSERT_TRUE(m.Parse(R"(["x","y"])"));
    EXPECT_EQ(1, m.m_pComposite->OrdinalOf("y"));
    EXPECT_EQ(0, m.m_pComposite->OrdinalOf(nullptr));
    m.Set(1, "z");  // the index is rebuilt after each update
    EXPECT_EQ(-1, m.m_pComposite->OrdinalOf("y"));
    EXPECT_EQ(1, m.m_pComposite->OrdinalOf("z"));
    m.Set(2, 5);  // no longer strings only
    EXPECT_EQ(-1, m.m_pComposite->OrdinalOf("z"));
    EXPECT_EQ(nullptr, m.m_pComposite->NameAt(1));
    EXPECT_FALSE(m.m_pComposite->MakeMap());
    EXPECT_FALSE(m.Parse(R"({"b":1,"a":2,"z")"));  // one name more than members
    EXPECT_EQ(nullptr, m.GetByName("z"));
    EXPECT_EQ(nullptr, m.m_pComposite->NameAt(2));
    m.Set("c", 3);
    EXPECT_STREQ("c", m.m_pComposite->NameAt(2));  // added, and not yet looked up
    m.Set("z", 4);
    EXPECT_EQ(R"({"b":1,"a":2,"c":3,"z":4})", Text(m));
    EXPECT_EQ(4, m["z"].AsInt());
    EXPECT_EQ(Text(m), Text(JSON::Message(m)));
}

TEST(DomValueTest, UpdatesBuildReplaceAndRefuse) {
    JSON::Message obj, arr;
    EXPECT_EQ(1, obj.Set("a", 1).AsInt());  // a fresh root becomes an object or an array
    arr.Set(3, true);
    EXPECT_EQ(R"({"a":1}[null,null,null,true])", Text(obj) + Text(arr));
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"o":{"deep":[1,{"x":"y"}]},"s":"t","a":[{"z":[]}],"c":{}})"));
    const JSON::JSONValue* none = &JSON::JSONValue::None();
    // A name on an array, an ordinal past an object or below 0, anything through a miss.
    for (const JSON::JSONValue* refused :
         {&m["a"].Set("x", 1), &m.Set(4, 1), &m.Set(-1, 1), &m["a"].Set(-1, 1),
          &m["missing"].Set("x", 1), &m["missing"].Set(0, 1), &m.Set(nullptr, 1)})
        EXPECT_EQ(none, refused);
    m.Set("o", "flat");  // the object held before is released
    m["a"].Set(0, -0.25);
    m["a"].SetNull(2);
    m.SetNull("s");
    EXPECT_EQ(2.5, m.Set(3, 2.5).AsDouble());  // an existing member by ordinal
    m.Set("u", 18446744073709551615ull);
    m.Set("l", -5L);
    m.Set("ul", 4294967295ul);
    m.Set("ui", 7u);
    m.Set("ll", -9223372036854775807LL - 1);
    m.Set("ts", int64_t{1700000000000});  // long or long long by target, whole either way
    m.Set("f", false);
    m.Set("n", static_cast<const char*>(nullptr));
    m.Set(0, HUGE_VAL);  // a real with no JSON form: nothing is written for it
    EXPECT_EQ(R"({"o":,"s":null,"a":[-0.25,null,null],"c":2.5,"u":18446744073709551615,"l":-5,)"
              R"("ul":4294967295,"ui":7,"ll":-9223372036854775808,"ts":1700000000000,)"
              R"("f":false,"n":""})",
              Text(m));
    EXPECT_EQ(JSON::TypeReal, m.Set("r", 3.0).m_type);  // a double stays real without a '.'
    m.m_pComposite->Clear();
    EXPECT_EQ(nullptr, m.m_pComposite->NameAt(0));
    m.Set("x", 1);
    EXPECT_EQ(R"({"x":1})", Text(m));
}

TEST(DomMessageTest, CopiesOwnTheirTextAndTree) {
    std::string buffer = R"({"a":"one","b":[1,{"c":"two"}]})";
    JSON::Message inPlace(true);
    ASSERT_TRUE(inPlace.Parse(&buffer[0]));
    inPlace["b"][1].Set("d", "owned");
    inPlace.Set("e", 3);
    JSON::Message copy(inPlace);
    EXPECT_TRUE(copy.m_bInPlace);
    buffer.assign(buffer.size(), 'X');  // the in-place source's text is gone
    inPlace.m_bInPlace = false;
    ASSERT_TRUE(inPlace.Parse("[9]"));
    EXPECT_EQ(R"({"a":"one","b":[1,{"c":"two","d":"owned"}],"e":3})", Text(copy));
    JSON::Message assigned;
    ASSERT_TRUE(assigned.Parse(R"({"old":[1,2,3]})"));
    assigned = copy;
    const JSON::Message& self = assigned;
    assigned = self;
    assigned.Set("e", 4);  // copies are independent of each other
    EXPECT_EQ(3, copy["e"].AsInt());
    EXPECT_EQ(R"({"a":"one","b":[1,{"c":"two","d":"owned"}],"e":4})", Text(assigned));
    assigned = JSON::Message();
    EXPECT_EQ("null", Text(assigned));
}

TEST(DomMessageTest, CInterfaceFromC) { EXPECT_EQ(0, DomCExercise()); }

}  // namespace
