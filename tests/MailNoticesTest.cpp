// The service as a process mails its notices to a real SMTP server
// (tests/MailTestServer.h) while it uploads to the WebDAV or S3 test server:
// rejections gathered into one mail, a held queue once and its resumption
// once, success notices only when asked, a hostile file name that stays in
// the body, wrong SMTP credentials logged once, and an SMTP server that
// stalls without slowing an upload or a stop.
#include "tests/MailTestServer.h"
#include "tests/ProcessHarness.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <signal.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <sstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

using qxtest::logLines;

namespace fs = boost::filesystem;
using qxtest::MailTestServer;

constexpr char kFrom[] = "qxlite@scanner.example.org";
constexpr char kTo[] = "ops@example.org, desk@example.com";

// The headers of a notice as shown (steady()), in the service's order, up to
// the empty line.
std::string headersWith(std::string const& subject) {
  return std::string("Date: DATE\n") + "From: " + kFrom + "\nTo: " + kTo + "\nSubject: " + subject +
         "\n"
         "Message-ID: <ID@scanner.example.org>\n"
         "Auto-Submitted: auto-generated\n"
         "MIME-Version: 1.0\n"
         "Content-Type: text/plain; charset=\"UTF-8\"\n"
         "Content-Transfer-Encoding: base64\n";
}


std::size_t countLinesStartingWith(std::string const& text, std::string const& start) {
  std::vector<std::string> const lines = logLines(text);
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(), [&](std::string const& l) { return l.rfind(start, 0) == 0; }));
}

// The shown message with its varying values (date, message id, times, host
// name) replaced by fixed words.
std::string steady(std::string text) {
  text = std::regex_replace(text, std::regex("Date: [^\n]*"), "Date: DATE");
  text = std::regex_replace(text, std::regex("Message-ID: <[0-9a-f]{32}@scanner\\.example\\.org>"),
                            "Message-ID: <ID@scanner.example.org>");
  text = std::regex_replace(text, std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC"), "TIME");
  text = std::regex_replace(text, std::regex("qxlite-svc on [^\n]*:\n"), "qxlite-svc on HOST:\n");
  return text;
}


class MailNoticesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (char const* f : {"in", "out", "backup", "backup/.rejected", "state"}) {
      fs::create_directories(dir / f);
      ::chmod((dir / f).c_str(), 0750);
    }
  }

  // The e-mail keys for the test's SMTP server; notify: ",\"EmailNotify...\":true".
  std::string emailKeys(std::string const& url, std::string const& password, std::string const& notify) const {
    return ",\"EmailSmtpUrl\":\"" + url + "\",\"EmailUser\":\"" + MailTestServer::kUser +
           "\",\"EmailPassword\":\"" + password + "\",\"EmailRequireTls\":true,\"EmailFrom\":\"" + kFrom +
           "\",\"EmailTo\":\"" + kTo + "\"" + notify;
  }

  void writeConfig(std::string const& address, std::string const& extra) {
    qxtest::writeFile(dir / "config.json",
                      "{\"ReceiveFolder\":\"" + (dir / "in").string() + "\",\"SpoolFolder\":\"" + (dir / "out").string() +
                          "\",\"BackupFolder\":\"" + (dir / "backup").string() + "\",\"InetServer\":\"" + address +
                          "\",\"SrvFileExts\":[\"txt\"]" + extra + "}");
  }

  void writeCredentials(std::string const& user, std::string const& secret) {
    qxtest::writeFile(dir / "credentials.json", "{\"user\":\"" + user + "\",\"secret\":\"" + secret + "\"}");
    ::chmod((dir / "credentials.json").c_str(), 0600);
  }

  void startService(std::vector<std::string> const& more = {}) {
    std::vector<std::string> args{"--config", (dir / "config.json").string(), "--token-file",
                                  (dir / "ipc.token").string(), "--port", "0", "--foreground", "--state-dir",
                                  (dir / "state").string(), "--credentials", (dir / "credentials.json").string(),
                                  "--settle-time", "0.05", "--runtime-dir", (dir / "run").string(),
                                  "--retry-after", "0.5"};
    args.insert(args.end(), more.begin(), more.end());
    service = std::make_unique<qxtest::Child>(QX_SVC_PROGRAM, args, dir / "svc.out", dir / "svc.err");
    ASSERT_TRUE(qxtest::waitFor([&] { return service->err().find("serving on") != std::string::npos || !service->running(); }))
        << service->err();
    ASSERT_TRUE(service->running()) << service->err();
  }

  // Drops a file into the incoming folder as another program would.
  void drop(std::string const& name, std::string const& content) {
    qxtest::writeFile(dir / ".part", content);
    fs::rename(dir / ".part", dir / "in" / name);
  }

  bool logSays(std::string const& start, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    return qxtest::waitFor([&] { return countLinesStartingWith(service->err(), start) > 0; }, limit);
  }

  // Stops the service; returns how long it took.
  std::chrono::milliseconds stopService() {
    auto const start = std::chrono::steady_clock::now();
    service->signal(SIGTERM);
    EXPECT_TRUE(service->wait()) << service->err();
    EXPECT_EQ(0, service->status()) << service->err();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  }

  qxtest::TempDir tmp;
  fs::path const dir = tmp.path();
  std::unique_ptr<qxtest::Child> service;
};

