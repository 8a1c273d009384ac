// UploadEngine against the real test servers (an S3 gateway and a
// WebDAV server, tests/TestServers.h): the bytes that arrive, keys that must not be
// replaced, refusals and their messages, multipart uploads stopped and
// resumed, orphans, the limit of transfers at once, cancellation and
// destruction.
#include "apps/svc/upload/UploadEngine.h"

#include "apps/svc/upload/ObjectKey.h"
#include "apps/svc/upload/Sha256.h"
#include "tests/DropTestUtil.h"
#include "tests/FaultProxy.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using qxsvc::Outcome;
using qxsvc::UploadEngine;
using qxsvc::UploadRequest;
using qxsvc::UploadResult;
using qxtest::TempDir;

constexpr std::uint64_t kMiB = 1ull << 20;

// What the engine reported, in order, as one line per callback.
class Recorder {
 public:
  UploadEngine::Callbacks callbacks() {
    UploadEngine::Callbacks callbacks;
    callbacks.onUploadId = [this](std::uint64_t ticket, std::string const& id) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_events.push_back(std::to_string(ticket) + " uploadId");
      m_uploadIds[ticket] = id;
      if (onUploadId) onUploadId(ticket, id);
    };
    callbacks.onPart = [this](std::uint64_t ticket, qxsvc::PartRecord const& part) {
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(std::to_string(ticket) + " part " + std::to_string(part.number) + " " +
                           std::to_string(part.size));
      }
      if (onPart) onPart(ticket, part);
    };
    callbacks.onDone = [this](UploadResult const& result) {
      if (onDone) onDone(result);
      std::lock_guard<std::mutex> lock(m_mutex);
      m_events.push_back(std::to_string(result.ticket) + " " + qxsvc::outcomeName(result.outcome));
      m_results[result.ticket] = result;
      m_changed.notify_all();
    };
    return callbacks;
  }

  // The result of ticket, once it is there (a failure after 120 s).
  UploadResult waitFor(std::uint64_t ticket) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, 120s, [&] { return m_results.count(ticket) != 0; })) {
      ADD_FAILURE() << "ticket " << ticket << " did not end";
      return UploadResult{};
    }
    return m_results[ticket];
  }

  std::vector<std::string> events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
  }
  std::string uploadId(std::uint64_t ticket) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_uploadIds.find(ticket);
    return it == m_uploadIds.end() ? "" : it->second;
  }
  std::size_t resultCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_results.size();
  }

  // Hooks the test sets before the engine runs.
  std::function<void(std::uint64_t, std::string const&)> onUploadId;
  std::function<void(std::uint64_t, qxsvc::PartRecord const&)> onPart;
  std::function<void(UploadResult const&)> onDone;

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<std::string> m_events;
  std::map<std::uint64_t, UploadResult> m_results;
  std::map<std::uint64_t, std::string> m_uploadIds;
};

Inet::InetCfg inetCfg() { return Inet::InetCfg("7.0.1"); }

qxsvc::Credentials s3Credentials() { return {qxtest::s3Server().accessKey, qxtest::s3Server().secretKey}; }
qxsvc::Credentials davCredentials() { return {qxtest::davServer().user, qxtest::davServer().password}; }
// For the local stand-ins of a server, which check nothing.
qxsvc::Credentials localAccount() { return {"user", "password"}; }

qxsvc::Target target(std::string const& address) {
  qxsvc::Target parsed;
  std::string why;
  EXPECT_TRUE(qxsvc::parseTarget(address, parsed, why)) << why;
  return parsed;
}

// A bucket of the test's own on the S3 server, as a target.
qxsvc::Target s3Target(std::string const& bucket) {
  return target("s3" + qxtest::s3Server().endpoint.substr(4) + "/" + bucket);
}

// A folder of the test's own on the WebDAV server, as a target.
qxsvc::Target davTarget(std::string const& folder) {
  return target("dav" + qxtest::davServer().url.substr(4) + "/" + folder);
}

std::string uniqueName(std::string const& hint) {
  static std::atomic<unsigned> count{0};
  return hint + "-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
}

// An upload of content, written to a file in dir, under key.
UploadRequest request(TempDir const& dir, std::uint64_t ticket, qxsvc::Target const& to,
                      std::string const& key, std::string const& content) {
  boost::filesystem::path const file = dir / ("source-" + std::to_string(ticket));
  qxtest::writeFile(file, content);
  UploadRequest upload;
  upload.ticket = ticket;
  upload.target = to;
  upload.key = key;
  upload.file = qxsvc::FileFd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(upload.file.valid()) << file;
  upload.size = content.size();
  upload.sha256 = qxsvc::sha256OfText(content);
  return upload;
}

qxsvc::EngineOptions smallParts() {
  qxsvc::EngineOptions options;
  options.multipartThreshold = 5 * kMiB;
  options.partSize = 5 * kMiB;
  return options;
}

// A loopback port on which nothing listens.
int closedPort() {
  int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

// A socket listening on a loopback port of the system's choice. Nobody
// accepts on it unless its owner does: as it stands, a server that takes
// connections (the kernel does) and never answers.
class LoopbackListener {
 public:
  LoopbackListener() : m_fd(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(m_fd, 16);
    socklen_t length = sizeof address;
    ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
  }
  ~LoopbackListener() { ::close(m_fd); }
  LoopbackListener(LoopbackListener const&) = delete;
  LoopbackListener& operator=(LoopbackListener const&) = delete;
  int fd() const { return m_fd; }
  int port() const { return m_port; }

 private:
  int m_fd;
  int m_port = 0;
};
using SilentServer = LoopbackListener;

std::string s3Url(std::string const& bucket, std::string const& key) {
  return qxtest::s3Server().endpoint + "/" + bucket + "/" + qxsvc::percentEncode(key, true);
}

// The names that must arrive as they are.
char const* const kNames[] = {
    "a/1/2026-11-23/job/plain.txt",
    "a/1/2026-11-23/job/with spaces.pdf",
    "a/1/2026-11-23/job/r\xC3\xA9sum\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC.txt",
    "a/1/2026-11-23/job/100% +1 #2 ?3 &4 =5.txt",
    "a/1/2026-11-23/job/sub folder/deeper/x.bin",
};

TEST(UploadEngineTest, SmallAndEmptyFilesReachS3ByteForByte) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "small");
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), qxsvc::EngineOptions{}, recorder.callbacks());
  std::uint64_t ticket = 0;
  for (char const* name : kNames) {
    for (std::string const& content : {qxtest::pattern(70000, ++ticket), std::string()}) {
      SCOPED_TRACE(std::string(name) + " of " + std::to_string(content.size()) + " bytes");
      std::string const key = content.empty() ? std::string(name) + ".empty" : name;
      engine.submit(request(dir, ++ticket, s3Target(bucket), key, content));
      UploadResult const result = recorder.waitFor(ticket);
      EXPECT_EQ(Outcome::done, result.outcome) << result.message;
      EXPECT_EQ(200, result.httpStatus);
      EXPECT_EQ("", result.message);
      EXPECT_EQ(key, result.finalKey);
      EXPECT_EQ(content.size(), result.bytesSent);
      EXPECT_EQ(qxsvc::sha256OfText(content),
                qxsvc::sha256OfText(qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, key)));
      qxtest::HttpAnswer const head =
          qxtest::s3Request(qxtest::s3Server(), "HEAD", "/" + bucket + "/" + qxtest::s3Encode(key, true));
      EXPECT_EQ(qxsvc::sha256OfText(content), head.header("x-amz-meta-sha256"));
    }
  }
}

