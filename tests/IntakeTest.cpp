// From the incoming folder into jobs: job ids, the settling of entries that
// are still being copied, the file-type rules on descriptors, the claim of
// an entry as a job, its rejection with a reason, the files of a job.
#include "apps/svc/upload/Intake.h"

#include "apps/svc/FolderFd.h"
#include "tests/DropTestUtil.h"
#include "tests/IntakeTestUtil.h"
#include "tests/TestUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <system_error>
#include <vector>

namespace fs = boost::filesystem;
using namespace std::chrono_literals;
using qxsvc::Verdict;

namespace {

// The message of the std::system_error that f throws.
std::string systemErrorOf(std::function<void()> const& f) {
  try {
    f();
  } catch (std::system_error const& e) {
    return e.what();
  }
  ADD_FAILURE() << "expected std::system_error, nothing was thrown";
  return "(nothing thrown)";
}

using qxtest::namesIn;

void setMtime(fs::path const& file, std::time_t seconds, long nanoseconds) {
  timespec const times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << file;
}

// A record accepting pdf, xml and zip, ignoring "part" besides the
// defaults.
Settings rulesRecord() {
  json::Object obj;
  json::Array accepted;
  for (char const* ext : {"pdf", "xml", "zip"}) accepted.append(json::Value(ext));
  json::Array ignored;
  ignored.append(json::Value("part"));
  obj.setAt("SrvFileExts", accepted);
  obj.setAt("IgnoredExtension", ignored);
  return Settings(obj);
}

}  // namespace

// ---------------------------------------------------------------------------
// Job ids

TEST(IntakeJobId, HasTheTimeInUtcAndEightHexDigits) {
  struct Case {
    std::time_t now;
    char const* prefix;
  };
  Case const cases[] = {{0, "19700101T000000Z-"}, {1700000000, "20231114T221320Z-"}, {951782400, "20000229T000000Z-"}};
  for (Case const& c : cases) {
    std::string const id = qxsvc::newJobId(c.now);
    EXPECT_EQ(id.size(), 25u) << id;
    EXPECT_EQ(id.substr(0, 17), c.prefix) << "time " << c.now;
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef", 17), std::string::npos) << id;
    EXPECT_TRUE(qxsvc::isJobId(id)) << id;
  }
}

TEST(IntakeJobId, TenThousandIdsOfOneSecondAreAllDifferent) {
  std::set<std::string> ids;
  for (int i = 0; i < 10000; ++i) ids.insert(qxsvc::newJobId(1700000000));
  EXPECT_EQ(ids.size(), 10000u);
}

TEST(IntakeJobId, OnlyTheFormOfAnIdIsAnId) {
  struct Case {
    char const* name;
    bool id;
  };
  Case const cases[] = {
      {"20231114T221320Z-0a1b2c3d", true},
      {"20231114T221320Z-0A1B2C3D", false},   // upper-case hex
      {"20231114T221320Z-0a1b2c3", false},    // 7 digits
      {"20231114T221320Z-0a1b2c3d0", false},  // 9 digits
      {"20231114T221320-0a1b2c3d0", false},   // no Z
      {"20231114 221320Z-0a1b2c3d", false},
      {"2023111xT221320Z-0a1b2c3d", false},
      {"20231114T221320Z_0a1b2c3d", false},
      {"20231114T221320Z-0a1b2c3g", false},
      {"", false},
      {"..", false},
      {"lost+found", false},
  };
  for (Case const& c : cases) EXPECT_EQ(qxsvc::isJobId(c.name), c.id) << "\"" << c.name << "\"";
}

// ---------------------------------------------------------------------------
// Settling

