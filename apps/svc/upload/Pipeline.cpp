#include "apps/svc/upload/Pipeline.h"

#include "apps/ConfigFile.h"
#include "apps/svc/FolderFd.h"
#include "apps/svc/SpoolPolicy.h"
#include "apps/svc/upload/FolderWatch.h"
#include "apps/svc/upload/Intake.h"
#include "apps/svc/upload/Journal.h"
#include "apps/svc/upload/ObjectKey.h"
#include "apps/svc/upload/Packer.h"
#include "apps/svc/upload/Sha256.h"
#include "apps/svc/upload/Tree.h"
#include "shared/Log.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

using SteadyClock = std::chrono::steady_clock;

std::int64_t unixNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool isFinal(JobState state) {
  return state == JobState::done || state == JobState::failed || state == JobState::rejected ||
         state == JobState::cancelled;
}

// What the list shows of a folder drop: its files, since the folder's name
// is often only the one that the drop's transfer made up ("tmp", "tmp_1").
std::string folderLabel(std::string const& folder, std::vector<std::string> const& files) {
  constexpr std::size_t kNamesShown = 3;
  std::string label = std::to_string(files.size()) + (files.size() == 1 ? " file: " : " files: ");
  for (std::size_t i = 0; i < files.size() && i < kNamesShown; ++i) {
    if (i > 0) label += ", ";
    label += files[i].substr(folder.size() + 1);
  }
  if (files.size() > kNamesShown) label += ", \u2026";
  return label;
}

// A job as people know it.
std::string shownName(JobRow const& row) { return row.label.empty() ? row.title : row.label; }

void logInfo(std::string const& text) { Log::inst().writeLine("INFO:", "qxlite-svc " + text); }
void logWarning(std::string const& text) { Log::inst().writeLine("WARNING:", "qxlite-svc " + text); }
void logError(std::string const& text) { Log::inst().writeLine("ERR:", "qxlite-svc " + text); }

// Rows of final jobs stay listed this long after their last change.
constexpr std::int64_t kHistorySecs = 7 * 24 * 3600;

}  // namespace

// A job as the loop keeps it: its journal row and the transfers of its
// items in flight.
struct LiveJob {
  JobRow row;
  // Item name -> the hashes of its multipart upload's parts, read with its
  // own hash. Not in the journal: after a restart the engine reads the
  // parts once more instead.
  std::map<std::string, std::vector<std::string>> partHashes;
  std::map<std::string, std::uint64_t> tickets;  // item name -> ticket in flight
  std::optional<UploadResult> setback;           // the first failure of this run
  bool cancelRequested = false;
};

struct TicketRef {
  std::string jobId;
  std::string item;
};

// A claimed job packed and hashed, not yet in the journal.
struct PreparedJob {
  JobRow row;
  std::map<std::string, std::vector<std::string>> partHashes;
};

// A job about to start: its row as it will be recorded ("uploading") and a
// request for each item not uploaded yet.
struct StartingJob {
  JobRow row;
  std::map<std::string, std::vector<std::string>> partHashes;
  std::vector<UploadRequest> requests;
};

class Pipeline::Impl {
 public:
  Impl(Settings const& settings, PipelineOptions options);
  ~Impl();
  void start();
  void stop();

  void setSettings(Settings const& settings);
  std::vector<std::string> pause(bool discard);
  void resume();
  bool paused() const;
  fs::path credentialsFile() const {
    return m_options.credentialsFile.empty() ? defaultCredentialsPath() : m_options.credentialsFile;
  }
  std::string activity() const;
  void scanNow();
  json::Object uploads() const;
  json::Array waitingItems() const;  // in the incoming folder, for the list
  // A copy of the settings in force that shares no JSON node with them.
  Settings currentSettings() const;
  std::string cancel(std::string const& jobId);
  std::string retry(std::string const& jobId);
  std::shared_ptr<Journal> journal() const {
    std::lock_guard<std::mutex> moves(m_moveMutex);
    return m_journal;
  }

 private:
  // Folders in use, opened without following links; replaced as a whole
  // when the configuration changes.
  struct Folders {
    FolderFd incoming, outgoing, backup, rejected;
    fs::path incomingPath, outgoingPath, backupPath, rejectedPath;
  };

  void run();
  void wake();
  void startUp();
  void applySettings(Settings const& settings);
  // Opens the folders of settings and puts them in force; the folders that
  // were in force go to *previous.
  std::string openFolders(Settings const& settings, Folders* previous);
  // Unfinished jobs follow the outgoing folder when it moves; items left in
  // a former incoming folder are named in the log.
  void carryOver(Folders const& previous, Settings const& settings);
  void reconcile();
  void scanIncoming();
  void scanOutgoingStrays();
  // Packs and hashes the claimed job jobId and enters it into the journal.
  void prepareJob(std::string const& jobId, std::int64_t created);
  // The same in two steps, so that a burst of jobs is entered in one
  // transaction: packAndHash() returns nothing after a log line saying why.
  std::optional<PreparedJob> packAndHash(std::string const& jobId, std::int64_t created);
  void enter(std::vector<PreparedJob> jobs);
  void schedule();
  // The job's requests, or nothing when it cannot start (gone, or given up).
  std::optional<StartingJob> readyToStart(std::string const& jobId);
  static std::string itemOfKey(JobRow const& row, std::string const& key);
  // Settles results in one go: the jobs they finish are recorded in one
  // transaction and their folders moved with one sync.
  void settle(std::deque<UploadResult> const& results);
  // Records one result; returns the job's id when none of its transfers
  // runs any more (it is to be concluded), or the empty string.
  std::string settleOne(UploadResult const& result);
  // Settles the results the engine reported so far.
  void settleResults();
  // Decides the next state of a job none of whose transfers runs; a job
  // whose items are all uploaded goes to *done instead, for finishAll().
  void conclude(std::string const& jobId, std::vector<JobRow>* done);
  void finishAll(std::vector<JobRow> rows);
  void finishJob(std::string const& jobId);
  void giveUp(std::string const& jobId, JobState state, std::string const& rule, std::string const& message);
  // The same, with m_moveMutex held.
  void giveUpLocked(std::string const& jobId, JobState state, std::string const& rule, std::string const& message);
  std::vector<std::string> discardWaiting();
  void sweepBackups();
  void cleanUpOrphans();
  void setHeld(std::string const& why);
  // How many transfers may be handed to the engine at once; m_mutex held.
  std::size_t startLimitLocked() const;
  // Hands event to the options' onEvent, if any; logs what it throws.
  void tell(PipelineEvent const& event) const;
  std::chrono::milliseconds backoff(unsigned attempts);
  std::shared_ptr<UploadEngine> engine() const;
  void rebuildEngine(Settings const& settings);
  bool hashItem(int jobDir, ItemRow& item, std::vector<std::string>& partHashes);
  void hashFile(int fd, ItemRow& item, std::vector<std::string>& partHashes);
  // Calls the heartbeat when it asked to be called again (at once the first
  // time): at every round of the loop and between the blocks of a long hash.
  void beat();

  PipelineOptions const m_options;
  // Set by start() under m_moveMutex, constant afterwards; null when none
  // could be opened: nothing is uploaded then.
  std::shared_ptr<Journal> m_journal;

  // Held around every move of a job's folder and every change of the
  // folders in use, so that a pause from an IPC thread and the loop never
  // move the same job.
  mutable std::mutex m_moveMutex;
  Folders m_folders;  // guarded by m_moveMutex; read by the loop without it (only the loop replaces it)

  mutable std::mutex m_mutex;
  std::condition_variable m_wakeCv;  // on m_mutex, while no folder watch exists
  Settings m_settings;               // guarded by m_mutex
  bool m_settingsChanged = false;    // guarded by m_mutex
  bool m_paused = false;             // guarded by m_mutex
  std::int64_t m_pausedSince = 0;    // guarded by m_mutex; unix seconds
  bool m_stop = false;               // guarded by m_mutex
  bool m_scanRequested = true;       // guarded by m_mutex
  bool m_woken = false;              // guarded by m_mutex
  std::string m_held;                // guarded by m_mutex: why the queue is held
  bool m_holdTold = false;           // guarded by m_mutex: a hold was told and no answer since
  std::string m_folderProblem;       // guarded by m_mutex: why nothing moves
  bool m_looping = false;            // guarded by m_mutex: the start's reconciling is over
  std::map<std::string, LiveJob> m_jobs;          // guarded by m_mutex
  // The jobs that are not final, by id, so that a round of the loop need
  // not walk the history of the days before: a job enters when it is listed
  // queued and leaves when it is listed final (finishAll, giveUpLocked) or
  // gone. The pointers are to nodes of m_jobs, which stay where they are
  // until erased, and a job leaves m_jobs only after it left here.
  std::map<std::string, LiveJob*> m_open;         // guarded by m_mutex
  std::map<std::uint64_t, TicketRef> m_tickets;   // guarded by m_mutex
  std::deque<UploadResult> m_results;             // guarded by m_mutex
  std::set<std::string> m_cancels;                // guarded by m_mutex
  std::shared_ptr<UploadEngine> m_engine;         // guarded by m_mutex
  std::shared_ptr<FolderWatch> m_watch;           // guarded by m_mutex
  SteadyClock::time_point m_nextProbe{};          // guarded by m_mutex: a held queue's next try