TEST(UploadEngineTest, SmallAndEmptyFilesReachWebDavByteForByte) {
  std::string const folder = uniqueName("small");
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), davCredentials(), qxsvc::EngineOptions{}, recorder.callbacks());
  std::uint64_t ticket = 0;
  for (char const* name : kNames) {
    for (std::string const& content : {qxtest::pattern(70000, ++ticket), std::string()}) {
      SCOPED_TRACE(std::string(name) + " of " + std::to_string(content.size()) + " bytes");
      std::string const key = content.empty() ? std::string(name) + ".empty" : name;
      engine.submit(request(dir, ++ticket, davTarget(folder), key, content));
      UploadResult const result = recorder.waitFor(ticket);
      EXPECT_EQ(Outcome::done, result.outcome) << result.message;
      EXPECT_EQ(201, result.httpStatus);
      EXPECT_EQ(key, result.finalKey);
      EXPECT_EQ(content.size(), result.bytesSent);
      qxtest::HttpAnswer const got = qxtest::davRequest(qxtest::davServer(), "GET",
                                                        "/" + folder + "/" + qxsvc::percentEncode(key, true));
      EXPECT_EQ(200, got.status);
      EXPECT_EQ(content.size(), got.body.size());
      EXPECT_TRUE(content == got.body);
      // The server's own folder holds the name as it was given.
      EXPECT_EQ(content, qxtest::readFile(qxtest::davServer().root + "/" + folder + "/" + key));
    }
  }
}

TEST(UploadEngineTest, SameBytesUnderTheSameKeyMakeNoNewObjectAndOtherBytesTakeTheNextKey) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "same-key");
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), qxsvc::EngineOptions{}, recorder.callbacks());
  std::string const key = "a/1/2026-11-23/job/report 100%.pdf";
  std::string const first = qxtest::pattern(5000, 1);
  std::string const second = qxtest::pattern(5000, 2);

  engine.submit(request(dir, 1, s3Target(bucket), key, first));
  EXPECT_EQ(Outcome::done, recorder.waitFor(1).outcome);
  engine.submit(request(dir, 2, s3Target(bucket), key, first));
  UploadResult const again = recorder.waitFor(2);
  EXPECT_EQ(Outcome::done, again.outcome) << again.message;
  EXPECT_EQ(key, again.finalKey);
  EXPECT_EQ(200, again.httpStatus);  // of the HEAD after the 412
  EXPECT_EQ(std::vector<std::string>{key}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));

  engine.submit(request(dir, 3, s3Target(bucket), key, second));
  UploadResult const other = recorder.waitFor(3);
  EXPECT_EQ(Outcome::done, other.outcome) << other.message;
  EXPECT_EQ("a/1/2026-11-23/job/report 100%_2.pdf", other.finalKey);
  EXPECT_EQ(first, qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, key));
  EXPECT_EQ(second, qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, other.finalKey));

  // The same second bytes again end at the second key, without a third.
  engine.submit(request(dir, 4, s3Target(bucket), key, second));
  EXPECT_EQ("a/1/2026-11-23/job/report 100%_2.pdf", recorder.waitFor(4).finalKey);
  EXPECT_EQ((std::vector<std::string>{key, other.finalKey}), qxtest::s3ListKeys(qxtest::s3Server(), bucket));
}

TEST(UploadEngineTest, AnObjectWithoutItsHashIsNeverReplaced) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "no-hash");
  std::string const key = "a/1/2026-11-23/job/x.txt";
  std::string const content = "the same bytes";
  ASSERT_EQ(200, qxtest::s3Request(qxtest::s3Server(), "PUT", "/" + bucket + "/" + key, content).status);
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), qxsvc::EngineOptions{}, recorder.callbacks());
  engine.submit(request(dir, 1, s3Target(bucket), key, content));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::done, result.outcome) << result.message;
  EXPECT_EQ("a/1/2026-11-23/job/x_2.txt", result.finalKey);
  EXPECT_EQ(content, qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, result.finalKey));
}

TEST(UploadEngineTest, RefusedCredentialsHoldTheQueueWithTheServersMessage) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "refused");
  std::string const folder = uniqueName("refused");
  std::string const key = "a/1/2026-11-23/job/x.txt";
  TempDir dir;
  struct Case {
    qxsvc::Target to;
    qxsvc::Credentials credentials;
    long status;
    std::string message;
  } const cases[] = {
      {s3Target(bucket),
       {qxtest::s3Server().accessKey, "wrong secret"},
       403,
       "HTTP 403 SignatureDoesNotMatch (PUT " + s3Url(bucket, key) + ")"},
      {s3Target(bucket),
       {"NOSUCHKEY", "wrong secret"},
       403,
       "HTTP 403 InvalidAccessKeyId (PUT " + s3Url(bucket, key) + ")"},
      {davTarget(folder),
       {qxtest::davServer().user, "wrong password"},
       401,
       "HTTP 401 Unauthorized (PUT " + davTarget(folder).objectUrl(key) + ")"},
  };
  std::uint64_t ticket = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.message);
    Recorder recorder;
    UploadEngine engine(inetCfg(), c.credentials, qxsvc::EngineOptions{}, recorder.callbacks());
    engine.submit(request(dir, ++ticket, c.to, key, "bytes"));
    UploadResult const result = recorder.waitFor(ticket);
    EXPECT_EQ(Outcome::hold, result.outcome);
    EXPECT_EQ(c.status, result.httpStatus);
    EXPECT_EQ(c.message, result.message);
  }
  EXPECT_EQ(std::vector<std::string>{}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));
}

TEST(UploadEngineTest, AServerThatIsDownIsTransient) {
  int const port = closedPort();
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), localAccount(), qxsvc::EngineOptions{}, recorder.callbacks());
  std::string const address = "127.0.0.1:" + std::to_string(port);
  engine.submit(request(dir, 1, target("s3://" + address + "/docs"), "k", "bytes"));
  engine.submit(request(dir, 2, target("dav://" + address + "/dav"), "k", "bytes"));
  for (std::uint64_t ticket : {1, 2}) {
    UploadResult const result = recorder.waitFor(ticket);
    EXPECT_EQ(Outcome::transient, result.outcome);
    EXPECT_EQ(0, result.httpStatus);
    std::string const start = "connect to " + address + " failed: Failed to connect to 127.0.0.1 port " +
                              std::to_string(port) + " after ";
    EXPECT_EQ(start, result.message.substr(0, start.size())) << result.message;
    EXPECT_NE(std::string::npos, result.message.find("Couldn't connect to server")) << result.message;
  }
}

TEST(UploadEngineTest, AFileRewrittenAfterHashingEndsAsChangedAndLeavesNothing) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "changed");
  std::string const folder = uniqueName("changed");
  std::string const hashed = qxtest::pattern(300000, 1);
  struct Case {
    char const* what;
    std::string now;  // the file's bytes when the upload runs
    bool dav;
    std::string message;  // "KEY" stands for the URL of the key
  } const cases[] = {
      {"S3, other bytes of the same size", qxtest::pattern(300000, 2), false,
       "HTTP 400 XAmzContentSHA256Mismatch (PUT KEY)"},
      {"S3, shorter", hashed.substr(0, 1000), false, "the file ended before its 300000 bytes"},
      {"WebDAV, other bytes of the same size", qxtest::pattern(300000, 2), true,
       "the file changed while it was sent; the copy on the server was removed"},
      {"WebDAV, shorter", hashed.substr(0, 1000), true, "the file ended before its 300000 bytes"},
  };
  TempDir dir;
  std::uint64_t ticket = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    Recorder recorder;
    UploadEngine engine(inetCfg(), c.dav ? davCredentials() : s3Credentials(), qxsvc::EngineOptions{},
                        recorder.callbacks());
    std::string const key = "a/1/2026-11-23/job/" + std::to_string(++ticket) + ".bin";
    UploadRequest upload = request(dir, ticket, c.dav ? davTarget(folder) : s3Target(bucket), key, hashed);
    qxtest::writeFile(dir / ("source-" + std::to_string(ticket)), c.now);
    engine.submit(std::move(upload));
    UploadResult const result = recorder.waitFor(ticket);
    EXPECT_EQ(Outcome::changed, result.outcome) << result.message;
    std::string message = c.message;
    if (message.find("KEY") != std::string::npos) message.replace(message.find("KEY"), 3, s3Url(bucket, key));
    EXPECT_EQ(message, result.message);
    if (c.dav) {
      EXPECT_EQ(404, qxtest::davRequest(qxtest::davServer(), "GET", "/" + folder + "/" + key).status);
    }
  }
  EXPECT_EQ(std::vector<std::string>{}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));
}

