#include "apps/svc/upload/S3Xml.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace qxsvc {

namespace {

std::string xmlUnescape(std::string const& text) {
  struct Entity {
    char const* name;
    char value;
  };
  static constexpr Entity kEntities[] = {{"&quot;", '"'},  {"&amp;", '&'}, {"&lt;", '<'},  {"&gt;", '>'},
                                         {"&apos;", '\''}, {"&#34;", '"'}, {"&#39;", '\''}};
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool replaced = false;
    if (text[i] == '&') {
      for (Entity const& entity : kEntities) {
        std::size_t const length = std::strlen(entity.name);
        if (text.compare(i, length, entity.name) == 0) {
          out += entity.value;
          i += length - 1;
          replaced = true;
          break;
        }
      }
    }
    if (!replaced) out += text[i];
  }
  return out;
}

}  // namespace

std::string xmlText(std::string const& body, char const* tag, std::size_t from, std::size_t to) {
  std::string const open = std::string("<") + tag + ">";
  std::string const close = std::string("</") + tag + ">";
  to = std::min(to, body.size());
  if (from >= to) return "";
  // Only the range is searched: callers look into many small ranges of one
  // large body, and a search to the body's end each time would be quadratic.
  std::string_view const range = std::string_view(body).substr(from, to - from);
  std::size_t const start = range.find(open);
  if (start == std::string_view::npos) return "";
  std::size_t const end = range.find(close, start + open.size());
  if (end == std::string_view::npos) return "";
  return xmlUnescape(std::string(range.substr(start + open.size(), end - start - open.size())));
}

std::vector<std::pair<std::size_t, std::size_t>> xmlElements(std::string const& body, char const* tag) {
  std::string const open = std::string("<") + tag + ">";
  std::string const close = std::string("</") + tag + ">";
  std::vector<std::pair<std::size_t, std::size_t>> ranges;
  for (std::size_t at = body.find(open); at != std::string::npos; at = body.find(open, at)) {
    std::size_t const end = body.find(close, at);
    if (end == std::string::npos) break;
    ranges.emplace_back(at, end);
    at = end + close.size();
  }
  return ranges;
}

std::string xmlEscape(std::string const& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string cleanQuote(std::string const& text) {
  std::string out;
  for (char c : text) {
    if (out.size() >= kMaxQuoted) {
      out += "...";
      break;
    }
    out += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? ' ' : c;
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

bool parseDecimal(std::string const& text, std::uint64_t& value) {
  if (text.empty() || text.size() > 19) return false;
  value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  return true;
}

}  // namespace qxsvc
