#include "json/json_reader.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json-c/json.h>

#include "unit/json/wrapped_json.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using owned_text = std::unique_ptr<char, decltype(&free)>;

class JsonReaderTest : public testing::Test {
protected:
  JsonReaderTest() { wrapped_json::reset(); }
  ~JsonReaderTest() override { wrapped_json::reset(); }

  /// The element's copy as a string, "<null>" for a null pointer.
  static std::string string_at(const json_reader &reader, std::size_t index) {
    const owned_text text(reader.string_at(index), &free);
    return text ? text.get() : "<null>";
  }

  static std::string get_string(const json_reader &reader, const char *key) {
    const char *const text = reader.get_string(key);
    return text == nullptr ? "<null>" : text;
  }

  static void expect_no_elements(const json_reader &reader, std::size_t index = 0) {
    EXPECT_TRUE(reader.at(index).is_null());
    EXPECT_EQ(reader.string_at(index), nullptr);
    EXPECT_EQ(reader.int_at(index), 0);
  }

  static void expect_no_member(const json_reader &reader, const char *key) {
    EXPECT_TRUE(reader.member(key).is_null());
    EXPECT_EQ(reader.get_int(key), 0);
    EXPECT_EQ(reader.get_string(key), nullptr);
  }

  static std::string nested_arrays(int depth) {
    const auto count = static_cast<std::size_t>(depth);
    return std::string(count, '[') + std::string(count, ']');
  }
};

// Making a reader.

// "", "not JSON", cut texts and "null": is_null, and all seven questions give 0, null or such one.
TEST_F(JsonReaderTest, TextThatIsNotJsonMakesANullReader) {
  for (const char *text :
       {"", " ", "not JSON", "{", "[1,", "{\"a\"}", "{\"a\":}", "\x80\xFF", "}", "null"}) {
    SCOPED_TRACE(text);
    const json_reader reader(text);
    EXPECT_TRUE(reader.is_null());
    EXPECT_EQ(reader.array_length(), 0u);
    expect_no_elements(reader);
    expect_no_member(reader, "service");
  }
}

// Parsing a null pointer gives is_null, and so does a null object.
TEST_F(JsonReaderTest, ReaderMayHaveNothingToReadFrom) {
  EXPECT_TRUE(json_reader(static_cast<const char *>(nullptr)).is_null());
  EXPECT_TRUE(json_reader(static_cast<json_object *>(nullptr)).is_null());
}

// Objects, arrays, strings, numbers and booleans, empty or in blanks, are not null.
TEST_F(JsonReaderTest, AnyOtherJsonValueIsParsed) {
  for (const char *text : {"{}", "[]", "\"\"", "0", "true", "false", "1.5", " {} "}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(json_reader(text).is_null());
  }
}

// The destructor of a reader that parsed calls json_object_put once.
TEST_F(JsonReaderTest, ParsedValueIsReleasedOnce) {
  { const json_reader reader("{}"); }
  EXPECT_THAT(wrapped_json::record(), ElementsAre("put"));
}

// A reader of a given object answers and never calls json_object_put.
TEST_F(JsonReaderTest, BorrowedValueIsNotReleased) {
  json_object *const object = json_tokener_parse(R"({"a":"b"})");
  {
    const json_reader reader(object);
    EXPECT_FALSE(reader.is_null());
    EXPECT_EQ(get_string(reader, "a"), "b");
  }
  EXPECT_THAT(wrapped_json::record(), IsEmpty());
  json_object_put(object);
}

// 20 nested arrays are parsed; 1,000,000 give a null reader.
TEST_F(JsonReaderTest, DeepNestingIsRefusedAndNeverCrashes) {
  EXPECT_FALSE(json_reader(nested_arrays(20).c_str()).is_null());
  EXPECT_TRUE(json_reader(nested_arrays(1000000).c_str()).is_null());
}

// Wrongly typed values.

// A string, numbers and true give 0, null or a null reader to each question.
TEST_F(JsonReaderTest, ScalarsHaveNeitherElementsNorMembers) {
  for (const char *text : {"\"text\"", "5", "1.5", "true"}) {
    SCOPED_TRACE(text);
    const json_reader reader(text);
    EXPECT_EQ(reader.array_length(), 0u);
    expect_no_elements(reader);
    expect_no_member(reader, "text");
  }
}

// Indexes into {"0":1} and keys into ["a"] give 0, null or a null reader.
TEST_F(JsonReaderTest, ObjectIsNoArrayAndArrayNoObject) {
  const json_reader object(R"({"0":1})");
  EXPECT_EQ(object.array_length(), 0u);
  expect_no_elements(object);
  const json_reader array(R"(["a"])");
  expect_no_member(array, "a");
  expect_no_member(array, "0");
}

// Arrays.

// [] has 0 and [null, 1, [2, 3]] has 3.
TEST_F(JsonReaderTest, ArrayLengthCountsEveryElement) {
  EXPECT_EQ(json_reader("[]").array_length(), 0u);
  EXPECT_EQ(json_reader("[null, 1, [2, 3]]").array_length(), 3u);
}

// Of two elements index 1 is the last; 2, 3 and SIZE_MAX give null, 0 or a null reader.
TEST_F(JsonReaderTest, IndexAtOrAboveTheLengthGivesNothing) {
  const json_reader reader(R"(["a","b"])");
  EXPECT_FALSE(reader.at(1).is_null());
  for (const std::size_t index : {std::size_t{2}, std::size_t{3}, SIZE_MAX})
    expect_no_elements(reader, index);
}