TEST(IntakeSettle, AnEntryIsSettledWhenItStayedTheSameForTheSettleTime) {
  qxtest::TempDir temp;
  qxsvc::FolderFd const in = qxtest::openFolder(temp.path());
  qxsvc::SettleTracker tracker(200ms);
  auto const t0 = std::chrono::steady_clock::now();
  qxtest::writeFile(temp / "a.pdf", "first part");
  EXPECT_FALSE(tracker.settled(in.get(), "a.pdf", t0)) << "first sighting";
  EXPECT_FALSE(tracker.settled(in.get(), "a.pdf", t0 + 199ms));
  EXPECT_TRUE(tracker.settled(in.get(), "a.pdf", t0 + 200ms));

  // It grows: the clock starts again.
  qxtest::writeFile(temp / "a.pdf", "first part, second part");
  EXPECT_FALSE(tracker.settled(in.get(), "a.pdf", t0 + 300ms));
  EXPECT_FALSE(tracker.settled(in.get(), "a.pdf", t0 + 499ms));
  EXPECT_TRUE(tracker.settled(in.get(), "a.pdf", t0 + 500ms));

  // Same size, another modification time: again.
  setMtime(temp / "a.pdf", 1000000000, 5);
  EXPECT_FALSE(tracker.settled(in.get(), "a.pdf", t0 + 600ms));
  EXPECT_TRUE(tracker.settled(in.get(), "a.pdf", t0 + 800ms));
}

TEST(IntakeSettle, AFileAddedOrGrowingInsideAFolderUnsettlesIt) {
  qxtest::TempDir temp;
  fs::create_directories(temp / "drop" / "sub");
  qxtest::writeFile(temp / "drop" / "a.pdf", "a");
  qxsvc::FolderFd const in = qxtest::openFolder(temp.path());
  qxsvc::SettleTracker tracker(200ms);
  auto const t0 = std::chrono::steady_clock::now();
  EXPECT_FALSE(tracker.settled(in.get(), "drop", t0));
  EXPECT_TRUE(tracker.settled(in.get(), "drop", t0 + 200ms));

  qxtest::writeFile(temp / "drop" / "sub" / "b.pdf", "b");
  EXPECT_FALSE(tracker.settled(in.get(), "drop", t0 + 300ms)) << "a file added two levels down";
  EXPECT_TRUE(tracker.settled(in.get(), "drop", t0 + 500ms));

  // A copy that keeps the modification time (cp -p) still changes the size.
  fs::path const b = temp / "drop" / "sub" / "b.pdf";
  struct stat before {};
  ASSERT_EQ(::stat(b.c_str(), &before), 0);
  qxtest::writeFile(b, "bbbb");
  setMtime(b, before.st_mtim.tv_sec, before.st_mtim.tv_nsec);
  EXPECT_FALSE(tracker.settled(in.get(), "drop", t0 + 600ms));
  EXPECT_TRUE(tracker.settled(in.get(), "drop", t0 + 800ms));
}

TEST(IntakeSettle, ATrustedEntryIsReadyAtOnce) {
  qxtest::TempDir temp;
  qxsvc::FolderFd const in = qxtest::openFolder(temp.path());
  qxsvc::SettleTracker tracker(200ms);
  auto const t0 = std::chrono::steady_clock::now();
  qxtest::writeFile(temp / "dropped.pdf", "renamed into place");
  tracker.trust("dropped.pdf");
  EXPECT_TRUE(tracker.settled(in.get(), "dropped.pdf", t0));
  // Others still wait.
  qxtest::writeFile(temp / "copied.pdf", "copied");
  EXPECT_FALSE(tracker.settled(in.get(), "copied.pdf", t0));
  // A trusted entry that is gone is not ready.
  fs::remove(temp / "dropped.pdf");
  EXPECT_FALSE(tracker.settled(in.get(), "dropped.pdf", t0));
}

TEST(IntakeSettle, ForgottenEntriesStartAgain) {
  qxtest::TempDir temp;
  qxsvc::FolderFd const in = qxtest::openFolder(temp.path());
  qxsvc::SettleTracker tracker(200ms);
  auto const t0 = std::chrono::steady_clock::now();
  qxtest::writeFile(temp / "kept.pdf", "k");
  qxtest::writeFile(temp / "gone.pdf", "g");
  qxtest::writeFile(temp / "trusted.pdf", "t");
  tracker.trust("trusted.pdf");
  EXPECT_FALSE(tracker.settled(in.get(), "kept.pdf", t0));
  EXPECT_FALSE(tracker.settled(in.get(), "gone.pdf", t0));
  tracker.forgetAllBut({"kept.pdf"});
  EXPECT_TRUE(tracker.settled(in.get(), "kept.pdf", t0 + 200ms)) << "kept: its clock ran on";
  EXPECT_FALSE(tracker.settled(in.get(), "gone.pdf", t0 + 200ms)) << "forgotten: a first sighting again";
  EXPECT_FALSE(tracker.settled(in.get(), "trusted.pdf", t0 + 200ms)) << "forgotten: no longer trusted";
}

