#include "apps/svc/notify/Notifier.h"

#include "apps/ConfigFile.h"
#include "shared/Log.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <stdexcept>

namespace qxsvc {

namespace {

// Each kind of notice: its name in the journal, the subject of its mail (one
// notice, several: "%u" the count) and the setting that asks for it.
struct KindInfo {
  PipelineEvent::Kind kind;
  char const* name;
  char const* subjectOne;
  char const* subjectMany;
  bool onSuccess;  // EmailNotifySuccess; otherwise EmailNotifyFailure
};
constexpr KindInfo kKinds[] = {
    {PipelineEvent::Kind::rejected, "rejected", "QXLite: an upload was rejected", "QXLite: %u uploads were rejected",
     false},
    {PipelineEvent::Kind::held, "held", "QXLite: uploads are held", "QXLite: uploads are held", false},
    {PipelineEvent::Kind::resumed, "resumed", "QXLite: uploads go on", "QXLite: uploads go on", false},
    {PipelineEvent::Kind::done, "done", "QXLite: an upload is done", "QXLite: %u uploads are done", true},
};

KindInfo const* kindInfo(PipelineEvent::Kind kind) {
  for (KindInfo const& k : kKinds) {
    if (k.kind == kind) return &k;
  }
  return nullptr;
}

KindInfo const* kindInfo(std::string const& name) {
  for (KindInfo const& k : kKinds) {
    if (name == k.name) return &k;
  }
  return nullptr;
}

std::int64_t unixNow() { return static_cast<std::int64_t>(std::time(nullptr)); }

std::string utcTime(std::int64_t unixSeconds) {
  std::time_t const t = static_cast<std::time_t>(unixSeconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &tm);
  return text;
}

// "1 mail goes", "12 mails go": the hourly limit as a sentence part.
std::string mailsOf(std::size_t count, char const* one, char const* many) {
  return std::to_string(count) + (count == 1 ? " mail " + std::string(one) : " mails " + std::string(many));
}

std::string joined(std::vector<std::string> const& parts) {
  std::string text;
  for (std::string const& p : parts) text += (text.empty() ? "" : ", ") + p;
  return text;
}

std::string hostName() {
  char name[256] = "";
  if (::gethostname(name, sizeof name - 1) != 0) return "this machine";
  return name;
}

void logInfo(std::string const& text) { Log::inst().writeLine("INFO:", "qxlite-svc " + text); }
void logWarning(std::string const& text) { Log::inst().writeLine("WARNING:", "qxlite-svc " + text); }

// The subject and the start of the body of a mail of count notices of kind.
std::string subjectOf(KindInfo const& kind, std::size_t count) {
  char subject[128];
  std::snprintf(subject, sizeof subject, count == 1 ? kind.subjectOne : kind.subjectMany,
                static_cast<unsigned>(count));
  return subject;
}

// The message of settings' e-mail record; throws std::invalid_argument on a
// wrong sender or recipient.
MailMessage messageOf(Settings const& settings, std::string const& subject, std::string const& body) {
  MailMessage message;
  std::string const why = checkMailAddress(settings.EmailConfig.from());
  if (!why.empty()) throw std::invalid_argument("the sender (EmailFrom): " + why);
  message.from = settings.EmailConfig.from();
  try {
    message.to = splitMailAddresses(settings.EmailConfig.to());
  } catch (std::invalid_argument const& e) {
    throw std::invalid_argument(std::string("the recipients (EmailTo): ") + e.what());
  }
  message.subject = subject;
  message.body = body;
  message.date = std::time(nullptr);
  message.messageId = newMessageId(message.from);
  return message;
}

}  // namespace

char const* noticeKindOf(PipelineEvent::Kind kind) {
  KindInfo const* info = kindInfo(kind);
  return info ? info->name : "unknown";
}

std::string noticeTextOf(PipelineEvent const& raw, std::int64_t unixSeconds) {
  using Kind = PipelineEvent::Kind;
  std::string const when = utcTime(unixSeconds);
  // Names, reasons and answers come from outside: their control bytes are
  // shown escaped, as in the log, so that each stays on its line.
  PipelineEvent event = raw;
  event.title = logEscaped(event.title);
  event.reason = logEscaped(event.reason);
  event.serverMessage = logEscaped(event.serverMessage);
  for (std::string& file : event.files) file = logEscaped(file);
  for (std::string& key : event.keys) key = logEscaped(key);
  switch (event.kind) {
    case Kind::rejected: {
      std::string text = "Rejected at " + when + ": \"" + event.title + "\"\n";
      text += "  Files: " + joined(event.files) + "\n";
      text += "  Reason: " + event.reason + "\n";
      text += "  Attempts: " + std::to_string(event.attempts) + "\n";
      if (!event.serverMessage.empty()) text += "  Server's message: " + event.serverMessage + "\n";
      return text;
    }
    case Kind::held:
      return "Held at " + when + ": " + event.reason + "\n";
    case Kind::resumed:
      return "Uploading again at " + when + "\n";
    case Kind::done: {
      std::string text = "Uploaded at " + when + ": \"" + event.title + "\"\n";
      for (std::size_t i = 0; i < event.files.size(); ++i) {
        text += "  " + event.files[i] + " -> " + (i < event.keys.size() ? event.keys[i] : std::string()) + "\n";
      }
      return text;
    }
  }
  return std::string();
}

Notifier::Notifier(Settings const& settings, NotifierOptions options)
    : m_options(std::move(options)), m_sender(m_options.sender), m_settings(qxapp::independentCopy(settings)) {}

Notifier::~Notifier() { stop(); }

void Notifier::start(std::shared_ptr<Journal> journal) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_started) return;
    m_started = true;
    m_journal = std::move(journal);
    if (m_journal) {
      // The notices of an earlier run first, then those posted meanwhile.
      std::deque<NoticeRow> early;
      early.swap(m_pending);
      try {
        for (NoticeRow const& kept : m_journal->notices()) m_pending.push_back(kept);
        for (NoticeRow notice : early) {
          notice.id = m_journal->addNotice(notice);
          m_pending.push_back(notice);
        }
      } catch (std::exception const& e) {
        Log::inst().writeLine("ERR:", std::string("qxlite-svc keeps e-mail notices in memory only: ") + e.what());
        for (NoticeRow const& notice : early) m_pending.push_back(notice);
        m_journal.reset();
      }
    }
  }
  m_thread = std::thread([this] { run(); });
}

