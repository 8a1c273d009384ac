#include "apps/ui/UiSession.h"

#include "apps/ServiceFinder.h"
#include "apps/SizeText.h"
#include "apps/cli/DropCheck.h"
#include "ipc/IpcCmdsLite.h"
#include "ipc/MsgsUItoSvc.h"
#include "shared/CmdClient.h"
#include "shared/IoThreads.h"

#include <QMetaObject>

#include <boost/filesystem/operations.hpp>

namespace qxui {

// A path of a drop and the command that carries it.
struct PendingDrop {
  QString path;
  std::shared_ptr<Ipc::FileDrop> cmd;
  // Counted before sending: the transport takes the files off the command.
  int files = 0;
  std::uint64_t bytes = 0;
};

// Told on a transport thread that result lines of a configuration test
// arrived; has the session take them on its own thread.
class TestLineNotifier : public Ipc::CmdProcessorI {
 public:
  explicit TestLineNotifier(UiSession* session) : m_session(session) {}
  void processCmd(std::shared_ptr<Ipc::CmdI> cmd) override {
    // A copy of the command that shares its queue of lines.
    auto test = std::static_pointer_cast<Ipc::TestCfg>(std::move(cmd));
    UiSession* const session = m_session;
    QMetaObject::invokeMethod(
        session, [session, test] { session->takeTestLines(*test); }, Qt::QueuedConnection);
  }

