// A service-side command processor for the IPC tests: fixed, checkable
// answers for the seven commands, and a record of what the service received.
//
// Used by the end-to-end tests in the test process and by the peer service
// program in its own process; the answers are the same in both, so a client
// can check them without access to the service's memory.
//
// Visits run on the transport's threads. Everything recorded is kept as plain
// text or values under the processor's mutex: JSON handles are not shared
// across threads (their reference counts are not atomic).
#ifndef QX_TESTS_IPCTESTPROCESSOR_H
#define QX_TESTS_IPCTESTPROCESSOR_H

#include "ipc/IpcCmdsLite.h"
#include "json/Json.h"
#include "settings/Settings.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>

namespace qxtest {

// The configuration that the service answers a GetCfg with.
constexpr char kServiceCfgText[] =
    R"({"AccountId":"acct-svc","SpoolerId":42,"KeyId":7,"MinFilesToZip":2,"InetServer":"up.example.com"})";
// The uploads list that the service answers a GetUploads with.
constexpr char kUploadsText[] =
    R"({"uploads":[{"name":"a.pdf","size":1234,"state":"done"},{"name":"b.zip","size":5,"state":"queued"}]})";

inline json::Object parseObject(char const* text) { return json::strToObject(text, std::strlen(text)); }

// A new record each time: a record is used by one thread at a time.
inline Settings serviceSettings() { return Settings(parseObject(kServiceCfgText)); }

class TestLiteProcessor : public Ipc::CmdProcessorLiteI {
 public:
  // The message of every visit while failVisits is set.
  static constexpr char kFailure[] = "disk full";

  void visit(Ipc::IsRunning& c) override {
    failIfAsked();
    c.running = running.load();
    count();
  }

  void visit(Ipc::GetCfg& c) override {
    failIfAsked();
    c.setSetts(serviceSettings());
    count();
  }

  // Answers with the account of the record it read, so that the client sees
  // that the record arrived.
  void visit(Ipc::SaveCfg& c) override {
    failIfAsked();
    std::unique_ptr<Settings> const saved = c.pSetts();
    c.ok = true;
    c.msg = "saved " + saved->AccountId;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_savedCfgText = json::jsonToString(saved->serialize(), false);
    ++m_visits;
  }

  void visit(Ipc::Pause& c) override {
    failIfAsked();
    c.ok = true;
    c.msg = c.delAll ? "paused, waiting items discarded" : "paused";
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lastDelAll = c.delAll ? 1 : 0;
    ++m_visits;
  }

  void visit(Ipc::Resume& c) override {
    failIfAsked();
    c.ok = true;
    c.msg = "resumed";
    count();
  }

  // Answers with what it read: {"method", "params", and "server" (the
  // server address of the internet settings) when they were given}.
  void visit(Ipc::ServerRequest& c) override {
    failIfAsked();
    std::string const method = c.callName();
    json::Object const params = c.jParams();
    std::unique_ptr<Inet::InetCfg> const inet = c.pInetCfg();
    json::Object answer;
    answer.setAt("method", json::Value(method));
    answer.setAt("params", params);
    if (inet) answer.setAt("server", json::Value(inet->serverAddress()));
    c.payload = answer;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lastServerCallName = method;
    m_lastInetVersion = inet ? inet->version() : std::string("(none)");
    ++m_visits;
  }

  void visit(Ipc::GetUploads& c) override {
    failIfAsked();
    c.payload = parseObject(kUploadsText);
    count();
  }

  // The sparse JSON form of the last record that a SaveCfg carried.
  std::string savedCfgText() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_savedCfgText;
  }
  // -1 before any Pause, else 0 or 1.
  int lastDelAll() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastDelAll;
  }
  std::string lastServerCallName() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastServerCallName;
  }
  // The version text of the internet record that the last server call built.
  std::string lastInetVersion() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastInetVersion;
  }
  // Visits that completed without throwing.
  int visits() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_visits;
  }

  std::atomic<bool> running{true};
  std::atomic<bool> failVisits{false};

 private:
  void failIfAsked() const {
    if (failVisits.load()) throw std::runtime_error(kFailure);
  }
  void count() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_visits;
  }

  mutable std::mutex m_mutex;
  std::string m_savedCfgText;
  int m_lastDelAll = -1;
  std::string m_lastServerCallName;
  std::string m_lastInetVersion;
  int m_visits = 0;
};

// The service's factory over the lite commands (drops go nowhere here).
inline std::shared_ptr<Ipc::CmdI> makeLiteCmd(Ipc::CmdI::TypeCode type,
                                              std::shared_ptr<Ipc::CmdProcessorI> const& p) {
  return Ipc::createLiteCmd(type, p, boost::filesystem::path());
}

}  // namespace qxtest

#endif  // QX_TESTS_IPCTESTPROCESSOR_H
