// Ipc::FileDrop over real loopback connections: a CmdServer whose factory is
// createLiteCmd on a spool folder, CmdClients on the user interface's side,
// and raw sockets for what a well-behaved client never sends.
#include "DropTestUtil.h"
#include "TestUtil.h"

#include "ipc/IpcCmdsLite.h"
#include "json/Json.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "shared/transport/Wire.h"

#include <boost/filesystem.hpp>
#include "tests/RawHandshake.h"
#include "tests/RawSocket.h"
#include "tests/WireBytes.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fs = boost::filesystem;
using namespace std::chrono_literals;

namespace {

using qxtest::listNames;
using qxtest::readFile;
using qxtest::writeFile;

using qxtest::kPiece;
using qxtest::kRenameFailed;
using qxtest::parse;
using qxtest::pattern;
using qxtest::quoted;
using qxtest::text;

// The large test is skipped with QX_SKIP_LARGE=1 in the environment.
bool skipLarge() {
  char const* skip = std::getenv("QX_SKIP_LARGE");
  return skip && std::string(skip) == "1";
}

// Passes every call of a command on to the transport's channel and records
// the length of each read and write.
class CountingRelay : public Ipc::CmdChannel {
 public:
  void reqDone(std::shared_ptr<Ipc::CmdI> const& cmd) override { inner->reqDone(cmd); }
  void failCmd(std::shared_ptr<Ipc::CmdI> const& cmd, std::string const& why) override {
    inner->failCmd(cmd, why);
  }
  void finishCmd(std::shared_ptr<Ipc::CmdI> const& cmd) override { inner->finishCmd(cmd); }
  void writeAsync(std::shared_ptr<Ipc::CmdI> const& cmd, void const* data, std::size_t len,
                  std::function<void()> done) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_writes.push_back(len);
    }
    inner->writeAsync(cmd, data, len, std::move(done));
  }
  void readAsync(std::shared_ptr<Ipc::CmdI> const& cmd, void* buf, std::size_t len,
                 std::function<void()> done) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_reads.push_back(len);
    }
    inner->readAsync(cmd, buf, len, std::move(done));
  }

  std::vector<std::size_t> writes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_writes;
  }
  std::vector<std::size_t> reads() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reads;
  }

  Ipc::CmdChannel* inner = nullptr;  // set before the first call, on the command's thread

 private:
  mutable std::mutex m_mutex;
  std::vector<std::size_t> m_writes, m_reads;
};

// The user interface's command: the library's FileDrop, which can send a
// request of the test's own instead of the listed one, records the response
// body, and counts its content writes.
class ClientDrop : public Ipc::FileDrop {
 public:
  using FileDrop::FileDrop;

  json::Object serializeReq() const override {
    return request.empty() ? FileDrop::serializeReq() : parse(request);
  }
  void sendReqDone() override {
    relay.inner = channel();
    setChannel(&relay);
    FileDrop::sendReqDone();
  }
  void deserializeResp(json::Object const& obj) override {
    response = text(obj);
    FileDrop::deserializeResp(obj);
  }

  std::string request;   // set before the command is handed over
  std::string response;  // read after the command completed
  CountingRelay relay;
};

// The service's command for the tests that count the pieces it reads.
class PieceCountingDrop : public Ipc::FileDrop {
 public:
  using FileDrop::FileDrop;
  void readReqDone() override {
    relay.inner = channel();
    setChannel(&relay, true);
    FileDrop::readReqDone();
  }
  CountingRelay relay;
};

// The service's processor: gives each drop its final name, after a hook that
// a test may install.
class DropProcessor : public Ipc::CmdProcessorLiteI {
 public:
  void visit(Ipc::FileDrop& drop) override {
    std::function<void(Ipc::FileDrop&)> hook;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      hook = m_beforeResp;
    }
    if (hook) hook(drop);
    drop.setResp();
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_visits;
  }
  void beforeResp(std::function<void(Ipc::FileDrop&)> hook) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_beforeResp = std::move(hook);
  }
  int visits() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_visits;
  }

 private:
  mutable std::mutex m_mutex;
  std::function<void(Ipc::FileDrop&)> m_beforeResp;
  int m_visits = 0;
};