  // What the engine was made with: another server address, proxy or trace
  // flag needs another engine.
  struct EngineSettings {
    Inet::InetCfg inet{std::string()};
    bool traceRequests = false;
    bool curlDebug = false;
    bool operator==(EngineSettings const& o) const {
      return inet == o.inet && traceRequests == o.traceRequests && curlDebug == o.curlDebug;
    }
  };
  static EngineSettings engineSettingsOf(Settings const& settings) {
    return EngineSettings{settings.InetConfig, settings.EnableLogging, settings.EnableCurlDbgLog};
  }

  // The loop's own (m_targets also read by m_orphans, which the loop joins
  // before it changes them).
  std::vector<Target> m_targets;  // main address, then the alternative one
  EngineSettings m_engineSettings;  // of the engine in m_engine, when there is one
  SettleTracker m_settle;
  bool m_unsettled = false;  // the last scan saw entries still changing
  std::uint64_t m_nextTicket = 1;
  SteadyClock::time_point m_nextRescan{};
  SteadyClock::time_point m_nextSweep{};
  std::mt19937 m_jitter{std::random_device{}()};
  std::atomic<bool> m_cleanedUp{false};  // the start's clean-up of multipart uploads ran
  SteadyClock::time_point m_nextBeat{};   // when the heartbeat wants to be called next
  std::thread m_orphans;

  std::thread m_thread;  // the loop, from start()
};

namespace {

// The journal in folder, or null after a log line saying why none can be
// used.
std::unique_ptr<Journal> openJournal(fs::path const& folder) {
  try {
    std::string note;
    std::unique_ptr<Journal> journal = Journal::open(folder / "journal.db", note);
    // A first start makes its journal; anything else in the note is news.
    if (note.rfind("made a new journal", 0) == 0 || note.rfind("brought the journal", 0) == 0) logInfo(note);
    else if (!note.empty()) logWarning(note);
    return journal;
  } catch (std::exception const& e) {
    logError(std::string("uploads nothing: the journal cannot be used: ") + e.what());
    return nullptr;
  }
}

}  // namespace

Pipeline::Impl::Impl(Settings const& settings, PipelineOptions options)
    : m_options(std::move(options)), m_settings(qxapp::independentCopy(settings)), m_settle(m_options.settleTime) {}

void Pipeline::Impl::start() {
  std::unique_ptr<Journal> journal = openJournal(m_options.stateFolder);
  {
    std::lock_guard<std::mutex> moves(m_moveMutex);
    m_journal = std::shared_ptr<Journal>(std::move(journal));
  }
  // Folders and the engine are ready (or the reason why not logged) before
  // the service serves; the journal's reconciling, which may hash, runs on
  // the loop.
  Settings const settings = currentSettings();
  if (m_journal) {
    Folders none;
    std::string const why = openFolders(settings, &none);
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_folderProblem = why;
    }
    if (!why.empty()) {
      logError("moves nothing: " + why);
    } else {
      rebuildEngine(settings);
    }
  } else {
    setHeld("the journal cannot be used (see the log)");
  }
  m_thread = std::thread([this] { run(); });
}

Pipeline::Impl::~Impl() { stop(); }

void Pipeline::Impl::stop() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
  }
  wake();
  if (m_thread.joinable()) m_thread.join();
  if (m_orphans.joinable()) m_orphans.join();
  std::shared_ptr<UploadEngine> engine;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    engine = std::move(m_engine);
    m_watch.reset();
  }
  engine.reset();  // stops the transfers; their jobs stay queued in the journal
}

void Pipeline::Impl::wake() {
  std::shared_ptr<FolderWatch> watch;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_woken = true;
    watch = m_watch;
  }
  m_wakeCv.notify_all();
  if (watch) watch->wake();
}

Settings Pipeline::Impl::currentSettings() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return qxapp::independentCopy(m_settings);
}

std::shared_ptr<UploadEngine> Pipeline::Impl::engine() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_engine;
}

void Pipeline::Impl::setSettings(Settings const& settings) {
  {
    Settings copy = qxapp::independentCopy(settings);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_settings = std::move(copy);
    m_settingsChanged = true;
  }
  wake();
}

bool Pipeline::Impl::paused() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_paused;
}

void Pipeline::Impl::resume() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_paused = false;
    m_scanRequested = true;
  }
  if (std::shared_ptr<UploadEngine> e = engine()) e->setPaused(false);
  wake();
}

std::vector<std::string> Pipeline::Impl::pause(bool discard) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_paused) m_pausedSince = unixNow();
    m_paused = true;
  }
  if (std::shared_ptr<UploadEngine> e = engine()) e->setPaused(true);
  wake();  // the loop's heartbeat tells the change
  return discard ? discardWaiting() : std::vector<std::string>();
}

void Pipeline::Impl::scanNow() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scanRequested = true;
  }
  wake();
}

std::string Pipeline::Impl::cancel(std::string const& jobId) {
  std::vector<std::uint64_t> tickets;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const it = m_jobs.find(jobId);
    if (it == m_jobs.end()) return "there is no job \"" + jobId + "\"";
    if (isFinal(it->second.row.state))
      return "job \"" + jobId + "\" is " + jobStateName(it->second.row.state) + " already";
    it->second.cancelRequested = true;
    for (auto const& t : it->second.tickets) tickets.push_back(t.second);
    m_cancels.insert(jobId);
  }
  if (std::shared_ptr<UploadEngine> e = engine()) {
    for (std::uint64_t t : tickets) e->cancel(t);
  }
  wake();
  return std::string();
}

std::string Pipeline::Impl::retry(std::string const& jobId) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const it = m_jobs.find(jobId);
    if (it == m_jobs.end()) return "there is no job \"" + jobId + "\"";
    JobRow& row = it->second.row;
    if (row.state == JobState::uploading) return "job \"" + jobId + "\" is uploading already";
    if (isFinal(row.state)) {
      return row.state == JobState::done
                 ? "job \"" + jobId + "\" is done already"
                 : "job \"" + jobId + "\" was " + jobStateName(row.state) +
                       ": its files are in the rejected folder; drop them again to upload them";
    }
    row.nextTry = 0;
    m_nextProbe = SteadyClock::time_point{};
  }
  wake();
  return std::string();
}

// ---------------------------------------------------------------------------
// The loop.

void Pipeline::Impl::beat() {
  if (!m_options.heartbeat || SteadyClock::now() < m_nextBeat) return;
  m_nextBeat = m_options.heartbeat(activity());
}

void Pipeline::Impl::run() {
  beat();
  startUp();
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_looping = true;
  }
  for (;;) {
    std::optional<Settings> settings;  // the new ones, when they changed
    bool scan = false;
    bool changed = false;
    std::deque<UploadResult> results;
    std::set<std::string> cancels;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_stop) break;
      changed = m_settingsChanged;
      m_settingsChanged = false;
      if (changed) settings.emplace(qxapp::independentCopy(m_settings));
      scan = m_scanRequested && !m_paused;
      m_scanRequested = false;
      m_woken = false;
      results.swap(m_results);
      cancels.swap(m_cancels);
    }
    if (settings) applySettings(*settings);
    settle(results);
    for (std::string const& id : cancels) {
      bool idle = false;
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const it = m_jobs.find(id);
        idle = it != m_jobs.end() && it->second.tickets.empty() && !isFinal(it->second.row.state);
      }
      if (idle) giveUp(id, JobState::cancelled, "cancelled", "cancelled by a person");
      // A job with transfers in flight is moved once they have stopped (settle).
    }
    SteadyClock::time_point const now = SteadyClock::now();
    if (now >= m_nextRescan) {
      scan = !paused();
      m_nextRescan = now + m_options.rescanInterval;
    }
    if (m_unsettled && !paused()) scan = true;  // entries still being written in
    if (scan) scanIncoming();
    schedule();
    if (now >= m_nextSweep) {
      sweepBackups();
      m_nextSweep = now + m_options.sweepInterval;
    }

    // Sleep until something happens, the next retry is due, the next
    // rescan (sooner while entries settle), or the heartbeat's next word.
    SteadyClock::time_point until = std::min(m_nextRescan, m_nextSweep);
    if (m_options.heartbeat) {
      m_nextBeat = m_options.heartbeat(activity());
      until = std::min(until, m_nextBeat);
    }
    std::shared_ptr<FolderWatch> watch;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      std::int64_t const unow = unixNow();
      // Queued jobs wait for the engine and the start's clean-up, which wakes
      // the loop when it ends, and for a free transfer, whose result wakes
      // it: counting them before would spin.
      bool const canStart = m_engine && m_cleanedUp.load() && m_tickets.size() < startLimitLocked();
      for (auto const& open : m_open) {
        if (!canStart || !m_held.empty() || m_paused) break;
        LiveJob const& job = *open.second;
        JobRow const& row = job.row;
        if (row.state == JobState::queued && job.tickets.empty()) {
          SteadyClock::time_point const due = now + std::chrono::seconds(std::max<std::int64_t>(0, row.nextTry - unow));
          until = std::min(until, due);
          if (row.nextTry <= unow) break;  // none is due sooner
        }
      }
      // A held queue probes only with an engine to probe with.
      if (!m_held.empty() && m_engine && m_cleanedUp.load()) until = std::min(until, m_nextProbe);
      if (m_woken || m_stop) continue;
      watch = m_watch;
    }
    if (m_unsettled) until = std::min(until, SteadyClock::now() + std::chrono::milliseconds(250));
    auto const wait = std::chrono::duration_cast<std::chrono::milliseconds>(until - SteadyClock::now());
    if (wait.count() <= 0) continue;
    if (watch) {
      FolderWatch::Event const event = watch->wait(wait);
      if (event == FolderWatch::Event::changed || event == FolderWatch::Event::overflow) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_scanRequested = true;
      }
      // Renamed in whole: complete already, no need to watch them settle.
      for (std::string const& name : watch->takeMovedIn()) m_settle.trust(name);
    } else {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_wakeCv.wait_for(lock, wait, [this] { return m_woken || m_stop; });
    }
  }
}

