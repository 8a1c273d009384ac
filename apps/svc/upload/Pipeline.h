// The service's upload pipeline: from the incoming folder to the server,
// exactly once, whatever crashes.
//
//   incoming/<name>  --claim-->  outgoing/<job id>/<name>  --upload-->
//       backup/<job id>/<name>   (backup on; swept after BackupExpireSecs)
//       nothing                  (backup off: removed once the server holds the bytes)
//       rejected/<id>/<name> + reason.json   (refused by the rules or the server)
//
// Each accepted entry of the incoming folder becomes one job: claimed by an
// atomic rename into a job folder, packed into a zip archive when it holds
// MinFilesToZip files or more, hashed once, written to the journal, and
// uploaded item by item by the engine (UploadEngine.h). The folders are the
// truth and the journal their index (Journal.h): at start the two are
// reconciled, a job folder without a row is adopted, a row without a folder
// is dropped, and nothing a person dropped is ever deleted because of a
// mismatch.
//
// Failures: transient ones (no answer, time-outs, 408, 429, 5xx) are tried
// again after 30 s, doubling up to 1 h with jitter, on the alternative server
// address every other time; a job still failing after 5 days is given up
// (state failed, moved to the rejected folder with its last error). Refused
// credentials and a server that cannot be reached hold the whole queue, with
// the reason in uploads(), until a probe gets through. Another refusal by
// the server rejects the job with the server's message.
//
// Threads: one loop thread of its own scans, claims, hashes, packs and
// settles results; the engine's thread moves the bytes. Every public member
// may be called from any thread (the IPC transport's) and returns without
// waiting on the network or on a hash.
#ifndef QX_APPS_SVC_UPLOAD_PIPELINE_H
#define QX_APPS_SVC_UPLOAD_PIPELINE_H

#include "apps/svc/upload/UploadEngine.h"
#include "json/Json.h"
#include "settings/Settings.h"

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qxsvc {

class Journal;

// What the pipeline tells of its jobs and its queue (for the e-mail notices).
struct PipelineEvent {
  enum class Kind {
    rejected,  // a job, or an entry of the incoming folder, went to the rejected folder
    held,      // the queue is held (reason: why); once, until the server answers again
    resumed,   // the server answers again after a hold was told
    done,      // a job is on the server
  };
  Kind kind = Kind::rejected;
  std::string title;               // what a person dropped (rejected, done)
  std::vector<std::string> files;  // its files, as the job holds them
  std::vector<std::string> keys;   // done: the target key of each file
  std::string reason;              // rejected, held: why
  unsigned attempts = 0;           // rejected: how often the server was tried
  std::string serverMessage;       // rejected: the server's last answer, when it gave one
};

struct PipelineOptions {
  boost::filesystem::path stateFolder;       // the journal lives here
  boost::filesystem::path credentialsFile;   // empty: defaultCredentialsPath()
  std::chrono::milliseconds rescanInterval{60000};
  std::chrono::milliseconds settleTime{2000};   // for entries copied in by other programs
  std::chrono::milliseconds retryFirst{30000};  // first wait after a transient failure
  std::chrono::milliseconds retryMost{3600000};
  std::chrono::seconds giveUpAfter{5 * 24 * 3600};
  std::chrono::milliseconds holdProbe{30000};   // a held queue tries again after this
  std::chrono::milliseconds sweepInterval{3600000};
  EngineOptions engine;  // maxTransfers and the trace flags come from the settings
  // Called on the loop's own thread, with no lock of the pipeline's held,
  // after every round of the loop and, once due, between the blocks of a
  // long hash, with what the pipeline does (activity()); returns when it
  // wants to be called again at the latest. A loop that is stuck stops
  // calling it, which is what a watchdog needs to see. Empty: not called.
  std::function<std::chrono::steady_clock::time_point(std::string const& activity)> heartbeat;
  // Called on the loop's thread (and on a thread that pauses with discard)
  // with each event; must return at once, and must not call the pipeline.
  // Empty: not called.
  std::function<void(PipelineEvent const& event)> onEvent;
};

class Pipeline {
 public:
  // Does nothing yet that others see: start() does.
  Pipeline(Settings const& settings, PipelineOptions options);
  // Stops the loop and the transfers; jobs in flight stay queued for the
  // next start.
  ~Pipeline();
  Pipeline(Pipeline const&) = delete;
  Pipeline& operator=(Pipeline const&) = delete;

  // Opens the journal and the folders, readies the engine (logging why the
  // queue is held, when it is) and starts the loop, which reconciles the
  // journal with the folders. Once; before it the list is empty and nothing
  // moves.
  void start();
  // Stops the loop and the transfers (the destructor does too); jobs in
  // flight stay queued for the next start. Nothing moves afterwards.
  void stop();

  // Takes settings into force on the loop. Transfers in flight go on
  // unless the upload server, its credentials' file, the proxy or the
  // number of transfers at once change, or a spool folder moves: then they
  // stop and start again (an object already there counts as uploaded).
  void setSettings(Settings const& settings);

  // Paused: nothing new is claimed or started; transfers in flight finish
  // their current request. With discard, the jobs waiting to start and the
  // items waiting in the incoming folder go to the rejected folder with
  // reason "discarded"; returns what moved, as people know it ("one.pdf
  // (job <id>)" for a job, the entry's name for an item not taken in yet).
  // Throws std::runtime_error naming the folder when one cannot be used.
  std::vector<std::string> pause(bool discard);
  void resume();
  bool paused() const;
  // What the pipeline does, in a few words for the service manager's
  // status line: "paused since 2026-11-24 03:10:07 UTC", "holding: <why>",
  // "uploading 3, 12 queued", "uploading 1", "2 queued", "idle"; "starting"
  // before the loop has gone through the journal.
  std::string activity() const;
  // Looks at the incoming folder now (a drop just arrived).
  void scanNow();
  // The file that the upload account is read from.
  boost::filesystem::path credentialsFile() const;

  // The uploads list of GetUploads:
  // {"uploads":[{"id","name","state","size","sent","attempts","nextTry",
  //              "error","key","created","updated"},...],
  //  "totals":{"queued":n,"uploading":n,"done":n,"failed":n,"rejected":n,
  //            "cancelled":n},
  //  "throughput":bytes per second, "paused":true and "pausedSince":unix
  //  seconds (when paused),
  //  "waiting":[{"name","size"},...] (when paused: what waits in the
  //  incoming folder, by name; a folder's size is that of its files),
  //  "held":"why" (when the queue is held)}
  // Jobs oldest first; "nextTry" only while waiting to try again; "error"
  // only when there is one; "key" the target key (of the archive or first
  // item).
  json::Object uploads() const;

  // A person's commands on one job: cancel stops a job that is not done
  // and moves it to the rejected folder with reason "cancelled"; retry
  // starts a job that waits to try again at once (and probes a held queue).
  // A job given up is in the rejected folder: dropping its files again makes
  // a new job. Return the empty string, or why not ("there is no job
  // \"x\"", "job \"x\" is done").
  std::string cancel(std::string const& jobId);
  std::string retry(std::string const& jobId);

  // The journal, once start() opened one (null before, or when none could
  // be opened): the e-mail notices are kept in it too.
  std::shared_ptr<Journal> journal() const;

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_PIPELINE_H
