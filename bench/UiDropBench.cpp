// The desktop program's drop of a big file against the command-line
// client's drop of the same file to the same service, and the longest stall
// of the window's event loop meanwhile.
//
//   UiDropBench [--size=BYTES] [--runs=N] [--warmups=N] [--dir=FOLDER] [--check-targets]
//
// A real qxlite-svc runs for the whole bench, started here on a port of the
// system's choice with its own configuration, folders and runtime file; the
// window (qxui::MainWindow, in this process, on the offscreen platform
// unless QT_QPA_PLATFORM says otherwise) and `qxlite drop` both find it by
// that runtime file. The window pauses the service first: a paused service
// leaves its incoming folder alone, so that no intake work of one drop runs
// during the next; every dropped copy is compared with the source there,
// then removed.
//
// The window's drop is timed from the window's drop call (what a drop on
// the zone and the command line both end in) to the answer it shows; the
// client's from its start to its exit, after it printed its answer. Both
// include the same checks and the same GetCfg round trip. Meanwhile a timer
// of kTickMs on the window's thread records the longest gap between its
// runs: the longest time a person would wait for the window to react. Its
// anchor: the same timer while `qxlite drop` runs and the window is idle,
// which shows what the machine's load alone costs the event loop.
//
// The size defaults to 1 GiB (or QX_BENCH_DROP_SIZE), in a file of a type
// that the service takes (".pdf"). The source is written
// once and read once before timing (page cache). Each run times both drops,
// starting with a different one each run, after untimed warm-up rounds (1 by
// default); the medians of the timed runs (5 by default) are reported, with
// each run's figure.
//
// Targets: the window's rate is at least 0.9 times the client's, and its
// event loop never stalls for 50 ms or more. With --check-targets the exit
// status is 1 when one is missed; it is 2 when something fails.
#include "apps/ServiceFinder.h"
#include "apps/ui/MainWindow.h"
#include "bench/BenchFiles.h"
#include "bench/BenchProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;
using qxbench::DropOptions;
using qxbench::median;
using qxbench::Process;
using qxbench::readText;
using qxbench::readThrough;
using qxbench::runsText;
using qxbench::sameContent;
using qxbench::seconds;
using qxbench::writeSource;

namespace {

constexpr int kTickMs = 5;
constexpr int kTransferLimitMs = 10 * 60 * 1000;
constexpr double kRatioTarget = 0.9;
constexpr double kStallTargetMs = 50;

// Thrown, never from a slot, so that the service and the work folder go on
// the way out.
struct BenchFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(std::string const& what) { throw BenchFailure(what); }

// Removes a folder and all it holds when it goes.
class RemovedFolder {
 public:
  explicit RemovedFolder(fs::path folder) : m_folder(std::move(folder)) { fs::create_directories(m_folder); }
  ~RemovedFolder() {
    boost::system::error_code ignored;
    fs::remove_all(m_folder, ignored);
  }
  RemovedFolder(RemovedFolder const&) = delete;
  RemovedFolder& operator=(RemovedFolder const&) = delete;
  fs::path const& path() const { return m_folder; }

 private:
  fs::path const m_folder;
};

void writeText(fs::path const& file, std::string const& text) {
  std::ofstream out(file.string(), std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) fail("cannot write " + file.string());
}

// The longest gap between two runs of a timer on this thread, from start()
// on: how long the event loop was kept from anything else.
class StallMeter {
 public:
  StallMeter() {
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setInterval(kTickMs);
    QObject::connect(&m_timer, &QTimer::timeout, [this] { note(); });
  }
  StallMeter(StallMeter const&) = delete;
  StallMeter& operator=(StallMeter const&) = delete;

  void start() {
    m_longestMs = 0;
    m_longestFromMs = 0;
    m_sinceStart.start();
    m_sinceLast.start();
    m_timer.start();
  }
  // The longest gap, the one still open included.
  double stop() {
    m_timer.stop();
    note();
    return m_longestMs;
  }
  // When the longest gap began, in ms after start().
  double longestFromMs() const { return m_longestFromMs; }

 private:
  void note() {
    double const gap = static_cast<double>(m_sinceLast.nsecsElapsed()) / 1e6;
    if (gap > m_longestMs) {
      m_longestMs = gap;
      m_longestFromMs = static_cast<double>(m_sinceStart.nsecsElapsed()) / 1e6 - gap;
    }
    m_sinceLast.restart();
  }

