// The service's journal of upload jobs: one SQLite database in WAL mode in
// the service's state folder ("/var/lib/qxlite/journal.db").
//
// The spool folders are the truth and the journal is their index: it holds
// what the folders cannot (state, attempts, next try, bytes sent, the
// multipart upload id and its parts, the last error). A job's row is written
// after its folder exists and removed after its folder is gone, so after any
// crash a folder may lack a row (the pipeline adopts it) or a row may lack a
// folder (the pipeline drops it); neither ever deletes a user's file.
//
// Journal opens the file it is given and picks no folder of its own:
// "/var/lib/qxlite" is where the service keeps it by default.
//
// A database that cannot be read as a journal (not SQLite, a wrong schema,
// corrupt pages) is moved aside to "journal.db.corrupt-<unix time>" (with
// its "-wal" beside it, if any) and a new one is made; open() says so in its
// note, for the log. A passing failure (I/O error, a lock held too long) moves
// nothing: open() throws. A link in the journal's place is not followed.
//
// Every write is one transaction, durable when the call returns
// (synchronous=FULL): after a crash the journal holds every write whose call
// returned and no part of one that had not. Every member may be called from
// any thread; calls are serialised on one connection.
#ifndef QX_APPS_SVC_UPLOAD_JOURNAL_H
#define QX_APPS_SVC_UPLOAD_JOURNAL_H

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace qxsvc {

// A job's life: queued -> uploading -> done; uploading -> queued (to be
// tried again at nextTry); queued/uploading -> failed (given up after the
// retry window: the job goes to the rejected folder), rejected (the server
// or the rules refused it), cancelled (a person cancelled it). done, failed,
// rejected and cancelled are final. The names are those of GetUploads.
enum class JobState { queued, uploading, done, failed, rejected, cancelled };

char const* jobStateName(JobState state);
// The state named name; false when there is none.
bool jobStateFromName(std::string const& name, JobState& state);

struct PartRow {
  unsigned number = 0;
  std::uint64_t size = 0;
  std::string etag;
};

// One file of a job, uploaded under its own key.
struct ItemRow {
  std::string name;          // path inside the job folder
  std::uint64_t size = 0;
  std::int64_t mtimeNs = 0;  // at hashing, to notice a change cheaply
  std::string sha256;        // lower-case hex
  std::string key;           // object key; the final one once done
  bool done = false;
  std::string uploadId;      // multipart upload in progress, or empty
  std::vector<PartRow> parts;  // parts the server confirmed, read back by number
};

struct JobRow {
  std::string id;     // the job folder's name
  std::string title;  // what a person dropped: a file's or a folder's name
  JobState state = JobState::queued;
  std::int64_t created = 0;  // unix seconds
  std::int64_t updated = 0;
  std::int64_t nextTry = 0;  // unix seconds; 0: at once
  unsigned attempts = 0;
  std::uint64_t bytesSent = 0;
  std::string lastError;
  std::string label;  // what the list shows: the file's name, or a folder's files; empty: title
  std::vector<ItemRow> items;  // read back in the order written
};

// An e-mail notice waiting to be sent (notify/Notifier.h): what happened,
// already in words, and the kind of event that notices are gathered by.
struct NoticeRow {
  std::int64_t id = 0;  // given by addNotice()
  std::string kind;
  std::int64_t created = 0;  // unix seconds
  std::string text;
};

class Journal {
 public:
  // Opens or makes the journal at file (its folder must exist). note gets a
  // line for the log when the file was missing or empty
  // ("made a new journal \"<file>\""), was of an earlier schema and brought
  // up to date ("brought the journal \"<file>\" from schema version 1 to
  // 3"), or was moved aside as corrupt, and is empty otherwise. Throws std::runtime_error naming the file when no
  // journal can be made there at all.
  static std::unique_ptr<Journal> open(boost::filesystem::path const& file, std::string& note);
  ~Journal();
  Journal(Journal const&) = delete;
  Journal& operator=(Journal const&) = delete;

  // Adds a job with its items; replaces nothing (throws if the id exists).
  void insert(JobRow const& job);
  // Writes the job's fields and every item's fields and parts.
  void update(JobRow const& job);
  // The same for many jobs in one transaction, so that a burst of them costs
  // one sync: every row is written, or none (the message names the job that
  // was refused). An empty list writes nothing.
  void insertAll(std::vector<JobRow> const& jobs);
  void updateAll(std::vector<JobRow> const& jobs);
  // Records the multipart upload id of an item (empty: none). The parts of
  // an upload id belong to it: a different id forgets them.
  void setUploadId(std::string const& jobId, std::string const& item, std::string const& uploadId);
  // Records one stored part of an item's multipart upload.
  void addPart(std::string const& jobId, std::string const& item, PartRow const& part);
  void remove(std::string const& jobId);

  std::optional<JobRow> job(std::string const& jobId) const;
  // Every job, oldest first.
  std::vector<JobRow> jobs() const;

  // Keeps a notice; returns its id (increasing).
  std::int64_t addNotice(NoticeRow const& notice);
  // Forgets the notices of these ids (sent, or dropped); missing ones are no
  // error.
  void removeNotices(std::vector<std::int64_t> const& ids);
  // Every notice kept, oldest first.
  std::vector<NoticeRow> notices() const;

  // Every write above throws std::runtime_error with SQLite's message and
  // the job id when the database refuses it (disk full, I/O error), and
  // leaves the journal as it was before the call. update(), setUploadId()
  // and addPart() throw the same way for a job or item that is not there;
  // remove() of a missing job does nothing. The reads throw
  // std::runtime_error naming the file when the database cannot be read.

 private:
  struct Statements;
  Journal(sqlite3* db, std::unique_ptr<Statements> statements, boost::filesystem::path file);

  boost::filesystem::path const m_file;
  mutable std::mutex m_mutex;
  sqlite3* const m_db;                       // guarded by m_mutex
  std::unique_ptr<Statements> m_statements;  // guarded by m_mutex
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_JOURNAL_H
