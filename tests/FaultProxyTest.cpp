// The fault proxy in front of the real test servers: each fault does to the
// client and to the server what it promises, and the counts are exact.
#include "tests/FaultProxy.h"
#include "tests/DropTestUtil.h"
#include "tests/RawSocket.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qxtest {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr char k503Body[] = "503 Service Unavailable\n";

std::unique_ptr<FaultProxy> proxyInFrontOf(std::string const& url, FaultPolicy policy = {}) {
  HostPort const upstream = hostPortOf(url);
  return std::make_unique<FaultProxy>(upstream.host, upstream.port, std::move(policy));
}

// The same S3 server, reached through the proxy.
S3TestServer throughProxy(FaultProxy const& proxy) {
  S3TestServer server = s3Server();
  server.endpoint = proxy.origin();
  return server;
}

DavTestServer throughProxy(FaultProxy const& proxy, DavTestServer server) {
  std::size_t const pathStart = server.url.find('/', server.url.find("://") + 3);
  server.url = proxy.origin() + server.url.substr(pathStart);
  return server;
}

std::string uniqueName(std::string const& what) {
  static int made = 0;
  return what + "-" + std::to_string(::getpid()) + "-" + std::to_string(made++);
}

long long millisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

struct RawAnswer {
  std::string head;
  std::string body;
};

// One answer from a raw connection: the head, then the body its
// Content-Length announces (none after a HEAD).
RawAnswer readAnswer(RawSocket const& socket, bool toHead) {
  RawAnswer answer;
  while (answer.head.size() < 65536 &&
         (answer.head.size() < 4 || answer.head.compare(answer.head.size() - 4, 4, "\r\n\r\n") != 0)) {
    std::string const byte = socket.read(1);
    if (byte.empty()) return answer;
    answer.head += byte;
  }
  std::size_t const at = answer.head.find("Content-Length: ");
  if (!toHead && at != std::string::npos) {
    answer.body = socket.read(std::stoul(answer.head.substr(at + 16)));
  }
  return answer;
}

std::string statusLine(RawAnswer const& answer) { return answer.head.substr(0, answer.head.find("\r\n")); }

TEST(FaultProxyTest, Answer503ReachesTheClientAndNothingTheServer) {
  S3TestServer const& s3 = s3Server();
  std::string const bucket = makeBucket(s3, "proxy 503");
  auto proxy = proxyInFrontOf(s3.endpoint, [](std::string const& method, std::string const&) {
    return method == "PUT" ? Fault::answer503() : Fault::pass();
  });
  std::string const path = "/" + bucket + "/refused";
  HttpAnswer const put = s3Request(throughProxy(*proxy), "PUT", path, pattern(200000, 3));
  EXPECT_EQ(put.status, 503);
  EXPECT_EQ(put.body, k503Body);
  EXPECT_EQ(put.header("Connection"), "close");
  EXPECT_EQ(s3Request(s3, "HEAD", path).status, 404);
  HttpAnswer const get = s3Request(throughProxy(*proxy), "GET", path);
  EXPECT_EQ(get.status, 404);
  EXPECT_EQ(proxy->bodyBytesForwarded(path), 0u);
  std::vector<SeenRequest> const seen = proxy->requests();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].method, "PUT");
  EXPECT_EQ(seen[0].target, path);
  EXPECT_EQ(seen[0].fault, Fault::Kind::Answer503);
  EXPECT_EQ(seen[1].method, "GET");
  EXPECT_EQ(seen[1].fault, Fault::Kind::Pass);
}

TEST(FaultProxyTest, ResetAfterBytesLeavesNothingOnTheS3Server) {
  S3TestServer const& s3 = s3Server();
  std::string const bucket = makeBucket(s3, "proxy reset");
  auto proxy = proxyInFrontOf(s3.endpoint, [](std::string const&, std::string const&) {
    return Fault::resetAfter(100000);
  });
  std::string const path = "/" + bucket + "/cut";
  std::string const message = runtimeErrorMessage(
      [&] { s3Request(throughProxy(*proxy), "PUT", path, pattern(1048576, 4)); });
  EXPECT_EQ(message.rfind("PUT " + proxy->origin() + path + ": ", 0), 0u) << message;
  EXPECT_EQ(proxy->bodyBytesForwarded(path), 100000u);
  EXPECT_EQ(s3Request(s3, "HEAD", path).status, 404);
  EXPECT_EQ(s3ListKeys(s3, bucket), std::vector<std::string>{});
}

