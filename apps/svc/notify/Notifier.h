// The service's e-mail notices: what happened to the uploads, mailed to the
// recipients of the configuration's e-mail record, never in the way of an
// upload, a command or a stop.
//
// post() keeps a notice in the journal (so that it survives a restart) and
// returns; a thread of the notifier's own mails them. Notices are gathered by
// kind: the first of a kind waits a window (5 minutes by default), and then
// every notice of that kind goes in one mail. At most mailsPerHour mails go
// out in any hour; what the limit leaves out is counted, and the next mail
// says how many. A mail that fails is tried again after retryFirst, doubling
// up to retryMost; the log says so once per outage, with the server's reply,
// and once when mail goes out again. A notice not sent within keepFor is
// dropped with a log line.
//
// Which notices are kept: rejected, held and resumed when EmailNotifyFailure
// is set, done when EmailNotifySuccess is set, and none without an SMTP
// server, a sender or a recipient; a notice kept before the settings
// stopped asking for its kind is dropped when it is due.
//
// Threads: every public member may be called from any thread; post() and
// setSettings() never wait on the network. stop() returns within about a
// second even while a mail is in flight to a server that does not answer.
#ifndef QX_APPS_SVC_NOTIFY_NOTIFIER_H
#define QX_APPS_SVC_NOTIFY_NOTIFIER_H

#include "apps/svc/notify/MailSender.h"
#include "apps/svc/upload/Journal.h"
#include "apps/svc/upload/Pipeline.h"
#include "settings/Settings.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qxsvc {

struct NotifierOptions {
  std::chrono::seconds window{300};
  unsigned mailsPerHour = 12;
  std::chrono::seconds keepFor{24 * 3600};
  std::chrono::milliseconds retryFirst{30000};
  std::chrono::milliseconds retryMost{1800000};
  MailSenderOptions sender;
};

// The text a notice of event holds (its kind's name is noticeKindOf()), the
// control bytes of its names, reasons and answers escaped as the log does.
std::string noticeTextOf(PipelineEvent const& event, std::int64_t unixSeconds);
// The name under which notices of event's kind are gathered: "rejected",
// "held", "resumed", "done".
char const* noticeKindOf(PipelineEvent::Kind kind);

class Notifier {
 public:
  Notifier(Settings const& settings, NotifierOptions options);
  // Stops the thread; notices not yet mailed stay in the journal.
  ~Notifier();
  Notifier(Notifier const&) = delete;
  Notifier& operator=(Notifier const&) = delete;

  // Takes the notices kept in journal (null: none is kept, and notices live
  // in memory only) and starts the thread. Notices posted before are kept
  // in the journal now. Once.
  void start(std::shared_ptr<Journal> journal);
  void stop();
  void setSettings(Settings const& settings);

  // Keeps a notice of event when the settings ask for its kind.
  void post(PipelineEvent const& event);

  // Mails one test notice now, on the caller's thread (bounded by the
  // sender's time-outs and stopped); the outcome has the server's reply.
  MailOutcome sendTest(std::function<bool()> const& stopped) const;
  // What its mails are sent with (the configuration test tries the same).
  MailSenderOptions const& senderOptions() const { return m_options.sender; }
  // Logs in to the SMTP server without sending (see MailSender).
  MailOutcome checkLogin(std::function<bool()> const& stopped) const;

 private:
  void run();
  Settings settingsNow() const;
  bool wanted(PipelineEvent::Kind kind) const;  // with m_mutex held
  void dropExpired(std::int64_t now);           // with m_mutex held
  // Forgets the notices of ids, in memory and in the journal; with m_mutex held.
  void forget(std::vector<std::int64_t> const& ids);

  NotifierOptions const m_options;
  MailSender const m_sender;
  std::atomic<bool> m_stopping{false};  // also read by the sender's progress check

  mutable std::mutex m_mutex;
  std::condition_variable m_cv;
  Settings m_settings;                     // guarded by m_mutex
  std::shared_ptr<Journal> m_journal;      // guarded by m_mutex
  std::deque<NoticeRow> m_pending;         // guarded by m_mutex: oldest first
  std::int64_t m_nextMemoryId = -1;        // guarded by m_mutex: ids of notices not in a journal
  std::deque<std::int64_t> m_sentTimes;    // guarded by m_mutex: unix seconds of the mails of the last hour
  std::uint64_t m_leftOut = 0;             // guarded by m_mutex: notices the hourly limit left out
  bool m_failing = false;                  // guarded by m_mutex: the last mail failed
  std::chrono::milliseconds m_retryWait{0};             // guarded by m_mutex
  std::chrono::steady_clock::time_point m_nextTry{};    // guarded by m_mutex
  bool m_started = false;                  // guarded by m_mutex
  std::thread m_thread;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_NOTIFY_NOTIFIER_H
