// The reference programs as processes: the service qxlite-svc started on a
// port of the system's choice (read from its log) in a temporary folder that
// holds its configuration, token file and spool folders, driven by the
// command-line client qxlite, and a tiny HTTP server of the test standing in
// for the upload server. Every outcome is checked exactly: output lines, exit
// status, files on disk.
#include "apps/ConfigFile.h"
#include "tests/HeldPort.h"
#include "tests/NotifySocket.h"
#include "tests/ProcessHarness.h"
#include "tests/RawSocket.h"
#include "tests/SpoolTestUtil.h"
#include "tests/SettingsTestUtil.h"
#include "tests/SilentFlood.h"
#include "tests/TestUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <regex>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using qxtest::logLines;

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;
using qxtest::Child;
using qxtest::HeldPort;
using qxtest::kDefaultSrvExtsText;
using qxtest::kProcessDeadline;
using qxtest::Outcome;
using qxtest::readFile;
using qxtest::waitFor;
using qxtest::writeFile;
using qxtest::writeSparseFile;

char const* const kSvc = QX_SVC_PROGRAM;
char const* const kCli = QX_CLI_PROGRAM;
char const* const kCfg = QX_CFG_PROGRAM;

std::vector<std::string> splitLines(std::string const& text) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  while (start < text.size()) {
    std::string::size_type const end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// Whether text matches pattern, where '9' stands for any decimal digit and
// 'x' for any lower-case hexadecimal digit.
bool matchesShape(std::string const& text, std::string const& pattern) {
  if (text.size() != pattern.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char const c = text[i];
    bool const digit = c >= '0' && c <= '9';
    if (pattern[i] == '9' ? !digit : pattern[i] == 'x' ? !(digit || (c >= 'a' && c <= 'f')) : c != pattern[i]) {
      return false;
    }
  }
  return true;
}


// The decimal number at text[pos...], or 0.
unsigned long numberAt(std::string const& text, std::string::size_type pos) {
  unsigned long n = 0;
  for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) n = n * 10 + (text[pos] - '0');
  return n;
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

unsigned fileMode(fs::path const& p) {
  struct stat st {};
  if (::lstat(p.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

// The direct entries of folder with their sizes (a folder: the sum of its
// files' sizes).
std::map<std::string, std::uint64_t> listing(fs::path const& folder) {
  std::map<std::string, std::uint64_t> result;
  boost::system::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    std::uint64_t size = 0;
    if (fs::is_directory(it->path(), ec)) {
      for (fs::directory_iterator f(it->path(), ec); !ec && f != end; f.increment(ec)) {
        size += fs::file_size(f->path(), ec);
      }
    } else {
      size = fs::file_size(it->path(), ec);
    }
    result[it->path().filename().string()] = size;
  }
  return result;
}

// ---------------------------------------------------------------------------
// A tiny HTTP/1.1 server: one connection per request, each answered with the
// next of the given answers (the last one repeats), then closed.

class TinyHttpServer {
 public:
  struct Answer {
    int status;
    std::string body;
  };
  struct Request {
    std::string head;  // request line and headers
    std::string body;
  };

  explicit TinyHttpServer(std::vector<Answer> answers) : m_answers(std::move(answers)) {
    m_fd = qxtest::boundLoopbackSocket(&m_port, 8);
    if (m_fd >= 0) m_thread = std::thread([this] { serve(); });
  }
  ~TinyHttpServer() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_fd >= 0) ::close(m_fd);
  }
  TinyHttpServer(TinyHttpServer const&) = delete;
  TinyHttpServer& operator=(TinyHttpServer const&) = delete;

  std::uint16_t port() const { return m_port; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/api"; }
  std::vector<Request> requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
  }

 private:
  void serve() {
    while (!m_stop) {
      pollfd p{m_fd, POLLIN, 0};
      if (::poll(&p, 1, 20) <= 0) continue;
      int const c = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) continue;
      answer(c);
      ::close(c);
    }
  }

  // Reads one request (headers, then Content-Length bytes), each read within
  // a deadline, and answers it.
  void answer(int c) {
    std::string data;
    Clock::time_point const deadline = Clock::now() + std::chrono::seconds(10);
    auto readMore = [&]() {
      pollfd p{c, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) return Clock::now() < deadline;
      char buf[4096];
      ssize_t const n = ::recv(c, buf, sizeof buf, 0);
      if (n <= 0) return false;
      data.append(buf, static_cast<std::size_t>(n));
      return true;
    };
    std::string::size_type headEnd;
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
      if (m_stop || !readMore()) return;
    }
    Request request;
    request.head = data.substr(0, headEnd);
    std::string const head = lowerCase(request.head);
    std::string::size_type at = head.find("\r\ncontent-length:");
    std::size_t length = 0;
    if (at != std::string::npos) {
      at += 17;
      while (at < head.size() && head[at] == ' ') ++at;
      length = numberAt(head, at);
    }
    while (data.size() < headEnd + 4 + length) {
      if (m_stop || !readMore()) return;
    }
    request.body = data.substr(headEnd + 4, length);
    Answer const& a = m_answers[std::min(m_served, m_answers.size() - 1)];
    ++m_served;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_requests.push_back(request);
    }
    std::string const response = "HTTP/1.1 " + std::to_string(a.status) +
                                 (a.status == 200 ? " OK" : " Internal Server Error") +
                                 "\r\nContent-Type: application/json\r\nContent-Length: " +
                                 std::to_string(a.body.size()) + "\r\nConnection: close\r\n\r\n" + a.body;
    ::send(c, response.data(), response.size(), MSG_NOSIGNAL);
  }

  std::vector<Answer> const m_answers;
  std::size_t m_served = 0;  // the server's thread only
  int m_fd = -1;
  std::uint16_t m_port = 0;
  std::atomic<bool> m_stop{false};
  mutable std::mutex m_mutex;
  std::vector<Request> m_requests;  // guarded by m_mutex
  std::thread m_thread;
};

// ---------------------------------------------------------------------------
// The fixture: a temporary folder with the configuration file, the token
// file and the spool folders; the service and its client as processes.

std::string const kNoServer = "uploads held: no server address is set (\"InetServer\")\n";
// The counts line of `qxlite status`.
std::string uploadCounts(int queued) {
  return "uploads: " + std::to_string(queued) + " queued, 0 uploading, 0 done, 0 failed, 0 rejected, 0 cancelled\n";
}

class AppsTest : public ::testing::Test {
 protected:
  AppsTest()
      : cfgFile(tmp / "config.json"),
        tokenFile(tmp / "ipc.token"),
        in(tmp / "spool" / "in"),
        out(tmp / "spool" / "out"),
        backup(tmp / "spool" / "backup"),
        rejected(backup / ".rejected") {}

  // The configuration with the fixture's folders, keys sorted, as the service
  // writes it (extra: more members, in sorted place, with a leading comma).
  std::string configJson(std::string const& before = "", std::string const& after = "") const {
    return "{" + before + "\"BackupFolder\":\"" + backup.string() +
           "\",\"IgnoredExtension\":[\"noqx\",\"ds_store\",\"db\"]" + after + ",\"ReceiveFolder\":\"" +
           in.string() + "\",\"SpoolFolder\":\"" + out.string() + "\",\"SrvFileExts\":" +
           kDefaultSrvExtsText + "}";
  }
  void writeConfig(std::string const& extra = "") const {
    writeFile(cfgFile, "{\"ReceiveFolder\":\"" + in.string() + "\",\"SpoolFolder\":\"" + out.string() +
                           "\",\"BackupFolder\":\"" + backup.string() + "\"" + extra + "}");
  }

  fs::path nextOutput(char const* suffix) { return tmp / ("proc-" + std::to_string(++m_outputs) + suffix); }

  std::vector<std::string> serviceArgs(std::uint16_t onPort = 0) const { return serviceArgs(onPort, cfgFile); }
  std::vector<std::string> serviceArgs(std::uint16_t onPort, fs::path const& config) const {
    return {"--config", config.string(), "--token-file", tokenFile.string(), "--port", std::to_string(onPort),
            "--foreground", "--scan-interval", "0.05", "--settle-time", "0.1", "--state-dir",
            (tmp / "state").string(), "--credentials", (tmp / "credentials.json").string(), "--runtime-dir",
            (tmp / "run").string()};
  }

  // Starts the service (on a port of the system's choice unless told) and
  // reads its port from its log. False (with a failure) when it ends or does
  // not serve in time.
  bool startService(std::uint16_t onPort = 0) { return startServiceWith(cfgFile, onPort); }
  bool startServiceWith(fs::path const& config, std::uint16_t onPort = 0) {
    port = 0;
    service = std::make_unique<Child>(kSvc, serviceArgs(onPort, config), nextOutput(".out"), nextOutput(".err"));
    port = qxtest::servingPort(*service);
    return port != 0;
  }

  // Stops the service with sig; it must end cleanly, its last lines saying so.
  void stopService(int sig = SIGTERM) {
    ASSERT_TRUE(service);
    service->signal(sig);
    ASSERT_TRUE(service->wait()) << "the service did not stop on a signal";
    EXPECT_EQ(0, service->status()) << service->err();
    std::vector<std::string> const lines = logLines(service->err());
    ASSERT_GE(lines.size(), 2u);
    // The upload pipeline may still finish a step between the two lines
    // (never with an error).
    std::string const stopping = std::string("INFO:qxlite-svc stopping on ") + (sig == SIGINT ? "SIGINT" : "SIGTERM");
    auto const at = std::find(lines.begin(), lines.end(), stopping);
    ASSERT_NE(lines.end(), at) << service->err();
    for (auto it = at + 1; it + 1 < lines.end(); ++it) EXPECT_NE(0u, it->rfind("ERR:", 0)) << *it;
    EXPECT_EQ("INFO:qxlite-svc stopped", lines.back());
    port = 0;
  }

  // Runs a program to its end.
  Outcome run(char const* program, std::vector<std::string> const& args) {
    Child child(program, args, nextOutput(".out"), nextOutput(".err"));
    if (!child.wait()) {
      ADD_FAILURE() << program << " did not end in time";
      return Outcome{};
    }
    return child.outcome();
  }
  // The client against the fixture's service, with the fixture's token.
  Outcome qx(std::vector<std::string> args) {
    std::vector<std::string> all{"--port", std::to_string(port), "--token-file", tokenFile.string()};
    all.insert(all.end(), args.begin(), args.end());
    return run(kCli, all);
  }
  // Runs the client; it must succeed and print exactly expected.
  void expectOutput(std::vector<std::string> const& args, std::string const& expected) {
    Outcome const o = qx(args);
    EXPECT_EQ(0, o.status) << o.err;
    EXPECT_EQ("", o.err);
    EXPECT_EQ(expected, o.out);
  }
  // Runs the client; it must fail with status and exactly the one line error.
  void expectFailure(std::vector<std::string> const& args, int status, std::string const& error) {
    Outcome const o = qx(args);
    EXPECT_EQ(status, o.status);
    EXPECT_EQ("qxlite: " + error + "\n", o.err);
    EXPECT_EQ("", o.out);
  }

  // `qxlite status` of the fixture's service, without a server address:
  // state ("running", or "paused" with the time since), the service's
  // facts, the counts, why nothing leaves. The uptime and the time of the
  // pause are the only parts not compared.
  void expectStatus(std::string const& state, int queued = 0, std::vector<std::string> const& options = {},
                    fs::path const& config = fs::path(), std::string const& held = kNoServer) {
    std::vector<std::string> args = options;
    args.push_back("status");
    Outcome const o = qx(args);
    EXPECT_EQ(0, o.status) << o.err;
    EXPECT_EQ("", o.err);
    std::string const shown = std::regex_replace(
        std::regex_replace(o.out, std::regex("^paused since \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\n"),
                           "paused since T\n"),
        std::regex(", up \\d+s,"), ", up Ns,");
    EXPECT_EQ((state == "paused" ? "paused since T" : state) + "\nqxlite-svc 7.0.1, pid " +
                  std::to_string(service ? service->pid() : 0) + ", up Ns, port " + std::to_string(port) +
                  "\nconfiguration \"" + (config.empty() ? cfgFile : config).string() + "\"\n" + uploadCounts(queued) +
                  held,
              shown);
  }

  // A line of `qxlite config get`: the key in its column, then the report's
  // line.
  static std::string keyColumn(std::string const& key, std::string const& line) {
    return key + std::string(20 - key.size(), ' ') + line;
  }
  static std::string keyed(std::string const& key, std::string const& line) { return keyColumn(key, line) + "\n"; }
  // What `qxlite config get` prints for the fixture's configuration.
  std::string dump(std::string const& account = "", std::string const& backupLine = "Backup disabled",
                   std::string const& server = "") const {
    return keyed("AccountId", "Account Id: " + account) + keyed("SpoolerId", "Node Id: 0") +
           keyed("KeyId", "Key Id: 0") + keyed("PublicKey", "Key: empty") +
           keyed("IgnoredExtension", "Ignored extensions: [\"noqx\",\"ds_store\",\"db\"]") +
           keyed("ReceiveFolder", "Incoming Folder: \"" + in.string() + "\"") +
           keyed("SpoolFolder", "Outgoing Folder: \"" + out.string() + "\"") +
           keyed("InetServer", "Server address: " + server) +
           keyed("InetAltServer", "Alternative server address: ") + keyed("InetUseProxy", "Proxy: not used") +
           keyed("InetInsecureTls", "Server certificate check: on") + keyed("BackupExpireSecs", backupLine) +
           keyed("BackupFolder", "Backup folder \"" + backup.string() + "\"") +
           keyed("", "Rejected folder \"" + rejected.string() + "\"") +
           keyed("EnableLogging", "Trace logging disabled") +
           keyed("AllowRemoteConfig", "Remote clients cannot configure the service") +
           keyed("MinFilesToZip", "Zip uploads with 10 or more files") +
           keyed("UseDirName", "Not using folder name") +
           keyed("EmailSmtpUrl", "E-mail notices: off (no SMTP server)") +
           keyed("SrvFileExts", "Server accepted extensions: " + std::string(kDefaultSrvExtsText)) +
           keyed("ConcurrentUploads", "Max upload threads: 2") + keyed("IpcPort", "IPC TCP port: 45654") +
           keyed("MaxConnIdleSecs", "Maximum idle connection time: 600s") +
           keyed("IpcForceIP4", "IP4 is not forced");
  }

