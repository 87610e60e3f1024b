#include <string>

#include <gtest/gtest.h>

#include "terminal_text/terminal_text.h"
#include "vemkctl/message_format.h"

namespace vemk {
namespace {

std::string text(std::string_view message) {
  return format_message(message, message_format::text, 2);
}

std::string hex(std::string_view message) {
  return format_message(message, message_format::hex, 2);
}

std::string json(std::string_view message) {
  return format_message(message, message_format::json, 2);
}

// \n, \r, \t and \xNN for control bytes; backslash and high bytes stay.
TEST(TextFormatTest, EscapesOnlyWhatWouldBreakTheLineOrTheTerminal) {
  EXPECT_EQ(text("plain text"), "plain text");
  EXPECT_EQ(text("a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(text(std::string("\0\x01\x1b\x1f\x7f", 5)), "\\x00\\x01\\x1b\\x1f\\x7f");
  EXPECT_EQ(text("back\\slash \xc3\xa4 \xff"), "back\\slash \xc3\xa4 \xff");
  EXPECT_EQ(text(""), "");
}

// U+0080 to U+009F come out as \xNN for each byte, in UTF-8 and as bytes of their own.
// They stayed, and a message could clear the screen or retitle the terminal with 0x9b or 0x9d.
TEST(TextFormatTest, EscapesC1ControlCharacters) {
  EXPECT_EQ(text("\xc2\x9bH"), "\\xc2\\x9bH");
  EXPECT_EQ(text("\xc2\x80\xc2\x9f"), "\\xc2\\x80\\xc2\\x9f");
  EXPECT_EQ(text("\x80 \x9bH \x9f"), "\\x80 \\x9bH \\x9f");
}

// Letters whose second, third or fourth byte is 0x80 to 0x9f stay as they are, as does U+00A0.
TEST(TextFormatTest, LeavesUtf8WithSuchBytesInside) {
  for (const char *letters : {"\xc2\xa0", "\xc3\x80", "\xc3\x9f", "\xe2\x82\xac", "\xed\x9f\xbf",
                              "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf", "a\xc3\x9bz"})
    EXPECT_EQ(text(letters), letters);
}

// After an overlong form, a surrogate or a cut sequence such a byte stands alone.
TEST(TextFormatTest, EscapesSuchBytesInBrokenUtf8) {
  EXPECT_EQ(text("\xc1\x9b \xe0\x82\x9b \xed\xa0\x80"), "\xc1\\x9b \xe0\\x82\\x9b \xed\xa0\\x80");
  EXPECT_EQ(text("\xe2\x9bm \xc3\xc2\x9b"), "\xe2\\x9bm \xc3\\xc2\\x9b");
  EXPECT_EQ(text("\xff\x9b\xf0\x9f"), "\xff\\x9b\xf0\\x9f");
}

// "000fa5ff" for four bytes, nothing for none.
TEST(HexFormatTest, WritesTwoLowerCaseDigitsAByte) {
  EXPECT_EQ(hex(std::string("\0\x0f\xa5\xff", 4)), "000fa5ff");
  EXPECT_EQ(hex(""), "");
}

// "from", "length" in bytes and "text" with JSON's escapes, NUL as \u0000.
TEST(JsonFormatTest, HoldsValidUtf8AsText) {
  EXPECT_EQ(json("a \"b\" \\ /\n"), R"({"from":2,"length":10,"text":"a \"b\" \\ /\n"})");
  EXPECT_EQ(json(std::string("a\0b", 3)), R"({"from":2,"length":3,"text":"a\u0000b"})");
  EXPECT_EQ(json("\xc3\xa4"), "{\"from\":2,\"length\":2,\"text\":\"\xc3\xa4\"}");
  EXPECT_EQ(json(""), R"({"from":2,"length":0,"text":""})");
}

// U+0080 to U+009F are \u0080 to \u009f, which read back as the same message.
TEST(JsonFormatTest, EscapesC1ControlCharacters) {
  EXPECT_EQ(json("\xc2\x9bH"), R"({"from":2,"length":3,"text":"\u009bH"})");
  EXPECT_EQ(json("\\\xc2\x80\xc2\x9f\xc2\xa0"),
            "{\"from\":2,\"length\":7,\"text\":\"\\\\\\u0080\\u009f\xc2\xa0\"}");
  EXPECT_EQ(json("\xc3\x9b\xe2\x82\xac"),
            "{\"from\":2,\"length\":5,\"text\":\"\xc3\x9b\xe2\x82\xac\"}");
}

// Bytes that are no UTF-8 are "hex" instead of "text"; module 7 is "from":7.
TEST(JsonFormatTest, HoldsOtherBytesAsHexAndNamesTheSendersModule) {
  EXPECT_EQ(json("a\xff"), R"({"from":2,"length":2,"hex":"61ff"})");
  EXPECT_EQ(format_message("x", message_format::json, 7), R"({"from":7,"length":1,"text":"x"})");
}

// First and last code point of one to four bytes, around the surrogates, and NUL.
TEST(Utf8Test, AcceptsTheBoundsOfEachLength) {
  for (const char *valid : {"", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                            "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
    EXPECT_TRUE(is_utf8(valid)) << hex(valid);
  EXPECT_TRUE(is_utf8(std::string_view("\0", 1)));
}

// Lone continuation, overlong, surrogate, beyond U+10FFFF, and two to four bytes without their end.
TEST(Utf8Test, RefusesWhatIsNoSequence) {
  for (const char *invalid :
       {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
        "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\xc2", "\xc2g",
        "\xe2\x82", "\xe2\x82g", "\xf0\x9f\x98", "\xf0\x9f\x98g", "a\xe2", "\xc2\xc2\x80"})
    EXPECT_FALSE(is_utf8(invalid)) << hex(invalid);
}

// "connected" is true and "disconnected" false, whatever the order of the members.
TEST(ConnectedStatusTest, ReadsTheDaemonsStatusMessages) {
  EXPECT_EQ(
      connected_status(R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })"),
      true);
  EXPECT_EQ(connected_status(R"({"cmd":"disconnected","service":"internal-ipc"})"), false);
}

// Other service, other cmd, other types, no JSON and half of it are no status.
TEST(ConnectedStatusTest, IgnoresEverythingElse) {
  for (const char *other :
       {"", "connected", "[1]", "null", R"({"cmd":"connected"})",
        R"({"service":"other","cmd":"connected"})", R"({"service":"internal-ipc","cmd":"status"})",
        R"({"service":"internal-ipc"})", R"({"service":1,"cmd":"connected"})",
        R"({"service":"internal-ipc","cmd":["connected"]})", "{\"service\":\"internal-ipc\""})
    EXPECT_EQ(connected_status(other), std::nullopt) << other;
}

} // namespace
} // namespace vemk
