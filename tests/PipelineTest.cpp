// Tests of the upload pipeline in process, against the real test servers:
// what a person drops arrives on the server once, with its bytes, under the
// documented key; what the rules or the server refuse goes to the rejected
// folder with its reason; what cannot be sent yet waits in the outgoing
// folder, never lost.
#include "apps/svc/upload/Intake.h"
#include "apps/svc/upload/Journal.h"
#include "apps/svc/upload/Pipeline.h"
#include "apps/svc/upload/Sha256.h"
#include "tests/DropTestUtil.h"
#include "tests/FaultProxy.h"
#include "tests/IntakeTestUtil.h"
#include "tests/ProcessHarness.h"
#include "tests/SpoolTestUtil.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <sys/stat.h>
#include <time.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

std::string today() {
  std::time_t const now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char day[16];
  std::strftime(day, sizeof day, "%Y-%m-%d", &utc);
  return day;
}


class PipelineTest : public ::testing::Test {
 protected:
  PipelineTest()
      : in(tmp / "spool" / "in"), out(tmp / "spool" / "out"), backup(tmp / "spool" / "backup"),
        rejected(backup / ".rejected"), credentials(tmp / "credentials.json") {
    for (fs::path const& f : {in, out, backup, rejected}) {
      fs::create_directories(f);
      ::chmod(f.c_str(), 0750);
    }
  }

  void writeCredentials(std::string const& user, std::string const& secret, mode_t mode = 0600) {
    json::Object obj;
    obj.setAt("user", json::Value(user));
    obj.setAt("secret", json::Value(secret));
    qxtest::writeFile(credentials, json::jsonToString(obj, false));
    ::chmod(credentials.c_str(), mode);
  }

  // A configuration of the spool folders that uploads to address.
  Settings settingsFor(std::string const& address, std::uint32_t backupSecs = 0, unsigned minFilesToZip = 10) {
    Settings s = qxtest::spoolSettings(in, out, backup);
    s.InetConfig.setServerAddress(address);
    s.BackupExpireSecs = backupSecs;
    s.MinFilesToZip = minFilesToZip;
    static char const kExts[] = R"(["pdf","txt","csv","zip"])";
    s.SrvFileExts = Settings::CfgFileExts(json::strToArray(kExts, sizeof kExts - 1));
    s.SrvFileExtsSet.clear();
    return s;
  }

  qxsvc::PipelineOptions options() {
    qxsvc::PipelineOptions o = qxtest::pipelineOptions(tmp / "state", credentials);
    o.rescanInterval = std::chrono::milliseconds(200);
    o.settleTime = std::chrono::milliseconds(100);
    o.retryFirst = std::chrono::milliseconds(200);
    o.retryMost = std::chrono::milliseconds(400);
    o.holdProbe = std::chrono::milliseconds(200);
    return o;
  }

  // Drops a file the way the service's transfer does: written aside, then
  // renamed into the incoming folder whole.
  void drop(std::string const& name, std::string const& content) {
    fs::path const aside = tmp / ("aside-" + std::to_string(++m_drops));
    qxtest::writeFile(aside, content);
    fs::rename(aside, in / name);
  }

  // The jobs of the list, by state name.
  static std::vector<std::string> states(qxsvc::Pipeline const& p) {
    std::vector<std::string> result;
    json::Array const list(p.uploads()["uploads"]);
    for (std::size_t i = 0; i < list.size(); ++i) result.push_back(json::Object(list[i])["state"].asStringSafe());
    return result;
  }

  static json::Object job(qxsvc::Pipeline const& p, std::size_t i) {
    json::Array const list(p.uploads()["uploads"]);
    return i < list.size() ? json::Object(list[i]) : json::Object();
  }

  // One job, not done and not given up: queued, or in a try that will fail.
  static bool waiting(qxsvc::Pipeline const& p) {
    std::vector<std::string> const s = states(p);
    return s.size() == 1 && (s[0] == "queued" || s[0] == "uploading");
  }

