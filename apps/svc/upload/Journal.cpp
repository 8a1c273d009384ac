#include "apps/svc/upload/Journal.h"

#include <sqlite3.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <map>
#include <stdexcept>
#include <utility>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

// The schema is the first version's (kSchema) changed by each migration in
// turn; PRAGMA user_version counts the versions applied. A journal of an
// earlier version is brought up to date when opened; one of a later version
// (a newer service's) is not read.
// How long a statement waits for a lock that another connection holds (an
// administrator's reader, a second service started by mistake).
constexpr int kBusyTimeoutMs = 5000;

// The text of each state in the database is its name in GetUploads. The
// names are part of the file's format (the CHECK of jobs.state lists them):
// changing one makes a new schema version.
struct StateName {
  JobState state;
  char const* name;
};
constexpr StateName kStateNames[] = {
    {JobState::queued, "queued"},     {JobState::uploading, "uploading"},
    {JobState::done, "done"},         {JobState::failed, "failed"},
    {JobState::rejected, "rejected"}, {JobState::cancelled, "cancelled"},
};

// Unsigned 64-bit sizes are stored as the signed integers of the same bits.
// STRICT tables and the CHECKs keep a hostile or damaged row from being read
// as something else; open() runs the integrity check that enforces them.
constexpr char kSchema[] = R"(
CREATE TABLE jobs (
  id TEXT NOT NULL PRIMARY KEY,
  title TEXT NOT NULL,
  state TEXT NOT NULL
    CHECK (state IN ('queued', 'uploading', 'done', 'failed', 'rejected', 'cancelled')),
  created INTEGER NOT NULL,
  updated INTEGER NOT NULL,
  next_try INTEGER NOT NULL,
  attempts INTEGER NOT NULL CHECK (attempts BETWEEN 0 AND 4294967295),
  bytes_sent INTEGER NOT NULL,
  last_error TEXT NOT NULL
) STRICT;
CREATE TABLE items (
  job_id TEXT NOT NULL REFERENCES jobs (id) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  size INTEGER NOT NULL,
  mtime_ns INTEGER NOT NULL,
  sha256 TEXT NOT NULL,
  object_key TEXT NOT NULL,
  done INTEGER NOT NULL CHECK (done IN (0, 1)),
  upload_id TEXT NOT NULL,
  PRIMARY KEY (job_id, name)
) STRICT;
CREATE TABLE parts (
  job_id TEXT NOT NULL,
  item TEXT NOT NULL,
  number INTEGER NOT NULL CHECK (number BETWEEN 0 AND 4294967295),
  size INTEGER NOT NULL,
  etag TEXT NOT NULL,
  PRIMARY KEY (job_id, item, number),
  FOREIGN KEY (job_id, item) REFERENCES items (job_id, name) ON DELETE CASCADE
) STRICT;
)";

constexpr char const* kMigrations[] = {
    // 2: what the list shows of a job, apart from the name of its drop.
    "ALTER TABLE jobs ADD COLUMN label TEXT NOT NULL DEFAULT '';",
    // 3: the e-mail notices waiting to be sent.
    "CREATE TABLE notices (\n"
    "  id INTEGER PRIMARY KEY,\n"
    "  kind TEXT NOT NULL,\n"
    "  created INTEGER NOT NULL,\n"
    "  text TEXT NOT NULL\n"
    ") STRICT;",
};
constexpr int kSchemaVersion = 1 + static_cast<int>(sizeof kMigrations / sizeof *kMigrations);

constexpr char kJobColumns[] =
    "id, title, state, created, updated, next_try, attempts, bytes_sent, last_error, label";
constexpr char kItemColumns[] = "name, size, mtime_ns, sha256, object_key, done, upload_id";

std::string quoted(fs::path const& file) { return "\"" + file.string() + "\""; }
std::string quoted(std::string const& text) { return "\"" + text + "\""; }