TEST_F(MailNoticesTest, ARejectedItemMailsOneNoticeWithItsReason) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  writeCredentials(qxtest::davServer().user, qxtest::davServer().password);
  startService({"--mail-window", "1", "--mail-ca-file", smtp.caFile().string()});
  drop("scan.exe", "not for the server");
  ASSERT_TRUE(smtp.waitForMessages(1)) << service->err();
  std::vector<fs::path> const mails = smtp.messages();
  std::string const shown = smtp.shown(mails.front());
  EXPECT_EQ(
      headersWith("QXLite: an upload was rejected") + "\n"
      "qxlite-svc on HOST:\n"
      "\n"
      "Rejected at TIME: \"scan.exe\"\n"
      "  Files: scan.exe\n"
      "  Reason: \"scan.exe\" has the extension \"exe\", which is not accepted; accepted are: txt\n"
      "  Attempts: 0\n",
      steady(shown))
      << smtp.raw(mails.front());
  EXPECT_EQ("from qxlite@scanner.example.org\nto ops@example.org\nto desk@example.com\n", smtp.envelope(mails.front()));
  stopService();
  EXPECT_EQ(1u, smtp.messages().size());
}

TEST_F(MailNoticesTest, TenRejectionsWithinTheWindowMakeOneMail) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  writeCredentials(qxtest::davServer().user, qxtest::davServer().password);
  startService({"--mail-window", "3", "--mail-ca-file", smtp.caFile().string()});
  for (int i = 0; i < 10; ++i) drop("scan" + std::to_string(i) + ".exe", "not for the server");
  ASSERT_TRUE(logSays("INFO:qxlite-svc mailed 10 notice(s) of kind \"rejected\" to " + std::string(kTo) +
                      ": 250 2.0.0 OK queued as 0001"))
      << service->err();
  std::vector<fs::path> const mails = smtp.messages();
  ASSERT_EQ(1u, mails.size());
  std::string const shown = steady(smtp.shown(mails.front()));
  EXPECT_NE(std::string::npos, shown.find("\nSubject: QXLite: 10 uploads were rejected\n")) << shown;
  for (int i = 0; i < 10; ++i) {
    std::string const name = "scan" + std::to_string(i) + ".exe";
    EXPECT_NE(std::string::npos, shown.find("Rejected at TIME: \"" + name + "\"\n  Files: " + name + "\n")) << shown;
  }
  stopService();
  EXPECT_EQ(1u, smtp.messages().size());
}