void Notifier::stop() {
  m_stopping = true;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
  }
  m_cv.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void Notifier::setSettings(Settings const& settings) {
  Settings copy = qxapp::independentCopy(settings);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_settings = std::move(copy);
    // A new server or account deserves a try at once.
    m_nextTry = {};
    m_retryWait = std::chrono::milliseconds(0);
  }
  m_cv.notify_all();
}

bool Notifier::wanted(PipelineEvent::Kind kind) const {
  Inet::EmailCfg const& email = m_settings.EmailConfig;
  if (email.smtpUrl().empty() || email.from().empty() || email.to().empty()) return false;
  KindInfo const* info = kindInfo(kind);
  return info && (info->onSuccess ? email.notifySuccess() : email.notifyFailure());
}

void Notifier::post(PipelineEvent const& event) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!wanted(event.kind)) return;
    std::int64_t const now = unixNow();
    NoticeRow notice{0, noticeKindOf(event.kind), now, noticeTextOf(event, now)};
    if (m_journal) {
      notice.id = m_journal->addNotice(notice);  // throws, for the caller's log
    } else {
      notice.id = m_nextMemoryId--;
    }
    m_pending.push_back(std::move(notice));
  }
  m_cv.notify_all();
}

void Notifier::forget(std::vector<std::int64_t> const& ids) {
  m_pending.erase(std::remove_if(m_pending.begin(), m_pending.end(),
                                 [&ids](NoticeRow const& n) {
                                   return std::find(ids.begin(), ids.end(), n.id) != ids.end();
                                 }),
                  m_pending.end());
  if (!m_journal) return;
  try {
    m_journal->removeNotices(ids);
  } catch (std::exception const& e) {
    Log::inst().writeLine("ERR:", std::string("qxlite-svc ") + e.what());
  }
}

void Notifier::dropExpired(std::int64_t now) {
  std::map<std::string, std::vector<std::int64_t>> expired;
  for (NoticeRow const& n : m_pending) {
    if (now - n.created > m_options.keepFor.count()) expired[n.kind].push_back(n.id);
  }
  for (auto const& e : expired) {
    logWarning("drops " + std::to_string(e.second.size()) + " e-mail notice(s) of kind \"" + e.first +
               "\" not sent within " + std::to_string(m_options.keepFor.count() / 3600) + " h");
    forget(e.second);
  }
}