  // The item name as queued in a job folder of the outgoing folder: its
  // path there, or an empty path while no job holds it.
  fs::path queued(std::string const& name) const {
    if (!fs::exists(out)) return fs::path();
    for (auto const& job : fs::directory_iterator(out)) {
      if (fs::exists(job.path() / name)) return job.path() / name;
    }
    return fs::path();
  }

  // The entry of the rejected folder that holds name (beside its
  // reason.json), or an empty path.
  fs::path rejectedItem(std::string const& name) const {
    if (!fs::exists(rejected)) return fs::path();
    for (auto const& r : fs::directory_iterator(rejected)) {
      if (fs::exists(r.path() / name)) return r.path() / name;
    }
    return fs::path();
  }

  // The jobs of `qxlite uploads --json` as "name state size" texts, in order.
  std::vector<std::string> jobsListed() {
    Outcome const o = qx({"uploads", "--json"});
    EXPECT_EQ(0, o.status) << o.err;
    std::vector<std::string> result;
    json::Array const list(qxtest::parse(o.out)["uploads"]);
    for (std::size_t i = 0; i < list.size(); ++i) {
      json::Object const job(list[i]);
      result.push_back(job["name"].asStringSafe() + " " + job["state"].asStringSafe() + " " +
                       std::to_string(json_integer_value(job["size"].get())));
    }
    return result;
  }

  qxtest::TempDir tmp;
  fs::path const cfgFile;
  fs::path const tokenFile;
  fs::path const in;
  fs::path const out;
  fs::path const backup;
  fs::path const rejected;
  std::unique_ptr<Child> service;
  std::uint16_t port = 0;

 private:
  unsigned m_outputs = 0;
};

// What `qxlite status` adds while the service has no server address.
std::string const kUploadsHeader =
    "JOB                       STATE           SIZE  SENT TRIES NEXT TRY  NAME\n";
// What `qxlite uploads` ends with on a service that has no server address.
std::string uploadsFooter(int queued) {
  return std::to_string(queued) +
         " queued, 0 uploading, 0 done, 0 failed, 0 rejected, 0 cancelled; 0 B/s\n"
         "held: no server address is set (\"InetServer\")\n";
}

// ---------------------------------------------------------------------------
// Start and stop

TEST_F(AppsTest, ServiceMakesItsFoldersAndStopsCleanlyOnSignals) {
  writeConfig();
  ASSERT_TRUE(startService());
  EXPECT_EQ((std::vector<std::string>{
                "INFO:qxlite-svc made a new journal \"" + (tmp / "state" / "journal.db").string() + "\"",
                "WARNING:qxlite-svc holds the upload queue: no server address is set (\"InetServer\")",
                "INFO:qxlite-svc 7.0.1 serving on 127.0.0.1:" + std::to_string(port) +
                    " with configuration \"" + cfgFile.string() + "\", token file \"" + tokenFile.string() +
                    "\", incoming folder \"" + in.string() + "\""}),
            logLines(service->err()));
  for (fs::path const& folder : {in, out, backup, rejected}) {
    EXPECT_TRUE(fs::is_directory(folder)) << folder;
    EXPECT_EQ(0750u, fileMode(folder)) << folder;
  }
  EXPECT_EQ(0600u, fileMode(tokenFile));
  std::string const token = readFile(tokenFile);
  EXPECT_TRUE(matchesShape(token, std::string(64, 'x') + "\n")) << token;
  EXPECT_EQ("", service->out());
  stopService(SIGTERM);

  // The same token serves again; SIGINT stops it as cleanly.
  ASSERT_TRUE(startService());
  EXPECT_EQ(token, readFile(tokenFile));
  expectStatus("running");
  std::uint16_t const stoppedPort = port;
  stopService(SIGINT);
  port = stoppedPort;
  expectFailure({"status"}, 3,
                "the service is not running (nothing answers at 127.0.0.1:" + std::to_string(stoppedPort) +
                    ": Connection refused): start it with `systemctl start qxlite-svc`");
}

// ---------------------------------------------------------------------------
// The sub-commands

TEST_F(AppsTest, StatusPauseAndResume) {
  writeConfig();
  ASSERT_TRUE(startService());
  expectStatus("running");
  expectStatus("running", 0, {"--host", "127.0.0.1", "--timeout", "10"});
  expectOutput({"pause"}, "Paused\n");
  expectStatus("paused");
  expectOutput({"pause"}, "Already paused\n");
  expectStatus("paused");
  expectOutput({"resume"}, "Resumed\n");
  expectStatus("running");
  expectOutput({"resume"}, "Already running\n");
  expectStatus("running");
}

TEST_F(AppsTest, ConfigGetShowsTheConfigurationInForce) {
  writeConfig();
  ASSERT_TRUE(startService());
  expectOutput({"config", "get"}, dump());
  expectOutput({"config", "get", "--json"}, configJson() + "\n");
}

TEST_F(AppsTest, ConfigSetIsWrittenSortedWithMode0600AndSurvivesARestart) {
  writeConfig();
  ::chmod(cfgFile.c_str(), 0644);
  ASSERT_TRUE(startService());
  expectOutput({"config", "set", "BackupExpireSecs=86400", "AccountId=acme", "InetServer=http://127.0.0.1:9/api"},
               "Configuration saved to \"" + cfgFile.string() + "\"\n");
  // The log says what changed.
  std::vector<std::string> const lines = logLines(service->err());
  EXPECT_EQ(1, std::count(lines.begin(), lines.end(),
                          "INFO:qxlite-svc Configuration saved to \"" + cfgFile.string() +
                              "\": AccountId: (none) \u2192 \"acme\"; BackupExpireSecs: 0 \u2192 86400; "
                              "InetServer: (none) \u2192 \"http://127.0.0.1:9/api\""))
      << ::testing::PrintToString(lines);
  std::string const saved =
      configJson("\"AccountId\":\"acme\",\"BackupExpireSecs\":86400,", ",\"InetServer\":\"http://127.0.0.1:9/api\"");
  EXPECT_EQ(saved + "\n", readFile(cfgFile));
  EXPECT_EQ(0600u, fileMode(cfgFile));
  EXPECT_FALSE(fs::exists(cfgFile.string() + ".tmp"));
  expectOutput({"config", "get", "--json"}, saved + "\n");

  stopService();
  EXPECT_EQ(saved + "\n", readFile(cfgFile));
  ASSERT_TRUE(startService());
  expectOutput({"config", "get", "--json"}, saved + "\n");
  expectOutput({"config", "get"},
               dump("acme", "Backup items expire in 86400s (1 day(s) )", "http://127.0.0.1:9/api"));

  // The configuration tool reads the saved file as it is: nothing to change.
  Outcome const tool = run(kCfg, {cfgFile.string()});
  EXPECT_EQ(0, tool.status) << tool.err;
  EXPECT_EQ(saved + "\n", readFile(cfgFile));
}

TEST_F(AppsTest, ConfigSetValuesAreJsonOrText) {
  writeConfig();
  ASSERT_TRUE(startService());
  expectOutput({"config", "set", "SrvFileExts=[\"pdf\",\"txt\"]", "UseDirName=true", "AccountId=7 x"},
               "Configuration saved to \"" + cfgFile.string() + "\"\n");
  EXPECT_EQ("{\"AccountId\":\"7 x\",\"BackupFolder\":\"" + backup.string() +
                "\",\"IgnoredExtension\":[\"noqx\",\"ds_store\",\"db\"],\"ReceiveFolder\":\"" + in.string() +
                "\",\"SpoolFolder\":\"" + out.string() + "\",\"SrvFileExts\":[\"pdf\",\"txt\"],\"UseDirName\":true}\n",
            readFile(cfgFile));
}

TEST_F(AppsTest, ConfigSaveTakesAFileIntoForce) {
  writeConfig();
  ASSERT_TRUE(startService());
  fs::path const newIn = tmp / "in2";
  fs::path const file = tmp / "new.json";
  std::string const text = "{\"ReceiveFolder\":\"" + newIn.string() + "\",\"SpoolFolder\":\"" + out.string() +
                           "\",\"BackupFolder\":\"" + backup.string() + "\",\"KeyId\":5}";
  writeFile(file, text);
  expectOutput({"config", "save", file.string()}, "Configuration saved to \"" + cfgFile.string() + "\"\n");
  EXPECT_EQ(text, readFile(file));
  EXPECT_EQ("{\"BackupFolder\":\"" + backup.string() +
                "\",\"IgnoredExtension\":[\"noqx\",\"ds_store\",\"db\"],\"KeyId\":5,\"ReceiveFolder\":\"" +
                newIn.string() + "\",\"SpoolFolder\":\"" + out.string() + "\",\"SrvFileExts\":" +
                kDefaultSrvExtsText + "}\n",
            readFile(cfgFile));
  EXPECT_EQ(0750u, fileMode(newIn));
  // Drops now go to the new incoming folder, and on to a job of the outgoing one.
  writeFile(tmp / "a.pdf", "pdf");
  expectOutput({"drop", (tmp / "a.pdf").string()}, "dropped \"" + (tmp / "a.pdf").string() + "\": 1 file(s), 3 B\n");
  EXPECT_TRUE(waitFor([&] { return !queued("a.pdf").empty(); }));
  EXPECT_EQ("pdf", readFile(queued("a.pdf")));
}

TEST_F(AppsTest, ConfigSaveThatMovesTheSpoolCarriesTheQueuedJobsOverAndSaysSo) {
  writeConfig();
  ASSERT_TRUE(startService());
  writeFile(tmp / "a.pdf", "first");
  writeFile(tmp / "b.pdf", "second");
  expectOutput({"drop", (tmp / "a.pdf").string()}, "dropped \"" + (tmp / "a.pdf").string() + "\": 1 file(s), 5 B\n");
  expectOutput({"drop", (tmp / "b.pdf").string()}, "dropped \"" + (tmp / "b.pdf").string() + "\": 1 file(s), 6 B\n");
  ASSERT_TRUE(waitFor([&] { return jobsListed().size() == 2; }));
  std::string const jobA = queued("a.pdf").parent_path().filename().string();
  std::string const jobB = queued("b.pdf").parent_path().filename().string();
  // An item that another program left in the incoming folder while paused.
  expectOutput({"pause"}, "Paused\n");
  writeFile(in / "waiting.pdf", "wait");

  fs::path const out2 = tmp / "spool2" / "out";
  fs::path const in2 = tmp / "spool2" / "in";
  fs::path const file = tmp / "moved.json";
  writeFile(file, "{\"ReceiveFolder\":\"" + in2.string() + "\",\"SpoolFolder\":\"" + out2.string() +
                      "\",\"BackupFolder\":\"" + backup.string() + "\"}");
  expectOutput({"config", "save", file.string()}, "Configuration saved to \"" + cfgFile.string() + "\"\n");
  // The jobs follow the outgoing folder, whole, and stay listed as they were
  // (the incoming folder's line is the last the change writes).
  ASSERT_TRUE(waitFor([&] { return service->err().find("wait in the former incoming folder") != std::string::npos; }))
      << service->err();
  EXPECT_EQ("first", readFile(out2 / jobA / "a.pdf"));
  EXPECT_EQ("second", readFile(out2 / jobB / "b.pdf"));
  EXPECT_TRUE(listing(out).empty());
  EXPECT_EQ((std::vector<std::string>{"a.pdf queued 5", "b.pdf queued 6"}), jobsListed());
  // The item of the former incoming folder stays where its program put it.
  EXPECT_EQ("wait", readFile(in / "waiting.pdf"));
  // The log says what changed, what moved and what waits where.
  std::vector<std::string> const log = logLines(service->err());
  auto const has = [&](std::string const& line) { return std::find(log.begin(), log.end(), line) != log.end(); };
  EXPECT_TRUE(has("INFO:qxlite-svc Configuration saved to \"" + cfgFile.string() + "\": ReceiveFolder: \"" +
                  in.string() + "\" \u2192 \"" + in2.string() + "\"; SpoolFolder: \"" + out.string() + "\" \u2192 \"" +
                  out2.string() + "\""))
      << service->err();
  for (auto const& job : {std::make_pair(jobA, "a.pdf"), std::make_pair(jobB, "b.pdf")}) {
    EXPECT_TRUE(has("INFO:qxlite-svc carried job " + job.first + " (" + job.second +
                    ") over to the outgoing folder \"" + out2.string() + "\""))
        << service->err();
  }
  EXPECT_TRUE(has("INFO:qxlite-svc the outgoing folder moved from \"" + out.string() + "\" to \"" + out2.string() +
                  "\": 2 unfinished job(s) carried over"))
      << service->err();
  EXPECT_TRUE(has("WARNING:qxlite-svc 1 item(s) wait in the former incoming folder \"" + in.string() +
                  "\", which the service no longer reads: move them into \"" + in2.string() + "\" to upload them"))
      << service->err();
}