TEST_F(MailNoticesTest, AHostileFileNameStaysInTheBodyAndAddsNoHeader) {
  MailTestServer smtp(dir, MailTestServer::Tls::smtps);
  ASSERT_NE(0, smtp.port());
  writeConfig(qxtest::davServer().url,
              emailKeys(smtp.url("smtps"), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  writeCredentials(qxtest::davServer().user, qxtest::davServer().password);
  startService({"--mail-window", "1", "--mail-ca-file", smtp.caFile().string()});
  std::string const hostile = "x\r\nBcc: victim@example.net\r\nSubject: free\r\n\r\n.exe";
  drop(hostile, "not for the server");
  ASSERT_TRUE(smtp.waitForMessages(1)) << service->err();
  std::vector<fs::path> const mails = smtp.messages();
  std::string const shown = steady(smtp.shown(mails.front()));
  // Exactly the service's headers, in its order; the name only in the body.
  EXPECT_EQ(
      headersWith("QXLite: an upload was rejected") + "\n",
      shown.substr(0, shown.find("\n\n") + 2))
      << smtp.raw(mails.front());
  // In the body, escaped as in the log: one line.
  EXPECT_NE(std::string::npos,
            shown.find("\nRejected at TIME: \"x\\r\\nBcc: victim@example.net\\r\\nSubject: free\\r\\n\\r\\n.exe\"\n"))
      << shown;
  EXPECT_EQ("from qxlite@scanner.example.org\nto ops@example.org\nto desk@example.com\n", smtp.envelope(mails.front()));
  EXPECT_EQ(std::string::npos, smtp.raw(mails.front()).find("victim")) << smtp.raw(mails.front());
  stopService();
}

TEST_F(MailNoticesTest, AHeldQueueMailsOnceAndOnceWhenItResumes) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "mailheld");
  writeConfig("s3://" + s3.endpoint.substr(s3.endpoint.find("://") + 3) + "/" + bucket,
              emailKeys(smtp.url(), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  writeCredentials(s3.accessKey, "not-the-secret");
  startService({"--mail-window", "1", "--mail-ca-file", smtp.caFile().string()});
  drop("a.txt", "first\n");
  ASSERT_TRUE(logSays("WARNING:qxlite-svc holds the upload queue: ")) << service->err();
  ASSERT_TRUE(smtp.waitForMessages(1)) << service->err();
  // Probed again and again (every 0.5 s), still one notice.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  ASSERT_EQ(1u, smtp.messages().size()) << service->err();
  std::string const held = steady(smtp.shown(smtp.messages().front()));
  EXPECT_NE(std::string::npos, held.find("\nSubject: QXLite: uploads are held\n")) << held;
  EXPECT_NE(std::string::npos, held.find("\n\nqxlite-svc on HOST:\n\nHeld at TIME: ")) << held;

  // A reload lifts the hold for a new try, which is held again: no news.
  service->signal(SIGHUP);
  ASSERT_TRUE(logSays("INFO:qxlite-svc Configuration reloaded from ")) << service->err();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  ASSERT_EQ(1u, smtp.messages().size()) << service->err();

  writeCredentials(s3.accessKey, s3.secretKey);
  service->signal(SIGHUP);
  ASSERT_TRUE(logSays("INFO:qxlite-svc uploaded job ")) << service->err();
  ASSERT_TRUE(smtp.waitForMessages(2)) << service->err();
  std::string const resumed = steady(smtp.shown(smtp.messages()[1]));
  EXPECT_NE(std::string::npos, resumed.find("\nSubject: QXLite: uploads go on\n")) << resumed;
  EXPECT_NE(std::string::npos, resumed.find("\n\nqxlite-svc on HOST:\n\nUploading again at TIME\n")) << resumed;
  std::this_thread::sleep_for(std::chrono::seconds(2));
  stopService();
  EXPECT_EQ(2u, smtp.messages().size());
}

TEST_F(MailNoticesTest, SuccessIsMailedOnlyWhenAsked) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  qxtest::DavTestServer const& dav = qxtest::davServer();
  std::string const folder = dav.url + "/mail-success-" + fs::unique_path("%%%%%%%%").string();
  writeConfig(folder, emailKeys(smtp.url(), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  writeCredentials(dav.user, dav.password);
  startService({"--mail-window", "1", "--mail-ca-file", smtp.caFile().string()});
  drop("quiet.txt", "not mailed\n");
  ASSERT_TRUE(logSays("INFO:qxlite-svc uploaded job ")) << service->err();
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_EQ(0u, smtp.messages().size());

  writeConfig(folder, emailKeys(smtp.url(), MailTestServer::kPassword,
                                ",\"EmailNotifyFailure\":true,\"EmailNotifySuccess\":true"));
  service->signal(SIGHUP);
  ASSERT_TRUE(logSays("INFO:qxlite-svc Configuration reloaded from ")) << service->err();
  drop("told.txt", "mailed\n");
  ASSERT_TRUE(smtp.waitForMessages(1)) << service->err();
  std::string const shown = steady(smtp.shown(smtp.messages().front()));
  std::smatch key;
  ASSERT_TRUE(std::regex_search(shown, key, std::regex("\n  told\\.txt -> (\\S+)\n"))) << shown;
  EXPECT_NE(std::string::npos, shown.find("\nSubject: QXLite: an upload is done\n")) << shown;
  EXPECT_NE(std::string::npos, shown.find("\n\nqxlite-svc on HOST:\n\nUploaded at TIME: \"told.txt\"\n")) << shown;
  // The key is where the file is on the server.
  EXPECT_EQ(200, qxtest::davRequest(dav, "GET", folder.substr(dav.url.size()) + "/" + key[1].str()).status)
      << key[1].str();
  stopService();
  EXPECT_EQ(1u, smtp.messages().size());
}

TEST_F(MailNoticesTest, WrongSmtpCredentialsAreLoggedOncePerOutage) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), "wrong", ",\"EmailNotifyFailure\":true"));
  writeCredentials(qxtest::davServer().user, qxtest::davServer().password);
  startService({"--mail-window", "0", "--mail-ca-file", smtp.caFile().string()});
  drop("one.exe", "x");
  std::string const failed = "WARNING:qxlite-svc cannot send e-mail notices through \"" + smtp.url() +
                             "\": Login denied (server said: 535 5.7.8 Authentication credentials invalid); "
                             "tries again with growing waits, and says so here when mail goes out again";
  ASSERT_TRUE(logSays(failed)) << service->err();
  drop("two.exe", "x");
  // Tried after 0.5, 1 and 2 s: three more failures, no more lines.
  std::this_thread::sleep_for(std::chrono::seconds(4));
  EXPECT_EQ(1u, countLinesStartingWith(service->err(), "WARNING:qxlite-svc cannot send e-mail notices"))
      << service->err();
  EXPECT_EQ(0u, smtp.messages().size());

  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  service->signal(SIGHUP);
  ASSERT_TRUE(smtp.waitForMessages(1)) << service->err();
  ASSERT_TRUE(logSays("INFO:qxlite-svc sends e-mail notices again")) << service->err();
  stopService();
}