  static bool allIn(qxsvc::Pipeline const& p, std::string const& state, std::size_t count) {
    std::vector<std::string> const s = states(p);
    return s.size() == count && std::all_of(s.begin(), s.end(), [&](std::string const& x) { return x == state; });
  }

  qxtest::TempDir tmp;
  fs::path const in, out, backup, rejected, credentials;
  int m_drops = 0;
};

TEST_F(PipelineTest, AFileDroppedArrivesOnTheS3ServerOnceWithItsBytesUnderTheDocumentedKey) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "pipeline-one");
  writeCredentials(s3.accessKey, s3.secretKey);
  std::string const content = "%PDF-1.4 the report\n" + std::string(100000, 'x');
  {
    qxsvc::Pipeline p(settingsFor("s3://" + s3.endpoint.substr(7) + "/" + bucket + "/base"), options());
    p.start();
    drop("report.pdf", content);
    p.scanNow();
    ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
    json::Object const done = job(p, 0);
    std::string const id = done["id"].asStringSafe();
    EXPECT_TRUE(qxsvc::isJobId(id)) << id;
    EXPECT_EQ("report.pdf", done["name"].asStringSafe());
    EXPECT_EQ(static_cast<json_int_t>(content.size()), json_integer_value(done["size"].get()));
    EXPECT_EQ(static_cast<json_int_t>(content.size()), json_integer_value(done["sent"].get()));
    std::string const key = "-/0/" + today() + "/" + id + "/report.pdf";
    EXPECT_EQ(key, done["key"].asStringSafe());
    EXPECT_EQ(std::vector<std::string>{"base/" + key}, qxtest::s3ListKeys(s3, bucket));
    EXPECT_EQ(content, qxtest::s3ObjectBytes(s3, bucket, "base/" + key));
    // Backup off: nothing is kept once the server holds the bytes.
    EXPECT_TRUE(qxtest::waitFor([&] { return qxtest::namesIn(out).empty(); })) << qxtest::namesIn(out).size();
    EXPECT_EQ(std::vector<std::string>{}, qxtest::namesIn(in));
  }
  // A restart uploads nothing again.
  qxsvc::Pipeline again(settingsFor("s3://" + s3.endpoint.substr(7) + "/" + bucket + "/base"), options());
  again.start();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(1u, qxtest::s3ListKeys(s3, bucket).size());
  EXPECT_EQ(std::vector<std::string>{"done"}, states(again));
}

TEST_F(PipelineTest, WithBackupOnTheJobFolderMovesToTheBackupFolderAfterTheUpload) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  std::string const base = "pipeline-backup-" + std::to_string(::getpid());
  qxsvc::Pipeline p(settingsFor(dav.url + "/" + base, 4294967295u), options());
  p.start();
  drop("a b+c#d%e ü.txt", "odd name\n");
  p.scanNow();
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  std::string const id = job(p, 0)["id"].asStringSafe();
  fs::path const stored = fs::path(dav.root) / base / "-" / "0" / today() / id / "a b+c#d%e ü.txt";
  EXPECT_EQ("odd name\n", qxtest::readFile(stored));
  ASSERT_TRUE(qxtest::waitFor([&] { return qxtest::namesIn(backup) == std::vector<std::string>{".rejected", id}; }))
      << qxtest::namesIn(backup).size();
  EXPECT_EQ("odd name\n", qxtest::readFile(backup / id / "a b+c#d%e ü.txt"));
  EXPECT_EQ(std::vector<std::string>{}, qxtest::namesIn(out));
}

