// The journal of upload jobs: every field back as written, whatever the
// names hold; refused writes with their messages; a missing or unreadable
// database; a process killed among its writes; a full disk; several threads.
#include "apps/svc/upload/Journal.h"
#include "tests/DropTestUtil.h"
#include "tests/TestUtil.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using qxsvc::ItemRow;
using qxsvc::JobRow;
using qxsvc::JobState;
using qxsvc::Journal;
using qxsvc::PartRow;

// Bytes outside printable ASCII as \xHH, so that a failure prints every name.
std::string shown(std::string const& text) {
  std::ostringstream out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out << c;
    } else {
      static char const hex[] = "0123456789abcdef";
      out << "\\x" << hex[c >> 4] << hex[c & 15];
    }
  }
  return out.str();
}

// Every field of a job, its items and their parts: equal texts, equal rows.
std::string describe(JobRow const& job) {
  std::ostringstream out;
  out << "job " << shown(job.id) << " title=" << shown(job.title) << " state=" << qxsvc::jobStateName(job.state)
      << " created=" << job.created << " updated=" << job.updated << " nextTry=" << job.nextTry
      << " attempts=" << job.attempts << " bytesSent=" << job.bytesSent << " lastError=" << shown(job.lastError)
      << " label=" << shown(job.label) << "\n";
  for (ItemRow const& item : job.items) {
    out << "  item " << shown(item.name) << " size=" << item.size << " mtimeNs=" << item.mtimeNs
        << " sha256=" << shown(item.sha256) << " key=" << shown(item.key) << " done=" << item.done
        << " uploadId=" << shown(item.uploadId) << "\n";
    for (PartRow const& part : item.parts) {
      out << "    part " << part.number << " size=" << part.size << " etag=" << shown(part.etag) << "\n";
    }
  }
  return out.str();
}

std::string describe(std::vector<JobRow> const& jobs) {
  std::string all;
  for (JobRow const& job : jobs) all += describe(job);
  return all;
}

JobRow simpleJob(std::string const& id, std::int64_t created = 1) {
  JobRow job;
  job.id = id;
  job.title = id + ".pdf";
  job.created = created;
  job.updated = created;
  ItemRow item;
  item.name = id + ".pdf";
  item.size = 4;
  item.sha256 = std::string(64, 'a');
  job.items.push_back(item);
  return job;
}

std::unique_ptr<Journal> openJournal(fs::path const& file) {
  std::string note;
  return Journal::open(file, note);
}

// Runs sql on a database at file as another program would. keepLog leaves
// the write-ahead log beside the file instead of folding it in at the close.
void runOnDatabase(fs::path const& file, std::string const& sql, bool keepLog = false) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db)) << sqlite3_errmsg(db);
  if (keepLog) sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  char* error = nullptr;
  int const rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
  std::string const message = error ? error : "";
  sqlite3_free(error);
  sqlite3_close(db);
  ASSERT_EQ(SQLITE_OK, rc) << message;
}

// The names in folder that start with prefix.
std::vector<std::string> namesStartingWith(fs::path const& folder, std::string const& prefix) {
  std::vector<std::string> names;
  for (std::string const& name : qxtest::listNames(folder)) {
    if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
  }
  return names;
}

class JournalTest : public ::testing::Test {
 protected:
  fs::path file() const { return m_dir / "journal.db"; }

  qxtest::TempDir m_dir;
};

TEST(JournalState, EveryStateHasItsNameBothWays) {
  struct Row {
    JobState state;
    char const* name;
  };
  Row const rows[] = {{JobState::queued, "queued"}, {JobState::uploading, "uploading"},
                      {JobState::done, "done"},     {JobState::failed, "failed"},
                      {JobState::rejected, "rejected"}, {JobState::cancelled, "cancelled"}};
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_STREQ(row.name, qxsvc::jobStateName(row.state));
    JobState state = JobState::queued;
    EXPECT_TRUE(qxsvc::jobStateFromName(row.name, state));
    EXPECT_EQ(row.state, state);
  }
  for (char const* name : {"", "Queued", "queued ", "unknown", "done\n"}) {
    SCOPED_TRACE(shown(name));
    JobState state = JobState::uploading;
    EXPECT_FALSE(qxsvc::jobStateFromName(name, state));
    EXPECT_EQ(JobState::uploading, state);
  }
}

