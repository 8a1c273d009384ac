/// \file
/// Inet::EmailCfg: e-mail notices of the service.
///
/// The record holds the SMTP server URL ("smtp://host:port", "smtps://...", or
/// a bare host name that older configurations kept), the account used to log
/// in, whether TLS is required, which events are mailed, the sender and the
/// recipients (comma-separated addresses).
///
/// Its JSON form shares one flat object with other records' keys, so every key
/// begins with "Email": "EmailSmtpUrl", "EmailUser", "EmailPassword",
/// "EmailFrom", "EmailTo" (texts), "EmailRequireTls", "EmailNotifySuccess",
/// "EmailNotifyFailure" (true when set). The form is sparse. deserialize()
/// reads every key, missing ones giving their default, and throws json::Exc on
/// an SMTP URL that it refuses: one with blanks or control characters, or with
/// a port outside 1 to 65535.
///
/// A plain value: copyable; no locks; one thread at a time.
#ifndef QX_SHARED_EMAILCFG_H
#define QX_SHARED_EMAILCFG_H

#include "json/Json.h"

#include <string>

namespace Inet {

/// The e-mail notices of the service (see the file's contract).
class QX_SHARED_API EmailCfg {
 public:
  /// "smtp://", the protocol prefix of an SMTP URL.
  static std::string const SMTP_PROT_PREF;

  EmailCfg() = default;
  /// Throws std::invalid_argument on an SMTP URL that deserialize() would
  /// refuse.
  EmailCfg(std::string const& smtpUrl, std::string const& user, std::string const& password,
           bool requireTls, bool notifySuccess, bool notifyFailure, std::string const& from,
           std::string const& to);

  /// Writes the record's keys into obj (sparse; other keys stay).
  void serialize(json::Object& obj) const;
  /// Reads every key of the record from obj (see the file's contract).
  void deserialize(json::Object const& obj);

  /// Compares every member.
  bool operator==(EmailCfg const& other) const;
  /// Not equal as operator== compares.
  bool operator!=(EmailCfg const& other) const { return !(*this == other); }

  /// Lines of a label and a value, each ending in a line feed. The password is
  /// never shown, only whether one is set.
  std::string dump() const;

  ///@{
  /// The SMTP server's URL ("EmailSmtpUrl"); empty: no notices. The setter
  /// does not check it (see checkSmtpUrl).
  std::string const& smtpUrl() const { return m_smtpUrl; }
  void setSmtpUrl(std::string url) { m_smtpUrl = std::move(url); }
  ///@}
  /// The user name at the SMTP server ("EmailUser").
  std::string const& user() const { return m_user; }
  /// The password at the SMTP server ("EmailPassword").
  std::string const& password() const { return m_password; }
  /// Whether TLS is required with the SMTP server ("EmailRequireTls").
  bool requireTls() const { return m_requireTls; }
  /// Whether an upload that succeeds is mailed ("EmailNotifySuccess").
  bool notifySuccess() const { return m_notifySuccess; }
  /// Whether an upload that fails is mailed ("EmailNotifyFailure").
  bool notifyFailure() const { return m_notifyFailure; }
  /// The sender's address ("EmailFrom").
  std::string const& from() const { return m_from; }
  /// The recipients, separated by commas ("EmailTo").
  std::string const& to() const { return m_to; }

  /// The reason why url is refused, or the empty string when it is acceptable.
  static std::string checkSmtpUrl(std::string const& url);

 private:
  std::string m_smtpUrl;
  std::string m_user;
  std::string m_password;
  bool m_requireTls = false;
  bool m_notifySuccess = false;
  bool m_notifyFailure = false;
  std::string m_from;
  std::string m_to;
};

}  // namespace Inet

#endif  // QX_SHARED_EMAILCFG_H