TEST_F(PipelineTest, AFolderOfMinFilesToZipFilesGoesAsOneArchive) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  std::string const base = "pipeline-zip-" + std::to_string(::getpid());
  fs::path const folder = tmp / "batch";
  fs::create_directories(folder);
  for (int i = 0; i < 3; ++i) qxtest::writeFile(folder / ("f" + std::to_string(i) + ".csv"), "a,b\n" + std::to_string(i));
  qxsvc::Pipeline p(settingsFor(dav.url + "/" + base, 0, 3), options());
  p.start();
  fs::rename(folder, in / "batch");
  p.scanNow();
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  json::Object const done = job(p, 0);
  std::string const id = done["id"].asStringSafe();
  EXPECT_EQ("3 files: f0.csv, f1.csv, f2.csv", done["name"].asStringSafe());
  EXPECT_EQ("-/0/" + today() + "/" + id + "/" + id + ".zip", done["key"].asStringSafe());
  fs::path const jobOnServer = fs::path(dav.root) / base / "-" / "0" / today() / id;
  EXPECT_EQ(std::vector<std::string>{id + ".zip"}, qxtest::namesIn(jobOnServer));
  std::string const zip = qxtest::readFile(jobOnServer / (id + ".zip"));
  EXPECT_EQ("PK\x03\x04", zip.substr(0, 4));
}

TEST_F(PipelineTest, AFolderDropIsListedByItsFilesNotByItsSpoolName) {
  // No credentials file: the queue is held, and the jobs stay in the list.
  qxsvc::Pipeline p(settingsFor("dav://127.0.0.1:1/nowhere"), options());
  p.start();
  struct Row {
    char const* folder;
    std::vector<char const*> files;
    char const* shown;
  };
  std::vector<Row> const rows = {
      {"tmp", {"only.pdf"}, "1 file: only.pdf"},
      {"tmp_1", {"b.pdf", "a.pdf", "c.txt"}, "3 files: a.pdf, b.pdf, c.txt"},
      {"tmp_2", {"e.txt", "d.pdf", "a.pdf", "b.csv", "c.pdf"}, "5 files: a.pdf, b.csv, c.pdf, \u2026"},
  };
  for (Row const& row : rows) {
    fs::path const stage = tmp / "stage" / row.folder;
    fs::create_directories(stage);
    for (char const* file : row.files) qxtest::writeFile(stage / file, file);
    fs::rename(stage, in / row.folder);
  }
  ASSERT_TRUE(qxtest::waitFor([&] { return states(p).size() == rows.size(); })) << qxtest::text(p.uploads());
  std::set<std::string> shown;
  for (std::size_t i = 0; i < rows.size(); ++i) shown.insert(job(p, i)["name"].asStringSafe());
  for (Row const& row : rows) EXPECT_EQ(1u, shown.count(row.shown)) << row.shown << " in " << qxtest::text(p.uploads());
}

TEST_F(PipelineTest, ARefusedTypeGoesToTheRejectedFolderWithItsReason) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  qxsvc::Pipeline p(settingsFor(dav.url + "/pipeline-refused"), options());
  p.start();
  drop("tool.exe", "MZ");
  p.scanNow();
  ASSERT_TRUE(qxtest::waitFor([&] { return qxtest::namesIn(in).empty() && qxtest::namesIn(rejected).size() == 1; }));
  fs::path const where = rejected / qxtest::namesIn(rejected).front();
  EXPECT_EQ((std::vector<std::string>{"reason.json", "tool.exe"}), qxtest::namesIn(where));
  EXPECT_EQ("MZ", qxtest::readFile(where / "tool.exe"));
  json::Object const reason = qxtest::parse(qxtest::readFile(where / "reason.json"));
  EXPECT_EQ("extension", reason["rule"].asStringSafe());
  EXPECT_TRUE(reason["time"].isInteger());
  EXPECT_NE(std::string::npos, reason["message"].asStringSafe().find("tool.exe")) << qxtest::text(reason);
  EXPECT_EQ(std::vector<std::string>{}, qxtest::namesIn(in));
  EXPECT_EQ(std::vector<std::string>{}, qxtest::namesIn(out));
}

