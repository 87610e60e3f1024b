#include "json/json_writer.h"

#include <climits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/json/wrapped_json.h"

namespace vemk {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using wrapped_json::call;

class JsonWriterTest : public testing::Test {
protected:
  JsonWriterTest() { wrapped_json::reset(); }
  ~JsonWriterTest() override { wrapped_json::reset(); }
};

/// A root without members of its own.
class empty_root : public json_writer {
public:
  empty_root() : json_writer("", "", "", "") {}
};

// The root message.

TEST_F(JsonWriterTest, RootHasItsMembersInFixedOrder) {
  json_writer root("the service", "the cmd", "the mac", "the version");
  EXPECT_STREQ(root.to_string(),
               R"({ "version": "the version", "service": "the service", "cmd": "the cmd", )"
               R"("ap-mac": "the mac" })");
}

TEST_F(JsonWriterTest, EmptyValueLeavesItsKeyOut) {
  EXPECT_STREQ(json_writer("s", "c", "m", "").to_string(),
               R"({ "service": "s", "cmd": "c", "ap-mac": "m" })");
  EXPECT_STREQ(json_writer("", "c", "m", "v").to_string(),
               R"({ "version": "v", "cmd": "c", "ap-mac": "m" })");
  EXPECT_STREQ(json_writer("s", "", "m", "v").to_string(),
               R"({ "version": "v", "service": "s", "ap-mac": "m" })");
  EXPECT_STREQ(json_writer("internal-ipc", "connected", "", "2.0").to_string(),
               R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })");
  EXPECT_STREQ(empty_root().to_string(), "{ }");
}

TEST_F(JsonWriterTest, RootReleasesItsTreeOnce) {
  {
    empty_root root;
    json_writer child = json_writer::child_array(root, "list");
    child.add_int("", 1);
  }
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add list", "array_put 0", "put"));
}

// Members.

TEST_F(JsonWriterTest, MembersAppearInTheOrderOfTheirAddition) {
  empty_root root;
  root.add_string("z", "last letter");
  root.add_int("a", -1);
  root.add_string("empty", "");
  EXPECT_STREQ(root.to_string(), R"({ "z": "last letter", "a": -1, "empty": "" })");
}

TEST_F(JsonWriterTest, ExtremeNumbersAreKept) {
  empty_root root;
  root.add_int("max", INT_MAX);
  root.add_int("min", INT_MIN);
  EXPECT_STREQ(root.to_string(), R"({ "max": 2147483647, "min": -2147483648 })");
}

TEST_F(JsonWriterTest, TextIsEscaped) {
  empty_root root;
  root.add_string("a", "\"\\\n%s");
  EXPECT_STREQ(root.to_string(), R"({ "a": "\"\\\n%s" })");
}

TEST_F(JsonWriterTest, SecondValueOfAKeyReplacesTheFirst) {
  empty_root root;
  root.add_string("a", "old");
  root.add_int("a", 2);
  EXPECT_STREQ(root.to_string(), R"({ "a": 2 })");
}

TEST_F(JsonWriterTest, StringArgumentsAreCopied) {
  empty_root root;
  std::string key = "key";
  std::string value = "value";
  root.add_string(key.c_str(), value.c_str());
  key = "xxx";
  value = "yyyyy";
  EXPECT_STREQ(root.to_string(), R"({ "key": "value" })");
}

// Children.

TEST_F(JsonWriterTest, ChildrenBecomeMembersOfAnObject) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  json_writer inner = json_writer::child_object(root, "inner");
  list.add_string("ignored", "a");
  list.add_int("ignored", 2);
  inner.add_string("key", "value");
  EXPECT_STREQ(root.to_string(), R"({ "list": [ "a", 2 ], "inner": { "key": "value" } })");
}

TEST_F(JsonWriterTest, FlagChoosesBetweenArrayAndObject) {
  empty_root root;
  json_writer list(true, root, "list");
  json_writer inner(false, root, "inner");
  EXPECT_STREQ(root.to_string(), R"({ "list": [ ], "inner": { } })");
}

TEST_F(JsonWriterTest, ChildrenOfAnArrayAreAppendedAndTheirKeyIgnored) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  json_writer object = json_writer::child_object(list, "ignored");
  json_writer array = json_writer::child_array(list, "ignored");
  object.add_int("a", 1);
  array.add_int("", 2);
  EXPECT_STREQ(root.to_string(), R"({ "list": [ { "a": 1 }, [ 2 ] ] })");
}

TEST_F(JsonWriterTest, ChildrenNestDeeply) {
  empty_root root;
  json_writer first = json_writer::child_object(root, "1");
  json_writer second = json_writer::child_array(first, "2");
  json_writer third = json_writer::child_object(second, "");
  third.add_int("n", 3);
  EXPECT_STREQ(root.to_string(), R"({ "1": { "2": [ { "n": 3 } ] } })");
}

