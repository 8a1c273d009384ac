// The desktop program's main window, in this process with the offscreen
// platform, against a real qxlite-svc started by the test on a port of the
// system's choice. Drops are synthesized as a file manager sends them
// (text/uri-list); every text the window shows is compared whole.
#include "apps/ui/DropZone.h"
#include "apps/ui/MainWindow.h"
#include "apps/ui/Translation.h"
#include "apps/ui/UploadsModel.h"
#include "ipc/IpcCmdsLite.h"
#include "shared/CmdClient.h"
#include "tests/HeldPort.h"
#include "tests/IntakeTestUtil.h"
#include "tests/ProcessHarness.h"
#include "tests/FaultProxy.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <sys/stat.h>

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QGroupBox>
#include <QKeySequence>
#include <QTabWidget>
#include <QCheckBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QElapsedTimer>
#include <QIcon>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QTimer>
#include <QLocale>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QSystemTrayIcon>
#include <QTableView>
#include <QTest>
#include <QUrl>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using qxtest::Child;
using qxtest::readFile;
using qxtest::writeFile;

// The service's types as it lists them when it refuses one.
std::string const kAccepted = " (it accepts csv, enm, js, json, ods, oxps, pdf, ps, qxw, tar, xls, xlsx, xml, xps, zip)";
std::string const kHeld = "Uploads held: no server address is set (\"InetServer\")";

class UiTest : public ::testing::Test {
 protected:
  UiTest() : in(tmp / "spool" / "in"), out(tmp / "spool" / "out"), tokenFile(tmp / "ipc.token") {}

  void SetUp() override {
    writeConfig();
    ASSERT_TRUE(startService());
  }
  void writeConfig(std::string const& extra = "") {
    writeFile(tmp / "config.json", "{\"ReceiveFolder\":\"" + in.string() + "\",\"SpoolFolder\":\"" + out.string() +
                                       "\",\"BackupFolder\":\"" + backup().string() + "\"" + extra + "}");
  }
  fs::path backup() const { return tmp / "spool" / "backup"; }

  bool startService(std::uint16_t onPort = 0) {
    std::string const n = std::to_string(++m_starts);
    service = std::make_unique<Child>(
        QX_SVC_PROGRAM,
        std::vector<std::string>{"--config", (tmp / "config.json").string(), "--token-file", tokenFile.string(),
                                 "--port", std::to_string(onPort), "--foreground", "--scan-interval", "0.05", "--settle-time", "0.1",
                                 "--state-dir", (tmp / "state").string(), "--credentials",
                                 (tmp / "credentials.json").string(), "--runtime-dir", runtimeFolder().string()},
        tmp / ("svc-" + n + ".out"), tmp / ("svc-" + n + ".err"));
    port = qxtest::servingPort(*service);
    return port != 0;
  }
  void stopService() {
    service->signal(SIGTERM);
    ASSERT_TRUE(service->wait()) << "the service did not stop on SIGTERM";
    EXPECT_EQ(0, service->status()) << service->err();
  }
  fs::path runtimeFolder() const { return tmp / "run"; }

  // The window as a person opens it: the service found by its runtime file.
  std::unique_ptr<qxui::MainWindow> openWindow() {
    qxui::UiSession::Where where;
    where.runtimeFolder = runtimeFolder().string();
    auto window = std::make_unique<qxui::MainWindow>(where);
    window->show();
    return window;
  }

  template <class Widget>
  static Widget* part(qxui::MainWindow& window, char const* name) {
    Widget* const w = window.findChild<Widget*>(QString::fromLatin1(name));
    EXPECT_NE(nullptr, w) << "no " << name << " in the window";
    return w;
  }
  static QLabel* label(qxui::MainWindow& window, char const* name) { return part<QLabel>(window, name); }

  // Waits until what shows reads expected; a failure shows what it read.
  static void expectShown(std::function<QString()> const& shown, std::string const& expected) {
    bool const seen = QTest::qWaitFor([&] { return shown().toStdString() == expected; }, 20000);
    EXPECT_TRUE(seen) << "expected: " << expected << "\n   shown: " << shown().toStdString();
  }
  static void expectText(QLabel* l, std::string const& expected) {
    ASSERT_NE(nullptr, l);
    expectShown([l] { return l->text(); }, expected);
  }

