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

// They are "version", "service", "cmd" and "ap-mac", whatever the order of the arguments.
TEST_F(JsonWriterTest, RootHasItsMembersInFixedOrder) {
  json_writer root("the service", "the cmd", "the mac", "the version");
  EXPECT_STREQ(root.to_string(),
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
  EXPECT_STREQ(empty_root().to_string(), "{ }");
}

// json_object_put is called for the root alone, not for its child.
TEST_F(JsonWriterTest, RootReleasesItsTreeOnce) {
  {
    empty_root root;
    json_writer child = json_writer::child_array(root, "list");
    child.add_int("", 1);
  }
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add list", "array_put 0", "put"));
}

// Members.

// "z", "a" and "empty" stay in this order, and an empty string value is kept.
TEST_F(JsonWriterTest, MembersAppearInTheOrderOfTheirAddition) {
  empty_root root;
  root.add_string("z", "last letter");
  root.add_int("a", -1);
  root.add_string("empty", "");
  EXPECT_STREQ(root.to_string(), R"({ "z": "last letter", "a": -1, "empty": "" })");
}

// 2147483647 and -2147483648 come out as they are.
TEST_F(JsonWriterTest, ExtremeNumbersAreKept) {
  empty_root root;
  root.add_int("max", INT_MAX);
  root.add_int("min", INT_MIN);
  EXPECT_STREQ(root.to_string(), R"({ "max": 2147483647, "min": -2147483648 })");
}

// A quote, a backslash and a line end get a backslash, "%s" stays.
TEST_F(JsonWriterTest, TextIsEscaped) {
  empty_root root;
  root.add_string("a", "\"\\\n%s");
  EXPECT_STREQ(root.to_string(), R"({ "a": "\"\\\n%s" })");
}

// "a" as "old" and then as 2 gives { "a": 2 }.
TEST_F(JsonWriterTest, SecondValueOfAKeyReplacesTheFirst) {
  empty_root root;
  root.add_string("a", "old");
  root.add_int("a", 2);
  EXPECT_STREQ(root.to_string(), R"({ "a": 2 })");
}

// Changing key and value after add_string changes nothing in the text.
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

// An array "list" and an object "inner" appear with what is added to them later.
TEST_F(JsonWriterTest, ChildrenBecomeMembersOfAnObject) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  json_writer inner = json_writer::child_object(root, "inner");
  list.add_string("ignored", "a");
  list.add_int("ignored", 2);
  inner.add_string("key", "value");
  EXPECT_STREQ(root.to_string(), R"({ "list": [ "a", 2 ], "inner": { "key": "value" } })");
}

// true makes [ ], false makes { }.
TEST_F(JsonWriterTest, FlagChoosesBetweenArrayAndObject) {
  empty_root root;
  json_writer list(true, root, "list");
  json_writer inner(false, root, "inner");
  EXPECT_STREQ(root.to_string(), R"({ "list": [ ], "inner": { } })");
}

// An object and an array in an array come in call order and without their keys.
TEST_F(JsonWriterTest, ChildrenOfAnArrayAreAppendedAndTheirKeyIgnored) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  json_writer object = json_writer::child_object(list, "ignored");
  json_writer array = json_writer::child_array(list, "ignored");
  object.add_int("a", 1);
  array.add_int("", 2);
  EXPECT_STREQ(root.to_string(), R"({ "list": [ { "a": 1 }, [ 2 ] ] })");
}

// An object in an array in an object in the root holds its number.
TEST_F(JsonWriterTest, ChildrenNestDeeply) {
  empty_root root;
  json_writer first = json_writer::child_object(root, "1");
  json_writer second = json_writer::child_array(first, "2");
  json_writer third = json_writer::child_object(second, "");
  third.add_int("n", 3);
  EXPECT_STREQ(root.to_string(), R"({ "1": { "2": [ { "n": 3 } ] } })");
}

// to_string of a child array is "[ 1 ]", without the root around it.
TEST_F(JsonWriterTest, ChildSerialisesItsOwnPart) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  list.add_int("", 1);
  EXPECT_STREQ(list.to_string(), "[ 1 ]");
}

// Values go to the next slot and children to the end, so the two do not follow the call order.

// Strings and numbers go to the slots 0, 1 and 2, each with json_object_array_put_idx.
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

// A value and then an object give [ 0, { } ].
TEST_F(JsonWriterTest, ChildAfterAValueComesBehindIt) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  list.add_int("", 0);
  json_writer child = json_writer::child_object(list, "");
  EXPECT_STREQ(list.to_string(), "[ 0, { } ]");
}

// After a value and a container the next value replaces the container at slot 1.
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

// Two values, a container and a value: the slots 0 and 1, an append, then slot 2, where it stands.
TEST_F(JsonWriterTest, ChildContainersDoNotAdvanceTheNextSlot) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  list.add_int("", 0);
  list.add_string("", "1");
  { const json_writer child = json_writer::child_array(list, ""); }
  EXPECT_STREQ(list.to_string(), R"([ 0, "1", [ ] ])");
  list.add_int("", 2);
  EXPECT_STREQ(list.to_string(), R"([ 0, "1", 2 ])");
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add list", "array_put 0", "array_put 1",
                                                  "array_add", "array_put 2"));
}