// Rows that between them give every field its extremes and odd texts.
std::vector<JobRow> roundTripRows() {
  std::vector<JobRow> rows;
  JobRow blank;
  blank.id = "blank";
  rows.push_back(blank);

  JobRow extremes;
  extremes.id = "20261123T203341Z-0badf00d";
  extremes.title = "Quarterly report";
  extremes.state = JobState::uploading;
  extremes.created = std::numeric_limits<std::int64_t>::min();
  extremes.updated = std::numeric_limits<std::int64_t>::max();
  extremes.nextTry = -1;
  extremes.attempts = std::numeric_limits<unsigned>::max();
  extremes.bytesSent = std::numeric_limits<std::uint64_t>::max();
  extremes.lastError = "HTTP 503 \"Slow Down\"\nretry after 30 s";
  ItemRow big;
  big.name = "big.iso";
  big.size = std::numeric_limits<std::uint64_t>::max();
  big.mtimeNs = std::numeric_limits<std::int64_t>::min();
  big.sha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
  big.key = "uploads/2026/11/23/big.iso";
  big.done = true;
  big.uploadId = "2~q1w2e3r4t5y6u7i8o9p0";
  big.parts = {{0, 0, ""},
               {1, 5242880, "\"9b2cf535f27731c974343645a3985328\""},
               {std::numeric_limits<unsigned>::max(), std::numeric_limits<std::uint64_t>::max(), "last"}};
  ItemRow small;
  small.name = "small.txt";
  small.size = 1;
  small.mtimeNs = std::numeric_limits<std::int64_t>::max();
  extremes.items = {big, small};
  rows.push_back(extremes);

  JobRow utf8;
  utf8.id = "Übersicht 報告 📄";
  utf8.title = "Ordner für Berichte";
  utf8.label = "3 files: Übersicht/März.pdf, 報告/第一.docx, emoji 📄✓.txt";
  utf8.state = JobState::done;
  utf8.created = 1763930000;
  for (char const* name : {"Übersicht/März.pdf", "報告/第一.docx", "emoji 📄✓.txt"}) {
    ItemRow item;
    item.name = name;
    item.key = std::string("prefix/") + name;
    utf8.items.push_back(item);
  }
  rows.push_back(utf8);

  JobRow odd;
  odd.id = "odd'\"; DROP TABLE jobs;--";
  odd.title = std::string("nul\0inside", 10);
  odd.state = JobState::rejected;
  odd.lastError = "%s%n%x \\ \x1b[2K";
  odd.label = std::string("label\0with nul, 'quotes'\n", 25);
  // Names in no sorted order: they come back in the order written.
  for (std::string const& name : {std::string("z-last written first"), std::string("\xff\xfe not UTF-8"),
                                 std::string("line\nfeed\r"), std::string(" leading and trailing "),
                                 std::string("a/b/c/d/e/f.txt"), std::string(4000, 'n'),
                                 std::string("tab\there"), std::string("'); DELETE FROM items;--")}) {
    ItemRow item;
    item.name = name;
    item.sha256 = name;
    item.uploadId = name;
    item.parts = {{7, 7, name}};
    odd.items.push_back(item);
  }
  rows.push_back(odd);

  // The other states.
  for (JobState const state : {JobState::queued, JobState::failed, JobState::cancelled}) {
    JobRow job = simpleJob(std::string("state-") + qxsvc::jobStateName(state), 5);
    job.state = state;
    rows.push_back(job);
  }
  return rows;
}

TEST_F(JournalTest, EveryFieldComesBackAsWritten) {
  std::vector<JobRow> const rows = roundTripRows();
  {
    auto journal = openJournal(file());
    for (JobRow const& row : rows) {
      SCOPED_TRACE(describe(row));
      journal->insert(row);
      std::optional<JobRow> const read = journal->job(row.id);
      ASSERT_TRUE(read.has_value());
      EXPECT_EQ(describe(row), describe(*read));
    }
  }
  // And after the journal was closed and opened again; oldest first, then in
  // the order written.
  std::vector<JobRow> expected = rows;
  std::stable_sort(expected.begin(), expected.end(),
                   [](JobRow const& a, JobRow const& b) { return a.created < b.created; });
  std::string note = "not cleared";
  auto journal = Journal::open(file(), note);
  EXPECT_EQ("", note);
  EXPECT_EQ(describe(expected), describe(journal->jobs()));
  EXPECT_FALSE(journal->job("no such job").has_value());
}

TEST_F(JournalTest, JobsComeOldestFirstThenInTheOrderWritten) {
  auto journal = openJournal(file());
  struct Row {
    char const* id;
    std::int64_t created;
  };
  Row const rows[] = {{"c", 30}, {"a", 10}, {"b2", 20}, {"b1", 20}, {"z", -5}};
  for (Row const& row : rows) journal->insert(simpleJob(row.id, row.created));
  std::vector<std::string> ids;
  for (JobRow const& job : journal->jobs()) ids.push_back(job.id);
  EXPECT_EQ((std::vector<std::string>{"z", "a", "b2", "b1", "c"}), ids);
}

TEST_F(JournalTest, PartsComeInNumberOrderAndAPartStoredAgainReplacesItsEtag) {
  auto journal = openJournal(file());
  JobRow job = simpleJob("J");
  journal->insert(job);
  journal->setUploadId("J", "J.pdf", "upload-1");
  journal->addPart("J", "J.pdf", {3, 30, "etag-3"});
  journal->addPart("J", "J.pdf", {1, 10, "etag-1"});
  journal->addPart("J", "J.pdf", {2, 20, "etag-2"});
  journal->addPart("J", "J.pdf", {1, 11, "etag-1-again"});
  job.items[0].uploadId = "upload-1";
  job.items[0].parts = {{1, 11, "etag-1-again"}, {2, 20, "etag-2"}, {3, 30, "etag-3"}};
  EXPECT_EQ(describe(job), describe(*journal->job("J")));
}