using qxtest::RawSocket;
std::string okStatusFrame() { return qxtest::okFrame(); }

// A drop request frame with its JSON body.
std::string dropRequestBytes(std::string const& json) {
  return qxtest::requestFrame(Ipc::FILE_DROP_TYPE, Ipc::wire::kFlagJsonBody) + qxtest::jsonBody(json);
}

class FileDropEndToEnd : public ::testing::Test {
 protected:
  ~FileDropEndToEnd() override {
    if (server) server->stop();
  }

  void SetUp() override {
    fs::create_directory(spool);
    fs::create_directory(src);
  }

  static Ipc::CmdServerOptions serverOptions() {
    Ipc::CmdServerOptions options;
    options.forceIp4 = true;
    return options;
  }

  // The service on folder, with the library's factory unless told otherwise.
  void startService(fs::path const& folder, Ipc::CmdServerOptions options = serverOptions(),
                    Ipc::CmdFactory factory = Ipc::CmdFactory()) {
    serviceFolder = folder;
    if (!factory) {
      factory = [folder](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) {
        return std::shared_ptr<Ipc::CmdI>(Ipc::createLiteCmd(type, p, folder));
      };
    }
    server = std::make_unique<Ipc::CmdServer>(svcIo, options, token, factory, processor);
    server->start();
  }
  void startService() { startService(spool); }

  std::unique_ptr<Ipc::CmdClient> makeClient(std::chrono::milliseconds transferTimeout = 60s) {
    Ipc::CmdClientOptions options;
    options.port = server->port();
    options.transferTimeout = transferTimeout;
    return std::make_unique<Ipc::CmdClient>(uiIo, options, token);
  }

  // Lists p and drops it; returns the client's error (empty on success).
  std::string dropPath(fs::path const& p, std::shared_ptr<ClientDrop>& cmd) {
    cmd = std::make_shared<ClientDrop>(ui, p);
    EXPECT_TRUE(cmd->prepareReq());
    return makeClient()->run(cmd);
  }

  // A drop of a new small file goes through and lands in the service's
  // folder under its own name.
  void expectServiceTakesADrop() {
    std::string const name = "check" + std::to_string(++m_checks) + ".txt";
    writeFile(src / name, "check " + name);
    std::shared_ptr<ClientDrop> cmd;
    EXPECT_EQ("", dropPath(src / name, cmd));
    EXPECT_TRUE(cmd->ok);
    EXPECT_EQ(R"({"ok":true})", cmd->response);
    EXPECT_EQ("check " + name, readFile(serviceFolder / name));
  }

  std::size_t logCount(std::string const& line) {
    std::vector<std::string> const lines = log.lines();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
  }

  void removeContents(fs::path const& folder) {
    for (std::string const& name : listNames(folder)) fs::remove_all(folder / name);
  }

  qxtest::LogWatch log;  // first: outlives the service
  qxtest::TempDir dir;
  fs::path const spool = dir / "spool";
  fs::path const src = dir / "src";
  fs::path serviceFolder;
  Ipc::IoThreads svcIo;
  Ipc::IoThreads uiIo;
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  std::shared_ptr<DropProcessor> const processor = std::make_shared<DropProcessor>();
  std::shared_ptr<Ipc::CmdProcessorLiteI> const ui = std::make_shared<Ipc::CmdProcessorLiteI>();
  std::unique_ptr<Ipc::CmdServer> server;

 private:
  int m_checks = 0;
};

// ---------------------------------------------------------------------------
// Drops that succeed

TEST_F(FileDropEndToEnd, OneFileArrivesUnderItsName) {
  startService();
  writeFile(src / "a.txt", "abc");
  std::shared_ptr<ClientDrop> cmd;

  EXPECT_EQ("", dropPath(src / "a.txt", cmd));

  EXPECT_TRUE(cmd->ok);
  EXPECT_EQ("", cmd->msg);
  EXPECT_EQ(R"({"ok":true})", cmd->response);
  EXPECT_EQ(std::vector<std::size_t>{3}, cmd->relay.writes());
  EXPECT_EQ(std::vector<std::string>{"a.txt"}, listNames(spool));
  EXPECT_EQ("abc", readFile(spool / "a.txt"));
  EXPECT_EQ(1, processor->visits());
}