TEST_F(PipelineTest, RefusedCredentialsHoldTheQueueAndKeepTheFiles) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "pipeline-held");
  writeCredentials(s3.accessKey, "not-the-secret");
  std::string const address = "s3://" + s3.endpoint.substr(7) + "/" + bucket;
  {
    qxsvc::Pipeline p(settingsFor(address), options());
    p.start();
    drop("kept.pdf", "kept");
    p.scanNow();
    ASSERT_TRUE(qxtest::waitFor([&] { return p.uploads()["held"].isString(); })) << qxtest::text(p.uploads());
    std::string const held = p.uploads()["held"].asStringSafe();
    EXPECT_NE(std::string::npos, held.find("403")) << held;
    EXPECT_TRUE(waiting(p)) << qxtest::text(p.uploads());
    EXPECT_EQ(std::vector<std::string>{}, qxtest::s3ListKeys(s3, bucket));
    ASSERT_EQ(1u, qxtest::namesIn(out).size());
    EXPECT_EQ("kept", qxtest::readFile(out / qxtest::namesIn(out).front() / "kept.pdf"));
  }
  // The right secret, and the same job goes.
  writeCredentials(s3.accessKey, s3.secretKey);
  qxsvc::Pipeline p(settingsFor(address), options());
  p.start();
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  EXPECT_EQ(1u, qxtest::s3ListKeys(s3, bucket).size());
  EXPECT_FALSE(p.uploads()["held"].isString());
}

TEST_F(PipelineTest, ACredentialsFileReadableByOthersHoldsTheQueueWithTheReason) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password, 0644);
  qxsvc::Pipeline p(settingsFor(dav.url + "/pipeline-0644"), options());
  p.start();
  drop("waits.pdf", "waits");
  ASSERT_TRUE(qxtest::waitFor([&] { return states(p) == std::vector<std::string>{"queued"}; }))
      << qxtest::text(p.uploads());
  std::string const held = p.uploads()["held"].asStringSafe();
  EXPECT_NE(std::string::npos, held.find("0644")) << held;
  EXPECT_NE(std::string::npos, held.find(credentials.string())) << held;
}

TEST_F(PipelineTest, AServerDownAtStartKeepsTheJobQueuedAndItGoesOnceTheServerIsThere) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  std::string const base = "pipeline-down-" + std::to_string(::getpid());
  // Port 1 on loopback: nothing listens.
  qxsvc::Pipeline p(settingsFor("dav://127.0.0.1:1/" + base), options());
  p.start();
  drop("later.txt", "later");
  ASSERT_TRUE(qxtest::waitFor([&] { return p.uploads()["held"].isString(); })) << qxtest::text(p.uploads());
  EXPECT_EQ(0u, p.uploads()["held"].asStringSafe().find("no server answers: connect to 127.0.0.1:1 failed"))
      << qxtest::text(p.uploads());
  EXPECT_TRUE(waiting(p)) << qxtest::text(p.uploads());
  EXPECT_EQ(1u, qxtest::namesIn(out).size());
  p.setSettings(settingsFor(dav.url + "/" + base));
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  std::string const id = job(p, 0)["id"].asStringSafe();
  EXPECT_EQ("later", qxtest::readFile(fs::path(dav.root) / base / "-" / "0" / today() / id / "later.txt"));
}

TEST_F(PipelineTest, CancelMovesAWaitingJobToTheRejectedFolder) {
  writeCredentials("nobody", "nothing");
  qxsvc::Pipeline p(settingsFor("dav://127.0.0.1:1/nowhere"), options());
  p.start();
  drop("cancel me.pdf", "cancel");
  ASSERT_TRUE(qxtest::waitFor([&] { return states(p).size() == 1; }));
  std::string const id = job(p, 0)["id"].asStringSafe();
  EXPECT_EQ("there is no job \"nope\"", p.cancel("nope"));
  EXPECT_EQ("", p.cancel(id));
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "cancelled", 1); })) << qxtest::text(p.uploads());
  EXPECT_EQ("cancelled by a person", job(p, 0)["error"].asStringSafe());
  ASSERT_EQ(1u, qxtest::namesIn(rejected).size());
  fs::path const where = rejected / qxtest::namesIn(rejected).front();
  EXPECT_EQ("cancel", qxtest::readFile(where / "cancel me.pdf"));
  EXPECT_EQ("cancelled", qxtest::parse(qxtest::readFile(where / "reason.json"))["rule"].asStringSafe());
  EXPECT_EQ(std::vector<std::string>{}, qxtest::namesIn(out));
  EXPECT_EQ("job \"" + id + "\" is cancelled already", p.cancel(id));
}

