// Containers of released trees are reused for the next documents: nothing of them may show.
#include <gtest/gtest.h>

#include "json/JSONMessage.h"
#include "tests/json/TreeText.h"

namespace {

// Same shape: every container of the second document is built from what the first held.
const char* const SHAPE = R"({"a":[1,2],"b":{"c":"x","d":[true]},"e":[{"f":null}]})";
const char* const SAME_SHAPE = R"({"g":[3,4],"h":{"i":"y","j":[false]},"k":[{"l":5}]})";

TEST(DomContainerReuseTest, ChangedValuesOfAReleasedTreeDoNotShowInTheNext) {
    JSON::Message m;
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(m.Parse(SHAPE));
        m["a"].Set(0, "owned");
        m["b"].Set("c", 2.5);
        m["e"][0].Set("f", true);
        JSON::CompositeValue* detached = m["e"].m_pComposite;
        m["e"].m_pComposite = nullptr;
        detached->Clear();  // callers delete a child the ordinary way
        delete detached;
        ASSERT_EQ(R"({"a":["owned",2],"b":{"c":2.5,"d":[true]},"e":null})", Text(m));
        ASSERT_TRUE(m.Parse(SAME_SHAPE));
        EXPECT_EQ(SAME_SHAPE, Text(m));
        EXPECT_FALSE(m["g"][0].m_bOwned);
        EXPECT_STREQ("j", m["h"].m_pComposite->NameAt(1));
        m["g"].Set(5, 1);  // a recycled vector grows like any other
        EXPECT_EQ(R"([3,4,null,null,null,1])", Text(m["g"]));
    }
}

}  // namespace