// What SQLite (or the journal's own rules) refused, without the context the
// public members add.
class Failure : public std::runtime_error {
 public:
  explicit Failure(std::string const& why, int code = SQLITE_ERROR)
      : std::runtime_error(why), m_code(code) {}
  static Failure of(sqlite3* db, int code) { return Failure(sqlite3_errmsg(db), code); }
  // Whether the database cannot be read as SQLite at all or its pages are
  // damaged: the cases in which open() moves the file aside.
  bool corrupt() const { return (m_code & 0xff) == SQLITE_CORRUPT || (m_code & 0xff) == SQLITE_NOTADB; }

 private:
  int m_code;
};

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using DbHandle = std::unique_ptr<sqlite3, DbCloser>;

// A statement prepared once for the connection's life.
class Statement {
 public:
  Statement(sqlite3* db, std::string const& sql) {
    int const rc = sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size() + 1),
                                      SQLITE_PREPARE_PERSISTENT, &m_stmt, nullptr);
    if (rc != SQLITE_OK) {
      Failure const failure = Failure::of(db, rc);
      sqlite3_finalize(m_stmt);
      throw failure;
    }
  }
  ~Statement() { sqlite3_finalize(m_stmt); }
  Statement(Statement const&) = delete;
  Statement& operator=(Statement const&) = delete;

  sqlite3_stmt* get() const { return m_stmt; }

 private:
  sqlite3_stmt* m_stmt = nullptr;
};

// One run of a statement: binds its parameters, steps through its rows and
// reads their columns; resets the statement when it ends, so that no read
// stays open.
class Run {
 public:
  explicit Run(Statement& statement) : m_stmt(statement.get()) {}
  ~Run() {
    sqlite3_reset(m_stmt);
    sqlite3_clear_bindings(m_stmt);
  }
  Run(Run const&) = delete;
  Run& operator=(Run const&) = delete;

