#include "apps/svc/upload/ObjectKey.h"

#include <cstdio>
#include <ctime>
#include <string>

namespace qxsvc {

namespace {

// A segment that a server or a URL parser would read as a step in the path
// ("." or ".."), or an empty one, could move an object out of its job's
// folder: such segments get a visible stand-in instead.
std::string safeSegment(std::string const& segment) {
  if (segment.empty()) return "_";
  if (segment == ".") return "_.";
  if (segment == "..") return "_..";
  return segment;
}

// One segment of the key: a "/" inside an account or job id must not make
// more segments.
std::string oneSegment(std::string text) {
  for (char& c : text) {
    if (c == '/') c = '_';
  }
  return safeSegment(text);
}

std::string utcDay(std::time_t created) {
  std::tm day{};
  if (!::gmtime_r(&created, &day)) return "0000-00-00";
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d", day.tm_year + 1900, day.tm_mon + 1, day.tm_mday);
  return text;
}

}  // namespace

std::string objectKey(std::string const& accountId, long long spoolerId, std::time_t created,
                      std::string const& jobId, std::string const& name) {
  std::string key = accountId.empty() ? std::string("-") : oneSegment(accountId);
  key += '/';
  key += std::to_string(spoolerId);
  key += '/';
  key += utcDay(created);
  key += '/';
  key += oneSegment(jobId);
  // The item's own path keeps its folders; empty, "." and ".." segments do not
  // survive as such.
  std::size_t start = 0;
  do {
    std::size_t const slash = name.find('/', start);
    std::size_t const end = slash == std::string::npos ? name.size() : slash;
    key += '/';
    key += safeSegment(name.substr(start, end - start));
    start = end + 1;
  } while (start <= name.size());
  return key;
}

std::string percentEncode(std::string const& text, bool keepSlash) {
  static char const kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (unsigned char c : text) {
    bool const unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                            c == '-' || c == '.' || c == '_' || c == '~';
    if (unreserved || (keepSlash && c == '/')) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string alternativeKey(std::string const& key, unsigned n) {
  if (n < 2) return key;
  std::size_t const slash = key.rfind('/');
  std::size_t const nameStart = slash == std::string::npos ? 0 : slash + 1;
  std::size_t dot = key.rfind('.');
  // A dot that opens the name (".profile") or lies in a folder is no extension.
  if (dot == std::string::npos || dot <= nameStart) dot = key.size();
  return key.substr(0, dot) + "_" + std::to_string(n) + key.substr(dot);
}

}  // namespace qxsvc