void Pipeline::Impl::startUp() {
  bool ready = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    ready = m_journal && m_folderProblem.empty();
  }
  if (!ready) return;
  reconcile();
  m_cleanedUp = false;
  m_orphans = std::thread([this] { cleanUpOrphans(); });
}

std::string Pipeline::Impl::openFolders(Settings const& settings, Folders* previous) {
  struct Role {
    char const* name;
    fs::path const& path;
    FolderFd Folders::*fd;
    fs::path Folders::*pathMember;
  };
  Role const roles[] = {{"incoming", settings.ReceiveFolder, &Folders::incoming, &Folders::incomingPath},
                        {"outgoing", settings.SpoolFolder, &Folders::outgoing, &Folders::outgoingPath},
                        {"backup", settings.BackupFolder, &Folders::backup, &Folders::backupPath},
                        {"rejected", settings.RejectedFolder, &Folders::rejected, &Folders::rejectedPath}};
  Folders next;
  for (Role const& role : roles) {
    OpenedFolder opened = openSpoolFolder(role.path, MakeMissing::yes);
    if (!opened.why.empty()) return folderName({role.name, role.path}) + ": " + opened.why;
    next.*(role.fd) = std::move(opened.fd);
    next.*(role.pathMember) = role.path;
  }
  std::shared_ptr<FolderWatch> watch;
  try {
    watch = std::make_shared<FolderWatch>(next.incoming.get());
  } catch (std::exception const& e) {
    // Without notice the periodic scans still find every item.
    logWarning(std::string("watches the incoming folder by scans only: ") + e.what());
  }
  {
    std::lock_guard<std::mutex> moves(m_moveMutex);
    *previous = std::move(m_folders);
    m_folders = std::move(next);
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_watch = std::move(watch);
  return std::string();
}

namespace {

// Whether two open folders are one (the same path, or two names of it).
bool sameFolder(FolderFd const& a, FolderFd const& b) {
  struct stat sa {}, sb {};
  return a.valid() && b.valid() && ::fstat(a.get(), &sa) == 0 && ::fstat(b.get(), &sb) == 0 &&
         sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace

void Pipeline::Impl::carryOver(Folders const& previous, Settings const& settings) {
  if (previous.outgoing.valid() && !sameFolder(previous.outgoing, m_folders.outgoing)) {
    std::vector<std::string> names;
    try {
      names = entriesOf(previous.outgoing.get(), previous.outgoingPath);
    } catch (std::exception const& e) {
      logError(std::string("cannot carry the queued jobs over to the new outgoing folder: ") + e.what());
    }
    std::size_t moved = 0, kept = 0;
    for (std::string const& id : names) {
      if (!isJobId(id)) continue;
      std::string title;
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const job = m_jobs.find(id);
        title = job == m_jobs.end() ? std::string("not in the journal") : job->second.row.title;
      }
      try {
        std::lock_guard<std::mutex> moves(m_moveMutex);
        moveTree(previous.outgoing.get(), id, m_folders.outgoing.get());
        ++moved;
        logInfo("carried job " + id + " (" + title + ") over to the outgoing folder \"" +
                m_folders.outgoingPath.string() + "\"");
      } catch (std::exception const& e) {
        // The job stays whole where it was; the journal forgets it until it
        // is moved by hand, and the next start takes it up again.
        ++kept;
        logError("job " + id + " (" + title + ") stays in the former outgoing folder \"" +
                 previous.outgoingPath.string() + "\": " + e.what() +
                 "; move it into the outgoing folder and restart the service to upload it");
      }
    }
    if (moved + kept > 0) {
      logInfo("the outgoing folder moved from \"" + previous.outgoingPath.string() + "\" to \"" +
              m_folders.outgoingPath.string() + "\": " + std::to_string(moved) + " unfinished job(s) carried over" +
              (kept > 0 ? ", " + std::to_string(kept) + " left behind" : std::string()));
    }
  }
  if (previous.incoming.valid() && !sameFolder(previous.incoming, m_folders.incoming)) {
    // Items there may still be written by the program that puts them there:
    // they are not taken away, only named.
    std::size_t waiting = 0;
    try {
      for (std::string const& name : entriesOf(previous.incoming.get(), previous.incomingPath)) {
        if (!settings.isIgnoredExtension(fs::path(name))) ++waiting;
      }
    } catch (std::exception const&) {
      // A former folder that cannot be read any more holds nothing to name.
    }
    if (waiting > 0) {
      logWarning(std::to_string(waiting) + " item(s) wait in the former incoming folder \"" +
                 previous.incomingPath.string() + "\", which the service no longer reads: move them into \"" +
                 m_folders.incomingPath.string() + "\" to upload them");
    }
  }
}

void Pipeline::Impl::rebuildEngine(Settings const& settings) {
  std::shared_ptr<UploadEngine> old;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    old = std::move(m_engine);
  }
  old.reset();  // transfers stop; their results do not come
  {
    // Whatever was in flight waits for the new engine.
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& j : m_jobs) {
      j.second.tickets.clear();
      if (j.second.row.state == JobState::uploading) j.second.row.state = JobState::queued;
    }
    m_tickets.clear();
  }
  std::string why;
  Target target;
  Credentials credentials;
  m_targets.clear();
  std::string const& address = settings.InetConfig.serverAddress();
  std::string const& alternative = settings.InetConfig.altServerAddress();
  Target altTarget;
  if (address.empty()) {
    why = "no server address is set (\"InetServer\")";
  } else if (!parseTarget(address, target, why)) {
    // why says what is wrong with the address
  } else if (!alternative.empty() && alternative != address && !parseTarget(alternative, altTarget, why)) {
    // likewise
  } else {
    m_targets.push_back(target);
    if (!alternative.empty() && alternative != address) m_targets.push_back(altTarget);
    try {
      credentials = loadCredentials(credentialsFile());
    } catch (std::exception const& e) {
      why = e.what();
    }
  }
  if (!why.empty()) {
    setHeld(why);
    return;
  }
  EngineOptions options = m_options.engine;
  options.maxTransfers = std::max<std::size_t>(1, settings.ConcurrentUploads);
  options.traceRequests = settings.EnableLogging;
  options.curlDebug = settings.EnableCurlDbgLog;
  UploadEngine::Callbacks callbacks;
  callbacks.onUploadId = [this](std::uint64_t ticket, std::string const& uploadId) {
    TicketRef ref;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      auto const it = m_tickets.find(ticket);
      if (it == m_tickets.end()) return;
      ref = it->second;
    }
    // Written before the first part goes, so a restart finds the upload.
    m_journal->setUploadId(ref.jobId, ref.item, uploadId);
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const j = m_jobs.find(ref.jobId);
    if (j == m_jobs.end()) return;
    for (ItemRow& item : j->second.row.items) {
      if (item.name == ref.item) item.uploadId = uploadId;
    }
  };
  callbacks.onPart = [this](std::uint64_t ticket, PartRecord const& part) {
    TicketRef ref;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      auto const it = m_tickets.find(ticket);
      if (it == m_tickets.end()) return;
      ref = it->second;
    }
    m_journal->addPart(ref.jobId, ref.item, PartRow{part.number, part.size, part.etag});
  };
  callbacks.onDone = [this](UploadResult const& result) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_results.push_back(result);
    }
    wake();
  };
  auto engine = std::make_shared<UploadEngine>(settings.InetConfig, std::move(credentials), options,
                                               std::move(callbacks));
  m_engineSettings = engineSettingsOf(settings);
  bool paused = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_engine = engine;
    paused = m_paused;
  }
  if (paused) engine->setPaused(true);
  setHeld(std::string());
}

