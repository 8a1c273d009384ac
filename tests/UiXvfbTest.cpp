// The desktop program as a person runs it, under a real X server: the test
// starts its own Xvfb (a free display, -displayfd), a tray host (trayer), a
// qxlite-svc that uploads to the WebDAV test server, and the qxlite-ui
// program with --runtime-dir. It drives the program by keyboard (xdotool:
// Alt+F, a path typed into the file dialog, Enter) and by a real drag from
// another process (XClientTool drag-source, the mouse moved by xdotool).
//
// What the window shows comes from the program's own recorder
// (QXLITE_UI_RECORD_DIR, see apps/ui/WindowRecorder.h). The pictures of the
// screen and of the window at each step go to QX_SHOTS_DIR in the build
// folder; the test prints their paths. Every process is a Child: killed and
// reaped when the test ends, also when it fails.
#include "tests/ProcessHarness.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <signal.h>
#include <stdlib.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using qxtest::Child;
using qxtest::Outcome;
using qxtest::readFile;
using qxtest::writeFile;

// Generous: two cores shared with builds, and the sanitized builds.
constexpr auto kDeadline = std::chrono::seconds(30);

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

class UiXvfbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (char const* tool : {"/usr/bin/Xvfb", "/usr/bin/xdotool", "/usr/bin/trayer", "/usr/bin/xwininfo"}) {
      ASSERT_TRUE(fs::exists(tool)) << tool << " is missing: scripts/install-deps.sh installs it";
    }
    fs::remove_all(shots);
    fs::create_directories(shots);
    startXServer();
    ASSERT_FALSE(HasFatalFailure());
    ::setenv("DISPLAY", display.c_str(), 1);
    ::unsetenv("QT_QPA_PLATFORM");
    ::setenv("QXLITE_UI_RECORD_DIR", recorded().c_str(), 1);
    tray = start("/usr/bin/trayer", {"--edge", "top", "--align", "right", "--widthtype", "request", "--height", "24"});
    Outcome asked;
    bool const trayUp = qxtest::waitFor([&] { return (asked = tool({"tray"})).out == "tray: yes\n"; }, kDeadline);
    ASSERT_TRUE(trayUp) << "trayer does not hold the tray; it says:\n" << tray->err() << "XClientTool tray says:\n"
                        << asked.out << asked.err;
    startService();
  }

  // Politely first, so that Xvfb takes its socket and lock file along;
  // whatever is left is killed by its Child.
  void TearDown() override {
    for (std::unique_ptr<Child>* child : {&ui, &service, &tray, &xserver}) {
      if (!*child) continue;
      (*child)->signal(SIGTERM);
      (*child)->wait(std::chrono::seconds(10));
    }
  }

  void startXServer() {
    // -displayfd: the server picks a free display and writes its number.
    xserver = start("/usr/bin/Xvfb", {"-displayfd", "1", "-screen", "0", "1280x800x24", "-nolisten", "tcp"});
    bool const up = qxtest::waitFor([&] { return xserver->out().find('\n') != std::string::npos || !xserver->running(); },
                                    kDeadline);
    ASSERT_TRUE(up && xserver->running()) << "Xvfb does not start; its log:\n" << xserver->err();
    display = ":" + trimmed(xserver->out());
  }

  void startService() {
    qxtest::DavTestServer const& dav = qxtest::davServer();
    target = "xvfb-" + tmp.path().filename().string();
    writeFile(tmp / "config.json", "{\"ReceiveFolder\":\"" + (tmp / "spool/in").string() + "\",\"SpoolFolder\":\"" +
                                       (tmp / "spool/out").string() + "\",\"BackupFolder\":\"" +
                                       (tmp / "spool/backup").string() + "\",\"InetServer\":\"" + dav.url + "/" +
                                       target + "\"}");
    writeFile(tmp / "credentials.json", "{\"user\":\"" + dav.user + "\",\"secret\":\"" + dav.password + "\"}");
    ::chmod((tmp / "credentials.json").c_str(), 0600);
    service = start(QX_SVC_PROGRAM, {"--config", (tmp / "config.json").string(), "--token-file", (tmp / "ipc.token").string(),
                                     "--port", "0", "--foreground", "--scan-interval", "0.05", "--settle-time", "0.1",
                                     "--state-dir", (tmp / "state").string(), "--credentials",
                                     (tmp / "credentials.json").string(), "--runtime-dir", (tmp / "run").string()});
    ASSERT_NE(0, qxtest::servingPort(*service));
  }

  std::unique_ptr<Child> start(std::string const& program, std::vector<std::string> const& args) {
    std::string const n = std::to_string(++m_started);
    std::string const name = fs::path(program).filename().string();
#ifdef QX_TSAN_BUILD
    // The Qt programs on the X server run without ThreadSanitizer's reports.
    // There, Qt's X event thread hands its events and GLib's wake-up
    // descriptor to the main thread inside the system's libxcb and GLib,
    // which are not instrumented: the sanitizer reports those hand-overs,
    // with no frame of the project's, and no suppression names them without
    // hiding the project's code too. The program's own code is checked under
    // the sanitizer by UiTest (offscreen); here the service still is.
    bool const x11Client = program == QX_UI_PROGRAM || program == QX_XCLIENT_TOOL;
    char const* const options = std::getenv("TSAN_OPTIONS");
    std::string const saved = options ? options : "";
    if (x11Client) ::setenv("TSAN_OPTIONS", "report_bugs=0", 1);
    auto child = std::make_unique<Child>(program, args, tmp / (name + "-" + n + ".out"), tmp / (name + "-" + n + ".err"));
    if (x11Client) options ? ::setenv("TSAN_OPTIONS", saved.c_str(), 1) : ::unsetenv("TSAN_OPTIONS");
    return child;
#else
    return std::make_unique<Child>(program, args, tmp / (name + "-" + n + ".out"), tmp / (name + "-" + n + ".err"));
#endif
  }
  // Runs program to its end.
  Outcome run(std::string const& program, std::vector<std::string> const& args) {
    std::unique_ptr<Child> child = start(program, args);
    if (!child->wait(kDeadline)) ADD_FAILURE() << program << " does not end";
    return child->outcome();
  }
  Outcome tool(std::vector<std::string> const& args) { return run(QX_XCLIENT_TOOL, args); }
  // xdotool's answer; a failure shows what it said.
  std::string xdotool(std::vector<std::string> const& args) {
    Outcome const o = run("/usr/bin/xdotool", args);
    std::string line;
    for (std::string const& a : args) line += " " + a;
    EXPECT_EQ(0, o.status) << "xdotool" << line << ": " << o.err;
    return trimmed(o.out);
  }
  // The id of the window of that exact title, once there is one.
  std::string windowNamed(std::string const& title) {
    std::string id;
    bool const found = qxtest::waitFor([&] {
      Outcome const o = run("/usr/bin/xdotool", {"search", "--onlyvisible", "--name", "^" + title + "$"});
      id = trimmed(o.out);
      return o.status == 0 && !id.empty() && id.find('\n') == std::string::npos;
    }, kDeadline);
    EXPECT_TRUE(found) << "no window \"" << title << "\" on the screen (found \"" << id << "\")";
    return id;
  }
  // Gives the keyboard to a window: there is no window manager to do it.
  void focus(std::string const& title) { xdotool({"windowfocus", "--sync", windowNamed(title)}); }

  // The window tree of the display, as xwininfo draws it.
  std::string windowTree() { return run("/usr/bin/xwininfo", {"-root", "-tree"}).out; }
  // Whether trayer's panel holds a window of qxlite-ui: its tray icon, embedded.
  static bool trayHoldsTheIcon(std::string const& tree) {
    std::istringstream in(tree);
    std::string::size_type panelIndent = std::string::npos;
    for (std::string line; std::getline(in, line);) {
      std::string::size_type const indent = line.find_first_not_of(' ');
      if (indent == std::string::npos) continue;
      if (panelIndent != std::string::npos && indent <= panelIndent) panelIndent = std::string::npos;
      if (line.find("(\"panel\" \"trayer\")") != std::string::npos) {
        panelIndent = indent;
      } else if (panelIndent != std::string::npos && line.find("(\"qxlite-ui\" \"qxlite-ui\")") != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  fs::path recorded() const { return tmp / "recorded"; }
  // What the window shows, line by line as its recorder wrote it.
  std::map<std::string, std::string> shown() const {
    std::map<std::string, std::string> lines;
    std::istringstream in(readFile(recorded() / "window.txt"));
    for (std::string line; std::getline(in, line);) {
      std::string::size_type const colon = line.find(": ");
      if (colon != std::string::npos) lines[line.substr(0, colon)] = line.substr(colon + 2);
    }
    return lines;
  }
  // Waits until the window shows expected as name; a failure shows it all.
  void expectShown(std::string const& name, std::string const& expected) {
    // A program that ended shows nothing more: no need to wait.
    bool const seen = qxtest::waitFor([&] { return shown()[name] == expected || (ui && !ui->running()); }, kDeadline) &&
                      shown()[name] == expected;
    EXPECT_TRUE(seen) << "expected " << name << ": " << expected << "\nthe window shows:\n"
                      << readFile(recorded() / "window.txt") << "qxlite-ui (" << (ui && ui->running() ? "runs" : "ended")
                      << "), its log:\n" << (ui ? ui->err() : "");
  }

  // The pictures of a step: the whole screen, and the window as it is now.
  void picture(std::string const& step) {
    ++m_step;
    std::string const n = (m_step < 10 ? "0" : "") + std::to_string(m_step);
    fs::path const screen = shots / ("screen-" + n + "-" + step + ".png");
    Outcome const grab = tool({"grab-screen", screen.string()});
    EXPECT_EQ("1280x800\n", grab.out) << grab.err;
    std::cout << "screenshot: " << screen.string() << "\n";
    std::string const latest = shown()["picture"];
    if (latest.empty()) return;
    fs::path const window = shots / ("window-" + n + "-" + step + ".png");
    fs::copy_file(recorded() / latest, window, fs::copy_options::overwrite_existing);
    std::cout << "screenshot: " << window.string() << "\n";
  }

  // The bytes the WebDAV server holds under the service's target for name;
  // "" until it holds them.
  std::string uploaded(std::string const& name) const {
    fs::path const folder = fs::path(qxtest::davServer().root) / target;
    if (!fs::is_directory(folder)) return "";
    for (fs::recursive_directory_iterator it(folder), end; it != end; ++it) {
      if (it->path().filename() == name) return readFile(it->path());
    }
    return "";
  }

  qxtest::TempDir tmp;
  fs::path const shots = QX_SHOTS_DIR;
  std::string display;
  std::string target;
  // In the order they start; they stop in the other order.
  std::unique_ptr<Child> xserver;
  std::unique_ptr<Child> tray;
  std::unique_ptr<Child> service;
  std::unique_ptr<Child> ui;
  int m_started = 0;
  int m_step = 0;
};

TEST_F(UiXvfbTest, KeyboardAndARealDragUploadFiles) {
  fs::create_directories(tmp / "documents");
  fs::path const report = tmp / "documents" / "report.pdf";
  std::string const reportBytes = "%PDF-1.7 quarterly report\n" + std::string(3000, 'r');
  writeFile(report, reportBytes);
  fs::path const invoice = tmp / "documents" / "Rechnung März.xml";
  std::string const invoiceBytes = "<invoice id=\"2\">" + std::string(5000, 'i') + "</invoice>\n";
  writeFile(invoice, invoiceBytes);

  ui = start(QX_UI_PROGRAM, {"--runtime-dir", (tmp / "run").string()});
  expectShown("connectionState", "Connected to the service");
  // Where the desktop has a tray, the program puts its icon there.
  std::string tree;
  bool const iconInTray = qxtest::waitFor([&] { return trayHoldsTheIcon(tree = windowTree()); }, kDeadline);
  EXPECT_TRUE(iconInTray) << "no window of qxlite-ui inside trayer's panel; the windows:\n" << tree;
  picture("connected");
  ASSERT_FALSE(HasFailure());

  // The keyboard way: Alt+F, the path typed into the dialog, Enter.
  focus("QXLite uploads");
  xdotool({"key", "alt+f"});
  focus("Files to upload");
  xdotool({"type", "--delay", "10", report.string()});
  picture("file-dialog");
  xdotool({"key", "Return"});
  expectShown("dropOutcome", "dropped \"" + report.string() + "\": 1 file(s), 3.0 KiB");
  bool const reportArrived = qxtest::waitFor([&] { return uploaded("report.pdf") == reportBytes; }, kDeadline);
  EXPECT_TRUE(reportArrived) << "report.pdf is not on the WebDAV server whole";
  expectShown("uploads.1", "report.pdf | Done | 3.0 KiB | 100% |  | 0 |  | ");
  picture("report-uploaded");
  ASSERT_FALSE(HasFailure());

  // Paused, so that the dragged file waits where the drop put it.
  focus("QXLite uploads");
  xdotool({"key", "alt+p"});
  expectShown("banner", "Paused: nothing new starts until you resume.");
  ASSERT_FALSE(HasFailure());

  // A real drag from another program onto the drop zone.
  std::unique_ptr<Child> source = start(QX_XCLIENT_TOOL, {"drag-source", invoice.string(), "1000", "600"});
  ASSERT_TRUE(qxtest::waitFor([&] { return source->out() == "ready\n"; }, kDeadline)) << source->err();
  std::istringstream zone(shown()["dropZone.screen"]);
  int x = 0, y = 0, width = 0, height = 0;
  ASSERT_TRUE(zone >> x >> y >> width >> height) << "no drop zone in the window's record";
  xdotool({"mousemove", "--sync", "1100", "660"});
  xdotool({"mousedown", "1"});
  // Qt's drag follows the pointer's motion: move it there in steps, and
  // again until the drop zone says it takes the drag.
  int const toX = x + width / 2, toY = y + height / 2;
  for (int step = 1; step <= 8; ++step) {
    xdotool({"mousemove", std::to_string(1100 + (toX - 1100) * step / 8), std::to_string(660 + (toY - 660) * step / 8)});
  }
  bool const accepted = qxtest::waitFor([&] {
    if (source->out().find("accepted: copy") != std::string::npos) return true;
    xdotool({"mousemove", std::to_string(toX + 1), std::to_string(toY)});
    xdotool({"mousemove", std::to_string(toX), std::to_string(toY)});
    return false;
  }, kDeadline);
  EXPECT_TRUE(accepted) << "the drop zone does not take the drag; the source says:\n" << source->out() << source->err();
  picture("dragging");
  xdotool({"mouseup", "1"});
  ASSERT_TRUE(qxtest::waitFor([&] { return source->out().find("drag ended: copy\n") != std::string::npos; }, kDeadline))
      << "the drag does not end in a copy; the source says:\n" << source->out() << source->err();
  expectShown("dropOutcome", "dropped \"" + invoice.string() + "\": 1 file(s), 4.9 KiB");
  fs::path const waiting = tmp / "spool" / "in" / "Rechnung März.xml";
  EXPECT_TRUE(qxtest::waitFor([&] { return fs::exists(waiting) && readFile(waiting) == invoiceBytes; }, kDeadline))
      << "the dragged file is not whole in the incoming folder";
  expectShown("uploads.2", "Rechnung März.xml | Waiting | 4.9 KiB |  |  |  |  | ");
  picture("paused-one-done-one-waiting");
  ASSERT_FALSE(HasFailure());

  focus("QXLite uploads");
  xdotool({"key", "alt+r"});
  expectShown("commandAnswer", "Resumed");
  bool const invoiceArrived = qxtest::waitFor([&] { return uploaded("Rechnung März.xml") == invoiceBytes; }, kDeadline);
  EXPECT_TRUE(invoiceArrived) << "the dragged file is not on the WebDAV server whole";
  expectShown("uploads.2", "Rechnung März.xml | Done | 4.9 KiB | 100% |  | 0 |  | ");
  picture("both-uploaded");
}

}  // namespace