TEST(FaultProxyTest, ResetAfterBytesLeavesNothingOnTheDavServer) {
  DavTestServer const& dav = davServer();
  auto proxy = proxyInFrontOf(dav.url, [](std::string const&, std::string const&) {
    return Fault::resetAfter(65537);
  });
  std::string const folder = "/" + uniqueName("proxy-reset");
  std::string const message = runtimeErrorMessage([&] {
    davRequest(throughProxy(*proxy, dav), "PUT", folder + "/cut.bin", pattern(1048576, 5));
  });
  EXPECT_NE(message, "(no exception)");
  EXPECT_EQ(proxy->bodyBytesForwarded("/dav" + folder + "/cut.bin"), 65537u);
  // Give the server a moment to notice the reset and drop its temporary file.
  for (int i = 0; i < 50 && boost::filesystem::exists(dav.root + folder + "/cut.bin"); ++i) {
    std::this_thread::sleep_for(milliseconds(20));
  }
  EXPECT_FALSE(boost::filesystem::exists(dav.root + folder + "/cut.bin"));
  EXPECT_EQ(davRequest(dav, "HEAD", folder + "/cut.bin").status, 404);
}

TEST(FaultProxyTest, CountsAreExactPerPath) {
  S3TestServer const& s3 = s3Server();
  std::string const bucket = makeBucket(s3, "proxy counts");
  auto proxy = proxyInFrontOf(s3.endpoint);
  S3TestServer const via = throughProxy(*proxy);
  struct Put {
    std::string key;
    std::size_t size;
  };
  std::vector<Put> const puts = {{"empty", 0}, {"one", 1}, {"big", 300001}, {"one", 7}};
  for (Put const& put : puts) {
    HttpAnswer const answer = s3Request(via, "PUT", "/" + bucket + "/" + put.key, pattern(put.size, 6));
    ASSERT_EQ(answer.status, 200) << put.key << " " << answer.body;
  }
  // A multipart upload: its parts count for the object's path.
  std::string const object = "/" + bucket + "/parts";
  HttpAnswer const begun = s3Request(via, "POST", object + "?uploads");
  ASSERT_EQ(begun.status, 200) << begun.body;
  std::string const uploadId = xmlElementText(begun.body, "UploadId");
  HttpAnswer const part =
      s3Request(via, "PUT", object + "?partNumber=1&uploadId=" + uploadId, pattern(5000, 7));
  ASSERT_EQ(part.status, 200) << part.body;
  EXPECT_EQ(s3Request(via, "DELETE", object + "?uploadId=" + uploadId).status, 204);
  EXPECT_EQ(s3ObjectBytes(via, bucket, "big"), pattern(300001, 6));

  std::map<std::string, std::uint64_t> const expected = {
      {"/" + bucket + "/empty", 0}, {"/" + bucket + "/one", 8},     {"/" + bucket + "/big", 300001},
      {"/" + bucket + "/parts", 5000}};
  EXPECT_EQ(proxy->bodyBytesByPath(), expected);
  EXPECT_EQ(proxy->requestCount(), 8u);
  std::vector<SeenRequest> const seen = proxy->requests();
  ASSERT_EQ(seen.size(), 8u);
  EXPECT_EQ(seen[4].method, "POST");
  EXPECT_EQ(seen[4].target, object + "?uploads=");
  EXPECT_EQ(seen[5].target, object + "?partNumber=1&uploadId=" + s3Encode(uploadId, false));
  EXPECT_EQ(seen[7].method, "GET");
}

