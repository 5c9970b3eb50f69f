// Containers and their vectors outlive the tree they were released from: a thread keeps them
// for the next documents it reads. Nothing a released tree held may show through in the next,
// and trees must still be releasable on any thread, and by callers, the ordinary way.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "json/JSONMessage.h"

namespace {

std::string Text(const JSON::JSONValue& v) {
    std::string out;
    v.Serialize(out);
    return out;
}

// Same shape twice: every container of the second document is built from what the first held.
const char* const SHAPE = R"({"a":[1,2],"b":{"c":"x","d":[true]},"e":[{"f":null}]})";
const char* const SAME_SHAPE = R"({"g":[3,4],"h":{"i":"y","j":[false]},"k":[{"l":5}]})";

TEST(DomContainerReuseTest, ChangedValuesOfAReleasedTreeDoNotShowInTheNext) {
    {
        JSON::Message m;
        ASSERT_TRUE(m.Parse(SHAPE));
        // Owned texts, a replaced child and a name index: all released with the tree.
        m["a"].Set(0, "owned");
        m["b"].Set("c", 2.5);
        m["e"][0].Set("f", true);
        ASSERT_EQ(R"({"a":["owned",2],"b":{"c":2.5,"d":[true]},"e":[{"f":true}]})", Text(m));
    }
    JSON::Message next;
    ASSERT_TRUE(next.Parse(SAME_SHAPE));
    EXPECT_EQ(SAME_SHAPE, Text(next));
    EXPECT_FALSE(next["g"][0].m_bOwned);
    EXPECT_EQ(0, next["h"].GetByOrdinal(0)->m_nNameIndex);  // "i" sorts first
    EXPECT_EQ(1, next["h"].GetByOrdinal(1)->m_nNameIndex);
    EXPECT_STREQ("y", next.Path("h.i").m_pText);
    next["g"].Set(5, 1);  // a recycled vector grows like any other
    EXPECT_EQ(R"([3,4,null,null,null,1])", Text(next["g"]));
}

TEST(DomContainerReuseTest, TreesParsedOnOneThreadAreReleasedOnAnother) {
    auto* moved = new JSON::Message;
    std::thread([&] {
        JSON::Message local;
        ASSERT_TRUE(local.Parse(SHAPE));
        ASSERT_TRUE(moved->Parse(SAME_SHAPE));
    }).join();  // the parsing thread and its cache are gone
    JSON::Message here;
    ASSERT_TRUE(here.Parse(SHAPE));
    EXPECT_EQ(SAME_SHAPE, Text(*moved));
    delete moved;  // into this thread's cache
    ASSERT_TRUE(here.Parse(SAME_SHAPE));
    EXPECT_EQ(SAME_SHAPE, Text(here));
}

TEST(DomContainerReuseTest, CallersDeleteDetachedContainersTheOrdinaryWay) {
    JSON::Message m;
    for (int round = 0; round < 2; ++round) {  // the second round reuses the first's blocks
        ASSERT_TRUE(m.Parse(SHAPE));
        JSON::JSONValue& b = m["b"];
        JSON::CompositeValue* detached = b.m_pComposite;
        b.m_pComposite = nullptr;
        b.m_type = JSON::TypeNull;
        detached->Clear();
        delete detached;
        EXPECT_EQ(R"({"a":[1,2],"b":null,"e":[{"f":null}]})", Text(m));
    }
}

// A message that lives in thread-local storage is destroyed while its thread ends, possibly
// after the thread's cache has been given back.
thread_local JSON::Message t_message;

TEST(DomContainerReuseTest, AMessageReleasedAsItsThreadEndsIsSafe) {
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            ASSERT_TRUE(t_message.Parse(SHAPE));
            JSON::Message other;
            ASSERT_TRUE(other.Parse(SAME_SHAPE));
        }).join();
    }
}

}  // namespace