// ---------------------------------------------------------------------------
// The rules

TEST(IntakeJudge, TheRulesOverTheEntriesOfTheIncomingFolder) {
  qxtest::TempDir temp;
  fs::path const in = temp / "in";
  fs::create_directories(in);
  fs::create_directories(temp / "elsewhere");
  qxtest::writeFile(temp / "elsewhere" / "target.pdf", "outside");

  struct Case {
    char const* name;
    Verdict::Kind kind;
    char const* rule;
    char const* message;
    void (*make)(fs::path const& in, fs::path const& temp);
  };
  using K = Verdict::Kind;
  Case const cases[] = {
      {"a.pdf", K::accept, "", "", [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / "a.pdf", "%PDF"); }},
      {"B.PDF", K::accept, "", "", [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / "B.PDF", "%PDF"); }},
      {"zero.pdf", K::accept, "", "", [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / "zero.pdf", ""); }},
      {"bundle.zip", K::accept, "", "", [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / "bundle.zip", "PK"); }},
      {"x.pdf.noqx", K::ignore, "", "", [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / "x.pdf.noqx", "receiving"); }},
      {"half.part", K::ignore, "", "", [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / "half.part", "configured"); }},
      {".DS_Store", K::ignore, "", "", [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / ".DS_Store", "x"); }},
      {"drop.noqx", K::ignore, "", "", [](fs::path const& in, fs::path const&) { fs::create_directories(in / "drop.noqx" / "x.exe"); }},
      {"tool.exe", K::reject, "extension",
       "\"tool.exe\" has the extension \"exe\", which is not accepted; accepted are: pdf, xml, zip",
       [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / "tool.exe", "MZ"); }},
      {"README", K::reject, "extension", "\"README\" has no extension; accepted are: pdf, xml, zip",
       [](fs::path const& in, fs::path const&) { qxtest::writeFile(in / "README", "text"); }},
      {"docs", K::accept, "", "", [](fs::path const& in, fs::path const&) {
         fs::create_directories(in / "docs");
         qxtest::writeFile(in / "docs" / "a.pdf", "a");
         qxtest::writeFile(in / "docs" / "b.xml", "<b/>");
         qxtest::writeFile(in / "docs" / "Thumbs.db", "ignored inside");
       }},
      {"mixed", K::reject, "bad-type-in-folder",
       "\"mixed/b.exe\" has the extension \"exe\", which is not accepted; accepted are: pdf, xml, zip",
       [](fs::path const& in, fs::path const&) {
         fs::create_directories(in / "mixed");
         qxtest::writeFile(in / "mixed" / "a.pdf", "a");
         qxtest::writeFile(in / "mixed" / "b.exe", "MZ");
       }},
      {"zipped", K::reject, "bad-type-in-folder", "\"zipped/inner.zip\" is a \"zip\" file, which a folder may not hold",
       [](fs::path const& in, fs::path const&) {
         fs::create_directories(in / "zipped");
         qxtest::writeFile(in / "zipped" / "inner.zip", "PK");
       }},
      {"nested", K::reject, "bad-type-in-folder",
       "\"nested/sub\" is a folder inside the folder; folders are taken one level deep",
       [](fs::path const& in, fs::path const&) { fs::create_directories(in / "nested" / "sub"); }},
      {"nested.pdf", K::reject, "bad-type-in-folder",
       "\"nested.pdf/sub.pdf\" is a folder inside the folder; folders are taken one level deep",
       [](fs::path const& in, fs::path const&) { fs::create_directories(in / "nested.pdf" / "sub.pdf"); }},
      {"linked", K::reject, "bad-type-in-folder",
       "\"linked/l.pdf\" is a symbolic link; a folder may hold only files",
       [](fs::path const& in, fs::path const& temp) {
         fs::create_directories(in / "linked");
         qxtest::writeFile(in / "linked" / "a.pdf", "a");
         fs::create_symlink(temp / "elsewhere" / "target.pdf", in / "linked" / "l.pdf");
       }},
      {"piped", K::reject, "bad-type-in-folder", "\"piped/p.pdf\" is a named pipe; a folder may hold only files",
       [](fs::path const& in, fs::path const&) {
         fs::create_directories(in / "piped");
         ASSERT_EQ(::mkfifo((in / "piped" / "p.pdf").c_str(), 0600), 0);
       }},
      {"empty", K::reject, "empty", "the folder \"empty\" holds no file to upload",
       [](fs::path const& in, fs::path const&) { fs::create_directories(in / "empty"); }},
      {"only-ignored", K::reject, "empty", "the folder \"only-ignored\" holds no file to upload",
       [](fs::path const& in, fs::path const&) {
         fs::create_directories(in / "only-ignored");
         qxtest::writeFile(in / "only-ignored" / ".DS_Store", "x");
       }},
      {"link.pdf", K::reject, "not-a-file", "\"link.pdf\" is a symbolic link; only files and folders are taken",
       [](fs::path const& in, fs::path const& temp) { fs::create_symlink(temp / "elsewhere" / "target.pdf", in / "link.pdf"); }},
      {"folderlink", K::reject, "not-a-file", "\"folderlink\" is a symbolic link; only files and folders are taken",
       [](fs::path const& in, fs::path const& temp) { fs::create_symlink(temp / "elsewhere", in / "folderlink"); }},
      {"fifo.pdf", K::reject, "not-a-file", "\"fifo.pdf\" is a named pipe; only files and folders are taken",
       [](fs::path const& in, fs::path const&) { ASSERT_EQ(::mkfifo((in / "fifo.pdf").c_str(), 0600), 0); }},
  };
  for (Case const& c : cases) c.make(in, temp.path());
  qxsvc::FolderFd const dir = qxtest::openFolder(in);
  Settings const settings = rulesRecord();
  for (Case const& c : cases) {
    Verdict const verdict = qxsvc::judge(settings, dir.get(), c.name);
    EXPECT_EQ(static_cast<int>(verdict.kind), static_cast<int>(c.kind)) << "entry \"" << c.name << "\"";
    EXPECT_EQ(verdict.rule, c.rule) << "entry \"" << c.name << "\"";
    EXPECT_EQ(verdict.message, c.message) << "entry \"" << c.name << "\"";
  }
  // Judging touched nothing, and the links' targets are where they were.
  EXPECT_EQ(qxtest::readFile(temp / "elsewhere" / "target.pdf"), "outside");
  EXPECT_EQ(namesIn(in).size(), sizeof cases / sizeof cases[0]);
}