TEST_F(AppsTest, DropOfAFolderAndOfAFileBecomeJobsAndAreListed) {
  writeConfig();
  ASSERT_TRUE(startService());
  fs::path const docs = tmp / "docs";
  fs::create_directories(docs);
  writeFile(docs / "a.pdf", "first");
  writeFile(docs / "b.csv", "x,y\n1,2\n");
  writeFile(tmp / "report.pdf", std::string(3000, 'r'));

  expectOutput({"drop", docs.string()}, "dropped \"" + docs.string() + "\": 2 file(s), 13 B\n");
  ASSERT_TRUE(waitFor([&] { return !queued("tmp").empty(); }));
  EXPECT_EQ((std::map<std::string, std::uint64_t>{{"a.pdf", 5}, {"b.csv", 8}}), listing(queued("tmp")));
  EXPECT_EQ("first", readFile(queued("tmp") / "a.pdf"));
  EXPECT_EQ("x,y\n1,2\n", readFile(queued("tmp") / "b.csv"));

  expectOutput({"drop", (tmp / "report.pdf").string()},
               "dropped \"" + (tmp / "report.pdf").string() + "\": 1 file(s), 2.9 KiB\n");
  ASSERT_TRUE(waitFor([&] { return !queued("report.pdf").empty(); }));
  EXPECT_EQ(std::string(3000, 'r'), readFile(queued("report.pdf")));
  EXPECT_TRUE(waitFor([&] { return listing(in).empty(); }));
  // The originals stay where they were.
  EXPECT_EQ("first", readFile(docs / "a.pdf"));

  // Without a server address both wait, and the list says why.
  ASSERT_TRUE(waitFor([&] { return jobsListed().size() == 2; }));
  EXPECT_EQ((std::vector<std::string>{"2 files: a.pdf, b.csv queued 13", "report.pdf queued 3000"}), jobsListed());
  Outcome const table = qx({"uploads"});
  EXPECT_EQ(0, table.status);
  std::string const jobA = queued("tmp").parent_path().filename().string();
  std::string const jobB = queued("report.pdf").parent_path().filename().string();
  char line[256];
  std::string expected = kUploadsHeader;
  std::snprintf(line, sizeof line, "%-25s %-9s %10s %5s %5d %-9s %s\n", jobA.c_str(), "queued", "13 B", "0%", 0, "",
                "2 files: a.pdf, b.csv");
  expected += line;
  std::snprintf(line, sizeof line, "%-25s %-9s %10s %5s %5d %-9s %s\n", jobB.c_str(), "queued", "2.9 KiB", "0%", 0, "",
                "report.pdf");
  expected += line;
  EXPECT_EQ(expected + uploadsFooter(2), table.out);
  expectStatus("running", 2);
  // The log names the folder's job as the list does, not by its spool name.
  std::vector<std::string> const log = logLines(service->err());
  EXPECT_NE(log.end(), std::find(log.begin(), log.end(),
                                 "INFO:qxlite-svc queued \"2 files: a.pdf, b.csv\" as job " + jobA))
      << service->err();

  // Skipped entries are noted on standard error; the rest is dropped.
  fs::create_directories(tmp / "more");
  writeFile(tmp / "more" / "empty.pdf", "");
  writeFile(tmp / "more" / "c.pdf", "cc");
  writeFile(tmp / "more" / "d.pdf", "ddd");
  Outcome const more = qx({"drop", (tmp / "more").string()});
  EXPECT_EQ(0, more.status);
  EXPECT_EQ("dropped \"" + (tmp / "more").string() + "\": 2 file(s), 5 B\n", more.out);
  EXPECT_EQ((std::vector<std::string>{"WARNING:Ipc \"Drop File\" request with empty file. \"" +
                                      (tmp / "more" / "empty.pdf").string() + "\" skipped!"}),
            logLines(more.err));
  ASSERT_TRUE(waitFor([&] { return jobsListed().size() == 3; }));
  EXPECT_EQ("2 files: c.pdf, d.pdf queued 5", jobsListed()[2]);
}

TEST_F(AppsTest, UploadsOfAnEmptyService) {
  writeConfig();
  ASSERT_TRUE(startService());
  ASSERT_TRUE(waitFor([&] { return qx({"uploads"}).out == kUploadsHeader + "(no uploads)\n" + uploadsFooter(0); }))
      << qx({"uploads"}).out;
  // The service's own facts vary by run only in the time it started.
  Outcome const listed = qx({"uploads", "--json"});
  EXPECT_EQ(0, listed.status);
  std::string const started = std::to_string(json::Object(qxtest::parse(listed.out)["service"])["started"].asInt());
  EXPECT_EQ("{\"held\":\"no server address is set (\\\"InetServer\\\")\",\"service\":{\"config\":\"" +
                cfgFile.string() + "\",\"pid\":" + std::to_string(service->pid()) + ",\"port\":" + std::to_string(port) +
                ",\"started\":" + started +
                ",\"version\":\"7.0.1\"},\"throughput\":0,\"totals\":{"
                "\"cancelled\":0,\"done\":0,\"failed\":0,\"queued\":0,\"rejected\":0,\"uploading\":0},\"uploads\":[]}\n",
            listed.out);
  EXPECT_NEAR(static_cast<double>(std::time(nullptr)), std::stod(started), 60.0);
  expectFailure({"cancel", "20261123T000000Z-00000000"}, 1, "there is no job \"20261123T000000Z-00000000\"");
  expectFailure({"retry", "x"}, 1, "there is no job \"x\"");
}

TEST_F(AppsTest, UploadsWatchShowsTheListAgainEverySecondUntilStopped) {
  writeConfig();
  ASSERT_TRUE(startService());
  Child watch(kCli, {"--port", std::to_string(port), "--token-file", tokenFile.string(), "uploads", "--watch"},
              nextOutput(".out"), nextOutput(".err"));
  ASSERT_TRUE(waitFor([&] {
    std::string const out = watch.out();
    std::size_t n = 0;
    for (std::size_t at = out.find(kUploadsHeader); at != std::string::npos; at = out.find(kUploadsHeader, at + 1)) ++n;
    return n >= 2;
  }, std::chrono::seconds(10))) << watch.out();
  EXPECT_TRUE(watch.running());
  watch.kill();
  // Not a terminal: no clearing of the screen, each page whole.
  std::string const page = kUploadsHeader + "(no uploads)\n" + uploadsFooter(0);
  EXPECT_EQ(0u, watch.out().find(page + page)) << watch.out();
  EXPECT_EQ("", watch.err());
}

TEST_F(AppsTest, PauseKeepsItemsInIncomingAndDiscardMovesThemToRejected) {
  writeConfig();
  ASSERT_TRUE(startService());
  fs::path const docs = tmp / "docs";
  fs::create_directories(docs);
  writeFile(docs / "a.pdf", "aa");
  writeFile(docs / "b.pdf", "bbb");
  writeFile(tmp / "c.pdf", "cccc");
  writeFile(in / "partial.pdf.noqx", "half");
  expectOutput({"pause"}, "Paused\n");
  expectOutput({"drop", docs.string(), (tmp / "c.pdf").string()},
               "dropped \"" + docs.string() + "\": 2 file(s), 5 B\n" + "dropped \"" + (tmp / "c.pdf").string() +
                   "\": 1 file(s), 4 B\n");
  std::map<std::string, std::uint64_t> const waiting{{"c.pdf", 4}, {"partial.pdf.noqx", 4}, {"tmp", 5}};
  EXPECT_EQ(waiting, listing(in));
  // Several scan intervals later, nothing moved.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  expectStatus("paused");
  EXPECT_EQ(waiting, listing(in));
  EXPECT_TRUE(listing(out).empty());
  // The list shows what waits, under a header that says the service is paused.
  std::string expected = "paused: nothing new starts (qxlite resume)\n" + kUploadsHeader;
  for (auto const& w : std::vector<std::pair<char const*, char const*>>{{"c.pdf", "4 B"}, {"tmp", "5 B"}}) {
    char line[256];
    std::snprintf(line, sizeof line, "%-25s %-9s %10s %5s %5s %-9s %s\n", "-", "waiting", w.second, "", "", "", w.first);
    expected += line;
  }
  expectOutput({"uploads"}, expected + uploadsFooter(0));

  expectOutput({"pause", "--discard"}, "Paused; 2 waiting item(s) moved to the rejected folder: c.pdf, tmp\n");
  EXPECT_EQ((std::map<std::string, std::uint64_t>{{"partial.pdf.noqx", 4}}), listing(in));
  ASSERT_FALSE(rejectedItem("c.pdf").empty());
  EXPECT_EQ("cccc", readFile(rejectedItem("c.pdf")));
  EXPECT_EQ((std::map<std::string, std::uint64_t>{{"a.pdf", 2}, {"b.pdf", 3}}), listing(rejectedItem("tmp")));
  EXPECT_EQ("discarded",
            qxtest::parse(readFile(rejectedItem("c.pdf").parent_path() / "reason.json"))["rule"].asStringSafe());
  expectOutput({"resume"}, "Resumed\n");
  writeFile(tmp / "d.pdf", "d");
  expectOutput({"drop", (tmp / "d.pdf").string()}, "dropped \"" + (tmp / "d.pdf").string() + "\": 1 file(s), 1 B\n");
  EXPECT_TRUE(waitFor([&] { return !queued("d.pdf").empty(); }));
  EXPECT_EQ((std::map<std::string, std::uint64_t>{{"partial.pdf.noqx", 4}}), listing(in));
}

TEST_F(AppsTest, EveryDropProblemIsListedAndNothingIsSent) {
  writeConfig();
  ASSERT_TRUE(startService());
  auto q = [](fs::path const& p) { return "\"" + p.string() + "\""; };
  writeFile(tmp / "tool.exe", "MZ");
  writeFile(tmp / "good.pdf", "good");
  writeFile(tmp / "empty.pdf", "");
  ASSERT_EQ(0, ::mkfifo((tmp / "fifo.pdf").c_str(), 0644));
  fs::create_directories(tmp / "hollow");
  writeFile(tmp / "hollow" / "empty.pdf", "");
  writeFile(tmp / "hollow" / "empty.csv", "");
  fs::create_directories(tmp / "mixed" / "inner");
  writeFile(tmp / "mixed" / "a.pdf", "a");
  writeFile(tmp / "mixed" / "b.exe", "b");
  struct Row {
    std::vector<fs::path> paths;
    std::vector<std::string> problems;
  };
  std::string const accepted = " (it accepts csv, enm, js, json, ods, oxps, pdf, ps, qxw, tar, xls, xlsx, xml, xps, zip)";
  std::vector<Row> const rows = {
      {{tmp / "tool.exe"}, {q(tmp / "tool.exe") + ": the service does not accept files of type \"exe\"" + accepted}},
      {{tmp / "none.pdf"}, {q(tmp / "none.pdf") + " does not exist"}},
      {{tmp / "fifo.pdf"}, {q(tmp / "fifo.pdf") + " is not a file or a folder (a FIFO)"}},
      {{tmp / "empty.pdf"}, {q(tmp / "empty.pdf") + " holds nothing to drop (only empty files)"}},
      {{tmp / "hollow"}, {q(tmp / "hollow") + " holds nothing to drop (only empty files)"}},
      // The local problems first, before the service is asked for its rules.
      {{tmp / "mixed"},
       {q(tmp / "mixed" / "inner") + " is a sub-folder: only the files directly in a dropped folder are sent"}},
      // One bad path among good ones: every problem, and nothing sent.
      {{tmp / "good.pdf", tmp / "none.pdf", tmp / "fifo.pdf"},
       {q(tmp / "none.pdf") + " does not exist", q(tmp / "fifo.pdf") + " is not a file or a folder (a FIFO)"}},
      {{tmp / "good.pdf", tmp / "tool.exe", tmp / "empty.pdf"},
       {q(tmp / "tool.exe") + ": the service does not accept files of type \"exe\"" + accepted}},
  };
  for (Row const& row : rows) {
    std::vector<std::string> args{"drop"};
    for (fs::path const& p : row.paths) args.push_back(p.string());
    SCOPED_TRACE(::testing::PrintToString(args));
    Outcome const o = qx(args);
    EXPECT_EQ(1, o.status);
    std::string expected;
    for (std::string const& p : row.problems) expected += "qxlite: " + p + "\n";
    expected += "qxlite: nothing was dropped: " + std::to_string(row.problems.size()) + " problem(s)\n";
    EXPECT_EQ(expected, o.err);
    EXPECT_EQ("", o.out);
  }
  fs::remove_all(tmp / "mixed" / "inner");
  expectFailure({"drop", (tmp / "mixed").string()}, 1,
                q(tmp / "mixed" / "b.exe") + ": the service does not accept files of type \"exe\"" + accepted +
                    "\nqxlite: nothing was dropped: 1 problem(s)");
  EXPECT_TRUE(listing(in).empty());
  EXPECT_TRUE(listing(out).empty());
  EXPECT_TRUE(listing(rejected).empty());
  // A mistake on this machine is said as such even when the service cannot
  // be reached.
  Outcome const offline = run(kCli, {"--port", "1", "--token-file", (tmp / "no.token").string(), "drop",
                                     (tmp / "none.pdf").string()});
  EXPECT_EQ(1, offline.status);
  EXPECT_EQ("qxlite: " + q(tmp / "none.pdf") + " does not exist\nqxlite: nothing was dropped: 1 problem(s)\n",
            offline.err);
}