TEST(UploadEngineTest, MultipartReportsTheUploadIdBeforeTheFirstPart) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "multipart");
  std::string const content = qxtest::pattern(11 * kMiB + 12345, 3);
  std::string const key = "a/1/2026-11-23/job/big file \xC3\xA9.bin";
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), smallParts(), recorder.callbacks());
  engine.submit(request(dir, 1, s3Target(bucket), key, content));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::done, result.outcome) << result.message;
  EXPECT_EQ(content.size(), result.bytesSent);
  EXPECT_EQ((std::vector<std::string>{"1 uploadId", "1 part 1 5242880", "1 part 2 5242880",
                                      "1 part 3 " + std::to_string(kMiB + 12345), "1 done"}),
            recorder.events());
  EXPECT_EQ(qxsvc::sha256OfText(content),
            qxsvc::sha256OfText(qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, key)));
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{},
            qxtest::s3ListMultipartUploads(qxtest::s3Server(), bucket));
  // The last seconds' bytes, over the window of five seconds.
  EXPECT_GE(engine.throughput(), static_cast<double>(content.size()) / 5);

  // The same bytes again: the object is there, no upload begins.
  engine.submit(request(dir, 2, s3Target(bucket), key, content));
  UploadResult const again = recorder.waitFor(2);
  EXPECT_EQ(Outcome::done, again.outcome) << again.message;
  EXPECT_EQ(key, again.finalKey);
  EXPECT_EQ(0u, again.bytesSent);
  EXPECT_EQ("2 done", recorder.events().back());
  EXPECT_EQ(6u, recorder.events().size());
  EXPECT_EQ(std::vector<std::string>{key}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));
}

TEST(UploadEngineTest, AHashThatIsNoHashIsRejectedBeforeAnyRequest) {
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), localAccount(), qxsvc::EngineOptions{}, recorder.callbacks());
  struct Case {
    std::string sha256;
    std::string message;
  } const cases[] = {
      {"", "the hash \"\" of k is not 64 lower-case hexadecimal digits"},
      {std::string(64, 'A'),
       "the hash \"" + std::string(64, 'A') + "\" of k is not 64 lower-case hexadecimal digits"},
      {std::string(63, 'a') + "\n",
       "the hash \"" + std::string(63, 'a') + "\" of k is not 64 lower-case hexadecimal digits"},
      {std::string(32, 'a') + "\r\nX-Injected: 1" + std::string(17, 'a'),
       "the hash \"" + std::string(32, 'a') + "  X-Injected: 1" + std::string(17, 'a') +
           "\" of k is not 64 lower-case hexadecimal digits"},
  };
  // A closed port: a request would end otherwise.
  qxsvc::Target const to = target("s3://127.0.0.1:" + std::to_string(closedPort()) + "/docs");
  std::uint64_t ticket = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.message);
    UploadRequest upload = request(dir, ++ticket, to, "k", "bytes");
    upload.sha256 = c.sha256;
    engine.submit(std::move(upload));
    UploadResult const result = recorder.waitFor(ticket);
    EXPECT_EQ(Outcome::rejected, result.outcome);
    EXPECT_EQ(c.message, result.message);
  }
}

TEST(UploadEngineTest, AMultipartUploadCancelledAfterAPartResumesWithTheMissingParts) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "resume");
  std::string const content = qxtest::pattern(12 * kMiB, 4);
  std::string const key = "a/1/2026-11-23/job/resumed.bin";
  TempDir dir;
  std::string uploadId;
  {
    Recorder recorder;
    UploadEngine* running = nullptr;
    recorder.onPart = [&running](std::uint64_t ticket, qxsvc::PartRecord const&) { running->cancel(ticket); };
    UploadEngine engine(inetCfg(), s3Credentials(), smallParts(), recorder.callbacks());
    running = &engine;
    engine.submit(request(dir, 1, s3Target(bucket), key, content));
    UploadResult const result = recorder.waitFor(1);
    EXPECT_EQ(Outcome::stopped, result.outcome) << result.message;
    EXPECT_EQ("cancelled", result.message);
    uploadId = recorder.uploadId(1);
    ASSERT_NE("", uploadId);
  }
  // What the server holds now: part 1 for sure, part 2 if its bytes had all
  // gone out before the cancel.
  qxtest::HttpAnswer const listed = qxtest::s3Request(
      qxtest::s3Server(), "GET", "/" + bucket + "/" + qxtest::s3Encode(key, true) + "?uploadId=" + uploadId);
  ASSERT_EQ(200, listed.status) << listed.body;
  std::set<unsigned> held;
  for (unsigned number : {1u, 2u, 3u}) {
    if (listed.body.find("<PartNumber>" + std::to_string(number) + "</PartNumber>") != std::string::npos) {
      held.insert(number);
    }
  }
  ASSERT_EQ(1u, held.count(1));

  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), smallParts(), recorder.callbacks());
  UploadRequest resumed = request(dir, 2, s3Target(bucket), key, content);
  resumed.uploadId = uploadId;
  engine.submit(std::move(resumed));
  UploadResult const result = recorder.waitFor(2);
  EXPECT_EQ(Outcome::done, result.outcome) << result.message;
  std::vector<std::string> expected;
  std::uint64_t missingBytes = 0;
  for (unsigned number : {1u, 2u, 3u}) {
    if (held.count(number)) continue;
    std::uint64_t const size = number == 3 ? 2 * kMiB : 5 * kMiB;
    expected.push_back("2 part " + std::to_string(number) + " " + std::to_string(size));
    missingBytes += size;
  }
  expected.push_back("2 done");
  EXPECT_EQ(expected, recorder.events());  // no new upload id either
  EXPECT_EQ(missingBytes, result.bytesSent);
  EXPECT_TRUE(content == qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, key));
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{},
            qxtest::s3ListMultipartUploads(qxtest::s3Server(), bucket));
}

TEST(UploadEngineTest, PauseStopsAMultipartUploadAfterItsCurrentPart) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "pause");
  std::string const content = qxtest::pattern(11 * kMiB, 5);
  TempDir dir;
  Recorder recorder;
  UploadEngine* running = nullptr;
  recorder.onPart = [&running](std::uint64_t, qxsvc::PartRecord const&) { running->setPaused(true); };
  UploadEngine engine(inetCfg(), s3Credentials(), smallParts(), recorder.callbacks());
  running = &engine;
  engine.submit(request(dir, 1, s3Target(bucket), "k.bin", content));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::stopped, result.outcome);
  EXPECT_EQ("paused after part 1", result.message);
  EXPECT_EQ(5 * kMiB, result.bytesSent);
  EXPECT_EQ((std::vector<std::string>{"1 uploadId", "1 part 1 5242880", "1 stopped"}), recorder.events());
}

TEST(UploadEngineTest, AbortOrphansAbortsOnlyUploadsNotOwned) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "orphans");
  auto begin = [&bucket](std::string const& key) {
    qxtest::HttpAnswer const answer = qxtest::s3Request(
        qxtest::s3Server(), "POST", "/" + bucket + "/" + qxtest::s3Encode(key, true) + "?uploads");
    EXPECT_EQ(200, answer.status) << answer.body;
    return qxtest::xmlElementText(answer.body, "UploadId");
  };
  std::string const owned = begin("in/a/owned.bin");
  std::string const orphan = begin("in/a/orphan \xC3\xA9 100%.bin");
  std::string const elsewhere = begin("out/other.bin");  // not under the target's prefix
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), qxsvc::EngineOptions{}, recorder.callbacks());
  EXPECT_EQ(1u, engine.abortOrphans(
                    target("s3" + qxtest::s3Server().endpoint.substr(4) + "/" + bucket + "/in"), {owned}));
  std::vector<qxtest::MultipartUploadEntry> left = qxtest::s3ListMultipartUploads(qxtest::s3Server(), bucket);
  EXPECT_EQ(
      (std::vector<qxtest::MultipartUploadEntry>{{"in/a/owned.bin", owned}, {"out/other.bin", elsewhere}}),
      left);
  EXPECT_EQ(0u, engine.abortOrphans(
                    target("s3" + qxtest::s3Server().endpoint.substr(4) + "/" + bucket + "/in"), {owned}));

  UploadEngine refused(inetCfg(), {"NOSUCHKEY", "x"}, qxsvc::EngineOptions{}, recorder.callbacks());
  std::string const message =
      qxtest::runtimeErrorMessage([&] { refused.abortOrphans(s3Target(bucket), {}); });
  EXPECT_EQ(
      "HTTP 403 InvalidAccessKeyId (GET " + qxtest::s3Server().endpoint + "/" + bucket + "?prefix=&uploads=)",
      message);
}

