#include "shared/EmailCfg.h"

#include "shared/CfgJson.h"

#include <stdexcept>

namespace Inet {

namespace {

using namespace qx::cfgjson;

constexpr char kSmtpUrl[] = "EmailSmtpUrl";
constexpr char kUser[] = "EmailUser";
constexpr char kPassword[] = "EmailPassword";
constexpr char kRequireTls[] = "EmailRequireTls";
constexpr char kNotifySuccess[] = "EmailNotifySuccess";
constexpr char kNotifyFailure[] = "EmailNotifyFailure";
constexpr char kFrom[] = "EmailFrom";
constexpr char kTo[] = "EmailTo";

}  // namespace

std::string const EmailCfg::SMTP_PROT_PREF = "smtp://";

EmailCfg::EmailCfg(std::string const& smtpUrl, std::string const& user,
                   std::string const& password, bool requireTls, bool notifySuccess,
                   bool notifyFailure, std::string const& from, std::string const& to)
    : m_smtpUrl(smtpUrl),
      m_user(user),
      m_password(password),
      m_requireTls(requireTls),
      m_notifySuccess(notifySuccess),
      m_notifyFailure(notifyFailure),
      m_from(from),
      m_to(to) {
  std::string const why = checkSmtpUrl(smtpUrl);
  if (!why.empty()) throw std::invalid_argument("Inet: SMTP URL \"" + smtpUrl + "\": " + why);
}

std::string EmailCfg::checkSmtpUrl(std::string const& url) {
  for (char c : url) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
      return "blanks and control characters are not allowed";
    }
  }
  return checkAddressPort(url);
}

void EmailCfg::serialize(json::Object& obj) const {
  putText(obj, kSmtpUrl, m_smtpUrl);
  putText(obj, kUser, m_user);
  putText(obj, kPassword, m_password);
  putFlag(obj, kRequireTls, m_requireTls);
  putFlag(obj, kNotifySuccess, m_notifySuccess);
  putFlag(obj, kNotifyFailure, m_notifyFailure);
  putText(obj, kFrom, m_from);
  putText(obj, kTo, m_to);
}

void EmailCfg::deserialize(json::Object const& obj) {
  std::string const url = getText(obj, kSmtpUrl);
  std::string const why = checkSmtpUrl(url);
  if (!why.empty()) {
    throw json::Exc("Inet: \"" + std::string(kSmtpUrl) + "\" \"" + url + "\": " + why);
  }
  m_smtpUrl = url;
  m_user = getText(obj, kUser);
  m_password = getText(obj, kPassword);
  m_requireTls = getFlag(obj, kRequireTls);
  m_notifySuccess = getFlag(obj, kNotifySuccess);
  m_notifyFailure = getFlag(obj, kNotifyFailure);
  m_from = getText(obj, kFrom);
  m_to = getText(obj, kTo);
}

bool EmailCfg::operator==(EmailCfg const& o) const {
  return m_smtpUrl == o.m_smtpUrl && m_user == o.m_user && m_password == o.m_password &&
         m_requireTls == o.m_requireTls && m_notifySuccess == o.m_notifySuccess &&
         m_notifyFailure == o.m_notifyFailure && m_from == o.m_from && m_to == o.m_to;
}

std::string EmailCfg::dump() const {
  if (m_smtpUrl.empty()) return "E-mail notices: off (no SMTP server)\n";
  std::string out;
  out += "SMTP server: " + m_smtpUrl + "\n";
  out += "SMTP user: " + m_user + "\n";
  out += std::string("SMTP password: ") + (m_password.empty() ? "not set" : "set") + "\n";
  out += std::string("SMTP TLS: ") + (m_requireTls ? "required" : "optional") + "\n";
  out += std::string("E-mail on success: ") + (m_notifySuccess ? "yes" : "no") + "\n";
  out += std::string("E-mail on failure: ") + (m_notifyFailure ? "yes" : "no") + "\n";
  out += "E-mail from: " + m_from + "\n";
  out += "E-mail to: " + m_to + "\n";
  return out;
}

}  // namespace Inet
