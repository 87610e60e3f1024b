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

/// A root without members of its own.
class empty_root : public json_writer {
public:
  empty_root() : json_writer("", "", "", "") {}
};

class JsonWriterTest : public testing::Test {
protected:
  JsonWriterTest() { wrapped_json::reset(); }
  ~JsonWriterTest() override { wrapped_json::reset(); }

  empty_root root;
};

/// The root has a list.
class JsonArrayWriterTest : public JsonWriterTest {
protected:
  void add_object() { json_writer::child_object(list, "ignored"); }
  void add_array() { json_writer::child_array(list, "ignored"); }

  json_writer list = json_writer::child_array(root, "list");
};

// The root message.

// They are "version", "service", "cmd" and "ap-mac", whatever the order of the arguments.
TEST_F(JsonWriterTest, RootHasItsMembersInFixedOrder) {
  json_writer full("the service", "the cmd", "the mac", "the version");
  EXPECT_STREQ(full.to_string(),
               R"({ "version": "the version", "service": "the service", "cmd": "the cmd", )"
               R"("ap-mac": "the mac" })");
}

// Each of the four may be ""; an empty ap-mac leaves version, service and cmd; four leave "{ }".
TEST_F(JsonWriterTest, EmptyValueLeavesItsKeyOut) {
  EXPECT_STREQ(json_writer("s", "c", "m", "").to_string(),
               R"({ "service": "s", "cmd": "c", "ap-mac": "m" })");
  EXPECT_STREQ(json_writer("", "c", "m", "v").to_string(),
               R"({ "version": "v", "cmd": "c", "ap-mac": "m" })");
  EXPECT_STREQ(json_writer("s", "", "m", "v").to_string(),
               R"({ "version": "v", "service": "s", "ap-mac": "m" })");
  EXPECT_STREQ(json_writer("internal-ipc", "connected", "", "2.0").to_string(),
               R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })");
  EXPECT_STREQ(root.to_string(), "{ }");
}

// json_object_put is called for the root alone, not for its child.
TEST_F(JsonWriterTest, RootReleasesItsTreeOnce) {
  {
    empty_root released;
    json_writer child = json_writer::child_array(released, "list");
    child.add_int("", 1);
  }
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add list", "array_put 0", "put"));
}

// Members.

// "z", "a", "empty" in this order; the extreme numbers are kept; a quote, \ and \n get a backslash.
TEST_F(JsonWriterTest, MembersAppearInTheOrderOfTheirAddition) {
  root.add_string("z", "\"\\\n%s");
  root.add_int("a", -1);
  root.add_string("empty", "");
  root.add_int("max", INT_MAX);
  root.add_int("min", INT_MIN);
  EXPECT_STREQ(root.to_string(), R"({ "z": "\"\\\n%s", "a": -1, "empty": "", )"
                                 R"("max": 2147483647, "min": -2147483648 })");
}

// "a" as "old" and then as 2 gives { "a": 2 }.
TEST_F(JsonWriterTest, SecondValueOfAKeyReplacesTheFirst) {
  root.add_string("a", "old");
  root.add_int("a", 2);
  EXPECT_STREQ(root.to_string(), R"({ "a": 2 })");
}

// Changing key and value after add_string changes nothing in the text.
TEST_F(JsonWriterTest, StringArgumentsAreCopied) {
  std::string key = "key";
  std::string value = "value";
  root.add_string(key.c_str(), value.c_str());
  key = "xxx";
  value = "yyyyy";
  EXPECT_STREQ(root.to_string(), R"({ "key": "value" })");
}

// Children.

// An array and an object appear with what is added to them later; true makes [ ], false { }.
TEST_F(JsonArrayWriterTest, ChildrenBecomeMembersOfAnObject) {
  json_writer inner = json_writer::child_object(root, "inner");
  json_writer flagged_list(true, root, "true");
  json_writer flagged_object(false, root, "false");
  list.add_string("ignored", "a");
  list.add_int("ignored", 2);
  inner.add_string("key", "value");
  EXPECT_STREQ(root.to_string(), R"({ "list": [ "a", 2 ], "inner": { "key": "value" }, )"
                                 R"("true": [ ], "false": { } })");
}