  Run& text(int index, std::string const& value) {
    check(sqlite3_bind_text64(m_stmt, index, value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
    return *this;
  }
  Run& integer(int index, std::int64_t value) {
    check(sqlite3_bind_int64(m_stmt, index, value));
    return *this;
  }
  Run& size(int index, std::uint64_t value) { return integer(index, static_cast<std::int64_t>(value)); }

  // Whether a row came; false once the statement is done.
  bool row() {
    int const rc = sqlite3_step(m_stmt);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    throw Failure::of(sqlite3_db_handle(m_stmt), rc);
  }
  // Runs a statement that returns no rows.
  void done() {
    while (row()) {
    }
  }

  std::string text(int column) const {
    auto const* bytes = sqlite3_column_text(m_stmt, column);
    int const length = sqlite3_column_bytes(m_stmt, column);
    return bytes ? std::string(reinterpret_cast<char const*>(bytes), static_cast<std::size_t>(length))
                 : std::string();
  }
  std::int64_t integer(int column) const { return sqlite3_column_int64(m_stmt, column); }
  std::uint64_t size(int column) const { return static_cast<std::uint64_t>(integer(column)); }
  // An integer column that must fit an unsigned; what is named in the error.
  unsigned count(int column, char const* what) const {
    std::int64_t const value = integer(column);
    if (value < 0 || value > std::numeric_limits<unsigned>::max()) {
      throw Failure(std::string(what) + " out of range: " + std::to_string(value), SQLITE_CORRUPT);
    }
    return static_cast<unsigned>(value);
  }

 private:
  void check(int rc) {
    if (rc != SQLITE_OK) throw Failure::of(sqlite3_db_handle(m_stmt), rc);
  }

  sqlite3_stmt* m_stmt;
};

// A transaction that rolls back unless committed. A failed COMMIT may have
// rolled back already; the connection tells.
class Transaction {
 public:
  Transaction(Statement& begin, Statement& commit, Statement& rollback)
      : m_commit(commit), m_rollback(rollback) {
    Run(begin).done();
  }
  ~Transaction() {
    if (m_committed || sqlite3_get_autocommit(sqlite3_db_handle(m_rollback.get()))) return;
    sqlite3_step(m_rollback.get());
    sqlite3_reset(m_rollback.get());
  }
  Transaction(Transaction const&) = delete;
  Transaction& operator=(Transaction const&) = delete;

  void commit() {
    Run(m_commit).done();
    m_committed = true;
  }

 private:
  Statement& m_commit;
  Statement& m_rollback;
  bool m_committed = false;
};

// The first column of every row of sql, as text: for pragmas and the schema.
std::vector<std::string> firstColumn(sqlite3* db, char const* sql) {
  Statement statement(db, sql);
  Run run(statement);
  std::vector<std::string> values;
  while (run.row()) values.push_back(run.text(0));
  return values;
}

void execute(sqlite3* db, char const* sql) {
  int const rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) throw Failure::of(db, rc);
}

// Every table and index of the database with its SQL: equal for two
// databases of the same schema.
std::vector<std::string> schemaOf(sqlite3* db) {
  return firstColumn(db,
                     "SELECT type || ' ' || name || ' ' || tbl_name || ' ' || ifnull(sql, '') "
                     "FROM sqlite_schema ORDER BY name");
}

// The statements that bring a journal of version from (0: none) to the
// current one.
std::string migrationsFrom(int from) {
  std::string text = from == 0 ? kSchema : "";
  for (int version = std::max(from, 1); version < kSchemaVersion; ++version) text += kMigrations[version - 1];
  return text;
}

// The schema's text of each version, as SQLite keeps it.
std::vector<std::string> const& journalSchema(int version) {
  static std::vector<std::vector<std::string>> const schemas = [] {
    std::vector<std::vector<std::string>> all;
    sqlite3* raw = nullptr;
    int const rc = sqlite3_open_v2(":memory:", &raw, SQLITE_OPEN_READWRITE, nullptr);
    DbHandle db(raw);
    if (rc != SQLITE_OK) throw Failure(raw ? sqlite3_errmsg(raw) : "out of memory", rc);
    execute(db.get(), kSchema);
    all.push_back(schemaOf(db.get()));
    for (char const* migration : kMigrations) {
      execute(db.get(), migration);
      all.push_back(schemaOf(db.get()));
    }
    return all;
  }();
  return schemas[static_cast<std::size_t>(version - 1)];
}

enum class Verdict { journal, empty, foreign };
struct Inspection {
  Verdict verdict;
  std::string why;  // of a foreign one, for the note
  int version = 0;  // of a journal's schema
};

Inspection inspect(sqlite3* db) {
  try {
    std::vector<std::string> const version = firstColumn(db, "PRAGMA user_version");
    std::vector<std::string> const schema = schemaOf(db);
    std::string const versionText = version.empty() ? "0" : version.front();
    if (schema.empty() && versionText == "0") return {Verdict::empty, "", 0};
    int number = 0;
    for (int v = 1; v <= kSchemaVersion; ++v) {
      if (versionText == std::to_string(v)) number = v;
    }
    if (number == 0) {
      // A journal's tables under a version this service does not know (a
      // newer service's), or not a journal at all.
      bool journalTables = false;
      for (int v = 1; v <= kSchemaVersion; ++v) journalTables = journalTables || schema == journalSchema(v);
      if (!journalTables) return {Verdict::foreign, "another program's tables", 0};
      return {Verdict::foreign,
              "schema version " + versionText + ", expected " + std::to_string(kSchemaVersion), 0};
    }
    if (schema != journalSchema(number)) return {Verdict::foreign, "another program's tables", 0};
    std::vector<std::string> const check = firstColumn(db, "PRAGMA integrity_check");
    if (check.size() != 1 || check.front() != "ok") return {Verdict::foreign, "corrupt pages", 0};
    return {Verdict::journal, "", number};
  } catch (Failure const& failure) {
    if (!failure.corrupt()) throw;
    return {Verdict::foreign,
            std::string(failure.what()) == "file is not a database" ? "not an SQLite database" : "corrupt pages", 0};
  }
}

void fsyncFolderOf(fs::path const& file) {
  fs::path const folder = file.has_parent_path() ? file.parent_path() : fs::path(".");
  int const fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot open " + quoted(folder) + ": " + std::strerror(errno));
  int const rc = ::fsync(fd);
  int const err = errno;
  ::close(fd);
  if (rc != 0) throw std::runtime_error("cannot sync " + quoted(folder) + ": " + std::strerror(err));
}

// Moves file, and its write-ahead log or rollback journal if any, to
// "<file>.corrupt-<now>" (then "_1", "_2", ... if taken), each with its
// suffix; the shared-memory index is rebuilt from the log and goes. A
// leftover log would otherwise be replayed into the new journal. Returns the
// new name of file.
fs::path moveAside(fs::path const& file) {
  std::string const base = file.string() + ".corrupt-" + std::to_string(std::time(nullptr));
  std::string aside;
  for (unsigned n = 0;; ++n) {
    aside = n == 0 ? base : base + "_" + std::to_string(n);
    if (::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) break;
    if (errno != EEXIST) {
      throw std::runtime_error("cannot move " + quoted(file) + " aside to " + quoted(aside) + ": " +
                               std::strerror(errno));
    }
  }
  for (char const* suffix : {"-wal", "-journal"}) {
    std::string const from = file.string() + suffix;
    std::string const to = aside + suffix;
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) continue;
    // An empty log (opening a database in WAL mode makes one) holds nothing.
    bool const moved = S_ISREG(st.st_mode) && st.st_size == 0
                           ? ::unlink(from.c_str()) == 0
                           : ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
    if (!moved && errno != ENOENT) {
      throw std::runtime_error("cannot move " + quoted(from) + " aside to " + quoted(to) + ": " +
                               std::strerror(errno));
    }
  }
  std::string const shm = file.string() + "-shm";
  if (::unlink(shm.c_str()) != 0 && errno != ENOENT) {
    throw std::runtime_error("cannot remove " + quoted(shm) + ": " + std::strerror(errno));
  }
  fsyncFolderOf(file);
  return aside;
}

