/// \file
/// JSON document layer: shared handles on jansson nodes.
///
/// A json::Value owns one reference to a jansson node, or holds none (the
/// "empty" value that a failed lookup gives). Copying a handle shares the node;
/// the node dies with its last handle. Nodes whose count is jansson's static
/// marker (true, false, null) are never counted.
///
/// Modifications (Object::setAt, Array::append) are copy-on-write: when another
/// handle shares the node, this handle first takes a shallow copy, so a change
/// never shows through a handle that shared the node before it.
///
/// Reference counts are plain, non-atomic integers: a document is used by one
/// thread at a time, or under its owner's lock. The layer keeps no state.
///
/// Errors: typed accessors and failed modifications throw json::Exc with a
/// message that names the types involved; asStringSafe() and operator[] never
/// throw.
#ifndef QX_JSON_JSON_H
#define QX_JSON_JSON_H

#include "json/Export.h"

#include <jansson.h>

#include <cstddef>
#include <iosfwd>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

/// The JSON layer: handles on jansson values, its error, and its text.
namespace json {

/// The only error type of the layer: a message, nothing else.
class QX_SHARED_API Exc : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A handle on one jansson node of any type, or on none (see the file's
/// contract).
class Value {
 public:
  /// The empty value.
  Value() noexcept = default;
  /// Takes over a reference that the caller owns (a node it has just made).
  explicit Value(json_t* takenRef) noexcept : m_node(takenRef) {}
  /// A new string node; the text is not checked for UTF-8.
  explicit Value(std::string const& s) : m_node(json_stringn_nocheck(s.data(), s.size())) {}
  /// A new string node of a NUL-ended text; not checked for UTF-8.
  explicit Value(char const* s) : m_node(json_string_nocheck(s)) {}
  /// A new integer node.
  explicit Value(json_int_t i) : m_node(json_integer(i)) {}
  /// The JSON value true (writers never write false: they leave the key out).
  static Value makeTrue() noexcept { return Value(json_true()); }

  /// Shares the node of other.
  Value(Value const& other) noexcept : m_node(other.m_node) { incRef(m_node); }
  /// Takes the node of other, which is left empty.
  Value(Value&& other) noexcept : m_node(other.m_node) { other.m_node = nullptr; }
  /// Shares the node of other, and lets go of this handle's own.
  Value& operator=(Value const& other) noexcept {
    incRef(other.m_node);
    decRef(m_node);
    m_node = other.m_node;
    return *this;
  }
  /// Takes the node of other, which is left empty, and lets go of this
  /// handle's own.
  Value& operator=(Value&& other) noexcept {
    if (this != &other) {
      decRef(m_node);
      m_node = other.m_node;
      other.m_node = nullptr;
    }
    return *this;
  }
  ~Value() { decRef(m_node); }

  /// The node, still owned by this handle (may be null).
  json_t* get() const noexcept { return m_node; }
  /// Whether the handle holds no node.
  bool empty() const noexcept { return m_node == nullptr; }
  ///@{
  /// Whether the handle holds a node of that type; false when empty.
  bool isObject() const noexcept { return m_node && json_is_object(m_node); }
  bool isArray() const noexcept { return m_node && json_is_array(m_node); }
  bool isString() const noexcept { return m_node && json_is_string(m_node); }
  bool isInteger() const noexcept { return m_node && json_is_integer(m_node); }
  ///@}
  /// A flag reads true exactly when the node is the JSON value true.
  bool isTrue() const noexcept { return m_node && json_is_true(m_node); }

  /// "empty", "object", "array", "string", "integer", "float", "boolean",
  /// "null" or "unknown".
  std::string type2String() const {
    if (!m_node) return "empty";
    switch (json_typeof(m_node)) {
      case JSON_OBJECT: return "object";
      case JSON_ARRAY: return "array";
      case JSON_STRING: return "string";
      case JSON_INTEGER: return "integer";
      case JSON_REAL: return "float";
      case JSON_TRUE:
      case JSON_FALSE: return "boolean";
      case JSON_NULL: return "null";
    }
    return "unknown";
  }

  /// Throws Exc with a message that names this node's type and the
  /// expected one: "JSON error: Wrong type: string. Expected type: integer".
  [[noreturn]] void onCastErr(std::string const& expected) const {
    throw Exc("JSON error: Wrong type: " + type2String() + ". Expected type: " + expected);
  }

  /// The number of an integer node; throws Exc (onCastErr) otherwise.
  json_int_t asInt() const {
    if (!isInteger()) onCastErr("integer");
    return json_integer_value(m_node);
  }
  /// Points into the node's storage; valid while the node lives.
  char const* c_str() const {
    if (!isString()) onCastErr("string");
    return json_string_value(m_node);
  }
  /// The text of a string node, else the empty string. Never throws on content.
  std::string asStringSafe() const {
    if (!isString()) return std::string();
    return std::string(json_string_value(m_node), json_string_length(m_node));
  }

  /// Deep equality; two empty values are equal, an empty one equals nothing else.
  bool operator==(Value const& other) const noexcept {
    if (!m_node || !other.m_node) return m_node == other.m_node;
    return json_equal(m_node, other.m_node) != 0;
  }
  /// Not deeply equal.
  bool operator!=(Value const& other) const noexcept { return !(*this == other); }

 protected:
  /// The reference count of jansson's static nodes (true, false, null).
  static constexpr std::size_t kStaticMarker = static_cast<std::size_t>(-1);

  /// Counts one more reference to node, unless it is null or static.
  static void incRef(json_t* node) noexcept {
    if (node && node->refcount != kStaticMarker) node->refcount = node->refcount + 1;
  }
  /// Counts one reference less, and deletes the node with its last one.
  static void decRef(json_t* node) noexcept {
    if (node && node->refcount != kStaticMarker) {
      node->refcount = node->refcount - 1;
      if (node->refcount == 0) json_delete(node);
    }
  }
  /// Copy-on-write: makes this handle the only owner of its node. The static
  /// marker counts as shared.
  void detach() {
    if (m_node && m_node->refcount > 1) {
      json_t* copy = json_copy(m_node);
      if (!copy) throw std::bad_alloc();
      decRef(m_node);
      m_node = copy;
    }
  }
  /// A new reference for jansson's set and append calls, which consume it.
  static json_t* newRef(json_t* node) noexcept {
    incRef(node);
    return node;
  }

  json_t* m_node = nullptr;  ///< the node this handle owns a reference to, or null
};

/// A handle that holds a JSON object.
class Object : public Value {
 public:
  /// A new, empty object: a default Object is never empty.
  Object() : Value(json_object()) {}
  /// Shares the node of v; throws onCastErr("object") unless v holds an object.
  explicit Object(Value const& v) : Value(v) {
    if (!isObject()) v.onCastErr("object");
  }

  /// The member under key, or the empty value when it is missing or this node
  /// is not an object. Never throws.
  Value operator[](char const* key) const noexcept {
    json_t* member = isObject() ? json_object_get(m_node, key) : nullptr;
    return Value(newRef(member));
  }

  /// Sets or replaces one member (copy-on-write). The key is not checked for
  /// UTF-8.
  void setAt(char const* key, Value const& value) {
    detach();
    if (!value.get() || !isObject() ||
        json_object_set_new_nocheck(m_node, key, newRef(value.get())) != 0) {
      throw Exc(std::string("JSON error: object element can not be set. Key: ") + key +
                ". New value type: " + value.type2String());
    }
  }

  /// The number of members.
  std::size_t size() const noexcept { return isObject() ? json_object_size(m_node) : 0; }
};

/// A handle that holds a JSON array.
class Array : public Value {
 public:
  /// A new, empty array.
  Array() : Value(json_array()) {}
  /// Shares the node of v; throws onCastErr("array") unless v holds an array.
  explicit Array(Value const& v) : Value(v) {
    if (!isArray()) v.onCastErr("array");
  }

  /// The number of elements.
  std::size_t size() const noexcept { return isArray() ? json_array_size(m_node) : 0; }
  /// The element at i, or the empty value past the end.
  Value operator[](std::size_t i) const noexcept {
    json_t* element = isArray() ? json_array_get(m_node, i) : nullptr;
    return Value(newRef(element));
  }

  /// Appends one value (copy-on-write).
  void append(Value const& value) {
    detach();
    if (!value.get() || !isArray() || json_array_append_new(m_node, newRef(value.get())) != 0) {
      throw Exc("JSON error: array element can not be appended. Size: " + std::to_string(size()) +
                ". New value type: " + value.type2String());
    }
  }

  /// A deep copy of this array (an empty value when this handle is empty).
  Array deepCopy() const { return Array(json_deep_copy(m_node), Adopt()); }

 private:
  struct Adopt {};
  Array(json_t* takenRef, Adopt) noexcept : Value(takenRef) {}
};

/// Index of the stream flag (std::ios_base::iword) that asks for object keys in
/// sorted order. Allocated once by libQXShared.
extern QX_SHARED_API int const m_gOStreamSortedIdx;

///@{
/// Compact JSON text of the value. An empty handle writes null. Bytes of strings
/// that are not valid UTF-8 are written as `\ufffd`, so the output always parses.
QX_SHARED_API std::ostream& operator<<(std::ostream& os, Object const& obj);
QX_SHARED_API std::ostream& operator<<(std::ostream& os, Array const& arr);
///@}

/// Parses length bytes that must form a JSON array; throws Exc otherwise.
QX_SHARED_API Array strToArray(char const* text, unsigned long length);
/// Parses length bytes that must form a JSON object; throws Exc otherwise.
/// Duplicate keys are refused.
QX_SHARED_API Object strToObject(char const* text, unsigned long length);

/// The JSON text of obj; with sorted set, object keys are written in sorted order.
template <class T>
std::string jsonToString(T const& obj, bool sorted) {
  std::ostringstream os;
  if (sorted) os.iword(m_gOStreamSortedIdx) = 1;
  os << obj;
  return os.str();
}

}  // namespace json

#endif  // QX_JSON_JSON_H