TEST(UploadEngineTest, NeverMoreTransfersAtOnceThanAllowed) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "limit");
  TempDir dir;
  Recorder recorder;
  qxsvc::EngineOptions options;
  options.maxTransfers = 2;
  std::atomic<std::size_t> most{0};
  UploadEngine* running = nullptr;
  auto note = [&most, &running] {
    std::size_t const now = running->inFlight().size();
    std::size_t seen = most.load();
    while (now > seen && !most.compare_exchange_weak(seen, now)) {
    }
  };
  recorder.onDone = [&note](UploadResult const&) { note(); };
  UploadEngine engine(inetCfg(), s3Credentials(), options, recorder.callbacks());
  running = &engine;
  constexpr std::uint64_t kUploads = 8;
  std::vector<UploadRequest> uploads;
  for (std::uint64_t ticket = 1; ticket <= kUploads; ++ticket) {
    uploads.push_back(request(dir, ticket, s3Target(bucket), "k" + std::to_string(ticket),
                              qxtest::pattern(2 * kMiB, ticket)));
  }
  for (UploadRequest& upload : uploads) engine.submit(std::move(upload));
  while (recorder.resultCount() < kUploads) {
    note();
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(2u, most.load());
  for (std::uint64_t ticket = 1; ticket <= kUploads; ++ticket)
    EXPECT_EQ(Outcome::done, recorder.waitFor(ticket).outcome);
  EXPECT_EQ(kUploads, qxtest::s3ListKeys(qxtest::s3Server(), bucket).size());
  EXPECT_EQ(0u, engine.inFlight().size());
}

TEST(UploadEngineTest, CancelEndsAQueuedAndARunningTransfer) {
  SilentServer silent;
  TempDir dir;
  Recorder recorder;
  qxsvc::EngineOptions options;
  options.maxTransfers = 1;
  UploadEngine engine(inetCfg(), localAccount(), options, recorder.callbacks());
  qxsvc::Target const to = target("s3://127.0.0.1:" + std::to_string(silent.port()) + "/docs");
  engine.submit(request(dir, 1, to, "running", "bytes"));
  engine.submit(request(dir, 2, to, "queued", "bytes"));
  auto const deadline = std::chrono::steady_clock::now() + 10s;
  while (engine.inFlight().empty() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(1ms);
  ASSERT_EQ(1u, engine.inFlight().size());
  EXPECT_EQ(1u, engine.inFlight().front().ticket);

  engine.cancel(2);
  UploadResult const queued = recorder.waitFor(2);
  EXPECT_EQ(Outcome::stopped, queued.outcome);
  EXPECT_EQ("cancelled before it started", queued.message);
  EXPECT_EQ(0u, queued.bytesSent);

  auto const before = std::chrono::steady_clock::now();
  engine.cancel(1);
  UploadResult const running = recorder.waitFor(1);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  EXPECT_EQ(Outcome::stopped, running.outcome);
  EXPECT_EQ("cancelled", running.message);
  EXPECT_EQ((std::vector<std::string>{"2 stopped", "1 stopped"}), recorder.events());
  EXPECT_EQ(0u, engine.inFlight().size());
}

TEST(UploadEngineTest, DestructionWithTransfersInFlightEndsPromptlyWithoutCallbacks) {
  SilentServer silent;
  TempDir dir;
  Recorder recorder;
  auto const before = std::chrono::steady_clock::now();
  {
    UploadEngine engine(inetCfg(), localAccount(), qxsvc::EngineOptions{}, recorder.callbacks());
    qxsvc::Target const to = target("s3://127.0.0.1:" + std::to_string(silent.port()) + "/docs");
    for (std::uint64_t ticket = 1; ticket <= 4; ++ticket)
      engine.submit(request(dir, ticket, to, "k", "bytes"));
    auto const deadline = std::chrono::steady_clock::now() + 10s;
    while (engine.inFlight().size() < 2 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(2u, engine.inFlight().size());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
  EXPECT_EQ(std::vector<std::string>{}, recorder.events());
}

TEST(UploadEngineTest, AMultipartFileRewrittenBetweenPartsIsAbortedAsChanged) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "multipart-changed");
  std::string const content = qxtest::pattern(11 * kMiB, 6);
  TempDir dir;
  Recorder recorder;
  // The first part goes out as hashed; then the file's last bytes change.
  recorder.onPart = [&dir](std::uint64_t, qxsvc::PartRecord const& part) {
    if (part.number == 1) qxtest::writeFile(dir / "source-1", qxtest::pattern(11 * kMiB, 7));
  };
  UploadEngine engine(inetCfg(), s3Credentials(), smallParts(), recorder.callbacks());
  engine.submit(request(dir, 1, s3Target(bucket), "k.bin", content));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::changed, result.outcome);
  EXPECT_EQ("the file changed while it was sent; its upload was aborted", result.message);
  EXPECT_EQ(std::vector<std::string>{}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{},
            qxtest::s3ListMultipartUploads(qxtest::s3Server(), bucket));
}

TEST(UploadEngineTest, TraceLinesNameEveryRequestAndNeverTheSecret) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "trace");
  std::string const folder = uniqueName("trace");
  TempDir dir;
  qxsvc::EngineOptions options;
  options.traceRequests = true;
  options.curlDebug = true;
  bool const verbose = g_LogVerbose.exchange(true);
  std::vector<std::string> lines;
  {
    qxtest::LogCapture capture;
    {
      Recorder recorder;
      UploadEngine s3(inetCfg(), s3Credentials(), options, recorder.callbacks());
      s3.submit(request(dir, 1, s3Target(bucket), "a b.txt", "bytes"));
      EXPECT_EQ(Outcome::done, recorder.waitFor(1).outcome);
      UploadEngine dav(inetCfg(), davCredentials(), options, recorder.callbacks());
      dav.submit(request(dir, 2, davTarget(folder), "a b.txt", "bytes"));
      EXPECT_EQ(Outcome::done, recorder.waitFor(2).outcome);
    }
    lines = capture.lines();
  }
  g_LogVerbose = verbose;
  std::string const s3Put = "TRACE:qxlite-svc PUT " + s3Url(bucket, "a b.txt");
  std::string const davPut = "TRACE:qxlite-svc PUT " + davTarget(folder).objectUrl("a b.txt");
  for (std::string const& expected :
       {s3Put, s3Put + " -> 200 (5 bytes sent)", davPut, davPut + " -> 201 (5 bytes sent)",
        std::string("TRACE:qxlite-svc curl Authorization: (not shown)")}) {
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), expected)) << expected;
  }
  for (std::string const& line : lines) {
    EXPECT_EQ(std::string::npos, line.find(qxtest::s3Server().secretKey)) << line;
    EXPECT_EQ(std::string::npos, line.find(qxtest::davServer().password)) << line;
  }
}

// Whether a server sends "100 Continue" to a request that waits for it.
enum class Continue { no, yes };

// A server that answers each request (one per connection) with what
// answerTo makes of its request line and body, or with one canned answer.
// Without Continue::yes, a request that waits for "100 Continue" is answered
// at once, without its body.
class CannedServer {
 public:
  using AnswerTo = std::function<std::string(std::string const& requestLine, std::string const& body)>;
  explicit CannedServer(AnswerTo answerTo, Continue sendsContinue = Continue::no)
      : m_answerTo(std::move(answerTo)), m_sendsContinue(sendsContinue) {
    m_thread = std::thread([this] { serve(); });
  }
  explicit CannedServer(std::string answer)
      : CannedServer([answer](std::string const&, std::string const&) { return answer; }) {}
  ~CannedServer() {
    ::shutdown(m_listener.fd(), SHUT_RDWR);
    m_thread.join();
  }
  CannedServer(CannedServer const&) = delete;
  CannedServer& operator=(CannedServer const&) = delete;
  int port() const { return m_listener.port(); }