TEST_F(AppsTest, TestConfigOfTheConfigurationInForcePasses) {
  // The service serves on the port of its configuration, so that the port
  // check does not depend on what else binds ports on this machine.
  HeldPort ipc;
  writeConfig(",\"BackupExpireSecs\":4294967295,\"IpcPort\":" + ipc.text());
  ipc.release();
  ASSERT_TRUE(startService(ipc.port()));
  EXPECT_EQ(ipc.port(), port);
  expectOutput({"test-config"},
               "+ The configuration's values are accepted\n"
               "+ The incoming folder \"" + in.string() + "\" exists and can be written\n"
               "+ The outgoing folder \"" + out.string() + "\" exists and can be written\n"
               "+ The backup folder \"" + backup.string() + "\" exists and can be written\n"
               "+ The rejected folder \"" + rejected.string() + "\" exists and can be written\n"
               "+ The spool folders are distinct\n"
               "+ The extension lists hold texts only\n"
               "+ The IPC port " + ipc.text() + " is the one this service uses\n"
               "* No server address is set\n"
               "* No SMTP server is set: no e-mail notices\n"
               "+ Backup is on; items never expire\n");
  // The test made and changed nothing.
  for (fs::path const& folder : {in, out, rejected}) {
    EXPECT_TRUE(listing(folder).empty()) << folder;
  }
  EXPECT_EQ((std::map<std::string, std::uint64_t>{{".rejected", 0}}), listing(backup));
}

TEST_F(AppsTest, TestConfigPrintsTheFailingChecksAndFails) {
  writeConfig();
  ASSERT_TRUE(startService());
  // A port where nothing listens and that nothing else can bind: the server
  // and the IPC port of the configuration tested.
  HeldPort held;
  std::string const deadServer = "http://127.0.0.1:" + held.text() + "/api";

  writeFile(tmp / "plain", "a file, not a folder");
  fs::path const badIn = tmp / "plain" / "in";
  fs::path const file = tmp / "test.json";
  std::string const text = "{\"ReceiveFolder\":\"" + badIn.string() + "\",\"SpoolFolder\":\"" +
                           (tmp / "o2").string() + "\",\"BackupFolder\":\"" + (tmp / "b2").string() +
                           "\",\"InetServer\":\"" + deadServer + "\",\"IpcPort\":" + held.text() + "}";
  writeFile(file, text);
  Outcome const o = qx({"test-config", file.string()});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("qxlite: the configuration test found 4 error(s)\n", o.err);
  std::vector<std::string> const lines = splitLines(o.out);
  ASSERT_EQ(16u, lines.size()) << o.out;
  std::vector<std::string> const expected{
      "+ The configuration's values are accepted",
      "- The incoming folder \"" + badIn.string() + "\" cannot be made",
      "    -> \"" + (tmp / "plain").string() + "\" is not a folder",
      "+ The outgoing folder \"" + (tmp / "o2").string() + "\" does not exist yet and can be made",
      "+ The backup folder \"" + (tmp / "b2").string() + "\" does not exist yet and can be made",
      "+ The rejected folder \"" + (tmp / "b2" / ".rejected").string() + "\" does not exist yet and can be made",
      "+ The spool folders are distinct",
      "+ The extension lists hold texts only",
      "- The IPC port " + held.text() + " cannot be used",
      "    -> Address already in use",
      // This service has no upload account: the server is only asked whether it answers.
      "- The upload account cannot be read",
      "    -> the credentials file \"" + (tmp / "credentials.json").string() +
          "\" cannot be opened: No such file or directory",
      "- The server \"" + deadServer + "\" does not answer",
  };
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i], lines[i]) << i;
  }
  EXPECT_EQ(0u, lines[13].rfind("    -> Failed to connect to 127.0.0.1 port " + held.text(), 0)) << lines[13];
  EXPECT_EQ("* No SMTP server is set: no e-mail notices", lines[14]);
  EXPECT_EQ("* Backup is off", lines[15]);
  // Nothing was made by the test, and the file tested is unchanged.
  EXPECT_FALSE(fs::exists(tmp / "o2"));
  EXPECT_FALSE(fs::exists(tmp / "b2"));
  EXPECT_EQ(text, readFile(file));
  EXPECT_EQ("a file, not a folder", readFile(tmp / "plain"));
}

TEST_F(AppsTest, TestConfigNamesASystemLocationAsSuchAndAPortThatTheServiceDoesNotUse) {
  writeConfig();
  ASSERT_TRUE(startService());  // on a port of the system's choice, given by --port
  HeldPort free;
  free.release();
  fs::path const file = tmp / "test.json";
  fs::path const inEtc("/etc/qxlite-test-config-probe/in");
  ASSERT_FALSE(fs::exists(inEtc.parent_path()));
  writeFile(file, "{\"ReceiveFolder\":\"" + inEtc.string() + "\",\"SpoolFolder\":\"" + out.string() +
                      "\",\"BackupFolder\":\"" + backup.string() + "\",\"IpcPort\":" + free.text() + "}");
  Outcome const o = qx({"test-config", file.string()});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("qxlite: the configuration test found 1 error(s)\n", o.err);
  // The folder's line says why; the overlap line speaks of overlap only.
  EXPECT_EQ("+ The configuration's values are accepted\n"
            "- The incoming folder \"" + inEtc.string() + "\" cannot be used\n"
            "    -> \"" + inEtc.string() + "\": \"/etc\" is a system location\n"
            "+ The outgoing folder \"" + out.string() + "\" exists and can be written\n"
            "+ The backup folder \"" + backup.string() + "\" exists and can be written\n"
            "+ The rejected folder \"" + rejected.string() + "\" exists and can be written\n"
            "+ The spool folders are distinct\n"
            "+ The extension lists hold texts only\n"
            "* The IPC port " + free.text() + " can be used, but this service listens on " +
                std::to_string(port) + ", given by its --port option\n"
            "* No server address is set\n"
            "* No SMTP server is set: no e-mail notices\n"
            "* Backup is off\n",
            o.out);
  EXPECT_FALSE(fs::exists(inEtc.parent_path()));
}

TEST_F(AppsTest, TestConfigOfAMissingOrMalformedFile) {
  writeConfig();
  ASSERT_TRUE(startService());
  expectFailure({"test-config", (tmp / "none.json").string()}, 1, "\"" + (tmp / "none.json").string() + "\" does not exist");
  writeFile(tmp / "bad.json", "[1,2]");
  Outcome const o = qx({"test-config", (tmp / "bad.json").string()});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("", o.out);
  EXPECT_EQ(0u, o.err.rfind("qxlite: \"" + (tmp / "bad.json").string() + "\" is not a JSON object: JSON error: ", 0)) << o.err;
  EXPECT_EQ(1u, splitLines(o.err).size());
}

// ---------------------------------------------------------------------------
// Server calls

TEST_F(AppsTest, CallPostsMethodAndParamsAndPrintsTheAnswer) {
  TinyHttpServer server({{200, R"({"result":{"pong":true,"n":[1,2]},"id":7})"}});
  writeConfig();
  ASSERT_TRUE(startService());
  expectOutput({"config", "set", "InetServer=" + server.url()}, "Configuration saved to \"" + cfgFile.string() + "\"\n");
  expectOutput({"call", "ping", R"({"a":1,"b":{"c":"d"}})"}, "{\"id\":7,\"result\":{\"n\":[1,2],\"pong\":true}}\n");
  std::vector<TinyHttpServer::Request> const requests = server.requests();
  ASSERT_EQ(1u, requests.size());
  EXPECT_EQ(R"({"method":"ping","params":{"a":1,"b":{"c":"d"}}})", requests[0].body);
  EXPECT_EQ(0u, requests[0].head.rfind("POST /api HTTP/1.1\r\n", 0)) << requests[0].head;
  EXPECT_NE(std::string::npos, requests[0].head.find("\r\nContent-Type: application/json")) << requests[0].head;

  // Without parameters, params is an empty object.
  expectOutput({"call", "status"}, "{\"id\":7,\"result\":{\"n\":[1,2],\"pong\":true}}\n");
  ASSERT_EQ(2u, server.requests().size());
  EXPECT_EQ(R"({"method":"status","params":{}})", server.requests()[1].body);
}