TEST_F(JournalTest, AnotherUploadIdForgetsThePartsOfTheFormerOne) {
  auto journal = openJournal(file());
  JobRow job = simpleJob("J");
  journal->insert(job);
  journal->setUploadId("J", "J.pdf", "upload-1");
  journal->addPart("J", "J.pdf", {1, 10, "etag-1"});
  journal->setUploadId("J", "J.pdf", "upload-1");  // the same: parts stay
  job.items[0].uploadId = "upload-1";
  job.items[0].parts = {{1, 10, "etag-1"}};
  EXPECT_EQ(describe(job), describe(*journal->job("J")));
  journal->setUploadId("J", "J.pdf", "upload-2");
  job.items[0].uploadId = "upload-2";
  job.items[0].parts.clear();
  EXPECT_EQ(describe(job), describe(*journal->job("J")));
  journal->addPart("J", "J.pdf", {1, 12, "etag-1-of-2"});
  journal->setUploadId("J", "J.pdf", "");
  job.items[0].uploadId = "";
  EXPECT_EQ(describe(job), describe(*journal->job("J")));
}

TEST_F(JournalTest, UpdateWritesEveryFieldAndReplacesItemsAndParts) {
  auto journal = openJournal(file());
  JobRow before = simpleJob("J", 100);
  ItemRow second;
  second.name = "second.txt";
  second.parts = {{1, 1, "one"}, {2, 2, "two"}};
  before.items.push_back(second);
  journal->insert(before);
  journal->insert(simpleJob("other", 50));

  JobRow after;
  after.id = "J";
  after.title = "renamed";
  after.state = JobState::queued;
  after.created = 101;
  after.updated = 200;
  after.nextTry = 260;
  after.attempts = 2;
  after.bytesSent = 5242880;
  after.lastError = "connection reset";
  ItemRow third;
  third.name = "third.bin";
  third.size = 9;
  third.parts = {{5, 5, "five"}};
  ItemRow secondAgain = second;
  secondAgain.parts = {{3, 3, "three"}};
  secondAgain.done = true;
  after.items = {third, secondAgain};  // J.pdf is gone, second.txt comes after third.bin
  journal->update(after);
  EXPECT_EQ(describe(after), describe(*journal->job("J")));
  EXPECT_EQ(describe(simpleJob("other", 50)) + describe(after), describe(journal->jobs()));

  after.items.clear();
  journal->update(after);
  EXPECT_EQ(describe(after), describe(*journal->job("J")));
}

TEST_F(JournalTest, RemoveTakesTheJobWithItsItemsAndParts) {
  auto journal = openJournal(file());
  JobRow job = simpleJob("J");
  job.items[0].parts = {{1, 1, "one"}};
  journal->insert(job);
  journal->insert(simpleJob("K", 2));
  journal->remove("J");
  EXPECT_FALSE(journal->job("J").has_value());
  EXPECT_EQ(describe(simpleJob("K", 2)), describe(journal->jobs()));
  // A job of the same id again starts with nothing of the former.
  JobRow bare;
  bare.id = "J";
  journal->insert(bare);
  EXPECT_EQ(describe(bare), describe(*journal->job("J")));
  journal->remove("J");
  journal->remove("J");  // gone already: nothing happens
  journal->remove("never there");
  EXPECT_EQ(describe(simpleJob("K", 2)), describe(journal->jobs()));
}

