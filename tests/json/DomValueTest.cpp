// The value model: misses, conversions, the lazy indexes of objects and arrays, and updates.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <string>

#include "json/JSONMessage.h"
#include "json/JSONValue.h"

namespace {

std::string Text(const JSON::JSONValue& v) {
    std::string out;
    v.Serialize(out);
    return out;
}

TEST(DomValueTest, MissesChainToTheNoneValue) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"a":{"b":[1]}})"));
    const JSON::JSONValue& miss = m["x"]["y"][3];
    EXPECT_EQ(&JSON::JSONValue::NonConstNone(), &miss);
    EXPECT_EQ(1, m["a"]["b"][0].AsInt());
    const JSON::Message& cm = m;
    EXPECT_EQ(&JSON::JSONValue::None(), &cm["a"]["c"]);
    const JSON::JSONValue& none = JSON::JSONValue::None();
    EXPECT_EQ(JSON::TypeNone, none.m_type);
    EXPECT_EQ(0, none.Size());
    EXPECT_EQ(nullptr, none.GetByOrdinal(0));
    EXPECT_EQ(nullptr, none.GetByName("a"));
    EXPECT_EQ(0.0, none.AsDouble());
    std::string out;
    EXPECT_FALSE(none.Serialize(out));
    EXPECT_EQ("", out);
    EXPECT_EQ(nullptr, m.GetByOrdinal(-1));
    EXPECT_EQ(nullptr, m.GetByOrdinal(1));
}

TEST(DomValueTest, ConversionsFollowTheType) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"([2.9,-2.9,true,false,12,"12",1e300,-1e300,99999999999,-99999999999,
                            null,"x",5e-1])"));
    EXPECT_EQ(2, m[0].AsInt());
    EXPECT_EQ(-2, m[1].AsInt());
    EXPECT_EQ(1, m[2].AsInt());
    EXPECT_EQ(0.0, m[3].AsDouble());
    EXPECT_EQ(12.0, m[4].AsDouble());
    EXPECT_EQ(0, m[5].AsInt());        // strings are not read as numbers
    EXPECT_EQ(INT_MAX, m[6].AsInt());  // out-of-range reals and integers saturate
    EXPECT_EQ(INT_MIN, m[7].AsInt());
    EXPECT_EQ(INT_MAX, m[8].AsInt());
    EXPECT_EQ(INT_MIN, m[9].AsInt());
    EXPECT_EQ(0, m[10].AsInt());
    EXPECT_EQ(0.5, m[12].AsDouble());
}

TEST(DomValueTest, ArrayGetByNameReadsADecimalOrdinal) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"([10,11,12])"));
    EXPECT_EQ(12, m["2"].AsInt());
    EXPECT_EQ(10, m["abc"].AsInt());  // no digits: ordinal 0
    EXPECT_EQ(nullptr, m.GetByName("3"));
    EXPECT_EQ(nullptr, m.GetByName("-1"));
    EXPECT_EQ(nullptr, m.GetByName(nullptr));
}

TEST(DomValueTest, ObjectNameIndexSortsByLengthThenBytes) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"b":1,"aa":2,"c":3})"));
    const auto* obj = static_cast<const JSON::ObjectValue*>(m.m_pComposite);
    ASSERT_EQ(3u, obj->m_names.size());
    EXPECT_STREQ("b", obj->m_names[0].pName);
    EXPECT_STREQ("c", obj->m_names[1].pName);
    EXPECT_STREQ("aa", obj->m_names[2].pName);
    EXPECT_STREQ("aa", obj->NameAt(1));
    EXPECT_EQ(nullptr, obj->NameAt(3));
    EXPECT_EQ(nullptr, obj->NameAt(-1));
    EXPECT_EQ(0, obj->OrdinalOf("b"));
    EXPECT_EQ(0, obj->OrdinalOf("bz", 1));  // an explicit length compares that many bytes
    EXPECT_EQ(-1, obj->OrdinalOf("a"));
    EXPECT_EQ(-1, obj->OrdinalOf("aaa"));
    EXPECT_EQ(0, obj->OrdinalOf(nullptr));
    EXPECT_FALSE(obj->MakeMap());

    // The comparator orders by length before bytes.
    using NameMap = JSON::ObjectValue::NameMap;
    char b[] = "b", aa[] = "aa";
    const NameMap nb{b, 1, false, 0}, naa{aa, 2, false, 1};
    EXPECT_TRUE(NameMap::Less(nb, naa));
    EXPECT_FALSE(NameMap::Less(naa, nb));
    EXPECT_FALSE(NameMap::Less(nb, nb));

    JSON::Message empty;
    ASSERT_TRUE(empty.Parse("{}"));
    EXPECT_EQ(-1, empty.m_pComposite->OrdinalOf("a"));
    EXPECT_EQ(nullptr, empty.m_pComposite->NameAt(0));
}