// They nest in call order without their keys; a child's to_string has no root around it.
TEST_F(JsonArrayWriterTest, ChildrenOfAnArrayAreAppendedAndTheirKeyIgnored) {
  json_writer object = json_writer::child_object(list, "ignored");
  json_writer array = json_writer::child_array(list, "ignored");
  json_writer inner = json_writer::child_array(object, "2");
  json_writer::child_object(inner, "").add_int("n", 3);
  array.add_int("", 2);
  EXPECT_STREQ(list.to_string(), R"([ { "2": [ { "n": 3 } ] }, [ 2 ] ])");
  EXPECT_STREQ(root.to_string(), R"({ "list": [ { "2": [ { "n": 3 } ] }, [ 2 ] ] })");
}

// Values go to the next slot and children to the end, so the two do not follow the call order.

// Strings and numbers go to the slots 0, 1 and 2, each with json_object_array_put_idx.
TEST_F(JsonArrayWriterTest, ValuesFillSlotsFromTheFront) {
  list.add_string("", "0");
  list.add_int("", 1);
  list.add_string("", "2");
  EXPECT_STREQ(list.to_string(), R"([ "0", 1, "2" ])");
  EXPECT_THAT(wrapped_json::record(),
              ElementsAre("object_add list", "array_put 0", "array_put 1", "array_put 2"));
}

// [ 0, { } ], then a value takes slot 1; each next value takes the slot behind the last value's.
TEST_F(JsonArrayWriterTest, ValueAfterAChildTakesTheChildsSlot) {
  list.add_int("", 0);
  add_object();
  EXPECT_STREQ(list.to_string(), "[ 0, { } ]");
  list.add_int("", 1);
  EXPECT_STREQ(list.to_string(), "[ 0, 1 ]");
  add_array();
  EXPECT_STREQ(list.to_string(), "[ 0, 1, [ ] ]");
  list.add_string("", "2");
  list.add_int("", 3);
  EXPECT_STREQ(list.to_string(), R"([ 0, 1, "2", 3 ])");
  EXPECT_THAT(wrapped_json::record(),
              ElementsAre("object_add list", "array_put 0", "array_add", "array_put 1", "array_add",
                          "array_put 2", "array_put 3"));
}

// A container in front of every value is appended at index 0, and the first value replaces it.
TEST_F(JsonArrayWriterTest, FirstValueTakesTheSlotOfAContainerBeforeIt) {
  add_object();
  add_object();
  list.add_int("", 7);
  EXPECT_STREQ(list.to_string(), "[ 7, { } ]");
}

// Values of an inner array start at its slot 0, whatever slot the outer one has reached.
TEST_F(JsonArrayWriterTest, EveryArrayCountsItsOwnSlots) {
  list.add_int("", 1);
  json_writer inner = json_writer::child_array(list, "");
  inner.add_int("", 2);
  inner.add_int("", 3);
  EXPECT_STREQ(root.to_string(), R"({ "list": [ 1, [ 2, 3 ] ] })");
}

// Serialising.

// to_string gives "{ }", with a member added that member, and the same again when called twice.
TEST_F(JsonWriterTest, EveryTextIsAFreshOneOfThePresentState) {
  EXPECT_STREQ(root.to_string(), "{ }");
  root.add_int("a", 1);
  EXPECT_STREQ(root.to_string(), R"({ "a": 1 })");
  EXPECT_STREQ(root.to_string(), R"({ "a": 1 })");
}

// Two calls make two copies with strdup, of which one is alive; none is after the writer's end.
TEST_F(JsonWriterTest, EveryTextFreesTheOneBeforeAndTheLastGoesWithTheWriter) {
  {
    empty_root writer;
    json_writer child = json_writer::child_array(writer, "list");
    writer.to_string();
    EXPECT_EQ(wrapped_json::texts_alive(), 1u);
    writer.to_string();
    EXPECT_EQ(wrapped_json::texts_made(), 2u);
    EXPECT_EQ(wrapped_json::texts_alive(), 1u);
    child.to_string();
    EXPECT_EQ(wrapped_json::texts_alive(), 2u);
  }
  EXPECT_EQ(wrapped_json::texts_made(), 3u);
  EXPECT_EQ(wrapped_json::texts_alive(), 0u);
}