void Pipeline::Impl::applySettings(Settings const& settings) {
  bool keepTransfers = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    keepTransfers = m_engine && m_held.empty() && m_folderProblem.empty() &&
                    engineSettingsOf(settings) == m_engineSettings;
  }
  keepTransfers = keepTransfers && m_folders.incomingPath == settings.ReceiveFolder &&
                  m_folders.outgoingPath == settings.SpoolFolder && m_folders.backupPath == settings.BackupFolder &&
                  m_folders.rejectedPath == settings.RejectedFolder;
  if (keepTransfers) {
    // Nothing that the transfers in flight depend on changed: they go on,
    // and the rest (names, rules, the number at once) counts from the next
    // job. A held queue gets a new engine below, which reads the
    // credentials again.
    if (std::shared_ptr<UploadEngine> const e = engine()) e->setMaxTransfers(std::max<std::size_t>(1, settings.ConcurrentUploads));
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scanRequested = true;
    return;
  }
  if (m_orphans.joinable()) m_orphans.join();
  Folders previous;
  std::string const why = openFolders(settings, &previous);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (why != m_folderProblem) {
      if (!why.empty()) logError("moves nothing: " + why);
      m_folderProblem = why;
    }
  }
  if (!why.empty()) return;
  rebuildEngine(settings);  // no transfer reads the former folders past this
  carryOver(previous, settings);
  reconcile();
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scanRequested = true;
  }
  m_cleanedUp = false;
  m_orphans = std::thread([this] { cleanUpOrphans(); });
}

std::size_t Pipeline::Impl::startLimitLocked() const {
  // One more than run at once, so that the next starts as one ends.
  return std::max<std::size_t>(1, m_settings.ConcurrentUploads) + 1;
}

void Pipeline::Impl::setHeld(std::string const& why) {
  std::optional<PipelineEvent> event;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (why == m_held) return;
    if (!why.empty()) {
      Log::inst().writeLine("WARNING:", "qxlite-svc holds the upload queue: " + why);
      if (!m_holdTold) event = PipelineEvent{PipelineEvent::Kind::held, {}, {}, {}, why, 0, {}};
      m_holdTold = true;
    } else if (!m_held.empty()) {
      // Only a server that answers tells that the hold is over (settle()):
      // a new configuration may well be held again at once.
      Log::inst().writeLine("INFO:", "qxlite-svc uploads again");
    }
    m_held = why;
    m_nextProbe = SteadyClock::now() + m_options.holdProbe;
  }
  if (event) tell(*event);
}

void Pipeline::Impl::tell(PipelineEvent const& event) const {
  if (!m_options.onEvent) return;
  try {
    m_options.onEvent(event);
  } catch (std::exception const& e) {
    logError(std::string("cannot record a notice: ") + e.what());
  }
}

namespace {

std::vector<std::string> filesOf(JobRow const& row) {
  std::vector<std::string> files;
  for (ItemRow const& item : row.items) files.push_back(item.name);
  return files;
}

}  // namespace

// ---------------------------------------------------------------------------
// Reconciling the journal with the folders.

void Pipeline::Impl::reconcile() {
  if (!m_journal) return;
  int const out = m_folders.outgoing.get();
  std::map<std::string, JobRow> rows;
  for (JobRow& row : m_journal->jobs()) rows.emplace(row.id, std::move(row));

  std::vector<std::string> names;
  try {
    names = entriesOf(out, m_folders.outgoingPath);
  } catch (std::exception const& e) {
    logError(std::string("cannot read the outgoing folder: ") + e.what());
    return;
  }
  try {
    std::size_t const swept = sweepUnfinishedRejects(m_folders.rejected.get());
    if (swept > 0) logInfo("removed " + std::to_string(swept) + " unfinished rejection(s) from the rejected folder");
  } catch (std::exception const& e) {
    logError(std::string("cannot read the rejected folder: ") + e.what());
  }
  std::set<std::string> present;
  for (std::string const& name : names) {
    if (!isJobId(name)) continue;  // strays are claimed as new jobs by scanOutgoingStrays
    struct stat st {};
    if (::fstatat(out, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) continue;
    present.insert(name);
    auto const row = rows.find(name);
    if (row == rows.end()) {
      // Claimed, but the journal never heard of it (a crash right after the
      // claim, or a journal rebuilt): adopt it, or drop an empty claim.
      if (::unlinkat(out, name.c_str(), AT_REMOVEDIR) == 0) continue;
      logInfo("adopts job " + name + " found in the outgoing folder");
      prepareJob(name, static_cast<std::int64_t>(st.st_mtime));
      continue;
    }
    JobRow job = row->second;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (job.state == JobState::uploading) job.state = JobState::queued;
    LiveJob& live = m_jobs[name];
    live.row = job;
    if (!isFinal(job.state)) m_open[name] = &live;
  }
  for (auto& r : rows) {
    JobRow& row = r.second;
    if (present.count(row.id)) continue;
    if (isFinal(row.state)) {
      if (unixNow() - row.updated > kHistorySecs) {
        m_journal->remove(row.id);
        continue;
      }
      std::lock_guard<std::mutex> lock(m_mutex);
      m_open.erase(row.id);
      m_jobs[row.id].row = row;
      continue;
    }
    // A job whose folder is gone: finished just before a crash (its folder
    // went to the backup), or removed by hand.
    struct stat st {};
    bool const inBackup = ::fstatat(m_folders.backup.get(), row.id.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (inBackup) {
      row.state = JobState::done;
      row.updated = unixNow();
      m_journal->update(row);
      std::lock_guard<std::mutex> lock(m_mutex);
      m_open.erase(row.id);
      m_jobs[row.id].row = row;
    } else {
      logWarning("job " + row.id + " (" + row.title + ") is no longer in the outgoing folder: dropped from the journal");
      m_journal->remove(row.id);
    }
  }
  // Jobs that ended but whose folders did not move yet.
  std::vector<std::pair<std::string, JobState>> unfinished;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto const& j : m_jobs) {
      if (present.count(j.first) && isFinal(j.second.row.state)) unfinished.emplace_back(j.first, j.second.row.state);
    }
  }
  for (auto const& u : unfinished) {
    if (u.second == JobState::done) {
      finishJob(u.first);
    } else {
      std::string message;
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        message = m_jobs[u.first].row.lastError;
      }
      giveUp(u.first, u.second, jobStateName(u.second), message);
    }
  }
  scanOutgoingStrays();
}

// Entries of the outgoing folder that are not jobs: items that an earlier
// version of the service queued there directly. Each becomes a job.
void Pipeline::Impl::scanOutgoingStrays() {
  int const out = m_folders.outgoing.get();
  std::vector<std::string> names;
  try {
    names = entriesOf(out, m_folders.outgoingPath);
  } catch (std::exception const&) {
    return;
  }
  Settings const settings = currentSettings();
  for (std::string const& name : names) {
    if (isJobId(name) || settings.isIgnoredExtension(fs::path(name))) continue;
    std::string const jobId = newJobId(unixNow());
    try {
      claim(out, name, out, jobId);
    } catch (std::exception const& e) {
      logError(e.what());
      continue;
    }
    logInfo("queues \"" + name + "\" found in the outgoing folder as job " + jobId);
    prepareJob(jobId, unixNow());
  }
}

// ---------------------------------------------------------------------------
// Intake.