// Opens the database at file without following a link, with the settings
// that do not write: inspect() must leave a foreign file as it was.
DbHandle openDatabase(fs::path const& file) {
  sqlite3* raw = nullptr;
  int const rc = sqlite3_open_v2(file.c_str(), &raw,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW |
                                     SQLITE_OPEN_NOMUTEX,
                                 nullptr);
  DbHandle db(raw);
  if (rc != SQLITE_OK) throw Failure(raw ? sqlite3_errmsg(raw) : "out of memory", rc);
  sqlite3_extended_result_codes(db.get(), 1);
  sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
  // Closing would otherwise fold a foreign database's log into it.
  sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  return db;
}

// The settings of a journal's connection; the schema when it has none, or
// the migrations that bring an earlier one up to date, in one transaction.
void prepareJournal(sqlite3* db, Inspection const& inspection) {
  std::vector<std::string> const mode = firstColumn(db, "PRAGMA journal_mode = WAL");
  if (mode.size() != 1 || mode.front() != "wal") throw Failure("cannot switch to write-ahead logging");
  execute(db, "PRAGMA synchronous = FULL");
  execute(db, "PRAGMA foreign_keys = ON");
  sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  if (inspection.verdict == Verdict::empty || inspection.version < kSchemaVersion) {
    std::string const make = "BEGIN IMMEDIATE;" + migrationsFrom(inspection.version) +
                             "PRAGMA user_version = " + std::to_string(kSchemaVersion) + "; COMMIT;";
    int const rc = sqlite3_exec(db, make.c_str(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
      Failure const failure = Failure::of(db, rc);
      if (!sqlite3_get_autocommit(db)) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
      throw failure;
    }
  }
}

JobRow jobOf(Run const& row) {
  JobRow job;
  job.id = row.text(0);
  job.title = row.text(1);
  if (!jobStateFromName(row.text(2), job.state)) {
    throw Failure("job " + quoted(job.id) + " has the unknown state " + quoted(row.text(2)), SQLITE_CORRUPT);
  }
  job.created = row.integer(3);
  job.updated = row.integer(4);
  job.nextTry = row.integer(5);
  job.attempts = row.count(6, "attempts");
  job.bytesSent = row.size(7);
  job.lastError = row.text(8);
  job.label = row.text(9);
  return job;
}

// The item whose columns start at first (kItemColumns).
ItemRow itemOf(Run const& row, int first) {
  ItemRow item;
  item.name = row.text(first);
  item.size = row.size(first + 1);
  item.mtimeNs = row.integer(first + 2);
  item.sha256 = row.text(first + 3);
  item.key = row.text(first + 4);
  item.done = row.integer(first + 5) != 0;
  item.uploadId = row.text(first + 6);
  return item;
}

// The part whose columns (number, size, etag) start at first.
PartRow partOf(Run const& row, int first) {
  PartRow part;
  part.number = row.count(first, "part number");
  part.size = row.size(first + 1);
  part.etag = row.text(first + 2);
  return part;
}

}  // namespace