// Readers of elements answer, and only the parsing one calls json_object_put.
TEST_F(JsonReaderTest, ElementsAreBorrowed) {
  {
    const json_reader reader(R"([{"a":"inner"},[7]])");
    EXPECT_EQ(get_string(reader.at(0), "a"), "inner");
    EXPECT_EQ(reader.at(1).int_at(0), 7);
  }
  EXPECT_THAT(wrapped_json::record(), ElementsAre("put"));
}

// string_at makes one copy with strdup, which outlives the reader until the caller frees it.
TEST_F(JsonReaderTest, StringElementIsCopiedForTheCaller) {
  owned_text text(nullptr, &free);
  {
    const json_reader reader(R"(["text"])");
    text.reset(reader.string_at(0));
  }
  EXPECT_STREQ(text.get(), "text");
  EXPECT_EQ(wrapped_json::texts_made(), 1u);
  EXPECT_EQ(wrapped_json::texts_alive(), 1u);
}

// The empty string, null, 5, true, an object and an array give null from string_at.
TEST_F(JsonReaderTest, OnlyNonEmptyStringElementsHaveAString) {
  const json_reader reader(R"(["", null, 5, true, {"a":1}, ["b"], "text"])");
  for (std::size_t index = 0; index < 6; ++index)
    EXPECT_EQ(string_at(reader, index), "<null>") << index;
  EXPECT_EQ(string_at(reader, 6), "text");
}

// When strdup fails string_at is null.
TEST_F(JsonReaderTest, StringElementWithoutMemoryIsNull) {
  const json_reader reader(R"(["text"])");
  wrapped_json::fail(wrapped_json::call::copy_text);
  EXPECT_EQ(string_at(reader, 0), "<null>");
}

// "7" is 7, 2.9 is 2, true is 1, 3000000000 is 2147483647; null, {} and [] are 0.
TEST_F(JsonReaderTest, NumbersOfElementsAreConverted) {
  const json_reader reader(R"([5, -6, "7", "x", 2.9, true, false, null, {}, [], 3000000000])");
  const int expected[] = {5, -6, 7, 0, 2, 1, 0, 0, 0, 0, INT32_MAX};
  for (std::size_t index = 0; index < std::size(expected); ++index)
    EXPECT_EQ(reader.int_at(index), expected[index]) << index;
}

// Members.

// Members of members answer, missing and null ones are null readers; json_object_put comes once.
TEST_F(JsonReaderTest, MemberIsBorrowed) {
  {
    const json_reader reader(R"({"a":{"b":{"c":"deep"}},"null":null})");
    EXPECT_EQ(get_string(reader.member("a").member("b"), "c"), "deep");
    EXPECT_TRUE(reader.member("b").is_null());
    EXPECT_TRUE(reader.member("null").is_null());
    EXPECT_TRUE(reader.member("missing").member("b").is_null());
  }
  EXPECT_THAT(wrapped_json::record(), ElementsAre("put"));
}

// "42" is 42, true is 1, -3000000000 is -2147483648; a missing key and null are 0.
TEST_F(JsonReaderTest, NumbersOfMembersAreConverted) {
  const json_reader reader(
      R"({"int":5,"min":-3000000000,"text":"42","bad":"x","null":null,"object":{},"true":true})");
  const std::pair<const char *, int> expected[] = {{"int", 5},  {"min", INT32_MIN}, {"text", 42},
                                                   {"bad", 0},  {"null", 0},        {"object", 0},
                                                   {"true", 1}, {"missing", 0}};
  for (const auto &[key, number] : expected)
    EXPECT_EQ(reader.get_int(key), number) << key;
}

// 12 is "12", [1,2] "[ 1, 2 ]", "" is ""; missing and null are null; no copy is made.
TEST_F(JsonReaderTest, StringsOfMembersAreTheirTextOrTheirJson) {
  const json_reader reader(
      R"({"text":"x","empty":"","number":12,"real":1.5,"true":true,"null":null,"list":[1,2]})");
  const std::pair<const char *, const char *> expected[] = {
      {"text", "x"},    {"empty", ""},        {"number", "12"},   {"real", "1.5"},
      {"true", "true"}, {"list", "[ 1, 2 ]"}, {"null", "<null>"}, {"missing", "<null>"}};
  for (const auto &[key, text] : expected)
    EXPECT_EQ(get_string(reader, key), text) << key;
  EXPECT_EQ(reader.get_string("text"), reader.get_string("text"));
}

// "service" does not find "Service", "" finds its own; {"a":"first","a":"last"} answers "last".
TEST_F(JsonReaderTest, KeysAreComparedAndTheLastOfTwoEqualOnesCounts) {
  const json_reader reader(R"({"Service":"upper","":"no name","a":"first","a":"last"})");
  EXPECT_EQ(get_string(reader, "service"), "<null>");
  EXPECT_EQ(get_string(reader, "Service"), "upper");
  EXPECT_EQ(get_string(reader, ""), "no name");
  EXPECT_EQ(get_string(reader, "a"), "last");
}

// UTF-8 in the text and the escape \u00e4 both give the bytes C3 A4.
TEST_F(JsonReaderTest, BytesAboveAsciiAreKept) {
  EXPECT_EQ(get_string(json_reader("{\"a\":\"\xC3\xA4\"}"), "a"), "\xC3\xA4");
  EXPECT_EQ(get_string(json_reader(R"({"a":"\u00e4"})"), "a"), "\xC3\xA4");
}

} // namespace
} // namespace vemk