TEST_F(PipelineTest, PauseWithDiscardMovesTheWaitingJobsAndCountsThem) {
  // No credentials file: the queue is held, so both jobs wait.
  qxsvc::Pipeline p(settingsFor("dav://127.0.0.1:1/nowhere"), options());
  p.start();
  drop("one.pdf", "1");
  drop("two.pdf", "2");
  ASSERT_TRUE(qxtest::waitFor([&] { return states(p).size() == 2; }));
  std::vector<std::string> const moved = p.pause(true);
  ASSERT_EQ(2u, moved.size());
  std::set<std::string> expected;
  for (std::size_t i = 0; i < 2; ++i) {
    expected.insert(job(p, i)["name"].asStringSafe() + " (job " + job(p, i)["id"].asStringSafe() + ")");
  }
  EXPECT_EQ(2u, expected.size());
  EXPECT_EQ(1u, expected.count("one.pdf (job " + job(p, 0)["id"].asStringSafe() + ")") +
                    expected.count("one.pdf (job " + job(p, 1)["id"].asStringSafe() + ")"));
  EXPECT_EQ(expected, std::set<std::string>(moved.begin(), moved.end()));
  EXPECT_TRUE(p.paused());
  EXPECT_EQ(2u, qxtest::namesIn(rejected).size());
  EXPECT_EQ(std::vector<std::string>{}, qxtest::namesIn(out));
  EXPECT_TRUE(allIn(p, "cancelled", 2)) << qxtest::text(p.uploads());
  EXPECT_TRUE(p.uploads()["paused"].isTrue());
}

TEST_F(PipelineTest, AJobFolderTheJournalLacksIsAdoptedAndUploaded) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  std::string const base = "pipeline-adopt-" + std::to_string(::getpid());
  // What a crash between the claim and the journal leaves.
  std::string const id = qxsvc::newJobId(std::time(nullptr));
  fs::create_directories(out / id);
  qxtest::writeFile(out / id / "orphan.pdf", "orphan");
  // And an empty claim, which is removed.
  std::string const empty = qxsvc::newJobId(std::time(nullptr));
  fs::create_directories(out / empty);
  qxsvc::Pipeline p(settingsFor(dav.url + "/" + base), options());
  p.start();
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  EXPECT_EQ(id, job(p, 0)["id"].asStringSafe());
  EXPECT_EQ("orphan", qxtest::readFile(fs::path(dav.root) / base / "-" / "0" / today() / id / "orphan.pdf"));
  EXPECT_EQ(std::vector<std::string>{}, qxtest::namesIn(out));
}

TEST_F(PipelineTest, ACorruptJournalIsSetAsideAndTheFoldersAreUploadedFromAgain) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  std::string const base = "pipeline-corrupt-" + std::to_string(::getpid());
  fs::create_directories(tmp / "state");
  qxtest::writeFile(tmp / "state" / "journal.db", "this is no database");
  std::string const id = qxsvc::newJobId(std::time(nullptr));
  fs::create_directories(out / id);
  qxtest::writeFile(out / id / "survivor.pdf", "survivor");
  qxsvc::Pipeline p(settingsFor(dav.url + "/" + base), options());
  p.start();
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  EXPECT_EQ("survivor", qxtest::readFile(fs::path(dav.root) / base / "-" / "0" / today() / id / "survivor.pdf"));
  std::vector<std::string> const state = qxtest::namesIn(tmp / "state");
  EXPECT_TRUE(std::any_of(state.begin(), state.end(),
                          [](std::string const& n) { return n.rfind("journal.db.corrupt-", 0) == 0; }));
}