TEST_F(JsonWriterTest, ChildSerialisesItsOwnPart) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  list.add_int("", 1);
  EXPECT_STREQ(list.to_string(), "[ 1 ]");
}

// Values go to the next slot and children to the end, so the two do not follow the call order.

TEST_F(JsonWriterTest, ValuesFillSlotsFromTheFront) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  list.add_string("", "0");
  list.add_int("", 1);
  list.add_string("", "2");
  EXPECT_STREQ(list.to_string(), R"([ "0", 1, "2" ])");
  EXPECT_THAT(wrapped_json::record(),
              ElementsAre("object_add list", "array_put 0", "array_put 1", "array_put 2"));
}

TEST_F(JsonWriterTest, ChildAfterAValueComesBehindIt) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  list.add_int("", 0);
  json_writer child = json_writer::child_object(list, "");
  EXPECT_STREQ(list.to_string(), "[ 0, { } ]");
}

TEST_F(JsonWriterTest, ValueAfterAChildTakesTheChildsSlot) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  list.add_int("", 0);
  { const json_writer child = json_writer::child_object(list, ""); }
  list.add_int("", 1);
  EXPECT_STREQ(list.to_string(), "[ 0, 1 ]");
  { const json_writer child = json_writer::child_array(list, ""); }
  EXPECT_STREQ(list.to_string(), "[ 0, 1, [ ] ]");
  list.add_int("", 2);
  list.add_int("", 3);
  EXPECT_STREQ(list.to_string(), "[ 0, 1, 2, 3 ]");
}

// Serialising.

TEST_F(JsonWriterTest, EveryTextIsAFreshOneOfThePresentState) {
  empty_root root;
  EXPECT_STREQ(root.to_string(), "{ }");
  root.add_int("a", 1);
  EXPECT_STREQ(root.to_string(), R"({ "a": 1 })");
  EXPECT_STREQ(root.to_string(), R"({ "a": 1 })");
}

TEST_F(JsonWriterTest, TextWithoutMemoryIsNullAndTheNextOneWhole) {
  empty_root root;
  root.to_string();
  wrapped_json::fail(call::copy_text);
  EXPECT_EQ(root.to_string(), nullptr);
  EXPECT_STREQ(root.to_string(), "{ }");
}

// Failures.

TEST_F(JsonWriterTest, RootThatCannotBeMadeTakesNothing) {
  wrapped_json::fail(call::new_object);
  json_writer root("s", "c", "m", "v");
  root.add_string("a", "b");
  root.add_int("c", 1);
  EXPECT_STREQ(root.to_string(), "null");
  EXPECT_THAT(wrapped_json::record(), Not(Contains(HasSubstr("add"))));
}

TEST_F(JsonWriterTest, MemberThatCannotBeMadeIsMissing) {
  wrapped_json::fail(call::new_string, 2);
  EXPECT_STREQ(json_writer("s", "c", "m", "v").to_string(),
               R"({ "version": "v", "cmd": "c", "ap-mac": "m" })");
  empty_root root;
  wrapped_json::fail(call::new_int);
  root.add_int("lost", 1);
  root.add_int("kept", 2);
  EXPECT_STREQ(root.to_string(), R"({ "kept": 2 })");
}

TEST_F(JsonWriterTest, MemberThatCannotBeAttachedIsMissingAndReleased) {
  empty_root root;
  wrapped_json::fail(call::object_add);
  root.add_string("lost", "1");
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add lost", "put"));
  root.add_string("kept", "2");
  EXPECT_STREQ(root.to_string(), R"({ "kept": "2" })");
}

TEST_F(JsonWriterTest, ChildThatCannotBeMadeIsMissingAndTakesNothing) {
  empty_root root;
  wrapped_json::fail(call::new_array);
  wrapped_json::fail(call::new_object);
  json_writer list = json_writer::child_array(root, "list");
  json_writer inner = json_writer::child_object(root, "inner");
  list.add_int("", 1);
  inner.add_string("a", "b");
  EXPECT_STREQ(root.to_string(), "{ }");
  EXPECT_STREQ(list.to_string(), "null");
}

TEST_F(JsonWriterTest, ChildOfAParentThatCouldNotBeMadeIsHarmless) {
  wrapped_json::fail(call::new_object);
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  json_writer inner = json_writer::child_object(list, "");
  list.add_int("", 1);
  inner.add_int("a", 1);
  EXPECT_STREQ(root.to_string(), "null");
}

TEST_F(JsonWriterTest, ChildThatCannotBeAttachedIsHarmless) {
  empty_root root;
  wrapped_json::fail(call::object_add);
  json_writer list = json_writer::child_array(root, "list");
  list.add_int("", 1);
  EXPECT_STREQ(root.to_string(), "{ }");
  json_writer second = json_writer::child_array(root, "second");
  wrapped_json::fail(call::array_add);
  json_writer inner = json_writer::child_object(second, "");
  inner.add_int("a", 1);
  EXPECT_STREQ(root.to_string(), R"({ "second": [ ] })");
}

} // namespace
} // namespace vemk
