// Tests of the JSON layer: handles and reference counts, typed access,
// copy-on-write, the text writer with its sorted-keys flag, and the parsers.
#include "json/Json.h"

#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <jansson.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ios>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace json {

// Failure messages show documents as text instead of raw bytes.
void PrintTo(Value const& v, std::ostream* os) {
  if (v.empty()) {
    *os << "<empty>";
    return;
  }
  char* text = json_dumps(v.get(), JSON_ENCODE_ANY | JSON_COMPACT);
  *os << (text ? text : "<unprintable>");
  std::free(text);
}
void PrintTo(Object const& v, std::ostream* os) { PrintTo(static_cast<Value const&>(v), os); }
void PrintTo(Array const& v, std::ostream* os) { PrintTo(static_cast<Value const&>(v), os); }

}  // namespace json

namespace {

using qxtest::jsonExcMessage;
using qxtest::parse;

constexpr std::size_t kStaticMarker = static_cast<std::size_t>(-1);

json::Value real(double d) { return json::Value(json_real(d)); }
json::Value jsonFalse() { return json::Value(json_false()); }
json::Value jsonNull() { return json::Value(json_null()); }
json::Value integer(json_int_t i) { return json::Value(i); }
json::Value str(std::string const& s) { return json::Value(s); }

json::Array parseArray(std::string const& text) { return json::strToArray(text.data(), text.size()); }

std::string text(json::Object const& obj, bool sorted) { return json::jsonToString(obj, sorted); }
std::string text(json::Array const& arr) {
  std::ostringstream os;
  os << arr;
  return os.str();
}

// One value of each kind, with its type name.
struct Kind {
  char const* name;
  json::Value value;
  char const* typeName;
};

std::vector<Kind> allKinds() {
  json::Object obj;
  obj.setAt("a", integer(1));
  json::Array arr;
  arr.append(integer(1));
  return {
      {"empty handle", json::Value(), "empty"},
      {"object", obj, "object"},
      {"array", arr, "array"},
      {"string", str("7"), "string"},
      {"integer", integer(7), "integer"},
      {"real", real(7.0), "float"},
      {"true", json::Value::makeTrue(), "boolean"},
      {"false", jsonFalse(), "boolean"},
      {"null", jsonNull(), "null"},
  };
}

// ---------------------------------------------------------------- json::Value

TEST(JsonValue, DefaultHandleIsEmpty) {
  json::Value v;
  EXPECT_TRUE(v.empty());
  EXPECT_EQ(nullptr, v.get());
  EXPECT_FALSE(v.isObject());
  EXPECT_FALSE(v.isArray());
  EXPECT_FALSE(v.isString());
  EXPECT_FALSE(v.isInteger());
  EXPECT_FALSE(v.isTrue());
}

TEST(JsonValue, Type2StringNamesEveryKind) {
  for (Kind const& k : allKinds()) {
    EXPECT_EQ(k.typeName, k.value.type2String()) << k.name;
  }
}

TEST(JsonValue, Type2StringOfEmptyHandleIsEmptyNotNull) {
  EXPECT_EQ("empty", json::Value().type2String());
  EXPECT_EQ("null", jsonNull().type2String());
}

TEST(JsonValue, Type2StringOfTrueAndFalseIsBoolean) {
  EXPECT_EQ("boolean", json::Value::makeTrue().type2String());
  EXPECT_EQ("boolean", jsonFalse().type2String());
}

TEST(JsonValue, Type2StringOfRealIsFloat) {
  EXPECT_EQ("float", real(3.0).type2String());
  EXPECT_EQ("float", real(-0.25).type2String());
}

TEST(JsonValue, OnCastErrMessageNamesOwnTypeThenExpectedType) {
  for (Kind const& k : allKinds()) {
    SCOPED_TRACE(k.name);
    EXPECT_EQ(std::string("JSON error: Wrong type: ") + k.typeName + ". Expected type: integer",
              jsonExcMessage([&] { k.value.onCastErr("integer"); }));
    EXPECT_EQ(std::string("JSON error: Wrong type: ") + k.typeName + ". Expected type: boolean",
              jsonExcMessage([&] { k.value.onCastErr("boolean"); }));
  }
}

TEST(JsonValue, OnCastErrExamplesOfStringAndMissingMember) {
  json::Object obj;
  obj.setAt("name", str("abc"));
  EXPECT_EQ("JSON error: Wrong type: string. Expected type: integer",
            jsonExcMessage([&] { obj["name"].asInt(); }));
  EXPECT_EQ("JSON error: Wrong type: empty. Expected type: integer",
            jsonExcMessage([&] { obj["missing"].asInt(); }));
}

TEST(JsonExc, IsARuntimeErrorCarryingOnlyItsMessage) {
  static_assert(std::is_base_of<std::runtime_error, json::Exc>::value,
                "json::Exc derives from std::runtime_error");
  static_assert(sizeof(json::Exc) == sizeof(std::runtime_error),
                "json::Exc carries nothing but the message");
  static_assert(!std::is_polymorphic<json::Value>::value, "json::Value is not polymorphic");
  json::Exc const e("JSON error: something");
  EXPECT_STREQ("JSON error: something", e.what());
  try {
    jsonNull().onCastErr("string");
    FAIL() << "onCastErr returned";
  } catch (std::runtime_error const& caught) {
    EXPECT_STREQ("JSON error: Wrong type: null. Expected type: string", caught.what());
  }
}

TEST(JsonValue, AsIntReturnsTheSixtyFourBitValue) {
  json_int_t const cases[] = {0,
                              -1,
                              42,
                              json_int_t{1} << 40,
                              std::numeric_limits<json_int_t>::max(),
                              std::numeric_limits<json_int_t>::min()};
  for (json_int_t i : cases) {
    EXPECT_EQ(i, integer(i).asInt()) << i;
  }
}

TEST(JsonValue, AsIntOnRealThrowsWithBothTypeNames) {
  EXPECT_EQ("JSON error: Wrong type: float. Expected type: integer",
            jsonExcMessage([] { real(3.0).asInt(); }));
}

TEST(JsonValue, AsIntRefusesEveryNonInteger) {
  for (Kind const& k : allKinds()) {
    if (k.value.isInteger()) continue;
    EXPECT_EQ(std::string("JSON error: Wrong type: ") + k.typeName + ". Expected type: integer",
              jsonExcMessage([&] { k.value.asInt(); }))
        << k.name;
  }
}

TEST(JsonValue, CStrPointsIntoTheNodesOwnText) {
  json::Value const v = str("hello");
  EXPECT_STREQ("hello", v.c_str());
  EXPECT_EQ(json_string_value(v.get()), v.c_str());
}

TEST(JsonValue, CStrOnNonStringThrowsExpectingString) {
  for (Kind const& k : allKinds()) {
    if (k.value.isString()) continue;
    EXPECT_EQ(std::string("JSON error: Wrong type: ") + k.typeName + ". Expected type: string",
              jsonExcMessage([&] { k.value.c_str(); }))
        << k.name;
  }
}

TEST(JsonValue, AsStringSafeReturnsEveryByteOfAString) {
  EXPECT_EQ("abc", str("abc").asStringSafe());
  EXPECT_EQ("", str("").asStringSafe());
  std::string const withNul("a\0b", 3);
  EXPECT_EQ(withNul, str(withNul).asStringSafe());
}

TEST(JsonValue, AsStringSafeOnIntegerNullAndEmptyIsEmptyString) {
  EXPECT_EQ("", integer(12).asStringSafe());
  EXPECT_EQ("", jsonNull().asStringSafe());
  EXPECT_EQ("", json::Value().asStringSafe());
}

TEST(JsonValue, AsStringSafeNeverThrows) {
  for (Kind const& k : allKinds()) {
    std::string got = "<threw>";
    EXPECT_NO_THROW(got = k.value.asStringSafe()) << k.name;
    EXPECT_EQ(k.value.isString() ? "7" : "", got) << k.name;
  }
}

TEST(JsonValue, IsTrueOnlyForTheJsonTrue) {
  for (Kind const& k : allKinds()) {
    EXPECT_EQ(std::string(k.name) == "true", k.value.isTrue()) << k.name;
  }
  EXPECT_FALSE(str("true").isTrue());
  EXPECT_FALSE(integer(1).isTrue());
}

TEST(JsonValue, StringConstructorsDoNotCheckUtf8) {
  json::Value const fromStd(std::string("a\xff\xfe"));
  ASSERT_TRUE(fromStd.isString());
  EXPECT_EQ("a\xff\xfe", fromStd.asStringSafe());
  json::Value const fromC("\xc0\xaf");
  ASSERT_TRUE(fromC.isString());
  EXPECT_EQ("\xc0\xaf", fromC.asStringSafe());
}

TEST(JsonValue, IntegerConstructorMakesAnIntegerNode) {
  json::Value const v(json_int_t{-5});
  ASSERT_TRUE(v.isInteger());
  EXPECT_EQ(-5, json_integer_value(v.get()));
  EXPECT_EQ(1u, v.get()->refcount);
}

TEST(JsonValue, MakeTrueHoldsTheStaticTrue) {
  json::Value const v = json::Value::makeTrue();
  EXPECT_EQ(json_true(), v.get());
  EXPECT_TRUE(v.isTrue());
}

TEST(JsonValue, EqualityIsDeep) {
  json::Object a;
  a.setAt("n", integer(1));
  a.setAt("s", str("x"));
  json::Object b;
  b.setAt("s", str("x"));
  b.setAt("n", integer(1));
  EXPECT_NE(a.get(), b.get());
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  b.setAt("n", integer(2));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
  EXPECT_TRUE(integer(3) == integer(3));
  EXPECT_FALSE(integer(3) == real(3.0));
}

TEST(JsonValue, EmptyEqualsOnlyEmpty) {
  EXPECT_TRUE(json::Value() == json::Value());
  EXPECT_FALSE(json::Value() == jsonNull());
  EXPECT_FALSE(jsonNull() == json::Value());
  EXPECT_TRUE(json::Value() != str(""));
}

TEST(JsonValue, TakenReferenceIsNotCountedAgain) {
  json_t* node = json_integer(5);
  json_incref(node);  // the test's own reference keeps the node observable
  {
    json::Value const v(node);
    EXPECT_EQ(2u, node->refcount);
  }
  EXPECT_EQ(1u, node->refcount);
  json_decref(node);
}

TEST(JsonValue, CopySharesTheNodeAndAddsOneReference) {
  json::Value const a = str("shared");
  json::Value const b(a);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_EQ(2u, a.get()->refcount);
  {
    json::Value const c = b;
    EXPECT_EQ(3u, a.get()->refcount);
  }
  EXPECT_EQ(2u, a.get()->refcount);
}

TEST(JsonValue, CopyAssignmentMovesTheReferenceToTheNewNode) {
  json::Value const a = str("a");
  json::Value const b = str("b");
  json::Value c = a;
  EXPECT_EQ(2u, a.get()->refcount);
  c = b;
  EXPECT_EQ(b.get(), c.get());
  EXPECT_EQ(1u, a.get()->refcount);
  EXPECT_EQ(2u, b.get()->refcount);
  c = json::Value();
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(1u, b.get()->refcount);
}

TEST(JsonValue, SelfCopyAssignmentKeepsTheNode) {
  json::Value v = str("self");
  json_t* const node = v.get();
  json::Value& same = v;
  v = same;
  EXPECT_EQ(node, v.get());
  EXPECT_EQ(1u, node->refcount);
  EXPECT_EQ("self", v.asStringSafe());
}

TEST(JsonValue, MoveConstructionLeavesSourceEmpty) {
  json::Value a = str("moved");
  json_t* const node = a.get();
  json::Value const b(std::move(a));
  EXPECT_TRUE(a.empty());  // NOLINT(bugprone-use-after-move): the moved-from state is the subject
  EXPECT_EQ(node, b.get());
  EXPECT_EQ(1u, node->refcount);

  json::Object obj;
  obj.setAt("k", integer(1));
  json_t* const objNode = obj.get();
  json::Object const obj2(std::move(obj));
  EXPECT_TRUE(obj.empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(objNode, obj2.get());
  EXPECT_EQ(1u, objNode->refcount);
}

TEST(JsonValue, MoveAssignmentLeavesSourceEmptyAndDropsTheOldNode) {
  json::Value const keepOld = str("old");
  json::Value target = keepOld;
  EXPECT_EQ(2u, keepOld.get()->refcount);
  json::Value source = str("new");
  json_t* const node = source.get();
  target = std::move(source);
  EXPECT_TRUE(source.empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(node, target.get());
  EXPECT_EQ(1u, node->refcount);
  EXPECT_EQ(1u, keepOld.get()->refcount);

  json::Array arrSource;
  json::Array arrTarget;
  json_t* const arrNode = arrSource.get();
  arrTarget = std::move(arrSource);
  EXPECT_TRUE(arrSource.empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(arrNode, arrTarget.get());
}

TEST(JsonValue, StaticTrueFalseNullAreNeverCounted) {
  struct Static {
    char const* name;
    json_t* node;
  };
  Static const statics[] = {{"true", json_true()}, {"false", json_false()}, {"null", json_null()}};
  for (Static const& s : statics) {
    SCOPED_TRACE(s.name);
    ASSERT_EQ(kStaticMarker, s.node->refcount);
    {
      json::Value a(s.node);
      json::Value b = a;
      json::Value c;
      c = b;
      json::Value d(std::move(c));
      EXPECT_EQ(kStaticMarker, s.node->refcount);
      json::Object obj;
      obj.setAt("flag", a);
      json::Value const member = obj["flag"];
      EXPECT_EQ(s.node, member.get());
      json::Array arr;
      arr.append(b);
      arr.append(d);
      json::Value const element = arr[1];
      EXPECT_EQ(s.node, element.get());
      EXPECT_EQ(kStaticMarker, s.node->refcount);
    }
    EXPECT_EQ(kStaticMarker, s.node->refcount);
  }
}

TEST(JsonValue, HandlesDropTheirReferencesWhenDestroyed) {
  json_t* const node = json_object();
  json_incref(node);  // the test's own reference keeps the node observable
  {
    json::Value const a(node);
    EXPECT_EQ(2u, node->refcount);
    {
      json::Object const b(a);
      json::Value const c = b;
      EXPECT_EQ(4u, node->refcount);
    }
    EXPECT_EQ(2u, node->refcount);
  }
  EXPECT_EQ(1u, node->refcount);
  json_decref(node);
}

// Records which blocks jansson frees while installed.
std::vector<void*>& freedBlocks() {
  static std::vector<void*> blocks;
  return blocks;
}
void recordingFree(void* p) {
  freedBlocks().push_back(p);
  std::free(p);
}

class JanssonFreeHook {
 public:
  JanssonFreeHook() {
    json_get_alloc_funcs(&m_malloc, &m_free);
    freedBlocks().clear();
    json_set_alloc_funcs(std::malloc, recordingFree);
  }
  ~JanssonFreeHook() { json_set_alloc_funcs(m_malloc, m_free); }
  JanssonFreeHook(JanssonFreeHook const&) = delete;
  JanssonFreeHook& operator=(JanssonFreeHook const&) = delete;
  static bool freed(void const* p) {
    return std::find(freedBlocks().begin(), freedBlocks().end(), p) != freedBlocks().end();
  }

 private:
  json_malloc_t m_malloc = nullptr;
  json_free_t m_free = nullptr;
};

TEST(JsonValue, NodeIsFreedWithItsLastHandle) {
  JanssonFreeHook hook;
  json_t* node = nullptr;
  {
    json::Object a;
    node = a.get();
    a.setAt("k", integer(1));
    {
      json::Object const b = a;
      json::Value const c(b);
    }
    EXPECT_FALSE(JanssonFreeHook::freed(node)) << "freed while a handle still holds it";
  }
  EXPECT_TRUE(JanssonFreeHook::freed(node)) << "not freed with its last handle";
}

// --------------------------------------------------------------- json::Object

TEST(JsonObject, DefaultConstructedIsANewEmptyObject) {
  json::Object const a;
  json::Object const b;
  EXPECT_FALSE(a.empty());
  EXPECT_TRUE(a.isObject());
  EXPECT_EQ(0u, a.size());
  EXPECT_NE(a.get(), b.get());
  EXPECT_EQ(1u, a.get()->refcount);
}

TEST(JsonObject, FromValueSharesTheObjectNode) {
  json::Object a;
  a.setAt("k", integer(1));
  json::Value const v = a;
  json::Object const b(v);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_EQ(3u, a.get()->refcount);
  EXPECT_EQ(1, b["k"].asInt());
}

TEST(JsonObject, FromNonObjectThrowsExpectingObject) {
  for (Kind const& k : allKinds()) {
    if (k.value.isObject()) continue;
    EXPECT_EQ(std::string("JSON error: Wrong type: ") + k.typeName + ". Expected type: object",
              jsonExcMessage([&] { json::Object const o(k.value); }))
        << k.name;
  }
}

TEST(JsonObject, IndexReturnsMemberWithItsOwnReference) {
  json::Object obj;
  obj.setAt("s", str("text"));
  json::Value const member = obj["s"];
  ASSERT_TRUE(member.isString());
  EXPECT_EQ(json_object_get(obj.get(), "s"), member.get());
  EXPECT_EQ(2u, member.get()->refcount);
  EXPECT_EQ("text", member.asStringSafe());
}

TEST(JsonObject, IndexOfMissingKeyIsEmptyAndTypedReadReportsEmpty) {
  json::Object obj;
  obj.setAt("present", integer(1));
  json::Value missing;
  EXPECT_NO_THROW(missing = obj["absent"]);
  EXPECT_TRUE(missing.empty());
  EXPECT_EQ("JSON error: Wrong type: empty. Expected type: string",
            jsonExcMessage([&] { obj["absent"].c_str(); }));
}

TEST(JsonObject, IndexOnEmptyHandleIsEmpty) {
  json::Object moved;
  json::Object const keeper(std::move(moved));
  EXPECT_TRUE(moved.empty());  // NOLINT(bugprone-use-after-move)
  json::Value got = str("sentinel");
  EXPECT_NO_THROW(got = moved["k"]);
  EXPECT_TRUE(got.empty());
  EXPECT_EQ(0u, moved.size());
}

TEST(JsonObject, SetAtAddsAndReplacesMembers) {
  json::Object obj;
  obj.setAt("a", integer(1));
  obj.setAt("b", str("two"));
  EXPECT_EQ(2u, obj.size());
  obj.setAt("a", str("one"));
  EXPECT_EQ(2u, obj.size());
  EXPECT_EQ("one", obj["a"].asStringSafe());
  EXPECT_EQ("two", obj["b"].asStringSafe());
}

TEST(JsonObject, SetAtTakesItsOwnReferenceToTheValue) {
  json::Object obj;
  json::Value const v = str("v");
  obj.setAt("k", v);
  EXPECT_EQ(v.get(), json_object_get(obj.get(), "k"));
  EXPECT_EQ(2u, v.get()->refcount);
}

TEST(JsonObject, SetAtStoresKeyWithoutUtf8Check) {
  json::Object obj;
  obj.setAt("k\xff", integer(9));
  EXPECT_EQ(1u, obj.size());
  EXPECT_EQ(9, obj["k\xff"].asInt());
}

TEST(JsonObject, SetAtEmptyValueThrowsNamingKeyAndType) {
  json::Object obj;
  obj.setAt("keep", integer(1));
  EXPECT_EQ("JSON error: object element can not be set. Key: k. New value type: empty",
            jsonExcMessage([&] { obj.setAt("k", json::Value()); }));
  EXPECT_EQ(1u, obj.size());
  EXPECT_TRUE(obj["k"].empty());
}

TEST(JsonObject, SetAtObjectIntoItselfThrowsNamingKeyAndType) {
  json::Object obj;
  EXPECT_EQ("JSON error: object element can not be set. Key: me. New value type: object",
            jsonExcMessage([&] { obj.setAt("me", obj); }));
  EXPECT_EQ(0u, obj.size());
  EXPECT_EQ(1u, obj.get()->refcount);
}

TEST(JsonObject, SetAtThroughSharedHandleLeavesOtherHandleWithoutNewMember) {
  json::Object a;
  a.setAt("old", integer(1));
  json::Object const b = a;
  a.setAt("new", integer(2));
  EXPECT_EQ(2u, a.size());
  EXPECT_EQ(2, a["new"].asInt());
  EXPECT_EQ(1u, b.size());
  EXPECT_TRUE(b["new"].empty());
  EXPECT_EQ(1, b["old"].asInt());
  EXPECT_NE(a.get(), b.get());
  EXPECT_EQ(1u, a.get()->refcount);
  EXPECT_EQ(1u, b.get()->refcount);
}

TEST(JsonObject, SetAtThroughCopyLeavesOriginalUnchanged) {
  json::Object original;
  original.setAt("k", str("before"));
  json::Object copy = original;
  copy.setAt("k", str("after"));
  EXPECT_EQ("before", original["k"].asStringSafe());
  EXPECT_EQ("after", copy["k"].asStringSafe());
}

TEST(JsonObject, EachSharingHandleGetsItsOwnCopy) {
  json::Object a;
  a.setAt("n", integer(0));
  json::Object b = a;
  json::Object c = a;
  b.setAt("n", integer(1));
  c.setAt("n", integer(2));
  EXPECT_EQ(0, a["n"].asInt());
  EXPECT_EQ(1, b["n"].asInt());
  EXPECT_EQ(2, c["n"].asInt());
}

TEST(JsonObject, SetAtOnSoleHandleChangesNodeInPlace) {
  json::Object obj;
  obj.setAt("a", integer(1));
  json_t* const before = obj.get();
  ASSERT_EQ(1u, before->refcount);
  obj.setAt("b", integer(2));
  EXPECT_EQ(before, obj.get());
  obj.setAt("a", integer(3));
  EXPECT_EQ(before, obj.get());
  EXPECT_EQ(3, obj["a"].asInt());
}

TEST(JsonObject, SetAtOnSharedNodeCopiesItShallowly) {
  json::Object inner;
  inner.setAt("x", integer(1));
  json::Object outer;
  outer.setAt("inner", inner);
  json::Object copy = outer;
  copy.setAt("other", integer(2));
  EXPECT_NE(outer.get(), copy.get());
  EXPECT_EQ(outer["inner"].get(), copy["inner"].get());
  EXPECT_EQ(inner.get(), copy["inner"].get());
}

TEST(JsonObject, NestedMemberModifiedThroughItsOwnHandleDoesNotShowThroughParents) {
  json::Object outer;
  {
    json::Object inner;
    inner.setAt("x", integer(1));
    outer.setAt("inner", inner);
  }
  json::Object const copy = outer;
  json::Object nested(outer["inner"]);
  nested.setAt("y", integer(2));
  EXPECT_EQ(2u, nested.size());
  EXPECT_EQ(1u, json::Object(outer["inner"]).size());
  EXPECT_EQ(1u, json::Object(copy["inner"]).size());
}

TEST(JsonObject, FailedSetAtOnSharedNodeLeavesBothDocumentsUnchanged) {
  json::Object a;
  a.setAt("k", integer(1));
  json::Object const b = a;
  EXPECT_EQ("JSON error: object element can not be set. Key: bad. New value type: empty",
            jsonExcMessage([&] { a.setAt("bad", json::Value()); }));
  EXPECT_EQ(1u, a.size());
  EXPECT_EQ(1, a["k"].asInt());
  EXPECT_EQ(1u, b.size());
  EXPECT_EQ(1, b["k"].asInt());
}

// ---------------------------------------------------------------- json::Array

TEST(JsonArray, DefaultConstructedIsANewEmptyArray) {
  json::Array const a;
  json::Array const b;
  EXPECT_TRUE(a.isArray());
  EXPECT_EQ(0u, a.size());
  EXPECT_NE(a.get(), b.get());
}

TEST(JsonArray, FromNonArrayThrowsExpectingArray) {
  for (Kind const& k : allKinds()) {
    if (k.value.isArray()) continue;
    EXPECT_EQ(std::string("JSON error: Wrong type: ") + k.typeName + ". Expected type: array",
              jsonExcMessage([&] { json::Array const a(k.value); }))
        << k.name;
  }
}

TEST(JsonArray, IndexReturnsElementOrEmptyPastTheEnd) {
  json::Array arr;
  arr.append(str("zero"));
  arr.append(integer(1));
  EXPECT_EQ("zero", arr[0].asStringSafe());
  EXPECT_EQ(1, arr[1].asInt());
  EXPECT_EQ(2u, arr[1].get()->refcount);
  EXPECT_TRUE(arr[2].empty());
  EXPECT_TRUE(arr[std::numeric_limits<std::size_t>::max()].empty());
}

TEST(JsonArray, AppendAddsAtTheEndAndTakesItsOwnReference) {
  json::Array arr;
  json::Value const v = str("v");
  arr.append(integer(1));
  arr.append(v);
  EXPECT_EQ(2u, arr.size());
  EXPECT_EQ(v.get(), arr[1].get());
  EXPECT_EQ(2u, v.get()->refcount);
}

TEST(JsonArray, AppendEmptyValueThrowsNamingSizeAndType) {
  json::Array arr;
  arr.append(integer(1));
  arr.append(integer(2));
  EXPECT_EQ("JSON error: array element can not be appended. Size: 2. New value type: empty",
            jsonExcMessage([&] { arr.append(json::Value()); }));
  EXPECT_EQ(2u, arr.size());
}

TEST(JsonArray, AppendArrayToItselfThrowsNamingSizeAndType) {
  json::Array arr;
  EXPECT_EQ("JSON error: array element can not be appended. Size: 0. New value type: array",
            jsonExcMessage([&] { arr.append(arr); }));
  EXPECT_EQ(0u, arr.size());
  EXPECT_EQ(1u, arr.get()->refcount);
}

TEST(JsonArray, AppendThroughSharedHandleLeavesOtherHandleUnchanged) {
  json::Array a;
  a.append(integer(1));
  json::Array const b = a;
  a.append(integer(2));
  EXPECT_EQ(2u, a.size());
  EXPECT_EQ(1u, b.size());
  EXPECT_TRUE(b[1].empty());
  EXPECT_NE(a.get(), b.get());

  json::Array c = b;
  c.append(integer(3));
  EXPECT_EQ(1u, b.size());
  EXPECT_EQ(3, c[1].asInt());
}

TEST(JsonArray, AppendOnSoleHandleChangesNodeInPlace) {
  json::Array arr;
  arr.append(integer(1));
  json_t* const before = arr.get();
  ASSERT_EQ(1u, before->refcount);
  arr.append(integer(2));
  EXPECT_EQ(before, arr.get());
  EXPECT_EQ(2u, arr.size());
}

TEST(JsonArray, DeepCopySharesNoNode) {
  json::Array inner;
  inner.append(str("x"));
  json::Array arr;
  arr.append(inner);
  json::Array const copy = arr.deepCopy();
  EXPECT_TRUE(copy == arr);
  EXPECT_NE(arr.get(), copy.get());
  EXPECT_NE(arr[0].get(), copy[0].get());
  EXPECT_EQ(1u, copy.get()->refcount);
}

TEST(JsonArray, DeepCopyOfEmptyHandleIsEmpty) {
  json::Array moved;
  json::Array const keeper(std::move(moved));
  EXPECT_TRUE(moved.deepCopy().empty());  // NOLINT(bugprone-use-after-move)
}

// ------------------------------------------------------------ text output

TEST(JsonText, ObjectIsWrittenAsCompactJson) {
  json::Object inner;
  inner.setAt("n", integer(-7));
  json::Array arr;
  arr.append(integer(1));
  arr.append(str("two"));
  arr.append(json::Value::makeTrue());
  arr.append(jsonFalse());
  arr.append(jsonNull());
  arr.append(real(2.5));
  json::Object obj;
  obj.setAt("a", arr);
  obj.setAt("b", inner);
  obj.setAt("c", str(""));
  EXPECT_EQ(R"({"a":[1,"two",true,false,null,2.5],"b":{"n":-7},"c":""})", text(obj, true));
}

TEST(JsonText, EmptyObjectAndArray) {
  EXPECT_EQ("{}", text(json::Object(), false));
  EXPECT_EQ("{}", text(json::Object(), true));
  EXPECT_EQ("[]", text(json::Array()));
}

TEST(JsonText, EmptyHandleIsWrittenAsNull) {
  json::Object obj;
  json::Object const keepObj(std::move(obj));
  EXPECT_EQ("null", text(obj, false));  // NOLINT(bugprone-use-after-move)
  json::Array arr;
  json::Array const keepArr(std::move(arr));
  EXPECT_EQ("null", text(arr));  // NOLINT(bugprone-use-after-move)
}

TEST(JsonText, ArrayElementsAreWrittenInOrder) {
  json::Array arr;
  for (json_int_t i : {3, 1, 2}) arr.append(integer(i));
  EXPECT_EQ("[3,1,2]", text(arr));
}

TEST(JsonText, OperatorReturnsTheStreamForChaining) {
  json::Object obj;
  json::Array arr;
  std::ostringstream os;
  std::ostream& back = os << obj;
  EXPECT_EQ(&os, &back);
  back << "|" << arr;
  EXPECT_EQ("{}|[]", os.str());
}

TEST(JsonText, IntegersAreWrittenExactly) {
  json::Array arr;
  arr.append(integer(std::numeric_limits<json_int_t>::min()));
  arr.append(integer(std::numeric_limits<json_int_t>::max()));
  arr.append(integer(0));
  EXPECT_EQ("[-9223372036854775808,9223372036854775807,0]", text(arr));
}

TEST(JsonText, RealsKeepADecimalPoint) {
  struct Case {
    double value;
    char const* expected;
  };
  Case const cases[] = {{3.0, "[3.0]"}, {-2.0, "[-2.0]"}, {100.0, "[100.0]"},
                        {0.5, "[0.5]"}, {-0.0, "[-0.0]"}, {0.0, "[0.0]"}};
  for (Case const& c : cases) {
    json::Array arr;
    arr.append(real(c.value));
    EXPECT_EQ(c.expected, text(arr)) << c.value;
  }
}

TEST(JsonText, RealsParseBackAsTheSameReal) {
  double const cases[] = {3.0, 0.1, -1.5e-7, 1e20, 1e300, 123456789.125, -0.0};
  for (double d : cases) {
    json::Array arr;
    arr.append(real(d));
    std::string const written = text(arr);
    SCOPED_TRACE(written);
    json::Array const back = parseArray(written);
    ASSERT_EQ("float", back[0].type2String());
    EXPECT_EQ(d, json_real_value(back[0].get()));
  }
}

TEST(JsonText, QuotesBackslashesAndControlCharactersAreEscaped) {
  json::Object obj;
  obj.setAt("s", str("q\"b\\n\nt\tr\rf\fb\bc\x01\x1f/"));
  EXPECT_EQ(R"({"s":"q\"b\\n\nt\tr\rf\fb\bc\u0001\u001f/"})", text(obj, false));
}

TEST(JsonText, EveryControlCharacterIsEscaped) {
  for (int c = 1; c < 0x20; ++c) {
    json::Array arr;
    arr.append(str(std::string(1, static_cast<char>(c))));
    std::string const written = text(arr);
    SCOPED_TRACE("byte " + std::to_string(c) + " written as " + written);
    for (char ch : written) EXPECT_GE(static_cast<unsigned char>(ch), 0x20);
    json::Array const back = parseArray(written);
    EXPECT_EQ(std::string(1, static_cast<char>(c)), back[0].asStringSafe());
  }
}

TEST(JsonText, InvalidUtf8BytesAreWrittenAsReplacementCharacters) {
  struct Case {
    char const* name;
    std::string input;
    char const* expected;
  };
  Case const cases[] = {
      {"lone high byte", "a\xff" "b", R"(["a\ufffdb"])"},
      {"lone continuation byte", "\x80", R"(["\ufffd"])"},
      {"overlong slash", "\xc0\xaf", R"(["\ufffd\ufffd"])"},
      {"surrogate", "\xed\xa0\x80", R"(["\ufffd\ufffd\ufffd"])"},
      {"truncated at the end", "x\xe2\x82", R"(["x\ufffd\ufffd"])"},
      {"beyond U+10FFFF", "\xf4\x90\x80\x80", R"(["\ufffd\ufffd\ufffd\ufffd"])"},
      {"Latin-1 e acute", "caf\xe9", R"(["caf\ufffd"])"},
  };
  for (Case const& c : cases) {
    json::Array arr;
    arr.append(str(c.input));
    EXPECT_EQ(c.expected, text(arr)) << c.name;
  }
}

TEST(JsonText, KeysAreEscapedLikeStrings) {
  json::Object obj;
  obj.setAt("k\"\\\n\xff", integer(1));
  EXPECT_EQ(R"({"k\"\\\n\ufffd":1})", text(obj, false));
}

TEST(JsonText, OutputParsesBackWithStrToObject) {
  std::string const replacement = "\xef\xbf\xbd";  // U+FFFD in UTF-8
  struct Case {
    char const* name;
    std::string input;
    std::string expected;
  };
  Case const cases[] = {
      {"plain", "plain", "plain"},
      {"quotes and backslashes", "\"\\\"\\\\", "\"\\\"\\\\"},
      {"control characters", "\x01\b\t\n\f\r\x1b\x1f", "\x01\b\t\n\f\r\x1b\x1f"},
      {"delete", "\x7f", "\x7f"},
      {"slash", "a/b", "a/b"},
      {"two-byte UTF-8", "\xc3\xa9t\xc3\xa9", "\xc3\xa9t\xc3\xa9"},
      {"three-byte UTF-8", "\xe2\x82\xac", "\xe2\x82\xac"},
      {"four-byte UTF-8", "\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"},
      {"invalid bytes", "a\xff\xfe" "b", "a" + replacement + replacement + "b"},
      {"truncated sequence", "\xe2\x82", replacement + replacement},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    json::Object obj;
    obj.setAt("s", str(c.input));
    obj.setAt(c.input.c_str(), integer(1));
    for (bool sorted : {false, true}) {
      std::string const written = text(obj, sorted);
      SCOPED_TRACE(written);
      json::Object back;
      ASSERT_NO_THROW(back = parse(written));
      EXPECT_EQ(c.expected, back["s"].asStringSafe());
      EXPECT_EQ(1, back[c.expected.c_str()].asInt());
    }
  }
}

TEST(JsonText, StringWithNulByteParsesBackWithStrToObject) {
  std::string const withNul("a\0b", 3);
  json::Object obj;
  obj.setAt("s", str(withNul));
  std::string const written = text(obj, false);
  EXPECT_EQ(R"({"s":"a\u0000b"})", written);
  json::Object back;
  ASSERT_NO_THROW(back = parse(written)) << written;
  EXPECT_EQ(withNul, back["s"].asStringSafe());
}

TEST(JsonText, SortedAndUnsortedDifferOnlyInKeyOrder) {
  json::Object obj;
  obj.setAt("zeta", integer(1));
  obj.setAt("alpha", str("a"));
  obj.setAt("mid", json::Value::makeTrue());
  obj.setAt("beta", json::Array());
  std::string const sorted = text(obj, true);
  std::string const unsorted = text(obj, false);
  EXPECT_EQ(R"({"alpha":"a","beta":[],"mid":true,"zeta":1})", sorted);

  // The unsorted text is the same members, each once, in some order.
  EXPECT_EQ(sorted.size(), unsorted.size()) << unsorted;
  for (char const* member : {R"("alpha":"a")", R"("beta":[])", R"("mid":true)", R"("zeta":1)"}) {
    EXPECT_NE(std::string::npos, unsorted.find(member)) << member << " in " << unsorted;
  }
  EXPECT_EQ('{', unsorted.front());
  EXPECT_EQ('}', unsorted.back());
  EXPECT_EQ(3, std::count(unsorted.begin(), unsorted.end(), ',')) << unsorted;
  EXPECT_TRUE(parse(unsorted) == obj) << unsorted;
}

TEST(JsonText, SortedFlagSortsKeysAtEveryDepth) {
  json::Object deep;
  deep.setAt("y", integer(2));
  deep.setAt("x", integer(1));
  json::Array arr;
  arr.append(deep);
  json::Object obj;
  obj.setAt("list", arr);
  obj.setAt("inner", deep);
  obj.setAt("B", integer(0));
  EXPECT_EQ(R"({"B":0,"inner":{"x":1,"y":2},"list":[{"x":1,"y":2}]})", text(obj, true));
}

TEST(JsonText, SortedFlagIsTheStreamWordAtTheSharedIndex) {
  json::Object obj;
  obj.setAt("b", integer(2));
  obj.setAt("a", integer(1));
  json::Array arr;
  arr.append(obj);
  for (long flag : {1L, 2L, -1L}) {
    std::ostringstream os;
    os.iword(json::m_gOStreamSortedIdx) = flag;
    os << obj << ' ' << arr;
    EXPECT_EQ(R"({"a":1,"b":2} [{"a":1,"b":2}])", os.str()) << "flag " << flag;
  }
}

TEST(JsonText, SortedIndexIsAnAllocatedStreamWord) {
  EXPECT_GE(json::m_gOStreamSortedIdx, 0);
  int const fresh = std::ios_base::xalloc();
  EXPECT_NE(json::m_gOStreamSortedIdx, fresh);

  // A flag set at another index does not sort.
  json::Object obj;
  obj.setAt("a", integer(1));
  std::ostringstream os;
  os.iword(fresh) = 1;
  os << obj;
  EXPECT_EQ(0, os.iword(json::m_gOStreamSortedIdx));
  EXPECT_EQ(R"({"a":1})", os.str());
}

TEST(JsonText, JsonToStringWritesArraysToo) {
  json::Object obj;
  obj.setAt("b", integer(2));
  obj.setAt("a", integer(1));
  json::Array arr;
  arr.append(obj);
  EXPECT_EQ(R"([{"a":1,"b":2}])", json::jsonToString(arr, true));
  EXPECT_TRUE(parseArray(json::jsonToString(arr, false)) == arr);
}

TEST(JsonText, JsonToStringOfObjectLeavesTheDocumentUnchanged) {
  json::Object obj;
  obj.setAt("b", integer(2));
  obj.setAt("a", integer(1));
  json_t* const node = obj.get();
  std::string const first = json::jsonToString<json::Object>(obj, true);
  EXPECT_EQ(first, json::jsonToString<json::Object>(obj, true));
  EXPECT_EQ(node, obj.get());
  EXPECT_EQ(1u, node->refcount);
  EXPECT_EQ(2u, obj.size());
}

// ------------------------------------------------------------------ parsing

TEST(JsonParse, StrToArrayReadsAnArray) {
  json::Array const arr = parseArray(R"(["pdf", 2, [true], {"k": null}])");
  ASSERT_EQ(4u, arr.size());
  EXPECT_EQ("pdf", arr[0].asStringSafe());
  EXPECT_EQ(2, arr[1].asInt());
  EXPECT_TRUE(json::Array(arr[2])[0].isTrue());
  EXPECT_EQ("null", json::Object(arr[3])["k"].type2String());
  EXPECT_EQ(1u, arr.get()->refcount);
}

TEST(JsonParse, StrToArrayReadsOnlyLengthBytes) {
  char const text[] = "[1,2]garbage";
  json::Array const arr = json::strToArray(text, 5);
  EXPECT_EQ(2u, arr.size());
  char const unterminated[] = {'[', '"', 'a', '"', ']'};
  EXPECT_EQ("a", json::strToArray(unterminated, sizeof unterminated)[0].asStringSafe());
}

TEST(JsonParse, StrToArrayRefusesAnObject) {
  EXPECT_EQ("JSON error: text is a JSON object, not an array",
            jsonExcMessage([] { parseArray(R"({"a":1})"); }));
}

TEST(JsonParse, StrToObjectReadsAnObject) {
  json::Object const obj = parse(R"( {"a": 1, "b": {"c": "d"}} )");
  EXPECT_EQ(2u, obj.size());
  EXPECT_EQ(1, obj["a"].asInt());
  EXPECT_EQ("d", json::Object(obj["b"])["c"].asStringSafe());
  EXPECT_EQ(1u, obj.get()->refcount);
}

TEST(JsonParse, StrToObjectRefusesAnArray) {
  EXPECT_EQ("JSON error: text is a JSON array, not an object",
            jsonExcMessage([] { parse("[1]"); }));
}

TEST(JsonParse, ScalarsAreRefusedByBothParsers) {
  for (char const* t : {"1", "\"s\"", "true", "false", "null", "2.5"}) {
    std::string const toArray = jsonExcMessage([&] { parseArray(t); });
    EXPECT_EQ(0u, toArray.rfind("JSON error: ", 0)) << t << ": " << toArray;
    std::string const toObject = jsonExcMessage([&] { parse(t); });
    EXPECT_EQ(0u, toObject.rfind("JSON error: ", 0)) << t << ": " << toObject;
  }
}

TEST(JsonParse, MalformedTextIsRefusedByBothParsers) {
  char const* const cases[] = {"",        " ",         "[",        "{",     "[1,]",
                               "{\"a\":}", "{'a':1}",  "[1] [2]",  "{} x",  "[01]",
                               "{\"a\" 1}", "[\"a]",   "[tru]",    "{\"a\":1,}"};
  for (char const* t : cases) {
    std::string const toArray = jsonExcMessage([&] { parseArray(t); });
    EXPECT_EQ(0u, toArray.rfind("JSON error: ", 0)) << "[" << t << "]: " << toArray;
    std::string const toObject = jsonExcMessage([&] { parse(t); });
    EXPECT_EQ(0u, toObject.rfind("JSON error: ", 0)) << "[" << t << "]: " << toObject;
  }
}

TEST(JsonParse, TextCutShortByLengthIsMalformed) {
  char const text[] = R"({"a":1})";
  std::string const msg = jsonExcMessage([&] { json::strToObject(text, 4); });
  EXPECT_EQ(0u, msg.rfind("JSON error: ", 0)) << msg;
}

TEST(JsonParse, NullTextWithZeroLengthIsRefused) {
  std::string const toArray = jsonExcMessage([] { json::strToArray(nullptr, 0); });
  EXPECT_EQ(0u, toArray.rfind("JSON error: ", 0)) << toArray;
  std::string const toObject = jsonExcMessage([] { json::strToObject(nullptr, 0); });
  EXPECT_EQ(0u, toObject.rfind("JSON error: ", 0)) << toObject;
}

TEST(JsonParse, DuplicateKeysAreRefused) {
  char const* const cases[] = {R"({"a":1,"a":2})", R"({"a":1,"b":{"c":1,"c":1}})",
                               R"({"x":[{"k":true,"k":false}]})"};
  for (char const* t : cases) {
    std::string const msg = jsonExcMessage([&] { parse(t); });
    EXPECT_EQ(0u, msg.rfind("JSON error: ", 0)) << t << ": " << msg;
  }
  std::string const inArray = jsonExcMessage([] { parseArray(R"([{"k":1,"k":1}])"); });
  EXPECT_EQ(0u, inArray.rfind("JSON error: ", 0)) << inArray;
}

TEST(JsonParse, ParsedDocumentIsOwnedByItsHandleAlone) {
  json::Object obj = parse(R"({"a":1})");
  json_t* const node = obj.get();
  ASSERT_EQ(1u, node->refcount);
  obj.setAt("b", integer(2));
  EXPECT_EQ(node, obj.get());
}

}  // namespace