TEST(IntakeJudge, AnEmptyAcceptedListAcceptsEveryTypeButNotFoldersOrZipsInAFolder) {
  qxtest::TempDir temp;
  fs::create_directories(temp / "drop" / "sub");
  qxtest::writeFile(temp / "tool.exe", "MZ");
  qxtest::writeFile(temp / "drop" / "a.exe", "MZ");
  Settings settings{json::Object()};
  settings.SrvFileExts = json::Array();
  qxsvc::FolderFd const dir = qxtest::openFolder(temp.path());
  EXPECT_EQ(static_cast<int>(qxsvc::judge(settings, dir.get(), "tool.exe").kind), static_cast<int>(Verdict::Kind::accept));
  Verdict const folder = qxsvc::judge(settings, dir.get(), "drop");
  EXPECT_EQ(folder.rule, "bad-type-in-folder");
  EXPECT_EQ(folder.message, "\"drop/sub\" is a folder inside the folder; folders are taken one level deep");
}

TEST(IntakeJudge, AnEntryThatIsGoneOrAPathIsAnError) {
  qxtest::TempDir temp;
  qxsvc::FolderFd const dir = qxtest::openFolder(temp.path());
  Settings const settings = rulesRecord();
  EXPECT_EQ(systemErrorOf([&] { qxsvc::judge(settings, dir.get(), "gone.pdf"); }),
            "cannot examine \"gone.pdf\": No such file or directory");
  EXPECT_EQ(systemErrorOf([&] { qxsvc::judge(settings, dir.get(), "../x.pdf"); }),
            "cannot judge \"../x.pdf\": not the name of an entry: Invalid argument");
}

