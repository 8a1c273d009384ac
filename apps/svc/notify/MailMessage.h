// One e-mail notice as it goes over SMTP: the addresses are checked, the
// headers are the service's own texts, and everything that came from outside
// (file names, server answers, reasons) travels only in the body, which is
// base64-encoded so that no byte of it can end a header or the message.
//
// Plain values and pure functions: any thread.
#ifndef QX_APPS_SVC_NOTIFY_MAILMESSAGE_H
#define QX_APPS_SVC_NOTIFY_MAILMESSAGE_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace qxsvc {

struct MailMessage {
  std::string from;             // one address, checked (checkMailAddress)
  std::vector<std::string> to;  // one or more addresses, checked
  std::string subject;          // UTF-8; encoded (RFC 2047) unless plain printable ASCII
  std::string body;             // UTF-8 text, lines ending in "\n"
  std::time_t date = 0;         // unix seconds, written in UTC
  std::string messageId;        // without the angle brackets: "<unique>@<domain>"
};

// Why address is not one that the service sends from or to ("local@domain"
// with no blanks, control characters, quotes, angle brackets or commas), or
// the empty string when it is.
std::string checkMailAddress(std::string const& address);

// The addresses of a comma-separated list, blanks around each trimmed. Throws
// std::invalid_argument naming the first wrong address, or saying the list is
// empty.
std::vector<std::string> splitMailAddresses(std::string const& list);

// The subject's header value: text itself when it is printable ASCII and
// short enough for one line, otherwise RFC 2047 "=?UTF-8?B?...?=" words of at
// most 75 characters, folded with CRLF and a blank.
std::string encodeMailSubject(std::string const& text);

// The standard base64 of bytes, in lines of 76 characters each ending in CRLF.
std::string base64Lines(std::string const& bytes);

// "Tue, 24 Nov 2026 04:49:22 +0000".
std::string mailDate(std::time_t unixSeconds);

// A fresh Message-ID for a message from sender: 16 random bytes in hex, "@"
// and the sender's domain.
std::string newMessageId(std::string const& sender);

// The whole message, CRLF line ends, ready for the DATA command: Date, From,
// To (one recipient a line), Subject, Message-ID, Auto-Submitted: auto-generated, MIME-Version,
// Content-Type: text/plain; charset=UTF-8, Content-Transfer-Encoding:
// base64, a blank line and the body's base64. Throws std::invalid_argument
// when an address or the Message-ID is not one to write into a header.
std::string composeMail(MailMessage const& message);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_NOTIFY_MAILMESSAGE_H
