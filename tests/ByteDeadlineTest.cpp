// "No byte moved for N" on both sides of the IPC connection: a peer that
// moves its bytes a few at a time, with gaps shorter than the time-out, is
// served however long the whole takes; one that stands still is cut when the
// time-out has passed since its last byte, with the message that says so.
//
// The time-out is 300 ms and the peers move a byte every 100 ms: the rule
// of a 60 s time-out and a byte a second, quick enough for a test.
#include "ipc/IpcCmdsLite.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "shared/transport/Wire.h"

#include "tests/DropTestUtil.h"
#include "tests/RawHandshake.h"
#include "tests/RawSocket.h"
#include "tests/TestUtil.h"
#include "tests/TransportTestCmds.h"
#include "tests/WireBytes.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = boost::filesystem;
namespace hs = Ipc::transport::handshake;
namespace wire = Ipc::wire;
using namespace std::chrono_literals;
using namespace transporttest;
using qxtest::jsonBody;
using qxtest::okFrame;
using qxtest::printable;
using qxtest::RawSocket;
using qxtest::refusalBytes;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTimeout{300};
constexpr std::chrono::milliseconds kGap{100};
// How late a cut may come on a busy machine (sanitizers, parallel tests).
constexpr std::chrono::milliseconds kLateness{700};

// Sends bytes step bytes at a time, kGap apart; returns when the last step
// went out.
void trickle(RawSocket const& raw, std::string const& bytes, std::size_t step = 1) {
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    if (at != 0) std::this_thread::sleep_for(kGap);
    if (!raw.send(bytes.substr(at, step))) return;
  }
}

std::chrono::milliseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

// A cut that came at the time-out after the last byte: neither before it
// (the clock's tick aside) nor much after.
void expectCutAtTheTimeout(std::chrono::milliseconds afterLastByte) {
  EXPECT_GE(afterLastByte.count(), (kTimeout - 10ms).count());
  EXPECT_LT(afterLastByte.count(), (kTimeout + kLateness).count());
}

// The service's processor for drops: gives each its final name.
class NamingProcessor : public Ipc::CmdProcessorLiteI {
 public:
  void visit(Ipc::FileDrop& drop) override { drop.setResp(); }
};

std::string dropRequestBytes(std::string const& json) {
  return qxtest::requestFrame(Ipc::FILE_DROP_TYPE, wire::kFlagJsonBody) + jsonBody(json);
}

class ByteDeadline : public ::testing::Test {
 protected:
  ~ByteDeadline() override {
    if (server) server->stop();
  }

  static Ipc::CmdServerOptions serverOptions() {
    Ipc::CmdServerOptions options;
    options.forceIp4 = true;
    options.helloTimeout = kTimeout;
    options.transferTimeout = kTimeout;
    return options;
  }
  // The service of the transport tests' commands (Echo among them).
  void startEchoService() {
    server = std::make_unique<Ipc::CmdServer>(svcIo, serverOptions(), token, buildCmd, svc);
    server->start();
  }
  // The service of the library's commands, dropping into spool.
  void startDropService() {
    fs::create_directory(spool);
    fs::path const folder = spool;
    auto factory = [folder](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) {
      return std::shared_ptr<Ipc::CmdI>(Ipc::createLiteCmd(type, p, folder));
    };
    server = std::make_unique<Ipc::CmdServer>(svcIo, serverOptions(), token, factory,
                                              std::make_shared<NamingProcessor>());
    server->start();
  }

  // A raw connection that has proven the token.
  RawSocket provenConnection() {
    RawSocket raw = RawSocket::connectTo(server->port());
    EXPECT_EQ(okFrame(), qxtest::proveToService(raw, token));
    return raw;
  }

  // A client whose quick commands (Echo) time out after kTimeout.
  std::unique_ptr<Ipc::CmdClient> makeClient(std::uint16_t port) {
    Ipc::CmdClientOptions options;
    options.port = port;
    options.quickTimeout = kTimeout;
    return std::make_unique<Ipc::CmdClient>(uiIo, options, token);
  }

  static std::string peer(RawSocket const& raw) { return "127.0.0.1:" + std::to_string(raw.localPort()); }

