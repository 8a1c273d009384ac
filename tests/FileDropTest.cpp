// Ipc::FileDrop without a network: the listing and the request on the user
// interface's side, the targets that the service prepares, the content chain
// of both sides over a fake channel, the final names, and the unique-name
// search of the spool folder.
#include "DropTestUtil.h"
#include "FakeChannel.h"
#include "TestUtil.h"

#include "ipc/IpcCmdsLite.h"
#include "json/Json.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace fs = boost::filesystem;

// ---------------------------------------------------------------------------
// Every status call of the process passes through here, so that a test can see
// each name that the unique-name search tried (Boost's status() is stat64).

namespace {

std::atomic<bool> g_recordStats{false};
std::mutex g_statMutex;
std::string g_statPrefix;               // guarded by g_statMutex
std::vector<std::string> g_statPaths;   // guarded by g_statMutex

// Records the paths of status calls below prefix while it lives.
class StatRecorder {
 public:
  explicit StatRecorder(fs::path const& prefix) {
    std::lock_guard<std::mutex> lock(g_statMutex);
    g_statPrefix = prefix.string() + "/";
    g_statPaths.clear();
    g_recordStats = true;
  }
  ~StatRecorder() { g_recordStats = false; }
  std::vector<std::string> paths() const {
    std::lock_guard<std::mutex> lock(g_statMutex);
    return g_statPaths;
  }
};

}  // namespace

extern "C" int stat64(char const* __restrict file, struct stat64* __restrict buf) noexcept {
  using Real = int (*)(char const*, struct stat64*);
  static Real const real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "stat64"));
  if (g_recordStats.load()) {
    std::lock_guard<std::mutex> lock(g_statMutex);
    if (std::string(file).compare(0, g_statPrefix.size(), g_statPrefix) == 0) {
      g_statPaths.emplace_back(file);
    }
  }
  return real(file, buf);
}

namespace {

using qxtest::FakeChannel;
using qxtest::listNames;
using qxtest::readFile;
using qxtest::writeFile;

using qxtest::kPiece;
using qxtest::kRenameFailed;
using qxtest::parse;
using qxtest::pattern;
using qxtest::quoted;
using qxtest::text;

// Whether this process holds file open.
bool isOpenHere(fs::path const& file) {
  for (fs::directory_iterator it("/proc/self/fd"), end; it != end; ++it) {
    boost::system::error_code ec;
    if (fs::read_symlink(it->path(), ec) == file && !ec) return true;
  }
  return false;
}

std::vector<std::string> pieceEvents(char const* kind, std::vector<std::size_t> const& lengths) {
  std::vector<std::string> events;
  for (std::size_t len : lengths) events.push_back(std::string(kind) + " " + std::to_string(len));
  return events;
}

class DropFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(spool);
    fs::create_directory(src);
  }

  std::shared_ptr<Ipc::FileDrop> makeDrop(fs::path const& p) {
    return std::make_shared<Ipc::FileDrop>(nullptr, p);
  }

  // The user interface's side: lists path, keeps the request text (the
  // records are consumed while the content is sent) and streams the content
  // through ch.
  std::shared_ptr<Ipc::FileDrop> sendFrom(fs::path const& p, FakeChannel& ch, std::string& request) {
    auto drop = makeDrop(p);
    EXPECT_TRUE(drop->prepareReq());
    request = text(drop->serializeReq());
    drop->setChannel(&ch);
    drop->sendReqDone();
    ch.completeAll();
    return drop;
  }

  // The service's side: reads request in the spool folder folder and receives
  // the content through ch, which must hold it in feed.
  std::shared_ptr<Ipc::FileDrop> receive(std::string const& request, FakeChannel& ch,
                                         fs::path const& folder) {
    auto drop = makeDrop(folder);
    drop->deserializeReq(parse(request));
    drop->setChannel(&ch, true);
    drop->readReqDone();
    ch.completeAll();
    return drop;
  }
  std::shared_ptr<Ipc::FileDrop> receive(std::string const& request, FakeChannel& ch) {
    return receive(request, ch, spool);
  }

  qxtest::TempDir dir;
  fs::path const spool = dir / "spool";
  fs::path const src = dir / "src";
};

using FileDropListing = DropFixture;
using FileDropRequest = DropFixture;
using FileDropTransfer = DropFixture;
using FileDropResponse = DropFixture;
using FileDropNames = DropFixture;
using FileDropGuard = DropFixture;

// ---------------------------------------------------------------------------
// Listing and request (user interface)

TEST_F(FileDropListing, FolderSendsItsNonEmptyFilesAndWarnsAboutTheRest) {
  writeFile(src / "a.txt", "abc");
  writeFile(src / "b.txt", "");
  fs::create_directory(src / "sub");
  qxtest::LogWatch log;
  auto drop = makeDrop(src);

  EXPECT_TRUE(drop->prepareReq());

  ASSERT_EQ(1u, drop->files.size());
  EXPECT_EQ(src / "a.txt", drop->files[0].path);
  EXPECT_EQ(3u, drop->files[0].size);
  EXPECT_EQ(std::streampos(0), drop->files[0].pos);
  EXPECT_EQ("", drop->files[0].content);
  std::vector<std::string> lines = log.lines();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ((std::vector<std::string>{
                "WARNING:Ipc \"Drop File\" request with empty file. " + quoted(src / "b.txt") +
                    " skipped!",
                "WARNING:Ipc \"Drop File\" request with sub-folders is not supported. " +
                    quoted(src / "sub") + " skipped!"}),
            lines);
  EXPECT_EQ(R"({"files":[{"name":"a.txt","size":3}]})", text(drop->serializeReq()));
}

TEST_F(FileDropListing, FolderOfOnlyEmptyFilesAndSubFoldersHasNothingToSend) {
  writeFile(src / "empty1", "");
  writeFile(src / "empty2.txt", "");
  fs::create_directory(src / "sub");
  qxtest::LogWatch log;
  auto drop = makeDrop(src);

  EXPECT_FALSE(drop->prepareReq());

  EXPECT_TRUE(drop->files.empty());
  EXPECT_EQ(3u, log.lines().size());
  EXPECT_EQ(R"({"files":[]})", text(drop->serializeReq()));
  FakeChannel ch;
  drop->setChannel(&ch);
  drop->sendReqDone();
  ch.completeAll();
  EXPECT_EQ(std::vector<std::string>{"reqDone"}, ch.events);
  EXPECT_EQ("", ch.written);
}