TEST_F(MailNoticesTest, ASmtpServerThatIsDownIsLoggedOnceAndUploadsGoOn) {
  qxtest::HeldPort const down;  // bound, not listening: connections are refused
  qxtest::DavTestServer const& dav = qxtest::davServer();
  std::string const url = "smtp://127.0.0.1:" + down.text();
  writeConfig(dav.url + "/mail-down-" + fs::unique_path("%%%%%%%%").string(),
              emailKeys(url, MailTestServer::kPassword, ",\"EmailNotifyFailure\":true,\"EmailNotifySuccess\":true"));
  writeCredentials(dav.user, dav.password);
  startService({"--mail-window", "0"});
  drop("one.exe", "x");
  std::string const failed = "WARNING:qxlite-svc cannot send e-mail notices through \"" + url +
                             "\": Failed to connect to 127.0.0.1 port " + down.text() + " after ";
  ASSERT_TRUE(logSays(failed)) << service->err();
  drop("two.txt", "two\n");
  ASSERT_TRUE(logSays("INFO:qxlite-svc uploaded job ")) << service->err();
  // Tried again after 0.5, 1 and 2 s meanwhile: still the one line.
  std::this_thread::sleep_for(std::chrono::seconds(4));
  EXPECT_EQ(1u, countLinesStartingWith(service->err(), "WARNING:qxlite-svc cannot send e-mail notices"))
      << service->err();
  EXPECT_LT(stopService(), std::chrono::seconds(3)) << service->err();
}

