#include "apps/svc/notify/MailMessage.h"

#include <array>
#include <cstdio>
#include <random>
#include <stdexcept>

namespace qxsvc {

namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kBase64LineLength = 76;
// RFC 2047: an encoded word is at most 75 characters; "=?UTF-8?B?" and "?="
// leave 63 for the base64, which is 45 bytes of text (a multiple of three).
constexpr std::size_t kEncodedWordBytes = 45;
constexpr std::size_t kPlainSubjectMost = 78 - 9;  // "Subject: " and the text on one line

std::string base64(std::string const& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t chunk = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) chunk |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) chunk |= static_cast<unsigned char>(bytes[i + 2]);
    out += kBase64[(chunk >> 18) & 63];
    out += kBase64[(chunk >> 12) & 63];
    out += i + 1 < bytes.size() ? kBase64[(chunk >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kBase64[chunk & 63] : '=';
  }
  return out;
}

bool printableAscii(std::string const& text) {
  for (char c : text) {
    if (c < 0x20 || c > 0x7e) return false;
  }
  return true;
}

// The length of the longest start of text, at most most bytes, that does not
// cut a UTF-8 sequence in two.
std::size_t utf8Cut(std::string const& text, std::size_t from, std::size_t most) {
  std::size_t end = std::min(text.size(), from + most);
  if (end == text.size()) return end - from;
  while (end > from && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) --end;
  return end > from ? end - from : most;  // not UTF-8 at all: cut anywhere
}

}  // namespace

std::string checkMailAddress(std::string const& address) {
  if (address.empty()) return "an empty address";
  std::size_t const at = address.rfind('@');
  if (at == std::string::npos) return "\"" + address + "\" has no \"@\"";
  for (char c : address) {
    auto const u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u == 0x7f || c == '<' || c == '>' || c == ',' || c == '"' || c == '(' || c == ')' ||
        c == ';' || c == ':' || c == '\\' || c == '[' || c == ']') {
      return "an address with a blank, a control character or one of <>,\"();:\\[] is not accepted";
    }
  }
  if (at == 0) return "\"" + address + "\" has nothing before the \"@\"";
  std::string const domain = address.substr(at + 1);
  if (domain.empty() || domain.front() == '.' || domain.back() == '.' || domain.find("..") != std::string::npos ||
      address.find('@') != at) {
    return "\"" + address + "\" has no domain name after a single \"@\"";
  }
  return std::string();
}

std::vector<std::string> splitMailAddresses(std::string const& list) {
  std::vector<std::string> addresses;
  std::size_t start = 0;
  while (start <= list.size()) {
    std::size_t end = list.find(',', start);
    if (end == std::string::npos) end = list.size();
    std::string item = list.substr(start, end - start);
    std::size_t const first = item.find_first_not_of(" \t");
    item = first == std::string::npos ? std::string() : item.substr(first, item.find_last_not_of(" \t") - first + 1);
    if (!item.empty()) {
      std::string const why = checkMailAddress(item);
      if (!why.empty()) throw std::invalid_argument("wrong address \"" + item + "\": " + why);
      addresses.push_back(item);
    }
    start = end + 1;
  }
  if (addresses.empty()) throw std::invalid_argument("no address is given");
  return addresses;
}

std::string encodeMailSubject(std::string const& text) {
  if (printableAscii(text) && text.size() <= kPlainSubjectMost && text.find("=?") == std::string::npos) return text;
  std::string out;
  for (std::size_t from = 0; from < text.size();) {
    std::size_t const length = utf8Cut(text, from, kEncodedWordBytes);
    if (!out.empty()) out += "\r\n ";
    out += "=?UTF-8?B?" + base64(text.substr(from, length)) + "?=";
    from += length;
  }
  return out;
}

std::string base64Lines(std::string const& bytes) {
  std::string const encoded = base64(bytes);
  std::string out;
  for (std::size_t i = 0; i < encoded.size(); i += kBase64LineLength) {
    out += encoded.substr(i, kBase64LineLength) + "\r\n";
  }
  return out;
}

std::string mailDate(std::time_t unixSeconds) {
  static constexpr std::array<char const*, 7> days{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr std::array<char const*, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm tm{};
  gmtime_r(&unixSeconds, &tm);
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d +0000", days[static_cast<std::size_t>(tm.tm_wday)],
                tm.tm_mday, months[static_cast<std::size_t>(tm.tm_mon)], tm.tm_year + 1900, tm.tm_hour, tm.tm_min,
                tm.tm_sec);
  return text;
}

std::string newMessageId(std::string const& sender) {
  std::random_device random;
  std::string id;
  char hex[9];
  for (int i = 0; i < 4; ++i) {
    std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(random()));
    id += hex;
  }
  std::size_t const at = sender.rfind('@');
  return id + "@" + (at == std::string::npos ? std::string("qxlite-svc.invalid") : sender.substr(at + 1));
}

std::string composeMail(MailMessage const& message) {
  std::string const fromWhy = checkMailAddress(message.from);
  if (!fromWhy.empty()) throw std::invalid_argument("wrong sender: " + fromWhy);
  if (message.to.empty()) throw std::invalid_argument("no recipient");
  std::string to;
  for (std::string const& address : message.to) {
    std::string const why = checkMailAddress(address);
    if (!why.empty()) throw std::invalid_argument("wrong recipient: " + why);
    to += (to.empty() ? "" : ",\r\n ") + address;  // one recipient a line: no header line grows too long
  }
  std::string const idWhy = checkMailAddress(message.messageId);
  if (!idWhy.empty()) throw std::invalid_argument("wrong Message-ID: " + idWhy);
  return "Date: " + mailDate(message.date) + "\r\n" +
         "From: " + message.from + "\r\n" +
         "To: " + to + "\r\n" +
         "Subject: " + encodeMailSubject(message.subject) + "\r\n" +
         "Message-ID: <" + message.messageId + ">\r\n" +
         "Auto-Submitted: auto-generated\r\n"
         "MIME-Version: 1.0\r\n"
         "Content-Type: text/plain; charset=UTF-8\r\n"
         "Content-Transfer-Encoding: base64\r\n"
         "\r\n" +
         base64Lines(message.body);
}

}  // namespace qxsvc