 private:
  UiSession* const m_session;  // stops the transport before it goes
};

namespace {

std::vector<std::string> toStd(QStringList const& texts) {
  std::vector<std::string> result;
  for (QString const& t : texts) result.push_back(t.toStdString());
  return result;
}

QStringList toQt(std::vector<std::string> const& texts) {
  QStringList result;
  for (std::string const& t : texts) result << QString::fromStdString(t);
  return result;
}

// A copy that shares no node with doc. JSON reference counts are not
// atomic, and the transport lets go of a command on its own thread: a
// document that stays on the UI thread must not share nodes with it.
json::Object detached(json::Object const& doc) { return json::Object(json::Value(json_deep_copy(doc.get()))); }

}  // namespace

UiSession::UiSession(Where where, QObject* parent)
    : QObject(parent), m_where(std::move(where)), m_io(std::make_unique<Ipc::IoThreads>()),
      m_stateText(tr("Looking for the service…")) {
  m_timer.setInterval(kRefreshMs);
  connect(&m_timer, &QTimer::timeout, this, &UiSession::refresh);
}

UiSession::~UiSession() { stop(); }

void UiSession::start() {
  if (m_stopped) return;
  m_timer.start();
  refresh();
}

void UiSession::stop() {
  if (m_stopped) return;
  m_stopped = true;
  m_timer.stop();
  // The client fails what is still queued and waits for its completions;
  // what they posted is dropped below, with this object's events.
  dropClient();
  m_io->stop();
}

void UiSession::dropClient() {
  m_client.reset();
  ++m_generation;
}

std::uint64_t UiSession::bytesSent() const { return m_client ? m_client->bytesSent() : 0; }

void UiSession::setState(State state, QString const& text) {
  if (state == m_state && text == m_stateText) return;
  m_state = state;
  m_stateText = text;
  emit stateChanged(state, text);
}

bool UiSession::connectClient() {
  if (m_client) return true;
  try {
    Where where = m_where;
    if (where.port == 0 && where.tokenFile.empty()) {
      std::optional<qxapp::RuntimeFacts> const facts =
          qxapp::findRunningService(where.runtimeFolder, false, [](std::string const&) {});
      where.port = facts ? facts->port : IPC_DEFAULT_SVC_PORT;
      if (facts) where.tokenFile = facts->tokenFile;
    }
    if (where.port == 0) where.port = IPC_DEFAULT_SVC_PORT;
    Ipc::CmdClientOptions options;
    options.host = where.host;
    options.port = static_cast<std::uint16_t>(where.port);
    options.tokenFile = qxapp::clientTokenFile(where.tokenFile).string();
    Ipc::SecretToken token = qxapp::loadClientToken(options.tokenFile);
    m_client = std::make_unique<Ipc::CmdClient>(*m_io, options, std::move(token));
    ++m_generation;
    return true;
  } catch (qxapp::ServiceNotRunning const& e) {
    setState(State::NotRunning, QString::fromStdString(qxapp::notRunningText(e.what())));
  } catch (std::exception const& e) {
    setState(State::Failed, QString::fromStdString(e.what()));
  }
  return false;
}

void UiSession::lose(std::string const& error) {
  std::string const nobody = qxapp::nobodyAnswers(error);
  if (!nobody.empty()) {
    setState(State::NotRunning, QString::fromStdString(qxapp::notRunningText(nobody)));
  } else {
    setState(State::Failed, QString::fromStdString(error));
  }
  // The next tick reads the runtime file again: a restarted service may
  // serve on another port, with another token.
  dropClient();
}

void UiSession::send(std::shared_ptr<Ipc::CmdI> const& cmd, Done done) {
  if (m_stopped || !connectClient()) {
    done(m_stopped ? std::string("Ipc the client is closing") : m_stateText.toStdString());
    return;
  }
  // done runs, and what it holds is let go of, on the UI thread only. The
  // posted functor itself may die on the transport thread (when the UI
  // thread ran it before invokeMethod returned there), so done travels in a
  // box that the UI thread empties.
  auto box = std::make_shared<Done>(std::move(done));
  m_client->execute(cmd, [this, box](std::shared_ptr<Ipc::CmdI> const&, std::string const& error) {
    // A transport thread: only hand over to the UI thread, by value.
    QMetaObject::invokeMethod(
        this,
        [this, box, error] {
          Done run;
          run.swap(*box);
          if (!m_stopped) run(error);
        },
        Qt::QueuedConnection);
  });
}

void UiSession::refresh() {
  if (m_refreshing || m_stopped) return;
  m_refreshing = true;
  auto cmd = std::make_shared<Ipc::GetUploads>(nullptr);
  unsigned const generation = m_client ? m_generation : m_generation + 1;
  send(cmd, [this, cmd, generation](std::string const& error) {
    m_refreshing = false;
    if (generation != m_generation) return;  // asked over a connection since let go
    if (!error.empty()) {
      if (m_client) lose(error);
      return;
    }
    setState(State::Connected, tr("Connected to the service"));
    emit uploadsChanged(snapshotOf(cmd->payload));
  });
}

template <class Cmd>
void UiSession::sendAndTell(std::shared_ptr<Cmd> const& cmd) {
  send(cmd, [this, cmd](std::string const& error) {
    if (!error.empty()) {
      emit commandAnswered(QString::fromStdString(error), false);
      return;
    }
    emit commandAnswered(cmd->ok || !cmd->msg.empty() ? QString::fromStdString(cmd->msg) : UiSession::tr("the service refused it"),
                         cmd->ok);
    refresh();
  });
}

void UiSession::pause(bool discardWaiting) { sendAndTell(std::make_shared<Ipc::Pause>(nullptr, discardWaiting)); }

void UiSession::resume() { sendAndTell(std::make_shared<Ipc::Resume>(nullptr)); }

void UiSession::jobCommand(qxapp::JobAction action, QString const& jobId) {
  auto cmd = qxapp::jobRequest(action, jobId.toStdString());
  send(cmd, [this, cmd, action, jobId](std::string const& error) {
    std::string const refusal = error.empty() ? qxapp::jobRefusal(cmd->payload) : error;
    emit jobAnswered(action, jobId, refusal.empty(), QString::fromStdString(refusal));
    refresh();
  });
}

void UiSession::fetchConfig() {
  auto cmd = std::make_shared<Ipc::GetCfg>(nullptr);
  send(cmd, [this, cmd](std::string const& error) {
    if (!error.empty()) {
      emit configFailed(QString::fromStdString(error));
      return;
    }
    emit configFetched(detached(cmd->payload));
  });
}

void UiSession::saveConfig(json::Object const& config) {
  auto cmd = std::make_shared<Ipc::SaveCfg>(nullptr);
  cmd->payload = detached(config);
  // Kept here, not in the completion: JSON may be let go of on the UI
  // thread only.
  m_configSaving = detached(config);
  send(cmd, [this, cmd](std::string const& error) {
    json::Object const saved = m_configSaving;
    if (!error.empty()) {
      emit configSaved(false, QString::fromStdString(error), saved);
      return;
    }
    QString const message = cmd->msg.empty() && !cmd->ok ? tr("the service did not save the configuration")
                                                         : QString::fromStdString(cmd->msg);
    emit configSaved(cmd->ok, message, saved);
  });
}

void UiSession::testConfig() {
  auto get = std::make_shared<Ipc::GetCfg>(nullptr);
  send(get, [this, get](std::string const& error) {
    if (!error.empty()) {
      emit testFinished(0, QString::fromStdString(error));
      return;
    }
    m_testErrors = 0;
    auto test = std::make_shared<Ipc::TestCfg>(std::make_shared<TestLineNotifier>(this));
    test->payload = detached(get->payload);
    send(test, [this, test](std::string const& error) {
      takeTestLines(*test);  // what came with the end
      emit testFinished(m_testErrors, QString::fromStdString(error));
    });
  });
}

void UiSession::takeTestLines(Ipc::TestCfg& test) {
  if (m_stopped) return;
  std::string line;
  while (test.getRespLine(line)) {
    if (line.compare(0, Ipc::TST_LINE_START_ERR.size(), Ipc::TST_LINE_START_ERR) == 0) ++m_testErrors;
    emit testLine(QString::fromStdString(line));
  }
}

void UiSession::drop(QStringList const& paths) {
  std::vector<std::string> const all = toStd(paths);
  // Mistakes on this machine are said before the service is asked.
  QStringList problems = toQt(qxcli::localDropProblems(all));
  auto nothingDropped = [this](QStringList lines) {
    lines << tr("nothing was dropped: %n problem(s)", nullptr, static_cast<int>(lines.size()));
    endDrop(lines, false);
  };
  if (!problems.isEmpty()) {
    nothingDropped(problems);
    return;
  }
  auto cfg = std::make_shared<Ipc::GetCfg>(nullptr);
  m_dropping = true;
  unsigned const number = ++m_dropNumber;
  send(cfg, [this, cfg, paths, all, nothingDropped, number](std::string const& error) {
    if (number != m_dropNumber) return;  // cancelled
    if (!error.empty()) {
      endDrop({QString::fromStdString(error)}, false);
      return;
    }
    // The service's own file-type rules, in its own words.
    QStringList problems = toQt(qxcli::typeDropProblems(all, *cfg->pSetts()));
    if (!problems.isEmpty()) {
      nothingDropped(problems);
      return;
    }
    auto drops = std::make_shared<std::vector<PendingDrop>>();
    for (QString const& p : paths) {
      auto cmd = std::make_shared<Ipc::FileDrop>(nullptr, p.toStdString());
      try {
        if (!cmd->prepareReq()) problems << tr("\"%1\" holds nothing to drop (only empty files)").arg(p);
      } catch (boost::filesystem::filesystem_error const& e) {
        problems << QStringLiteral("\"%1\": %2").arg(p, QString::fromStdString(e.code().message()));
      }
      std::uint64_t bytes = 0;
      for (auto const& f : cmd->files) bytes += f.size;
      drops->push_back(PendingDrop{p, cmd, static_cast<int>(cmd->files.size()), bytes});
    }
    if (!problems.isEmpty()) {
      nothingDropped(problems);
      return;
    }
    std::uint64_t total = 0;
    for (PendingDrop const& d : *drops) total += d.bytes;
    emit dropStarted(static_cast<qint64>(total));
    sendDrops(drops, 0, QStringList());
  });
}

void UiSession::endDrop(QStringList const& lines, bool ok) {
  m_dropping = false;
  emit dropAnswered(lines, ok);
}

void UiSession::cancelDrop() {
  if (!m_dropping || m_stopped) return;
  ++m_dropNumber;
  m_dropping = false;
  // The service removes what it received when the connection goes; the
  // client's end waits for the completions it still owes, and those of
  // this connection are stale from here on.
  dropClient();
  emit dropAnswered({tr("Drop cancelled")}, false);
}

void UiSession::sendDrops(std::shared_ptr<std::vector<PendingDrop>> const& drops, std::size_t next,
                          QStringList lines) {
  if (next == drops->size()) {
    endDrop(lines, true);
    refresh();
    return;
  }
  PendingDrop const current = (*drops)[next];
  unsigned const number = m_dropNumber;
  send(current.cmd, [this, drops, next, lines, current, number](std::string const& error) mutable {
    if (number != m_dropNumber) return;  // cancelled
    Ipc::FileDrop const& drop = *current.cmd;
    QString failure = QString::fromStdString(error);
    if (failure.isEmpty() && !drop.ok) {
      failure = drop.msg.empty() ? tr("the drop failed") : QString::fromStdString(drop.msg);
    }
    if (!failure.isEmpty()) {
      QStringList notSent;
      for (std::size_t j = next + 1; j < drops->size(); ++j) notSent << QStringLiteral("\"%1\"").arg((*drops)[j].path);
      QString line = QStringLiteral("\"%1\": %2").arg(current.path, failure);
      if (!notSent.isEmpty()) line += tr("; not sent: %1").arg(notSent.join(QStringLiteral(", ")));
      lines << line;
      endDrop(lines, false);
      refresh();
      return;
    }
    lines << tr("dropped \"%1\": %n file(s), %2", nullptr, current.files)
                 .arg(current.path, QString::fromStdString(qxapp::sizeText(static_cast<double>(current.bytes))));
    sendDrops(drops, next + 1, lines);
  });
}

}  // namespace qxui