  qxtest::LogWatch log;  // first: outlives the service
  qxtest::TempDir dir;
  fs::path const spool = dir / "spool";
  Ipc::IoThreads svcIo;
  Ipc::IoThreads uiIo;
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  std::shared_ptr<TestProcessor> const svc = std::make_shared<TestProcessor>();
  std::shared_ptr<TestProcessor> const ui = std::make_shared<TestProcessor>();
  std::unique_ptr<Ipc::CmdServer> server;
};

// ---------------------------------------------------------------------------
// The service

TEST_F(ByteDeadline, HandshakeSentAByteAtATimeIsAnsweredAndTheConnectionServes) {
  startEchoService();
  RawSocket raw = RawSocket::connectTo(server->port());
  hs::Nonce const clientNonce = hs::freshNonce();
  trickle(raw, qxtest::helloBytes(clientNonce));  // 40 bytes: 3.9 s
  ASSERT_EQ(printable(okFrame()), printable(raw.read(wire::kFrameSize)));
  std::string const challenge = raw.read(wire::kChallengeSize);
  ASSERT_EQ(wire::kChallengeSize, challenge.size());
  hs::Nonce const serviceNonce = qxtest::nonceAt(challenge, 0);
  ASSERT_TRUE(hs::verify(token, hs::Role::Service, wire::kVersion, clientNonce, serviceNonce,
                         reinterpret_cast<unsigned char const*>(challenge.data()) + wire::kNonceSize));
  // The proof, 4 bytes at a time: 0.7 s.
  trickle(raw, qxtest::proofBytes(hs::prove(token, hs::Role::Client, wire::kVersion, clientNonce, serviceNonce)),
          4);
  ASSERT_EQ(printable(okFrame()), printable(raw.read(wire::kFrameSize)));

  raw.send(requestFrame(kEcho, wire::kFlagJsonBody) + jsonBody(R"({"text":"hi"})"));
  std::string const response = okFrame() + jsonBody(R"({"text":"hi"})");
  EXPECT_EQ(printable(response), printable(raw.read(response.size())));
  EXPECT_EQ(std::vector<std::string>{}, log.lines());
}

TEST_F(ByteDeadline, HelloThatStallsIsRefusedAtItsTimeout) {
  startEchoService();
  RawSocket raw = RawSocket::connectTo(server->port());
  trickle(raw, qxtest::helloBytes(hs::freshNonce()).substr(0, 20));  // 1.9 s
  Clock::time_point const lastByte = Clock::now();
  std::string const status = raw.read(wire::kFrameSize);
  expectCutAtTheTimeout(since(lastByte));

  std::string const why = "no token (no byte moved for 300 ms)";
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(printable(refusalBytes("Ipc connection refused: " + why)), printable(status + rest.data));
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ(std::vector<std::string>{"ERR:Ipc connection from " + peer(raw) + " refused: " + why}, log.lines());
}

TEST_F(ByteDeadline, RequestSentAByteAtATimeIsServed) {
  startEchoService();
  RawSocket raw = provenConnection();
  // The frame, the body's length and the body: 27 bytes, 2.6 s.
  trickle(raw, requestFrame(kEcho, wire::kFlagJsonBody) + jsonBody(R"({"text":"slow"})"));
  std::string const response = okFrame() + jsonBody(R"({"text":"slow"})");
  EXPECT_EQ(printable(response), printable(raw.read(response.size())));
  EXPECT_EQ(1, svc->served.load());
  EXPECT_EQ(std::vector<std::string>{}, log.lines());
}

TEST_F(ByteDeadline, RequestThatStallsInItsBodyIsRefusedAtItsTimeout) {
  startEchoService();
  RawSocket raw = provenConnection();
  trickle(raw, requestFrame(kEcho, wire::kFlagJsonBody) + jsonBody(R"({"text":"slow"})").substr(0, 10));
  Clock::time_point const lastByte = Clock::now();
  std::string const status = raw.read(wire::kFrameSize);
  expectCutAtTheTimeout(since(lastByte));

  std::string const why = "Ipc Echo: no byte moved for 300 ms";
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(printable(refusalBytes(why)), printable(status + rest.data));
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_TRUE(log.waitFor("ERR:" + why));
  EXPECT_EQ(0, svc->served.load());
}