// When strdup fails to_string is null, and at the next call "{ }".
TEST_F(JsonWriterTest, TextWithoutMemoryIsNullAndTheNextOneWhole) {
  root.to_string();
  wrapped_json::fail(call::copy_text);
  EXPECT_EQ(root.to_string(), nullptr);
  EXPECT_STREQ(root.to_string(), "{ }");
}

// Failures.

// Without an object nothing is ever added, and the text is "null".
TEST_F(JsonWriterTest, RootThatCannotBeMadeTakesNothing) {
  wrapped_json::fail(call::new_object);
  json_writer failed("s", "c", "m", "v");
  failed.add_string("a", "b");
  failed.add_int("c", 1);
  EXPECT_STREQ(failed.to_string(), "null");
  EXPECT_THAT(wrapped_json::record(), Not(Contains(HasSubstr("add"))));
}

// A failed json_object_new_string or json_object_new_int leaves its key out, the others in.
TEST_F(JsonWriterTest, MemberThatCannotBeMadeIsMissing) {
  wrapped_json::fail(call::new_string, 2);
  EXPECT_STREQ(json_writer("s", "c", "m", "v").to_string(),
               R"({ "version": "v", "cmd": "c", "ap-mac": "m" })");
  wrapped_json::fail(call::new_int);
  root.add_int("lost", 1);
  root.add_int("kept", 2);
  EXPECT_STREQ(root.to_string(), R"({ "kept": 2 })");
}

// A failed json_object_object_add is followed by json_object_put of its value.
TEST_F(JsonWriterTest, MemberThatCannotBeAttachedIsMissingAndReleased) {
  wrapped_json::fail(call::object_add);
  root.add_string("lost", "1");
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add lost", "put"));
  root.add_string("kept", "2");
  EXPECT_STREQ(root.to_string(), R"({ "kept": "2" })");
}

// It is released, and the next value takes its slot; one that cannot be made is never put.
TEST_F(JsonArrayWriterTest, ValueThatDoesNotReachItsArrayLeavesItsSlotToTheNext) {
  wrapped_json::fail(call::array_put);
  list.add_string("", "lost");
  wrapped_json::fail(call::new_int);
  list.add_int("", 1);
  list.add_string("", "kept");
  EXPECT_STREQ(list.to_string(), R"([ "kept" ])");
  EXPECT_THAT(wrapped_json::record(),
              ElementsAre("object_add list", "array_put 0", "put", "put null", "array_put 0"));
}

// A failed new array and new object leave the root "{ }"; adding to them does nothing.
TEST_F(JsonWriterTest, ChildThatCannotBeMadeIsMissingAndTakesNothing) {
  wrapped_json::fail(call::new_array);
  wrapped_json::fail(call::new_object);
  json_writer list = json_writer::child_array(root, "list");
  json_writer inner = json_writer::child_object(root, "inner");
  list.add_int("", 1);
  inner.add_string("a", "b");
  EXPECT_STREQ(root.to_string(), "{ }");
  EXPECT_STREQ(list.to_string(), "null");
}

// Children and grandchildren of a null root take values, and the text is "null".
TEST_F(JsonWriterTest, ChildOfAParentThatCouldNotBeMadeIsHarmless) {
  wrapped_json::fail(call::new_object);
  empty_root failed;
  json_writer child = json_writer::child_array(failed, "list");
  json_writer inner = json_writer::child_object(child, "");
  child.add_int("", 1);
  inner.add_int("a", 1);
  EXPECT_STREQ(failed.to_string(), "null");
}

// A failed attachment to an object or an array leaves the child out and releases it at once.
// What is added to such a child goes the same way.
TEST_F(JsonWriterTest, ChildThatCannotBeAttachedIsReleasedAndHarmless) {
  wrapped_json::fail(call::object_add);
  json_writer list = json_writer::child_array(root, "list");
  list.add_int("", 1);
  EXPECT_STREQ(root.to_string(), "{ }");
  json_writer second = json_writer::child_array(root, "second");
  wrapped_json::fail(call::array_add);
  json_writer inner = json_writer::child_object(second, "");
  inner.add_int("a", 1);
  EXPECT_STREQ(root.to_string(), R"({ "second": [ ] })");
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add list", "put", "put",
                                                  "object_add second", "array_add", "put", "put"));
}

} // namespace
} // namespace vemk