void Pipeline::Impl::scanIncoming() {
  if (!m_journal || !m_folders.incoming.valid()) return;
  // Entries taken in together: claimed with one sync of each folder, and
  // entered into the journal in one transaction. Small enough that the
  // first uploads of a large burst start soon.
  constexpr std::size_t kBurst = 16;
  Settings const settings = currentSettings();
  int const in = m_folders.incoming.get();
  std::vector<std::string> names;
  try {
    names = entriesOf(in, m_folders.incomingPath);
  } catch (std::exception const& e) {
    logError(std::string("cannot read the incoming folder: ") + e.what());
    return;
  }
  m_settle.forgetAllBut(names);
  m_unsettled = false;
  SteadyClock::time_point const now = SteadyClock::now();
  std::size_t next = 0;
  while (next < names.size()) {
    if (paused()) return;
    // Judged without the move lock: reading a dropped folder may take a while.
    std::vector<std::pair<std::string, Verdict>> ready;
    for (; next < names.size() && ready.size() < kBurst; ++next) {
      std::string const& name = names[next];
      Verdict verdict;
      try {
        verdict = judge(settings, in, name);
      } catch (std::system_error const& e) {
        if (e.code().value() == ENOENT) continue;  // gone meanwhile
        // An entry the service cannot examine would be looked at again and
        // again: it goes aside with the reason.
        verdict.kind = Verdict::Kind::reject;
        verdict.rule = "unreadable";
        verdict.message = e.what();
      }
      if (verdict.kind == Verdict::Kind::ignore) continue;
      if (!m_settle.settled(in, name, now)) {
        m_unsettled = true;
        continue;
      }
      ready.emplace_back(name, std::move(verdict));
    }
    std::vector<std::string> claimed;  // job ids
    {
      std::lock_guard<std::mutex> moves(m_moveMutex);
      if (paused()) return;  // a pause with discard may have taken them meanwhile
      ClaimBurst burst(in, m_folders.outgoing.get());
      std::vector<std::string> jobIds;
      for (auto const& r : ready) {
        std::string const& name = r.first;
        Verdict const& verdict = r.second;
        if (verdict.kind == Verdict::Kind::reject) {
          try {
            std::string const where = reject(in, name, m_folders.rejected.get(), verdict.rule, verdict.message, unixNow());
            logWarning("rejected \"" + name + "\": " + verdict.message + "; moved to \"" +
                       (m_folders.rejectedPath / where).string() + "\"");
            tell(PipelineEvent{PipelineEvent::Kind::rejected, name, {name}, {}, verdict.message, 0, {}});
          } catch (std::exception const& e) {
            logError(e.what());
          }
          continue;
        }
        std::string const jobId = newJobId(unixNow());
        try {
          burst.add(name, jobId);
        } catch (std::exception const& e) {
          logError(e.what());
          continue;
        }
        jobIds.push_back(jobId);
      }
      // The journal hears of a job only once its claim is durable: a row
      // whose claim a crash undid would send the entry, back in the incoming
      // folder, a second time under another job.
      try {
        burst.sync();
        claimed = std::move(jobIds);
      } catch (std::exception const& e) {
        // The entries stay in their job folders; the next start adopts them.
        logError(e.what());
      }
    }
    // Packing and hashing take a while; the jobs are not listed yet.
    std::vector<PreparedJob> prepared;
    for (std::string const& jobId : claimed) {
      if (std::optional<PreparedJob> job = packAndHash(jobId, unixNow())) prepared.push_back(std::move(*job));
    }
    enter(std::move(prepared));
    // Named as the list names it (a folder by its files, not its spool
    // name); a job that could not be queued was logged with why.
    for (std::string const& jobId : claimed) {
      std::string shown;
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const job = m_jobs.find(jobId);
        if (job != m_jobs.end()) shown = shownName(job->second.row);
      }
      if (!shown.empty()) logInfo("queued \"" + shown + "\" as job " + jobId);
    }
    // Uploads start while the rest of a burst is still being taken in, and
    // those that ended make room for the next: their tickets count against
    // ConcurrentUploads until they are settled.
    settleResults();
    schedule();
  }
}

void Pipeline::Impl::settleResults() {
  std::deque<UploadResult> results;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    results.swap(m_results);
  }
  settle(results);
}

// The file's hash and, when it will go to S3 in parts, the parts' hashes in
// the same reading.
void Pipeline::Impl::hashFile(int fd, ItemRow& item, std::vector<std::string>& partHashes) {
  bool const multipart = !m_targets.empty() && m_targets[0].protocol == Protocol::S3 &&
                         item.size >= m_options.engine.multipartThreshold;
  std::uint64_t const partSize = multipart ? multipartLayout(item.size, m_options.engine.partSize).partSize : 0;
  FileDigests digests = sha256OfFileAndParts(fd, partSize, "\"" + item.name + "\"", [this] { beat(); });
  item.sha256 = std::move(digests.file);
  partHashes = std::move(digests.parts);
}

