// Internal helpers of the configuration records of libQXShared: the sparse
// JSON writing and tolerant reading that their forms share, and the check of
// a "host:port" text. Not installed.
#ifndef QX_SHARED_CFGJSON_H
#define QX_SHARED_CFGJSON_H

#include "json/Json.h"

#include <string>

namespace qx {
namespace cfgjson {

// Writes text under key when it is not empty.
inline void putText(json::Object& obj, char const* key, std::string const& text) {
  if (!text.empty()) obj.setAt(key, json::Value(text));
}
// Writes true under key when flag is set.
inline void putFlag(json::Object& obj, char const* key, bool flag) {
  if (flag) obj.setAt(key, json::Value::makeTrue());
}
// The text under key, or empty when it is missing or not a string.
inline std::string getText(json::Object const& obj, char const* key) {
  return obj[key].asStringSafe();
}
// True exactly when the value under key is the JSON value true.
inline bool getFlag(json::Object const& obj, char const* key) { return obj[key].isTrue(); }

// Checks the port of an address such as "host", "host:port", "[::1]:port" or
// "scheme://host:port/path": returns the empty string when there is no port
// or it is 1 to 65535, otherwise the reason.
std::string checkAddressPort(std::string const& address);

}  // namespace cfgjson
}  // namespace qx

#endif  // QX_SHARED_CFGJSON_H