TEST_F(FileDropEndToEnd, FolderArrivesAsOneFolderWithoutItsEmptyFilesAndSubFolders) {
  startService();
  std::string const big = pattern(kPiece + 12345, 11);
  std::string const binary("\0\x01\xff\0zz", 6);
  writeFile(src / "a.txt", "abc");
  writeFile(src / "b.bin", binary);
  writeFile(src / "c.dat", big);
  writeFile(src / "empty.txt", "");
  fs::create_directory(src / "sub");
  writeFile(src / "sub" / "inner.txt", "not sent");
  std::shared_ptr<ClientDrop> cmd;

  EXPECT_EQ("", dropPath(src, cmd));

  EXPECT_TRUE(cmd->ok);
  EXPECT_EQ(R"({"ok":true})", cmd->response);
  std::vector<std::string> lines = log.lines();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ((std::vector<std::string>{
                "WARNING:Ipc \"Drop File\" request with empty file. " + quoted(src / "empty.txt") +
                    " skipped!",
                "WARNING:Ipc \"Drop File\" request with sub-folders is not supported. " +
                    quoted(src / "sub") + " skipped!"}),
            lines);
  EXPECT_EQ(std::vector<std::string>{"tmp"}, listNames(spool));
  EXPECT_EQ((std::vector<std::string>{"a.txt", "b.bin", "c.dat"}), listNames(spool / "tmp"));
  EXPECT_EQ("abc", readFile(spool / "tmp" / "a.txt"));
  EXPECT_EQ(binary, readFile(spool / "tmp" / "b.bin"));
  EXPECT_TRUE(big == readFile(spool / "tmp" / "c.dat"));
}

TEST_F(FileDropEndToEnd, FilesHeldInMemoryArrive) {
  startService();
  std::string const binary("\xff\0\0\x7f", 4);
  auto cmd = std::make_shared<ClientDrop>(ui, fs::path());
  cmd->addMemFile("notes.txt", "hello");
  cmd->addMemFile("data.bin", binary);

  EXPECT_EQ("", makeClient()->run(cmd));

  EXPECT_TRUE(cmd->ok);
  EXPECT_EQ((std::vector<std::size_t>{5, 4}), cmd->relay.writes());
  EXPECT_EQ((std::vector<std::string>{"data.bin", "notes.txt"}), listNames(spool / "tmp"));
  EXPECT_EQ("hello", readFile(spool / "tmp" / "notes.txt"));
  EXPECT_EQ(binary, readFile(spool / "tmp" / "data.bin"));
}

TEST_F(FileDropEndToEnd, LargeFileTravelsInMebibytePiecesOnBothSides) {
  std::mutex mutex;
  std::vector<std::shared_ptr<PieceCountingDrop>> received;
  fs::path const folder = spool;
  startService(spool, serverOptions(),
               [&, folder](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p)
                   -> std::shared_ptr<Ipc::CmdI> {
                 if (type != Ipc::FILE_DROP_TYPE) return Ipc::createLiteCmd(type, p, folder);
                 auto drop = std::make_shared<PieceCountingDrop>(p, folder);
                 std::lock_guard<std::mutex> lock(mutex);
                 received.push_back(drop);
                 return drop;
               });
  std::string const content = pattern(2500000, 12);
  writeFile(src / "big.bin", content);
  qxtest::VerboseLog verbose;
  std::shared_ptr<ClientDrop> cmd;

  EXPECT_EQ("", dropPath(src / "big.bin", cmd));

  std::vector<std::size_t> const pieces{1048576, 1048576, 402848};
  EXPECT_EQ(pieces, cmd->relay.writes());
  {
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(pieces, received[0]->relay.reads());
  }
  EXPECT_TRUE(content == readFile(spool / "big.bin"));
  // One TRACE line on each side, each before its last piece.
  std::vector<std::string> traces;
  for (std::string const& line : log.lines()) {
    if (line.compare(0, 6, "TRACE:") == 0) traces.push_back(line);
  }
  std::sort(traces.begin(), traces.end());
  EXPECT_EQ((std::vector<std::string>{
                "TRACE:Ipc finalizing the transfer of " + quoted(spool / "big.bin.noqx"),
                "TRACE:Ipc finalizing the transfer of " + quoted(src / "big.bin")}),
            traces);
}