bool Pipeline::Impl::hashItem(int jobDir, ItemRow& item, std::vector<std::string>& partHashes) {
  FileFd file;
  try {
    file = openBelow(jobDir, item.name, O_RDONLY);
  } catch (std::system_error const&) {
    return false;
  }
  struct stat st {};
  if (!file.valid() || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  item.size = static_cast<std::uint64_t>(st.st_size);
  item.mtimeNs = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  hashFile(file.get(), item, partHashes);
  return true;
}

void Pipeline::Impl::prepareJob(std::string const& jobId, std::int64_t created) {
  std::vector<PreparedJob> jobs;
  if (std::optional<PreparedJob> job = packAndHash(jobId, created)) jobs.push_back(std::move(*job));
  enter(std::move(jobs));
}

std::optional<PreparedJob> Pipeline::Impl::packAndHash(std::string const& jobId, std::int64_t created) {
  Settings const settings = currentSettings();
  int const out = m_folders.outgoing.get();
  FolderFd const jobDir(::openat(out, jobId.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  JobRow row;
  std::map<std::string, std::vector<std::string>> partHashes;
  row.id = jobId;
  row.created = created;
  row.updated = unixNow();
  try {
    if (!jobDir.valid()) throw std::system_error(errno, std::generic_category(), "cannot open job " + jobId);
    // The drop is the one entry that is not an archive made from it.
    std::vector<std::string> entries = entriesOf(jobDir.get(), m_folders.outgoingPath / jobId);
    std::string drop;
    bool dropIsFolder = false;
    for (std::string const& e : entries) {
      struct stat st {};
      if (::fstatat(jobDir.get(), e.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
      if (S_ISDIR(st.st_mode) || drop.empty()) {
        drop = e;
        dropIsFolder = S_ISDIR(st.st_mode);
      }
    }
    if (drop.empty()) throw std::runtime_error("job " + jobId + " holds nothing");
    row.title = drop;
    std::vector<std::string> files;
    for (JobFile const& f : filesOf(jobDir.get())) {
      if (!dropIsFolder ? f.name == drop : f.name.compare(0, drop.size() + 1, drop + "/") == 0) files.push_back(f.name);
    }
    if (dropIsFolder) row.label = folderLabel(drop, files);
    std::vector<std::string> items = files;
    if (dropIsFolder && files.size() >= settings.MinFilesToZip) {
      // An archive left by a run that stopped before the journal heard of
      // it is made again: only the service writes that name in a job folder.
      std::string const archive = archiveName(settings, jobId, drop, true);
      struct stat st {};
      if (::fstatat(jobDir.get(), archive.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode)) {
        ::unlinkat(jobDir.get(), archive.c_str(), 0);
      }
      Packed const packed = pack(settings, jobDir.get(), files, archive, [this] { beat(); });
      if (!packed.archive.empty()) {
        items = packed.apart;
        items.insert(items.begin(), packed.archive);
      }
    }
    for (std::string const& name : items) {
      ItemRow item;
      item.name = name;
      if (!hashItem(jobDir.get(), item, partHashes[name])) throw std::runtime_error("\"" + name + "\" of job " + jobId + " cannot be read");
      item.key = objectKey(settings.AccountId, settings.SpoolerId, static_cast<std::time_t>(created), jobId, name);
      row.items.push_back(std::move(item));
    }
    if (row.items.empty()) {
      std::string const where = reject(out, jobId, m_folders.rejected.get(), "empty", "\"" + drop + "\" holds no file to upload", unixNow());
      logWarning("rejected \"" + drop + "\": it holds no file to upload; moved to \"" + (m_folders.rejectedPath / where).string() + "\"");
      tell(PipelineEvent{PipelineEvent::Kind::rejected, drop, {drop}, {}, "it holds no file to upload", 0, {}});
      return std::nullopt;
    }
  } catch (std::exception const& e) {
    // The job folder stays; the next start adopts it again.
    logError(std::string("cannot queue job ") + jobId + ": " + e.what());
    return std::nullopt;
  }
  return PreparedJob{std::move(row), std::move(partHashes)};
}

void Pipeline::Impl::enter(std::vector<PreparedJob> jobs) {
  if (jobs.empty()) return;
  std::vector<JobRow> rows;
  rows.reserve(jobs.size());
  for (PreparedJob const& job : jobs) rows.push_back(job.row);
  try {
    m_journal->insertAll(rows);
  } catch (std::exception const&) {
    // One refused row must not keep the others out: each alone, and only
    // those the journal took are listed. A job left out keeps its folder;
    // the next start adopts it again.
    std::vector<PreparedJob> entered;
    for (PreparedJob& job : jobs) {
      try {
        m_journal->insert(job.row);
        entered.push_back(std::move(job));
      } catch (std::exception const& e) {
        logError(std::string("cannot queue job ") + job.row.id + ": " + e.what());
      }
    }
    jobs = std::move(entered);
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  for (PreparedJob& job : jobs) {
    LiveJob& live = m_jobs[job.row.id];
    m_open[job.row.id] = &live;
    live.row = std::move(job.row);
    live.partHashes = std::move(job.partHashes);
  }
}

// ---------------------------------------------------------------------------
// Transfers.

std::chrono::milliseconds Pipeline::Impl::backoff(unsigned attempts) {
  double wait = static_cast<double>(m_options.retryFirst.count());
  for (unsigned i = 1; i < attempts && wait < static_cast<double>(m_options.retryMost.count()); ++i) wait *= 2;
  wait = std::min(wait, static_cast<double>(m_options.retryMost.count()));
  // Up to a quarter either way, so that many jobs that failed together do
  // not all come back in the same second.
  std::uniform_real_distribution<double> jitter(0.75, 1.25);
  return std::chrono::milliseconds(static_cast<long long>(wait * jitter(m_jitter)));
}

void Pipeline::Impl::schedule() {
  std::shared_ptr<UploadEngine> const e = engine();
  if (!e || !m_journal || !m_cleanedUp.load()) return;
  std::int64_t const unow = unixNow();
  std::vector<std::string> due;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_paused) return;
    std::size_t budget = 0;
    bool probe = false;
    if (!m_held.empty()) {
      // One job at a time finds out whether the server takes uploads again.
      if (SteadyClock::now() < m_nextProbe || !m_tickets.empty()) return;
      m_nextProbe = SteadyClock::now() + m_options.holdProbe;
      probe = true;
      budget = 1;
    } else {
      std::size_t const limit = startLimitLocked();
      if (m_tickets.size() >= limit) return;
      budget = limit - m_tickets.size();
    }
    for (auto const& open : m_open) {
      if (due.size() >= budget) break;
      LiveJob const& job = *open.second;
      JobRow const& row = job.row;
      if (row.state != JobState::queued || !job.tickets.empty() || job.cancelRequested) continue;
      if (!probe && row.nextTry > unow) continue;
      due.push_back(open.first);
    }
  }
  std::vector<StartingJob> starting;
  for (std::string const& id : due) {
    if (std::optional<StartingJob> job = readyToStart(id)) starting.push_back(std::move(*job));
  }
  if (starting.empty()) return;
  // Recorded as uploading in one transaction before any request goes. After
  // a crash the start makes "uploading" queued again, so a job is sent once
  // more whatever this record says: an object that is there already with
  // the same bytes counts as uploaded (S3), or the same key is written
  // again (WebDAV); nothing is stored twice.
  std::vector<JobRow> rows;
  rows.reserve(starting.size());
  for (StartingJob const& job : starting) rows.push_back(job.row);
  try {
    m_journal->updateAll(rows);
  } catch (std::exception const&) {
    // Each alone, so that one refused row does not hold back the others.
    std::vector<StartingJob> recorded;
    for (StartingJob& job : starting) {
      try {
        m_journal->update(job.row);
        recorded.push_back(std::move(job));
      } catch (std::exception const& ex) {
        logError(std::string("cannot start job ") + job.row.id + ": " + ex.what());
      }
    }
    starting = std::move(recorded);
  }
  for (StartingJob& job : starting) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      LiveJob& live = m_jobs[job.row.id];
      live.row = job.row;
      live.partHashes = std::move(job.partHashes);
      live.setback.reset();
      for (UploadRequest const& r : job.requests) {
        std::string const item = itemOfKey(job.row, r.key);
        live.tickets[item] = r.ticket;
        m_tickets[r.ticket] = TicketRef{job.row.id, item};
      }
    }
    for (UploadRequest& r : job.requests) e->submit(std::move(r));
  }
}

std::optional<StartingJob> Pipeline::Impl::readyToStart(std::string const& jobId) {
  JobRow row;
  std::map<std::string, std::vector<std::string>> partHashes;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    row = m_jobs[jobId].row;
    partHashes = m_jobs[jobId].partHashes;
  }
  FolderFd const jobDir(::openat(m_folders.outgoing.get(), jobId.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!jobDir.valid()) {
    logWarning("job " + jobId + " (" + row.title + ") is no longer in the outgoing folder: dropped from the journal");
    m_journal->remove(jobId);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open.erase(jobId);
    m_jobs.erase(jobId);
    return std::nullopt;
  }
  // Main address on even attempts, the alternative one on odd ones.
  Target const& target = m_targets.size() > 1 && row.attempts % 2 == 1 ? m_targets[1] : m_targets[0];
  std::vector<UploadRequest> requests;
  for (ItemRow& item : row.items) {
    if (item.done) continue;
    FileFd file;
    try {
      file = openBelow(jobDir.get(), item.name, O_RDONLY);
    } catch (std::system_error const&) {
      // Gone, or a link in its place: either way not what was hashed.
    }
    struct stat st {};
    if (!file.valid() || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
      giveUp(jobId, JobState::failed, "changed",
             "\"" + item.name + "\" was removed from the outgoing folder before it was uploaded");
      return std::nullopt;
    }
    std::int64_t const mtimeNs = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    if (item.sha256.empty() || static_cast<std::uint64_t>(st.st_size) != item.size || mtimeNs != item.mtimeNs) {
      // Rewritten while it waited: what is there now is what gets uploaded.
      logInfo("hashes \"" + item.name + "\" of job " + jobId + " again: it changed while it waited");
      item.size = static_cast<std::uint64_t>(st.st_size);
      item.mtimeNs = mtimeNs;
      hashFile(file.get(), item, partHashes[item.name]);
      item.uploadId.clear();
      item.parts.clear();
    }
    UploadRequest request;
    request.ticket = m_nextTicket++;
    request.target = target;
    request.key = item.key;
    request.file = std::move(file);
    request.size = item.size;
    request.sha256 = item.sha256;
    request.partSha256 = partHashes[item.name];
    request.uploadId = item.uploadId;
    requests.push_back(std::move(request));
  }
  row.state = JobState::uploading;
  row.updated = unixNow();
  return StartingJob{std::move(row), std::move(partHashes), std::move(requests)};
}

std::string Pipeline::Impl::itemOfKey(JobRow const& row, std::string const& key) {
  for (ItemRow const& item : row.items) {
    if (item.key == key) return item.name;
  }
  return std::string();
}

void Pipeline::Impl::settle(std::deque<UploadResult> const& results) {
  std::vector<std::string> ended;  // in the order their last transfer ended
  for (UploadResult const& result : results) {
    std::string const jobId = settleOne(result);
    if (!jobId.empty() && std::find(ended.begin(), ended.end(), jobId) == ended.end()) ended.push_back(jobId);
  }
  std::vector<JobRow> done;
  for (std::string const& jobId : ended) conclude(jobId, &done);
  finishAll(std::move(done));
}

std::string Pipeline::Impl::settleOne(UploadResult const& result) {
  bool resumed = false;
  std::string jobId;
  std::vector<std::uint64_t> others;
  bool ended = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const t = m_tickets.find(result.ticket);
    if (t == m_tickets.end()) return std::string();  // of an engine replaced since
    TicketRef const ref = t->second;
    m_tickets.erase(t);
    jobId = ref.jobId;
    auto const j = m_jobs.find(jobId);
    if (j == m_jobs.end()) return std::string();
    LiveJob& live = j->second;
    live.tickets.erase(ref.item);
    live.row.bytesSent += result.bytesSent;
    if (result.outcome == Outcome::done) {
      for (ItemRow& item : live.row.items) {
        if (item.name != ref.item) continue;
        item.done = true;
        item.key = result.finalKey.empty() ? item.key : result.finalKey;
        item.uploadId.clear();
        item.parts.clear();
      }
    } else if (result.outcome == Outcome::changed) {
      for (ItemRow& item : live.row.items) {
        if (item.name == ref.item) item.sha256.clear();  // hashed again before the next try
      }
    } else if (result.outcome != Outcome::stopped && !live.setback) {
      // The first setback decides for the whole job: its other items stop.
      live.setback = result;
      for (auto const& other : live.tickets) others.push_back(other.second);
    }
    // A server that answered, other than to refuse the credentials, ends a hold.
    bool const answered = result.outcome != Outcome::hold && !result.unreachable;
    if (!m_held.empty() && answered) {
      m_held.clear();
      Log::inst().writeLine("INFO:", "qxlite-svc uploads again: the server answers");
    }
    ended = live.tickets.empty();
    if (answered && result.outcome != Outcome::stopped && m_holdTold) {
      m_holdTold = false;
      resumed = true;
    }
  }
  if (resumed) tell(PipelineEvent{PipelineEvent::Kind::resumed, {}, {}, {}, {}, 0, {}});
  if (std::shared_ptr<UploadEngine> e = engine()) {
    for (std::uint64_t t : others) e->cancel(t);
  }
  return ended ? jobId : std::string();
}

void Pipeline::Impl::conclude(std::string const& jobId, std::vector<JobRow>* done) {
  JobRow row;
  std::optional<UploadResult> setback;
  bool cancelled = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const j = m_jobs.find(jobId);
    if (j == m_jobs.end() || !j->second.tickets.empty()) return;
    row = j->second.row;
    setback = j->second.setback;
    cancelled = j->second.cancelRequested;
    j->second.setback.reset();
  }
  std::int64_t const unow = unixNow();
  if (cancelled) {
    giveUp(jobId, JobState::cancelled, "cancelled", "cancelled by a person");
    return;
  }
  bool const allDone = std::all_of(row.items.begin(), row.items.end(), [](ItemRow const& i) { return i.done; });
  if (!setback && allDone) {
    row.state = JobState::done;
    row.lastError.clear();
    row.nextTry = 0;
    row.updated = unow;
    done->push_back(std::move(row));
    return;
  }
  row.state = JobState::queued;
  row.updated = unow;
  if (setback) {
    row.lastError = setback->message;
    switch (setback->outcome) {
      case Outcome::rejected:
        giveUp(jobId, JobState::rejected, "server", setback->message);
        return;
      case Outcome::hold:
        setHeld(setback->message);
        break;
      case Outcome::transient:
        ++row.attempts;
        if (setback->unreachable) {
          // No server to talk to: down, or not reachable from here, which is
          // no fault of this job. The queue waits; one job probes.
          setHeld("no server answers: " + setback->message);
          break;
        }
        if (unow - row.created > m_options.giveUpAfter.count()) {
          giveUp(jobId, JobState::failed, "expired",
                 "given up after " + std::to_string(row.attempts) + " attempts: " + setback->message);
          return;
        }
        row.nextTry = unow + std::chrono::duration_cast<std::chrono::seconds>(backoff(row.attempts)).count();
        logWarning("job " + jobId + " failed (" + setback->message + "); tries again in " +
                   std::to_string(row.nextTry - unow) + " s");
        break;
      default:
        break;
    }
  }
  try {
    m_journal->update(row);
  } catch (std::exception const& e) {
    logError(std::string("cannot record job ") + jobId + ": " + e.what());
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_jobs[jobId].row = row;
}

// ---------------------------------------------------------------------------
// Where jobs end.

// Jobs whose every item the server holds: recorded done in one transaction,
// then their folders moved to the backup (or removed) with one sync of the
// backup folder. The order is what makes a crash harmless:
//  - before the record commits: the journal still says uploading, which the
//    next start makes queued; the items are sent again and the server's
//    copy with the same bytes counts as uploaded (S3), or the same key is
//    written again (WebDAV): nothing is stored twice, nothing is lost;
//  - after the record, before or among the moves, or before the sync: a job
//    done whose folder is still in the outgoing folder is moved by the next
//    start (reconcile), and one whose folder reached the backup is done;
//  - the local copy is never removed (backup off) before the record says
//    the server holds it.
void Pipeline::Impl::finishAll(std::vector<JobRow> rows) {
  if (rows.empty()) return;
  try {
    m_journal->updateAll(rows);
  } catch (std::exception const&) {
    // Each alone: a job whose record fails stays where it is and is sent
    // again, item by item, which finds its bytes on the server.
    std::vector<JobRow> recorded;
    for (JobRow& row : rows) {
      try {
        m_journal->update(row);
        recorded.push_back(std::move(row));
      } catch (std::exception const& e) {
        logError(std::string("cannot record job ") + row.id + " as uploaded: " + e.what());
        std::lock_guard<std::mutex> lock(m_mutex);
        JobRow& live = m_jobs[row.id].row;
        live.state = JobState::queued;
        live.updated = unixNow();
        for (ItemRow& item : live.items) item.done = false;
      }
    }
    rows = std::move(recorded);
  }
  bool backupOn = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    backupOn = m_settings.BackupExpireSecs != 0;
  }
  std::vector<PipelineEvent> told;
  {
    std::lock_guard<std::mutex> moves(m_moveMutex);
    int const out = m_folders.outgoing.get();
    for (JobRow const& row : rows) {
      logInfo("uploaded job " + row.id + " (\"" + shownName(row) + "\") to " + row.items.front().key);
      told.push_back(PipelineEvent{PipelineEvent::Kind::done, row.title, filesOf(row), {}, {}, row.attempts, {}});
      for (ItemRow const& item : row.items) told.back().keys.push_back(item.key);
      try {
        if (backupOn) {
          moveTree(out, row.id, m_folders.backup.get(), MoveSync::byCaller);
        } else {
          removeTree(out, row.id);
        }
      } catch (std::exception const& e) {
        // The job is on the server; its local copy waits for the next sweep.
        logError(std::string("keeps job ") + row.id + " in the outgoing folder for now: " + e.what());
      }
    }
    if (backupOn) ::fsync(m_folders.backup.get());
  }
  for (PipelineEvent const& event : told) tell(event);
  std::lock_guard<std::mutex> lock(m_mutex);
  for (JobRow& row : rows) {
    m_open.erase(row.id);
    m_jobs[row.id].row = std::move(row);
  }
}