void Notifier::run() {
  using Clock = std::chrono::steady_clock;
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_stopping) {
    std::int64_t const now = unixNow();
    dropExpired(now);
    if (m_pending.empty()) {
      m_cv.wait(lock);
      continue;
    }
    // The kind whose first notice has waited longest; the wait before it is due.
    NoticeRow const& first = m_pending.front();
    std::int64_t const dueIn = first.created + m_options.window.count() - now;
    Clock::time_point const wakeAt = std::max(Clock::now() + std::chrono::seconds(std::max<std::int64_t>(dueIn, 0)),
                                              m_nextTry);
    if (wakeAt > Clock::now()) {
      m_cv.wait_until(lock, std::min(wakeAt, Clock::now() + std::chrono::minutes(10)));
      continue;
    }
    std::string const kind = first.kind;
    KindInfo const* info = kindInfo(kind);
    std::vector<std::int64_t> ids;
    std::string texts;
    for (NoticeRow const& n : m_pending) {
      if (n.kind != kind) continue;
      ids.push_back(n.id);
      texts += "\n" + n.text;
    }
    if (!info || !wanted(info->kind)) {
      forget(ids);  // a kind of a later version's, or one the settings no longer ask for
      continue;
    }
    while (!m_sentTimes.empty() && now - m_sentTimes.front() >= 3600) m_sentTimes.pop_front();
    if (m_sentTimes.size() >= m_options.mailsPerHour) {
      m_leftOut += ids.size();
      logWarning("leaves out " + std::to_string(ids.size()) + " e-mail notice(s) of kind \"" + kind + "\": " +
                 mailsOf(m_options.mailsPerHour, "went", "went") + " out in the last hour");
      forget(ids);
      continue;
    }
    std::string body = "qxlite-svc on " + hostName() + ":\n" + texts;
    if (m_leftOut > 0) {
      body += "\n" + std::to_string(m_leftOut) + " more notice(s) were left out: at most " +
              mailsOf(m_options.mailsPerHour, "goes", "go") + " out in an hour.\n";
    }
    Settings const settings = qxapp::independentCopy(m_settings);
    std::uint64_t const leftOutTold = m_leftOut;
    MailOutcome outcome;
    try {
      MailMessage const message = messageOf(settings, subjectOf(*info, ids.size()), body);
      lock.unlock();
      outcome = m_sender.send(settings.EmailConfig, settings.InetConfig, message, [this] { return m_stopping.load(); });
      lock.lock();
    } catch (std::invalid_argument const& e) {
      outcome = {false, e.what()};
    }
    if (m_stopping) break;
    if (outcome.done) {
      if (m_failing) logInfo("sends e-mail notices again");
      m_failing = false;
      m_retryWait = std::chrono::milliseconds(0);
      m_nextTry = {};
      m_sentTimes.push_back(unixNow());
      m_leftOut -= std::min(m_leftOut, leftOutTold);
      logInfo("mailed " + std::to_string(ids.size()) + " notice(s) of kind \"" + kind + "\" to " +
              settings.EmailConfig.to() + ": " + outcome.reply);
      forget(ids);
    } else {
      m_retryWait = m_retryWait.count() == 0 ? m_options.retryFirst
                                             : std::min(m_retryWait * 2, m_options.retryMost);
      m_nextTry = Clock::now() + m_retryWait;
      if (!m_failing) {
        logWarning("cannot send e-mail notices through \"" + settings.EmailConfig.smtpUrl() + "\": " + outcome.reply +
                   "; tries again with growing waits, and says so here when mail goes out again");
      }
      m_failing = true;
    }
  }
}

Settings Notifier::settingsNow() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return qxapp::independentCopy(m_settings);
}

MailOutcome Notifier::sendTest(std::function<bool()> const& stopped) const {
  Settings const settings = settingsNow();
  if (settings.EmailConfig.smtpUrl().empty()) return {false, "no SMTP server is set (EmailSmtpUrl)"};
  try {
    MailMessage const message =
        messageOf(settings, "QXLite: test notice",
                  "qxlite-svc on " + hostName() + ":\n\nThis is a test notice, sent as asked with qxlite notify-test.\n");
    return m_sender.send(settings.EmailConfig, settings.InetConfig, message, stopped);
  } catch (std::invalid_argument const& e) {
    return {false, e.what()};
  }
}

MailOutcome Notifier::checkLogin(std::function<bool()> const& stopped) const {
  Settings const settings = settingsNow();
  if (settings.EmailConfig.smtpUrl().empty()) return {false, "no SMTP server is set (EmailSmtpUrl)"};
  return m_sender.checkLogin(settings.EmailConfig, settings.InetConfig, stopped);
}

}  // namespace qxsvc
