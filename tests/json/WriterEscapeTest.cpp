// String escaping: every control byte, quote and backslash, the bytes left alone, and the
// fixed-buffer form's fit rule.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "json/JSONEscape.h"

namespace {

std::string Escaped(const std::string& text) {
    std::string out;
    JSON::EscapeString(out, text.c_str());
    return out;
}

TEST(WriterEscapeTest, ControlBytesGetShortOrUnicodeEscapes) {
    // Index = byte value; 0x00 ends the text and is not listed.
    const char* const expected[0x20] = {
        nullptr,   "\\u0001", "\\u0002", "\\u0003", "\\u0004", "\\u0005", "\\u0006", "\\u0007",
        "\\b",     "\\t",     "\\n",     "\\u000b", "\\f",     "\\r",     "\\u000e", "\\u000f",
        "\\u0010", "\\u0011", "\\u0012", "\\u0013", "\\u0014", "\\u0015", "\\u0016", "\\u0017",
        "\\u0018", "\\u0019", "\\u001a", "\\u001b", "\\u001c", "\\u001d", "\\u001e", "\\u001f"};
    for (int b = 0x01; b < 0x20; ++b) {
        EXPECT_EQ(Escaped(std::string(1, static_cast<char>(b))), expected[b]) << "byte " << b;
    }
}

TEST(WriterEscapeTest, QuoteAndBackslashGetBackslash) {
    EXPECT_EQ(Escaped("a\"b\\c"), "a\\\"b\\\\c");
    EXPECT_EQ(Escaped("\""), "\\\"");
    EXPECT_EQ(Escaped("\\"), "\\\\");
}

TEST(WriterEscapeTest, OtherBytesPassUnchanged) {
    EXPECT_EQ(Escaped(""), "");
    std::string out = "head:";
    JSON::EscapeString(out, nullptr);
    JSON::EscapeString(out, "a/b");
    EXPECT_EQ(out, "head:a/b");
    EXPECT_EQ(Escaped("\x7F"), "\x7F");
    EXPECT_EQ(Escaped("gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80");
    // Mixed with a byte that needs escaping, the others are still copied as they are.
    EXPECT_EQ(Escaped("/\x7F\xC3\xBC\t"), "/\x7F\xC3\xBC\\t");
    std::string all;
    for (int b = 0x20; b < 0x100; ++b) {
        if (b != '"' && b != '\\') all.push_back(static_cast<char>(b));
    }
    EXPECT_EQ(Escaped(all), all);
}

TEST(WriterEscapeTest, FixedBufferKeepsOneByteFree) {
    // Escaped "abcdef\"" is 8 bytes: 8 + 1 < 10 fits; with one more byte it does not.
    char buf[10];
    std::memset(buf, '#', sizeof buf);
    char* pos = buf;
    EXPECT_EQ(JSON_EscapeString(&pos, buf + sizeof buf, "abcdef\""), 1);
    EXPECT_EQ(pos, buf);
    EXPECT_EQ(std::string(buf, 10), std::string("abcdef\\\"\0#", 10));

    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(JSON_EscapeString(&pos, buf + sizeof buf, "abcdefg\""), 0);
    EXPECT_EQ(JSON_EscapeString(&pos, buf + sizeof buf, "abcdefghi"), 0);
    EXPECT_EQ(std::string(buf, 10), std::string(10, '#'));

    EXPECT_EQ(JSON_EscapeString(&pos, buf + sizeof buf, "abcdefgh"), 1);
    EXPECT_STREQ(buf, "abcdefgh");

    // No room at all, also with end before *pos.
    pos = buf + 2;
    EXPECT_EQ(JSON_EscapeString(&pos, buf + 1, ""), 0);
    EXPECT_EQ(JSON_EscapeString(&pos, buf + 3, ""), 0);
    EXPECT_EQ(buf[2], 'c');
}

}  // namespace