// 24 KiB of a file in steps of 1 KiB, 2.3 s: the first part of the piece is
// read straight into the drop's buffer, the last 8 KiB through the
// connection's read-ahead; both move the deadline with each receive.
TEST_F(ByteDeadline, DropWhosePieceComesInSmallStepsArrivesWhole) {
  startDropService();
  std::string const content = qxtest::pattern(24 * 1024, 7);
  RawSocket raw = provenConnection();
  raw.send(dropRequestBytes(R"({"files":[{"name":"slow.bin","size":24576}]})"));
  trickle(raw, content, 1024);
  std::string const response = okFrame() + jsonBody(R"({"ok":true})");
  EXPECT_EQ(printable(response), printable(raw.read(response.size())));
  EXPECT_EQ(std::vector<std::string>{"slow.bin"}, qxtest::listNames(spool));
  EXPECT_TRUE(content == qxtest::readFile(spool / "slow.bin")) << "the dropped file differs";
  EXPECT_EQ(std::vector<std::string>{}, log.lines());
}

TEST_F(ByteDeadline, DropThatStallsInAPieceIsRefusedAtItsTimeout) {
  startDropService();
  RawSocket raw = provenConnection();
  raw.send(dropRequestBytes(R"({"files":[{"name":"still.bin","size":24576}]})"));
  trickle(raw, qxtest::pattern(12 * 1024, 7), 1024);
  Clock::time_point const lastByte = Clock::now();
  std::string const status = raw.read(wire::kFrameSize);
  expectCutAtTheTimeout(since(lastByte));

  std::string const why = "Ipc \"Drop File\": no byte moved for 300 ms";
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(printable(refusalBytes(why)), printable(status + rest.data));
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_TRUE(log.waitFor("ERR:" + why));
  // The piece never completed: the target keeps its temporary name.
  EXPECT_EQ(std::vector<std::string>{"still.bin.noqx"}, qxtest::listNames(spool));
}

// ---------------------------------------------------------------------------
// The client, against a raw service

class ByteDeadlineClient : public ByteDeadline {
 protected:
  // Runs an Echo of "slow" from a client; accepts its connection, plays the
  // service's handshake and reads the request.
  void startEcho() {
    listener = RawSocket::listenLoopback(port);
    ASSERT_TRUE(listener.valid());
    client = makeClient(port);
    cmd = echo(ui, "slow");
    result = std::async(std::launch::async, [this] { return client->run(cmd); });
    conn = listener.accept();
    ASSERT_EQ("", qxtest::answerHello(conn, token));
    std::string const request = requestFrame(kEcho, wire::kFlagJsonBody) + jsonBody(R"({"text":"slow"})");
    ASSERT_EQ(printable(request), printable(conn.read(request.size())));
  }
  // The client's error; "<no completion>" when none came in time.
  std::string error() {
    if (result.wait_for(kPatience) != std::future_status::ready) return "<no completion>";
    return result.get();
  }

  std::uint16_t port = 0;
  RawSocket listener;
  RawSocket conn;
  std::unique_ptr<Ipc::CmdClient> client;
  std::shared_ptr<EchoCmd> cmd;
  std::future<std::string> result;
};

TEST_F(ByteDeadlineClient, ResponseReadAByteAtATimeCompletes) {
  startEcho();
  trickle(conn, okFrame() + jsonBody(R"({"text":"slow"})"));  // 27 bytes: 2.6 s
  EXPECT_EQ("", error());
  EXPECT_EQ(textObject("slow"), cmd->response);
}

TEST_F(ByteDeadlineClient, ResponseThatStallsTimesOutAtItsTimeout) {
  startEcho();
  trickle(conn, okFrame() + jsonBody(R"({"text":"slow"})").substr(0, 10));
  Clock::time_point const lastByte = Clock::now();
  std::string const why = "Ipc Echo: timed out: no byte moved for 300 ms";
  EXPECT_EQ(why, error());
  expectCutAtTheTimeout(since(lastByte));
  EXPECT_EQ(why, cmd->transferError());
  RawSocket::Rest const rest = conn.readToEnd();
  EXPECT_EQ("", printable(rest.data));
  EXPECT_EQ("end of stream", rest.end);
}

}  // namespace