 private:

  void serve() {
    for (;;) {
      int const client = ::accept(m_listener.fd(), nullptr, nullptr);
      if (client < 0) return;
      std::string request;
      char buffer[4096];
      while (request.find("\r\n\r\n") == std::string::npos) {
        ssize_t const n = ::recv(client, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        request.append(buffer, static_cast<std::size_t>(n));
      }
      std::size_t const headEnd = request.find("\r\n\r\n") + 4;
      std::size_t const length = request.find("\r\nContent-Length: ");
      bool const waits = request.find("\r\nExpect: 100-continue") != std::string::npos;
      if (waits && m_sendsContinue == Continue::yes) sendAll(client, "HTTP/1.1 100 Continue\r\n\r\n");
      if (length != std::string::npos && (!waits || m_sendsContinue == Continue::yes)) {
        std::size_t const total = headEnd + std::stoul(request.substr(length + 18));
        while (request.size() < total) {
          ssize_t const n = ::recv(client, buffer, sizeof buffer, 0);
          if (n <= 0) break;
          request.append(buffer, static_cast<std::size_t>(n));
        }
      }
      sendAll(client, m_answerTo(request.substr(0, request.find("\r\n")),
                                 request.substr(std::min(headEnd, request.size()))));
      ::close(client);
    }
  }

  static void sendAll(int client, std::string const& answer) {
    std::size_t sent = 0;
    while (sent < answer.size()) {
      ssize_t const n = ::send(client, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<std::size_t>(n);
    }
  }

  AnswerTo const m_answerTo;  // called on the server's thread only
  Continue const m_sendsContinue;
  LoopbackListener m_listener;
  std::thread m_thread;
};

std::string answer(std::string const& statusLine, std::string const& body, std::string const& headers = "") {
  return "HTTP/1.1 " + statusLine + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

TEST(UploadEngineTest, AnswersOfAHostileServerEndAsTheTableSays) {
  std::string const longCode(5000, 'C');
  struct Case {
    char const* what;
    std::string answer;
    Outcome outcome;
    long status;
    std::string message;  // before " (PUT URL)"
  } const cases[] = {
      {"a redirect is not followed",
       answer("301 Moved Permanently", "", "Location: http://127.0.0.1:1/x\r\n"), Outcome::hold, 301,
       "HTTP 301 Moved Permanently"},
      {"a temporary redirect neither", answer("307 Temporary Redirect", "", "Location: /elsewhere\r\n"),
       Outcome::hold, 307, "HTTP 307 Temporary Redirect"},
      {"S3 error with its code and message",
       answer("404 Not Found",
              "<Error><Code>NoSuchBucket</Code><Message>The &lt;bucket&gt; is gone</Message></Error>"),
       Outcome::hold, 404, "HTTP 404 NoSuchBucket: The <bucket> is gone"},
      {"another 4xx", answer("400 Bad Request", "<Error><Code>InvalidArgument</Code></Error>"),
       Outcome::rejected, 400, "HTTP 400 InvalidArgument"},
      {"a 4xx without XML", answer("413 Payload Too Large", "<html>no</html>"), Outcome::rejected, 413,
       "HTTP 413 Payload Too Large"},
      {"too many requests", answer("429 Too Many Requests", ""), Outcome::transient, 429,
       "HTTP 429 Too Many Requests"},
      {"server trouble", answer("503 Slow Down", "<Error><Code>SlowDown</Code></Error>"), Outcome::transient,
       503, "HTTP 503 SlowDown"},
      {"a code of 5000 bytes is cut",
       answer("500 Internal Server Error",
              "<Error><Code>" + longCode + "</Code><Message>a\r\nb\x01</Message></Error>"),
       Outcome::transient, 500, "HTTP 500 " + longCode.substr(0, 300) + "...: a  b"},
      {"a status line without a reason", answer("502", ""), Outcome::transient, 502, "HTTP 502"},
  };
  TempDir dir;
  std::uint64_t ticket = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    CannedServer server(c.answer);
    Recorder recorder;
    UploadEngine engine(inetCfg(), localAccount(), qxsvc::EngineOptions{}, recorder.callbacks());
    qxsvc::Target const to = target("s3://127.0.0.1:" + std::to_string(server.port()) + "/docs");
    engine.submit(request(dir, ++ticket, to, "k", "bytes"));
    UploadResult const result = recorder.waitFor(ticket);
    EXPECT_EQ(c.outcome, result.outcome) << qxsvc::outcomeName(result.outcome);
    EXPECT_EQ(c.status, result.httpStatus);
    EXPECT_EQ(c.message + " (PUT " + to.objectUrl("k") + ")", result.message);
  }
}

TEST(UploadEngineTest, AStalledServerIsTransientAfterTheStallTimeout) {
  SilentServer silent;
  TempDir dir;
  Recorder recorder;
  qxsvc::EngineOptions options;
  options.stallTimeout = std::chrono::seconds(1);
  UploadEngine engine(inetCfg(), localAccount(), options, recorder.callbacks());
  qxsvc::Target const to = target("s3://127.0.0.1:" + std::to_string(silent.port()) + "/docs");
  auto const before = std::chrono::steady_clock::now();
  engine.submit(request(dir, 1, to, "k", "bytes"));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);
  EXPECT_EQ(Outcome::transient, result.outcome);
  std::string const start =
      "PUT " + to.objectUrl("k") +
      " failed: Operation too slow. Less than 1 bytes/sec transferred the last 1 seconds";
  EXPECT_EQ(start, result.message);
}

TEST(UploadEngineTest, AWebDavConflictMakesTheFoldersOneLevelAtATimeThenPutsOnce) {
  struct Case {
    char const* what;
    char const* folder;   // of the target
    bool folderRefused;   // MKCOL answers 403
    bool secondConflict;  // the PUT after the folders gets 409 again
    Outcome outcome;
    std::vector<std::string> requests;
  } const cases[] = {
      {"folders made",
       "dav",
       false,
       false,
       Outcome::done,
       {"PUT /dav/a%20b/c/k.txt", "MKCOL /dav/", "MKCOL /dav/a%20b/", "MKCOL /dav/a%20b/c/",
        "PUT /dav/a%20b/c/k.txt"}},
      {"a target folder of several levels",
       "dav/new%20one/deeper",
       false,
       false,
       Outcome::done,
       {"PUT /dav/new%20one/deeper/a%20b/c/k.txt", "MKCOL /dav/", "MKCOL /dav/new%20one/",
        "MKCOL /dav/new%20one/deeper/", "MKCOL /dav/new%20one/deeper/a%20b/", "MKCOL /dav/new%20one/deeper/a%20b/c/",
        "PUT /dav/new%20one/deeper/a%20b/c/k.txt"}},
      {"a second conflict is the end",
       "dav",
       false,
       true,
       Outcome::rejected,
       {"PUT /dav/a%20b/c/k.txt", "MKCOL /dav/", "MKCOL /dav/a%20b/", "MKCOL /dav/a%20b/c/",
        "PUT /dav/a%20b/c/k.txt"}},
      {"a folder refused", "dav", true, false, Outcome::hold, {"PUT /dav/a%20b/c/k.txt", "MKCOL /dav/"}},
  };
  TempDir dir;
  std::uint64_t ticket = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    std::mutex mutex;
    std::vector<std::string> requests;
    CannedServer server([&](std::string const& line, std::string const&) {
      std::lock_guard<std::mutex> lock(mutex);
      requests.push_back(line.substr(0, line.rfind(' ')));
      bool const put = line.compare(0, 4, "PUT ") == 0;
      if (put && (requests.size() == 1 || c.secondConflict)) return answer("409 Conflict", "");
      if (put) return answer("201 Created", "");
      if (c.folderRefused) return answer("403 Forbidden", "");
      return answer(requests.size() == 2 ? "405 Not Allowed" : "201 Created", "");  // /dav/ is there already
    });
    Recorder recorder;
    UploadEngine engine(inetCfg(), localAccount(), qxsvc::EngineOptions{}, recorder.callbacks());
    qxsvc::Target const to = target("dav://127.0.0.1:" + std::to_string(server.port()) + "/" + c.folder);
    engine.submit(request(dir, ++ticket, to, "a b/c/k.txt", "bytes"));
    UploadResult const result = recorder.waitFor(ticket);
    EXPECT_EQ(c.outcome, result.outcome) << result.message;
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(c.requests, requests);
  }
}