char const* jobStateName(JobState state) {
  for (StateName const& entry : kStateNames) {
    if (entry.state == state) return entry.name;
  }
  return "unknown";
}

bool jobStateFromName(std::string const& name, JobState& state) {
  for (StateName const& entry : kStateNames) {
    if (name == entry.name) {
      state = entry.state;
      return true;
    }
  }
  return false;
}

struct Journal::Statements {
  explicit Statements(sqlite3* db)
      : beginRead(db, "BEGIN"),
        beginWrite(db, "BEGIN IMMEDIATE"),
        commit(db, "COMMIT"),
        rollback(db, "ROLLBACK"),
        jobExists(db, "SELECT 1 FROM jobs WHERE id = ?1"),
        insertJob(db, std::string("INSERT INTO jobs (") + kJobColumns +
                          ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)"),
        updateJob(db,
                  "UPDATE jobs SET title = ?2, state = ?3, created = ?4, updated = ?5, next_try = ?6, "
                  "attempts = ?7, bytes_sent = ?8, last_error = ?9, label = ?10 WHERE id = ?1"),
        deleteJob(db, "DELETE FROM jobs WHERE id = ?1"),
        deleteItems(db, "DELETE FROM items WHERE job_id = ?1"),
        insertItem(db, std::string("INSERT INTO items (job_id, position, ") + kItemColumns +
                           ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)"),
        uploadIdOf(db, "SELECT upload_id FROM items WHERE job_id = ?1 AND name = ?2"),
        setUploadId(db, "UPDATE items SET upload_id = ?3 WHERE job_id = ?1 AND name = ?2"),
        deleteParts(db, "DELETE FROM parts WHERE job_id = ?1 AND item = ?2"),
        putPart(db,
                "INSERT INTO parts (job_id, item, number, size, etag) VALUES (?1, ?2, ?3, ?4, ?5) "
                "ON CONFLICT (job_id, item, number) DO UPDATE SET size = excluded.size, etag = excluded.etag"),
        selectJob(db, std::string("SELECT ") + kJobColumns + " FROM jobs WHERE id = ?1"),
        selectJobs(db, std::string("SELECT ") + kJobColumns + " FROM jobs ORDER BY created, rowid"),
        selectItemsOfJob(db, std::string("SELECT ") + kItemColumns +
                                 " FROM items WHERE job_id = ?1 ORDER BY position"),
        selectItems(db, std::string("SELECT job_id, ") + kItemColumns + " FROM items ORDER BY job_id, position"),
        selectPartsOfJob(db,
                         "SELECT item, number, size, etag FROM parts WHERE job_id = ?1 ORDER BY item, number"),
        selectParts(db, "SELECT job_id, item, number, size, etag FROM parts ORDER BY job_id, item, number"),
        insertNotice(db, "INSERT INTO notices (kind, created, text) VALUES (?1, ?2, ?3)"),
        deleteNotice(db, "DELETE FROM notices WHERE id = ?1"),
        selectNotices(db, "SELECT id, kind, created, text FROM notices ORDER BY id") {}

