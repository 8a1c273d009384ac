// Example: have the service test its configuration, and show the result
// lines on the user interface's thread as they arrive.
//
//   qxlite-testcfg-example [--port PORT] [--token-file FILE]
//
// The lines arrive on a transport thread, which must never wait for the user
// interface. Ipc::TestCfg queues them in a queue that it shares with its
// copies, and hands a copy to the processor's processCmd for each line; the
// processor here only posts an event to the UI thread, which takes the lines
// with getRespLine (the queue's lock makes that safe). UiThread stands in for
// a GUI toolkit's event loop and its "post to the main thread" call.
#include "ServiceOptions.h"

#include <ipc/IpcCmdsLite.h>
#include <ipc/MsgsUItoSvc.h>
#include <settings/Settings.h>
#include <shared/CmdClient.h>
#include <shared/IoThreads.h>
#include <shared/SecretToken.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

char const kProgram[] = "qxlite-testcfg-example";
char const kUsage[] = "usage: qxlite-testcfg-example [--port PORT] [--token-file FILE]";

int fail(std::string const& message) {
  std::cerr << kProgram << ": " << message << "\n";
  return 1;
}

// One thread that runs the events posted to it, in the order they were
// posted, until quit() is posted.
class UiThread {
 public:
  UiThread() : m_thread([this] { loop(); }) {}
  ~UiThread() {
    if (!m_thread.joinable()) return;
    quit();
    m_thread.join();
  }
  UiThread(UiThread const&) = delete;
  UiThread& operator=(UiThread const&) = delete;

  // Any thread. Notifies under the lock: once the loop has ended, the
  // owner may destroy this object as soon as the poster lets go of it.
  void post(std::function<void()> event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(std::move(event));
    m_wake.notify_one();
  }
  // Ends the loop once the events posted before have run.
  void quit() { post(nullptr); }
  // Returns once the loop has ended.
  void waitUntilDone() {
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  void loop() {
    for (;;) {
      std::function<void()> event;
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, [this] { return !m_events.empty(); });
        event = std::move(m_events.front());
        m_events.pop_front();
      }
      if (!event) return;
      event();
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::deque<std::function<void()>> m_events;  // guarded by m_mutex; null: quit
  std::thread m_thread;
};

bool startsWith(std::string const& line, std::string const& prefix) { return line.compare(0, prefix.size(), prefix) == 0; }

// What the user interface shows of the test. Touched on the UI thread only.
struct TestView {
  void showNewLines(Ipc::TestCfg& test) {
    std::string line;
    while (test.getRespLine(line)) {
      if (startsWith(line, Ipc::TST_LINE_START_ERR)) ++errors;
      if (startsWith(line, Ipc::TST_LINE_START_WARN)) ++warnings;
      if (startsWith(line, Ipc::TST_LINE_START_PASS)) ++passed;
      std::cout << line << "\n";
    }
  }

  int passed = 0;
  int warnings = 0;
  int errors = 0;
  std::string failure;  // why the test did not finish; empty when it did
};

// Posts each arriving line to the UI thread.
class LinesToUiThread : public Ipc::CmdProcessorI {
 public:
  LinesToUiThread(UiThread& ui, TestView& view) : m_ui(ui), m_view(view) {}

  void processCmd(std::shared_ptr<Ipc::CmdI> cmd) override {
    auto const test = std::static_pointer_cast<Ipc::TestCfg>(std::move(cmd));
    m_ui.post([this, test] { m_view.showNewLines(*test); });
  }

 private:
  UiThread& m_ui;
  TestView& m_view;
};

int testConfiguration(Ipc::CmdClient& client) {
  // The configuration in force; a user interface would test the one being
  // edited.
  auto const current = std::make_shared<Ipc::GetCfg>(nullptr);
  std::string const error = client.run(current);
  if (!error.empty()) return fail("cannot reach the service: " + error);

  TestView view;
  {
    UiThread ui;
    // The record is gone before the command is handed over: the command's
    // payload shares the record's lists, JSON reference counts are not
    // atomic, and the transport lets go of the command on its own thread.
    auto const test =
        std::make_shared<Ipc::TestCfg>(std::make_shared<LinesToUiThread>(ui, view), *current->pSetts());
    client.execute(test, [&ui, &view](std::shared_ptr<Ipc::CmdI> const& cmd, std::string const& failure) {
      // The completion comes after every line's processCmd: the lines left
      // are shown first, then the UI thread ends.
      auto const done = std::static_pointer_cast<Ipc::TestCfg>(cmd);
      ui.post([&view, done, failure] {
        view.showNewLines(*done);
        view.failure = failure;
      });
      ui.quit();
    });
    ui.waitUntilDone();
  }
  if (!view.failure.empty()) return fail("the configuration test did not finish: " + view.failure);
  std::cout << "configuration test: " << view.passed << " passed, " << view.warnings << " warning(s), "
            << view.errors << " error(s)\n";
  return view.errors == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  qxexample::ServiceOptions service;
  try {
    service = qxexample::parseServiceOptions(argc, argv);
    if (!service.arguments.empty()) throw std::invalid_argument("unexpected \"" + service.arguments.front() + "\"");
  } catch (std::invalid_argument const& e) {
    std::cerr << kProgram << ": " << e.what() << "\n" << kUsage << "\n";
    return 2;
  }
  try {
    Ipc::IoThreads io;
    Ipc::CmdClient client(io, qxexample::clientOptions(service), Ipc::SecretToken::load(service.tokenFile));
    return testConfiguration(client);
  } catch (std::runtime_error const& e) {
    return fail(e.what());
  }
}