TEST_F(AppsTest, CallFailuresAreOneLineErrors) {
  TinyHttpServer server({{500, R"({"oops":1})"}, {200, "<html>not json</html>"}, {200, R"({"error":"no such method"})"}});
  writeConfig();
  ASSERT_TRUE(startService());
  expectFailure({"call", "ping"}, 1, "the server call failed: no server address is set in the configuration");
  expectOutput({"config", "set", "InetServer=" + server.url()}, "Configuration saved to \"" + cfgFile.string() + "\"\n");
  expectFailure({"call", "ping", "{}"}, 1,
                "the server call failed: the server at " + server.url() + " answered with HTTP status 500");
  Outcome const o = qx({"call", "ping", "{}"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("", o.out);
  EXPECT_EQ(0u, o.err.rfind("qxlite: the server call failed: the server at " + server.url() +
                                " did not answer with a JSON object: JSON error: ",
                            0))
      << o.err;
  EXPECT_EQ(1u, splitLines(o.err).size()) << o.err;
  expectFailure({"call", "ping", "{}"}, 1, "the server call failed: no such method");
  EXPECT_EQ(3u, server.requests().size());

  // Malformed parameters never reach the server.
  Outcome const bad = qx({"call", "ping", R"({"a":)"});
  EXPECT_EQ(1, bad.status);
  EXPECT_EQ(0u, bad.err.rfind("qxlite: PARAMS-JSON is not a JSON object: JSON error: ", 0)) << bad.err;
  EXPECT_EQ(1u, splitLines(bad.err).size());
  expectFailure({"call", "ping", "[1]"}, 1, "PARAMS-JSON is not a JSON object: JSON error: text is a JSON array, not an object");
  EXPECT_EQ(3u, server.requests().size());
}

TEST_F(AppsTest, CallToAServerThatDoesNotAnswer) {
  HeldPort held;
  std::string const url = "http://127.0.0.1:" + held.text() + "/api";
  writeConfig(",\"InetServer\":\"" + url + "\"");
  ASSERT_TRUE(startService());
  Outcome const o = qx({"call", "ping"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ(0u, o.err.rfind("qxlite: the server call failed: the server at " + url +
                                " does not answer: Failed to connect to 127.0.0.1 port ", 0))
      << o.err;
  EXPECT_EQ(1u, splitLines(o.err).size());
}

// ---------------------------------------------------------------------------
// Bad input to the client

TEST_F(AppsTest, ClientFailsPlainlyWithoutAServiceOrToken) {
  writeConfig();
  ASSERT_TRUE(startService());
  Outcome const noToken = run(kCli, {"--port", std::to_string(port), "--token-file", (tmp / "none.token").string(), "status"});
  EXPECT_EQ(3, noToken.status);
  EXPECT_EQ("qxlite: the service is not running (no token file at \"" + (tmp / "none.token").string() +
                "\"): start it with `systemctl start qxlite-svc`\n",
            noToken.err);
  EXPECT_EQ("", noToken.out);

  writeFile(tmp / "wrong.token", std::string(64, 'a') + "\n");
  ::chmod((tmp / "wrong.token").c_str(), 0600);
  Outcome const wrong = run(kCli, {"--port", std::to_string(port), "--token-file", (tmp / "wrong.token").string(), "status"});
  EXPECT_EQ(1, wrong.status);
  EXPECT_EQ("qxlite: Ipc the service on port " + std::to_string(port) +
                " could not prove that it holds the token of \"" + (tmp / "wrong.token").string() + "\"\n",
            wrong.err);
  EXPECT_EQ("", wrong.out);
  // The service goes on serving those who hold its token.
  expectStatus("running");

  std::uint16_t const stoppedPort = port;
  stopService();
  port = stoppedPort;
  expectFailure({"status"}, 3,
                "the service is not running (nothing answers at 127.0.0.1:" + std::to_string(stoppedPort) +
                    ": Connection refused): start it with `systemctl start qxlite-svc`");
}

TEST_F(AppsTest, TheClientFindsTheServiceThroughItsRuntimeFile) {
  writeConfig();
  ASSERT_TRUE(startService());
  fs::path const runtime = tmp / "run" / "qxlite-svc.json";
  // What it says, and no secret: the token file's path, not its bytes.
  json::Object const facts = qxtest::parse(readFile(runtime));
  std::string const started = std::to_string(facts["started"].asInt());
  EXPECT_EQ("{\"pid\":" + std::to_string(service->pid()) + ",\"port\":" + std::to_string(port) +
                ",\"version\":\"7.0.1\",\"config\":\"" + cfgFile.string() + "\",\"tokenFile\":\"" +
                tokenFile.string() + "\",\"started\":" + started + "}\n",
            readFile(runtime));
  EXPECT_EQ(0644u, fileMode(runtime));
  EXPECT_EQ(std::string::npos, readFile(runtime).find(readFile(tokenFile).substr(0, 64)));

  // Neither --port nor --token-file: the runtime folder says where.
  std::vector<std::string> const told{"--runtime-dir", (tmp / "run").string()};
  Outcome const found = run(kCli, {"--runtime-dir", (tmp / "run").string(), "status"});
  EXPECT_EQ(0, found.status) << found.err;
  EXPECT_EQ(0u, found.out.rfind("running\nqxlite-svc 7.0.1, pid " + std::to_string(service->pid()), 0)) << found.out;
  EXPECT_EQ("", found.err);

  // A clean stop takes the file away; a service killed leaves it, and the
  // client sees that its process has ended: not running, status 3.
  std::uint16_t const stoppedPort = port;
  stopService();
  EXPECT_FALSE(fs::exists(runtime));
  ASSERT_TRUE(startService());
  ASSERT_TRUE(fs::exists(runtime));
  long const killedPid = service->pid();
  service->signal(SIGKILL);
  ASSERT_TRUE(service->wait());
  EXPECT_TRUE(fs::exists(runtime));
  Outcome const gone = run(kCli, {"--runtime-dir", (tmp / "run").string(), "status"});
  EXPECT_EQ(3, gone.status);
  EXPECT_EQ("qxlite: the service is not running (the runtime file \"" + runtime.string() + "\" names process " +
                std::to_string(killedPid) + ", which has ended): start it with `systemctl start qxlite-svc`\n",
            gone.err);
  EXPECT_EQ("", gone.out);
  (void)stoppedPort;

  // A runtime file that is not one: with --port or --token-file, the options
  // are used.
  writeFile(runtime, "{\"pid\": \"x\"}");
  Outcome const odd = run(kCli, {"--runtime-dir", (tmp / "run").string(), "--token-file", (tmp / "none").string(),
                                 "status"});
  EXPECT_EQ(3, odd.status);
  EXPECT_EQ("qxlite: the service is not running (no token file at \"" + (tmp / "none").string() +
                "\"): start it with `systemctl start qxlite-svc`\n",
            odd.err);
  Outcome const oddOnly = run(kCli, {"--runtime-dir", (tmp / "run").string(), "--port", "1", "status"});
  EXPECT_EQ(0u, oddOnly.err.find("qxlite: the service is not running ("));
  // A runtime folder the person named is the only place looked at: the
  // defaults might find another service.
  Outcome const unreadable = run(kCli, {"--runtime-dir", (tmp / "run").string(), "status"});
  EXPECT_EQ(1, unreadable.status);
  EXPECT_EQ("qxlite: the runtime file \"" + runtime.string() +
                "\" is not one: JSON error: Wrong type: string. Expected type: integer\n",
            unreadable.err);
}

TEST_F(AppsTest, APersonsServiceWithoutAConfigurationKeepsItsFoldersInTheirDataFolder) {
  // Root starts it as another user; anyone else is a person already.
  bool const root = ::geteuid() == 0;
  qxtest::OtherUser const nobody = root ? qxtest::otherUser() : qxtest::OtherUser{::geteuid(), ::getegid()};
  ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 0755));
  fs::path const home = tmp / "home";
  ASSERT_TRUE(qxtest::makeFolder(home, 0700, root ? &nobody : nullptr));
  Child svc(kSvc,
            {"--config", (home / "config.json").string(), "--token-file", (home / "ipc.token").string(), "--port", "0",
             "--foreground", "--runtime-dir", (home / "run").string()},
            nextOutput(".out"), nextOutput(".err"),
            Child::AsUser{nobody.uid, nobody.gid, {"HOME=" + home.string(), "PATH=/usr/bin:/bin"}});
  ASSERT_TRUE(waitFor([&] { return svc.err().find("serving on") != std::string::npos || !svc.running(); }))
      << svc.err();
  fs::path const data = home / ".local" / "share" / "qxlite";
  std::vector<std::string> const lines = logLines(svc.err());
  ASSERT_FALSE(lines.empty()) << svc.err();
  EXPECT_EQ("INFO:qxlite-svc found no configuration file at \"" + (home / "config.json").string() +
                "\": using defaults, with its spool folders under \"" + data.string() + "\"",
            lines.front());
  for (char const* folder : {"in", "out", "backup"}) {
    struct stat st {};
    ASSERT_EQ(0, ::stat((data / folder).c_str(), &st)) << folder;
    EXPECT_EQ(nobody.uid, st.st_uid) << folder;
  }
  EXPECT_NE(std::string::npos, svc.err().find("incoming folder \"" + (data / "in").string() + "\""));
  svc.signal(SIGTERM);
  ASSERT_TRUE(svc.wait());
  EXPECT_EQ(0, svc.status()) << svc.err();
}

TEST_F(AppsTest, ConfigSetAndSaveRefuseBadInput) {
  writeConfig();
  ASSERT_TRUE(startService());
  std::string const before = readFile(cfgFile);
  expectFailure({"config", "set", "Foo=1"}, 1, "unknown configuration key \"Foo\" (`qxlite config keys` lists them)");
  expectFailure({"config", "set", "AccountId"}, 1, "\"AccountId\" is not KEY=VALUE");
  expectFailure({"config", "set", "IpcPort=\"x\""}, 1,
                "Configuration not saved: \"IpcPort\" must be an integer from 1 to 65535");
  expectFailure({"config", "save", (tmp / "none.json").string()}, 1, "\"" + (tmp / "none.json").string() + "\" does not exist");
  writeFile(tmp / "bad.json", "{\"KeyId\": 5,");
  Outcome const bad = qx({"config", "save", (tmp / "bad.json").string()});
  EXPECT_EQ(1, bad.status);
  EXPECT_EQ("", bad.out);
  EXPECT_EQ(0u, bad.err.rfind("qxlite: \"" + (tmp / "bad.json").string() + "\" is not a JSON object: JSON error: ", 0))
      << bad.err;
  EXPECT_EQ(1u, splitLines(bad.err).size()) << bad.err;
  EXPECT_EQ("{\"KeyId\": 5,", readFile(tmp / "bad.json"));
  EXPECT_EQ(before, readFile(cfgFile));
  expectOutput({"config", "get", "--json"}, configJson() + "\n");
}

// ---------------------------------------------------------------------------
// What the service refuses to save

// Folders in system locations that the service must never make. Each must
// be missing at the start; one that a faulty service made is removed again
// (only when empty) so that a failure leaves the machine as it was.
class SystemProbes {
 public:
  explicit SystemProbes(std::vector<fs::path> paths) : m_paths(std::move(paths)) {
    for (fs::path const& p : m_paths) {
      m_existed.push_back(fs::exists(p));
      EXPECT_FALSE(m_existed.back()) << p << " exists before the test";
    }
  }
  ~SystemProbes() {
    for (std::size_t i = 0; i < m_paths.size(); ++i) {
      if (!m_existed[i] && fs::exists(m_paths[i])) {
        ADD_FAILURE() << m_paths[i] << " was made";
        ::rmdir(m_paths[i].c_str());
      }
    }
  }

 private:
  std::vector<fs::path> const m_paths;
  std::vector<bool> m_existed;
};

constexpr char kProbe[] = "qxlite-apps-test-probe";

TEST_F(AppsTest, SaveCfgRefusesSystemLocationsAndWeakerAccess) {
  writeConfig();
  ASSERT_TRUE(startService());
  std::string const before = readFile(cfgFile);
  fs::create_directory_symlink("/etc", tmp / "etc-link");
  struct Case {
    std::string assignment;
    std::string why;
  };
  std::vector<Case> cases;
  std::vector<fs::path> probes;
  for (char const* location : {"/etc", "/usr/local", "/var/lib", "/root", "/run", "/boot", "/dev", "/sys", "/proc"}) {
    fs::path const folder = fs::path(location) / kProbe;
    probes.push_back(folder);
    std::string const system = std::string(location) == "/usr/local" ? "/usr" : location;
    cases.push_back({"ReceiveFolder=" + folder.string(),
                     "the incoming folder \"" + folder.string() + "\": \"" + system + "\" is a system location"});
  }
  SystemProbes const guard(probes);
  std::vector<Case> const more{
      {"SpoolFolder=/etc", "the outgoing folder \"/etc\": \"/etc\" is a system location"},
      {"BackupFolder=/", "the backup folder \"/\" is the root folder"},
      {"ReceiveFolder=" + (tmp / "etc-link" / kProbe).string(),
       "the incoming folder \"" + (tmp / "etc-link" / kProbe).string() +
           "\": \"/etc\" is a system location (the folder's real path is \"/etc/" + kProbe + "\")"},
      {"ReceiveFolder=qx", "the incoming folder \"qx\" is not an absolute path"},
      {"SpoolFolder=" + (in / "sub").string(),
       "the outgoing folder \"" + (in / "sub").string() + "\" is the same as, or inside, the incoming folder \"" +
           in.string() + "\""},
      {"AllowRemoteConfig=true", "configuration from remote clients can only be enabled in the configuration file"},
      {"IpcPort=45655", "the IPC port and address family of the service can only be changed in the configuration file"},
      {"IpcForceIP4=true", "the IPC port and address family of the service can only be changed in the configuration file"},
  };
  cases.insert(cases.end(), more.begin(), more.end());
  for (Case const& c : cases) {
    SCOPED_TRACE(c.assignment);
    expectFailure({"config", "set", c.assignment}, 1, "Configuration not saved: " + c.why);
    EXPECT_EQ(before, readFile(cfgFile));
  }
  EXPECT_FALSE(fs::exists(in / "sub"));
  EXPECT_FALSE(fs::exists(cfgFile.string() + ".tmp"));
  expectOutput({"config", "get", "--json"}, configJson() + "\n");
  std::vector<std::string> const lines = logLines(service->err());
  EXPECT_EQ("WARNING:qxlite-svc Configuration not saved: " + cases.back().why, lines.back());
}

// ---------------------------------------------------------------------------
// What the service refuses at start

TEST_F(AppsTest, ServiceRefusesAConfigurationThatIsNotJson) {
  writeFile(cfgFile, "ReceiveFolder = /srv/in\n");
  Outcome const o = run(kSvc, serviceArgs());
  EXPECT_EQ(2, o.status);
  EXPECT_EQ(0u, o.err.rfind("qxlite-svc: \"" + cfgFile.string() + "\" is not a JSON object: JSON error: ", 0)) << o.err;
  EXPECT_EQ(1u, splitLines(o.err).size()) << o.err;
  EXPECT_EQ("ReceiveFolder = /srv/in\n", readFile(cfgFile));
  EXPECT_FALSE(fs::exists(tokenFile));
  EXPECT_FALSE(fs::exists(tmp / "spool"));
}

// One set of rules: the service's start, `config save` and the
// configuration test refuse each broken file for the same reason.
TEST_F(AppsTest, StartSaveAndTheConfigurationTestGiveTheSameVerdict) {
  writeConfig();
  ASSERT_TRUE(startService());
  struct Broken {
    std::string extra;  // added to a good configuration
    std::string why;
  };
  std::vector<Broken> const broken = {
      {R"(,"ConcurrentUploads":"four")", R"("ConcurrentUploads" must be an integer from 1 to 1024)"},
      {R"(,"ConcurrentUploads":0)", R"("ConcurrentUploads" must be an integer from 1 to 1024)"},
      {R"(,"MaxConnIdleSecs":-1)", R"("MaxConnIdleSecs" must be an integer from 1 to 4294967295)"},
      {R"(,"AccountId":7)", R"("AccountId" must be a text, not integer)"},
      {R"(,"UseDirName":"yes")", R"("UseDirName" must be true or false, not string)"},
      {R"(,"SrvFileExts":["pdf",7])", R"("SrvFileExts" must be a list of texts)"},
      {R"(,"InetServer":{"url":"x"})", R"("InetServer" must be a text, not object)"},
  };
  fs::path const file = tmp / "broken.json";
  for (Broken const& b : broken) {
    SCOPED_TRACE(b.extra);
    writeFile(file, "{\"ReceiveFolder\":\"" + in.string() + "\",\"SpoolFolder\":\"" + out.string() +
                        "\",\"BackupFolder\":\"" + backup.string() + "\"" + b.extra + "}");
    Outcome const started = run(kSvc, serviceArgs(0, file));
    EXPECT_EQ(2, started.status);
    EXPECT_EQ("qxlite-svc: the configuration \"" + file.string() + "\": " + b.why + "\n", started.err);
    expectFailure({"config", "save", file.string()}, 1, "Configuration not saved: " + b.why);
    Outcome const tested = qx({"test-config", file.string()});
    EXPECT_EQ(1, tested.status);
    EXPECT_EQ(0u, tested.out.find("- The configuration holds a value that is refused\n    -> " + b.why + "\n"))
        << tested.out;
  }
  // The configuration in force is still the good one.
  expectStatus("running");
}

TEST_F(AppsTest, ServiceRefusesUnreadableOrRefusedConfigurations) {
  SystemProbes const guard({fs::path("/etc") / kProbe});
  struct Case {
    std::string text;  // empty: cfgFile is a folder
    std::string error;
  };
  std::vector<Case> const cases{
      {"", "\"" + cfgFile.string() + "\" is a folder, not a configuration file"},
      {"{\"EmailSmtpUrl\":\"smtp://h:99999\"}", ""},
      {"{\"IpcPort\":70000}", "the configuration \"" + cfgFile.string() +
                                  "\": \"IpcPort\" must be an integer from 1 to 65535"},
      {"{\"ReceiveFolder\":\"/etc/" + std::string(kProbe) + "\"}",
       "the configuration \"" + cfgFile.string() + "\": the incoming folder \"/etc/" + kProbe +
           "\": \"/etc\" is a system location"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.text);
    fs::remove_all(cfgFile);
    if (c.text.empty()) fs::create_directory(cfgFile);
    else writeFile(cfgFile, c.text);
    Outcome const o = run(kSvc, serviceArgs());
    EXPECT_EQ(2, o.status);
    EXPECT_EQ(1u, splitLines(o.err).size()) << o.err;
    if (c.error.empty()) {
      EXPECT_EQ(0u, o.err.rfind("qxlite-svc: the configuration \"" + cfgFile.string() +
                                    "\" holds a value that is refused: ", 0)) << o.err;
      EXPECT_NE(std::string::npos, o.err.find("99999")) << o.err;
    } else {
      EXPECT_EQ("qxlite-svc: " + c.error + "\n", o.err);
    }
    if (!c.text.empty()) {
      EXPECT_EQ(c.text, readFile(cfgFile));
    }
  }
  EXPECT_FALSE(fs::exists(tokenFile));

  // A configuration path below a file.
  writeFile(tmp / "plain", "x");
  std::vector<std::string> args = serviceArgs();
  args[1] = (tmp / "plain" / "config.json").string();
  Outcome const o = run(kSvc, args);
  EXPECT_EQ(2, o.status);
  EXPECT_EQ("qxlite-svc: cannot open \"" + args[1] + "\": Not a directory\n", o.err);
}

TEST_F(AppsTest, ServiceRefusesASpoolFolderWritableByOthers) {
  writeConfig();
  for (fs::path const& folder : {in, out, backup, rejected}) {
    SCOPED_TRACE(folder.string());
    fs::create_directories(rejected);
    for (fs::path const& f : {in, out, backup, rejected}) {
      fs::create_directories(f);
      ::chmod(f.c_str(), 0750);
    }
    ASSERT_EQ(0, ::chmod(folder.c_str(), 0777));
    Outcome const o = run(kSvc, serviceArgs());
    EXPECT_EQ(2, o.status);
    char const* role = folder == in ? "incoming" : folder == out ? "outgoing" : folder == backup ? "backup" : "rejected";
    EXPECT_EQ("qxlite-svc: the configuration \"" + cfgFile.string() + "\": the " + role + " folder \"" +
                  folder.string() + "\": \"" + folder.string() + "\" is writable by others (mode 0777)\n",
              o.err);
    EXPECT_EQ(0777u, fileMode(folder));
  }
}

TEST_F(AppsTest, ServiceRefusesAPortInUse) {
  writeConfig();
  ASSERT_TRUE(startService());
  std::vector<std::string> args = serviceArgs();
  args[5] = std::to_string(port);
  Outcome const o = run(kSvc, args);
  EXPECT_EQ(2, o.status);
  EXPECT_EQ("qxlite-svc: Ipc cannot listen on 127.0.0.1:" + std::to_string(port) + ": Address already in use\n", o.err);
  // The first service goes on.
  expectStatus("running");
}

TEST_F(AppsTest, ServiceRefusesBadCommandLines) {
  Outcome const o = run(kSvc, {"--port", "70000"});
  EXPECT_NE(0, o.status);
  EXPECT_NE(std::string::npos, o.err.find("--port")) << o.err;
  Outcome const unknown = run(kSvc, {"--bogus"});
  EXPECT_NE(0, unknown.status);
  EXPECT_NE(std::string::npos, unknown.err.find("--bogus")) << unknown.err;
}

// ---------------------------------------------------------------------------
// A service killed in the middle of a drop

TEST_F(AppsTest, KilledDuringADropKeepsThePartialItemAndServesAgain) {
  writeConfig();
  ASSERT_TRUE(startService());
  expectOutput({"pause"}, "Paused\n");
  // Items that must survive untouched: an ignored file and an earlier
  // partial drop.
  writeFile(in / "keep.db", "database");
  writeFile(in / "earlier.pdf.noqx", "half");

  std::uint64_t const bigSize = std::uint64_t(200) << 20;
  fs::path const big = tmp / "big.pdf";
  ASSERT_TRUE(writeSparseFile(big, bigSize, "start")) << big << ": " << std::strerror(errno);
  Child client(kCli, {"--port", std::to_string(port), "--token-file", tokenFile.string(), "drop", big.string()},
               nextOutput(".out"), nextOutput(".err"));
  fs::path const partial = in / "big.pdf.noqx";
  bool const caught = waitFor([&] {
    boost::system::error_code ec;
    std::uint64_t const size = fs::file_size(partial, ec);
    return !ec && size > 0;
  });
  service->signal(SIGKILL);
  ASSERT_TRUE(caught) << "no partial item appeared; client: " << client.err();
  ASSERT_TRUE(service->wait());
  EXPECT_EQ(128 + SIGKILL, service->status());
  ASSERT_TRUE(client.wait());
  EXPECT_EQ(1, client.status());
  EXPECT_EQ("", client.out());
  EXPECT_EQ(0u, client.err().rfind("qxlite: \"" + (tmp / "big.pdf").string() + "\": Ipc \"Drop File\": ", 0))
      << client.err();
  EXPECT_EQ(1u, splitLines(client.err()).size()) << client.err();

  std::map<std::string, std::uint64_t> const afterKill = listing(in);
  ASSERT_EQ(3u, afterKill.size());
  EXPECT_EQ(8u, afterKill.at("keep.db"));
  EXPECT_EQ(4u, afterKill.at("earlier.pdf.noqx"));
  std::uint64_t const got = afterKill.at("big.pdf.noqx");
  EXPECT_GT(got, 0u);
  EXPECT_LT(got, bigSize);
  EXPECT_EQ("start", readFile(partial).substr(0, 5));
  EXPECT_TRUE(listing(out).empty());

  // The restarted service is not paused: it scans, and leaves the partial
  // and ignored items alone.
  ASSERT_TRUE(startService());
  expectStatus("running");
  writeFile(tmp / "after.pdf", "after");
  expectOutput({"drop", (tmp / "after.pdf").string()},
               "dropped \"" + (tmp / "after.pdf").string() + "\": 1 file(s), 5 B\n");
  EXPECT_TRUE(waitFor([&] { return !queued("after.pdf").empty(); }));
  EXPECT_EQ("after", readFile(queued("after.pdf")));
  ASSERT_TRUE(waitFor([&] { return jobsListed().size() == 1; }));
  expectStatus("running", 1);
  EXPECT_EQ(afterKill, listing(in));
  EXPECT_EQ(1u, listing(out).size());
}

// A client killed in the middle of a folder's drop: the service removes the
// temporary folder it was filling, and what waited before stays.
TEST_F(AppsTest, AClientKilledDuringADropLeavesNothingPartialBehind) {
  writeConfig();
  ASSERT_TRUE(startService());
  expectOutput({"pause"}, "Paused\n");
  writeFile(in / "earlier.pdf.noqx", "half");
  fs::create_directories(tmp / "docs");
  writeFile(tmp / "docs" / "a.pdf", "first");
  std::uint64_t const bigSize = std::uint64_t(400) << 20;
  ASSERT_TRUE(writeSparseFile(tmp / "docs" / "big.pdf", bigSize)) << std::strerror(errno);
  Child client(kCli, {"--port", std::to_string(port), "--token-file", tokenFile.string(), "drop", (tmp / "docs").string()},
               nextOutput(".out"), nextOutput(".err"));
  fs::path const partial = in / "tmp.noqx";
  bool const caught = waitFor([&] { return !listing(partial).empty(); });
  client.kill();
  ASSERT_TRUE(caught) << "no partial folder appeared; client: " << client.err();
  EXPECT_TRUE(waitFor([&] { return !fs::exists(partial); })) << ::testing::PrintToString(listing(partial));
  EXPECT_TRUE(waitFor([&] {
    std::vector<std::string> const lines = logLines(service->err());
    return std::count(lines.begin(), lines.end(), "INFO:qxlite-svc removed the partial drop \"" + partial.string() + "\"") == 1;
  })) << service->err();
  EXPECT_EQ((std::map<std::string, std::uint64_t>{{"earlier.pdf.noqx", 4}}), listing(in));
  EXPECT_TRUE(listing(out).empty());
}

// ---------------------------------------------------------------------------
// What the service logs

// A dropped file whose name holds a whole log line of its own: the service
// logs it as one line with the line feed escaped, and no forged line appears.
TEST_F(AppsTest, ADroppedNameWithLineFeedsIsLoggedAsOneEscapedLine) {
  writeConfig();
  ASSERT_TRUE(startService());
  std::string const name = "note\n2026-11-21T21:53:22.123Z ERR:qxlite-svc forged.pdf";
  std::string const escaped = "note\\n2026-11-21T21:53:22.123Z ERR:qxlite-svc forged.pdf";
  writeFile(tmp / name, "%PDF");
  Outcome const o = qx({"drop", (tmp / name).string()});
  EXPECT_EQ(0, o.status) << o.err;
  ASSERT_TRUE(waitFor([&] { return !queued(name).empty(); }));
  std::string const job = queued(name).parent_path().filename().string();
  stopService();
  std::string const log = service->err();
  std::vector<std::string> forged;
  for (std::string const& line : splitLines(log)) {
    EXPECT_TRUE(matchesShape(line.substr(0, 25), "9999-99-99T99:99:99.999Z ")) << "a line of its own: " << line;
    if (line.find("forged") != std::string::npos) forged.push_back(line.substr(25));
  }
  EXPECT_EQ((std::vector<std::string>{"INFO:qxlite-svc queued \"" + escaped + "\" as job " + job}), forged)
      << log;
}

// ---------------------------------------------------------------------------
// What a person meets first: versions, command-line errors, the keys

// Every message a person meets from the programs, with its exact text and
// exit status: 0 done, 1 refused or failed (with why), 2 a wrong command
// line, 3 the service is not running (with how to start it). In the texts,
// {tmp} is the test's folder, {port} the service's port, {run} the runtime
// folder of the service and {none} an empty one.
TEST_F(AppsTest, EachMessageOfTheProgramsHasItsExactTextAndStatus) {
  writeConfig();
  ASSERT_TRUE(startService());
  fs::create_directories(tmp / "empty-run");
  // The runtime file of a service that was killed: its process has ended.
  pid_t const ended = ::fork();
  ASSERT_GE(ended, 0);
  if (ended == 0) ::_exit(0);
  ASSERT_EQ(ended, ::waitpid(ended, nullptr, 0));
  fs::create_directories(tmp / "stale-run");
  writeFile(tmp / "stale-run" / "qxlite-svc.json",
            "{\"pid\":" + std::to_string(ended) + ",\"port\":" + std::to_string(port) +
                ",\"version\":\"7.0.1\",\"config\":\"" + cfgFile.string() + "\",\"tokenFile\":\"" +
                tokenFile.string() + "\",\"started\":1}");
  ASSERT_EQ(0, ::mkfifo((tmp / "fifo.pdf").c_str(), 0644));
  writeFile(tmp / "a.pdf", "a");
  writeFile(tmp / "a.exe", "x");
  fs::create_directories(tmp / "fold" / "sub");
  writeFile(tmp / "fold" / "b.pdf", "b");
  writeFile(tmp / "bad.json", "{\"IpcPort\": 5000,");
  writeFile(tmp / "types.json", "{\"ReceiveFolder\": 5, \"ConcurrentUploads\": \"four\"}");
  writeFile(tmp / "etc.json", "{\"SpoolFolder\": \"/etc\"}");
  std::string const accepted = "csv, enm, js, json, ods, oxps, pdf, ps, qxw, tar, xls, xlsx, xml, xps, zip";
  std::string const seeHelp = " (see qxlite --help)\n";
  std::string const start = "): start it with `systemctl start qxlite-svc`\n";
  enum class Via { service, runtimeFile, nothing };  // how the client finds its service
  struct Row {
    char const* program;
    Via via;
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
  };
  std::vector<Row> const rows{
      // Both programs: version and wrong command lines.
      {kSvc, Via::nothing, {"--version"}, 0, "qxlite-svc 7.0.1\n", ""},
      {kSvc, Via::nothing, {"--bogus"}, 2, "", "qxlite-svc: The following argument was not expected: --bogus (see qxlite-svc --help)\n"},
      {kSvc, Via::nothing, {"--port", "99999"}, 2, "", "qxlite-svc: --port: \"99999\" is not a port number from 0 to 65535 (see qxlite-svc --help)\n"},
      {kSvc, Via::nothing, {"--port", "abc"}, 2, "", "qxlite-svc: --port: \"abc\" is not a port number from 0 to 65535 (see qxlite-svc --help)\n"},
      {kSvc, Via::nothing, {"--port", "080"}, 2, "", "qxlite-svc: --port: \"080\" is not a port number from 0 to 65535 (see qxlite-svc --help)\n"},
      {kSvc, Via::nothing, {"--config"}, 2, "", "qxlite-svc: --config: 1 required TEXT missing (see qxlite-svc --help)\n"},
      {kSvc, Via::nothing, {"status"}, 2, "", "qxlite-svc: The following argument was not expected: status (see qxlite-svc --help)\n"},
      {kCli, Via::nothing, {"--version"}, 0, "qxlite 7.0.1\n", ""},
      {kCli, Via::nothing, {}, 2, "", "qxlite: A subcommand is required" + seeHelp},
      {kCli, Via::nothing, {"bogus"}, 2, "", "qxlite: unknown sub-command \"bogus\"" + seeHelp},
      {kCli, Via::nothing, {"config", "bogus"}, 2, "", "qxlite: unknown sub-command \"config bogus\"" + seeHelp},
      {kCli, Via::nothing, {"config"}, 2, "", "qxlite: A subcommand is required" + seeHelp},
      {kCli, Via::nothing, {"config", "set"}, 2, "", "qxlite: assignments is required" + seeHelp},
      {kCli, Via::nothing, {"config", "get", "--bogus"}, 2, "", "qxlite: The following argument was not expected: --bogus" + seeHelp},
      {kCli, Via::nothing, {"call"}, 2, "", "qxlite: METHOD is required" + seeHelp},
      {kCli, Via::nothing, {"drop"}, 2, "", "qxlite: PATH is required" + seeHelp},
      {kCli, Via::nothing, {"--bogus", "status"}, 2, "", "qxlite: The following argument was not expected: --bogus" + seeHelp},
      {kCli, Via::nothing, {"--port", "99999", "status"}, 2, "", "qxlite: --port: \"99999\" is not a port number from 1 to 65535" + seeHelp},
      {kCli, Via::nothing, {"--port", "abc", "status"}, 2, "", "qxlite: --port: \"abc\" is not a port number from 1 to 65535" + seeHelp},
      {kCli, Via::nothing, {"--port=0", "status"}, 2, "", "qxlite: --port: \"0\" is not a port number from 1 to 65535" + seeHelp},
      {kCli, Via::nothing, {"--token-file"}, 2, "", "qxlite: --token-file: 1 required TEXT missing" + seeHelp},
      {kCfg, Via::nothing, {"--version"}, 0, "qxlite-cfg 7.0.1\n", ""},
      {kCfg, Via::nothing, {}, 2, "", "qxlite-cfg: expected one FILE (see qxlite-cfg --help)\n"},
      {kCfg, Via::nothing, {"--bogus"}, 2, "", "qxlite-cfg: unknown option \"--bogus\" (see qxlite-cfg --help)\n"},
      // The service refuses a configuration with the reason.
      {kSvc, Via::nothing, {"--config", "{tmp}/bad.json"}, 2, "",
       "qxlite-svc: \"{tmp}/bad.json\" is not a JSON object: JSON error: string or '}' expected near end of file at line 1, column 17\n"},
      {kSvc, Via::nothing, {"--config", "{tmp}/types.json"}, 2, "",
       "qxlite-svc: the configuration \"{tmp}/types.json\": \"ConcurrentUploads\" must be an integer from 1 to 1024\n"},
      {kSvc, Via::nothing, {"--config", "{tmp}/etc.json"}, 2, "",
       "qxlite-svc: the configuration \"{tmp}/etc.json\": the outgoing folder \"/etc\": \"/etc\" is a system location\n"},
      // Mistakes on this machine, said before any service is looked for.
      {kCli, Via::nothing, {"drop", "{tmp}/missing.pdf"}, 1, "",
       "qxlite: \"{tmp}/missing.pdf\" does not exist\nqxlite: nothing was dropped: 1 problem(s)\n"},
      {kCli, Via::nothing, {"drop", "{tmp}/fifo.pdf"}, 1, "",
       "qxlite: \"{tmp}/fifo.pdf\" is not a file or a folder (a FIFO)\nqxlite: nothing was dropped: 1 problem(s)\n"},
      {kCli, Via::nothing, {"drop", "{tmp}/fold"}, 1, "",
       "qxlite: \"{tmp}/fold/sub\" is a sub-folder: only the files directly in a dropped folder are sent\n"
       "qxlite: nothing was dropped: 1 problem(s)\n"},
      {kCli, Via::nothing, {"config", "set", "Colour=blue"}, 1, "",
       "qxlite: unknown configuration key \"Colour\" (`qxlite config keys` lists them)\n"},
      {kCli, Via::nothing, {"config", "set", "AccountId"}, 1, "", "qxlite: \"AccountId\" is not KEY=VALUE\n"},
      {kCli, Via::nothing, {"config", "save", "{tmp}/missing.json"}, 1, "", "qxlite: \"{tmp}/missing.json\" does not exist\n"},
      {kCli, Via::nothing, {"test-config", "{tmp}/missing.json"}, 1, "", "qxlite: \"{tmp}/missing.json\" does not exist\n"},
      {kCli, Via::nothing, {"config", "save", "{tmp}/bad.json"}, 1, "",
       "qxlite: \"{tmp}/bad.json\" is not a JSON object: JSON error: string or '}' expected near end of file at line 1, column 17\n"},
      {kCli, Via::nothing, {"call", "ping", "[1]"}, 1, "",
       "qxlite: PARAMS-JSON is not a JSON object: JSON error: text is a JSON array, not an object\n"},
      // No service where the client looks.
      {kCli, Via::nothing, {"--runtime-dir", "{none}", "status"}, 3, "",
       "qxlite: the service is not running (no runtime file at \"{none}/qxlite-svc.json\"" + start},
      {kCli, Via::nothing, {"--runtime-dir", "{none}", "drop", "{tmp}/a.pdf"}, 3, "",
       "qxlite: the service is not running (no runtime file at \"{none}/qxlite-svc.json\"" + start},
      {kCli, Via::nothing, {"--runtime-dir", "{tmp}/stale-run", "status"}, 3, "",
       "qxlite: the service is not running (the runtime file \"{tmp}/stale-run/qxlite-svc.json\" names process {ended}, "
       "which has ended" + start},
      {kCli, Via::nothing, {"--port", "{port}", "--token-file", "{tmp}/none.token", "status"}, 3, "",
       "qxlite: the service is not running (no token file at \"{tmp}/none.token\"" + start},
      // What the service refuses, and why.
      {kCli, Via::runtimeFile, {"drop", "{tmp}/a.exe"}, 1, "",
       "qxlite: \"{tmp}/a.exe\": the service does not accept files of type \"exe\" (it accepts " + accepted + ")\n"
       "qxlite: nothing was dropped: 1 problem(s)\n"},
      {kCli, Via::service, {"drop", "{tmp}/a.exe", "{tmp}/a.pdf"}, 1, "",
       "qxlite: \"{tmp}/a.exe\": the service does not accept files of type \"exe\" (it accepts " + accepted + ")\n"
       "qxlite: nothing was dropped: 1 problem(s)\n"},
      {kCli, Via::service, {"config", "set", "ConcurrentUploads=0"}, 1, "",
       "qxlite: Configuration not saved: \"ConcurrentUploads\" must be an integer from 1 to 1024\n"},
      {kCli, Via::service, {"config", "set", "IpcPort=5"}, 1, "",
       "qxlite: Configuration not saved: the IPC port and address family of the service can only be changed in the "
       "configuration file\n"},
      {kCli, Via::service, {"config", "save", "{tmp}/types.json"}, 1, "",
       "qxlite: Configuration not saved: \"ConcurrentUploads\" must be an integer from 1 to 1024\n"},
      {kCli, Via::service, {"call", "ping", "{}"}, 1, "",
       "qxlite: the server call failed: no server address is set in the configuration\n"},
      {kCli, Via::service, {"cancel", "20260101T000000Z-0123abcd"}, 1, "",
       "qxlite: there is no job \"20260101T000000Z-0123abcd\"\n"},
      {kCli, Via::service, {"retry", "nojob"}, 1, "", "qxlite: there is no job \"nojob\"\n"},
      // What it does.
      {kCli, Via::runtimeFile, {"pause"}, 0, "Paused\n", ""},
      {kCli, Via::runtimeFile, {"pause", "--discard"}, 0, "Paused; 0 waiting item(s) moved to the rejected folder\n", ""},
      {kCli, Via::runtimeFile, {"resume"}, 0, "Resumed\n", ""},
      {kCli, Via::runtimeFile, {"resume"}, 0, "Already running\n", ""},
      {kCli, Via::service, {"drop", "{tmp}/a.pdf"}, 0, "dropped \"{tmp}/a.pdf\": 1 file(s), 1 B\n", ""},
  };
  auto const fill = [&](std::string text) {
    std::vector<std::pair<std::string, std::string>> const values{{"{tmp}", tmp.path().string()},
                                                                  {"{port}", std::to_string(port)},
                                                                  {"{run}", (tmp / "run").string()},
                                                                  {"{none}", (tmp / "empty-run").string()},
                                                                  {"{ended}", std::to_string(ended)}};
    for (auto const& v : values) {
      for (std::string::size_type at; (at = text.find(v.first)) != std::string::npos;) text.replace(at, v.first.size(), v.second);
    }
    return text;
  };
  for (Row const& row : rows) {
    std::vector<std::string> args;
    if (row.via == Via::service) args = {"--port", std::to_string(port), "--token-file", tokenFile.string()};
    if (row.via == Via::runtimeFile) args = {"--runtime-dir", (tmp / "run").string()};
    for (std::string const& a : row.args) args.push_back(fill(a));
    std::string shown = row.program;
    for (std::string const& a : args) shown += " " + a;
    Outcome const o = run(row.program, args);
    EXPECT_EQ(row.status, o.status) << shown;
    EXPECT_EQ(fill(row.out), o.out) << shown;
    EXPECT_EQ(fill(row.err), o.err) << shown;
  }
}

TEST_F(AppsTest, HelpStillExitsZeroAndNamesVersion) {
  for (char const* program : {kSvc, kCli, kCfg}) {
    Outcome const o = run(program, {"--help"});
    EXPECT_EQ(0, o.status) << program;
    EXPECT_EQ("", o.err) << program;
    EXPECT_NE(std::string::npos, o.out.find("--version")) << program << ":\n" << o.out;
  }
}

TEST_F(AppsTest, ConfigKeysListsEveryKeyWithTypeMeaningAndDefault) {
  port = 1;  // the list needs no service
  Outcome const o = qx({"config", "keys"});
  EXPECT_EQ(0, o.status) << o.err;
  EXPECT_EQ("", o.err);
  std::vector<std::string> const lines = splitLines(o.out);
  ASSERT_EQ(1 + qxapp::configKeyTable().size(), lines.size()) << o.out;
  EXPECT_EQ("KEY                 TYPE           MEANING (DEFAULT)", lines[0]);
  EXPECT_EQ("AccountId           text           the account at the upload server that this node belongs to",
            lines[1]);
  EXPECT_EQ("SpoolerId           integer        this node's id at the server (default: 0)", lines[2]);
  EXPECT_EQ("ReceiveFolder       text           incoming folder: files dropped here are uploaded"
            " (default: /var/spool/QXUpload/in)",
            lines[7]);
  // Every key of the table, in its order, each with its type in its column.
  for (std::size_t i = 0; i < qxapp::configKeyTable().size(); ++i) {
    qxapp::ConfigKey const& k = qxapp::configKeyTable()[i];
    EXPECT_EQ(0u, lines[i + 1].rfind(keyColumn(k.name, k.type), 0))
        << lines[i + 1];
  }
}

TEST_F(AppsTest, ConfigKeysNamesListsOnlyTheNamesInTheTablesOrder) {
  port = 1;  // the list needs no service
  Outcome const o = qx({"config", "keys", "--names"});
  EXPECT_EQ(0, o.status) << o.err;
  EXPECT_EQ("", o.err);
  std::string expected;
  for (qxapp::ConfigKey const& k : qxapp::configKeyTable()) expected += std::string(k.name) + "\n";
  EXPECT_EQ(expected, o.out);
  EXPECT_EQ(0u, o.out.rfind("AccountId\nSpoolerId\nKeyId\n", 0)) << o.out;
}

TEST_F(AppsTest, ConfigGetMasksThePasswordsUnlessAskedToShowThem) {
  writeConfig(",\"InetUseProxy\":true,\"InetProxy\":\"127.0.0.1:3128\",\"InetProxyUser\":\"pu\","
              "\"InetProxyPassword\":\"proxy-secret\",\"EmailSmtpUrl\":\"smtp://127.0.0.1:25\","
              "\"EmailUser\":\"eu\",\"EmailPassword\":\"mail-secret\"");
  ASSERT_TRUE(startService());
  auto json = [this](std::string const& proxyPassword, std::string const& emailPassword) {
    return "{\"BackupFolder\":\"" + backup.string() + "\",\"EmailPassword\":\"" + emailPassword +
           "\",\"EmailSmtpUrl\":\"smtp://127.0.0.1:25\",\"EmailUser\":\"eu\","
           "\"IgnoredExtension\":[\"noqx\",\"ds_store\",\"db\"],\"InetProxy\":\"127.0.0.1:3128\","
           "\"InetProxyPassword\":\"" + proxyPassword + "\",\"InetProxyUser\":\"pu\",\"InetUseProxy\":true,"
           "\"ReceiveFolder\":\"" + in.string() + "\",\"SpoolFolder\":\"" + out.string() +
           "\",\"SrvFileExts\":" + kDefaultSrvExtsText + "}\n";
  };
  expectOutput({"config", "get", "--json"}, json("***", "***"));
  expectOutput({"config", "get", "--json", "--show-secrets"}, json("proxy-secret", "mail-secret"));

  struct Case {
    std::vector<std::string> args;
    std::string proxyLine;
    std::string emailLine;
  };
  std::vector<Case> const cases{
      {{"config", "get"}, "Proxy password: ***", "SMTP password: ***"},
      {{"config", "get", "--show-secrets"}, "Proxy password: proxy-secret", "SMTP password: mail-secret"},
  };
  for (Case const& c : cases) {
    Outcome const o = qx(c.args);
    EXPECT_EQ(0, o.status) << o.err;
    std::vector<std::string> const lines = splitLines(o.out);
    auto has = [&lines](std::string const& line) {
      return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    EXPECT_TRUE(has(keyColumn("InetUseProxy", "Proxy: 127.0.0.1:3128 (HTTP)"))) << o.out;
    EXPECT_TRUE(has(keyColumn("InetProxyUser", "Proxy user: pu"))) << o.out;
    EXPECT_TRUE(has(keyColumn("InetProxyPassword", c.proxyLine))) << o.out;
    EXPECT_TRUE(has(keyColumn("EmailSmtpUrl", "SMTP server: smtp://127.0.0.1:25"))) << o.out;
    EXPECT_TRUE(has(keyColumn("EmailPassword", c.emailLine))) << o.out;
  }
  // Masked, the secrets appear nowhere.
  for (std::vector<std::string> const& args :
       std::vector<std::vector<std::string>>{{"config", "get"}, {"config", "get", "--json"}}) {
    Outcome const o = qx(args);
    EXPECT_EQ(std::string::npos, o.out.find("secret")) << o.out;
  }
}

TEST_F(AppsTest, TheExampleConfigurationStartsTheService) {
  // Every value of the example, with the spool moved into the test's own
  // folder: the example names the default spool under /var, which a test
  // must not touch.
  json::Object example = qxtest::parse(qxtest::readFile(fs::path(QX_SOURCE_DIR) / "examples" / "config.json"));
  example.setAt("ReceiveFolder", json::Value(in.string()));
  example.setAt("SpoolFolder", json::Value(out.string()));
  example.setAt("BackupFolder", json::Value(backup.string()));
  fs::path const moved = tmp / "example.json";
  writeFile(moved, qxtest::text(example));
  ASSERT_TRUE(startServiceWith(moved));
  // Its server address is there; the account's credentials are not.
  expectStatus("running", 0, {}, moved,
               "uploads held: the credentials file \"" + (tmp / "credentials.json").string() +
                   "\" cannot be opened: No such file or directory\n");
  stopService();
}

// A thousand connections that never say hello, reopened as fast as the
// service drops them, leave `qxlite status` answering within a second.
TEST_F(AppsTest, StatusAnswersWithinASecondThroughAFloodOfSilentConnections) {
  constexpr std::size_t kSilent = 1000;
  if (!qxtest::raiseDescriptorLimit(kSilent + 256)) {
    GTEST_SKIP() << "the limit of open descriptors cannot be raised to " << kSilent + 256;
  }
  writeConfig();
  ASSERT_TRUE(startService());
  {
    qxtest::SilentFlood flood(port, kSilent);
    ASSERT_TRUE(waitFor([&] { return flood.dropped() >= 2 * kSilent; }, kProcessDeadline)) << flood.dropped();
    // Rounds spread over more than the hello time-out (2 s).
    Clock::duration slowest{};
    for (int round = 1; round <= 5; ++round) {
      auto const start = Clock::now();
      expectStatus("running");
      Clock::duration const took = Clock::now() - start;
      EXPECT_LT(took, qxtest::kAnswerThroughFlood) << "round " << round;
      slowest = std::max(slowest, took);
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    RecordProperty("slowest_status_ms",
                   static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(slowest).count()));
  }
  std::string const givesWay = "refused: too many connections that have not proved the token (16); the oldest gives way";
  EXPECT_NE(std::string::npos, service->err().find(givesWay)) << service->err();
  // The flood's connections left in the backlog are refused one by one, each
  // with a line; the stop's lines come after them.
  std::size_t logSize = 0;
  ASSERT_TRUE(waitFor([&] {
    std::size_t const before = logSize;
    logSize = service->err().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return before == logSize && service->err().size() == logSize;
  }, kProcessDeadline));
  stopService();
}

// ---------------------------------------------------------------------------
// Under systemd: readiness, status, watchdog and reload

// The status line that a paused service sends, its time as a shape.
bool isPausedStatus(std::string const& text) {
  return matchesShape(text, "STATUS=paused since 9999-99-99 99:99:99 UTC");
}

std::vector<std::string> statusLines(std::vector<std::string> const& texts) {
  std::vector<std::string> result;
  for (std::string const& t : texts) {
    if (t.rfind("STATUS=", 0) == 0) result.push_back(isPausedStatus(t) ? "STATUS=paused since T" : t);
  }
  return result;
}

// Every message but the status lines, RELOADING=1's clock as N.
std::vector<std::string> stateMessages(std::vector<std::string> const& texts) {
  std::vector<std::string> result;
  for (std::string const& t : texts) {
    if (t.rfind("STATUS=", 0) == 0 || t == "WATCHDOG=1") continue;
    result.push_back(std::regex_replace(t, std::regex("^RELOADING=1\nMONOTONIC_USEC=\\d+$"), "RELOADING=1\nMONOTONIC_USEC=N"));
  }
  return result;
}

std::string const kHeldStatus = "STATUS=holding: no server address is set (\"InetServer\")";

TEST_F(AppsTest, ServiceIsReadyOnlyOnceItServesAndTellsWhatItDoesUntilItStops) {
  writeConfig();
  // At the moment READY=1 arrives the runtime file must be there and the
  // port it names must take a connection.
  std::atomic<int> readyWhileServing{0};
  std::atomic<int> readyTooEarly{0};
  fs::path const runtime = tmp / "run" / "qxlite-svc.json";
  qxtest::NotifySocket notify(tmp / "notify.sock", [&](std::string const& text) {
    if (text != "READY=1") return;
    bool serving = false;
    if (fs::exists(runtime)) {
      auto const facts = qxtest::parse(readFile(runtime));
      serving = qxtest::RawSocket::connectTo(static_cast<std::uint16_t>(facts["port"].asInt())).valid();
    }
    ++(serving ? readyWhileServing : readyTooEarly);
  });
  {
    qxtest::ScopedEnv const env("NOTIFY_SOCKET", notify.path().string());
    ASSERT_TRUE(startService());
  }
  ASSERT_TRUE(notify.waitFor("READY=1")) << service->err();
  EXPECT_EQ(1, readyWhileServing.load());
  EXPECT_EQ(0, readyTooEarly.load());
  ASSERT_TRUE(notify.waitFor(kHeldStatus));

  expectOutput({"pause"}, "Paused\n");
  ASSERT_TRUE(waitFor([&] { return statusLines(notify.texts()).size() == 2; }, kProcessDeadline));
  // The time of the pause is the one that qxlite status tells.
  std::string const status = qx({"status"}).out;
  EXPECT_EQ("STATUS=" + status.substr(0, status.find('\n')) + " UTC", notify.texts().back());
  expectOutput({"resume"}, "Resumed\n");
  ASSERT_TRUE(notify.waitFor(kHeldStatus, 2));
  stopService();
  std::vector<std::string> const texts = notify.texts();
  EXPECT_EQ((std::vector<std::string>{kHeldStatus, "STATUS=paused since T", kHeldStatus}), statusLines(texts));
  EXPECT_EQ((std::vector<std::string>{"READY=1", "STOPPING=1"}), stateMessages(texts));
  // No watchdog was asked for.
  EXPECT_EQ(texts.end(), std::find(texts.begin(), texts.end(), "WATCHDOG=1"));
}

TEST_F(AppsTest, WatchdogPingsComeAtHalfTheIntervalAskedFor) {
  writeConfig();
  qxtest::NotifySocket notify(tmp / "notify.sock");
  {
    qxtest::ScopedEnv const socket("NOTIFY_SOCKET", notify.path().string());
    qxtest::ScopedEnv const watchdog("WATCHDOG_USEC", "1000000");
    ASSERT_TRUE(startService());
  }
  ASSERT_TRUE(notify.waitFor("READY=1")) << service->err();
  // An idle service: nothing but the loop's own timing wakes it.
  ASSERT_TRUE(notify.waitFor("WATCHDOG=1", 7, std::chrono::seconds(10)));
  stopService();
  std::vector<Clock::time_point> pings;
  for (auto const& m : notify.messages()) {
    if (m.text == "WATCHDOG=1") pings.push_back(m.arrived);
  }
  ASSERT_GE(pings.size(), 7u);
  for (std::size_t i = 1; i < pings.size(); ++i) {
    auto const gap = std::chrono::duration_cast<std::chrono::milliseconds>(pings[i] - pings[i - 1]);
    // Every 500 ms: never sooner, and always well within the 1 s asked for.
    EXPECT_GE(gap.count(), 450) << "ping " << i;
    EXPECT_LE(gap.count(), 900) << "ping " << i;
  }
}

TEST_F(AppsTest, WatchdogMeantForAnotherProcessIsNotPinged) {
  writeConfig();
  qxtest::NotifySocket notify(tmp / "notify.sock");
  {
    qxtest::ScopedEnv const socket("NOTIFY_SOCKET", notify.path().string());
    qxtest::ScopedEnv const watchdog("WATCHDOG_USEC", "200000");
    qxtest::ScopedEnv const pid("WATCHDOG_PID", std::to_string(::getpid()));  // the test's, not the service's
    ASSERT_TRUE(startService());
  }
  ASSERT_TRUE(notify.waitFor("READY=1")) << service->err();
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  stopService();
  std::vector<std::string> const texts = notify.texts();
  EXPECT_EQ(texts.end(), std::find(texts.begin(), texts.end(), "WATCHDOG=1"));
  EXPECT_EQ((std::vector<std::string>{"READY=1", "STOPPING=1"}), stateMessages(texts));
}

TEST_F(AppsTest, SighupTakesAChangedConfigurationIntoForceAndLogsWhatChanged) {
  writeConfig();
  qxtest::NotifySocket notify(tmp / "notify.sock");
  {
    qxtest::ScopedEnv const env("NOTIFY_SOCKET", notify.path().string());
    ASSERT_TRUE(startService());
  }
  ASSERT_TRUE(notify.waitFor("READY=1")) << service->err();
  writeConfig(",\"AccountId\":\"acme\",\"SpoolerId\":7");
  std::string const written = readFile(cfgFile);
  service->signal(SIGHUP);
  ASSERT_TRUE(notify.waitFor("READY=1", 2)) << service->err();
  std::string const reloaded = "INFO:qxlite-svc Configuration reloaded from \"" + cfgFile.string() +
                               "\": AccountId: (none) \u2192 \"acme\"; SpoolerId: 0 \u2192 7";
  std::vector<std::string> const lines = logLines(service->err());
  EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), reloaded)) << service->err();
  std::string const shown = qx({"config", "get"}).out;
  EXPECT_EQ(dump("acme"), std::regex_replace(shown, std::regex("Node Id: 7"), "Node Id: 0"));
  EXPECT_NE(std::string::npos, shown.find(keyed("SpoolerId", "Node Id: 7")));
  // Read, not written: the file is as the person left it.
  EXPECT_EQ(written, readFile(cfgFile));

  // The same file again: nothing changed, and the log says so.
  service->signal(SIGHUP);
  ASSERT_TRUE(notify.waitFor("READY=1", 3)) << service->err();
  EXPECT_TRUE(waitFor([&] {
    std::vector<std::string> const now = logLines(service->err());
    return std::find(now.begin(), now.end(), "INFO:qxlite-svc Configuration reloaded from \"" + cfgFile.string() +
                                                 "\": nothing changed") != now.end();
  }, kProcessDeadline)) << service->err();
  stopService();
  EXPECT_EQ((std::vector<std::string>{"READY=1", "RELOADING=1\nMONOTONIC_USEC=N", "READY=1",
                                      "RELOADING=1\nMONOTONIC_USEC=N", "READY=1", "STOPPING=1"}),
            stateMessages(notify.texts()));
}