TEST_F(MailNoticesTest, AStalledSmtpServerDelaysNeitherUploadsNorTheStop) {
  qxtest::SilentPort silent;
  ASSERT_NE(0, silent.port());
  qxtest::DavTestServer const& dav = qxtest::davServer();
  std::string const folder = dav.url + "/mail-stall-" + fs::unique_path("%%%%%%%%").string();
  writeConfig(folder, "");
  writeCredentials(dav.user, dav.password);
  startService({"--mail-window", "0"});
  std::size_t uploaded = 0;
  // The time each of five uploads takes, from the drop to the log's line.
  auto fiveUploads = [&](char const* round) {
    std::vector<long long> times;
    for (int i = 0; i < 5; ++i) {
      auto const start = std::chrono::steady_clock::now();
      drop(std::string(round) + std::to_string(i) + ".txt", "content " + std::to_string(i) + "\n");
      ++uploaded;
      EXPECT_TRUE(qxtest::waitFor(
          [&] { return countLinesStartingWith(service->err(), "INFO:qxlite-svc uploaded job ") == uploaded; },
          std::chrono::seconds(10)))
          << service->err();
      times.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
                          .count());
    }
    std::cout << round << " uploads (ms):";
    for (long long t : times) std::cout << " " << t;
    std::cout << "\n";
    return *std::max_element(times.begin(), times.end());
  };
  long long const without = fiveUploads("quiet");

  writeConfig(folder, emailKeys("smtp://127.0.0.1:" + std::to_string(silent.port()), MailTestServer::kPassword,
                                ",\"EmailNotifyFailure\":true,\"EmailNotifySuccess\":true"));
  service->signal(SIGHUP);
  ASSERT_TRUE(logSays("INFO:qxlite-svc Configuration reloaded from ")) << service->err();
  // The first notice starts a mail that hangs on the silent server ...
  drop("first.exe", "x");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  // ... while uploads go on as fast as before.
  long long const stalled = fiveUploads("stalled");
  EXPECT_LT(stalled, without + 1000);
  EXPECT_EQ(0u, countLinesStartingWith(service->err(), "WARNING:qxlite-svc cannot send e-mail notices")) << service->err();
  std::chrono::milliseconds const stop = stopService();
  std::cout << "stop with a mail in flight: " << stop.count() << " ms\n";
  EXPECT_LT(stop, std::chrono::seconds(3)) << service->err();
}

TEST_F(MailNoticesTest, NoticesNotYetMailedSurviveARestart) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  writeCredentials(qxtest::davServer().user, qxtest::davServer().password);
  startService({"--mail-window", "3600", "--mail-ca-file", smtp.caFile().string()});
  drop("kept.exe", "x");
  ASSERT_TRUE(logSays("WARNING:qxlite-svc rejected \"kept.exe\"")) << service->err();
  stopService();
  EXPECT_EQ(0u, smtp.messages().size());

  startService({"--mail-window", "1", "--mail-ca-file", smtp.caFile().string()});
  ASSERT_TRUE(smtp.waitForMessages(1)) << service->err();
  std::string const shown = steady(smtp.shown(smtp.messages().front()));
  EXPECT_NE(std::string::npos, shown.find("\n\nqxlite-svc on HOST:\n\nRejected at TIME: \"kept.exe\"\n")) << shown;
  stopService();
  // Mailed once: not again at the next start.
  startService({"--mail-window", "0", "--mail-ca-file", smtp.caFile().string()});
  std::this_thread::sleep_for(std::chrono::seconds(1));
  stopService();
  EXPECT_EQ(1u, smtp.messages().size());
}

TEST_F(MailNoticesTest, TheHourlyLimitLeavesNoticesOutWithALogLine) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  writeCredentials(qxtest::davServer().user, qxtest::davServer().password);
  startService({"--mail-window", "0", "--mail-per-hour", "1", "--mail-ca-file", smtp.caFile().string()});
  drop("first.exe", "x");
  ASSERT_TRUE(smtp.waitForMessages(1)) << service->err();
  drop("second.exe", "x");
  ASSERT_TRUE(logSays("WARNING:qxlite-svc leaves out 1 e-mail notice(s) of kind \"rejected\": 1 mail went out in "
                      "the last hour"))
      << service->err();
  stopService();
  EXPECT_EQ(1u, smtp.messages().size());
}