void Pipeline::Impl::finishJob(std::string const& jobId) {
  bool backupOn = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    backupOn = m_settings.BackupExpireSecs != 0;
  }
  std::lock_guard<std::mutex> moves(m_moveMutex);
  int const out = m_folders.outgoing.get();
  try {
    if (backupOn) {
      moveTree(out, jobId, m_folders.backup.get());
    } else {
      removeTree(out, jobId);
    }
  } catch (std::exception const& e) {
    // The job is on the server; its local copy waits for the next sweep.
    logError(std::string("keeps job ") + jobId + " in the outgoing folder for now: " + e.what());
  }
}

void Pipeline::Impl::giveUp(std::string const& jobId, JobState state, std::string const& rule,
                            std::string const& message) {
  std::lock_guard<std::mutex> moves(m_moveMutex);
  giveUpLocked(jobId, state, rule, message);
}

void Pipeline::Impl::giveUpLocked(std::string const& jobId, JobState state, std::string const& rule,
                                  std::string const& message) {
  JobRow row;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const it = m_jobs.find(jobId);
    if (it == m_jobs.end()) {
      logError(std::string("cannot give up job ") + jobId + ": the service has no such job");
      return;
    }
    row = it->second.row;
  }
  // A final job here is one whose move a crash interrupted: told already.
  bool const news = !isFinal(row.state);
  row.state = state;
  row.lastError = message;
  row.nextTry = 0;
  row.updated = unixNow();
  try {
    m_journal->update(row);  // first: a crash before the move below redoes the move
  } catch (std::exception const& e) {
    logError(std::string("cannot record job ") + jobId + ": " + e.what());
    return;
  }
  if (news && (state == JobState::rejected || state == JobState::failed)) {
    // A person's cancel or discard is no news to mail.
    bool const byServer = rule == "server" || rule == "expired";
    tell(PipelineEvent{PipelineEvent::Kind::rejected, row.title, filesOf(row), {},
                       rule == "server"    ? std::string("refused by the server")
                       : rule == "expired" ? std::string("not uploaded within the retry window")
                                           : message,
                       row.attempts, byServer ? message : std::string()});
  }
  // The list shows the new state once the files are where it says.
  struct Publish {
    Impl& impl;
    JobRow const& row;
    ~Publish() {
      std::lock_guard<std::mutex> lock(impl.m_mutex);
      impl.m_open.erase(row.id);
      impl.m_jobs[row.id].row = row;
    }
  } const publish{*this, row};
  int const out = m_folders.outgoing.get();
  FolderFd const jobDir(::openat(out, jobId.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!jobDir.valid()) return;
  try {
    struct stat st {};
    if (::fstatat(jobDir.get(), row.title.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
      // Someone removed the drop from the outgoing folder: nothing of it is
      // left to keep, only what the service made from it.
      removeTree(out, jobId);
      logWarning(std::string(jobStateName(state)) + " job " + jobId + " (\"" + shownName(row) + "\"): " + message);
      return;
    }
    // The person's drop goes to the rejected folder; archives made from it
    // are the service's own and are removed.
    std::string const where = reject(jobDir.get(), row.title, m_folders.rejected.get(), rule, message, unixNow());
    removeTree(out, jobId);
    logWarning(std::string(jobStateName(state)) + " job " + jobId + " (\"" + shownName(row) + "\"): " + message +
               "; moved to \"" + (m_folders.rejectedPath / where).string() + "\"");
  } catch (std::exception const& e) {
    logError(std::string("cannot move job ") + jobId + " to the rejected folder: " + e.what());
  }
}

std::vector<std::string> Pipeline::Impl::discardWaiting() {
  std::lock_guard<std::mutex> moves(m_moveMutex);
  if (!m_journal) return {};
  if (!m_folders.rejected.valid()) throw std::runtime_error("the rejected folder cannot be used");
  std::vector<std::pair<std::string, std::string>> waiting;  // id, name
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto const& j : m_jobs) {
      if (j.second.row.state == JobState::queued && j.second.tickets.empty()) {
        waiting.emplace_back(j.first, shownName(j.second.row));
      }
    }
  }
  std::vector<std::string> moved;
  for (auto const& w : waiting) {
    giveUpLocked(w.first, JobState::cancelled, "discarded", "discarded when the service was paused");
    moved.push_back(w.second + " (job " + w.first + ")");
  }
  // Items not claimed yet wait too.
  Settings const settings = currentSettings();
  int const in = m_folders.incoming.get();
  for (std::string const& name : entriesOf(in, m_folders.incomingPath)) {
    if (settings.isIgnoredExtension(fs::path(name))) continue;
    std::string const where = reject(in, name, m_folders.rejected.get(), "discarded",
                                     "discarded when the service was paused", unixNow());
    logInfo("discarded \"" + name + "\"; moved to \"" + (m_folders.rejectedPath / where).string() + "\"");
    moved.push_back(name);
  }
  return moved;
}

