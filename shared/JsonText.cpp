// Out-of-line part of the JSON layer: the compact writer and the parsers.
#include "json/Json.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <vector>

namespace json {

int const m_gOStreamSortedIdx = std::ios_base::xalloc();

namespace {

// Length of the valid UTF-8 sequence that starts at s (at most n bytes), or 0
// when the bytes there do not form one (overlong forms and surrogates count as
// invalid).
std::size_t utf8SequenceLength(unsigned char const* s, std::size_t n) {
  unsigned char const c = s[0];
  std::size_t len;
  unsigned int cp;
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) {
    len = 2;
    cp = c & 0x1Fu;
  } else if (c >= 0xE0 && c <= 0xEF) {
    len = 3;
    cp = c & 0x0Fu;
  } else if (c >= 0xF0 && c <= 0xF4) {
    len = 4;
    cp = c & 0x07u;
  } else {
    return 0;
  }
  if (n < len) return 0;
  for (std::size_t i = 1; i < len; ++i) {
    if ((s[i] & 0xC0u) != 0x80u) return 0;
    cp = (cp << 6) | (s[i] & 0x3Fu);
  }
  if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
      (cp >= 0xD800 && cp <= 0xDFFF)) {
    return 0;
  }
  return len;
}

void writeString(std::ostream& os, char const* text, std::size_t n) {
  static char const kHex[] = "0123456789abcdef";
  auto const* s = reinterpret_cast<unsigned char const*>(text);
  os.put('"');
  std::size_t runStart = 0;  // start of the bytes that need no escape
  std::size_t i = 0;
  auto flush = [&] { os.write(text + runStart, static_cast<std::streamsize>(i - runStart)); };
  while (i < n) {
    unsigned char const c = s[i];
    if (c >= 0x20 && c != '"' && c != '\\' && c < 0x80) {
      ++i;
      continue;
    }
    if (c >= 0x80) {
      std::size_t const len = utf8SequenceLength(s + i, n - i);
      if (len != 0) {
        i += len;
        continue;
      }
    }
    flush();
    switch (c) {
      case '"': os << "\\\""; break;
      case '\\': os << "\\\\"; break;
      case '\b': os << "\\b"; break;
      case '\f': os << "\\f"; break;
      case '\n': os << "\\n"; break;
      case '\r': os << "\\r"; break;
      case '\t': os << "\\t"; break;
      default:
        if (c >= 0x80) {
          os << "\\ufffd";  // a byte that is not part of valid UTF-8
        } else {
          char esc[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
          os.write(esc, sizeof esc);
        }
    }
    ++i;
    runStart = i;
  }
  flush();
  os.put('"');
}

void writeReal(std::ostream& os, double d) {
  char buf[32];
  int len = std::snprintf(buf, sizeof buf, "%.17g", d);
  if (len < 0) len = 0;
  os.write(buf, len);
  // Keep a real recognisable as one: 3.0 stays 3.0, not 3.
  if (!std::strpbrk(buf, ".eEn")) os << ".0";
}

void writeNode(std::ostream& os, json_t const* node, bool sorted) {
  if (!node) {
    os << "null";
    return;
  }
  switch (json_typeof(node)) {
    case JSON_OBJECT: {
      auto* obj = const_cast<json_t*>(node);
      os.put('{');
      bool first = true;
      auto writeMember = [&](char const* key, json_t* value) {
        if (!first) os.put(',');
        first = false;
        writeString(os, key, std::strlen(key));
        os.put(':');
        writeNode(os, value, sorted);
      };
      if (sorted) {
        std::vector<char const*> keys;
        keys.reserve(json_object_size(obj));
        char const* key;
        json_t* value;
        json_object_foreach(obj, key, value) { keys.push_back(key); }
        std::sort(keys.begin(), keys.end(),
                  [](char const* a, char const* b) { return std::strcmp(a, b) < 0; });
        for (char const* k : keys) writeMember(k, json_object_get(obj, k));
      } else {
        char const* key;
        json_t* value;
        json_object_foreach(obj, key, value) { writeMember(key, value); }
      }
      os.put('}');
      return;
    }
    case JSON_ARRAY: {
      os.put('[');
      std::size_t const n = json_array_size(node);
      for (std::size_t i = 0; i < n; ++i) {
        if (i) os.put(',');
        writeNode(os, json_array_get(node, i), sorted);
      }
      os.put(']');
      return;
    }
    case JSON_STRING:
      writeString(os, json_string_value(node), json_string_length(node));
      return;
    case JSON_INTEGER:
      os << json_integer_value(node);
      return;
    case JSON_REAL:
      writeReal(os, json_real_value(node));
      return;
    case JSON_TRUE: os << "true"; return;
    case JSON_FALSE: os << "false"; return;
    case JSON_NULL: os << "null"; return;
  }
}

bool sortedKeys(std::ostream& os) { return os.iword(m_gOStreamSortedIdx) != 0; }

Value parse(char const* text, unsigned long length) {
  json_error_t error;
  json_t* node = json_loadb(text ? text : "", text ? length : 0, JSON_REJECT_DUPLICATES | JSON_ALLOW_NUL, &error);
  if (!node) {
    throw Exc(std::string("JSON error: ") + error.text + " at line " + std::to_string(error.line) +
              ", column " + std::to_string(error.column));
  }
  return Value(node);
}

}  // namespace

std::ostream& operator<<(std::ostream& os, Object const& obj) {
  writeNode(os, obj.get(), sortedKeys(os));
  return os;
}

std::ostream& operator<<(std::ostream& os, Array const& arr) {
  writeNode(os, arr.get(), sortedKeys(os));
  return os;
}

Array strToArray(char const* text, unsigned long length) {
  Value v = parse(text, length);
  if (!v.isArray()) throw Exc("JSON error: text is a JSON " + v.type2String() + ", not an array");
  return Array(v);
}

Object strToObject(char const* text, unsigned long length) {
  Value v = parse(text, length);
  if (!v.isObject()) throw Exc("JSON error: text is a JSON " + v.type2String() + ", not an object");
  return Object(v);
}

}  // namespace json