// ---------------------------------------------------------------------------
// Claim

namespace {

struct Spool {
  qxtest::TempDir temp;
  fs::path in = temp / "in";
  fs::path out = temp / "out";
  fs::path rejected = temp / "rejected";
  Spool() {
    fs::create_directories(in);
    fs::create_directories(out);
    fs::create_directories(rejected);
  }
};

}  // namespace

TEST(IntakeClaim, TheEntryMovesIntoItsJobFolderUnderItsName) {
  Spool s;
  qxtest::writeFile(s.in / "a.pdf", "document");
  fs::create_directories(s.in / "drop");
  qxtest::writeFile(s.in / "drop" / "b.xml", "<b/>");
  qxsvc::FolderFd const in = qxtest::openFolder(s.in);
  qxsvc::FolderFd const out = qxtest::openFolder(s.out);
  std::string const first = qxsvc::newJobId(1700000000);
  std::string const second = qxsvc::newJobId(1700000000);
  qxsvc::claim(in.get(), "a.pdf", out.get(), first);
  qxsvc::claim(in.get(), "drop", out.get(), second);
  EXPECT_TRUE(namesIn(s.in).empty());
  EXPECT_EQ(qxtest::readFile(s.out / first / "a.pdf"), "document");
  EXPECT_EQ(qxtest::readFile(s.out / second / "drop" / "b.xml"), "<b/>");
  EXPECT_EQ(namesIn(s.out / first), std::vector<std::string>{"a.pdf"});
}

TEST(IntakeClaim, ABurstClaimsEachEntryAndOneThatFailsLeavesTheOthersClaimed) {
  Spool s;
  qxtest::writeFile(s.in / "a.pdf", "first");
  qxtest::writeFile(s.in / "b.pdf", "second");
  qxtest::writeFile(s.in / "c.pdf", "third");
  std::string const ids[] = {qxsvc::newJobId(1700000000), qxsvc::newJobId(1700000000), qxsvc::newJobId(1700000000)};
  fs::create_directories(s.out / ids[1]);  // another job's folder: b.pdf cannot take it
  qxsvc::FolderFd const in = qxtest::openFolder(s.in);
  qxsvc::FolderFd const out = qxtest::openFolder(s.out);
  qxsvc::ClaimBurst burst(in.get(), out.get());
  burst.add("a.pdf", ids[0]);
  EXPECT_EQ(systemErrorOf([&] { burst.add("b.pdf", ids[1]); }),
            "cannot claim \"b.pdf\": the job folder \"" + ids[1] + "\" exists already: File exists");
  burst.add("c.pdf", ids[2]);
  burst.sync();
  burst.sync();  // nothing added since: nothing to do
  EXPECT_EQ(namesIn(s.in), std::vector<std::string>{"b.pdf"});
  EXPECT_EQ(qxtest::readFile(s.out / ids[0] / "a.pdf"), "first");
  EXPECT_TRUE(namesIn(s.out / ids[1]).empty());
  EXPECT_EQ(qxtest::readFile(s.out / ids[2] / "c.pdf"), "third");
}