  Statement beginRead, beginWrite, commit, rollback;
  Statement jobExists, insertJob, updateJob, deleteJob;
  Statement deleteItems, insertItem, uploadIdOf, setUploadId;
  Statement deleteParts, putPart;
  Statement selectJob, selectJobs, selectItemsOfJob, selectItems, selectPartsOfJob, selectParts;
  Statement insertNotice, deleteNotice, selectNotices;
};

namespace {

// The job's columns, bound in the order of kJobColumns.
void bindJob(Run& run, JobRow const& job) {
  run.text(1, job.id)
      .text(2, job.title)
      .text(3, jobStateName(job.state))
      .integer(4, job.created)
      .integer(5, job.updated)
      .integer(6, job.nextTry)
      .integer(7, job.attempts)
      .size(8, job.bytesSent)
      .text(9, job.lastError)
      .text(10, job.label);
}

void putPart(Statement& putPart, std::string const& jobId, std::string const& item, PartRow const& part) {
  Run(putPart).text(1, jobId).text(2, item).integer(3, part.number).size(4, part.size).text(5, part.etag).done();
}

void insertItems(Statement& insertItem, Statement& putPartStatement, JobRow const& job) {
  for (std::size_t i = 0; i < job.items.size(); ++i) {
    ItemRow const& item = job.items[i];
    Run(insertItem)
        .text(1, job.id)
        .integer(2, static_cast<std::int64_t>(i))
        .text(3, item.name)
        .size(4, item.size)
        .integer(5, item.mtimeNs)
        .text(6, item.sha256)
        .text(7, item.key)
        .integer(8, item.done ? 1 : 0)
        .text(9, item.uploadId)
        .done();
    for (PartRow const& part : item.parts) putPart(putPartStatement, job.id, item.name, part);
  }
}

}  // namespace

std::unique_ptr<Journal> Journal::open(fs::path const& file, std::string& note) {
  note.clear();
  struct stat st {};
  if (::lstat(file.c_str(), &st) == 0) {
    if (S_ISLNK(st.st_mode)) throw std::runtime_error("journal " + quoted(file) + ": a link, not followed");
    if (!S_ISREG(st.st_mode)) throw std::runtime_error("journal " + quoted(file) + ": not a regular file");
  } else if (errno != ENOENT) {
    throw std::runtime_error("cannot open the journal " + quoted(file) + ": " + std::strerror(errno));
  }
  try {
    DbHandle db = openDatabase(file);
    Inspection inspection = inspect(db.get());
    if (inspection.verdict == Verdict::foreign) {
      db.reset();
      fs::path const aside = moveAside(file);
      db = openDatabase(file);
      Inspection const fresh = inspect(db.get());
      if (fresh.verdict != Verdict::empty) throw Failure("a new journal in its place is not empty");
      note = "moved the journal " + quoted(file) + " aside to " + quoted(aside) + " (" + inspection.why +
             ") and made a new one";
      inspection = fresh;
    } else if (inspection.verdict == Verdict::empty) {
      note = "made a new journal " + quoted(file);
    } else if (inspection.version < kSchemaVersion) {
      note = "brought the journal " + quoted(file) + " from schema version " + std::to_string(inspection.version) +
             " to " + std::to_string(kSchemaVersion);
    }
    prepareJournal(db.get(), inspection);
    if (inspection.verdict != Verdict::journal) fsyncFolderOf(file);
    auto statements = std::make_unique<Statements>(db.get());
    std::unique_ptr<Journal> journal(new Journal(db.get(), std::move(statements), file));
    db.release();
    return journal;
  } catch (std::runtime_error const& e) {
    note.clear();
    throw std::runtime_error("cannot open the journal " + quoted(file) + ": " + e.what());
  }
}