TEST_F(FileDropListing, MissingPathThrowsFilesystemError) {
  auto drop = makeDrop(src / "nothing-here.pdf");
  EXPECT_THROW(drop->prepareReq(), fs::filesystem_error);
  EXPECT_TRUE(drop->files.empty());
}

TEST_F(FileDropListing, EmptyFileIsSkippedWithAWarningLine) {
  fs::path const x = src / "x.txt";
  writeFile(x, "");
  qxtest::LogWatch log;
  auto drop = makeDrop(x);

  EXPECT_FALSE(drop->prepareReq());

  EXPECT_TRUE(drop->files.empty());
  EXPECT_EQ(std::vector<std::string>{"WARNING:Ipc \"Drop File\" request with empty file. " +
                                     quoted(x) + " skipped!"},
            log.lines());
}

TEST_F(FileDropListing, OneFileIsOneRecordWithItsFullPath) {
  writeFile(src / "report.pdf", "%PDF-1");
  auto drop = makeDrop(src / "report.pdf");

  EXPECT_TRUE(drop->prepareReq());

  ASSERT_EQ(1u, drop->files.size());
  EXPECT_EQ(src / "report.pdf", drop->files[0].path);
  EXPECT_EQ(6u, drop->files[0].size);
  EXPECT_EQ(R"({"files":[{"name":"report.pdf","size":6}]})", text(drop->serializeReq()));
}

TEST_F(FileDropListing, MemoryFileWithAnEmptyFolderIsSent) {
  auto drop = makeDrop(src);
  drop->addMemFile("notes.txt", "hello");

  EXPECT_TRUE(drop->prepareReq());

  ASSERT_EQ(1u, drop->files.size());
  EXPECT_EQ(fs::path("notes.txt"), drop->files[0].path);
  EXPECT_EQ(5u, drop->files[0].size);
  EXPECT_EQ(std::streampos(0), drop->files[0].pos);
  EXPECT_EQ("hello", drop->files[0].content);
  EXPECT_EQ(R"({"files":[{"name":"notes.txt","size":5}]})", text(drop->serializeReq()));
}

TEST_F(FileDropListing, RequestCarriesOnlyTheLastNameComponent) {
  writeFile(src / "a.bin", "12");
  auto drop = makeDrop(src / "a.bin");
  drop->addMemFile("sub/dir/notes.txt", "hello");
  drop->addMemFile("../up.txt", "x");

  EXPECT_TRUE(drop->prepareReq());

  EXPECT_EQ(
      R"({"files":[{"name":"notes.txt","size":5},{"name":"up.txt","size":1},{"name":"a.bin","size":2}]})",
      text(drop->serializeReq()));
}

TEST_F(FileDropListing, EntryWhoseSizeCannotBeTakenThrowsAndKeepsEarlierRecords) {
  fs::path const sock = src / "sock";
  int const fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  ASSERT_LT(sock.string().size(), sizeof addr.sun_path);
  std::strcpy(addr.sun_path, sock.c_str());
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  auto drop = makeDrop(sock);
  drop->addMemFile("notes.txt", "hello");

  EXPECT_THROW(drop->prepareReq(), fs::filesystem_error);

  ::close(fd);
  ASSERT_EQ(1u, drop->files.size());
  EXPECT_EQ(fs::path("notes.txt"), drop->files[0].path);
}

// ---------------------------------------------------------------------------
// Reading the request (service)

TEST_F(FileDropRequest, TakenTempNameGivesTheNextCountedName) {
  writeFile(spool / "report.pdf.noqx", "old");
  auto drop = makeDrop(spool);

  drop->deserializeReq(parse(R"({"files":[{"name":"report.pdf","size":7}]})"));

  ASSERT_EQ(1u, drop->files.size());
  EXPECT_EQ(spool / "report_1.pdf.noqx", drop->files[0].path);
  EXPECT_EQ(7u, drop->files[0].size);
  EXPECT_EQ(std::streampos(0), drop->files[0].pos);
  EXPECT_EQ(spool, drop->path);
  EXPECT_EQ((std::vector<std::string>{"report.pdf.noqx", "report_1.pdf.noqx"}), listNames(spool));
  EXPECT_EQ(0u, fs::file_size(spool / "report_1.pdf.noqx"));
  EXPECT_EQ("old", readFile(spool / "report.pdf.noqx"));
}

TEST_F(FileDropRequest, OneFileNameWithAFolderPartLandsDirectlyInTheSpoolFolder) {
  auto drop = makeDrop(spool);

  drop->deserializeReq(parse(R"({"files":[{"name":"docs/report.pdf","size":3}]})"));

  ASSERT_EQ(1u, drop->files.size());
  EXPECT_EQ(spool / "report.pdf.noqx", drop->files[0].path);
  EXPECT_EQ(std::vector<std::string>{"report.pdf.noqx"}, listNames(spool));
}

TEST_F(FileDropRequest, SeveralFilesJoinTheNamesAsSentUnderTheNewFolder) {
  FakeChannel ch;
  ch.feed("abcd");
  auto drop = makeDrop(spool);
  drop->deserializeReq(
      parse(R"({"files":[{"name":"docs/report.pdf","size":3},{"name":"a","size":1}]})"));

  fs::path const tmp = spool / "tmp.noqx";
  EXPECT_EQ(tmp, drop->path);
  ASSERT_EQ(2u, drop->files.size());
  EXPECT_EQ(tmp / "docs/report.pdf", drop->files[0].path);
  EXPECT_EQ(tmp / "a", drop->files[1].path);
  EXPECT_TRUE(listNames(tmp).empty());

  // The sub-folder is never made, so the first write fails.
  drop->setChannel(&ch, true);
  drop->readReqDone();
  ch.completeAll();
  EXPECT_EQ((std::vector<std::string>{"read 3", "failCmd: Ipc Failed to open " +
                                                    (tmp / "docs/report.pdf").string()}),
            ch.events);
  EXPECT_EQ("Ipc Failed to open " + (tmp / "docs/report.pdf").string(), drop->transferError());
  EXPECT_TRUE(listNames(tmp).empty());
}

