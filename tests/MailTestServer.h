// The SMTP server of the e-mail notices' tests: tests/mail-server.py (Debian's
// python3-aiosmtpd) on a loopback port of the system's choice, with a
// self-signed certificate for 127.0.0.1 made by openssl, one account, and a
// mailbox folder into which each message received goes as NNNN.eml beside
// its envelope NNNN.env. Also a port that takes connections and never
// answers, for a server that stalls.
//
// QX_SOURCE_DIR (a compile definition) locates the script. One thread: the
// test's; the server process dies with the object.
#ifndef QX_TESTS_MAILTESTSERVER_H
#define QX_TESTS_MAILTESTSERVER_H

#include "tests/HeldPort.h"
#include "tests/ProcessHarness.h"
#include "tests/TestUtil.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace qxtest {

class MailTestServer {
 public:
  enum class Tls { starttls, smtps, none };
  static constexpr char kUser[] = "notices";
  static constexpr char kPassword[] = "mail-secret";

  // Starts the server in folder (which must exist); port() is 0 and a test
  // failure says why when it does not come up.
  MailTestServer(boost::filesystem::path const& folder, Tls tls) : m_folder(folder) {
    boost::filesystem::create_directories(mailbox());
    Child openssl("/usr/bin/openssl",
                  {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", (folder / "smtp-key.pem").string(),
                   "-out", caFile().string(), "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
                   "subjectAltName=IP:127.0.0.1"},
                  folder / "openssl.out", folder / "openssl.err");
    if (!openssl.wait() || openssl.status() != 0) {
      ADD_FAILURE() << "openssl made no certificate: " << openssl.err();
      return;
    }
    char const* const mode = tls == Tls::starttls ? "starttls" : tls == Tls::smtps ? "smtps" : "none";
    m_process = std::make_unique<Child>(
        "/usr/bin/python3",
        std::vector<std::string>{std::string(QX_SOURCE_DIR) + "/tests/mail-server.py", "--mailbox",
                                 mailbox().string(), "--port-file", (folder / "smtp.port").string(), "--tls", mode,
                                 "--cert", caFile().string(), "--key", (folder / "smtp-key.pem").string(), "--user",
                                 kUser, "--password", kPassword},
        folder / "smtp.out", folder / "smtp.err");
    if (!waitFor([&] { return boost::filesystem::exists(folder / "smtp.port") || !m_process->running(); })) {
      ADD_FAILURE() << "the SMTP server did not start: " << m_process->err();
      return;
    }
    m_port = static_cast<std::uint16_t>(std::stoul("0" + readFile(folder / "smtp.port")));
    if (m_port == 0) ADD_FAILURE() << "the SMTP server did not start: " << m_process->err();
  }
  MailTestServer(MailTestServer const&) = delete;
  MailTestServer& operator=(MailTestServer const&) = delete;

  std::uint16_t port() const { return m_port; }
  // "smtp://127.0.0.1:PORT" (or smtps://).
  std::string url(char const* scheme = "smtp") const { return std::string(scheme) + "://127.0.0.1:" + std::to_string(m_port); }
  // The server's certificate, its own authority: for --mail-ca-file.
  boost::filesystem::path caFile() const { return m_folder / "smtp-cert.pem"; }
  boost::filesystem::path mailbox() const { return m_folder / "mailbox"; }

  // The messages received so far, in order: their files without the ".eml".
  std::vector<boost::filesystem::path> messages() const {
    std::vector<boost::filesystem::path> found;
    for (auto const& entry : boost::filesystem::directory_iterator(mailbox())) {
      if (entry.path().extension() == ".eml") found.push_back(entry.path().parent_path() / entry.path().stem());
    }
    std::sort(found.begin(), found.end());
    return found;
  }
  // Waits until count messages came (true) or limit passed.
  bool waitForMessages(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(30)) const {
    return waitFor([&] { return messages().size() >= count; }, limit);
  }
  // The message as Python's email package reads it: "Name: value" lines of
  // the headers as they are (decoded), a blank line, the body decoded.
  std::string shown(boost::filesystem::path const& message) const {
    Child show("/usr/bin/python3",
               {std::string(QX_SOURCE_DIR) + "/tests/mail-server.py", "--show", message.string() + ".eml"},
               m_folder / "show.out", m_folder / "show.err");
    if (!show.wait() || show.status() != 0) ADD_FAILURE() << "cannot read " << message << ": " << show.err();
    return show.out();
  }
  std::string envelope(boost::filesystem::path const& message) const { return readFile(message.string() + ".env"); }
  std::string raw(boost::filesystem::path const& message) const { return readFile(message.string() + ".eml"); }

 private:
  boost::filesystem::path const m_folder;
  std::uint16_t m_port = 0;
  std::unique_ptr<Child> m_process;
};

// A loopback port that takes connections into its backlog and never says a
// word: an SMTP server that stalls.
class SilentPort {
 public:
  SilentPort() : m_fd(boundLoopbackSocket(&m_port, 16)) {}
  ~SilentPort() {
    if (m_fd >= 0) ::close(m_fd);
  }
  SilentPort(SilentPort const&) = delete;
  SilentPort& operator=(SilentPort const&) = delete;
  std::uint16_t port() const { return m_port; }

 private:
  std::uint16_t m_port = 0;  // before m_fd, which sets it
  int m_fd;
};

}  // namespace qxtest

#endif  // QX_TESTS_MAILTESTSERVER_H