TEST_F(MailNoticesTest, NotifyTestMailsOneNoticeAndPrintsTheServersAnswer) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), MailTestServer::kPassword, ""));
  writeCredentials(qxtest::davServer().user, qxtest::davServer().password);
  startService({"--mail-ca-file", smtp.caFile().string()});
  auto notifyTest = [&] {
    qxtest::Child client(QX_CLI_PROGRAM, {"--runtime-dir", (dir / "run").string(), "notify-test"}, dir / "cli.out",
                         dir / "cli.err");
    EXPECT_TRUE(client.wait());
    return client.outcome();
  };
  qxtest::Outcome const sent = notifyTest();
  EXPECT_EQ(0, sent.status) << sent.err;
  EXPECT_EQ("Test notice sent; the SMTP server answered: 250 2.0.0 OK queued as 0001\n", sent.out);
  EXPECT_EQ("", sent.err);
  ASSERT_EQ(1u, smtp.messages().size());
  EXPECT_EQ(
      headersWith("QXLite: test notice") + "\n"
      "qxlite-svc on HOST:\n"
      "\n"
      "This is a test notice, sent as asked with qxlite notify-test.\n",
      steady(smtp.shown(smtp.messages().front())));

  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), "wrong", ""));
  service->signal(SIGHUP);
  ASSERT_TRUE(logSays("INFO:qxlite-svc Configuration reloaded from ")) << service->err();
  qxtest::Outcome const refused = notifyTest();
  EXPECT_EQ(1, refused.status);
  EXPECT_EQ("", refused.out);
  EXPECT_EQ("qxlite: no test notice was sent: Login denied (server said: 535 5.7.8 Authentication credentials "
            "invalid)\n",
            refused.err);
  EXPECT_EQ(1u, smtp.messages().size());
  stopService();
}

TEST_F(MailNoticesTest, TheConfigurationTestLogsInWithoutSending) {
  MailTestServer smtp(dir, MailTestServer::Tls::starttls);
  ASSERT_NE(0, smtp.port());
  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), MailTestServer::kPassword, ",\"EmailNotifyFailure\":true"));
  writeCredentials(qxtest::davServer().user, qxtest::davServer().password);
  startService({"--mail-ca-file", smtp.caFile().string()});
  auto smtpLines = [&] {
    qxtest::Child client(QX_CLI_PROGRAM, {"--runtime-dir", (dir / "run").string(), "test-config"}, dir / "cli.out",
                         dir / "cli.err");
    EXPECT_TRUE(client.wait());
    // The SMTP lines, each with the reason below it, if any.
    std::string lines;
    bool smtpLine = false;
    for (std::string const& line : logLines(client.out())) {
      bool const reason = line.rfind("    -> ", 0) == 0;
      if (!reason) smtpLine = line.find("SMTP") != std::string::npos;
      if (smtpLine) lines += line + "\n";
    }
    return lines;
  };
  EXPECT_EQ("+ The SMTP URL \"" + smtp.url() + "\" is well formed\n" +
                "+ The SMTP server \"" + smtp.url() +
                "\" answers and accepts the login of \"notices\": 235 2.7.0 Authentication successful\n",
            smtpLines());

  writeConfig(qxtest::davServer().url, emailKeys(smtp.url(), "wrong", ",\"EmailNotifyFailure\":true"));
  service->signal(SIGHUP);
  ASSERT_TRUE(logSays("INFO:qxlite-svc Configuration reloaded from ")) << service->err();
  EXPECT_EQ("+ The SMTP URL \"" + smtp.url() + "\" is well formed\n" +
                "- The SMTP server \"" + smtp.url() + "\" does not take notices\n" +
                "    -> Login denied (server said: 535 5.7.8 Authentication credentials invalid)\n",
            smtpLines());
  EXPECT_EQ(0u, smtp.messages().size());
  stopService();
}

}  // namespace