TEST_F(FileDropRequest, EmptyFilesArrayCreatesTheFolderAndNoRecord) {
  auto drop = makeDrop(spool);

  drop->deserializeReq(parse(R"({"files":[]})"));

  EXPECT_TRUE(drop->files.empty());
  EXPECT_EQ(spool / "tmp.noqx", drop->path);
  EXPECT_TRUE(fs::is_directory(spool / "tmp.noqx"));
  EXPECT_EQ(std::vector<std::string>{"tmp.noqx"}, listNames(spool));
}

TEST_F(FileDropRequest, OneFileWithoutSizeLeavesAnEmptyTempFileAndThrows) {
  auto drop = makeDrop(spool);
  try {
    drop->deserializeReq(parse(R"({"files":[{"name":"a.txt"}]})"));
    FAIL() << "no exception";
  } catch (json::Exc const& e) {
    EXPECT_STREQ("JSON error: Wrong type: empty. Expected type: integer", e.what());
  }
  EXPECT_TRUE(drop->files.empty());
  EXPECT_EQ(std::vector<std::string>{"a.txt.noqx"}, listNames(spool));
  EXPECT_EQ(0u, fs::file_size(spool / "a.txt.noqx"));
}

TEST_F(FileDropRequest, FilesThatIsAnObjectThrows) {
  auto drop = makeDrop(spool);
  try {
    drop->deserializeReq(parse(R"({"files":{"name":"a.txt","size":1}})"));
    FAIL() << "no exception";
  } catch (json::Exc const& e) {
    EXPECT_STREQ("JSON error: Wrong type: object. Expected type: array", e.what());
  }
  EXPECT_TRUE(listNames(spool).empty());
}

TEST_F(FileDropRequest, MalformedRequestsThrowTheJsonErrorOfTheFirstBadValue) {
  struct Case {
    char const* request;
    char const* error;
    std::vector<std::string> left;  // what stays in the spool folder
  };
  std::vector<Case> const cases = {
      {R"({})", "JSON error: Wrong type: empty. Expected type: array", {}},
      {R"({"files":"a"})", "JSON error: Wrong type: string. Expected type: array", {}},
      {R"({"files":[1]})", "JSON error: Wrong type: integer. Expected type: object", {}},
      {R"({"files":[{"size":1}]})", "JSON error: Wrong type: empty. Expected type: string", {}},
      {R"({"files":[{"name":5,"size":1}]})", "JSON error: Wrong type: integer. Expected type: string",
       {}},
      {R"({"files":[{"name":"a","size":"1"}]})",
       "JSON error: Wrong type: string. Expected type: integer", {"a.noqx"}},
      {R"({"files":[{"name":"a","size":1.5}]})",
       "JSON error: Wrong type: float. Expected type: integer", {"a.noqx"}},
      {R"({"files":[{"name":"a","size":1},"b"]})",
       "JSON error: Wrong type: string. Expected type: object", {"tmp.noqx"}},
      {R"({"files":[{"name":"a"},{"name":"b","size":1}]})",
       "JSON error: Wrong type: empty. Expected type: integer", {"tmp.noqx"}},
      {R"({"files":[{"size":1},{"name":"b","size":1}]})",
       "JSON error: Wrong type: empty. Expected type: string", {"tmp.noqx"}},
      {R"({"files":[{"name":5},{"name":"b","size":1}]})",
       "JSON error: Wrong type: empty. Expected type: integer", {"tmp.noqx"}},
      {R"({"files":[{"name":"a","size":1},{"name":"b","size":true}]})",
       "JSON error: Wrong type: boolean. Expected type: integer", {"tmp.noqx"}},
  };
  int index = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(std::string("request: ") + c.request);
    fs::path const folder = spool / ("case" + std::to_string(index++));
    fs::create_directory(folder);
    auto drop = makeDrop(folder);
    try {
      drop->deserializeReq(parse(c.request));
      ADD_FAILURE() << "no exception";
    } catch (json::Exc const& e) {
      EXPECT_STREQ(c.error, e.what());
    }
    EXPECT_EQ(c.left, listNames(folder));
  }
}

TEST_F(FileDropRequest, NamesAreSplitAtTheirLastExtensionAndJoinedBackExactly) {
  struct Case {
    char const* name;
    char const* temp;
    char const* final;
  };
  std::vector<Case> const cases = {
      {"report.pdf", "report.pdf.noqx", "report.pdf"},
      {"README", "README.noqx", "README"},
      {".profile", ".profile.noqx", ".profile"},
      {"archive.tar.gz", "archive.tar.gz.noqx", "archive.tar.gz"},
      {"../up.txt", "up.txt.noqx", "up.txt"},
  };
  int index = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(std::string("name: ") + c.name);
    fs::path const folder = spool / ("case" + std::to_string(index++));
    fs::create_directory(folder);
    FakeChannel ch;
    ch.feed("xy");
    json::Object request;
    json::Array list;
    json::Object entry;
    entry.setAt("name", json::Value(c.name));
    entry.setAt("size", json::Value(json_int_t(2)));
    list.append(entry);
    request.setAt("files", list);
    auto drop = receive(text(request), ch, folder);
    ASSERT_EQ(1u, drop->files.size());
    EXPECT_EQ(folder / c.temp, drop->files[0].path);
    EXPECT_EQ("xy", readFile(folder / c.temp));
    drop->setResp();
    EXPECT_TRUE(drop->ok);
    EXPECT_EQ(std::vector<std::string>{c.final}, listNames(folder));
    EXPECT_EQ("xy", readFile(folder / c.final));
  }
}

// ---------------------------------------------------------------------------
// Content transfer

TEST_F(FileDropTransfer, ThreeByteFileTravelsAsOnePieceAndTakesTheSentName) {
  writeFile(src / "a.txt", "abc");
  FakeChannel out;
  std::string request;
  auto sender = sendFrom(src / "a.txt", out, request);
  EXPECT_EQ(R"({"files":[{"name":"a.txt","size":3}]})", request);
  EXPECT_EQ((std::vector<std::string>{"write 3", "reqDone"}), out.events);
  EXPECT_EQ("abc", out.written);
  EXPECT_TRUE(sender->files.empty());

  FakeChannel in;
  in.feed(out.written);
  auto service = receive(request, in);
  EXPECT_EQ((std::vector<std::string>{"read 3", "reqDone"}), in.events);
  EXPECT_EQ(std::vector<std::string>{"a.txt.noqx"}, listNames(spool));
  EXPECT_EQ("abc", readFile(spool / "a.txt.noqx"));

  service->setResp();
  EXPECT_TRUE(service->ok);
  EXPECT_EQ("", service->msg);
  EXPECT_EQ(std::vector<std::string>{"a.txt"}, listNames(spool));
  EXPECT_EQ("abc", readFile(spool / "a.txt"));
  EXPECT_EQ(R"({"ok":true})", text(service->serializeResp()));
}