TEST_F(JournalTest, RefusedWritesSayWhyAndChangeNothing) {
  auto journal = openJournal(file());
  JobRow const job = simpleJob("J");
  journal->insert(job);
  std::string const prefix = "journal " + qxtest::quoted(file()) + ", job ";
  JobRow changed = simpleJob("J", 7);
  changed.title = "changed";
  JobRow missing = simpleJob("missing");
  JobRow twoOfAName = simpleJob("two");
  twoOfAName.items.push_back(twoOfAName.items[0]);
  struct Row {
    char const* what;
    std::function<void()> write;
    std::string message;
  };
  Row const rows[] = {
      {"insert of an id that exists", [&] { journal->insert(changed); },
       prefix + "\"J\": cannot insert: a job of this id exists already"},
      {"update of a missing job", [&] { journal->update(missing); },
       prefix + "\"missing\": cannot update: no such job"},
      {"upload id of a missing item", [&] { journal->setUploadId("J", "nope.pdf", "u"); },
       prefix + "\"J\": cannot record the upload id of item \"nope.pdf\": no such item"},
      {"upload id of a missing job", [&] { journal->setUploadId("missing", "J.pdf", "u"); },
       prefix + "\"missing\": cannot record the upload id of item \"J.pdf\": no such item"},
      {"part of a missing item", [&] { journal->addPart("J", "nope.pdf", {4, 1, "e"}); },
       prefix + "\"J\": cannot record part 4 of item \"nope.pdf\": no such item"},
      {"two items of one name", [&] { journal->insert(twoOfAName); },
       prefix + "\"two\": cannot insert: UNIQUE constraint failed: items.job_id, items.name"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(row.message, qxtest::runtimeErrorMessage(row.write));
  }
  EXPECT_EQ(describe(job), describe(journal->jobs()));
}

TEST_F(JournalTest, ABatchWritesEveryRowInOrderOrNoneAndNamesTheRefusedJob) {
  auto journal = openJournal(file());
  JobRow const first = simpleJob("A", 1), second = simpleJob("B", 2), third = simpleJob("C", 3);
  journal->insertAll({first, second});
  journal->insertAll({});
  EXPECT_EQ(describe(first) + describe(second), describe(journal->jobs()));

  JobRow firstDone = first, secondDone = second;
  firstDone.state = secondDone.state = JobState::done;
  firstDone.updated = secondDone.updated = 9;
  secondDone.items[0].done = true;
  journal->updateAll({firstDone, secondDone});
  EXPECT_EQ(describe(firstDone) + describe(secondDone), describe(journal->jobs()));

  std::string const prefix = "journal " + qxtest::quoted(file()) + ", job ";
  JobRow missing = simpleJob("missing");
  JobRow firstAgain = first;
  firstAgain.state = JobState::uploading;
  struct Row {
    char const* what;
    std::function<void()> write;
    std::string message;
  };
  Row const rows[] = {
      // The row before the refused one is not kept either.
      {"insert whose second id exists", [&] { journal->insertAll({third, first}); },
       prefix + "\"A\": cannot insert: a job of this id exists already"},
      {"update whose second job is missing", [&] { journal->updateAll({firstAgain, missing}); },
       prefix + "\"missing\": cannot update: no such job"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(row.message, qxtest::runtimeErrorMessage(row.write));
    EXPECT_EQ(describe(firstDone) + describe(secondDone), describe(journal->jobs()));
  }
}

TEST_F(JournalTest, AMissingFileIsMadeAnewAndTheNoteSaysSo) {
  std::string note;
  {
    auto journal = Journal::open(file(), note);
    EXPECT_EQ("made a new journal " + qxtest::quoted(file()), note);
    journal->insert(simpleJob("J"));
  }
  EXPECT_TRUE(fs::is_regular_file(file()));
  auto journal = Journal::open(file(), note);
  EXPECT_EQ("", note);
  EXPECT_EQ(describe(simpleJob("J")), describe(journal->jobs()));
}

TEST_F(JournalTest, AnEmptyFileIsMadeAJournal) {
  qxtest::writeFile(file(), "");
  std::string note;
  auto journal = Journal::open(file(), note);
  EXPECT_EQ("made a new journal " + qxtest::quoted(file()), note);
  journal->insert(simpleJob("J"));
  EXPECT_EQ(describe(simpleJob("J")), describe(journal->jobs()));
}

TEST_F(JournalTest, AFolderThatIsMissingIsNamedInTheError) {
  fs::path const nowhere = m_dir / "no-folder" / "journal.db";
  std::string note = "stale";
  EXPECT_EQ("cannot open the journal " + qxtest::quoted(nowhere) + ": unable to open database file",
            qxtest::runtimeErrorMessage([&] { Journal::open(nowhere, note); }));
  EXPECT_EQ("", note);
  EXPECT_FALSE(fs::exists(m_dir / "no-folder"));
}

TEST_F(JournalTest, ALinkInTheJournalsPlaceIsNotFollowed) {
  fs::path const target = m_dir / "elsewhere.db";
  qxtest::writeFile(target, "precious");
  fs::create_symlink(target, file());
  std::string note;
  EXPECT_EQ("journal " + qxtest::quoted(file()) + ": a link, not followed",
            qxtest::runtimeErrorMessage([&] { Journal::open(file(), note); }));
  EXPECT_EQ("precious", qxtest::readFile(target));
  EXPECT_TRUE(fs::is_symlink(file()));
}

// Makes the journal file of a test of a database that is not a journal.
struct UnreadableRow {
  char const* what;
  std::function<void(fs::path const&)> make;
  char const* why;  // in the note
};

std::vector<UnreadableRow> unreadableRows() {
  return {
      {"garbage bytes", [](fs::path const& file) { qxtest::writeFile(file, qxtest::pattern(10000, 7)); },
       "not an SQLite database"},
      {"a text file", [](fs::path const& file) { qxtest::writeFile(file, "{\"jobs\": []}\n"); },
       "not an SQLite database"},
      {"another program's database with its log beside it",
       [](fs::path const& file) {
         runOnDatabase(file,
                       "PRAGMA journal_mode = WAL; CREATE TABLE notes (x TEXT);"
                       "INSERT INTO notes VALUES ('keep me');",
                       true);
         ASSERT_TRUE(fs::exists(file.string() + "-wal"));
       },
       "another program's tables"},
      {"another program's database",
       [](fs::path const& file) {
         runOnDatabase(file, "CREATE TABLE jobs (id TEXT); INSERT INTO jobs VALUES ('x');");
       },
       "another program's tables"},
      {"a journal of a later schema",
       [](fs::path const& file) {
         openJournal(file)->insert(simpleJob("J"));
         runOnDatabase(file, "PRAGMA user_version = 4;");
       },
       "schema version 4, expected 3"},
      {"a journal with a row that its checks refuse",
       [](fs::path const& file) {
         openJournal(file)->insert(simpleJob("J"));
         runOnDatabase(file,
                       "PRAGMA ignore_check_constraints = ON;"
                       "UPDATE jobs SET state = 'lost', attempts = -1 WHERE id = 'J';");
       },
       "corrupt pages"},
      {"a journal cut short",
       [](fs::path const& file) {
         {
           auto journal = openJournal(file);
           for (int i = 0; i < 40; ++i) {
             JobRow job = simpleJob("J" + std::to_string(i), i);
             job.lastError = std::string(3000, 'e');
             journal->insert(job);
           }
         }
         ASSERT_FALSE(fs::exists(file.string() + "-wal"));
         ASSERT_GT(fs::file_size(file), 100000u);
         fs::resize_file(file, fs::file_size(file) / 2);
       },
       "corrupt pages"},
      {"a journal whose pages were overwritten",
       [](fs::path const& file) {
         {
           auto journal = openJournal(file);
           for (int i = 0; i < 10; ++i) journal->insert(simpleJob("J" + std::to_string(i), i));
         }
         std::string bytes = qxtest::readFile(file);
         ASSERT_GT(bytes.size(), 8192u);
         std::string const noise = qxtest::pattern(bytes.size() - 4096, 3);
         bytes.replace(4096, noise.size(), noise);
         qxtest::writeFile(file, bytes);
       },
       "corrupt pages"},
  };
}

TEST_F(JournalTest, ADatabaseThatIsNotAJournalIsMovedAsideAndANewOneMade) {
  for (UnreadableRow const& row : unreadableRows()) {
    SCOPED_TRACE(row.what);
    qxtest::TempDir dir;
    fs::path const file = dir / "journal.db";
    row.make(file);
    if (HasFatalFailure()) return;
    std::string const bytes = qxtest::readFile(file);
    bool const hasLog = fs::exists(file.string() + "-wal");
    std::string const log = hasLog ? qxtest::readFile(file.string() + "-wal") : "";

    std::time_t const before = std::time(nullptr);
    std::string note;
    auto journal = Journal::open(file, note);
    std::time_t const after = std::time(nullptr);

    std::vector<std::string> const aside = namesStartingWith(dir.path(), "journal.db.corrupt-");
    ASSERT_EQ(hasLog ? 2u : 1u, aside.size()) << ::testing::PrintToString(qxtest::listNames(dir.path()));
    std::string const name = aside[0];
    std::string const digits = name.substr(sizeof "journal.db.corrupt-" - 1);
    ASSERT_TRUE(!digits.empty() && std::all_of(digits.begin(), digits.end(), ::isdigit)) << name;
    EXPECT_GE(std::stoll(digits), before);
    EXPECT_LE(std::stoll(digits), after);
    EXPECT_EQ("moved the journal " + qxtest::quoted(file) + " aside to " + qxtest::quoted(dir / name) + " (" +
                  row.why + ") and made a new one",
              note);
    EXPECT_EQ(bytes, qxtest::readFile(dir / name));
    if (hasLog) {
      EXPECT_EQ(name + "-wal", aside[1]);
      EXPECT_EQ(log, qxtest::readFile(dir / (name + "-wal")));
    }

    // The new journal works, and is a journal the next time.
    journal->insert(simpleJob("new"));
    journal.reset();
    std::string again;
    journal = Journal::open(file, again);
    EXPECT_EQ("", again);
    EXPECT_EQ(describe(simpleJob("new")), describe(journal->jobs()));
  }
}

TEST_F(JournalTest, ALogLeftWithoutItsDatabaseIsNotReplayedIntoTheNewOne) {
  fs::path const log = file().string() + "-wal";
  fs::path const kept = m_dir / "kept-wal";
  {
    auto journal = openJournal(file());
    journal->insert(simpleJob("J"));
    ASSERT_GT(fs::file_size(log), 0u);
    fs::copy_file(log, kept);
  }
  fs::remove(file());
  fs::rename(kept, log);
  std::string note;
  auto journal = Journal::open(file(), note);
  EXPECT_EQ("made a new journal " + qxtest::quoted(file()), note);
  EXPECT_EQ("", describe(journal->jobs()));
  journal->insert(simpleJob("K"));
  EXPECT_EQ(describe(simpleJob("K")), describe(journal->jobs()));
}

TEST_F(JournalTest, TwoDatabasesMovedAsideInOneSecondKeepBoth) {
  std::vector<std::string> contents;
  for (unsigned seed : {1u, 2u}) {
    contents.push_back(qxtest::pattern(5000, seed));
    qxtest::writeFile(file(), contents.back());
    openJournal(file());
  }
  std::vector<std::string> const aside = namesStartingWith(m_dir.path(), "journal.db.corrupt-");
  ASSERT_EQ(2u, aside.size());
  std::vector<std::string> found = {qxtest::readFile(m_dir / aside[0]), qxtest::readFile(m_dir / aside[1])};
  std::sort(found.begin(), found.end());
  std::sort(contents.begin(), contents.end());
  EXPECT_EQ(contents, found);
}

// The long run of writes of the durability test: job j goes through an
// insert, its upload id, two parts and an update; every third job removes
// the one before it instead of its update.
struct Step {
  enum class Kind { insert, uploadId, part, update, remove };
  Kind kind;
  JobRow job;  // insert, update
  std::string jobId;
  std::string item;
  std::string uploadId;
  PartRow part;
};

constexpr unsigned kStepsPerJob = 5;

JobRow durableJob(unsigned j) {
  JobRow job;
  job.id = "job-" + std::to_string(j);
  job.title = "Ordner " + std::to_string(j);
  job.created = j;
  job.updated = j;
  job.lastError = std::string(300, static_cast<char>('a' + j % 26));
  for (std::string const& name : {"a-" + std::to_string(j) + ".pdf", "Ordner/ü-" + std::to_string(j) + ".txt"}) {
    ItemRow item;
    item.name = name;
    item.size = 1000 + j;
    item.sha256 = std::string(64, 'f');
    job.items.push_back(item);
  }
  return job;
}

Step stepNumber(unsigned k) {
  unsigned const j = k / kStepsPerJob;
  JobRow job = durableJob(j);
  std::string const item = job.items[0].name;
  std::string const uploadId = "upload-" + std::to_string(j);
  PartRow const first{1, 5242880, "etag-1-" + std::to_string(j)};
  PartRow const second{2, 77, "etag-2-" + std::to_string(j)};
  switch (k % kStepsPerJob) {
    case 0:
      return {Step::Kind::insert, job, job.id, "", "", {}};
    case 1:
      return {Step::Kind::uploadId, {}, job.id, item, uploadId, {}};
    case 2:
      return {Step::Kind::part, {}, job.id, item, "", first};
    case 3:
      return {Step::Kind::part, {}, job.id, item, "", second};
    default:
      if (j % 3 == 2) return {Step::Kind::remove, {}, "job-" + std::to_string(j - 1), "", "", {}};
      job.state = JobState::done;
      job.updated = j + 60;
      job.attempts = 1;
      job.bytesSent = 5242877 + j;
      job.lastError.clear();
      job.items[0].done = true;
      job.items[0].key = "uploads/" + item;
      job.items[0].uploadId = uploadId;
      job.items[0].parts = {first, second};
      job.items[1].done = true;
      return {Step::Kind::update, job, job.id, "", "", {}};
  }
}

void apply(Step const& step, Journal& journal) {
  switch (step.kind) {
    case Step::Kind::insert: journal.insert(step.job); break;
    case Step::Kind::uploadId: journal.setUploadId(step.jobId, step.item, step.uploadId); break;
    case Step::Kind::part: journal.addPart(step.jobId, step.item, step.part); break;
    case Step::Kind::update: journal.update(step.job); break;
    case Step::Kind::remove: journal.remove(step.jobId); break;
  }
}

// What the journal holds after the first count steps, worked out without it.
std::vector<JobRow> afterSteps(unsigned count) {
  std::vector<JobRow> jobs;
  auto itemOf = [&](Step const& step) -> ItemRow& {
    for (JobRow& job : jobs) {
      if (job.id != step.jobId) continue;
      for (ItemRow& item : job.items) {
        if (item.name == step.item) return item;
      }
    }
    throw std::logic_error("no item " + step.item + " in " + step.jobId);
  };
  for (unsigned k = 0; k < count; ++k) {
    Step const step = stepNumber(k);
    switch (step.kind) {
      case Step::Kind::insert: jobs.push_back(step.job); break;
      case Step::Kind::uploadId: itemOf(step).uploadId = step.uploadId; break;
      case Step::Kind::part: itemOf(step).parts.push_back(step.part); break;
      case Step::Kind::update:
        for (JobRow& job : jobs) {
          if (job.id == step.jobId) job = step.job;
        }
        break;
      case Step::Kind::remove:
        jobs.erase(std::remove_if(jobs.begin(), jobs.end(),
                                  [&](JobRow const& job) { return job.id == step.jobId; }),
                   jobs.end());
        break;
    }
  }
  return jobs;
}

TEST(JournalDurability, AWriterKilledAmongItsWritesLeavesEveryReturnedWriteAndNoHalfOne) {
  struct Row {
    unsigned confirmedBeforeKill;  // writes that returned before the kill is sent
    unsigned extraMicroseconds;    // then a little more, to land inside a write
  };
  Row const rows[] = {{3, 0}, {41, 150}, {97, 700}, {160, 2000}};
  for (Row const& row : rows) {
    SCOPED_TRACE("kill after " + std::to_string(row.confirmedBeforeKill) + " writes and " +
                 std::to_string(row.extraMicroseconds) + " us");
    qxtest::TempDir dir;
    fs::path const file = dir / "journal.db";
    int pipeFds[2];
    ASSERT_EQ(0, ::pipe(pipeFds));
    pid_t const pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(pipeFds[0]);
      try {
        auto journal = openJournal(file);
        for (unsigned k = 0;; ++k) {
          apply(stepNumber(k), *journal);
          if (::write(pipeFds[1], &k, sizeof k) != sizeof k) ::_exit(4);
        }
      } catch (std::exception const& e) {
        std::fprintf(stderr, "writer: %s\n", e.what());
      }
      ::_exit(3);
    }
    ::close(pipeFds[1]);
    // Every number read was written after its write call returned.
    unsigned confirmed = 0;
    auto readOne = [&] {
      unsigned k = 0;
      std::size_t got = 0;
      while (got < sizeof k) {
        ssize_t const n = ::read(pipeFds[0], reinterpret_cast<char*>(&k) + got, sizeof k - got);
        if (n <= 0) return false;
        got += static_cast<std::size_t>(n);
      }
      EXPECT_EQ(confirmed, k);
      ++confirmed;
      return true;
    };
    while (confirmed < row.confirmedBeforeKill && readOne()) {
    }
    ::usleep(row.extraMicroseconds);
    ::kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(pid, ::waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer ended on its own: " << status;
    while (readOne()) {
    }
    ::close(pipeFds[0]);
    ASSERT_GE(confirmed, row.confirmedBeforeKill);

    std::string note = "not cleared";
    auto journal = Journal::open(file, note);
    EXPECT_EQ("", note);
    std::string const found = describe(journal->jobs());
    // The write in flight at the kill may have been committed or not.
    std::string const returned = describe(afterSteps(confirmed));
    std::string const inFlight = describe(afterSteps(confirmed + 1));
    EXPECT_TRUE(found == returned || found == inFlight)
        << "after " << confirmed << " writes:\n" << returned << "or:\n" << inFlight << "found:\n" << found;
    EXPECT_EQ(std::vector<std::string>{}, namesStartingWith(dir.path(), "journal.db.corrupt-"));
  }
}

// The first column of the first row of sql on the database at file, read
// as another program would.
std::string firstValue(fs::path const& file, char const* sql) {
  sqlite3* db = nullptr;
  std::string value = "(no row)";
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) {
      value = std::string("(error) ") + sqlite3_errmsg(db);
    } else if (sqlite3_step(statement) == SQLITE_ROW) {
      auto const* text = sqlite3_column_text(statement, 0);
      value = text ? reinterpret_cast<char const*>(text) : "(null)";
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  return value;
}

TEST_F(JournalTest, TheFileIsAWriteAheadLoggedDatabaseOfSchemaVersionThree) {
  auto journal = openJournal(file());
  journal->insert(simpleJob("J"));
  EXPECT_EQ("wal", firstValue(file(), "PRAGMA journal_mode"));
  EXPECT_EQ("3", firstValue(file(), "PRAGMA user_version"));
  EXPECT_EQ("items,jobs,notices,parts",
            firstValue(file(), "SELECT group_concat(name, ',') FROM (SELECT name FROM sqlite_schema "
                               "WHERE type = 'table' ORDER BY name)"));
  EXPECT_EQ("1", firstValue(file(), "SELECT count(*) FROM items WHERE job_id = 'J'"));
}

// A journal as the first version of the service wrote it; kept here as it
// was, since the service's own text of it changes with each version.
constexpr char kSchemaVersionOne[] = R"(
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

TEST_F(JournalTest, AJournalOfSchemaVersionOneIsBroughtUpToDateWithEveryRow) {
  runOnDatabase(file(), std::string("PRAGMA journal_mode = WAL;") + kSchemaVersionOne +
                            "PRAGMA user_version = 1;"
                            "INSERT INTO jobs VALUES ('J', 'tmp', 'queued', 10, 11, 12, 3, 4, 'HTTP 503');"
                            "INSERT INTO items VALUES ('J', 0, 'tmp/a.pdf', 5, 6, 'ab', 'k/a.pdf', 0, 'U');"
                            "INSERT INTO parts VALUES ('J', 'tmp/a.pdf', 1, 5, 'e1');");
  if (HasFatalFailure()) return;
  std::string note;
  auto journal = Journal::open(file(), note);
  EXPECT_EQ("brought the journal " + qxtest::quoted(file()) + " from schema version 1 to 3", note);
  EXPECT_EQ("3", firstValue(file(), "PRAGMA user_version"));
  EXPECT_EQ(
      "job J title=tmp state=queued created=10 updated=11 nextTry=12 attempts=3 bytesSent=4 "
      "lastError=HTTP 503 label=\n"
      "  item tmp/a.pdf size=5 mtimeNs=6 sha256=ab key=k/a.pdf done=0 uploadId=U\n"
      "    part 1 size=5 etag=e1\n",
      describe(journal->jobs()));
  // The new column is written and read like the others, and the journal is
  // of the current version the next time.
  JobRow row = journal->jobs().front();
  row.label = "2 files: a.pdf, b.pdf";
  journal->update(row);
  journal.reset();
  journal = Journal::open(file(), note);
  EXPECT_EQ("", note);
  EXPECT_EQ("2 files: a.pdf, b.pdf", journal->jobs().front().label);
}

TEST_F(JournalTest, ThreadsWritingDifferentJobsAtOnceLoseNothing) {
  auto journal = openJournal(file());
  constexpr unsigned kWriters = 4;
  constexpr unsigned kJobsEach = 15;
  auto finalJob = [](unsigned writer, unsigned i) {
    JobRow job = simpleJob("w" + std::to_string(writer) + "-" + std::to_string(i), i * kWriters + writer);
    job.state = JobState::done;
    job.attempts = 1;
    job.items[0].uploadId = "upload";
    job.items[0].parts = {{1, 10, "e1"}, {2, 20, "e2"}};
    job.items[0].done = true;
    return job;
  };
  std::vector<std::string> errors(kWriters + 1);
  std::atomic<unsigned> writing{kWriters};
  std::vector<std::thread> threads;
  for (unsigned writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back([&, writer] {
      try {
        for (unsigned i = 0; i < kJobsEach; ++i) {
          JobRow const done = finalJob(writer, i);
          journal->insert(simpleJob(done.id, done.created));
          journal->setUploadId(done.id, done.items[0].name, "upload");
          journal->addPart(done.id, done.items[0].name, done.items[0].parts[1]);
          journal->addPart(done.id, done.items[0].name, done.items[0].parts[0]);
          journal->update(done);
        }
      } catch (std::exception const& e) {
        errors[writer] = e.what();
      }
      --writing;
    });
  }
  // A reader meanwhile sees every job whole: one item, parts only with their
  // upload id.
  threads.emplace_back([&] {
    try {
      while (writing > 0) {
        for (JobRow const& job : journal->jobs()) {
          bool const whole = job.items.size() == 1 && job.items[0].parts.size() <= 2 &&
                             (job.items[0].parts.empty() || job.items[0].uploadId == "upload");
          if (!whole) errors[kWriters] += "half a job: " + describe(job);
        }
      }
    } catch (std::exception const& e) {
      errors[kWriters] = e.what();
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<std::string>(kWriters + 1), errors);
  std::vector<JobRow> expected;
  for (unsigned i = 0; i < kJobsEach; ++i) {
    for (unsigned writer = 0; writer < kWriters; ++writer) expected.push_back(finalJob(writer, i));
  }
  EXPECT_EQ(describe(expected), describe(journal->jobs()));
}

// A journal on a small tmpfs of its own, which a ballast file helps to fill.
// The tmpfs goes in TearDown, also after a failure.
class JournalDiskFullTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(folder());
    m_disk = std::make_unique<qxtest::TmpfsMount>(folder(), "size=256k");
    if (!m_disk->ok()) GTEST_SKIP() << "cannot mount a tmpfs on the journal's folder: " << m_disk->error();
  }
  void TearDown() override {
    m_journal.reset();
    m_disk.reset();
  }

  fs::path folder() const { return m_dir / "state"; }
  fs::path file() const { return folder() / "journal.db"; }

  qxtest::TempDir m_dir;
  std::unique_ptr<qxtest::TmpfsMount> m_disk;
  std::unique_ptr<Journal> m_journal;
};

TEST_F(JournalDiskFullTest, AWriteToAFullDiskThrowsNamingTheJobAndWorksAgainOnceThereIsRoom) {
  fs::path const ballast = folder() / "ballast";
  qxtest::writeFile(ballast, std::string(64 * 1024, 'b'));
  ASSERT_EQ(64u * 1024u, fs::file_size(ballast));
  m_journal = openJournal(file());
  std::vector<JobRow> written;
  JobRow refused;
  std::string message;
  for (unsigned i = 0; i < 200 && message.empty(); ++i) {
    JobRow job = simpleJob("job-" + std::to_string(i), i);
    job.lastError = std::string(6000, static_cast<char>('a' + i % 26));
    try {
      m_journal->insert(job);
      written.push_back(job);
    } catch (std::runtime_error const& e) {
      message = e.what();
      refused = job;
    }
  }
  ASSERT_FALSE(message.empty()) << "the disk never filled";
  ASSERT_FALSE(written.empty());
  EXPECT_EQ("journal " + qxtest::quoted(file()) + ", job \"" + refused.id +
                "\": cannot insert: database or disk is full",
            message);
  // Still readable, without the refused job.
  EXPECT_EQ(describe(written), describe(m_journal->jobs()));
  EXPECT_FALSE(m_journal->job(refused.id).has_value());

  fs::remove(ballast);
  m_journal->insert(refused);
  written.push_back(refused);
  m_journal->setUploadId(refused.id, refused.items[0].name, "upload");
  written.back().items[0].uploadId = "upload";
  EXPECT_EQ(describe(written), describe(m_journal->jobs()));

  m_journal.reset();
  std::string note = "not cleared";
  m_journal = Journal::open(file(), note);
  EXPECT_EQ("", note);
  EXPECT_EQ(describe(written), describe(m_journal->jobs()));
}

}  // namespace

namespace {

std::string describe(std::vector<qxsvc::NoticeRow> const& notices) {
  std::string text;
  for (qxsvc::NoticeRow const& n : notices) {
    text += std::to_string(n.id) + " " + n.kind + " " + std::to_string(n.created) + " " + n.text + "\n";
  }
  return text;
}

}  // namespace

TEST_F(JournalTest, NoticesAreKeptInOrderUntilRemoved) {
  auto journal = openJournal(file());
  EXPECT_EQ(1, journal->addNotice({0, "rejected", 100, "Rejected: a.pdf\r\nBcc: x@y"}));
  EXPECT_EQ(2, journal->addNotice({0, "held", 101, "held: no server answers"}));
  EXPECT_EQ(3, journal->addNotice({0, "rejected", 102, "Rejected: b.pdf"}));
  journal->removeNotices({2, 42});
  journal.reset();
  journal = openJournal(file());
  EXPECT_EQ("1 rejected 100 Rejected: a.pdf\r\nBcc: x@y\n3 rejected 102 Rejected: b.pdf\n",
            describe(journal->notices()));
}

TEST_F(JournalTest, AJournalOfSchemaVersionTwoGainsTheNoticesAndKeepsItsJobs) {
  runOnDatabase(file(), std::string("PRAGMA journal_mode = WAL;") + kSchemaVersionOne +
                            "ALTER TABLE jobs ADD COLUMN label TEXT NOT NULL DEFAULT '';"
                            "PRAGMA user_version = 2;"
                            "INSERT INTO jobs VALUES ('J', 'tmp', 'done', 10, 11, 0, 1, 5, '', 'a.pdf');");
  if (HasFatalFailure()) return;
  std::string note;
  auto journal = Journal::open(file(), note);
  EXPECT_EQ("brought the journal " + qxtest::quoted(file()) + " from schema version 2 to 3", note);
  EXPECT_EQ("3", firstValue(file(), "PRAGMA user_version"));
  EXPECT_EQ("job J title=tmp state=done created=10 updated=11 nextTry=0 attempts=1 bytesSent=5 lastError= label=a.pdf\n",
            describe(journal->jobs()));
  EXPECT_EQ(1, journal->addNotice({0, "done", 12, "Uploaded: a.pdf"}));
  journal.reset();
  journal = Journal::open(file(), note);
  EXPECT_EQ("", note);
  EXPECT_EQ("1 done 12 Uploaded: a.pdf\n", describe(journal->notices()));
}