  // A drag of paths from a file manager, entered and dropped on the zone.
  static void dropOn(qxui::DropZone* zone, std::vector<fs::path> const& paths) {
    ASSERT_NE(nullptr, zone);
    QMimeData mime;
    QList<QUrl> urls;
    for (fs::path const& p : paths) urls << QUrl::fromLocalFile(QString::fromStdString(p.string()));
    mime.setUrls(urls);
    ASSERT_TRUE(mime.hasFormat(QStringLiteral("text/uri-list")));
    QPoint const middle = zone->rect().center();
    QDragEnterEvent enter(middle, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(zone, &enter);
    ASSERT_TRUE(enter.isAccepted()) << "the zone does not take the drag";
    QDropEvent drop(QPointF(middle), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(zone, &drop);
    ASSERT_TRUE(drop.isAccepted()) << "the zone does not take the drop";
  }

  // Runs cmd on the service by a client of the test's own.
  void ask(std::shared_ptr<Ipc::CmdI> const& cmd) {
    Ipc::CmdClientOptions options;
    options.port = port;
    options.tokenFile = tokenFile.string();
    Ipc::CmdClient client(options, Ipc::SecretToken::load(tokenFile));
    EXPECT_EQ("", client.run(cmd));
  }
  // Whether the service says it runs (IsRunning).
  bool serviceRuns() {
    auto cmd = std::make_shared<Ipc::IsRunning>(nullptr);
    ask(cmd);
    return cmd->running;
  }
  // What the configuration in force holds under key (GetCfg).
  json::Value configValue(char const* key) {
    auto cmd = std::make_shared<Ipc::GetCfg>(nullptr);
    ask(cmd);
    return cmd->payload[key];
  }

  // The entries of the job folders in the outgoing folder, with what each
  // holds: a file's bytes, or a folder's files as "name=bytes;...".
  std::vector<std::string> spooled() const {
    std::vector<std::string> result;
    if (!fs::exists(out)) return result;
    for (auto const& job : fs::directory_iterator(out)) {
      if (!fs::is_directory(job.path())) continue;
      for (auto const& entry : fs::directory_iterator(job.path())) {
        if (!fs::is_directory(entry.path())) {
          result.push_back(entry.path().filename().string() + "=" + readFile(entry.path()));
          continue;
        }
        std::vector<std::string> files;
        for (auto const& f : fs::directory_iterator(entry.path())) {
          files.push_back(f.path().filename().string() + "=" + readFile(f.path()));
        }
        std::sort(files.begin(), files.end());
        std::string joined = "folder:";
        for (std::string const& f : files) joined += f + ";";
        result.push_back(joined);
      }
    }
    std::sort(result.begin(), result.end());
    return result;
  }

  qxtest::TempDir tmp;
  fs::path const in;
  fs::path const out;
  fs::path const tokenFile;
  std::unique_ptr<Child> service;
  std::uint16_t port = 0;

 private:
  unsigned m_starts = 0;
};

TEST_F(UiTest, TheWindowConnectsAndShowsTheServicesState) {
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  // Without a server address nothing leaves, and the banner says why.
  expectText(label(*window, "banner"), kHeld);
  EXPECT_TRUE(label(*window, "banner")->isVisible());
  EXPECT_TRUE(part<QPushButton>(*window, "pause")->isEnabled());
  EXPECT_FALSE(part<QPushButton>(*window, "resume")->isEnabled());
  EXPECT_EQ(0, part<QTableView>(*window, "uploads")->model()->rowCount());
}

TEST_F(UiTest, WithoutATrayTheHeldQueueIsToldOnceInTheStatusBar) {
  ASSERT_FALSE(QSystemTrayIcon::isSystemTrayAvailable()) << "the offscreen platform has no tray";
  // The icon a tray would show travels inside the program, and draws.
  EXPECT_FALSE(QIcon(QStringLiteral(":/qxlite-ui.svg")).pixmap(64, 64).isNull());
  auto window = openWindow();
  QSignalSpy told(window.get(), &qxui::MainWindow::noticeShown);
  expectText(label(*window, "connectionState"), "Connected to the service");
  expectText(label(*window, "notice"), "Uploads held: no server address is set (\"InetServer\")");
  // Snapshots keep coming; the same reason is not told again.
  QTest::qWait(2 * qxui::UiSession::kRefreshMs + 500);
  ASSERT_EQ(1, told.count());
  EXPECT_EQ("Uploads held", told.at(0).at(0).toString().toStdString());
  EXPECT_EQ("no server address is set (\"InetServer\")", told.at(0).at(1).toString().toStdString());
}

TEST_F(UiTest, ADropOfAFileAndOfAFolderLandsWholeInTheSpoolAndIsListed) {
  fs::create_directories(tmp / "docs");
  writeFile(tmp / "docs" / "a.pdf", "first");
  writeFile(tmp / "docs" / "b.csv", "x,y\n1,2\n");
  writeFile(tmp / "report.pdf", std::string(3000, 'r'));
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");

  dropOn(window->findChild<qxui::DropZone*>(), {tmp / "report.pdf", tmp / "docs"});
  expectText(label(*window, "dropOutcome"), "dropped \"" + (tmp / "report.pdf").string() +
                                                "\": 1 file(s), 2.9 KiB\ndropped \"" + (tmp / "docs").string() +
                                                "\": 2 file(s), 13 B");
  // The progress goes with the drop.
  EXPECT_TRUE(window->findChild<QWidget*>(QStringLiteral("dropProgress"))->isHidden());
  EXPECT_TRUE(qxtest::waitFor([&] { return spooled().size() == 2; }));
  EXPECT_EQ((std::vector<std::string>{"folder:a.pdf=first;b.csv=x,y\n1,2\n;", "report.pdf=" + std::string(3000, 'r')}),
            spooled());

  // Both jobs wait in the table, with their sizes.
  QAbstractItemModel* const model = part<QTableView>(*window, "uploads")->model();
  auto rows = [model] {
    std::vector<std::string> result;
    for (int r = 0; r < model->rowCount(); ++r) {
      std::string row;
      for (int c : {qxui::UploadsModel::Title, qxui::UploadsModel::State, qxui::UploadsModel::Size,
                    qxui::UploadsModel::Progress, qxui::UploadsModel::Attempts}) {
        row += (c == 0 ? "" : " | ") + model->index(r, c).data().toString().toStdString();
      }
      result.push_back(row);
    }
    std::sort(result.begin(), result.end());
    return result;
  };
  std::vector<std::string> const expected{"2 files: a.pdf, b.csv | Queued | 13 B | 0% | 0",
                                          "report.pdf | Queued | 2.9 KiB | 0% | 0"};
  EXPECT_TRUE(QTest::qWaitFor([&] { return rows() == expected; }, 20000)) << ::testing::PrintToString(rows());
}

TEST_F(UiTest, ARefusedFileShowsTheServicesReasonAndNothingIsSent) {
  writeFile(tmp / "tool.exe", "MZ");
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  dropOn(window->findChild<qxui::DropZone*>(), {tmp / "tool.exe"});
  expectText(label(*window, "dropOutcome"), "\"" + (tmp / "tool.exe").string() +
                                                "\": the service does not accept files of type \"exe\"" + kAccepted +
                                                "\nnothing was dropped: 1 problem(s)");
  EXPECT_TRUE(fs::is_empty(in));
  EXPECT_TRUE(spooled().empty());
}

TEST_F(UiTest, FilesOfTheCommandLineAreDroppedOnceTheServiceIsReached) {
  writeFile(tmp / "c.pdf", "cc");
  auto window = openWindow();
  window->dropWhenConnected({QString::fromStdString((tmp / "c.pdf").string())});
  expectText(label(*window, "dropOutcome"), "dropped \"" + (tmp / "c.pdf").string() + "\": 1 file(s), 2 B");
  EXPECT_TRUE(qxtest::waitFor([&] { return spooled() == std::vector<std::string>{"c.pdf=cc"}; }));
}

TEST_F(UiTest, PauseAndResumeChangeTheBannerAndTheService) {
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  expectText(label(*window, "banner"), kHeld);
  QPushButton* const pause = part<QPushButton>(*window, "pause");
  QPushButton* const resume = part<QPushButton>(*window, "resume");

  QTest::mouseClick(pause, Qt::LeftButton);
  expectText(label(*window, "commandAnswer"), "Paused");
  expectText(label(*window, "banner"), "Paused: nothing new starts until you resume.\n" + kHeld);
  EXPECT_FALSE(serviceRuns());
  EXPECT_FALSE(pause->isEnabled());
  EXPECT_TRUE(resume->isEnabled());

  // The keyboard way: the button's mnemonic.
  window->activateWindow();
  QTest::keyClick(window.get(), Qt::Key_R, Qt::AltModifier);
  expectText(label(*window, "commandAnswer"), "Resumed");
  expectText(label(*window, "banner"), kHeld);
  EXPECT_TRUE(serviceRuns());
  EXPECT_TRUE(pause->isEnabled());
  EXPECT_FALSE(resume->isEnabled());
}

// Answers the next question box with button, once it shows; the flag turns
// true then.
std::shared_ptr<bool> answerNextQuestion(QMessageBox::StandardButton button) {
  auto answered = std::make_shared<bool>(false);
  auto* poll = new QTimer;
  QObject::connect(poll, &QTimer::timeout, [poll, button, answered] {
    auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    if (!box) return;
    poll->stop();
    poll->deleteLater();
    box->button(button)->click();
    *answered = true;
  });
  poll->start(10);
  return answered;
}

TEST_F(UiTest, DiscardingTheWaitingItemsAsksFirst) {
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  QTest::mouseClick(part<QPushButton>(*window, "pause"), Qt::LeftButton);
  expectText(label(*window, "commandAnswer"), "Paused");
  writeFile(tmp / "w.pdf", "ww");
  window->dropWhenConnected({QString::fromStdString((tmp / "w.pdf").string())});
  expectText(label(*window, "dropOutcome"), "dropped \"" + (tmp / "w.pdf").string() + "\": 1 file(s), 2 B");
  ASSERT_EQ("ww", readFile(in / "w.pdf"));

  QPushButton* const discard = part<QPushButton>(*window, "pauseDiscard");
  answerNextQuestion(QMessageBox::Cancel);
  QTest::mouseClick(discard, Qt::LeftButton);
  QTest::qWait(300);
  EXPECT_EQ("Paused", label(*window, "commandAnswer")->text().toStdString());
  EXPECT_EQ("ww", readFile(in / "w.pdf"));

  answerNextQuestion(QMessageBox::Discard);
  QTest::mouseClick(discard, Qt::LeftButton);
  expectText(label(*window, "commandAnswer"), "Paused; 1 waiting item(s) moved to the rejected folder: w.pdf");
  EXPECT_FALSE(fs::exists(in / "w.pdf"));
}

// Selects the table's row whose title is title; false when there is none.
bool selectRowTitled(QTableView* table, std::string const& title) {
  QAbstractItemModel* const model = table->model();
  for (int r = 0; r < model->rowCount(); ++r) {
    if (model->index(r, qxui::UploadsModel::Title).data().toString().toStdString() != title) continue;
    table->selectRow(r);
    return true;
  }
  return false;
}

TEST_F(UiTest, AQueuedJobCancelledFromTheWindowIsCancelledAndItsFilesRejected) {
  writeFile(tmp / "q.pdf", "queued");
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  window->dropWhenConnected({QString::fromStdString((tmp / "q.pdf").string())});
  QTableView* const table = part<QTableView>(*window, "uploads");
  QPushButton* const cancel = part<QPushButton>(*window, "cancelJob");
  QPushButton* const retry = part<QPushButton>(*window, "retryJob");
  ASSERT_TRUE(table && cancel && retry);
  ASSERT_TRUE(QTest::qWaitFor([&] { return selectRowTitled(table, "q.pdf"); }, 20000));
  // The paused service holds the job as it is.
  QTest::mouseClick(part<QPushButton>(*window, "pause"), Qt::LeftButton);
  expectText(label(*window, "commandAnswer"), "Paused");
  auto list = std::make_shared<Ipc::GetUploads>(nullptr);
  ask(list);
  std::string const id = json::Object(json::Array(list->payload["uploads"])[0])["id"].asStringSafe();
  ASSERT_FALSE(id.empty()) << json::jsonToString(list->payload, false);
  EXPECT_TRUE(cancel->isEnabled());
  EXPECT_TRUE(retry->isEnabled());

  // Delete asks first; no leaves the job alone.
  window->activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
  table->setFocus();
  std::shared_ptr<bool> const asked = answerNextQuestion(QMessageBox::No);
  QTest::keyClick(table, Qt::Key_Delete);
  EXPECT_TRUE(QTest::qWaitFor([asked] { return *asked; })) << "Delete did not ask";
  QTest::qWait(300);
  EXPECT_EQ("Paused", label(*window, "commandAnswer")->text().toStdString());

  // The box took the activation; the window gets it back as a person's click would.
  window->activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
  table->setFocus();
  std::shared_ptr<bool> const confirmed = answerNextQuestion(QMessageBox::Yes);
  QTest::keyClick(table, Qt::Key_Delete);
  EXPECT_TRUE(QTest::qWaitFor([confirmed] { return *confirmed; })) << "Delete did not ask";
  expectText(label(*window, "commandAnswer"), "cancelled job " + id);
  auto stateOfJob = [&] {
    auto cmd = std::make_shared<Ipc::GetUploads>(nullptr);
    ask(cmd);
    return json::Object(json::Array(cmd->payload["uploads"])[0])["state"].asStringSafe();
  };
  EXPECT_TRUE(qxtest::waitFor([&] { return stateOfJob() == "cancelled"; })) << stateOfJob();
  fs::path const rejected = backup() / ".rejected";
  ASSERT_EQ(1u, qxtest::namesIn(rejected).size());
  EXPECT_EQ("queued", readFile(rejected / qxtest::namesIn(rejected).front() / "q.pdf"));
  // The table shows it, still selected, and a cancelled job takes neither.
  expectShown([&] { return table->model()->index(0, qxui::UploadsModel::State).data().toString(); }, "Cancelled");
  ASSERT_EQ(1, table->selectionModel()->selectedRows().size());
  EXPECT_FALSE(cancel->isEnabled());
  EXPECT_FALSE(retry->isEnabled());

  // A refusal is the service's own words.
  window->session().jobCommand(qxapp::JobAction::Cancel, QString::fromStdString(id));
  expectText(label(*window, "commandAnswer"), "job \"" + id + "\" is cancelled already");
}

TEST_F(UiTest, AWaitingJobIsRetriedFromTheWindowByItsShortcut) {
  writeFile(tmp / "r.pdf", "retry");
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  window->dropWhenConnected({QString::fromStdString((tmp / "r.pdf").string())});
  QTableView* const table = part<QTableView>(*window, "uploads");
  ASSERT_TRUE(table);
  ASSERT_TRUE(QTest::qWaitFor([&] { return selectRowTitled(table, "r.pdf"); }, 20000));
  auto list = std::make_shared<Ipc::GetUploads>(nullptr);
  ask(list);
  std::string const id = json::Object(json::Array(list->payload["uploads"])[0])["id"].asStringSafe();
  ASSERT_TRUE(QTest::qWaitFor([&] { return part<QPushButton>(*window, "retryJob")->isEnabled(); }, 20000));
  window->activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
  table->setFocus();
  QTest::keyClick(table, Qt::Key_R, Qt::ControlModifier);
  expectText(label(*window, "commandAnswer"), "retrying job " + id);
  std::vector<std::string> const log = qxtest::logLines(service->err());
  EXPECT_EQ(1, std::count(log.begin(), log.end(), "INFO:qxlite-svc retrying job " + id + " as asked"))
      << service->err();
}

TEST_F(UiTest, ADropCancelledOnItsWayLeavesNothingInTheSpool) {
  // Large enough to be on its way for a while even when a busy machine (a
  // sanitizer's build, tests in parallel) lets the window's thread wait,
  // written at once: holes but for a start.
  std::uint64_t const bigSize = std::uint64_t(1) << 30;
  fs::path const big = tmp / "big.pdf";
  ASSERT_TRUE(qxtest::writeSparseFile(big, bigSize, "start")) << big << ": " << std::strerror(errno);
  auto window = openWindow();
  QLabel* const state = label(*window, "connectionState");
  expectText(state, "Connected to the service");
  QPushButton* const cancel = part<QPushButton>(*window, "cancelDrop");
  ASSERT_TRUE(cancel);
  EXPECT_TRUE(cancel->isHidden());
  dropOn(window->findChild<qxui::DropZone*>(), {big});
  fs::path const partial = in / "big.pdf.noqx";
  bool const arriving = QTest::qWaitFor(
      [&] {
        boost::system::error_code ec;
        return fs::file_size(partial, ec) > 0 && !ec;
      },
      20000);
  ASSERT_TRUE(arriving) << "nothing arrived; the drop says: " << label(*window, "dropOutcome")->text().toStdString();
  ASSERT_TRUE(cancel->isVisible());
  QTest::mouseClick(cancel, Qt::LeftButton);
  expectText(label(*window, "dropOutcome"), "Drop cancelled");
  EXPECT_TRUE(cancel->isHidden());
  EXPECT_TRUE(window->findChild<QWidget*>(QStringLiteral("dropProgress"))->isHidden());
  // The service removes what it received, and takes in none of it.
  EXPECT_TRUE(qxtest::waitFor([&] { return qxtest::namesIn(in).empty(); }))
      << ::testing::PrintToString(qxtest::namesIn(in));
  auto removals = [&] {
    std::vector<std::string> const log = qxtest::logLines(service->err());
    return std::count(log.begin(), log.end(), "INFO:qxlite-svc removed the partial drop \"" + partial.string() + "\"");
  };
  EXPECT_TRUE(qxtest::waitFor([&] { return removals() == 1; })) << service->err();
  EXPECT_TRUE(spooled().empty());
  // The window connects again by itself and goes on as before.
  expectText(state, "Connected to the service");
  writeFile(tmp / "after.pdf", "after");
  dropOn(window->findChild<qxui::DropZone*>(), {tmp / "after.pdf"});
  expectText(label(*window, "dropOutcome"), "dropped \"" + (tmp / "after.pdf").string() + "\": 1 file(s), 5 B");
  EXPECT_TRUE(qxtest::waitFor([&] { return spooled() == std::vector<std::string>{"after.pdf=after"}; }));
}

TEST_F(UiTest, TheWindowReconnectsWhenTheServiceStartsAgain) {
  auto window = openWindow();
  QLabel* const state = label(*window, "connectionState");
  expectText(state, "Connected to the service");
  std::uint16_t const before = port;
  stopService();
  expectText(state, "the service is not running (no runtime file at \"" +
                        (runtimeFolder() / "qxlite-svc.json").string() +
                        "\"): start it with `systemctl start qxlite-svc`");
  EXPECT_FALSE(label(*window, "banner")->isVisible());
  EXPECT_FALSE(part<QPushButton>(*window, "pause")->isEnabled());

  ASSERT_TRUE(startService());
  expectText(state, "Connected to the service");
  expectText(label(*window, "banner"), kHeld);
  // The new service chose its own port; the window found it by the runtime file.
  SCOPED_TRACE("ports " + std::to_string(before) + " then " + std::to_string(port));
}

TEST_F(UiTest, AServiceThatCannotProveTheTokenIsNamedAsSuch) {
  writeFile(tmp / "wrong.token", std::string(64, 'a') + "\n");
  ::chmod((tmp / "wrong.token").c_str(), 0600);
  qxui::UiSession::Where where;
  where.port = port;
  where.tokenFile = (tmp / "wrong.token").string();
  qxui::MainWindow window(where);
  window.show();
  expectText(label(window, "connectionState"), "Ipc the service on port " + std::to_string(port) +
                                                   " could not prove that it holds the token of \"" +
                                                   (tmp / "wrong.token").string() + "\"");
}

TEST_F(UiTest, SettingsSavedFromTheFormAreWhatGetCfgReturns) {
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  QLineEdit* const uploads = part<QLineEdit>(*window, "ConcurrentUploads");
  QLineEdit* const spool = part<QLineEdit>(*window, "SpoolFolder");
  QCheckBox* const dirName = part<QCheckBox>(*window, "UseDirName");
  QPushButton* const save = part<QPushButton>(*window, "saveSettings");
  QLabel* const outcome = label(*window, "settingsOutcome");
  ASSERT_TRUE(uploads && spool && dirName && save && outcome);
  expectShown([uploads] { return uploads->text(); }, "2");  // the default, filled in
  EXPECT_EQ(out.string(), spool->text().toStdString());
  EXPECT_EQ(QLineEdit::Password, part<QLineEdit>(*window, "InetProxyPassword")->echoMode());
  EXPECT_EQ(QLineEdit::Password, part<QLineEdit>(*window, "EmailPassword")->echoMode());
  EXPECT_EQ(QLineEdit::Normal, part<QLineEdit>(*window, "InetProxyUser")->echoMode());

  struct Row {
    char const* uploads;
    char const* spool;
    std::string outcome;
  };
  // Refused by the check before sending, then by the service itself.
  std::vector<Row> const refused{
      {"0", "", "Configuration not saved: \"ConcurrentUploads\" must be an integer from 1 to 1024"},
      {"many", "", "Configuration not saved: \"ConcurrentUploads\" must be an integer from 1 to 1024"},
      {"3", "/etc",
       "Configuration not saved: the outgoing folder \"/etc\": \"/etc\" is a system location"},
  };
  for (Row const& row : refused) {
    SCOPED_TRACE(std::string(row.uploads) + " " + row.spool);
    uploads->setText(QString::fromLatin1(row.uploads));
    spool->setText(*row.spool ? QString::fromLatin1(row.spool) : QString::fromStdString(out.string()));
    QTest::mouseClick(save, Qt::LeftButton);
    expectText(outcome, row.outcome);
    EXPECT_TRUE(configValue("ConcurrentUploads").empty());
  }

  spool->setText(QString::fromStdString(out.string()));
  uploads->setText(QStringLiteral("3"));
  dirName->setChecked(true);
  QTest::mouseClick(save, Qt::LeftButton);
  expectText(outcome, "Configuration saved to \"" + (tmp / "config.json").string() +
                          "\"\nUseDirName: false \u2192 true\nConcurrentUploads: 2 \u2192 3");
  EXPECT_EQ(3, json_integer_value(configValue("ConcurrentUploads").get()));
  EXPECT_TRUE(configValue("UseDirName").isTrue());
  EXPECT_EQ(out.string(), configValue("SpoolFolder").asStringSafe());
}

TEST_F(UiTest, ConfigurationTestLinesArriveInOrderWhileTheWindowStaysResponsive) {
  // The service serves on the port of its configuration, so that the port
  // check does not depend on what else binds ports on this machine.
  stopService();
  qxtest::HeldPort ipc;
  writeConfig(",\"IpcPort\":" + ipc.text());
  ipc.release();
  ASSERT_TRUE(startService(ipc.port()));
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  QListWidget* const lines = part<QListWidget>(*window, "testLines");
  QPushButton* const run = part<QPushButton>(*window, "runTest");
  ASSERT_TRUE(lines && run);

  // The event loop's longest pause while the test runs.
  QElapsedTimer sinceTick;
  qint64 longestPause = 0;
  QTimer ticker;
  QObject::connect(&ticker, &QTimer::timeout, [&] {
    longestPause = std::max(longestPause, sinceTick.restart());
  });
  sinceTick.start();
  ticker.start(5);
  QTest::mouseClick(run, Qt::LeftButton);
  expectText(label(*window, "testSummary"), "The test found 0 error(s).");
  ticker.stop();
  std::vector<std::string> shown;
  for (int i = 0; i < lines->count(); ++i) shown.push_back(lines->item(i)->text().toStdString());
  std::vector<std::string> const expected{
      "+ The configuration's values are accepted",
      "+ The incoming folder \"" + in.string() + "\" exists and can be written",
      "+ The outgoing folder \"" + out.string() + "\" exists and can be written",
      "+ The backup folder \"" + backup().string() + "\" exists and can be written",
      "+ The rejected folder \"" + (backup() / ".rejected").string() + "\" exists and can be written",
      "+ The spool folders are distinct",
      "+ The extension lists hold texts only",
      "+ The IPC port " + ipc.text() + " is the one this service uses",
      "* No server address is set",
      "* No SMTP server is set: no e-mail notices",
      "* Backup is off",
  };
  EXPECT_EQ(expected, shown);
  EXPECT_TRUE(run->isEnabled());
  EXPECT_LT(longestPause, 500) << "the event loop stood still for " << longestPause << " ms";
  // Each kind has its colour: a warning is not drawn as a passed check.
  ASSERT_EQ(expected.size(), static_cast<std::size_t>(lines->count()));
  EXPECT_EQ(QColor(QStringLiteral("#1b6e20")), lines->item(0)->foreground().color());
  EXPECT_EQ(QColor(QStringLiteral("#8a5a00")), lines->item(8)->foreground().color());
}

TEST(DropZoneTest, TheProgressSaysHowMuchHowFastAndHowLongIsLeft) {
  struct Row {
    qint64 sent;
    qint64 total;
    double rate;
    std::string text;
  };
  std::vector<Row> const rows{
      {0, 41943040, 0, "0 B of 40.0 MiB"},
      {12582912, 41943040, 8493465.6, "12.0 MiB of 40.0 MiB, 8.1 MiB/s, 0:03 left"},
      {1048576, 1073741824, 1048576, "1.0 MiB of 1.0 GiB, 1.0 MiB/s, 17:03 left"},
      // More written than the files hold (the request's own bytes): all of it.
      {5000, 4096, 4096, "4.0 KiB of 4.0 KiB, 4.0 KiB/s, 0:00 left"},
  };
  qxui::DropZone zone;
  for (Row const& row : rows) {
    SCOPED_TRACE(row.text);
    zone.showProgress(row.sent, row.total, row.rate);
    EXPECT_EQ(row.text, zone.progressText().toStdString());
  }
  zone.hideProgress();
  EXPECT_EQ("", zone.progressText().toStdString());
}

// The real WebDAV test server (the ctest fixture TestServers starts it),
// behind a proxy that slows the upload enough for the table to show it.
TEST_F(UiTest, AnUploadToTheWebDavServerGoesThroughTheStatesToDoneInTheTable) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  qxtest::HostPort const upstream = qxtest::hostPortOf(dav.url);
  constexpr std::uint64_t kBytesPerSecond = 256 * 1024;
  qxtest::FaultProxy proxy(upstream.host, upstream.port, [](std::string const& method, std::string const&) {
    return method == "PUT" ? qxtest::Fault::throttle(kBytesPerSecond) : qxtest::Fault::pass();
  });
  std::string const base = "ui-" + std::to_string(::getpid());
  std::string const davPath = dav.url.substr(dav.url.find('/', dav.url.find("//") + 2));
  stopService();
  json::Object account;
  account.setAt("user", json::Value(dav.user));
  account.setAt("secret", json::Value(dav.password));
  writeFile(tmp / "credentials.json", json::jsonToString(account, false));
  ::chmod((tmp / "credentials.json").c_str(), 0600);
  writeConfig(",\"InetServer\":\"" + proxy.origin() + davPath + "/" + base + "\"");
  ASSERT_TRUE(startService());
  std::string const content(3 * kBytesPerSecond, 'u');  // three seconds on the way
  writeFile(tmp / "up.pdf", content);
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  EXPECT_FALSE(label(*window, "banner")->isVisible());
  // Paused first, so that the item waits in the table before it is a job.
  QTest::mouseClick(part<QPushButton>(*window, "pause"), Qt::LeftButton);
  expectText(label(*window, "commandAnswer"), "Paused");
  window->dropWhenConnected({QString::fromStdString((tmp / "up.pdf").string())});

  // Every state the table shows for the item, in order, until it is done.
  QAbstractItemModel* const model = part<QTableView>(*window, "uploads")->model();
  std::vector<std::string> states;
  auto cell = [model](int column) { return model->index(0, column).data().toString().toStdString(); };
  auto watch = [&](char const* until) {
    return QTest::qWaitFor(
        [&] {
          if (model->rowCount() != 1 || cell(qxui::UploadsModel::Title) != "up.pdf") return false;
          std::string const state = cell(qxui::UploadsModel::State);
          if (states.empty() || states.back() != state) states.push_back(state);
          return state == until;
        },
        60000);
  };
  ASSERT_TRUE(watch("Waiting")) << ::testing::PrintToString(states);
  QTest::mouseClick(part<QPushButton>(*window, "resume"), Qt::LeftButton);
  ASSERT_TRUE(watch("Done")) << ::testing::PrintToString(states) << "\n" << service->err() << proxy.report();
  // Snapshots come once a second: "Queued" may fall between two.
  std::vector<std::string> shown = states;
  shown.erase(std::remove(shown.begin(), shown.end(), "Queued"), shown.end());
  EXPECT_EQ((std::vector<std::string>{"Waiting", "Uploading", "Done"}), shown) << ::testing::PrintToString(states);
  EXPECT_EQ("100%", cell(qxui::UploadsModel::Progress));
  EXPECT_EQ("0", cell(qxui::UploadsModel::Attempts));  // the failed ones
  EXPECT_EQ("", cell(qxui::UploadsModel::LastError));
  // On the server, below the base of the address.
  std::vector<std::string> stored;
  for (fs::recursive_directory_iterator it(fs::path(dav.root) / base), end; it != end; ++it) {
    if (fs::is_regular_file(it->path())) stored.push_back(it->path().filename().string() + "=" + readFile(it->path()));
  }
  EXPECT_EQ(std::vector<std::string>{"up.pdf=" + content}, stored);
}

// What a keyboard user meets in window: a control (a widget that takes the
// focus by Tab) that a screen reader would have to announce without a name,
// and a mnemonic (&X) that two texts of one page claim; the window's own
// texts (its tab names, the buttons above the pages) count on every page.
// One line a problem.
std::vector<std::string> keyboardProblems(qxui::MainWindow& window) {
  std::vector<std::string> problems;
  auto nameOf = [](QWidget* w) {
    return w->objectName().isEmpty() ? std::string(w->metaObject()->className()) : w->objectName().toStdString();
  };
  for (QWidget* w : window.findChildren<QWidget*>()) {
    if (!(w->focusPolicy() & Qt::TabFocus)) continue;
    QAccessibleInterface* const a = QAccessible::queryAccessibleInterface(w);
    if (!a || a->text(QAccessible::Name).trimmed().isEmpty()) {
      problems.push_back("no accessible name: " + nameOf(w));
    }
  }
  auto* tabs = window.findChild<QTabWidget*>(QStringLiteral("pages"));
  if (!tabs) return {"no pages"};
  // The texts that may carry a mnemonic, each with what it labels.
  auto texts = [&](QWidget* within, bool pagesToo) {
    std::vector<std::pair<QString, std::string>> found;
    for (QWidget* w : within->findChildren<QWidget*>()) {
      bool inPage = false;
      for (int i = 0; i < tabs->count(); ++i) inPage = inPage || tabs->widget(i)->isAncestorOf(w);
      if (inPage && !pagesToo) continue;
      if (auto* b = qobject_cast<QAbstractButton*>(w)) found.emplace_back(b->text(), nameOf(w));
      if (auto* l = qobject_cast<QLabel*>(w); l && l->buddy()) found.emplace_back(l->text(), nameOf(w));
      if (auto* g = qobject_cast<QGroupBox*>(w)) found.emplace_back(g->title(), nameOf(w));
    }
    return found;
  };
  std::vector<std::pair<QString, std::string>> shared = texts(&window, false);
  for (int i = 0; i < tabs->count(); ++i) shared.emplace_back(tabs->tabText(i), "tab " + std::to_string(i));
  for (int i = 0; i < tabs->count(); ++i) {
    std::vector<std::pair<QString, std::string>> page = shared;
    for (auto const& t : texts(tabs->widget(i), true)) page.push_back(t);
    std::map<int, std::string> owner;
    for (auto const& [text, who] : page) {
      QKeySequence const key = QKeySequence::mnemonic(text);
      if (key.isEmpty()) continue;
      auto const [at, fresh] = owner.emplace(key[0].toCombined(), who);
      if (!fresh) {
        problems.push_back("page " + tabs->tabText(i).toStdString() + ": " + key.toString().toStdString() +
                           " of " + at->second + " and of " + who);
      }
    }
  }
  return problems;
}

TEST_F(UiTest, EveryControlHasAnAccessibleNameAndNoMnemonicIsUsedTwice) {
  auto window = openWindow();
  expectText(label(*window, "connectionState"), "Connected to the service");
  EXPECT_EQ(std::vector<std::string>{}, keyboardProblems(*window));

  // The walk sees both faults: a mnemonic of the tab names taken again on
  // a page, and a control with a blank name.
  auto* tabs = window->findChild<QTabWidget*>(QStringLiteral("pages"));
  ASSERT_NE(nullptr, tabs);
  auto* probe = new QPushButton(QStringLiteral("&Everything"));
  probe->setObjectName(QStringLiteral("probe"));
  probe->setAccessibleName(QStringLiteral(" "));
  tabs->widget(1)->layout()->addWidget(probe);
  EXPECT_EQ((std::vector<std::string>{"no accessible name: probe",
                                      "page S&ettings: Alt+E of tab 1 and of probe"}),
            keyboardProblems(*window));
}

// With the German translation, the window's texts are German; without a
// translation for the language, English.
TEST(UiTranslationTest, TheGermanTranslationNamesTheButtonsInGerman) {
  EXPECT_EQ(nullptr, qxui::translatorFor(QLocale(QLocale::English, QLocale::UnitedStates)));
  std::unique_ptr<QTranslator> const german = qxui::translatorFor(QLocale(QLocale::German, QLocale::Austria));
  ASSERT_NE(nullptr, german);
  ASSERT_TRUE(QApplication::installTranslator(german.get()));
  {
    qxui::UiSession::Where nowhere;
    nowhere.port = 1;  // nobody listens there; the texts are what counts
    nowhere.tokenFile = "/nonexistent/ipc.token";
    qxui::MainWindow window(nowhere);
    EXPECT_EQ("&Anhalten", window.findChild<QPushButton*>(QStringLiteral("pause"))->text().toStdString());
    EXPECT_EQ("Auftrag a&bbrechen\u2026", window.findChild<QPushButton*>(QStringLiteral("cancelJob"))->text().toStdString());
    EXPECT_EQ("QXLite-Uploads", window.windowTitle().toStdString());
    // The German mnemonics are distinct too.
    EXPECT_EQ(std::vector<std::string>{}, keyboardProblems(window));
    // A setting's meaning, shown as its tip and read out by a screen reader.
    auto const* concurrent = window.findChild<QLineEdit*>(QStringLiteral("ConcurrentUploads"));
    ASSERT_NE(nullptr, concurrent);
    EXPECT_EQ("die gr\u00f6\u00dfte Zahl gleichzeitig laufender Uploads", concurrent->toolTip().toStdString());
    EXPECT_EQ(concurrent->toolTip(), concurrent->accessibleDescription());
    qxui::UploadsSnapshot snapshot;
    qxui::UploadRow queued;
    queued.id = QStringLiteral("j1");
    queued.title = QStringLiteral("a.pdf");
    queued.state = QStringLiteral("queued");
    snapshot.rows.push_back(queued);
    qxui::UploadsModel model;
    model.setSnapshot(snapshot, 0);
    EXPECT_EQ("Eingereiht", model.index(0, qxui::UploadsModel::State).data().toString().toStdString());
    EXPECT_EQ("N\u00e4chster Versuch", model.headerData(qxui::UploadsModel::NextTry, Qt::Horizontal).toString().toStdString());
  }
  QApplication::removeTranslator(german.get());
  EXPECT_EQ("Pause", QCoreApplication::translate("qxui::MainWindow", "Pause").toStdString());
}

// The program's command line is read before it needs a display.
TEST(UiProgramTest, AWrongCommandLineIsOneLineAndStatus2) {
  qxtest::TempDir tmp;
  struct Row {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  std::vector<Row> const rows{
      {{"--port", "0"}, 2, "qxlite-ui: --port: \"0\" is not a port number from 1 to 65535\n"},
      {{"--port", "http"}, 2, "qxlite-ui: --port: \"http\" is not a port number from 1 to 65535\n"},
      {{"--bogus"}, 2, "qxlite-ui: Unknown option 'bogus'. (see qxlite-ui --help)\n"},
      {{"--version"}, 0, ""},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    Child program(QX_UI_PROGRAM, row.args, tmp / "out", tmp / "err");
    ASSERT_TRUE(program.wait());
    EXPECT_EQ(row.status, program.status());
    EXPECT_EQ(row.err, program.err());
    EXPECT_EQ(row.status == 0 ? "qxlite-ui 7.0.1\n" : "", program.out());
  }
}

}  // namespace

int main(int argc, char** argv) {
  // No display is needed, nor wanted.
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  ::signal(SIGPIPE, SIG_IGN);
  QApplication app(argc, argv);
  QLocale::setDefault(QLocale::c());
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