TEST_F(FileDropTransfer, LargeFileTravelsInMebibytePiecesAndTracesOnceBeforeTheLastPiece) {
  std::string const content = pattern(2500000, 1);
  writeFile(src / "big.bin", content);
  qxtest::VerboseLog verbose;
  std::string const trace = "TRACE:Ipc finalizing the transfer of ";

  std::vector<std::string> sendTraces;  // the log as each operation starts
  std::shared_ptr<Ipc::FileDrop> sender;
  std::string request;
  FakeChannel out;
  {
    qxtest::LogWatch log;
    out.onOp = [&] { sendTraces.push_back(std::to_string(log.lines().size())); };
    sender = sendFrom(src / "big.bin", out, request);
    EXPECT_EQ(std::vector<std::string>{trace + quoted(src / "big.bin")}, log.lines());
  }
  EXPECT_EQ((std::vector<std::string>{"write 1048576", "write 1048576", "write 402848", "reqDone"}),
            out.events);
  EXPECT_EQ((std::vector<std::string>{"0", "0", "1"}), sendTraces);
  EXPECT_TRUE(out.written == content);

  qxtest::LogWatch log;
  std::vector<std::string> readTraces;
  FakeChannel in;
  in.feed(out.written);
  in.onOp = [&] { readTraces.push_back(std::to_string(log.lines().size())); };
  auto service = makeDrop(spool);
  service->deserializeReq(parse(request));
  service->setChannel(&in, true);
  service->readReqDone();
  fs::path const target = spool / "big.bin.noqx";
  // What has arrived is on disk after every piece.
  ASSERT_TRUE(in.complete());
  EXPECT_EQ(kPiece, fs::file_size(target));
  ASSERT_TRUE(in.complete());
  EXPECT_EQ(2 * kPiece, fs::file_size(target));
  in.completeAll();
  EXPECT_EQ((std::vector<std::string>{"read 1048576", "read 1048576", "read 402848", "reqDone"}),
            in.events);
  EXPECT_EQ((std::vector<std::string>{"0", "0", "1"}), readTraces);
  EXPECT_EQ(std::vector<std::string>{trace + quoted(target)}, log.lines());
  EXPECT_TRUE(readFile(target) == content);
}

TEST_F(FileDropTransfer, PiecesNeverExceedOneMebibyteAndLeaveNoEmptyTail) {
  struct Case {
    std::size_t size;
    std::vector<std::size_t> pieces;
  };
  std::vector<Case> const cases = {
      {1, {1}},
      {kPiece - 1, {kPiece - 1}},
      {kPiece, {kPiece}},
      {kPiece + 1, {kPiece, 1}},
      {2 * kPiece, {kPiece, kPiece}},
      {2 * kPiece + 1, {kPiece, kPiece, 1}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE("size " + std::to_string(c.size));
    fs::path const folder = spool / std::to_string(c.size);
    fs::create_directory(folder);
    std::string const content = pattern(c.size, 2);
    writeFile(src / "f.bin", content);
    FakeChannel out;
    std::string request;
    auto sender = sendFrom(src / "f.bin", out, request);
    std::vector<std::string> expected = pieceEvents("write", c.pieces);
    expected.push_back("reqDone");
    EXPECT_EQ(expected, out.events);

    FakeChannel in;
    in.feed(out.written);
    auto service = receive(request, in, folder);
    expected = pieceEvents("read", c.pieces);
    expected.push_back("reqDone");
    EXPECT_EQ(expected, in.events);
    EXPECT_TRUE(readFile(folder / "f.bin.noqx") == content);
  }
}

TEST_F(FileDropTransfer, TwoFilesTravelAsTwoPiecesIntoANewFolderThatBecomesTmp) {
  auto sender = makeDrop(src);
  std::string const ten = pattern(10, 3), twenty = pattern(20, 4);
  sender->addMemFile("ten.bin", ten);
  sender->addMemFile("twenty.bin", twenty);
  EXPECT_TRUE(sender->prepareReq());
  std::string const request = text(sender->serializeReq());
  EXPECT_EQ(R"({"files":[{"name":"ten.bin","size":10},{"name":"twenty.bin","size":20}]})", request);
  FakeChannel out;
  sender->setChannel(&out);
  sender->sendReqDone();
  out.completeAll();
  EXPECT_EQ((std::vector<std::string>{"write 10", "write 20", "reqDone"}), out.events);
  EXPECT_TRUE(out.written == ten + twenty);

  FakeChannel in;
  in.feed(out.written);
  auto service = receive(request, in);
  EXPECT_EQ((std::vector<std::string>{"read 10", "read 20", "reqDone"}), in.events);
  EXPECT_EQ((std::vector<std::string>{"ten.bin", "twenty.bin"}), listNames(spool / "tmp.noqx"));
  service->setResp();
  EXPECT_TRUE(service->ok);
  EXPECT_EQ(std::vector<std::string>{"tmp"}, listNames(spool));
  EXPECT_TRUE(readFile(spool / "tmp/ten.bin") == ten);
  EXPECT_TRUE(readFile(spool / "tmp/twenty.bin") == twenty);

  // The next folder drop finds tmp taken.
  FakeChannel again;
  again.feed(out.written);
  auto second = receive(request, again);
  second->setResp();
  EXPECT_TRUE(second->ok);
  EXPECT_EQ((std::vector<std::string>{"tmp", "tmp_1"}), listNames(spool));
  EXPECT_EQ((std::vector<std::string>{"ten.bin", "twenty.bin"}), listNames(spool / "tmp_1"));
  EXPECT_EQ((std::vector<std::string>{"ten.bin", "twenty.bin"}), listNames(spool / "tmp"));
}

TEST_F(FileDropTransfer, ZeroSizeFileReadsNothingAndTakesItsFinalName) {
  FakeChannel in;
  auto service = receive(R"({"files":[{"name":"empty.txt","size":0}]})", in);
  EXPECT_EQ(std::vector<std::string>{"reqDone"}, in.events);
  service->setResp();
  EXPECT_TRUE(service->ok);
  EXPECT_EQ(std::vector<std::string>{"empty.txt"}, listNames(spool));
  EXPECT_EQ(0u, fs::file_size(spool / "empty.txt"));
}

TEST_F(FileDropTransfer, ZeroSizeEntryAmongSeveralIsNeverCreated) {
  FakeChannel in;
  in.feed("abcde");
  auto service =
      receive(R"({"files":[{"name":"a","size":3},{"name":"zero","size":0},{"name":"b","size":2}]})", in);
  EXPECT_EQ((std::vector<std::string>{"read 3", "read 2", "reqDone"}), in.events);
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), listNames(spool / "tmp.noqx"));
  EXPECT_EQ("abc", readFile(spool / "tmp.noqx/a"));
  EXPECT_EQ("de", readFile(spool / "tmp.noqx/b"));

  // A zero-size entry at the end: the request ends after the last bytes.
  fs::path const other = spool / "other";
  fs::create_directory(other);
  FakeChannel in2;
  in2.feed("abc");
  receive(R"({"files":[{"name":"a","size":3},{"name":"zero","size":0}]})", in2, other);
  EXPECT_EQ((std::vector<std::string>{"read 3", "reqDone"}), in2.events);
  EXPECT_EQ(std::vector<std::string>{"a"}, listNames(other / "tmp.noqx"));
}