TEST(UploadEngineTest, AWebDavServerThatAnswersBeforeTheWholeFileLosesItsPiece) {
  std::mutex mutex;
  std::vector<std::string> requests;
  // Its 201 comes instead of the "100 Continue" that libcurl waits for
  // before a large body.
  CannedServer server([&](std::string const& line, std::string const&) {
    std::lock_guard<std::mutex> lock(mutex);
    requests.push_back(line.substr(0, line.rfind(' ')));
    return answer("201 Created", "");
  });
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), localAccount(), qxsvc::EngineOptions{}, recorder.callbacks());
  qxsvc::Target const to = target("dav://127.0.0.1:" + std::to_string(server.port()) + "/dav");
  engine.submit(request(dir, 1, to, "k.bin", qxtest::pattern(2 * kMiB, 8)));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::transient, result.outcome);
  EXPECT_EQ("the server answered HTTP 201 after 0 of 2097152 bytes; the piece on the server was removed",
            result.message);
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ((std::vector<std::string>{"PUT /dav/k.bin", "DELETE /dav/k.bin"}), requests);
}

TEST(UploadEngineTest, AFreedSlotStartsTheNextUploadAtOnce) {
  // One at a time, each upload starts when the one before ends, not at the
  // engine's next idle wake-up (a second later).
  std::string const folder = uniqueName("one-by-one");
  TempDir dir;
  Recorder recorder;
  qxsvc::EngineOptions options;
  options.maxTransfers = 1;
  UploadEngine engine(inetCfg(), davCredentials(), options, recorder.callbacks());
  constexpr std::uint64_t kUploads = 30;
  std::vector<UploadRequest> uploads;
  for (std::uint64_t ticket = 1; ticket <= kUploads; ++ticket) {
    uploads.push_back(request(dir, ticket, davTarget(folder), "k" + std::to_string(ticket), "bytes"));
  }
  auto const before = std::chrono::steady_clock::now();
  for (UploadRequest& upload : uploads) engine.submit(std::move(upload));
  for (std::uint64_t ticket = 1; ticket <= kUploads; ++ticket)
    EXPECT_EQ(Outcome::done, recorder.waitFor(ticket).outcome);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 15s);
}

TEST(UploadEngineTest, RequestsGoThroughTheConfiguredProxy) {
  std::mutex mutex;
  std::vector<std::string> requests;
  CannedServer proxy([&](std::string const& line, std::string const&) {
    std::lock_guard<std::mutex> lock(mutex);
    requests.push_back(line);
    return answer("201 Created", "");
  });
  Inet::InetCfg const inet("", "", true, "127.0.0.1:" + std::to_string(proxy.port()), false, false, false,
                           Inet::InetCfg::ProxyAuthMethod::None, "", "", "7.0.1");
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inet, localAccount(), qxsvc::EngineOptions{}, recorder.callbacks());
  // A name that no resolver knows: only the proxy can take the request.
  engine.submit(request(dir, 1, target("dav://uploads.invalid/dav"), "a b.txt", "bytes"));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::done, result.outcome) << result.message;
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(std::vector<std::string>{"PUT http://uploads.invalid/dav/a%20b.txt HTTP/1.1"}, requests);
}

TEST(UploadEngineTest, AResumedUploadReadsEveryPageOfItsPartsAndCompletesThemInOrder) {
  std::mutex mutex;
  std::vector<std::string> requests;
  std::string completion;
  CannedServer server(
      [&](std::string const& line, std::string const& body) {
        std::lock_guard<std::mutex> lock(mutex);
        std::string const request = line.substr(0, line.rfind(' '));
        requests.push_back(request);
        std::map<std::string, std::string> const answers = {
            {"HEAD /docs/k.bin", answer("404 Not Found", "")},
            {"GET /docs/k.bin?max-parts=1000&uploadId=U%2B1",
             answer("200 OK",
                    "<ListPartsResult><IsTruncated>true</IsTruncated><NextPartNumberMarker>1"
                    "</NextPartNumberMarker><Part><PartNumber>1</PartNumber><ETag>&quot;e1&quot;</ETag>"
                    "<Size>5242880</Size></Part></ListPartsResult>")},
            {"GET /docs/k.bin?max-parts=1000&part-number-marker=1&uploadId=U%2B1",
             answer("200 OK",
                    "<ListPartsResult><IsTruncated>false</IsTruncated><Part><PartNumber>2</PartNumber>"
                    "<ETag>&quot;e2&quot;</ETag><Size>5242880</Size></Part>"
                    // A part of another size is sent again.
                    "<Part><PartNumber>3</PartNumber><ETag>&quot;old&quot;</ETag><Size>7</Size></Part>"
                    "</ListPartsResult>")},
            {"PUT /docs/k.bin?partNumber=3&uploadId=U%2B1", answer("200 OK", "", "ETag: \"e3\"\r\n")},
            {"POST /docs/k.bin?uploadId=U%2B1", answer("200 OK", "<CompleteMultipartUploadResult/>")},
        };
        if (request.compare(0, 5, "POST ") == 0) completion = body;
        auto const found = answers.find(request);
        return found == answers.end() ? answer("400 Bad Request", "") : found->second;
      },
      Continue::yes);
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), localAccount(), smallParts(), recorder.callbacks());
  UploadRequest resumed = request(dir, 1, target("s3://127.0.0.1:" + std::to_string(server.port()) + "/docs"),
                                  "k.bin", qxtest::pattern(12 * kMiB, 9));
  resumed.uploadId = "U+1";
  engine.submit(std::move(resumed));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::done, result.outcome) << result.message;
  EXPECT_EQ(2 * kMiB, result.bytesSent);
  EXPECT_EQ((std::vector<std::string>{"1 part 3 2097152", "1 done"}), recorder.events());
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ((std::vector<std::string>{"HEAD /docs/k.bin", "GET /docs/k.bin?max-parts=1000&uploadId=U%2B1",
                                      "GET /docs/k.bin?max-parts=1000&part-number-marker=1&uploadId=U%2B1",
                                      "PUT /docs/k.bin?partNumber=3&uploadId=U%2B1",
                                      "POST /docs/k.bin?uploadId=U%2B1"}),
            requests);
  EXPECT_EQ(
      "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>&quot;e1&quot;</ETag></Part>"
      "<Part><PartNumber>2</PartNumber><ETag>&quot;e2&quot;</ETag></Part>"
      "<Part><PartNumber>3</PartNumber><ETag>&quot;e3&quot;</ETag></Part></CompleteMultipartUpload>",
      completion);
}