Journal::Journal(sqlite3* db, std::unique_ptr<Statements> statements, fs::path file)
    : m_file(std::move(file)), m_db(db), m_statements(std::move(statements)) {}

Journal::~Journal() {
  m_statements.reset();
  sqlite3_close_v2(m_db);
}

void Journal::insert(JobRow const& job) { insertAll(std::vector<JobRow>{job}); }

void Journal::insertAll(std::vector<JobRow> const& jobs) {
  if (jobs.empty()) return;
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  std::string const* current = &jobs.front().id;  // the job the message names
  try {
    Transaction transaction(s.beginWrite, s.commit, s.rollback);
    for (JobRow const& job : jobs) {
      current = &job.id;
      if (Run(s.jobExists).text(1, job.id).row()) throw Failure("a job of this id exists already");
      Run insertJob(s.insertJob);
      bindJob(insertJob, job);
      insertJob.done();
      insertItems(s.insertItem, s.putPart, job);
    }
    current = &jobs.front().id;
    transaction.commit();
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ", job " + quoted(*current) +
                             ": cannot insert: " + failure.what());
  }
}

void Journal::update(JobRow const& job) { updateAll(std::vector<JobRow>{job}); }

void Journal::updateAll(std::vector<JobRow> const& jobs) {
  if (jobs.empty()) return;
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  std::string const* current = &jobs.front().id;
  try {
    Transaction transaction(s.beginWrite, s.commit, s.rollback);
    for (JobRow const& job : jobs) {
      current = &job.id;
      Run updateJob(s.updateJob);
      bindJob(updateJob, job);
      updateJob.done();
      if (sqlite3_changes(m_db) == 0) throw Failure("no such job");
      Run(s.deleteItems).text(1, job.id).done();
      insertItems(s.insertItem, s.putPart, job);
    }
    current = &jobs.front().id;
    transaction.commit();
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ", job " + quoted(*current) +
                             ": cannot update: " + failure.what());
  }
}

void Journal::setUploadId(std::string const& jobId, std::string const& item, std::string const& uploadId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  try {
    Transaction transaction(s.beginWrite, s.commit, s.rollback);
    std::string current;
    {
      Run uploadIdOf(s.uploadIdOf);
      if (!uploadIdOf.text(1, jobId).text(2, item).row()) throw Failure("no such item");
      current = uploadIdOf.text(0);
    }
    if (current != uploadId) {
      Run(s.setUploadId).text(1, jobId).text(2, item).text(3, uploadId).done();
      Run(s.deleteParts).text(1, jobId).text(2, item).done();
    }
    transaction.commit();
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ", job " + quoted(jobId) +
                             ": cannot record the upload id of item " + quoted(item) + ": " + failure.what());
  }
}

void Journal::addPart(std::string const& jobId, std::string const& item, PartRow const& part) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  try {
    Transaction transaction(s.beginWrite, s.commit, s.rollback);
    if (!Run(s.uploadIdOf).text(1, jobId).text(2, item).row()) throw Failure("no such item");
    putPart(s.putPart, jobId, item, part);
    transaction.commit();
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ", job " + quoted(jobId) + ": cannot record part " +
                             std::to_string(part.number) + " of item " + quoted(item) + ": " + failure.what());
  }
}

void Journal::remove(std::string const& jobId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  try {
    Transaction transaction(s.beginWrite, s.commit, s.rollback);
    Run(s.deleteJob).text(1, jobId).done();
    transaction.commit();
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ", job " + quoted(jobId) +
                             ": cannot remove: " + failure.what());
  }
}

