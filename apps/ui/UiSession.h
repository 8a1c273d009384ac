// qxui::UiSession: the desktop program's connection to the service, and the
// requests that travel on it.
//
// The session finds the service as the command-line client does (the
// runtime file, unless a port or token file is given), asks for the list of
// uploads about once a second, and when an exchange fails it lets the
// connection go and looks for the service again at the next tick, so that a
// restarted service (on another port, with another token) is found by
// itself. Its state and every answer are given as signals.
//
// Threads: a session lives on the UI thread and all its calls and signals
// are there. The transport's completions run on its own threads and only
// post a functor, holding copies of what it needs, to this object's thread
// (QMetaObject::invokeMethod with this as the context); they never touch a
// widget. stop() (also run by the destructor) stops the transport and waits
// for any completion still running, so the owner calls it before the widgets
// that listen are destroyed; after it no signal comes.
#ifndef QX_APPS_UI_UISESSION_H
#define QX_APPS_UI_UISESSION_H

#include "apps/JobCommand.h"
#include "apps/ui/UploadsSnapshot.h"
#include "json/Json.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Ipc {
class CmdClient;
class CmdI;
class TestCfg;
class IoThreads;
}  // namespace Ipc

namespace qxui {

struct PendingDrop;
class TestLineNotifier;

class UiSession : public QObject {
  Q_OBJECT

 public:
  enum class State {
    Looking,     // not asked yet
    Connected,   // the last exchange went through
    NotRunning,  // nobody there: no runtime file, token file or listener
    Failed,      // not to be asked: the token's group, its proof, a broken exchange; the text says which
  };

  // Where the service is; port 0 with no token file: its runtime file says.
  struct Where {
    std::string host = "127.0.0.1";
    int port = 0;
    std::string tokenFile;
    std::string runtimeFolder;  // empty: the folders a client looks in
  };

  static constexpr int kRefreshMs = 1000;

  explicit UiSession(Where where, QObject* parent = nullptr);
  ~UiSession() override;
  UiSession(UiSession const&) = delete;
  UiSession& operator=(UiSession const&) = delete;

  // Asks at once, then every kRefreshMs.
  void start();
  // Stops the transport; idempotent. Commands not answered yet fail quietly.
  void stop();

  State state() const { return m_state; }
  // What the connection has written so far, for a drop's progress.
  std::uint64_t bytesSent() const;
  QString stateText() const { return m_stateText; }

  void pause(bool discardWaiting);
  void resume();
  // Has the service cancel or retry job jobId (its own methods); the answer
  // comes as jobAnswered.
  void jobCommand(qxapp::JobAction action, QString const& jobId);
  // Hands paths (files or folders) to the service one after the other, after
  // the checks of the command-line client; the outcome comes as dropAnswered.
  void drop(QStringList const& paths);
  // Stops the drop on its way by letting the connection go (the service
  // removes what it received of it); dropAnswered says so, and the next
  // tick connects again. Nothing when no drop is on its way.
  void cancelDrop();
  // Asks for the configuration in force; the answer comes as configFetched.
  void fetchConfig();
  // Has the service save config (already checked); the answer comes as
  // configSaved.
  void saveConfig(json::Object const& config);
  // Has the service test the configuration in force; each result line comes
  // as testLine as it arrives, then testFinished.
  void testConfig();

 signals:
  void stateChanged(qxui::UiSession::State state, QString const& text);
  void uploadsChanged(qxui::UploadsSnapshot const& snapshot);
  // The service's answer to pause or resume, or why there was none.
  void commandAnswered(QString const& text, bool ok);
  // The service's answer to a cancel or retry: ok, or its reason, as it
  // said it.
  void jobAnswered(qxapp::JobAction action, QString const& jobId, bool ok, QString const& refusal);
  // The drop's files are checked and about to be sent.
  void dropStarted(qint64 totalBytes);
  // One line a path, or the problems that stopped the drop.
  void dropAnswered(QStringList const& lines, bool ok);
  // The documents of these share no JSON node with any command, so they
  // are the UI thread's alone.
  void configFetched(json::Object const& config);
  void configSaved(bool ok, QString const& message, json::Object const& saved);
  void configFailed(QString const& why);
  void testLine(QString const& line);
  // errors: the lines that report one; failure: why the test did not end.
  void testFinished(int errors, QString const& failure);

 private:
  friend class TestLineNotifier;
  using Done = std::function<void(std::string const& error)>;

  void refresh();
  // Runs cmd; done(error) then runs on this object's thread.
  void send(std::shared_ptr<Ipc::CmdI> const& cmd, Done done);
  // Sends cmd (Pause or Resume) and tells its answer (commandAnswered).
  template <class Cmd>
  void sendAndTell(std::shared_ptr<Cmd> const& cmd);
  // A client for the service as it is found now; false (the state saying
  // why) when there is none to talk to.
  bool connectClient();
  // An exchange failed: the state says why, and the next tick looks again.
  void lose(std::string const& error);
  // Lets the client go: it fails what is still queued and waits for its
  // completions, and answers of it are stale from here on.
  void dropClient();
  void setState(State state, QString const& text);
  // Takes the result lines queued so far, on the UI thread.
  void takeTestLines(Ipc::TestCfg& test);
  void sendDrops(std::shared_ptr<std::vector<PendingDrop>> const& drops, std::size_t next, QStringList lines);
  void endDrop(QStringList const& lines, bool ok);

  Where const m_where;
  std::unique_ptr<Ipc::IoThreads> m_io;
  std::unique_ptr<Ipc::CmdClient> m_client;
  unsigned m_generation = 0;  // of m_client: answers of an older one are stale
  bool m_refreshing = false;
  // The drop on its way: answers of a drop since cancelled are stale.
  unsigned m_dropNumber = 0;
  bool m_dropping = false;
  int m_testErrors = 0;  // of the test that runs
  json::Object m_configSaving;  // the configuration of the last SaveCfg sent
  bool m_stopped = false;
  State m_state = State::Looking;
  QString m_stateText;
  QTimer m_timer;
};

}  // namespace qxui

#endif  // QX_APPS_UI_UISESSION_H
