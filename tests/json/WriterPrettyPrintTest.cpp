// JSON_PrettyPrint: byte-exact layout of objects and arrays, and of texts that are not
// balanced JSON.
#include <gtest/gtest.h>

#include <string>

#include "json/JSONPrettyPrint.h"

namespace {

std::string Pretty(const char* text) {
    std::string out = "left over";
    JSON_PrettyPrint(text, out);
    return out;
}

TEST(WriterPrettyPrintTest, LaysOutObjectsAndArrays) {
    const struct {
        const char* input;
        const char* expected;
    } cases[] = {
        {R"({"a":1,"b":[true,null,"x"]})",
         "\n{\n\t\"a\":1,\n\t\"b\":\n\t[\n\t\ttrue,null,\"x\"\n\t]\n}"},
        {"", ""},
        {"[]", "\n[\n\t\n]"},
        {"[1,2]", "\n[\n\t1,2\n]"},
        {R"({"a":1,"b":2})", "\n{\n\t\"a\":1,\n\t\"b\":2\n}"},
        {"[[1],{}]", "\n[\n\t\n\t[\n\t\t1\n\t],\n\t{\n\t\t\n\t}\n]"},
        {"{ \"a\" : 1 }", "\n{\n\t \"a\" : 1 \n}"},
        {"1,2", "1,\n2"},
    };
    for (const auto& c : cases) EXPECT_EQ(Pretty(c.input), c.expected) << c.input;
}

TEST(WriterPrettyPrintTest, BracketsAndCommasInStringsCountAsStructure) {
    EXPECT_EQ(Pretty(R"({"a":"x,y"})"), "\n{\n\t\"a\":\"x,\n\ty\"\n}");
    EXPECT_EQ(Pretty(R"(["[,"])"), "\n[\n\t\"\n\t[\n\t\t,\"\n\t]");
}

TEST(WriterPrettyPrintTest, UnbalancedClosingBracketsGoBelowZero) {
    // The depth falls to -2 and never rises above 0 again, so no tab is written.
    EXPECT_EQ(Pretty("]},[1,2]"), "\n]\n},\n\n[\n1,2\n]");
    EXPECT_EQ(Pretty("{]]{"), "\n{\n\t\n]\n]\n{\n");
    EXPECT_EQ(Pretty(nullptr), "");
}

}  // namespace