TEST(DomValueTest, DuplicateNamesKeepBothMembers) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"k":1,"k":2})"));
    EXPECT_EQ(2, m.Size());
    EXPECT_STREQ("k", m.m_pComposite->NameAt(0));
    EXPECT_STREQ("k", m.m_pComposite->NameAt(1));
    const int found = m.m_pComposite->OrdinalOf("k");
    EXPECT_TRUE(found == 0 || found == 1);
}

TEST(DomValueTest, ArrayValueIndexFindsStringsOnly) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"(["b","a","c"])"));
    const JSON::CompositeValue* arr = m.m_pComposite;
    EXPECT_EQ(1, arr->OrdinalOf("a"));
    EXPECT_EQ(-1, arr->OrdinalOf("d"));
    EXPECT_EQ(2, arr->OrdinalOf("cx", 1));
    EXPECT_STREQ("c", arr->NameAt(2));
    EXPECT_TRUE(arr->MakeMap());
    // The index is in strcmp order of the texts.
    const auto& index = static_cast<const JSON::ArrayValue*>(arr)->m_valueIndex;
    ASSERT_EQ(3u, index.size());
    EXPECT_TRUE(JSON::ArrayValue::OrdinalMap::Less(index[0], index[1]));
    EXPECT_FALSE(JSON::ArrayValue::OrdinalMap::Less(index[1], index[0]));
    EXPECT_EQ(1, index[0].nOrdinal);

    ASSERT_TRUE(m.Parse(R"([1,"a"])"));
    EXPECT_EQ(-1, m.m_pComposite->OrdinalOf("a"));
    EXPECT_EQ(nullptr, m.m_pComposite->NameAt(1));
    EXPECT_FALSE(m.m_pComposite->MakeMap());
}

TEST(DomValueTest, LookupsSeeEveryUpdate) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"b":1,"aa":2})"));
    EXPECT_EQ(-1, m.m_pComposite->OrdinalOf("new"));
    m.Set("new", "v");
    EXPECT_EQ(2, m.m_pComposite->OrdinalOf("new"));
    EXPECT_STREQ("v", m["new"].m_pText);
    EXPECT_STREQ("b", m.m_pComposite->NameAt(0));
    EXPECT_STREQ("aa", m.m_pComposite->NameAt(1));
    EXPECT_STREQ("new", m.m_pComposite->NameAt(2));
    m.Set("b", 7);  // replaced in place, same position
    EXPECT_EQ(R"({"b":7,"aa":2,"new":"v"})", Text(m));

    JSON::Message arr;
    ASSERT_TRUE(arr.Parse(R"(["x","y"])"));
    EXPECT_EQ(1, arr.m_pComposite->OrdinalOf("y"));
    arr.Set(1, "z");
    EXPECT_EQ(-1, arr.m_pComposite->OrdinalOf("y"));
    EXPECT_EQ(1, arr.m_pComposite->OrdinalOf("z"));
    arr.Set(2, 5);
    EXPECT_EQ(-1, arr.m_pComposite->OrdinalOf("z"));  // no longer strings only
}