TEST(FaultProxyTest, KeepsOneConnectionAliveOverHeadChunkedAndPlainBodies) {
  DavTestServer const& dav = davServer();
  auto proxy = proxyInFrontOf(dav.url);
  RawSocket socket = RawSocket::connectTo(proxy->port());
  ASSERT_TRUE(socket.valid());
  std::string const path = "/dav/" + uniqueName("keep-alive") + ".txt";
  std::string const auth = "Authorization: " + basicAuthorization(dav.user, dav.password) + "\r\n";
  std::string const host = "Host: 127.0.0.1\r\n";

  ASSERT_TRUE(socket.send("PUT " + path + " HTTP/1.1\r\n" + host + auth +
                          "Content-Length: 11\r\n\r\nhello world"));
  EXPECT_EQ(statusLine(readAnswer(socket, false)), "HTTP/1.1 201 Created");
  ASSERT_TRUE(socket.send("HEAD " + path + " HTTP/1.1\r\n" + host + auth + "\r\n"));
  RawAnswer const head = readAnswer(socket, true);
  EXPECT_EQ(statusLine(head), "HTTP/1.1 200 OK");
  EXPECT_NE(head.head.find("Content-Length: 11\r\n"), std::string::npos) << head.head;
  ASSERT_TRUE(socket.send("GET " + path + " HTTP/1.1\r\n" + host + auth + "\r\n"));
  RawAnswer const get = readAnswer(socket, false);
  EXPECT_EQ(statusLine(get), "HTTP/1.1 200 OK");
  EXPECT_EQ(get.body, "hello world");
  // A chunked body counts with its chunk lines: 3 + 5 + 2, 3 + 6 + 2, 5.
  std::string const chunked = "5\r\nhowdy\r\n6\r\n there\r\n0\r\n\r\n";
  ASSERT_TRUE(socket.send("PUT " + path + " HTTP/1.1\r\n" + host + auth +
                          "Transfer-Encoding: chunked\r\n\r\n" + chunked));
  EXPECT_EQ(statusLine(readAnswer(socket, false)), "HTTP/1.1 204 No Content");
  ASSERT_TRUE(socket.send("GET " + path + " HTTP/1.1\r\n" + host + auth + "\r\n"));
  EXPECT_EQ(readAnswer(socket, false).body, "howdy there");

  EXPECT_EQ(proxy->bodyBytesForwarded(path), 11u + chunked.size());
  EXPECT_EQ(proxy->requestCount(), 5u);
}

TEST(FaultProxyTest, StallsHoldTheRequestOrItsAnswerForTheirTime) {
  DavTestServer const& dav = davServer();
  std::string const path = "/" + uniqueName("stall") + ".bin";
  std::string const bytes = pattern(200000, 8);
  ASSERT_EQ(davRequest(dav, "PUT", path, bytes).status, 201);
  struct Case {
    std::string what;
    std::string method;
    Fault fault;
  };
  std::vector<Case> const cases = {
      {"the head", "GET", Fault::stall(milliseconds(600))},
      {"half the body", "PUT", Fault::stall(milliseconds(600), 100000)},
      {"a GET's answer", "GET", Fault::stallAnswer(milliseconds(600))},
      {"a PUT's answer", "PUT", Fault::stallAnswer(milliseconds(600))},
  };
  for (Case const& c : cases) {
    auto proxy = proxyInFrontOf(dav.url, [&](std::string const&, std::string const&) { return c.fault; });
    bool const put = c.method == "PUT";
    Clock::time_point const start = Clock::now();
    HttpAnswer const answer = davRequest(throughProxy(*proxy, dav), c.method, path, put ? bytes : "");
    EXPECT_GE(millisecondsSince(start), 600) << c.what;
    EXPECT_EQ(answer.status, put ? 204 : 200) << c.what;
    EXPECT_EQ(answer.body, put ? "" : bytes) << c.what;
    EXPECT_EQ(readFile(dav.root + path), bytes) << c.what;
    EXPECT_EQ(proxy->bodyBytesForwarded("/dav" + path), put ? 200000u : 0u) << c.what;
  }
}

TEST(FaultProxyTest, ThrottleSlowsTheBody) {
  DavTestServer const& dav = davServer();
  auto proxy = proxyInFrontOf(dav.url, [](std::string const&, std::string const&) {
    return Fault::throttle(1000000);
  });
  std::string const path = "/" + uniqueName("throttle") + ".bin";
  std::string const bytes = pattern(500000, 9);
  Clock::time_point const start = Clock::now();
  HttpAnswer const put = davRequest(throughProxy(*proxy, dav), "PUT", path, bytes);
  long long const took = millisecondsSince(start);
  EXPECT_EQ(put.status, 201);
  // 500000 bytes at 1000000 bytes/s: half a second, less the first step of 50 ms.
  EXPECT_GE(took, 450);
  EXPECT_LT(took, 5000);
  EXPECT_EQ(readFile(dav.root + path), bytes);
}