TEST(IntakeClaim, AnExistingJobFolderStopsTheClaimAndTheEntryStays) {
  Spool s;
  qxtest::writeFile(s.in / "a.pdf", "document");
  std::string const id = qxsvc::newJobId(1700000000);
  fs::create_directories(s.out / id);
  qxtest::writeFile(s.out / id / "a.pdf", "another job's file");
  qxsvc::FolderFd const in = qxtest::openFolder(s.in);
  qxsvc::FolderFd const out = qxtest::openFolder(s.out);
  EXPECT_EQ(systemErrorOf([&] { qxsvc::claim(in.get(), "a.pdf", out.get(), id); }),
            "cannot claim \"a.pdf\": the job folder \"" + id + "\" exists already: File exists");
  EXPECT_EQ(qxtest::readFile(s.in / "a.pdf"), "document");
  EXPECT_EQ(qxtest::readFile(s.out / id / "a.pdf"), "another job's file");
}

TEST(IntakeClaim, ANameOrIdThatIsAPathIsRefusedAndNothingMoves) {
  Spool s;
  qxtest::writeFile(s.in / "a.pdf", "document");
  qxsvc::FolderFd const in = qxtest::openFolder(s.in);
  qxsvc::FolderFd const out = qxtest::openFolder(s.out);
  struct Case {
    char const* name;
    char const* id;
    char const* message;
  };
  Case const cases[] = {
      {"a.pdf", "../escape", "cannot claim \"a.pdf\": \"../escape\" is not a job id: Invalid argument"},
      {"a.pdf", "20231114T221320Z-0a1b2c3d/x", "cannot claim \"a.pdf\": \"20231114T221320Z-0a1b2c3d/x\" is not a job id: Invalid argument"},
      {"../in/a.pdf", "20231114T221320Z-0a1b2c3d", "cannot claim \"../in/a.pdf\": not the name of an entry: Invalid argument"},
      {"..", "20231114T221320Z-0a1b2c3d", "cannot claim \"..\": not the name of an entry: Invalid argument"},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(systemErrorOf([&] { qxsvc::claim(in.get(), c.name, out.get(), c.id); }), c.message)
        << "name \"" << c.name << "\", id \"" << c.id << "\"";
  }
  EXPECT_EQ(namesIn(s.in), std::vector<std::string>{"a.pdf"});
  EXPECT_TRUE(namesIn(s.out).empty());
  EXPECT_FALSE(fs::exists(s.temp / "escape"));
}

TEST(IntakeClaim, AClaimThatFailsHalfWayLeavesTheEntryInTheIncomingFolder) {
  // The job folder can be made, but the entry cannot be renamed into it: the
  // incoming folder lies on another file system (a tmpfs of the test's own).
  Spool s;
  fs::path const shmIn = s.in.parent_path() / "other-disk";
  fs::create_directories(shmIn);
  qxtest::TmpfsMount const disk(shmIn, "size=1m,mode=0750");
  if (!disk.ok()) GTEST_SKIP() << "cannot mount a tmpfs (mounting needs root): " << disk.error();
  qxtest::writeFile(shmIn / "a.pdf", "document");
  qxsvc::FolderFd const in = qxtest::openFolder(shmIn);
  qxsvc::FolderFd const out = qxtest::openFolder(s.out);
  std::string const id = qxsvc::newJobId(1700000000);
  EXPECT_EQ(systemErrorOf([&] { qxsvc::claim(in.get(), "a.pdf", out.get(), id); }),
            "cannot claim \"a.pdf\" as job \"" + id + "\"; it stays in the incoming folder: Invalid cross-device link");
  EXPECT_EQ(qxtest::readFile(shmIn / "a.pdf"), "document");
  EXPECT_TRUE(namesIn(s.out).empty()) << "the empty job folder is removed";

  // The same for an entry that vanished meanwhile.
  qxsvc::FolderFd const sameFs = qxtest::openFolder(s.in);
  EXPECT_EQ(systemErrorOf([&] { qxsvc::claim(sameFs.get(), "gone.pdf", out.get(), id); }),
            "cannot claim \"gone.pdf\" as job \"" + id + "\"; it stays in the incoming folder: No such file or directory");
  EXPECT_TRUE(namesIn(s.out).empty());
}

// ---------------------------------------------------------------------------
// Reject

