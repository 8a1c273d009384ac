#include "apps/svc/upload/Target.h"

#include "apps/svc/upload/ObjectKey.h"

#include <string>
#include <vector>

namespace qxsvc {

namespace {

constexpr char kSchemes[] = "use s3://, s3s://, dav://, davs://, http:// or https://";
constexpr char kDefaultRegion[] = "us-east-1";

struct SchemeRule {
  char const* name;
  Protocol protocol;
  bool tls;
};
constexpr SchemeRule kSchemeRules[] = {
    {"s3", Protocol::S3, false},      {"s3s", Protocol::S3, true},       {"dav", Protocol::WebDav, false},
    {"davs", Protocol::WebDav, true}, {"http", Protocol::WebDav, false}, {"https", Protocol::WebDav, true},
};

bool isAlnum(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }
bool isHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
int hexValue(char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; }

// A DNS name or an IPv4 address: labels of letters, digits and "-" between dots.
bool isHostName(std::string const& host) {
  if (host.empty() || host.size() > 253) return false;
  std::size_t label = 0;
  for (std::size_t i = 0; i <= host.size(); ++i) {
    if (i == host.size() || host[i] == '.') {
      if (label == 0 || label > 63 || host[i - 1] == '-' || host[i - label] == '-') return false;
      label = 0;
    } else if (isAlnum(host[i]) || host[i] == '-') {
      ++label;
    } else {
      return false;
    }
  }
  return true;
}

// The inside of "[...]": hexadecimal groups, colons, and dots of an embedded
// IPv4 tail.
bool isIpv6(std::string const& text) {
  if (text.size() < 2 || text.size() > 45 || text.find(':') == std::string::npos) return false;
  for (char c : text) {
    if (!isHex(c) && c != ':' && c != '.') return false;
  }
  return true;
}

// Decodes the %XX escapes of one path segment; false on a broken escape.
bool percentDecode(std::string const& text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2])) return false;
    out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
    i += 2;
  }
  return true;
}

bool isBucketName(std::string const& bucket) {
  if (bucket.size() < 3 || bucket.size() > 63) return false;
  for (char c : bucket) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-')) return false;
  }
  return bucket.front() != '.' && bucket.front() != '-' && bucket.back() != '.' && bucket.back() != '-';
}

bool isRegionName(std::string const& region) {
  if (region.empty() || region.size() > 64) return false;
  for (char c : region) {
    if (!isAlnum(c) && c != '-' && c != '_') return false;
  }
  return true;
}

std::string quote(std::string const& text) { return "\"" + text + "\""; }

std::string encodePath(std::string const& path) { return percentEncode(path, true); }

}  // namespace

std::string Target::objectUrl(std::string const& key) const {
  std::string url = origin;
  if (protocol == Protocol::S3) url += "/" + encodePath(bucket);
  if (!prefix.empty()) url += "/" + encodePath(prefix);
  url += "/" + encodePath(key);
  return url;
}

std::string Target::display() const {
  std::string const hostPort = origin.substr(origin.find("://") + 3);
  bool const tls = origin.compare(0, 6, "https:") == 0;
  if (protocol == Protocol::WebDav) return origin + "/" + prefix;
  std::string text = (tls ? "s3s://" : "s3://") + hostPort + "/" + bucket;
  if (!prefix.empty()) text += "/" + prefix;
  if (region != kDefaultRegion) text += "?region=" + region;
  return text;
}