TEST_F(FileDropTransfer, EmptyRequestReadsNothingAndLeavesAnEmptyFolderTmp) {
  FakeChannel in;
  auto service = receive(R"({"files":[]})", in);
  EXPECT_EQ(std::vector<std::string>{"reqDone"}, in.events);
  service->setResp();
  EXPECT_TRUE(service->ok);
  EXPECT_EQ(std::vector<std::string>{"tmp"}, listNames(spool));
  EXPECT_TRUE(listNames(spool / "tmp").empty());

  FakeChannel in2;
  auto second = receive(R"({"files":[]})", in2);
  second->setResp();
  EXPECT_TRUE(second->ok);
  EXPECT_EQ((std::vector<std::string>{"tmp", "tmp_1"}), listNames(spool));
}

TEST_F(FileDropTransfer, NegativeSizeIsTakenAsAnUnsignedCountAndReadingNeverEnds) {
  FakeChannel in;
  in.feed(pattern(2 * kPiece, 5));
  auto service = makeDrop(spool);
  service->deserializeReq(parse(R"({"files":[{"name":"a","size":-1}]})"));
  ASSERT_EQ(1u, service->files.size());
  EXPECT_EQ(18446744073709551615ULL, service->files[0].size);
  service->setChannel(&in, true);
  service->readReqDone();
  in.completeAll();
  // Two pieces arrive and are written; the third is asked for and never comes.
  EXPECT_EQ((std::vector<std::string>{"read 1048576", "read 1048576", "read 1048576"}), in.events);
  EXPECT_EQ(2 * kPiece, fs::file_size(spool / "a.noqx"));
}

TEST_F(FileDropTransfer, SourceThatShrankAfterListingFailsToRead) {
  fs::path const file = src / "a.txt";
  writeFile(file, "hello");
  auto sender = makeDrop(file);
  ASSERT_TRUE(sender->prepareReq());
  writeFile(file, "he");
  FakeChannel out;
  sender->setChannel(&out);
  sender->sendReqDone();
  out.completeAll();
  EXPECT_EQ(std::vector<std::string>{"failCmd: Failed to read " + file.string()}, out.events);
  EXPECT_EQ("Failed to read " + file.string(), sender->transferError());
}

TEST_F(FileDropTransfer, SourceThatShrankAfterTheFirstPieceFailsAtTheNextPiece) {
  fs::path const file = src / "big.bin";
  std::string const content = pattern(2500000, 6);
  writeFile(file, content);
  auto sender = makeDrop(file);
  ASSERT_TRUE(sender->prepareReq());
  FakeChannel out;
  sender->setChannel(&out);
  sender->sendReqDone();
  writeFile(file, content.substr(0, 1500000));
  out.completeAll();
  EXPECT_EQ((std::vector<std::string>{"write 1048576", "failCmd: Failed to read " + file.string()}),
            out.events);
}

TEST_F(FileDropTransfer, SourceThatVanishedFailsToOpen) {
  fs::path const file = src / "a.txt";
  writeFile(file, "hello");
  auto sender = makeDrop(file);
  ASSERT_TRUE(sender->prepareReq());
  fs::remove(file);
  FakeChannel out;
  sender->setChannel(&out);
  sender->sendReqDone();
  out.completeAll();
  EXPECT_EQ(std::vector<std::string>{"failCmd: Failed to open " + file.string()}, out.events);
}

TEST_F(FileDropTransfer, FileThatGrewIsSentOnlyUpToItsListedSize) {
  fs::path const file = src / "a.txt";
  writeFile(file, "abc");
  auto sender = makeDrop(file);
  ASSERT_TRUE(sender->prepareReq());
  writeFile(file, "abcdefgh");
  FakeChannel out;
  sender->setChannel(&out);
  sender->sendReqDone();
  out.completeAll();
  EXPECT_EQ((std::vector<std::string>{"write 3", "reqDone"}), out.events);
  EXPECT_EQ("abc", out.written);
}

TEST_F(FileDropTransfer, MemoryFileWithoutContentIsOpenedFromDiskUnderItsName) {
  fs::path const missing = src / "missing.txt";
  auto sender = makeDrop(src);
  sender->addMemFile(missing.string(), "");
  FakeChannel out;
  sender->setChannel(&out);
  sender->sendReqDone();
  out.completeAll();
  EXPECT_EQ(std::vector<std::string>{"failCmd: Failed to open " + missing.string()}, out.events);
}