// A container in front of every value is appended at index 0, and the first value replaces it.
TEST_F(JsonWriterTest, FirstValueTakesTheSlotOfAContainerBeforeIt) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  { const json_writer child = json_writer::child_object(list, ""); }
  { const json_writer child = json_writer::child_object(list, ""); }
  list.add_int("", 7);
  EXPECT_STREQ(list.to_string(), "[ 7, { } ]");
}

// Values of an inner array start at its slot 0, whatever slot the outer one has reached.
TEST_F(JsonWriterTest, EveryArrayCountsItsOwnSlots) {
  empty_root root;
  json_writer outer = json_writer::child_array(root, "outer");
  outer.add_int("", 1);
  json_writer inner = json_writer::child_array(outer, "");
  inner.add_int("", 2);
  inner.add_int("", 3);
  EXPECT_STREQ(root.to_string(), R"({ "outer": [ 1, [ 2, 3 ] ] })");
}

// Serialising.

// to_string gives "{ }", with a member added that member, and the same again when called twice.
TEST_F(JsonWriterTest, EveryTextIsAFreshOneOfThePresentState) {
  empty_root root;
  EXPECT_STREQ(root.to_string(), "{ }");
  root.add_int("a", 1);
  EXPECT_STREQ(root.to_string(), R"({ "a": 1 })");
  EXPECT_STREQ(root.to_string(), R"({ "a": 1 })");
}

// Two calls make two copies with strdup, of which one is alive; none is after the writer's end.
TEST_F(JsonWriterTest, EveryTextFreesTheOneBeforeAndTheLastGoesWithTheWriter) {
  {
    empty_root root;
    json_writer list = json_writer::child_array(root, "list");
    root.to_string();
    EXPECT_EQ(wrapped_json::texts_alive(), 1u);
    root.to_string();
    EXPECT_EQ(wrapped_json::texts_made(), 2u);
    EXPECT_EQ(wrapped_json::texts_alive(), 1u);
    list.to_string();
    EXPECT_EQ(wrapped_json::texts_alive(), 2u);
  }
  EXPECT_EQ(wrapped_json::texts_made(), 3u);
  EXPECT_EQ(wrapped_json::texts_alive(), 0u);
}

// When strdup fails to_string is null, and at the next call "{ }".
TEST_F(JsonWriterTest, TextWithoutMemoryIsNullAndTheNextOneWhole) {
  empty_root root;
  root.to_string();
  wrapped_json::fail(call::copy_text);
  EXPECT_EQ(root.to_string(), nullptr);
  EXPECT_STREQ(root.to_string(), "{ }");
}

// Failures.

// Without an object nothing is ever added, and the text is "null".
TEST_F(JsonWriterTest, RootThatCannotBeMadeTakesNothing) {
  wrapped_json::fail(call::new_object);
  json_writer root("s", "c", "m", "v");
  root.add_string("a", "b");
  root.add_int("c", 1);
  EXPECT_STREQ(root.to_string(), "null");
  EXPECT_THAT(wrapped_json::record(), Not(Contains(HasSubstr("add"))));
}

// A failed json_object_new_string or json_object_new_int leaves its key out, the others in.
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

// A failed json_object_object_add is followed by json_object_put of its value.
TEST_F(JsonWriterTest, MemberThatCannotBeAttachedIsMissingAndReleased) {
  empty_root root;
  wrapped_json::fail(call::object_add);
  root.add_string("lost", "1");
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add lost", "put"));
  root.add_string("kept", "2");
  EXPECT_STREQ(root.to_string(), R"({ "kept": "2" })");
}

// It is released, and the next value takes its slot; one that cannot be made is never put.
TEST_F(JsonWriterTest, ValueThatDoesNotReachItsArrayLeavesItsSlotToTheNext) {
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
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

// Children and grandchildren of a null root take values, and the text is "null".
TEST_F(JsonWriterTest, ChildOfAParentThatCouldNotBeMadeIsHarmless) {
  wrapped_json::fail(call::new_object);
  empty_root root;
  json_writer list = json_writer::child_array(root, "list");
  json_writer inner = json_writer::child_object(list, "");
  list.add_int("", 1);
  inner.add_int("a", 1);
  EXPECT_STREQ(root.to_string(), "null");
}

// A failed attachment to an object or an array leaves the child out and releases it at once.
// What is added to such a child goes the same way.
TEST_F(JsonWriterTest, ChildThatCannotBeAttachedIsReleasedAndHarmless) {
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
  EXPECT_THAT(wrapped_json::record(), ElementsAre("object_add list", "put", "put",
                                                  "object_add second", "array_add", "put", "put"));
}

} // namespace
} // namespace vemk