void Pipeline::Impl::sweepBackups() {
  if (!m_journal || !m_folders.backup.valid()) return;
  std::uint32_t expire = 0;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    expire = m_settings.BackupExpireSecs;
  }
  // Jobs done whose local copy could not be moved or removed before.
  std::vector<std::string> stuck;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto const& j : m_jobs) {
      if (j.second.row.state != JobState::done) continue;
      struct stat st {};
      if (::fstatat(m_folders.outgoing.get(), j.first.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) stuck.push_back(j.first);
    }
  }
  for (std::string const& id : stuck) finishJob(id);
  if (expire == 0 || expire == 0xFFFFFFFFu) return;
  std::lock_guard<std::mutex> moves(m_moveMutex);
  int const backup = m_folders.backup.get();
  std::int64_t const unow = unixNow();
  std::vector<std::string> names;
  try {
    names = entriesOf(backup, m_folders.backupPath);
  } catch (std::exception const& e) {
    logError(std::string("cannot read the backup folder: ") + e.what());
    return;
  }
  for (std::string const& name : names) {
    if (!isJobId(name)) continue;
    struct stat st {};
    if (::fstatat(backup, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) continue;
    // The folder's change time is when it moved to the backup.
    if (unow - static_cast<std::int64_t>(st.st_ctime) < static_cast<std::int64_t>(expire)) continue;
    try {
      removeTree(backup, name);
      logInfo("removed the backup of job " + name + ": older than " + std::to_string(expire) + " s");
    } catch (std::exception const& e) {
      logError(std::string("cannot remove the backup of job ") + name + ": " + e.what());
    }
  }
}

void Pipeline::Impl::cleanUpOrphans() {
  std::shared_ptr<UploadEngine> const e = engine();
  if (e && m_journal && !m_targets.empty()) {
    std::set<std::string> owned;
    for (JobRow const& row : m_journal->jobs()) {
      for (ItemRow const& item : row.items) {
        if (!item.uploadId.empty()) owned.insert(item.uploadId);
      }
    }
    for (Target const& target : m_targets) {
      try {
        std::size_t const n = e->abortOrphans(target, owned);
        if (n > 0) logInfo("aborted " + std::to_string(n) + " multipart upload(s) that no job owns at " + target.display());
      } catch (std::exception const& ex) {
        logWarning(std::string("could not look for abandoned multipart uploads: ") + ex.what());
      }
    }
  }
  m_cleanedUp = true;
  wake();
}

std::string Pipeline::Impl::activity() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_paused) {
    std::time_t const since = static_cast<std::time_t>(m_pausedSince);
    std::tm utc{};
    char text[32] = "";
    if (::gmtime_r(&since, &utc) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
    return std::string("paused since ") + text;
  }
  std::string const& held = !m_folderProblem.empty() ? m_folderProblem : m_held;
  if (!held.empty()) return "holding: " + held;
  if (!m_looping) return "starting";
  std::size_t uploading = 0;
  std::size_t queued = 0;
  for (auto const& open : m_open) {
    if (open.second->row.state == JobState::uploading) ++uploading;
    if (open.second->row.state == JobState::queued) ++queued;
  }
  std::string const waiting = std::to_string(queued) + " queued";
  if (uploading > 0) return "uploading " + std::to_string(uploading) + (queued > 0 ? ", " + waiting : std::string());
  return queued > 0 ? waiting : std::string("idle");
}

// ---------------------------------------------------------------------------
// The list.

json::Array Pipeline::Impl::waitingItems() const {
  json::Array list;
  std::lock_guard<std::mutex> moves(m_moveMutex);
  if (!m_folders.incoming.valid()) return list;
  Settings const settings = currentSettings();
  int const in = m_folders.incoming.get();
  std::vector<std::string> names;
  try {
    names = entriesOf(in, m_folders.incomingPath);
  } catch (std::exception const&) {
    return list;  // the log says why at the next scan
  }
  for (std::string const& name : names) {
    if (settings.isIgnoredExtension(fs::path(name))) continue;
    struct stat st {};
    if (::fstatat(in, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone meanwhile
    std::uint64_t size = S_ISREG(st.st_mode) ? static_cast<std::uint64_t>(st.st_size) : 0;
    if (S_ISDIR(st.st_mode)) {
      FolderFd const folder(::openat(in, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      try {
        if (folder.valid()) {
          for (JobFile const& f : filesOf(folder.get())) size += f.size;
        }
      } catch (std::exception const&) {
        // Unreadable inside: listed without a size; the scan will say why.
      }
    }
    json::Object item;
    item.setAt("name", json::Value(name));
    item.setAt("size", json::Value(static_cast<json_int_t>(size)));
    list.append(item);
  }
  return list;
}

json::Object Pipeline::Impl::uploads() const {
  json::Array const waiting = paused() ? waitingItems() : json::Array();
  std::map<std::uint64_t, std::uint64_t> sentByTicket;
  double throughput = 0;
  if (std::shared_ptr<UploadEngine> const e = engine()) {
    for (TransferProgress const& p : e->inFlight()) sentByTicket[p.ticket] = p.bytesSent;
    throughput = e->throughput();
  }
  json::Array list;
  std::map<std::string, json_int_t> totals;
  for (JobState s : {JobState::queued, JobState::uploading, JobState::done, JobState::failed, JobState::rejected,
                     JobState::cancelled}) {
    totals[jobStateName(s)] = 0;
  }
  json::Object obj;
  std::lock_guard<std::mutex> lock(m_mutex);
  for (auto const& j : m_jobs) {
    JobRow const& row = j.second.row;
    std::uint64_t size = 0;
    std::uint64_t sent = 0;
    for (ItemRow const& item : row.items) {
      size += item.size;
      if (item.done) sent += item.size;
    }
    for (auto const& t : j.second.tickets) {
      auto const p = sentByTicket.find(t.second);
      if (p != sentByTicket.end()) sent += p->second;
    }
    json::Object job;
    job.setAt("id", json::Value(row.id));
    job.setAt("name", json::Value(shownName(row)));
    job.setAt("state", json::Value(jobStateName(row.state)));
    job.setAt("size", json::Value(static_cast<json_int_t>(size)));
    job.setAt("sent", json::Value(static_cast<json_int_t>(std::min(sent, size))));
    job.setAt("attempts", json::Value(static_cast<json_int_t>(row.attempts)));
    if (row.state == JobState::queued && row.nextTry > 0) job.setAt("nextTry", json::Value(static_cast<json_int_t>(row.nextTry)));
    if (!row.lastError.empty()) job.setAt("error", json::Value(row.lastError));
    if (!row.items.empty()) job.setAt("key", json::Value(row.items.front().key));
    job.setAt("created", json::Value(static_cast<json_int_t>(row.created)));
    job.setAt("updated", json::Value(static_cast<json_int_t>(row.updated)));
    list.append(job);
    ++totals[jobStateName(row.state)];
  }
  json::Object totalsObj;
  for (auto const& t : totals) totalsObj.setAt(t.first.c_str(), json::Value(t.second));
  obj.setAt("uploads", list);
  obj.setAt("totals", totalsObj);
  obj.setAt("throughput", json::Value(static_cast<json_int_t>(throughput)));
  if (m_paused) {
    obj.setAt("paused", json::Value(json_true()));
    obj.setAt("pausedSince", json::Value(static_cast<json_int_t>(m_pausedSince)));
    obj.setAt("waiting", waiting);
  }
  std::string const held = !m_folderProblem.empty() ? m_folderProblem : m_held;
  if (!held.empty()) obj.setAt("held", json::Value(held));
  return obj;
}

// ---------------------------------------------------------------------------

Pipeline::Pipeline(Settings const& settings, PipelineOptions options)
    : m_impl(std::make_unique<Impl>(settings, std::move(options))) {}
Pipeline::~Pipeline() = default;
void Pipeline::start() { m_impl->start(); }
std::shared_ptr<Journal> Pipeline::journal() const { return m_impl->journal(); }
void Pipeline::stop() { m_impl->stop(); }
void Pipeline::setSettings(Settings const& settings) { m_impl->setSettings(settings); }
std::vector<std::string> Pipeline::pause(bool discard) { return m_impl->pause(discard); }
void Pipeline::resume() { m_impl->resume(); }
bool Pipeline::paused() const { return m_impl->paused(); }
fs::path Pipeline::credentialsFile() const { return m_impl->credentialsFile(); }
std::string Pipeline::activity() const { return m_impl->activity(); }
void Pipeline::scanNow() { m_impl->scanNow(); }
json::Object Pipeline::uploads() const { return m_impl->uploads(); }
std::string Pipeline::cancel(std::string const& jobId) { return m_impl->cancel(jobId); }
std::string Pipeline::retry(std::string const& jobId) { return m_impl->retry(jobId); }

}  // namespace qxsvc