TEST(FaultProxyTest, LoseAnswerLeavesTheObjectStoredAndTheClientInTheDark) {
  S3TestServer const& s3 = s3Server();
  std::string const bucket = makeBucket(s3, "proxy lost answer");
  auto proxy = proxyInFrontOf(s3.endpoint, [](std::string const& method, std::string const&) {
    return method == "PUT" ? Fault::loseAnswer() : Fault::pass();
  });
  std::string const bytes = pattern(70000, 10);
  std::string const message = runtimeErrorMessage(
      [&] { s3Request(throughProxy(*proxy), "PUT", "/" + bucket + "/stored", bytes); });
  EXPECT_EQ(message.rfind("PUT " + proxy->origin() + "/" + bucket + "/stored: ", 0), 0u) << message;
  EXPECT_EQ(s3ObjectBytes(s3, bucket, "stored"), bytes);
}

TEST(FaultProxyTest, UnreachableUpstreamGets502) {
  std::uint16_t closedPort = 0;
  { RawSocket const listener = RawSocket::listenLoopback(closedPort); }
  FaultProxy proxy("127.0.0.1", closedPort);
  RawSocket socket = RawSocket::connectTo(proxy.port());
  ASSERT_TRUE(socket.send("GET / HTTP/1.1\r\nHost: x\r\n\r\n"));
  RawAnswer const answer = readAnswer(socket, false);
  EXPECT_EQ(statusLine(answer), "HTTP/1.1 502 Bad Gateway");
  EXPECT_EQ(answer.body, "502 Bad Gateway\n");
  EXPECT_EQ(socket.readToEnd().end, "end of stream");
}

TEST(FaultProxyTest, MalformedRequestGets400) {
  auto proxy = proxyInFrontOf(davServer().url);
  std::vector<std::string> const requests = {
      "GARBAGE\r\n\r\n",
      "PUT /dav/x HTTP/1.1\r\nContent-Length: 12x\r\n\r\n",
      "PUT /dav/x HTTP/1.1\r\nno colon here\r\n\r\n",
  };
  for (std::string const& request : requests) {
    RawSocket socket = RawSocket::connectTo(proxy->port());
    ASSERT_TRUE(socket.send(request));
    EXPECT_EQ(statusLine(readAnswer(socket, false)), "HTTP/1.1 400 Bad Request") << request;
    EXPECT_EQ(socket.readToEnd().end, "end of stream") << request;
  }
  EXPECT_EQ(proxy->bodyBytesByPath(), (std::map<std::string, std::uint64_t>{}));
}

TEST(FaultProxyTest, DestructionEndsOpenConnections) {
  auto proxy = proxyInFrontOf(davServer().url, [](std::string const&, std::string const&) {
    return Fault::stall(milliseconds(60000));
  });
  RawSocket idle = RawSocket::connectTo(proxy->port());
  RawSocket halfHead = RawSocket::connectTo(proxy->port());
  RawSocket stalled = RawSocket::connectTo(proxy->port());
  ASSERT_TRUE(halfHead.send("GET /dav/ HTTP/1.1\r\nHo"));
  ASSERT_TRUE(stalled.send("GET /dav/ HTTP/1.1\r\nHost: x\r\n\r\n"));
  // The proxy has seen the stalled request once it counts it.
  for (int i = 0; i < 250 && proxy->requestCount() == 0; ++i) std::this_thread::sleep_for(milliseconds(20));
  ASSERT_EQ(proxy->requestCount(), 1u);
  Clock::time_point const start = Clock::now();
  proxy.reset();
  EXPECT_LT(millisecondsSince(start), 1000);
  // An orderly end, or a reset when the proxy had not yet read all that was sent.
  for (RawSocket const* socket : {&idle, &halfHead, &stalled}) {
    RawSocket::Rest const rest = socket->readToEnd();
    EXPECT_TRUE(rest.end == "end of stream" || rest.end == "reset") << rest.end;
    EXPECT_EQ(rest.data, "");
  }
}

}  // namespace
}  // namespace qxtest