TEST(IntakeReject, TheEntryMovesWithItsReasonEscapedAsJson) {
  Spool s;
  std::string const name = "we\"ird\x01 \xc3\xa9t\xc3\xa9\\.exe";
  qxtest::writeFile(s.in / name, "MZ");
  qxsvc::FolderFd const in = qxtest::openFolder(s.in);
  qxsvc::FolderFd const rejected = qxtest::openFolder(s.rejected);
  std::string const message = "\"" + name + "\" has the extension \"exe\"\n";
  std::string const moved = qxsvc::reject(in.get(), name, rejected.get(), "extension", message, 1700000000);
  std::string const id = moved.substr(0, moved.find('/'));
  EXPECT_TRUE(qxsvc::isJobId(id)) << moved;
  EXPECT_EQ(id.substr(0, 17), "20231114T221320Z-");
  EXPECT_EQ(moved, id + "/" + name);
  EXPECT_TRUE(namesIn(s.in).empty());
  EXPECT_EQ(qxtest::readFile(s.rejected / moved), "MZ");
  EXPECT_EQ(namesIn(s.rejected / id), (std::vector<std::string>{"reason.json", name}));
  EXPECT_EQ(qxtest::readFile(s.rejected / id / "reason.json"),
            "{\"time\":1700000000,\"rule\":\"extension\",\"message\":"
            "\"\\\"we\\\"ird\\u0001 \xc3\xa9t\xc3\xa9\\\\.exe\\\" has the extension \\\"exe\\\"\\n\"}");
}

TEST(IntakeReject, ANameThatIsNotUtf8KeepsItsBytesAndItsReasonStaysJson) {
  Spool s;
  std::string const name = "\xe9t\xe9.exe";  // Latin-1, not UTF-8
  qxtest::writeFile(s.in / name, "MZ");
  qxsvc::FolderFd const in = qxtest::openFolder(s.in);
  qxsvc::FolderFd const rejected = qxtest::openFolder(s.rejected);
  std::string const moved =
      qxsvc::reject(in.get(), name, rejected.get(), "extension", "\"" + name + "\" is refused", 7);
  std::string const id = moved.substr(0, moved.find('/'));
  EXPECT_EQ(moved, id + "/" + name);
  EXPECT_EQ(qxtest::readFile(s.rejected / moved), "MZ");
  std::string const reason = qxtest::readFile(s.rejected / id / "reason.json");
  EXPECT_EQ(reason, "{\"time\":7,\"rule\":\"extension\",\"message\":\"\\\"\\ufffdt\\ufffd.exe\\\" is refused\"}");
  EXPECT_EQ(qxtest::parse(reason)["message"].asStringSafe(), "\"\xef\xbf\xbdt\xef\xbf\xbd.exe\" is refused")
      << "the reason parses as JSON, each byte that is not UTF-8 replaced by U+FFFD";
}

TEST(IntakeReject, AFolderMovesWholeAndAnEntryNamedLikeTheReasonKeepsBoth) {
  Spool s;
  fs::create_directories(s.in / "drop");
  qxtest::writeFile(s.in / "drop" / "b.exe", "MZ");
  qxtest::writeFile(s.in / "reason.json", "{\"mine\":1}");
  qxsvc::FolderFd const in = qxtest::openFolder(s.in);
  qxsvc::FolderFd const rejected = qxtest::openFolder(s.rejected);
  std::string const folder = qxsvc::reject(in.get(), "drop", rejected.get(), "bad-type-in-folder", "m", 5);
  EXPECT_EQ(qxtest::readFile(s.rejected / folder / "b.exe"), "MZ");
  std::string const clash = qxsvc::reject(in.get(), "reason.json", rejected.get(), "server", "refused", 6);
  std::string const id = clash.substr(0, clash.find('/'));
  EXPECT_EQ(clash, id + "/reason_1.json");
  EXPECT_EQ(qxtest::readFile(s.rejected / clash), "{\"mine\":1}");
  EXPECT_EQ(qxtest::readFile(s.rejected / id / "reason.json"), "{\"time\":6,\"rule\":\"server\",\"message\":\"refused\"}");
  EXPECT_NE(folder.substr(0, folder.find('/')), id);
}