TEST(UploadEngineTest, PartsOfAHugeFileGrowSoThatTenThousandAreEnough) {
  // 100 GiB at parts of 5 MiB would need 20480 parts: each grows to
  // 100 GiB / 10000 rounded up to whole MiB, 11 MiB. The server answers the
  // first part before its bytes (no "100 Continue"), which shows its size.
  CannedServer server([](std::string const& line, std::string const&) {
    if (line.compare(0, 5, "HEAD ") == 0) return answer("404 Not Found", "");
    if (line.compare(0, 5, "POST ") == 0) {
      return answer("200 OK", "<InitiateMultipartUploadResult><UploadId>U</UploadId></InitiateMultipartUploadResult>");
    }
    return answer("200 OK", "", "ETag: \"e\"\r\n");
  });
  TempDir dir;
  boost::filesystem::path const file = dir / "huge";
  qxtest::writeFile(file, "");
  boost::filesystem::resize_file(file, 100ull << 30);  // sparse: no disk space taken
  qxsvc::Target const to = target("s3://127.0.0.1:" + std::to_string(server.port()) + "/docs");
  UploadRequest upload;
  upload.ticket = 1;
  upload.target = to;
  upload.key = "huge.bin";
  upload.file = qxsvc::FileFd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  upload.size = 100ull << 30;
  upload.sha256 = std::string(64, '0');
  Recorder recorder;
  UploadEngine engine(inetCfg(), localAccount(), smallParts(), recorder.callbacks());
  engine.submit(std::move(upload));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::transient, result.outcome);
  EXPECT_EQ("the server answered HTTP 200 after 0 of 11534336 bytes of part 1 (PUT " +
                to.objectUrl("huge.bin") + "?partNumber=1&uploadId=U)",
            result.message);
  EXPECT_EQ((std::vector<std::string>{"1 uploadId", "1 transient"}), recorder.events());
}

TEST(UploadEngineTest, ACancelDoesNotCutTheRemovalOfAChangedFile) {
  std::mutex mutex;
  std::condition_variable deleting;
  std::vector<std::string> requests;
  CannedServer server([&](std::string const& line, std::string const&) {
    std::string const request = line.substr(0, line.rfind(' '));
    {
      std::lock_guard<std::mutex> lock(mutex);
      requests.push_back(request);
    }
    if (request.compare(0, 7, "DELETE ") != 0) return answer("201 Created", "");
    deleting.notify_all();
    std::this_thread::sleep_for(300ms);  // the cancel comes meanwhile
    return answer("204 No Content", "");
  });
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), localAccount(), qxsvc::EngineOptions{}, recorder.callbacks());
  UploadRequest upload = request(dir, 1, target("dav://127.0.0.1:" + std::to_string(server.port()) + "/dav"),
                                 "k.txt", "hashed bytes");
  qxtest::writeFile(dir / "source-1", "other bytes!");
  engine.submit(std::move(upload));
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(deleting.wait_for(lock, 30s, [&] { return requests.size() == 2; }));
  }
  engine.cancel(1);
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::changed, result.outcome);
  EXPECT_EQ(204, result.httpStatus);
  EXPECT_EQ("the file changed while it was sent; the copy on the server was removed", result.message);
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ((std::vector<std::string>{"PUT /dav/k.txt", "DELETE /dav/k.txt"}), requests);
}

// A fault proxy in front of the S3 server.
std::unique_ptr<qxtest::FaultProxy> proxyToS3() {
  std::string const endpoint = qxtest::s3Server().endpoint;  // http://127.0.0.1:PORT
  std::size_t const colon = endpoint.rfind(':');
  return std::make_unique<qxtest::FaultProxy>(endpoint.substr(7, colon - 7),
                                              static_cast<std::uint16_t>(std::stoi(endpoint.substr(colon + 1))));
}

// The requests the proxy saw, as "METHOD target".
std::vector<std::string> seen(qxtest::FaultProxy const& proxy) {
  std::vector<std::string> lines;
  for (qxtest::SeenRequest const& request : proxy.requests()) lines.push_back(request.method + " " + request.target);
  return lines;
}

TEST(UploadEngineTest, AnAnswerLostAfterTheServerStoredTheObjectMakesNoSecondObject) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "lost-answer");
  auto const proxy = proxyToS3();
  std::atomic<int> puts{0};
  proxy->setPolicy([&puts](std::string const& method, std::string const&) {
    return method == "PUT" && puts++ == 0 ? qxtest::Fault::loseAnswer() : qxtest::Fault::pass();
  });
  qxsvc::Target const to = target("s3" + proxy->origin().substr(4) + "/" + bucket);
  std::string const content = qxtest::pattern(300000, 10);
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), qxsvc::EngineOptions{}, recorder.callbacks());
  engine.submit(request(dir, 1, to, "k.bin", content));
  UploadResult const lost = recorder.waitFor(1);
  EXPECT_EQ(Outcome::transient, lost.outcome);
  std::string const start = "PUT " + to.objectUrl("k.bin") + " failed: ";
  EXPECT_EQ(start, lost.message.substr(0, start.size())) << lost.message;

  // The next try learns that the server holds these very bytes.
  engine.submit(request(dir, 2, to, "k.bin", content));
  UploadResult const again = recorder.waitFor(2);
  EXPECT_EQ(Outcome::done, again.outcome) << again.message;
  EXPECT_EQ("k.bin", again.finalKey);
  EXPECT_EQ(std::vector<std::string>{"k.bin"}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));
  EXPECT_TRUE(content == qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, "k.bin"));
  std::string const path = "/" + bucket + "/k.bin";
  EXPECT_EQ((std::vector<std::string>{"PUT " + path, "PUT " + path, "HEAD " + path}), seen(*proxy));
}

TEST(UploadEngineTest, AConnectionResetHalfWayLeavesNothingAndTheNextTryStoresAll) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "reset");
  auto const proxy = proxyToS3();
  proxy->setPolicy([](std::string const&, std::string const&) { return qxtest::Fault::resetAfter(100000); });
  qxsvc::Target const to = target("s3" + proxy->origin().substr(4) + "/" + bucket);
  std::string const content = qxtest::pattern(300000, 11);
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), qxsvc::EngineOptions{}, recorder.callbacks());
  engine.submit(request(dir, 1, to, "k.bin", content));
  EXPECT_EQ(Outcome::transient, recorder.waitFor(1).outcome);
  EXPECT_EQ(std::vector<std::string>{}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));

  proxy->setPolicy({});
  engine.submit(request(dir, 2, to, "k.bin", content));
  UploadResult const result = recorder.waitFor(2);
  EXPECT_EQ(Outcome::done, result.outcome) << result.message;
  EXPECT_EQ(content.size(), result.bytesSent);
  EXPECT_TRUE(content == qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, "k.bin"));
}

TEST(UploadEngineTest, AMultipartCompletionWhoseAnswerIsLostIsDoneOnResume) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "lost-completion");
  auto const proxy = proxyToS3();
  proxy->setPolicy([](std::string const& method, std::string const& requestTarget) {
    bool const completion = method == "POST" && requestTarget.find("uploadId=") != std::string::npos;
    return completion ? qxtest::Fault::loseAnswer() : qxtest::Fault::pass();
  });
  qxsvc::Target const to = target("s3" + proxy->origin().substr(4) + "/" + bucket);
  std::string const content = qxtest::pattern(11 * kMiB, 12);
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), smallParts(), recorder.callbacks());
  engine.submit(request(dir, 1, to, "k.bin", content));
  EXPECT_EQ(Outcome::transient, recorder.waitFor(1).outcome);
  std::string const uploadId = recorder.uploadId(1);
  ASSERT_NE("", uploadId);

  std::size_t const before = proxy->requestCount();
  UploadRequest resumed = request(dir, 2, to, "k.bin", content);
  resumed.uploadId = uploadId;
  engine.submit(std::move(resumed));
  UploadResult const result = recorder.waitFor(2);
  EXPECT_EQ(Outcome::done, result.outcome) << result.message;
  EXPECT_EQ(0u, result.bytesSent);
  std::vector<std::string> const all = seen(*proxy);
  EXPECT_EQ(std::vector<std::string>{"HEAD /" + bucket + "/k.bin"},
            std::vector<std::string>(all.begin() + static_cast<long>(before), all.end()));
  EXPECT_TRUE(content == qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, "k.bin"));
  EXPECT_EQ(std::vector<std::string>{"k.bin"}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));
}

}  // namespace