bool parseTarget(std::string const& address, Target& target, std::string& why) {
  std::string const named = "the server address " + quote(address);
  auto refuse = [&why](std::string text) {
    why = std::move(text);
    return false;
  };
  if (address.empty()) return refuse("the server address is empty");
  for (unsigned char c : address) {
    if (c <= 0x20 || c == 0x7f) return refuse(named + " holds a blank or a control character");
  }
  std::size_t const schemeEnd = address.find("://");
  if (schemeEnd == std::string::npos) return refuse(named + " has no scheme: " + kSchemes);
  std::string scheme = address.substr(0, schemeEnd);
  for (char& c : scheme) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
  }
  SchemeRule const* rule = nullptr;
  for (SchemeRule const& candidate : kSchemeRules) {
    if (scheme == candidate.name) rule = &candidate;
  }
  if (!rule)
    return refuse(named + " has an unknown scheme " + quote(address.substr(0, schemeEnd)) + ": " + kSchemes);

  std::string rest = address.substr(schemeEnd + 3);
  std::size_t const hash = rest.find('#');
  if (hash != std::string::npos)
    return refuse(named + " has a fragment " + quote(rest.substr(hash)) + ": remove it");
  std::string query;
  bool const hasQuery = rest.find('?') != std::string::npos;
  if (std::size_t const mark = rest.find('?'); mark != std::string::npos) {
    query = rest.substr(mark + 1);
    rest.erase(mark);
  }
  std::size_t const pathStart = rest.find('/');
  std::string const authority = rest.substr(0, pathStart);
  std::string const path = pathStart == std::string::npos ? std::string() : rest.substr(pathStart + 1);
  if (authority.find('@') != std::string::npos) {
    return refuse(named + " holds a user name or password: put them in the credentials file");
  }
  if (authority.empty()) return refuse(named + " has no host");

  std::string host;
  std::string port;
  if (authority.front() == '[') {
    std::size_t const close = authority.find(']');
    if (close == std::string::npos || !isIpv6(authority.substr(1, close - 1))) {
      return refuse(named + " has an invalid host " +
                    quote(authority.substr(0, close == std::string::npos ? authority.size() : close + 1)));
    }
    host = authority.substr(0, close + 1);
    std::string const after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return refuse(named + " has an invalid host " + quote(authority));
      port = after.substr(1);
      if (port.empty()) return refuse(named + " has an invalid port \"\": use a number from 1 to 65535");
    }
  } else {
    std::size_t const colon = authority.find(':');
    host = authority.substr(0, colon);
    if (colon != std::string::npos) {
      port = authority.substr(colon + 1);
      if (port.empty()) return refuse(named + " has an invalid port \"\": use a number from 1 to 65535");
    }
    if (!isHostName(host)) return refuse(named + " has an invalid host " + quote(host));
  }
  if (!port.empty()) {
    bool digits = port.size() <= 5;
    for (char c : port) digits = digits && c >= '0' && c <= '9';
    if (!digits || std::stoul(port) < 1 || std::stoul(port) > 65535) {
      return refuse(named + " has an invalid port " + quote(port) + ": use a number from 1 to 65535");
    }
  }

  // The path, segment by segment, decoded: keys and prefixes are raw text
  // that only URLs encode.
  std::vector<std::string> segments;
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t const slash = path.find('/', start);
    std::size_t const end = slash == std::string::npos ? path.size() : slash;
    std::string const raw = path.substr(start, end - start);
    start = end + 1;
    if (raw.empty()) continue;  // "a//b" is "a/b"
    std::string segment;
    if (!percentDecode(raw, segment)) return refuse(named + " has a broken percent escape in " + quote(raw));
    if (segment == "." || segment == ".." || segment.empty() || segment.find('/') != std::string::npos) {
      return refuse(named + " has a path segment " + quote(raw) + " that is not a name");
    }
    for (unsigned char c : segment) {
      if (c < 0x20 || c == 0x7f) return refuse(named + " has a control character in its path");
    }
    segments.push_back(segment);
  }

  Target parsed;
  parsed.protocol = rule->protocol;
  parsed.origin = std::string(rule->tls ? "https://" : "http://") + host + (port.empty() ? "" : ":" + port);
  if (parsed.protocol == Protocol::S3) {
    if (segments.empty()) return refuse(named + " has no bucket: use s3://host/bucket");
    if (!isBucketName(segments.front())) {
      return refuse(named + " has an invalid bucket name " + quote(segments.front()) +
                    ": use 3 to 63 lower-case letters, digits, \".\" and \"-\"");
    }
    parsed.bucket = segments.front();
    segments.erase(segments.begin());
    parsed.region = kDefaultRegion;
    if (hasQuery) {
      if (query.compare(0, 7, "region=") != 0) {
        return refuse(named + " has an unknown parameter " + quote(query) +
                      ": only \"region=NAME\" is allowed");
      }
      parsed.region = query.substr(7);
      if (!isRegionName(parsed.region))
        return refuse(named + " has an invalid region " + quote(parsed.region));
    }
  } else if (hasQuery) {
    return refuse(named + " has a query " + quote("?" + query) + ": WebDAV addresses take none");
  }
  for (std::string const& segment : segments) {
    if (!parsed.prefix.empty()) parsed.prefix += '/';
    parsed.prefix += segment;
  }
  target = std::move(parsed);
  why.clear();
  return true;
}

}  // namespace qxsvc