TEST_F(FileDropEndToEnd, GibibyteFileArrivesByteForByte) {
  if (skipLarge()) GTEST_SKIP() << "QX_SKIP_LARGE=1";
  startService();
  constexpr std::uint64_t kSize = std::uint64_t(1) << 30;
  fs::path const source = src / "huge.bin";
  fs::path const target = spool / "huge.bin";
  std::uint64_t const sent = qxtest::writePatternFile(source, kSize, 13);
  std::shared_ptr<ClientDrop> cmd;

  EXPECT_EQ("", dropPath(source, cmd));

  EXPECT_TRUE(cmd->ok);
  fs::remove(source);
  ASSERT_TRUE(fs::exists(target));
  EXPECT_EQ(kSize, fs::file_size(target));
  EXPECT_EQ(sent, qxtest::hashFile(target));
  fs::remove(target);
}

TEST_F(FileDropEndToEnd, TakenNameGetsACounterAndTheOtherFileIsLeftAlone) {
  startService();
  writeFile(spool / "report.pdf", "old");
  writeFile(src / "report.pdf", "new");
  std::shared_ptr<ClientDrop> cmd;

  EXPECT_EQ("", dropPath(src / "report.pdf", cmd));

  EXPECT_TRUE(cmd->ok);
  EXPECT_EQ((std::vector<std::string>{"report.pdf", "report_1.pdf"}), listNames(spool));
  EXPECT_EQ("old", readFile(spool / "report.pdf"));
  EXPECT_EQ("new", readFile(spool / "report_1.pdf"));
}

TEST_F(FileDropEndToEnd, FailedRenameAnswersWithTheUserMessageOnly) {
  startService();
  std::mutex mutex;
  std::unique_ptr<qxtest::ImmutableFolder> frozen;
  // Once the bytes are in, no entry of the spool folder can be renamed, by
  // root either.
  processor->beforeResp([&](Ipc::FileDrop&) {
    std::lock_guard<std::mutex> lock(mutex);
    frozen = std::make_unique<qxtest::ImmutableFolder>(spool);
  });
  writeFile(src / "report.pdf", "content");
  std::shared_ptr<ClientDrop> cmd;

  EXPECT_EQ("", dropPath(src / "report.pdf", cmd));

  {
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_TRUE(frozen);
    if (!frozen->ok()) GTEST_SKIP() << "the file system refuses the immutable flag: " << frozen->error();
    frozen.reset();
  }
  processor->beforeResp(nullptr);
  EXPECT_FALSE(cmd->ok);
  EXPECT_EQ(kRenameFailed, cmd->msg);
  EXPECT_EQ(std::string(R"({"msg":")") + kRenameFailed + "\"}", cmd->response);
  EXPECT_EQ(1u, logCount("ERR:Ipc Failed too many times to create temp file item \"report.pdf\""));
  EXPECT_EQ(std::vector<std::string>{"report.pdf.noqx"}, listNames(spool));
  EXPECT_EQ("content", readFile(spool / "report.pdf.noqx"));
  expectServiceTakesADrop();
}