TEST_F(PipelineTest, AFileRewrittenWhileItWaitsIsUploadedAsItIsNow) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  std::string const base = "pipeline-rewrite-" + std::to_string(::getpid());
  std::string id;
  {
    qxsvc::Pipeline p(settingsFor("dav://127.0.0.1:1/nowhere"), options());
    p.start();
    drop("draft.txt", "first");
    ASSERT_TRUE(qxtest::waitFor([&] { return states(p).size() == 1; }));
    id = job(p, 0)["id"].asStringSafe();
  }
  qxtest::writeFile(out / id / "draft.txt", "second, longer");
  qxsvc::Pipeline p(settingsFor(dav.url + "/" + base), options());
  p.start();
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  EXPECT_EQ("second, longer", qxtest::readFile(fs::path(dav.root) / base / "-" / "0" / today() / id / "draft.txt"));
}

TEST_F(PipelineTest, AZeroByteFileIsUploaded) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "pipeline-empty");
  writeCredentials(s3.accessKey, s3.secretKey);
  qxsvc::Pipeline p(settingsFor("s3://" + s3.endpoint.substr(7) + "/" + bucket), options());
  p.start();
  drop("empty.txt", "");
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  std::vector<std::string> const keys = qxtest::s3ListKeys(s3, bucket);
  ASSERT_EQ(1u, keys.size());
  EXPECT_EQ("", qxtest::s3ObjectBytes(s3, bucket, keys.front()));
}

TEST_F(PipelineTest, AProxyThatRefusesHoldsTheQueueAndKeepsTheFiles) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  Settings settings = settingsFor(dav.url + "/pipeline-proxy");
  // A proxy on a port where nothing listens.
  settings.InetConfig = Inet::InetCfg(dav.url + "/pipeline-proxy", "", true, "127.0.0.1:1", false, false, false,
                                      Inet::InetCfg::ProxyAuthMethod::None, "", "", "7.0.1");
  qxsvc::Pipeline p(settings, options());
  p.start();
  drop("kept.pdf", "kept");
  ASSERT_TRUE(qxtest::waitFor([&] { return p.uploads()["held"].isString(); })) << qxtest::text(p.uploads());
  EXPECT_EQ(0u, p.uploads()["held"].asStringSafe().find("no server answers: ")) << qxtest::text(p.uploads());
  EXPECT_TRUE(waiting(p)) << qxtest::text(p.uploads());
  ASSERT_EQ(1u, qxtest::namesIn(out).size());
  EXPECT_EQ("kept", qxtest::readFile(out / qxtest::namesIn(out).front() / "kept.pdf"));
}

TEST_F(PipelineTest, AFileDeletedWhileItWaitsFailsTheJobAndLeavesNothingBehind) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  std::string const base = "pipeline-deleted-" + std::to_string(::getpid());
  std::string id;
  {
    qxsvc::Pipeline p(settingsFor(dav.url + "/" + base), options());  // no credentials yet: held
    p.start();
    drop("gone.pdf", "soon gone");
    ASSERT_TRUE(qxtest::waitFor([&] { return states(p) == std::vector<std::string>{"queued"}; }));
    id = job(p, 0)["id"].asStringSafe();
  }
  fs::remove(out / id / "gone.pdf");
  writeCredentials(dav.user, dav.password);
  qxsvc::Pipeline p(settingsFor(dav.url + "/" + base), options());
  p.start();
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "failed", 1); })) << qxtest::text(p.uploads());
  EXPECT_EQ("\"gone.pdf\" was removed from the outgoing folder before it was uploaded", job(p, 0)["error"].asStringSafe());
  EXPECT_TRUE(qxtest::waitFor([&] { return qxtest::namesIn(out).empty(); })) << qxtest::namesIn(out).size();
  EXPECT_EQ(std::vector<std::string>{".rejected"}, qxtest::namesIn(backup));
  EXPECT_FALSE(fs::exists(fs::path(dav.root) / base));
}

