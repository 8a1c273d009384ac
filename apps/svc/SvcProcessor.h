// The reference service's handler of the IPC commands.
//
// It holds the configuration in force (guarded by its mutex: visits run on
// several transport threads), the path of the configuration file, and the
// upload pipeline. SaveCfg validates a configuration and, when it is good, writes the
// file atomically and takes it into force; a refused configuration leaves
// both the file and the configuration in force untouched.
//
// What waits on the network never runs on a transport thread: the server
// calls of ServerRequest and the server checks of TestCfg go to the worker
// pool given, and their commands' responses wait for them
// (Ipc::DeferredResponse). When the pool is full they are answered at once
// with its busyText().
#ifndef QX_APPS_SVC_SVCPROCESSOR_H
#define QX_APPS_SVC_SVCPROCESSOR_H

#include "apps/svc/ConfigTestRunner.h"
#include "apps/svc/WorkerPool.h"
#include "apps/svc/notify/Notifier.h"
#include "apps/svc/upload/Pipeline.h"
#include "ipc/IpcCmdsLite.h"

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace qxsvc {

// Why the service refuses to take next over from current (a configuration
// that would weaken access to the service, or folders it may not use), or
// the empty string.
std::string checkChange(Settings const& current, Settings const& next, json::Object const& raw);

// The configuration file that the service starts with, read and checked as
// at the start (a missing file means defaults); it makes no folder. Throws
// qxapp::ConfigError naming the file and what is wrong.
Settings acceptConfigFile(boost::filesystem::path const& file);

class SvcProcessor : public Ipc::CmdProcessorLiteI {
 public:
  // workers must outlive the server that dispatches to this processor, and
  // so must notifier, which takes every configuration taken into force and
  // sends the test mail of "qxlite.notify-test" (null: no e-mail notices).
  SvcProcessor(Settings const& settings, boost::filesystem::path configFile, Pipeline& pipeline,
               WorkerPool& workers, long httpTimeoutSecs, Notifier* notifier = nullptr);

  // Reads the configuration file again (SIGHUP) with the checks of the
  // start and takes it into force as SaveCfg does, without writing it; the
  // log says what changed, key by key. A file that is missing, cannot be
  // read or fails the checks, or that moves the IPC port (which needs a
  // restart), is refused with its reason in the log, and the configuration
  // in force stays. Returns the empty string, or why it was refused.
  std::string reload();

  // The port this service listens on, once it is known, and whether its
  // --port option chose it instead of the configuration.
  void setServicePort(std::uint16_t port, bool fromCommandLine);
  // The folder where dropped items go now.
  boost::filesystem::path incomingFolder() const;

  void visit(Ipc::IsRunning& cmd) override;
  void visit(Ipc::GetCfg& cmd) override;
  void visit(Ipc::SaveCfg& cmd) override;
  void visit(Ipc::Pause& cmd) override;
  void visit(Ipc::Resume& cmd) override;
  void visit(Ipc::ServerRequest& cmd) override;
  void visit(Ipc::TestCfg& cmd) override;
  void visit(Ipc::FileDrop& cmd) override;
  void visit(Ipc::GetUploads& cmd) override;

 private:
  Settings current() const;
  // The service's own methods of ServerRequest ("qxlite.cancel",
  // "qxlite.retry"); false when method is not one of them.
  // "qxlite.notify-test", which waits on the SMTP server, runs on a worker:
  // see visit(ServerRequest&).
  bool ownMethod(std::string const& method, json::Object const& params, json::Object& answer);
  // Mails a test notice on a worker and answers with the server's reply.
  void notifyTest(Ipc::ServerRequest& cmd);
  // Checks next against base (the configuration in force, as far as a
  // change may depart from it); when it passes, makes its folders, runs keep
  // (which writes the file for SaveCfg), takes next into force and logs done
  // with what changed. Returns the empty string, or why next was refused.
  // With m_saveMutex held.
  std::string takeIntoForce(Settings const& base, Settings const& next, json::Object const& raw,
                            std::function<void()> const& keep, std::string const& done);

  boost::filesystem::path const m_configFile;
  Pipeline& m_pipeline;
  WorkerPool& m_workers;
  Notifier* const m_notifier;
  long const m_httpTimeoutSecs;
  std::int64_t const m_started;  // unix seconds

  mutable std::mutex m_mutex;
  Settings m_settings;              // guarded by m_mutex
  ServicePort m_service;  // guarded by m_mutex
  std::mutex m_saveMutex;           // one save at a time
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_SVCPROCESSOR_H