TEST_F(FileDropEndToEnd, EightClientsDroppingFiftyFilesOfOneNameAtOnceLoseNothing) {
  startService();
  constexpr int kClients = 8, kDrops = 50;
  std::map<std::string, int> expected;  // content -> times still to be found
  std::vector<std::vector<std::string>> contents(kClients);
  for (int c = 0; c < kClients; ++c) {
    for (int i = 0; i < kDrops; ++i) {
      std::string const content =
          "client " + std::to_string(c) + " drop " + std::to_string(i) + "\n" +
          pattern(500 + static_cast<std::size_t>((c * kDrops + i) * 37 % 3000), c * kDrops + i);
      contents[c].push_back(content);
      ++expected[content];
    }
  }
  std::mutex mutex;
  std::condition_variable ready;
  int waiting = kClients;
  std::vector<std::string> errors;
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      auto client = makeClient();
      {
        std::unique_lock<std::mutex> lock(mutex);
        if (--waiting == 0) ready.notify_all();
        ready.wait(lock, [&] { return waiting == 0; });
      }
      for (int i = 0; i < kDrops; ++i) {
        auto cmd = std::make_shared<ClientDrop>(ui, fs::path());
        cmd->addMemFile("same.bin", contents[c][i]);
        std::string const error = client->run(cmd);
        if (!error.empty() || !cmd->ok) {
          std::lock_guard<std::mutex> lock(mutex);
          errors.push_back("client " + std::to_string(c) + " drop " + std::to_string(i) + ": " +
                           error + " " + cmd->response);
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();

  EXPECT_TRUE(errors.empty()) << errors.front();
  std::vector<std::string> const names = listNames(spool);
  EXPECT_EQ(std::size_t(kClients * kDrops), names.size());
  for (std::string const& name : names) {
    // A temporary name that carried a counter keeps it and may gain another.
    EXPECT_TRUE(qxtest::isCountedName(name, "same", ".bin", 2)) << name;
    auto const found = expected.find(readFile(spool / name));
    if (found == expected.end() || found->second == 0) {
      ADD_FAILURE() << name << " holds bytes that no client sent";
      continue;
    }
    --found->second;
  }
  for (auto const& e : expected) {
    EXPECT_EQ(0, e.second) << "not found: " << e.first.substr(0, e.first.find('\n'));
  }
}

// ---------------------------------------------------------------------------
// Hostile and broken drops: each fails with its own message at the client,
// writes nothing outside the spool folder, and leaves the service serving.

TEST_F(FileDropEndToEnd, HostileRequestsFailWithTheirMessageAndTheServiceGoesOn) {
  startService();
  bool const etcXExisted = fs::exists("/etc/x");
  fs::path const tmp = spool / "tmp.noqx";
  std::string const refused = "Ipc \"Drop File\" request refused: ";
  struct Case {
    std::string request;
    std::string error;
    std::vector<std::string> left;     // in the spool folder afterwards
    std::vector<std::string> inTmp{};  // in tmp.noqx afterwards
  };
  std::vector<Case> const cases = {
      {R"({"files":[{"name":"../x","size":3},{"name":"a","size":3}]})",
       "Ipc Failed to open " + (tmp / "../x").string(), {"tmp.noqx"}},
      {R"({"files":[{"name":"/etc/x","size":3},{"name":"a","size":3}]})",
       "Ipc Failed to open " + (tmp / "/etc/x").string(), {"tmp.noqx"}},
      {R"({"files":[{"name":"..","size":3},{"name":"a","size":3}]})",
       "Ipc Failed to open " + (tmp / "..").string(), {"tmp.noqx"}},
      {R"({"files":[{"name":"docs/report.pdf","size":3},{"name":"a","size":3}]})",
       "Ipc Failed to open " + (tmp / "docs/report.pdf").string(), {"tmp.noqx"}},
      {R"({"files":[{"name":"a","size":3},{"name":"../../x","size":3}]})",
       "Ipc Failed to open " + (tmp / "../../x").string(), {"tmp.noqx"}, {"a"}},
      {R"({"files":{"name":"a","size":3}})",
       refused + "JSON error: Wrong type: object. Expected type: array", {}},
      {R"({"files":[{"name":"a","size":"3"},{"name":"b","size":3}]})",
       refused + "JSON error: Wrong type: string. Expected type: integer", {"tmp.noqx"}},
      {R"({"files":[{"name":"a.txt","size":"3"}]})",
       refused + "JSON error: Wrong type: string. Expected type: integer", {"a.txt.noqx"}},
      {R"({"files":[{"name":"a.txt","size":3.5}]})",
       refused + "JSON error: Wrong type: float. Expected type: integer", {"a.txt.noqx"}},
      {R"({"files":[{"name":7,"size":3}]})",
       refused + "JSON error: Wrong type: integer. Expected type: string", {}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE("request: " + c.request);
    auto cmd = std::make_shared<ClientDrop>(ui, fs::path());
    cmd->request = c.request;
    cmd->addMemFile("one", "xyz");
    cmd->addMemFile("two", "abc");
    std::size_t const logged = logCount("ERR:" + c.error);

    EXPECT_EQ(c.error, makeClient()->run(cmd));
    EXPECT_EQ(c.error, cmd->transferError());  // what the command's onTransferError got

    EXPECT_EQ(logged + 1, logCount("ERR:" + c.error));
    EXPECT_EQ((std::vector<std::string>{"spool", "src"}), listNames(dir.path()));
    EXPECT_EQ(c.left, listNames(spool));
    if (fs::is_directory(tmp)) {
      EXPECT_EQ(c.inTmp, listNames(tmp));
    }
    if (!etcXExisted) {
      EXPECT_FALSE(fs::exists("/etc/x"));
    }
    removeContents(spool);
    expectServiceTakesADrop();
    removeContents(spool);
  }
}

TEST_F(FileDropEndToEnd, OneFileWhoseNameHasAFolderPartLandsInTheSpoolFolder) {
  startService();
  for (char const* name : {"../x", "/etc/x", "a/b/x"}) {
    SCOPED_TRACE(std::string("name: ") + name);
    auto cmd = std::make_shared<ClientDrop>(ui, fs::path());
    cmd->request = std::string(R"({"files":[{"name":")") + name + R"(","size":3}]})";
    cmd->addMemFile("x", "xyz");

    EXPECT_EQ("", makeClient()->run(cmd));

    EXPECT_TRUE(cmd->ok);
    EXPECT_EQ((std::vector<std::string>{"spool", "src"}), listNames(dir.path()));
    EXPECT_EQ(std::vector<std::string>{"x"}, listNames(spool));
    EXPECT_EQ("xyz", readFile(spool / "x"));
    removeContents(spool);
  }
}

TEST_F(FileDropEndToEnd, NegativeSizeTimesOutAtTheClientAndTheServiceGoesOn) {
  Ipc::CmdServerOptions options = serverOptions();
  options.transferTimeout = 3s;
  startService(spool, options);
  auto cmd = std::make_shared<ClientDrop>(ui, fs::path());
  cmd->request = R"({"files":[{"name":"neg.bin","size":-1}]})";
  cmd->addMemFile("neg.bin", "abc");

  std::string const timedOut = "Ipc \"Drop File\": timed out: no byte moved for 200 ms";
  EXPECT_EQ(timedOut, makeClient(200ms)->run(cmd));
  EXPECT_EQ(timedOut, cmd->transferError());

  EXPECT_TRUE(log.waitFor("ERR:Ipc \"Drop File\": the client closed the connection"));
  EXPECT_EQ(std::vector<std::string>{"neg.bin.noqx"}, listNames(spool));
  EXPECT_EQ(0u, fs::file_size(spool / "neg.bin.noqx"));
  expectServiceTakesADrop();
}

TEST_F(FileDropEndToEnd, ClientThatStandsStillIsDroppedByTheService) {
  Ipc::CmdServerOptions options = serverOptions();
  options.transferTimeout = 300ms;
  startService(spool, options);
  RawSocket raw = RawSocket::connectTo(server->port());
  ASSERT_EQ(okStatusFrame(), qxtest::proveToService(raw, token));
  raw.send(dropRequestBytes(R"({"files":[{"name":"still.bin","size":-1}]})") + "abc");

  // The request is still being read: the service says why before it ends
  // the connection.
  std::string const why = "Ipc \"Drop File\": no byte moved for 300 ms";
  std::string const status = raw.read(Ipc::wire::kFrameSize);
  ASSERT_EQ(Ipc::wire::kFrameSize, status.size());
  auto const* frame = reinterpret_cast<unsigned char const*>(status.data());
  EXPECT_EQ("", Ipc::wire::checkFrameStart(frame));
  EXPECT_EQ(Ipc::wire::kStatusRefused, frame[3]);
  EXPECT_EQ(why, raw.read(Ipc::wire::getU32(frame + 4)));
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ("", rest.data);
  EXPECT_EQ("end of stream", rest.end);

  EXPECT_TRUE(log.waitFor("ERR:" + why));
  EXPECT_EQ(std::vector<std::string>{"still.bin.noqx"}, listNames(spool));
  expectServiceTakesADrop();
}

TEST_F(FileDropEndToEnd, ClientThatDisconnectsInTheMiddleOfAPieceLeavesWhatArrived) {
  startService();
  std::string const content = pattern(kPiece + 500000, 14);
  {
    RawSocket raw = RawSocket::connectTo(server->port());
    ASSERT_EQ(okStatusFrame(), qxtest::proveToService(raw, token));
    raw.send(dropRequestBytes(R"({"files":[{"name":"half.bin","size":2500000}]})"));
    raw.send(content);
  }

  EXPECT_TRUE(log.waitFor("ERR:Ipc \"Drop File\": the client closed the connection"));
  EXPECT_EQ(std::vector<std::string>{"half.bin.noqx"}, listNames(spool));
  EXPECT_TRUE(content.substr(0, kPiece) == readFile(spool / "half.bin.noqx"));
  expectServiceTakesADrop();
}

TEST_F(FileDropEndToEnd, SourceThatShrinksAfterListingFailsAtTheClient) {
  startService();
  fs::path const file = src / "big.bin";
  std::string const content = pattern(3 * kPiece, 15);
  writeFile(file, content);
  auto cmd = std::make_shared<ClientDrop>(ui, file);
  ASSERT_TRUE(cmd->prepareReq());
  writeFile(file, content.substr(0, kPiece + 10));

  EXPECT_EQ("Failed to read " + file.string(), makeClient()->run(cmd));
  EXPECT_EQ("Failed to read " + file.string(), cmd->transferError());

  EXPECT_TRUE(log.waitFor("ERR:Ipc \"Drop File\": the client closed the connection"));
  EXPECT_EQ(std::vector<std::string>{"big.bin.noqx"}, listNames(spool));
  EXPECT_TRUE(content.substr(0, kPiece) == readFile(spool / "big.bin.noqx"));
  expectServiceTakesADrop();
}

TEST_F(FileDropEndToEnd, UnwritableSpoolFolderRefusesDropsUntilItIsRepaired) {
  fs::path const blocker = dir / "blocker";
  fs::path const folder = blocker / "in";
  writeFile(blocker, "a file where the spool's parent should be");
  startService(folder);

  writeFile(src / "report.pdf", "content");
  std::shared_ptr<ClientDrop> cmd;
  EXPECT_EQ("Ipc \"Drop File\" request refused: Svc failed to create temp file for report.pdf",
            dropPath(src / "report.pdf", cmd));
  EXPECT_EQ("Ipc \"Drop File\" request refused: Svc failed to create temp file for report.pdf",
            cmd->transferError());
  EXPECT_EQ(1u, logCount("ERR:Ipc Failed too many times to create temp file item \"report.pdf.noqx\""));

  // A folder drop gets no folder: its bare names must not land in the
  // service's working folder.
  std::string const name = "qx-e2e-" + dir.path().filename().string() + ".txt";
  auto folderDrop = std::make_shared<ClientDrop>(ui, fs::path());
  folderDrop->addMemFile(name, "abc");
  folderDrop->addMemFile("second.txt", "def");
  EXPECT_EQ("Ipc Failed to open " + name, makeClient()->run(folderDrop));
  EXPECT_EQ("Ipc Failed to open " + name, folderDrop->transferError());
  EXPECT_EQ(1u, logCount("ERR:Ipc Failed too many times to create temp file item \"tmp.noqx\""));
  EXPECT_FALSE(fs::exists(fs::current_path() / name));

  fs::remove(blocker);
  fs::create_directories(folder);
  expectServiceTakesADrop();
}

TEST_F(FileDropEndToEnd, DiskThatFillsUpDuringADropFailsWithTheWriteError) {
  qxtest::TmpfsMount disk(spool, "size=1m");
  if (!disk.ok()) GTEST_SKIP() << "cannot mount a tmpfs on the spool folder: " << disk.error();
  startService();
  writeFile(src / "big.bin", pattern(3 * kPiece, 16));
  std::shared_ptr<ClientDrop> cmd;

  std::string const full = "Ipc Failed to write to " + (spool / "big.bin.noqx").string();
  EXPECT_EQ(full, dropPath(src / "big.bin", cmd));
  EXPECT_EQ(full, cmd->transferError());

  EXPECT_EQ(std::vector<std::string>{"big.bin.noqx"}, listNames(spool));
  EXPECT_LT(fs::file_size(spool / "big.bin.noqx"), 3 * kPiece);
  fs::remove(spool / "big.bin.noqx");
  expectServiceTakesADrop();
}

}  // namespace