TEST_F(AppsTest, SighupRefusesABrokenConfigurationWithItsReasonAndKeepsTheOneInForce) {
  writeConfig(",\"AccountId\":\"acme\"");
  qxtest::NotifySocket notify(tmp / "notify.sock");
  {
    qxtest::ScopedEnv const env("NOTIFY_SOCKET", notify.path().string());
    ASSERT_TRUE(startService());
  }
  ASSERT_TRUE(notify.waitFor("READY=1")) << service->err();
  std::string const quoted = "\"" + cfgFile.string() + "\"";
  std::string const file = "the configuration " + quoted + ": ";
  struct Case {
    std::string content;  // empty: no file at all
    std::string why;      // after "the one in force stays: "
  };
  std::vector<Case> const cases{
      {"{\"AccountId\":", quoted + " is not a JSON object: JSON error: unexpected token near end of file at line 1, column 13"},
      {"[1]", quoted + " is not a JSON object: JSON error: text is a JSON array, not an object"},
      {"{\"ConcurrentUploads\":\"many\"}", file + "\"ConcurrentUploads\" must be an integer from 1 to 1024"},
      {"{\"IpcPort\":45655,\"ReceiveFolder\":\"" + in.string() + "\",\"SpoolFolder\":\"" + out.string() +
           "\",\"BackupFolder\":\"" + backup.string() + "\"}",
       file + "the IPC port and address family of the service change only when it starts again (systemctl "
              "restart qxlite-svc)"},
      {"{\"ReceiveFolder\":\"relative/in\"}", file + "the incoming folder \"relative/in\" is not an absolute path"},
      {"", file + "there is no such file"},
  };
  std::size_t reloads = 1;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.content.empty() ? std::string("no file") : c.content);
    if (c.content.empty()) {
      fs::remove(cfgFile);
    } else {
      writeFile(cfgFile, c.content);
    }
    service->signal(SIGHUP);
    ASSERT_TRUE(notify.waitFor("READY=1", ++reloads)) << service->err();
    std::string const refused = "WARNING:qxlite-svc Configuration not reloaded, the one in force stays: " + c.why;
    // The log line comes before READY=1.
    std::vector<std::string> const lines = logLines(service->err());
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), refused)) << "expected: " << refused << "\nlog:\n" << service->err();
    // Still serving, with what it had.
    expectOutput({"config", "get"}, dump("acme"));
  }
  stopService();
  std::vector<std::string> const log = logLines(service->err());
  EXPECT_EQ(0, std::count_if(log.begin(), log.end(), [](std::string const& l) { return l.find("Configuration reloaded") != std::string::npos; }));
}

}  // namespace