TEST(DomValueTest, SetBuildsAndReplacesValues) {
    JSON::Message obj;
    obj.Set("a", 1);
    EXPECT_EQ(JSON::TypeObject, obj.m_type);
    EXPECT_EQ(R"({"a":1})", Text(obj));

    JSON::Message arr;
    arr.Set(3, true);
    EXPECT_EQ("[null,null,null,true]", Text(arr));

    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"o":{"deep":[1,{"x":"y"}]},"s":"t"})"));
    m.Set("o", "flat");  // the object held before is released
    m.SetNull("s");
    m.Set("d", 2.5);
    m.Set("u", 18446744073709551615ull);
    m.Set("l", -5L);
    m.Set("ul", 4294967295ul);
    m.Set("ui", 7u);
    m.Set("ll", -9223372036854775807LL - 1);
    m.Set("ts", int64_t{1700000000000});  // long or long long by target, whole either way
    m.Set("f", false);
    m.Set("n", static_cast<const char*>(nullptr));
    EXPECT_EQ(
        R"({"o":"flat","s":null,"d":2.5,"u":18446744073709551615,"l":-5,"ul":4294967295,"ui":7,)"
        R"("ll":-9223372036854775808,"ts":1700000000000,)"
        R"("f":false,"n":""})",
        Text(m));
    EXPECT_EQ(JSON::TypeReal, m.Set("r", 3.0).m_type);  // a double stays real without a '.'

    // A real whose text starts with a letter has no JSON form: nothing is written for it.
    JSON::Message odd;
    odd.Set(0, HUGE_VAL);
    odd.Set(1, 1);
    EXPECT_EQ("[,1]", Text(odd));
}

TEST(DomValueTest, RefusedUpdatesStoreNothing) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"a":[1],"b":2})"));
    const JSON::JSONValue* none = &JSON::JSONValue::None();
    EXPECT_EQ(none, &m["a"].Set("x", 1));  // a name on an array
    EXPECT_EQ(none, &m.Set(5, 1));         // an object does not grow by ordinal
    EXPECT_EQ(none, &m.Set(-1, 1));
    EXPECT_EQ(none, &m["missing"].Set("x", 1));  // writes through a miss
    EXPECT_EQ(none, &m["missing"].Set(0, 1));
    EXPECT_EQ(none, &m.Set(static_cast<const char*>(nullptr), 1));
    EXPECT_EQ(R"({"a":[1],"b":2})", Text(m));
    EXPECT_EQ(JSON::TypeNone, JSON::JSONValue::NonConstNone().m_type);
    EXPECT_EQ(0, JSON::JSONValue::NonConstNone().Size());
    EXPECT_EQ(3, m.Set(1, 3).AsInt());  // an existing member by ordinal
}

TEST(DomValueTest, NameLeftByACutOffObjectIsHarmless) {
    // The parse stops after the name "z": one name entry more than members.
    JSON::Message m;
    EXPECT_FALSE(m.Parse(R"({"b":1,"a":2,"z")"));
    EXPECT_EQ(2, m.Size());
    EXPECT_EQ(nullptr, m.GetByName("z"));
    EXPECT_EQ(nullptr, m.m_pComposite->NameAt(2));
    EXPECT_EQ(R"({"b":1,"a":2})", Text(m));
    m.Set("c", 3);
    m.Set("z", 4);
    EXPECT_EQ(R"({"b":1,"a":2,"c":3,"z":4})", Text(m));
    EXPECT_EQ(4, m["z"].AsInt());
    JSON::Message copy(m);
    EXPECT_EQ(Text(m), Text(copy));
}

TEST(DomValueTest, ClearReleasesEverything) {
    JSON::Message m;
    ASSERT_TRUE(m.Parse(R"({"a":[{"b":[1,2]}],"c":{}})"));
    m["a"][0].Set("owned", "text");
    m.Set("more", "x");
    m.m_pComposite->Clear();  // leak checks under ASan cover the release
    EXPECT_EQ(0, m.Size());
    EXPECT_TRUE(static_cast<JSON::ObjectValue*>(m.m_pComposite)->m_names.empty());
    EXPECT_EQ("{}", Text(m));
}

}  // namespace