TEST_F(FileDropTransfer, TargetThatCannotBeOpenedStopsTheTransfer) {
  FakeChannel in;
  in.feed("abcdef");
  auto service = makeDrop(spool);
  service->deserializeReq(parse(R"({"files":[{"name":"a","size":3},{"name":"b","size":3}]})"));
  fs::path const tmp = spool / "tmp.noqx";
  fs::create_directory(tmp / "a");  // a folder where the file should go
  service->setChannel(&in, true);
  service->readReqDone();
  in.completeAll();
  EXPECT_EQ((std::vector<std::string>{"read 3",
                                      "failCmd: Ipc Failed to open " + (tmp / "a").string()}),
            in.events);
  EXPECT_EQ(std::vector<std::string>{"a"}, listNames(tmp));
}

TEST_F(FileDropTransfer, FullDiskFailsAtTheWriteOfThePiece) {
  qxtest::TmpfsMount disk(spool, "size=64k");
  if (!disk.ok()) GTEST_SKIP() << "cannot mount a tmpfs on the spool folder: " << disk.error();
  fs::path const target = spool / "big.bin.noqx";
  FakeChannel in;
  in.feed(pattern(200000, 7));
  // The target is released before anyone hears of the failure.
  std::vector<bool> openAtFailure;
  in.onFail = [&] { openAtFailure.push_back(isOpenHere(target)); };
  auto service = receive(R"({"files":[{"name":"big.bin","size":200000}]})", in);
  EXPECT_EQ((std::vector<std::string>{"read 200000",
                                      "failCmd: Ipc Failed to write to " + target.string()}),
            in.events);
  EXPECT_EQ(std::vector<bool>{false}, openAtFailure);
  EXPECT_LT(fs::file_size(target), 200000u);
}

// ---------------------------------------------------------------------------
// Response

TEST_F(FileDropResponse, OkIsReadOnlyFromJsonTrueAndMsgOnlyFromAString) {
  struct Case {
    char const* body;
    bool ok;
    char const* msg;
  };
  std::vector<Case> const cases = {
      {R"({"ok":true})", true, ""},
      {R"({"ok":"true"})", false, ""},
      {R"({"ok":false,"msg":"no"})", false, "no"},
      {R"({"ok":1})", false, ""},
      {R"({"msg":"hi"})", false, "hi"},
      {R"({"ok":true,"msg":5})", true, ""},
      {R"({})", false, ""},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(std::string("response: ") + c.body);
    auto drop = makeDrop(src);
    drop->ok = !c.ok;
    drop->msg = "before";
    drop->deserializeResp(parse(c.body));
    EXPECT_EQ(c.ok, drop->ok);
    EXPECT_EQ(c.msg, drop->msg);
  }
}