TEST_F(PipelineTest, AFullBackupFolderKeepsTheUploadedJobInTheOutgoingFolder) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  std::string const base = "pipeline-full-" + std::to_string(::getpid());
  fs::remove(rejected);
  qxtest::TmpfsMount const disk(backup, "size=64k,mode=0750");
  if (!disk.ok()) GTEST_SKIP() << "cannot mount a tmpfs on the backup folder: " << disk.error();
  std::string const big(200000, 'b');
  qxtest::LogWatch log;
  {
    qxsvc::Pipeline p(settingsFor(dav.url + "/" + base, 4294967295u), options());
    p.start();
    drop("big.pdf", big);
    ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
    std::string const id = job(p, 0)["id"].asStringSafe();
    EXPECT_EQ(big, qxtest::readFile(fs::path(dav.root) / base / "-" / "0" / today() / id / "big.pdf"));
    ASSERT_TRUE(log.waitFor("ERR:qxlite-svc keeps job " + id + " in the outgoing folder for now: cannot copy \"big.pdf\": No space left on device"))
        << [&] {
             std::string all;
             for (std::string const& l : log.lines()) all += l + "\n";
             return all;
           }();
    // The local copy stays whole where it was; no half copy in the backup.
    EXPECT_EQ(big, qxtest::readFile(out / id / "big.pdf"));
    EXPECT_EQ(std::vector<std::string>{".rejected"}, qxtest::namesIn(backup));
  }
}

TEST_F(PipelineTest, ABackupFolderOnAnotherFileSystemGetsTheJobCopiedThenRemovedHere) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  fs::remove(rejected);
  qxtest::TmpfsMount const disk(backup, "size=4m,mode=0750");
  if (!disk.ok()) GTEST_SKIP() << "cannot mount a tmpfs on the backup folder: " << disk.error();
  qxsvc::Pipeline p(settingsFor(dav.url + "/pipeline-copy-" + std::to_string(::getpid()), 4294967295u), options());
  p.start();
  drop("copied.pdf", "copied");
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  std::string const id = job(p, 0)["id"].asStringSafe();
  ASSERT_TRUE(qxtest::waitFor([&] { return qxtest::namesIn(out).empty(); }));
  EXPECT_EQ((std::vector<std::string>{".rejected", id}), qxtest::namesIn(backup));
  EXPECT_EQ("copied", qxtest::readFile(backup / id / "copied.pdf"));
}

TEST_F(PipelineTest, TheSweepRemovesBackupsOlderThanBackupExpireSecsOnly) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  // A backup of another service's making, or of a person's: not a job, kept.
  fs::create_directories(backup / "mine");
  qxsvc::PipelineOptions o = options();
  o.sweepInterval = std::chrono::milliseconds(200);
  qxsvc::Pipeline p(settingsFor(dav.url + "/pipeline-sweep-" + std::to_string(::getpid()), 2), o);
  p.start();
  drop("short-lived.pdf", "brief");
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  std::string const id = job(p, 0)["id"].asStringSafe();
  ASSERT_TRUE(qxtest::waitFor([&] { return fs::exists(backup / id / "short-lived.pdf"); }));
  auto const kept = std::chrono::steady_clock::now();
  ASSERT_TRUE(qxtest::waitFor([&] { return !fs::exists(backup / id); }, std::chrono::seconds(10)));
  EXPECT_GE(std::chrono::steady_clock::now() - kept, std::chrono::milliseconds(900));
  EXPECT_EQ((std::vector<std::string>{".rejected", "mine"}), qxtest::namesIn(backup));
  EXPECT_EQ(std::vector<std::string>{"done"}, states(p));
}

TEST_F(PipelineTest, AMainAddressThatDoesNotAnswerFailsOverToTheAlternativeOne) {
  qxtest::DavTestServer const& dav = qxtest::davServer();
  writeCredentials(dav.user, dav.password);
  std::string const base = "pipeline-failover-" + std::to_string(::getpid());
  Settings settings = settingsFor("dav://127.0.0.1:1/" + base);
  settings.InetConfig.setAltServerAddress(dav.url + "/" + base);
  qxsvc::Pipeline p(settings, options());
  p.start();
  drop("either.pdf", "either");
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "done", 1); })) << qxtest::text(p.uploads());
  std::string const id = job(p, 0)["id"].asStringSafe();
  EXPECT_EQ("either", qxtest::readFile(fs::path(dav.root) / base / "-" / "0" / today() / id / "either.pdf"));
  EXPECT_EQ(1, json_integer_value(job(p, 0)["attempts"].get())) << qxtest::text(p.uploads());
  EXPECT_FALSE(p.uploads()["held"].isString());
}

