// Connections that have not proved the token cannot starve those that have:
// the exact order in which unproved connections give way to newer ones, the
// places kept for proved connections, and a real client's IsRunning that
// answers within a second while silent connections flood the service and
// are reopened as fast as they are dropped.
#include "ipc/IpcCmdsLite.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "tests/IpcTestProcessor.h"
#include "tests/RawHandshake.h"
#include "tests/RawSocket.h"
#include "tests/SilentFlood.h"
#include "tests/TestUtil.h"
#include "tests/WireBytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <future>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using qxtest::okFrame;
using qxtest::RawSocket;
using qxtest::refusalBytes;
using qxtest::SilentFlood;
namespace hs = Ipc::transport::handshake;

constexpr char kGivesWay16[] =
    "too many connections that have not proved the token (16); the oldest gives way";

// Waits until pred() holds, looking every millisecond; false when it still
// does not after limit.
template <class Pred>
bool waitUntil(Pred pred, std::chrono::milliseconds limit = 10s) {
  auto const end = std::chrono::steady_clock::now() + limit;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

std::string peer(RawSocket const& raw) { return "127.0.0.1:" + std::to_string(raw.localPort()); }

// Log lines with the port of every loopback peer replaced by "PORT".
std::vector<std::string> maskedLines(qxtest::LogCapture& log) {
  static std::regex const peerPort(R"(127\.0\.0\.1:\d+)");
  std::vector<std::string> lines = log.lines();
  for (std::string& line : lines) line = std::regex_replace(line, peerPort, "127.0.0.1:PORT");
  return lines;
}

// Whether the socket's peer has closed it: an end of stream after what it
// sent.
bool endsAfter(RawSocket& raw, std::string const& expected) {
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(expected, rest.data);
  return rest.end == "end of stream";
}

class UnprovedConnectionsTest : public ::testing::Test {
 protected:
  ~UnprovedConnectionsTest() override {
    if (server) server->stop();
  }

  void startServer(Ipc::CmdServerOptions options) {
    options.forceIp4 = true;
    server = std::make_unique<Ipc::CmdServer>(svcIo, options, token, &qxtest::makeLiteCmd, processor);
    server->start();
  }

  // A connection whose hello went out and whose challenge came back; its
  // proof is still to be sent.
  RawSocket helloOnly() {
    RawSocket raw = RawSocket::connectTo(server->port());
    EXPECT_EQ(okFrame(), qxtest::sendHello(raw, hs::freshNonce()).status);
    return raw;
  }
  RawSocket proved() {
    RawSocket raw = RawSocket::connectTo(server->port());
    EXPECT_EQ(okFrame(), qxtest::proveToService(raw, token));
    return raw;
  }

  // An IsRunning from a client of its own (so a new connection and a new
  // handshake): its error, and how long it took until it completed.
  std::string isRunning(std::chrono::milliseconds& took) {
    Ipc::CmdClientOptions options;
    options.port = server->port();
    Ipc::CmdClient client(uiIo, options, token);
    auto const cmd = std::make_shared<Ipc::IsRunning>(std::make_shared<Ipc::CmdProcessorLiteI>());
    auto done = std::make_shared<std::promise<std::string>>();
    std::future<std::string> outcome = done->get_future();
    auto const start = std::chrono::steady_clock::now();
    client.execute(cmd, [done](std::shared_ptr<Ipc::CmdI> const&, std::string const& error) {
      done->set_value(error);
    });
    if (outcome.wait_for(30s) != std::future_status::ready) return "<no completion>";
    took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::string const error = outcome.get();
    if (error.empty() && !cmd->running) return "<answered not running>";
    return error;
  }

  // While count silent connections are kept open (and reopened when
  // dropped), IsRunning from new clients answers within a second, each of
  // several times.
  void expectIsRunningThroughFlood(std::size_t count) {
    startServer(Ipc::CmdServerOptions());
    SilentFlood flood(server->port(), count);
    // The flood has filled every unproved place and pushes out its own.
    ASSERT_TRUE(waitUntil([&] { return flood.dropped() >= 2 * count; }, 30s)) << flood.dropped();
    // Rounds spread over more than the hello time-out (2 s), so that no
    // place is freed by a time-out alone.
    std::chrono::milliseconds slowest{};
    for (int round = 1; round <= 6; ++round) {
      std::chrono::milliseconds took{};
      EXPECT_EQ("", isRunning(took)) << "round " << round;
      EXPECT_LT(took, qxtest::kAnswerThroughFlood) << "round " << round;
      slowest = std::max(slowest, took);
      std::this_thread::sleep_for(500ms);
    }
    RecordProperty("slowest_is_running_ms", static_cast<int>(slowest.count()));
    RecordProperty("silent_connections_dropped", static_cast<int>(flood.dropped()));
    std::size_t const dropped = flood.dropped();
    EXPECT_EQ(0u, flood.openFailures());
    // Dropped connections were told why, as far as their sockets took it,
    // and nothing else.
    std::map<std::string, std::size_t> const received = flood.received();
    std::string const refusal = refusalBytes(std::string("Ipc connection refused: ") + kGivesWay16);
    for (auto const& entry : received) {
      EXPECT_TRUE(entry.first == refusal || entry.first.empty()) << qxtest::printable(entry.first);
    }
    ASSERT_EQ(1u, received.count(refusal));
    EXPECT_GT(received.at(refusal), 0u);
    // Logged at most once a second, with the count of those in between.
    static std::regex const line(std::string(R"(ERR:Ipc connection from 127\.0\.0\.1:PORT refused: )") +
                                 R"(too many connections that have not proved the token \(16\); )"
                                 R"(the oldest gives way( \(and \d+ more times since the last report\))?)");
    std::vector<std::string> const lines = maskedLines(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(std::string("ERR:Ipc connection from 127.0.0.1:PORT refused: ") + kGivesWay16, lines[0]);
    for (std::string const& l : lines) EXPECT_TRUE(std::regex_match(l, line)) << l;
    EXPECT_LT(lines.size(), dropped);
  }

  qxtest::LogCapture log;  // first: outlives the service
  Ipc::IoThreads svcIo;
  Ipc::IoThreads uiIo;
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  std::shared_ptr<qxtest::TestLiteProcessor> const processor = std::make_shared<qxtest::TestLiteProcessor>();
  std::unique_ptr<Ipc::CmdServer> server;
};

TEST_F(UnprovedConnectionsTest, TheOldestSilentGivesWayThenTheOldestAwaitingItsProof) {
  Ipc::CmdServerOptions options;
  options.maxConnections = 3;
  options.maxUnprovedConnections = 2;
  startServer(options);
  std::string const givesWay = "too many connections that have not proved the token (2); the oldest gives way";
  std::string const refusal = refusalBytes("Ipc connection refused: " + givesWay);

  RawSocket silentA = RawSocket::connectTo(server->port());
  ASSERT_TRUE(waitUntil([&] { return server->connectionCount() == 1; }));
  RawSocket helloB = helloOnly();
  // Both unproved places are taken: A, silent and the oldest, gives way.
  RawSocket silentC = RawSocket::connectTo(server->port());
  EXPECT_TRUE(endsAfter(silentA, refusal));
  // A silent one gives way before one that sent its hello, however old.
  RawSocket helloD = helloOnly();
  EXPECT_TRUE(endsAfter(silentC, refusal));
  // With no silent one left, the oldest whose proof is awaited gives way.
  RawSocket silentE = RawSocket::connectTo(server->port());
  EXPECT_TRUE(endsAfter(helloB, refusal));

  // A client that proves the token gets its place (E gives way) and keeps
  // it; so does the next, for a place was free.
  RawSocket proved1 = proved();
  EXPECT_TRUE(endsAfter(silentE, refusal));
  RawSocket proved2 = proved();
  // Every place is taken, one by D: a new connection takes D's.
  RawSocket silentF = RawSocket::connectTo(server->port());
  EXPECT_TRUE(endsAfter(helloD, refusal));
  RawSocket proved3 = proved();
  EXPECT_TRUE(endsAfter(silentF, refusal));
  // Every place is held by a proved connection: only now is the newest
  // refused.
  RawSocket silentG = RawSocket::connectTo(server->port());
  std::string const full = refusalBytes("Ipc connection refused: too many connections (3)");
  EXPECT_EQ(full, silentG.read(full.size()));

  // The first that gave way is logged; the five after it within the same
  // second are only counted.
  EXPECT_EQ((std::vector<std::string>{"ERR:Ipc connection from " + peer(silentA) + " refused: " + givesWay,
                                      "ERR:Ipc connection from " + peer(silentG) +
                                          " refused: too many connections (3)"}),
            log.lines());
  // The proved connections still serve: an IsRunning (type code, no flags,
  // no body) is answered.
  std::uint8_t const isRunningCode = Ipc::IsRunning(std::make_shared<Ipc::CmdProcessorLiteI>()).typeCode();
  std::string const answer = okFrame() + qxtest::jsonBody(R"({"resp":true})");
  for (RawSocket* raw : {&proved1, &proved2, &proved3}) {
    raw->send(qxtest::requestFrame(isRunningCode, 0));
    EXPECT_EQ(answer, raw->read(answer.size()));
  }
}

TEST_F(UnprovedConnectionsTest, SixtyFourSilentConnectionsLeaveIsRunningAnswering) {
  expectIsRunningThroughFlood(64);
}

TEST_F(UnprovedConnectionsTest, AThousandSilentConnectionsLeaveIsRunningAnswering) {
  // The flood's sockets and the service's ends of them, in this process.
  if (!qxtest::raiseDescriptorLimit(3 * 1000 + 256)) {
    GTEST_SKIP() << "the limit of open descriptors cannot be raised to 3256";
  }
  expectIsRunningThroughFlood(1000);
}

}  // namespace