TEST(IntakeReject, AFailedRejectLeavesNoFolderBehind) {
  Spool s;
  qxsvc::FolderFd const in = qxtest::openFolder(s.in);
  qxsvc::FolderFd const rejected = qxtest::openFolder(s.rejected);
  EXPECT_EQ(systemErrorOf([&] { qxsvc::reject(in.get(), "gone.pdf", rejected.get(), "expired", "m", 5); }).substr(0, 25),
            "cannot reject \"gone.pdf\":");
  EXPECT_TRUE(namesIn(s.rejected).empty());
  EXPECT_EQ(systemErrorOf([&] { qxsvc::reject(in.get(), "a/b", rejected.get(), "expired", "m", 5); }),
            "cannot reject \"a/b\": not the name of an entry: Invalid argument");
}

TEST(IntakeReject, TheSweepRemovesWhatACrashedRejectLeftAndNothingElse) {
  Spool s;
  std::string const halfReason = qxsvc::newJobId(5);
  std::string const wholeReason = qxsvc::newJobId(5);
  std::string const done = qxsvc::newJobId(5);
  fs::create_directories(s.rejected / halfReason);
  qxtest::writeFile(s.rejected / halfReason / "reason.json.noqx", "{\"ti");
  fs::create_directories(s.rejected / wholeReason);
  qxtest::writeFile(s.rejected / wholeReason / "reason.json", "{}");
  fs::create_directories(s.rejected / done);
  qxtest::writeFile(s.rejected / done / "reason.json", "{}");
  qxtest::writeFile(s.rejected / done / "kept.pdf", "kept");
  fs::create_directories(s.rejected / "by hand");  // not the service's
  qxtest::writeFile(s.rejected / "by hand" / "reason.json", "{}");
  qxsvc::FolderFd const rejected = qxtest::openFolder(s.rejected);
  EXPECT_EQ(2u, qxsvc::sweepUnfinishedRejects(rejected.get()));
  EXPECT_EQ(namesIn(s.rejected), (std::vector<std::string>{done, "by hand"}));
  EXPECT_EQ("kept", qxtest::readFile(s.rejected / done / "kept.pdf"));
  EXPECT_EQ(0u, qxsvc::sweepUnfinishedRejects(rejected.get()));
}

// ---------------------------------------------------------------------------
// The files of a job

TEST(IntakeFilesOf, ListsFilesBelowTheJobSortedWithoutLinksOrPipes) {
  qxtest::TempDir temp;
  fs::path const job = temp / "job";
  fs::create_directories(job / "drop" / "sub" / "deeper");
  fs::create_directories(job / "drop" / "empty");
  fs::create_directories(temp / "outside");
  qxtest::writeFile(temp / "outside" / "secret.pdf", "not the job's");
  qxtest::writeFile(job / "drop" / "b.pdf", "bb");
  qxtest::writeFile(job / "drop" / "a.pdf", "a");
  qxtest::writeFile(job / "drop" / "sub" / "c.xml", "ccc");
  qxtest::writeFile(job / "drop" / "sub" / "deeper" / "d.pdf", "");
  qxtest::writeFile(job / "drop.zip", "zip!");
  setMtime(job / "drop" / "a.pdf", 1700000000, 123456789);
  fs::create_symlink(temp / "outside" / "secret.pdf", job / "drop" / "link.pdf");
  fs::create_symlink(temp / "outside", job / "drop" / "linked-folder");
  ASSERT_EQ(::mkfifo((job / "drop" / "pipe.pdf").c_str(), 0600), 0);
  qxsvc::FolderFd const dir = qxtest::openFolder(job);
  std::vector<qxsvc::JobFile> const files = qxsvc::filesOf(dir.get());
  std::string listed;
  for (qxsvc::JobFile const& f : files) listed += f.name + " " + std::to_string(f.size) + "\n";
  EXPECT_EQ(listed,
            "drop.zip 4\n"
            "drop/a.pdf 1\n"
            "drop/b.pdf 2\n"
            "drop/sub/c.xml 3\n"
            "drop/sub/deeper/d.pdf 0\n");
  ASSERT_EQ(files.size(), 5u);
  EXPECT_EQ(files[1].mtimeNs, 1700000000123456789LL);
}