  QTimer m_timer;
  QElapsedTimer m_sinceStart;
  QElapsedTimer m_sinceLast;
  double m_longestMs = 0;
  double m_longestFromMs = 0;
};

// Runs the event loop until done() holds or limitMs pass; false on the limit.
// It sleeps between events: processEvents with a time limit never waits, and
// its spinning would take a core from the transfer being timed.
bool runUntil(std::function<bool()> const& done, int limitMs) {
  QElapsedTimer clock;
  clock.start();
  QTimer wakeUp;  // so that the limit is seen when no event comes
  wakeUp.start(100);
  while (!done()) {
    if (clock.elapsed() > limitMs) return false;
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  }
  return true;
}

// Returns the exit status; the service is stopped (a Process kills what
// still runs when it goes) and the work folder removed, also on a failure.
int runBench(DropOptions const& options) {
  RemovedFolder const workFolder((options.dir.empty() ? fs::temp_directory_path() : options.dir) /
                                 fs::unique_path("qx-uidropbench-%%%%-%%%%"));
  fs::path const& work = workFolder.path();
  fs::path const in = work / "spool" / "in";
  fs::path const runtimeFolder = work / "run";
  fs::path const source = work / "source.pdf";
  fs::path const dropped = in / source.filename();
  writeText(work / "config.json", "{\"ReceiveFolder\":\"" + in.string() + "\",\"SpoolFolder\":\"" +
                                      (work / "spool" / "out").string() + "\",\"BackupFolder\":\"" +
                                      (work / "spool" / "backup").string() + "\"}");

  Process service({QX_SVC_PROGRAM, "--config", (work / "config.json").string(), "--token-file",
                   (work / "ipc.token").string(), "--port", "0", "--foreground", "--state-dir", (work / "state").string(),
                   "--credentials", (work / "credentials.json").string(), "--runtime-dir", runtimeFolder.string()},
                  work / "svc.out", work / "svc.err");

  writeSource(source, options.size);
  readThrough(source);
  // The window opens on a service that serves already, as a person meets it
  // (and as UiTest opens it).
  for (auto const deadline = Clock::now() + std::chrono::seconds(30);;) {
    try {
      if (qxapp::findRunningService(runtimeFolder.string(), false, [](std::string const&) {})) break;
    } catch (std::exception const&) {
      // Not written yet.
    }
    if (!service.running()) fail("the service ended: " + service.err());
    if (Clock::now() > deadline) fail("the service wrote no runtime file in " + runtimeFolder.string());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }

  qxui::UiSession::Where where;
  where.runtimeFolder = runtimeFolder.string();
  qxui::MainWindow window(where);
  window.show();
  if (!runUntil([&] { return window.session().state() == qxui::UiSession::State::Connected; }, 30000)) {
    fail("the window did not reach the service: " + window.session().stateText().toStdString());
  }

  QString pauseAnswer;
  bool pauseOk = false;
  bool pauseAnswered = false;
  QObject::connect(&window.session(), &qxui::UiSession::commandAnswered, [&](QString const& text, bool ok) {
    pauseAnswer = text;
    pauseOk = ok;
    pauseAnswered = true;
  });
  window.session().pause(false);
  if (!runUntil([&] { return pauseAnswered; }, 30000)) fail("the service did not answer the pause");
  if (!pauseOk) fail("the service did not pause: " + pauseAnswer.toStdString());

  QStringList const sourceList{QString::fromStdString(source.string())};
  QStringList answered;  // the window's answer to its last drop
  bool answerOk = false;
  bool hasAnswer = false;
  QObject::connect(&window.session(), &qxui::UiSession::dropAnswered, [&](QStringList const& lines, bool ok) {
    answered = lines;
    answerOk = ok;
    hasAnswer = true;
  });

  double const gib = static_cast<double>(options.size) / double(1 << 30);
  std::vector<double> uiRate, cliRate, stallMs, idleStallMs;
  QString cliAnswer;
  StallMeter meter;

  auto checkAndRemoveCopy = [&](char const* who) {
    if (!sameContent(source, dropped)) {
      std::string held;
      for (auto const& entry : fs::directory_iterator(in)) held += " \"" + entry.path().filename().string() + "\"";
      fail(std::string("the copy of ") + who + " differs from the source, or is not " + dropped.string() +
           " (the incoming folder holds:" + held + ")");
    }
    fs::remove(dropped);
  };

  auto timeWindow = [&] {
    hasAnswer = false;
    meter.start();
    auto const t0 = Clock::now();
    window.dropWhenConnected(sourceList);
    if (!runUntil([&] { return hasAnswer; }, kTransferLimitMs)) fail("the window's drop got no answer in time");
    auto const t1 = Clock::now();
    stallMs.push_back(meter.stop());
    if (std::getenv("QX_BENCH_STALL_TRACE")) {
      std::fprintf(stderr, "UiDropBench: longest gap %.1f ms from %.1f ms of %.1f ms\n", stallMs.back(),
                   meter.longestFromMs(), seconds(t1 - t0) * 1e3);
    }
    if (!answerOk) fail("the window's drop failed: " + answered.join(QLatin1Char('\n')).toStdString());
    checkAndRemoveCopy("the window");
    uiRate.push_back(gib / seconds(t1 - t0));
  };

  auto timeClient = [&] {
    // The window's event loop runs meanwhile, idle: its longest gap then is
    // what the machine alone costs it while a drop runs.
    meter.start();
    auto const t0 = Clock::now();
    Process client({QX_CLI_PROGRAM, "--runtime-dir", runtimeFolder.string(), "drop", source.string()},
                   work / "cli.out", work / "cli.err");
    // The meter's timer wakes the loop every kTickMs to look.
    if (!runUntil([&] { return !client.running(); }, kTransferLimitMs)) fail("qxlite drop did not end in time");
    auto const t1 = Clock::now();
    idleStallMs.push_back(meter.stop());
    client.expectSuccess(std::chrono::milliseconds(0));
    cliAnswer = QString::fromStdString(readText(work / "cli.out")).trimmed();
    checkAndRemoveCopy("qxlite drop");
    cliRate.push_back(gib / seconds(t1 - t0));
  };

  // The order turns with each run: whichever comes first after a pause tends
  // to pay for page-cache memory that the system has to find.
  std::vector<std::function<void()>> const drops{timeWindow, timeClient};
  for (int run = -options.warmups; run < options.runs; ++run) {
    for (std::size_t i = 0; i < drops.size(); ++i) {
      drops[(i + static_cast<std::size_t>(run + options.warmups)) % drops.size()]();
    }
    if (run < 0) {
      uiRate.clear();
      cliRate.clear();
      stallMs.clear();
      idleStallMs.clear();
    }
  }
  // Both tell a person the same.
  if (answered != QStringList{cliAnswer}) {
    fail("the window answered \"" + answered.join(QLatin1Char('\n')).toStdString() + "\", qxlite drop \"" +
         cliAnswer.toStdString() + "\"");
  }

  window.session().stop();
  bool const serviceClean = service.stop() == 0;

  std::vector<double> ratios;
  for (std::size_t i = 0; i < uiRate.size(); ++i) ratios.push_back(uiRate[i] / cliRate[i]);
  double const ratio = median(uiRate) / median(cliRate);
  double const worstStall = *std::max_element(stallMs.begin(), stallMs.end());
  bool const ratioMet = ratio >= kRatioTarget, stallMet = worstStall < kStallTargetMs;
  std::printf("UiDropBench: %llu bytes (%.3f GiB), %d run(s) after %d warm-up round(s), medians\n",
              static_cast<unsigned long long>(options.size), gib, options.runs, options.warmups);
  std::printf("  drop from the window      %7.3f GiB/s   (runs: %s)\n", median(uiRate),
              runsText(uiRate, "%.3f").c_str());
  std::printf("  qxlite drop               %7.3f GiB/s   (runs: %s)\n", median(cliRate),
              runsText(cliRate, "%.3f").c_str());
  std::printf("  window / qxlite           %7.2f        (target >= %.2f: %s; runs: %s)\n", ratio, kRatioTarget,
              ratioMet ? "met" : "MISSED", runsText(ratios, "%.2f").c_str());
  std::printf("  event loop's longest gap  %7.1f ms     (median; worst %.1f, target < %.0f ms: %s; timer %d ms; "
              "runs: %s)\n",
              median(stallMs), worstStall, kStallTargetMs, stallMet ? "met" : "MISSED", kTickMs,
              runsText(stallMs, "%.1f").c_str());
  std::printf("  the same, window idle     %7.1f ms     (median during qxlite drop; worst %.1f; runs: %s)\n",
              median(idleStallMs), *std::max_element(idleStallMs.begin(), idleStallMs.end()),
              runsText(idleStallMs, "%.1f").c_str());
  if (!serviceClean) fail("the service did not end cleanly: " + service.err());
  return options.checkTargets && !(ratioMet && stallMet) ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  DropOptions const options = qxbench::parseDropOptions(argc, argv, "UiDropBench");
  ::signal(SIGPIPE, SIG_IGN);
  if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  try {
    return runBench(options);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "UiDropBench: %s\n", e.what());
    return 2;
  }
}
