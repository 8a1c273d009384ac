#include "apps/svc/notify/MailSender.h"

#include "apps/svc/CurlInet.h"

#include <curl/curl.h>

#include <memory>
#include <utility>

namespace qxsvc {

namespace {

struct CurlCloser {
  void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
struct SlistCloser {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

// What one call collects: the message still to go and the server's replies.
struct Exchange {
  std::string data;
  std::size_t sent = 0;
  std::string lastReply;
  std::function<bool()> const* stopped = nullptr;
};

std::size_t readMessage(char* buffer, std::size_t size, std::size_t count, void* userp) {
  auto* exchange = static_cast<Exchange*>(userp);
  std::size_t const n = std::min(size * count, exchange->data.size() - exchange->sent);
  exchange->data.copy(buffer, n, exchange->sent);
  exchange->sent += n;
  return n;
}

// libcurl hands the server's reply lines over as incoming headers.
int collectReplies(CURL*, curl_infotype type, char* data, std::size_t size, void* userp) {
  if (type != CURLINFO_HEADER_IN) return 0;
  std::string line(data, size);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (!line.empty()) static_cast<Exchange*>(userp)->lastReply = line;
  return 0;
}

int checkStop(void* userp, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return (*static_cast<Exchange*>(userp)->stopped)() ? 1 : 0;
}

}  // namespace

MailSender::MailSender(MailSenderOptions options) : m_options(std::move(options)) {}

std::string MailSender::curlUrlOf(std::string const& smtpUrl) {
  if (smtpUrl.find("://") != std::string::npos) return smtpUrl;
  return "smtp://" + smtpUrl;
}

namespace {

MailOutcome perform(MailSenderOptions const& options, Inet::EmailCfg const& email, Inet::InetCfg const& inet,
                    MailMessage const* message, std::function<bool()> const& stopped) {
  std::unique_ptr<CURL, CurlCloser> const handle(curl_easy_init());
  if (!handle) return {false, "libcurl cannot make a handle"};
  CURL* h = handle.get();
  Exchange exchange;
  exchange.stopped = &stopped;
  std::string const url = MailSender::curlUrlOf(email.smtpUrl());
  applyInetCfg(h, inet);  // the proxy; the checks of certificates are set again below
  if (inet.useProxy() && !inet.proxySocks()) curl_easy_setopt(h, CURLOPT_HTTPPROXYTUNNEL, 1L);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!options.caFile.empty()) curl_easy_setopt(h, CURLOPT_CAINFO, options.caFile.c_str());
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
  if (email.requireTls()) curl_easy_setopt(h, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
  if (!email.user().empty()) {
    curl_easy_setopt(h, CURLOPT_USERNAME, email.user().c_str());
    curl_easy_setopt(h, CURLOPT_PASSWORD, email.password().c_str());
  }
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options.connectTimeout.count() * 1000));
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(options.totalTimeout.count() * 1000));
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, checkStop);
  curl_easy_setopt(h, CURLOPT_XFERINFODATA, &exchange);
  curl_easy_setopt(h, CURLOPT_VERBOSE, 1L);  // the replies reach collectReplies only so
  curl_easy_setopt(h, CURLOPT_DEBUGFUNCTION, collectReplies);
  curl_easy_setopt(h, CURLOPT_DEBUGDATA, &exchange);
  char error[CURL_ERROR_SIZE] = "";
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, error);

  std::unique_ptr<curl_slist, SlistCloser> recipients;
  if (message) {
    try {
      exchange.data = composeMail(*message);
    } catch (std::invalid_argument const& e) {
      return {false, e.what()};
    }
    std::string const from = "<" + message->from + ">";
    curl_easy_setopt(h, CURLOPT_MAIL_FROM, from.c_str());
    for (std::string const& to : message->to) {
      curl_slist* const more = curl_slist_append(recipients.get(), ("<" + to + ">").c_str());
      if (!more) return {false, "out of memory"};
      recipients.release();
      recipients.reset(more);
    }
    curl_easy_setopt(h, CURLOPT_MAIL_RCPT, recipients.get());
    curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(h, CURLOPT_READFUNCTION, readMessage);
    curl_easy_setopt(h, CURLOPT_READDATA, &exchange);
    curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(exchange.data.size()));
  } else {
    curl_easy_setopt(h, CURLOPT_CONNECT_ONLY, 1L);
  }
  CURLcode const rc = curl_easy_perform(h);
  if (rc == CURLE_OK) return {true, exchange.lastReply};
  std::string why = rc == CURLE_ABORTED_BY_CALLBACK ? std::string("stopped")
                    : error[0] != '\0'                              ? std::string(error)
                                                                    : std::string(curl_easy_strerror(rc));
  if (!exchange.lastReply.empty()) why += " (server said: " + exchange.lastReply + ")";
  return {false, why};
}

}  // namespace

MailOutcome MailSender::send(Inet::EmailCfg const& email, Inet::InetCfg const& inet, MailMessage const& message,
                             std::function<bool()> const& stopped) const {
  return perform(m_options, email, inet, &message, stopped);
}

MailOutcome MailSender::checkLogin(Inet::EmailCfg const& email, Inet::InetCfg const& inet,
                                   std::function<bool()> const& stopped) const {
  return perform(m_options, email, inet, nullptr, stopped);
}

}  // namespace qxsvc
