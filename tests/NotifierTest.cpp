// The Notifier in process: the texts of its notices, which notices the
// settings ask for, a notice dropped after a day with a log line, and a stop
// that does not wait on an SMTP server that never answers.
#include "apps/svc/notify/Notifier.h"
#include "tests/HeldPort.h"
#include "tests/MailTestServer.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <thread>

namespace {

namespace fs = boost::filesystem;
using qxsvc::PipelineEvent;

// 2026-11-24T04:49:22Z
constexpr std::int64_t kWhen = 1795495762;

struct TextCase {
  PipelineEvent event;
  char const* kind;
  char const* text;
};

TEST(NotifierTest, EachEventHasItsText) {
  TextCase const cases[] = {
      {{PipelineEvent::Kind::rejected, "scans", {"scans.zip"}, {}, "refused by the server", 2, "HTTP 400: bad\r\nBcc: x"},
       "rejected",
       "Rejected at 2026-11-24 04:49:22 UTC: \"scans\"\n  Files: scans.zip\n  Reason: refused by the server\n"
       "  Attempts: 2\n  Server's message: HTTP 400: bad\\r\\nBcc: x\n"},
      {{PipelineEvent::Kind::rejected, "a.exe", {"a.exe"}, {}, "not accepted", 0, ""},
       "rejected",
       "Rejected at 2026-11-24 04:49:22 UTC: \"a.exe\"\n  Files: a.exe\n  Reason: not accepted\n  Attempts: 0\n"},
      {{PipelineEvent::Kind::held, "", {}, {}, "the credentials are refused", 0, ""},
       "held",
       "Held at 2026-11-24 04:49:22 UTC: the credentials are refused\n"},
      {{PipelineEvent::Kind::resumed, "", {}, {}, "", 0, ""}, "resumed", "Uploading again at 2026-11-24 04:49:22 UTC\n"},
      {{PipelineEvent::Kind::done, "two", {"two/a.pdf", "two/b.pdf"}, {"k/a.pdf", "k/b.pdf"}, "", 1, ""},
       "done",
       "Uploaded at 2026-11-24 04:49:22 UTC: \"two\"\n  two/a.pdf -> k/a.pdf\n  two/b.pdf -> k/b.pdf\n"},
  };
  for (TextCase const& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_STREQ(c.kind, qxsvc::noticeKindOf(c.event.kind));
    EXPECT_EQ(c.text, qxsvc::noticeTextOf(c.event, kWhen));
  }
}

class NotifierWithJournal : public ::testing::Test {
 protected:
  // Settings that mail to port (where nothing useful answers), on failure
  // and on success as asked.
  Settings settingsFor(std::uint16_t port, bool failure, bool success) const {
    json::Object obj;
    obj.setAt("ReceiveFolder", json::Value((tmp / "in").string()));
    obj.setAt("SpoolFolder", json::Value((tmp / "out").string()));
    obj.setAt("BackupFolder", json::Value((tmp / "backup").string()));
    obj.setAt("EmailSmtpUrl", json::Value("smtp://127.0.0.1:" + std::to_string(port)));
    obj.setAt("EmailFrom", json::Value("qxlite@example.org"));
    obj.setAt("EmailTo", json::Value("ops@example.org"));
    obj.setAt("EmailNotifyFailure", json::Value(failure ? json_true() : json_false()));
    obj.setAt("EmailNotifySuccess", json::Value(success ? json_true() : json_false()));
    return Settings(obj);
  }

  std::shared_ptr<qxsvc::Journal> openJournal() {
    std::string note;
    return std::shared_ptr<qxsvc::Journal>(qxsvc::Journal::open(tmp / "journal.db", note));
  }

  qxtest::TempDir tmp;
};

TEST_F(NotifierWithJournal, KeepsOnlyTheNoticesTheSettingsAskFor) {
  qxtest::HeldPort refused;
  auto journal = openJournal();
  qxsvc::NotifierOptions options;
  options.window = std::chrono::seconds(3600);
  qxsvc::Notifier notifier(settingsFor(refused.port(), true, false), options);
  notifier.start(journal);
  notifier.post({PipelineEvent::Kind::done, "a.pdf", {"a.pdf"}, {"k/a.pdf"}, "", 1, ""});
  notifier.post({PipelineEvent::Kind::held, "", {}, {}, "no server answers", 0, ""});
  notifier.setSettings(settingsFor(refused.port(), false, true));
  notifier.post({PipelineEvent::Kind::rejected, "b.exe", {"b.exe"}, {}, "not accepted", 0, ""});
  notifier.post({PipelineEvent::Kind::done, "c.pdf", {"c.pdf"}, {"k/c.pdf"}, "", 1, ""});
  notifier.stop();
  std::vector<qxsvc::NoticeRow> const kept = journal->notices();
  ASSERT_EQ(2u, kept.size());
  EXPECT_EQ("held", kept[0].kind);
  EXPECT_EQ("done", kept[1].kind);
  EXPECT_EQ(0u, kept[1].text.find("Uploaded at ")) << kept[1].text;
  EXPECT_NE(std::string::npos, kept[1].text.find("\"c.pdf\"\n  c.pdf -> k/c.pdf\n")) << kept[1].text;
}

TEST_F(NotifierWithJournal, DropsANoticeNotSentWithinADayWithALogLine) {
  qxtest::HeldPort refused;
  auto journal = openJournal();
  std::int64_t const now = static_cast<std::int64_t>(std::time(nullptr));
  journal->addNotice({0, "rejected", now - 2 * 24 * 3600, "old"});
  journal->addNotice({0, "rejected", now, "new"});
  qxtest::LogCapture log;
  qxsvc::NotifierOptions options;
  options.window = std::chrono::seconds(3600);
  qxsvc::Notifier notifier(settingsFor(refused.port(), true, false), options);
  notifier.start(journal);
  ASSERT_TRUE(qxtest::waitFor([&] { return journal->notices().size() == 1; })) << journal->notices().size();
  notifier.stop();
  EXPECT_EQ("new", journal->notices().front().text);
  std::vector<std::string> const lines = log.lines();
  EXPECT_EQ((std::vector<std::string>{
                "WARNING:qxlite-svc drops 1 e-mail notice(s) of kind \"rejected\" not sent within 24 h"}),
            lines);
}

TEST_F(NotifierWithJournal, StopsWithinASecondWhileAMailWaitsOnASilentServer) {
  qxtest::SilentPort silent;
  auto journal = openJournal();
  qxsvc::NotifierOptions options;
  options.window = std::chrono::seconds(0);
  qxsvc::Notifier notifier(settingsFor(silent.port(), true, false), options);
  notifier.start(journal);
  notifier.post({PipelineEvent::Kind::rejected, "a.exe", {"a.exe"}, {}, "not accepted", 0, ""});
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the mail is under way
  auto const start = std::chrono::steady_clock::now();
  notifier.stop();
  auto const took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(took, std::chrono::milliseconds(1500));
  // Not sent: still kept for the next start.
  EXPECT_EQ(1u, journal->notices().size());
}

}  // namespace