TEST_F(FileDropResponse, WritersLeaveOutFalseAndEmptyMessage) {
  struct Case {
    bool ok;
    char const* msg;
    char const* body;
  };
  std::vector<Case> const cases = {
      {true, "", R"({"ok":true})"},
      {false, "", R"({})"},
      {false, "x", R"({"msg":"x"})"},
      {true, "x", R"({"ok":true,"msg":"x"})"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(std::string("expected: ") + c.body);
    auto drop = makeDrop(src);
    drop->ok = c.ok;
    drop->msg = c.msg;
    EXPECT_EQ(c.body, text(drop->serializeResp()));
  }
}

TEST_F(FileDropResponse, FailedRenameAnswersWithTheUserMessageOnly) {
  FakeChannel in;
  in.feed("abc");
  auto service = receive(R"({"files":[{"name":"a.txt","size":3}]})", in);
  qxtest::ImmutableFolder frozen(spool);
  if (!frozen.ok()) GTEST_SKIP() << "the file system refuses the immutable flag: " << frozen.error();
  qxtest::LogWatch log;

  service->setResp();

  EXPECT_FALSE(service->ok);
  EXPECT_EQ(kRenameFailed, service->msg);
  EXPECT_EQ(std::string(R"({"msg":")") + kRenameFailed + "\"}", text(service->serializeResp()));
  EXPECT_EQ(std::vector<std::string>{"ERR:Ipc Failed too many times to create temp file item \"a.txt\""},
            log.lines());
  EXPECT_EQ(std::vector<std::string>{"a.txt.noqx"}, listNames(spool));
  EXPECT_EQ("abc", readFile(spool / "a.txt.noqx"));
}

// ---------------------------------------------------------------------------
// Unique names

TEST_F(FileDropNames, TwoTakenTempNamesGiveTheThirdCountedName) {
  writeFile(spool / "report.pdf.noqx", "");
  writeFile(spool / "report_1.pdf.noqx", "");
  auto drop = makeDrop(spool);
  drop->deserializeReq(parse(R"({"files":[{"name":"report.pdf","size":1}]})"));
  ASSERT_EQ(1u, drop->files.size());
  EXPECT_EQ(spool / "report_2.pdf.noqx", drop->files[0].path);
  EXPECT_TRUE(fs::is_regular_file(spool / "report_2.pdf.noqx"));
}

TEST_F(FileDropNames, TenTakenTempNamesGiveARandomSuffix) {
  writeFile(spool / "report.pdf.noqx", "");
  for (int n = 1; n <= 9; ++n) writeFile(spool / ("report_" + std::to_string(n) + ".pdf.noqx"), "");
  auto drop = makeDrop(spool);
  drop->deserializeReq(parse(R"({"files":[{"name":"report.pdf","size":1}]})"));
  ASSERT_EQ(1u, drop->files.size());
  std::string const name = drop->files[0].path.filename().string();
  std::vector<unsigned long long> n;
  ASSERT_TRUE(qxtest::isCountedName(name, "report", ".pdf.noqx", 1, &n)) << name;
  ASSERT_EQ(1u, n.size()) << name;
  EXPECT_GE(n[0], 1u);
  EXPECT_LE(n[0], 4294967295ULL);
  EXPECT_EQ(spool, drop->files[0].path.parent_path());
  EXPECT_TRUE(fs::is_regular_file(drop->files[0].path));
  EXPECT_EQ(11u, listNames(spool).size());
}

TEST_F(FileDropNames, UnwritableFolderFailsAfter1009AttemptsWithOneErrLine) {
  struct Way {
    char const* what;
    std::function<fs::path(std::unique_ptr<qxtest::ImmutableFolder>&)> make;
  };
  std::vector<Way> const ways = {
      {"a folder whose parent is a regular file",
       [&](std::unique_ptr<qxtest::ImmutableFolder>&) {
         writeFile(dir / "plain", "not a folder");
         return dir / "plain" / "in";
       }},
      {"an immutable folder",
       [&](std::unique_ptr<qxtest::ImmutableFolder>& frozen) {
         fs::create_directory(dir / "frozen");
         frozen = std::make_unique<qxtest::ImmutableFolder>(dir / "frozen");
         return dir / "frozen";
       }},
  };
  for (Way const& way : ways) {
    SCOPED_TRACE(way.what);
    std::unique_ptr<qxtest::ImmutableFolder> frozen;
    fs::path const folder = way.make(frozen);
    if (frozen && !frozen->ok()) {
      ADD_FAILURE() << "the file system refuses the immutable flag: " << frozen->error();
      continue;
    }
    auto drop = makeDrop(folder);
    qxtest::LogWatch log;
    StatRecorder stats(folder);
    try {
      drop->deserializeReq(parse(R"({"files":[{"name":"report.pdf","size":1}]})"));
      ADD_FAILURE() << "no exception";
    } catch (json::Exc const& e) {
      EXPECT_STREQ("Svc failed to create temp file for report.pdf", e.what());
    }
    std::vector<std::string> const tried = stats.paths();
    ASSERT_EQ(1009u, tried.size());
    EXPECT_EQ((folder / "report.pdf.noqx").string(), tried[0]);
    for (int n = 1; n <= 9; ++n) {
      EXPECT_EQ((folder / ("report_" + std::to_string(n) + ".pdf.noqx")).string(), tried[n]);
    }
    for (std::size_t i = 10; i < tried.size(); ++i) {
      fs::path const candidate(tried[i]);
      std::vector<unsigned long long> n;
      EXPECT_EQ(folder, candidate.parent_path()) << tried[i];
      ASSERT_TRUE(qxtest::isCountedName(candidate.filename().string(), "report", ".pdf.noqx", 1, &n))
          << tried[i];
      ASSERT_EQ(1u, n.size()) << tried[i];
      EXPECT_LE(n[0], 4294967295ULL) << tried[i];
    }
    EXPECT_EQ(std::vector<std::string>{
                  "ERR:Ipc Failed too many times to create temp file item \"report.pdf.noqx\""},
              log.lines());
    EXPECT_TRUE(drop->files.empty());
    if (frozen) {
      EXPECT_TRUE(listNames(folder).empty());
    }
  }
}

// A name of 251 bytes is a valid file name, but not with the reserved
// extension that its temporary item takes: the folder cannot hold any of
// the candidates, and the request fails with its message instead of an
// exception of the file system's.
TEST_F(FileDropNames, ANameTooLongForItsTemporaryItemFailsWithItsMessageAndLeavesNothing) {
  std::string const name = std::string(247, 'a') + ".pdf";
  auto drop = makeDrop(spool);
  qxtest::LogWatch log;
  try {
    drop->deserializeReq(parse(R"({"files":[{"name":")" + name + R"(","size":1}]})"));
    ADD_FAILURE() << "no exception";
  } catch (json::Exc const& e) {
    EXPECT_EQ("Svc failed to create temp file for " + name, e.what());
  }
  EXPECT_EQ(std::vector<std::string>{"ERR:Ipc Failed too many times to create temp file item \"" + name + ".noqx\""},
            log.lines());
  EXPECT_TRUE(drop->files.empty());
  EXPECT_TRUE(listNames(spool).empty());
}

TEST_F(FileDropNames, RenameWhenTheFinalNameIsTakenAddsACounterAndLeavesTheOtherAlone) {
  writeFile(spool / "report.pdf", "old");
  writeFile(spool / "report.pdf.noqx", "new");
  EXPECT_TRUE(Ipc::FileDrop::removeExtension(spool / "report.pdf.noqx"));
  EXPECT_EQ((std::vector<std::string>{"report.pdf", "report_1.pdf"}), listNames(spool));
  EXPECT_EQ("old", readFile(spool / "report.pdf"));
  EXPECT_EQ("new", readFile(spool / "report_1.pdf"));
}

TEST_F(FileDropNames, RenameDropsOnlyTheTempExtension) {
  struct Case {
    char const* temp;
    bool folder;
    std::vector<std::string> present;  // taken before the rename
    char const* final;
  };
  std::vector<Case> const cases = {
      {"tmp.noqx", true, {}, "tmp"},
      {"tmp.noqx", true, {"tmp"}, "tmp_1"},
      {"README.noqx", false, {}, "README"},
      {"report_3.pdf.noqx", false, {}, "report_3.pdf"},
      {"report_3.pdf.noqx", false, {"report_3.pdf"}, "report_3_1.pdf"},
      {".profile.noqx", false, {}, ".profile"},
  };
  int index = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(std::string("item: ") + c.temp);
    fs::path const folder = spool / ("case" + std::to_string(index++));
    fs::create_directory(folder);
    for (std::string const& taken : c.present) writeFile(folder / taken, "taken");
    if (c.folder) {
      fs::create_directory(folder / c.temp);
    } else {
      writeFile(folder / c.temp, "item");
    }
    EXPECT_TRUE(Ipc::FileDrop::removeExtension(folder / c.temp));
    std::vector<std::string> expected = c.present;
    expected.push_back(c.final);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, listNames(folder));
    EXPECT_EQ(c.folder, fs::is_directory(folder / c.final));
    if (!c.folder) {
      EXPECT_EQ("item", readFile(folder / c.final));
    }
  }
}

