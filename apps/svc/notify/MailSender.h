// Sends one MailMessage through libcurl's SMTP, or only logs in to check the
// server, with the account of an Inet::EmailCfg.
//
// The URL: "smtp://host[:port]" (STARTTLS when the record requires TLS, and
// then nothing goes out unless it succeeds), "smtps://host[:port]" (TLS from
// the start), or a bare host name (as "smtp://host"). The server's
// certificate is always checked, against the system's authorities or the CA
// file of the options. The SOCKS or HTTP proxy of the internet settings
// applies (an HTTP proxy as a tunnel); none from the environment.
//
// Each call blocks its thread for at most the options' total time, or about a
// second after stopped() turns true; any thread, several at once.
#ifndef QX_APPS_SVC_NOTIFY_MAILSENDER_H
#define QX_APPS_SVC_NOTIFY_MAILSENDER_H

#include "apps/svc/notify/MailMessage.h"
#include "shared/EmailCfg.h"
#include "shared/InetCfg.h"

#include <functional>
#include <chrono>
#include <string>

namespace qxsvc {

struct MailSenderOptions {
  std::string caFile;  // authorities to trust instead of the system's; empty: the system's
  std::chrono::seconds connectTimeout{15};
  std::chrono::seconds totalTimeout{60};  // of one call, greeting to the last reply
};

// What became of a call: done, and the server's last reply ("250 2.0.0 OK
// queued", "235 2.7.0 Authentication successful"); or not, and why, with the
// server's last reply when there was one ("Login denied (server said: 535
// 5.7.8 Authentication credentials invalid)").
struct MailOutcome {
  bool done = false;
  std::string reply;
};

class MailSender {
 public:
  explicit MailSender(MailSenderOptions options);

  // Sends message to its recipients, from its sender (the envelope's
  // addresses are those of the message).
  MailOutcome send(Inet::EmailCfg const& email, Inet::InetCfg const& inet, MailMessage const& message,
                   std::function<bool()> const& stopped) const;
  // Connects, reads the greeting, says EHLO, starts TLS when required and
  // logs in; sends nothing.
  MailOutcome checkLogin(Inet::EmailCfg const& email, Inet::InetCfg const& inet, std::function<bool()> const& stopped) const;

  // The URL libcurl is given for the record's SMTP URL: a bare host name
  // becomes "smtp://<host>".
  static std::string curlUrlOf(std::string const& smtpUrl);

 private:
  MailSenderOptions const m_options;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_NOTIFY_MAILSENDER_H