TEST_F(PipelineTest, AJobThatKeepsFailingIsGivenUpWithItsLastErrorAfterTheRetryWindow) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "pipeline-expire");
  writeCredentials(s3.accessKey, s3.secretKey);
  qxtest::HostPort const upstream = qxtest::hostPortOf(s3.endpoint);
  qxtest::FaultProxy proxy(upstream.host, upstream.port, [](std::string const& method, std::string const&) {
    return method == "PUT" ? qxtest::Fault::answer503() : qxtest::Fault::pass();
  });
  qxsvc::PipelineOptions o = options();
  o.giveUpAfter = std::chrono::seconds(1);
  qxsvc::Pipeline p(settingsFor("s3://127.0.0.1:" + std::to_string(proxy.port()) + "/" + bucket), o);
  p.start();
  drop("never.pdf", "never");
  ASSERT_TRUE(qxtest::waitFor([&] { return allIn(p, "failed", 1); })) << qxtest::text(p.uploads());
  json::Object const failed = job(p, 0);
  EXPECT_GE(json_integer_value(failed["attempts"].get()), 2);
  std::string const error = failed["error"].asStringSafe();
  EXPECT_EQ(0u, error.find("given up after ")) << error;
  EXPECT_NE(std::string::npos, error.find("503")) << error;
  ASSERT_TRUE(qxtest::waitFor([&] { return qxtest::namesIn(out).empty() && qxtest::namesIn(rejected).size() == 1; }));
  fs::path const where = rejected / qxtest::namesIn(rejected).front();
  EXPECT_EQ("never", qxtest::readFile(where / "never.pdf"));
  json::Object const reason = qxtest::parse(qxtest::readFile(where / "reason.json"));
  EXPECT_EQ("expired", reason["rule"].asStringSafe());
  EXPECT_EQ(error, reason["message"].asStringSafe());
  EXPECT_EQ(std::vector<std::string>{}, qxtest::s3ListKeys(s3, bucket));
}

TEST_F(PipelineTest, JobsWaitingForAFreeTransferLeaveTheLoopAsleep) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "pipeline-backlog");
  writeCredentials(s3.accessKey, s3.secretKey);
  qxtest::HostPort const upstream = qxtest::hostPortOf(s3.endpoint);
  // Every answer to a PUT is held for a while: the transfers stay busy.
  qxtest::FaultProxy proxy(upstream.host, upstream.port, [](std::string const& method, std::string const&) {
    return method == "PUT" ? qxtest::Fault::stallAnswer(std::chrono::milliseconds(4000)) : qxtest::Fault::pass();
  });
  Settings settings = settingsFor("s3://127.0.0.1:" + std::to_string(proxy.port()) + "/" + bucket);
  settings.ConcurrentUploads = 1;
  qxsvc::Pipeline p(settings, options());
  p.start();
  for (int i = 0; i < 6; ++i) drop("backlog-" + std::to_string(i) + ".pdf", "waits " + std::to_string(i));
  p.scanNow();
  // One runs and one more is handed over ahead; four wait for a free transfer.
  ASSERT_TRUE(qxtest::waitFor([&] {
    std::vector<std::string> const s = states(p);
    return s.size() == 6 && std::count(s.begin(), s.end(), "uploading") == 2;
  })) << qxtest::text(p.uploads());
  timespec before{}, after{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
  double const cpuSeconds = static_cast<double>(after.tv_sec - before.tv_sec) + (after.tv_nsec - before.tv_nsec) / 1e9;
  // A loop that woke for every waiting job would burn the whole second.
  EXPECT_LT(cpuSeconds, 0.25) << qxtest::text(p.uploads());
  std::vector<std::string> const waitingStill = states(p);
  EXPECT_EQ(4, std::count(waitingStill.begin(), waitingStill.end(), "queued")) << qxtest::text(p.uploads());
}

}  // namespace