namespace layout_tests {

struct LayoutCase {
  std::uint64_t size;
  std::uint64_t budget;
  qxsvc::MultipartLayout expected;
};

TEST(UploadEngineTest, MultipartLayoutsKeepThePartsInFlightWithinTheBudget) {
  LayoutCase const cases[] = {
      // The default budget: two parts of 16 MiB at once.
      {1024 * kMiB, 32 * kMiB, {16 * kMiB, 64, 2}},
      {5ull << 30, 32 * kMiB, {16 * kMiB, 320, 2}},
      // Half of it: two parts of 8 MiB.
      {1024 * kMiB, 16 * kMiB, {8 * kMiB, 128, 2}},
      // The smallest budget holds one part of S3's smallest size.
      {12 * kMiB, 5 * kMiB, {5 * kMiB, 3, 1}},
      // Below S3's smallest part, the budget is raised to it.
      {12 * kMiB, 1 * kMiB, {5 * kMiB, 3, 1}},
      // Whole MiB, never below 5 MiB: 11 MiB give two parts of 5 MiB.
      {64 * kMiB, 11 * kMiB, {5 * kMiB, 13, 2}},
      {100 * kMiB, 64 * kMiB, {32 * kMiB, 4, 2}},
      // 10,000 parts at most: parts grow past the budget, one at a time.
      {100ull << 30, 5 * kMiB, {11 * kMiB, 9310, 1}},
      {100ull << 30, 16 * kMiB, {11 * kMiB, 9310, 1}},
      // A budget large enough for huge files keeps two at once.
      {100ull << 30, 32 * kMiB, {16 * kMiB, 6400, 2}},
      {200ull << 30, 48 * kMiB, {24 * kMiB, 8534, 2}},
  };
  for (LayoutCase const& c : cases) {
    qxsvc::MultipartLayout const got = qxsvc::multipartLayout(c.size, c.budget);
    EXPECT_EQ(c.expected.partSize, got.partSize) << c.size << " bytes, budget " << c.budget;
    EXPECT_EQ(c.expected.partCount, got.partCount) << c.size << " bytes, budget " << c.budget;
    EXPECT_EQ(c.expected.inFlight, got.inFlight) << c.size << " bytes, budget " << c.budget;
    EXPECT_LE(got.inFlight * got.partSize, std::max(c.budget, std::max<std::uint64_t>(5 * kMiB, got.partSize)))
        << c.size << " bytes, budget " << c.budget;
  }
}

}  // namespace layout_tests

TEST(UploadEngineTest, TwoPartsGoAtOnceAndAThirdOnlyOnceOneIsStored) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "inflight");
  qxtest::HostPort const upstream = qxtest::hostPortOf(qxtest::s3Server().endpoint);
  std::mutex mutex;
  std::size_t stored = 0;
  std::map<std::string, std::size_t> storedWhenSeen;  // part number -> parts stored when it arrived
  // Slow parts, so that the first is still on the wire when the second comes.
  qxtest::FaultProxy proxy(upstream.host, upstream.port, [&](std::string const& method, std::string const& path) {
    std::size_t const at = path.find("partNumber=");
    if (method == "PUT" && at != std::string::npos) {
      std::lock_guard<std::mutex> lock(mutex);
      storedWhenSeen[path.substr(at + 11, path.find('&', at) - at - 11)] = stored;
      return qxtest::Fault::throttle(16 * kMiB);
    }
    return qxtest::Fault::pass();
  });
  qxsvc::EngineOptions options = smallParts();
  options.partSize = 10 * kMiB;  // a budget of two parts of 5 MiB
  options.maxTransfers = 4;
  TempDir dir;
  Recorder recorder;
  recorder.onPart = [&](std::uint64_t, qxsvc::PartRecord const&) {
    std::lock_guard<std::mutex> lock(mutex);
    ++stored;
  };
  UploadEngine engine(inetCfg(), s3Credentials(), options, recorder.callbacks());
  std::string const content = qxtest::pattern(4 * 5 * kMiB + 777, 11);
  engine.submit(request(dir, 1, target("s3://127.0.0.1:" + std::to_string(proxy.port()) + "/" + bucket), "k.bin",
                        content));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::done, result.outcome) << result.message << proxy.report();
  EXPECT_EQ(content.size(), result.bytesSent);
  EXPECT_EQ(qxsvc::sha256OfText(content),
            qxsvc::sha256OfText(qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, "k.bin")));
  std::lock_guard<std::mutex> lock(mutex);
  // Parts 1 and 2 at once; each later one only after another was stored,
  // so that never more than the budget is on the wire.
  ASSERT_EQ(5u, storedWhenSeen.size()) << proxy.report();
  EXPECT_EQ(0u, storedWhenSeen["1"]);
  EXPECT_EQ(0u, storedWhenSeen["2"]);
  EXPECT_LE(1u, storedWhenSeen["3"]);
  EXPECT_LE(2u, storedWhenSeen["4"]);
  EXPECT_LE(3u, storedWhenSeen["5"]);
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{}, qxtest::s3ListMultipartUploads(qxtest::s3Server(), bucket));
}

// The parts' hashes of content in the layout of smallParts().
std::vector<std::string> partHashesOf(std::string const& content) {
  std::vector<std::string> hashes;
  for (std::size_t at = 0; at < content.size(); at += 5 * kMiB) {
    hashes.push_back(qxsvc::sha256OfText(content.substr(at, 5 * kMiB)));
  }
  return hashes;
}

TEST(UploadEngineTest, GivenPartHashesAreWhatTheServerChecksEachPartAgainst) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "part-hashes");
  std::string const content = qxtest::pattern(11 * kMiB, 12);
  TempDir dir;
  Recorder recorder;
  UploadEngine engine(inetCfg(), s3Credentials(), smallParts(), recorder.callbacks());
  UploadRequest upload = request(dir, 1, s3Target(bucket), "k.bin", content);
  upload.partSha256 = partHashesOf(content);
  engine.submit(std::move(upload));
  UploadResult const done = recorder.waitFor(1);
  EXPECT_EQ(Outcome::done, done.outcome) << done.message;
  EXPECT_EQ(qxsvc::sha256OfText(content),
            qxsvc::sha256OfText(qxtest::s3ObjectBytes(qxtest::s3Server(), bucket, "k.bin")));

  // A second part's hash that is not that of its bytes: the server refuses
  // the part, and the upload goes.
  std::string const other = qxtest::pattern(11 * kMiB, 13);
  UploadRequest wrong = request(dir, 2, s3Target(bucket), "other.bin", other);
  wrong.partSha256 = partHashesOf(other);
  wrong.partSha256[1] = qxsvc::sha256OfText("not these bytes");
  engine.submit(std::move(wrong));
  UploadResult const refused = recorder.waitFor(2);
  EXPECT_EQ(Outcome::changed, refused.outcome);
  EXPECT_EQ(0u, refused.message.find("HTTP 400 XAmzContentSHA256Mismatch")) << refused.message;
  EXPECT_EQ(std::vector<std::string>{"k.bin"}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{}, qxtest::s3ListMultipartUploads(qxtest::s3Server(), bucket));
}

TEST(UploadEngineTest, AFileRewrittenAfterItsPartsWereHashedIsRefusedPartByPart) {
  std::string const bucket = qxtest::makeBucket(qxtest::s3Server(), "part-hashes-changed");
  std::string const content = qxtest::pattern(11 * kMiB, 14);
  TempDir dir;
  Recorder recorder;
  // The first part goes out as hashed; then the file changes.
  recorder.onPart = [&dir](std::uint64_t, qxsvc::PartRecord const& part) {
    if (part.number == 1) qxtest::writeFile(dir / "source-1", qxtest::pattern(11 * kMiB, 15));
  };
  UploadEngine engine(inetCfg(), s3Credentials(), smallParts(), recorder.callbacks());
  UploadRequest upload = request(dir, 1, s3Target(bucket), "k.bin", content);
  upload.partSha256 = partHashesOf(content);
  engine.submit(std::move(upload));
  UploadResult const result = recorder.waitFor(1);
  EXPECT_EQ(Outcome::changed, result.outcome);
  EXPECT_EQ(0u, result.message.find("HTTP 400 XAmzContentSHA256Mismatch")) << result.message;
  EXPECT_EQ(std::vector<std::string>{}, qxtest::s3ListKeys(qxtest::s3Server(), bucket));
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{}, qxtest::s3ListMultipartUploads(qxtest::s3Server(), bucket));
}