// Releases every waiting thread at once.
class StartGate {
 public:
  explicit StartGate(int count) : m_left(count) {}
  void arriveAndWait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (--m_left == 0) {
      m_open.notify_all();
      return;
    }
    m_open.wait(lock, [this] { return m_left == 0; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_open;
  int m_left;
};

TEST_F(FileDropNames, TwoThreadsAskingAtOnceGetTwoNames) {
  for (int round = 0; round < 50; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    fs::path const folder = spool / std::to_string(round);
    fs::create_directory(folder);
    auto first = makeDrop(folder), second = makeDrop(folder);
    StartGate gate(2);
    auto ask = [&gate](std::shared_ptr<Ipc::FileDrop> const& drop) {
      json::Object const request = parse(R"({"files":[{"name":"report.pdf","size":1}]})");
      gate.arriveAndWait();
      drop->deserializeReq(request);
    };
    std::thread a(ask, first), b(ask, second);
    a.join();
    b.join();
    ASSERT_EQ(1u, first->files.size());
    ASSERT_EQ(1u, second->files.size());
    std::set<fs::path> const names{first->files[0].path, second->files[0].path};
    EXPECT_EQ((std::set<fs::path>{folder / "report.pdf.noqx", folder / "report_1.pdf.noqx"}), names);
  }
}

TEST_F(FileDropNames, ManyThreadsAskingAtOnceGetDistinctNames) {
  constexpr int kThreads = 8, kEach = 40;
  std::vector<std::vector<fs::path>> made(kThreads);
  StartGate gate(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<std::shared_ptr<Ipc::FileDrop>> drops;
      std::vector<json::Object> requests;
      for (int i = 0; i < kEach; ++i) {
        drops.push_back(std::make_shared<Ipc::FileDrop>(nullptr, spool));
        // Half the threads make files, half make folders.
        requests.push_back(parse(t % 2 ? R"({"files":[{"name":"report.pdf","size":1}]})"
                                       : R"({"files":[]})"));
      }
      gate.arriveAndWait();
      for (int i = 0; i < kEach; ++i) {
        drops[i]->deserializeReq(requests[i]);
        made[t].push_back(drops[i]->files.empty() ? drops[i]->path : drops[i]->files[0].path);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  std::set<fs::path> all;
  for (auto const& paths : made) all.insert(paths.begin(), paths.end());
  EXPECT_EQ(std::size_t(kThreads * kEach), all.size());
  EXPECT_EQ(std::size_t(kThreads * kEach), listNames(spool).size());
}

TEST_F(FileDropNames, ManyThreadsRenamingToOneNameGetDistinctNames) {
  constexpr int kThreads = 8, kEach = 20;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEach; ++i) {
      writeFile(spool / ("report.pdf.t" + std::to_string(t) + "i" + std::to_string(i)),
                std::to_string(t * kEach + i));
    }
  }
  StartGate gate(kThreads);
  std::atomic<int> renamed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      gate.arriveAndWait();
      for (int i = 0; i < kEach; ++i) {
        if (Ipc::FileDrop::removeExtension(
                spool / ("report.pdf.t" + std::to_string(t) + "i" + std::to_string(i)))) {
          ++renamed;
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(kThreads * kEach, renamed.load());
  std::vector<std::string> const names = listNames(spool);
  ASSERT_EQ(std::size_t(kThreads * kEach), names.size());
  std::set<std::string> contents;
  for (std::string const& name : names) {
    EXPECT_TRUE(qxtest::isCountedName(name, "report", ".pdf", 1)) << name;
    contents.insert(readFile(spool / name));
  }
  EXPECT_EQ(std::size_t(kThreads * kEach), contents.size());
}

// ---------------------------------------------------------------------------
// Targets that the service refuses to open

TEST_F(FileDropGuard, TargetsOutsideTheTempFolderAreNeverOpened) {
  bool const etcXExisted = fs::exists("/etc/x");
  for (char const* hostile : {"../x", "/etc/x", "..", "docs/report.pdf", "sub/../../x"}) {
    SCOPED_TRACE(std::string("name: ") + hostile);
    qxtest::TempDir root;
    fs::path const folder = root / "spool";
    fs::create_directory(folder);
    json::Object request;
    json::Array list;
    for (char const* name : {hostile, "a"}) {
      json::Object entry;
      entry.setAt("name", json::Value(name));
      entry.setAt("size", json::Value(json_int_t(3)));
      list.append(entry);
    }
    request.setAt("files", list);
    FakeChannel in;
    in.feed("xyzabc");
    auto service = receive(text(request), in, folder);
    fs::path const tmp = folder / "tmp.noqx";
    std::string const error = "Ipc Failed to open " + (tmp / hostile).string();
    EXPECT_EQ((std::vector<std::string>{"read 3", "failCmd: " + error}), in.events);
    EXPECT_EQ(std::vector<std::string>{"spool"}, listNames(root.path()));
    EXPECT_EQ(std::vector<std::string>{"tmp.noqx"}, listNames(folder));
    EXPECT_TRUE(listNames(tmp).empty());
    if (!etcXExisted) {
      EXPECT_FALSE(fs::exists("/etc/x"));
    }
  }
}

TEST_F(FileDropGuard, SpoolFolderGivenWithATrailingSeparatorTakesOneFileDrops) {
  fs::path const withSlash(spool.string() + "/");
  FakeChannel in;
  in.feed("abc");
  auto service = receive(R"({"files":[{"name":"a.txt","size":3}]})", in, withSlash);
  EXPECT_EQ((std::vector<std::string>{"read 3", "reqDone"}), in.events);
  service->setResp();
  EXPECT_TRUE(service->ok);
  EXPECT_EQ(std::vector<std::string>{"a.txt"}, listNames(spool));
  EXPECT_EQ("abc", readFile(spool / "a.txt"));
}

TEST_F(FileDropGuard, FolderDropIntoAnUnwritableSpoolFolderWritesNothingAnywhere) {
  writeFile(dir / "plain", "not a folder");
  fs::path const folder = dir / "plain" / "in";
  // Bare names would land in the working folder if they were opened there.
  std::string const name = "qx-guard-" + dir.path().filename().string() + ".txt";
  qxtest::LogWatch log;
  auto service = makeDrop(folder);
  service->deserializeReq(
      parse(R"({"files":[{"name":")" + name + R"(","size":3},{"name":"b","size":3}]})"));
  EXPECT_EQ(std::vector<std::string>{"ERR:Ipc Failed too many times to create temp file item \"tmp.noqx\""},
            log.lines());
  EXPECT_TRUE(service->path.empty());
  ASSERT_EQ(2u, service->files.size());
  EXPECT_EQ(fs::path(name), service->files[0].path);

  FakeChannel in;
  in.feed("abcdef");
  service->setChannel(&in, true);
  service->readReqDone();
  in.completeAll();
  EXPECT_EQ((std::vector<std::string>{"read 3", "failCmd: Ipc Failed to open " + name}), in.events);
  EXPECT_FALSE(fs::exists(fs::current_path() / name));
}

}  // namespace