std::optional<JobRow> Journal::job(std::string const& jobId) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  try {
    Transaction transaction(s.beginRead, s.commit, s.rollback);
    std::optional<JobRow> job;
    {
      Run selectJob(s.selectJob);
      if (selectJob.text(1, jobId).row()) job = jobOf(selectJob);
    }
    if (job) {
      std::map<std::string, std::size_t> itemIndex;
      Run items(s.selectItemsOfJob);
      for (items.text(1, jobId); items.row();) {
        job->items.push_back(itemOf(items, 0));
        itemIndex[job->items.back().name] = job->items.size() - 1;
      }
      Run parts(s.selectPartsOfJob);
      for (parts.text(1, jobId); parts.row();) {
        auto const found = itemIndex.find(parts.text(0));
        if (found != itemIndex.end()) job->items[found->second].parts.push_back(partOf(parts, 1));
      }
    }
    transaction.commit();
    return job;
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ": cannot read job " + quoted(jobId) + ": " +
                             failure.what());
  }
}

std::vector<JobRow> Journal::jobs() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  try {
    Transaction transaction(s.beginRead, s.commit, s.rollback);
    std::vector<JobRow> jobs;
    std::map<std::string, std::size_t> jobIndex;
    {
      Run selectJobs(s.selectJobs);
      while (selectJobs.row()) {
        jobs.push_back(jobOf(selectJobs));
        jobIndex[jobs.back().id] = jobs.size() - 1;
      }
    }
    {
      Run items(s.selectItems);
      while (items.row()) {
        auto const found = jobIndex.find(items.text(0));
        if (found != jobIndex.end()) jobs[found->second].items.push_back(itemOf(items, 1));
      }
    }
    // The items are all in place: their addresses hold from here on.
    std::map<std::pair<std::string, std::string>, ItemRow*> itemOfName;
    for (JobRow& job : jobs) {
      for (ItemRow& item : job.items) itemOfName[{job.id, item.name}] = &item;
    }
    {
      Run parts(s.selectParts);
      while (parts.row()) {
        auto const found = itemOfName.find({parts.text(0), parts.text(1)});
        if (found != itemOfName.end()) found->second->parts.push_back(partOf(parts, 2));
      }
    }
    transaction.commit();
    return jobs;
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ": cannot read the jobs: " + failure.what());
  }
}

std::int64_t Journal::addNotice(NoticeRow const& notice) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  try {
    Transaction transaction(s.beginWrite, s.commit, s.rollback);
    Run(s.insertNotice).text(1, notice.kind).integer(2, notice.created).text(3, notice.text).done();
    std::int64_t const id = sqlite3_last_insert_rowid(m_db);
    transaction.commit();
    return id;
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ": cannot keep a notice of kind " + quoted(notice.kind) +
                             ": " + failure.what());
  }
}

void Journal::removeNotices(std::vector<std::int64_t> const& ids) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  try {
    Transaction transaction(s.beginWrite, s.commit, s.rollback);
    for (std::int64_t const id : ids) Run(s.deleteNotice).integer(1, id).done();
    transaction.commit();
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ": cannot remove notices: " + failure.what());
  }
}

std::vector<NoticeRow> Journal::notices() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  Statements& s = *m_statements;
  try {
    Transaction transaction(s.beginRead, s.commit, s.rollback);
    std::vector<NoticeRow> notices;
    {
      Run select(s.selectNotices);
      while (select.row()) notices.push_back(NoticeRow{select.integer(0), select.text(1), select.integer(2), select.text(3)});
    }
    transaction.commit();
    return notices;
  } catch (Failure const& failure) {
    throw std::runtime_error("journal " + quoted(m_file) + ": cannot read the notices: " + failure.what());
  }
}

}  // namespace qxsvc
