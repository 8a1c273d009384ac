// The service uploads every drop exactly once whatever crashes: many drops
// while the service is SIGKILLed at random moments and a proxy between it and
// the real S3 gateway fails a fifth of the requests (503s, resets half-way,
// answers lost after the server stored the object). Afterwards every file is
// either on the server exactly once with its bytes, or in the rejected folder
// with its reason; nothing is left in the outgoing folder and no multipart
// upload is left open.
#include "apps/svc/upload/Sha256.h"
#include "tests/FaultProxy.h"
#include "tests/ProcessHarness.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

// How hard the test pushes; the figures of the CI run.
constexpr int kDrops = 1000;
constexpr int kKills = 20;

// The service and what it needs to start again and again.
class Service {
 public:
  Service(fs::path const& dir, std::string const& address, qxtest::S3TestServer const& s3,
          std::vector<std::string> extraArgs = {}, bool backup = false)
      : m_dir(dir), m_extraArgs(std::move(extraArgs)) {
    for (char const* f : {"in", "out", "backup", "backup/.rejected", "state"}) {
      fs::create_directories(dir / f);
      ::chmod((dir / f).c_str(), 0750);
    }
    json::Object cfg;
    cfg.setAt("ReceiveFolder", json::Value((dir / "in").string()));
    cfg.setAt("SpoolFolder", json::Value((dir / "out").string()));
    cfg.setAt("BackupFolder", json::Value((dir / "backup").string()));
    cfg.setAt("InetServer", json::Value(address));
    cfg.setAt("ConcurrentUploads", json::Value(json_int_t{4}));
    if (backup) cfg.setAt("BackupExpireSecs", json::Value(json_int_t{4294967295LL}));
    static char const kExts[] = R"(["txt"])";
    cfg.setAt("SrvFileExts", json::strToArray(kExts, sizeof kExts - 1));
    qxtest::writeFile(dir / "config.json", json::jsonToString(cfg, false));
    json::Object credentials;
    credentials.setAt("user", json::Value(s3.accessKey));
    credentials.setAt("secret", json::Value(s3.secretKey));
    qxtest::writeFile(dir / "credentials.json", json::jsonToString(credentials, false));
    ::chmod((dir / "credentials.json").c_str(), 0600);
  }

  void start() {
    ++m_starts;
    std::vector<std::string> args{"--config", (m_dir / "config.json").string(), "--token-file",
                                 (m_dir / "ipc.token").string(), "--port", "0", "--foreground",
                                 "--state-dir", (m_dir / "state").string(), "--credentials",
                                 (m_dir / "credentials.json").string(), "--retry-after", "0.1",
                                 "--settle-time", "0.05", "--scan-interval", "0.5", "--runtime-dir",
                                 (m_dir / "run").string()};
    args.insert(args.end(), m_extraArgs.begin(), m_extraArgs.end());
    m_child = std::make_unique<qxtest::Child>(QX_SVC_PROGRAM, args, m_dir / ("svc" + std::to_string(m_starts) + ".out"),
                                              m_dir / ("svc" + std::to_string(m_starts) + ".err"));
  }
  void kill() { m_child->kill(); }
  bool running() { return m_child && m_child->running(); }
  std::string log() const { return m_child ? m_child->err() : std::string(); }

 private:
  fs::path const m_dir;
  std::vector<std::string> const m_extraArgs;
  int m_starts = 0;
  std::unique_ptr<qxtest::Child> m_child;
};

std::string contentOf(int i) {
  // Sizes from a few bytes to a few hundred KiB; every file different.
  std::string text = "file " + std::to_string(i) + "\n";
  std::size_t const size = static_cast<std::size_t>(i % 7 == 0 ? 300000 : (i * 977) % 20000);
  while (text.size() < size) text += std::to_string(i * 31 + static_cast<int>(text.size())) + ",";
  return text;
}

// The last segment of a key: the file's name (or its alternative "_2").
std::string lastSegment(std::string const& key) { return key.substr(key.rfind('/') + 1); }

TEST(UploadCrash, EveryDropEndsOnTheServerExactlyOnceOrRejectedWithItsReason) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "crash");
  qxtest::HostPort const upstream = qxtest::hostPortOf(s3.endpoint);
  std::mt19937 faults(20261123);
  std::uniform_int_distribution<int> percent(0, 99);
  qxtest::FaultProxy proxy(upstream.host, upstream.port, [&](std::string const&, std::string const&) {
    int const p = percent(faults);
    if (p < 10) return qxtest::Fault::answer503();
    if (p < 15) return qxtest::Fault::resetAfter(100);
    if (p < 20) return qxtest::Fault::loseAnswer();
    return qxtest::Fault::pass();
  });

  qxtest::TempDir tmp;
  Service service(tmp.path(), "s3://127.0.0.1:" + std::to_string(proxy.port()) + "/" + bucket, s3, {}, true);
  fs::path const stage = tmp / "stage";
  fs::create_directories(stage);
  std::map<std::string, std::string> sha;  // name -> SHA-256 of its content
  for (int i = 0; i < kDrops; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "f-%04d.txt", i);
    std::string const content = contentOf(i);
    qxtest::writeFile(stage / name, content);
    sha[name] = qxsvc::sha256OfText(content);
  }

  // Drops arrive in batches whether the service runs or not; it is killed at
  // random moments while it works: after a random number of its requests
  // (so also in slow sanitizer builds) and a random time more.
  std::mt19937 moments(7);
  std::uniform_int_distribution<int> requests(5, 40);
  std::uniform_int_distribution<int> pause(0, 150);
  service.start();
  auto it = sha.begin();
  for (int kill = 0; kill < kKills; ++kill) {
    for (int n = 0; n < kDrops / kKills && it != sha.end(); ++n, ++it) fs::rename(stage / it->first, tmp / "in" / it->first);
    std::size_t const until = proxy.requestCount() + static_cast<std::size_t>(requests(moments));
    EXPECT_TRUE(qxtest::waitFor([&] { return proxy.requestCount() >= until; }, std::chrono::seconds(60)))
        << "the service makes no requests; " << proxy.report() << "its log:\n"
        << service.log();
    std::this_thread::sleep_for(std::chrono::milliseconds(pause(moments)));
    service.kill();
    service.start();
  }
  for (; it != sha.end(); ++it) fs::rename(stage / it->first, tmp / "in" / it->first);
  std::size_t requestsWhileKilled = 0;  // uploads' requests only
  for (qxtest::SeenRequest const& r : proxy.requests()) requestsWhileKilled += r.method == "PUT" ? 1 : 0;
  std::size_t const uploadedWhileKilled = qxtest::s3ListKeys(s3, bucket).size();

  // The faults go on until the end; the service is left to finish.
  auto rejectedNames = [&] {
    std::map<std::string, std::string> names;  // name -> reason.json
    for (auto const& r : fs::directory_iterator(tmp / "backup" / ".rejected")) {
      for (auto const& e : fs::directory_iterator(r.path())) {
        if (e.path().filename() != "reason.json") names[e.path().filename().string()] = qxtest::readFile(r.path() / "reason.json");
      }
    }
    return names;
  };
  bool const settled = qxtest::waitFor(
      [&] {
        return fs::is_empty(tmp / "in") && fs::is_empty(tmp / "out") &&
               qxtest::s3ListKeys(s3, bucket).size() + rejectedNames().size() >= sha.size();
      },
      std::chrono::seconds(240));
  ASSERT_TRUE(settled) << qxtest::s3ListKeys(s3, bucket).size() << " on the server, " << rejectedNames().size()
                       << " rejected; log of the last run:\n"
                       << service.log();
  service.kill();
  // The kills fell among real work, and the proxy really failed requests.
  std::map<qxtest::Fault::Kind, int> injected;
  for (qxtest::SeenRequest const& r : proxy.requests()) ++injected[r.fault];
  EXPECT_GE(requestsWhileKilled, static_cast<std::size_t>(2 * kKills));
  EXPECT_GT(uploadedWhileKilled, 0u);
  EXPECT_GT(injected[qxtest::Fault::Kind::Answer503], 50);
  EXPECT_GT(injected[qxtest::Fault::Kind::ResetAfterBytes], 25);
  EXPECT_GT(injected[qxtest::Fault::Kind::LoseAnswer], 25);
  std::cout << requestsWhileKilled << " PUT requests and " << uploadedWhileKilled << " uploads while killed; "
            << proxy.requestCount() << " requests in all\n";


  std::map<std::string, std::vector<std::string>> keysByName;
  for (std::string const& key : qxtest::s3ListKeys(s3, bucket)) keysByName[lastSegment(key)].push_back(key);
  std::map<std::string, std::string> const rejected = rejectedNames();
  for (auto const& file : sha) {
    SCOPED_TRACE(file.first);
    auto const onServer = keysByName.find(file.first);
    bool const rejectedToo = rejected.count(file.first) > 0;
    if (onServer == keysByName.end()) {
      // Not uploaded: then rejected, with its reason.
      ASSERT_TRUE(rejectedToo) << "neither on the server nor rejected";
      EXPECT_NE(std::string::npos, rejected.at(file.first).find("\"rule\"")) << rejected.at(file.first);
      continue;
    }
    ASSERT_EQ(1u, onServer->second.size()) << "more than once on the server: " << onServer->second.front() << " and "
                                           << onServer->second.back();
    EXPECT_FALSE(rejectedToo) << "both on the server and rejected";
    EXPECT_EQ(file.second, qxsvc::sha256OfText(qxtest::s3ObjectBytes(s3, bucket, onServer->second.front())));
  }
  for (auto const& k : keysByName) EXPECT_EQ(1u, sha.count(k.first)) << "on the server, never dropped: " << k.second.front();
  for (auto const& r : rejected) EXPECT_EQ(1u, sha.count(r.first)) << "rejected, never dropped: " << r.first << " " << r.second;
  // The faults are all of the kind that passes: nothing deserved rejection.
  EXPECT_EQ(0u, rejected.size()) << rejected.begin()->first << ": " << rejected.begin()->second;
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{}, qxtest::s3ListMultipartUploads(s3, bucket));
  // Backup on: each uploaded file is kept once, in its job's folder.
  std::map<std::string, int> backedUp;
  for (auto const& jobFolder : fs::directory_iterator(tmp / "backup")) {
    if (jobFolder.path().filename() == ".rejected") continue;
    for (auto const& e : fs::directory_iterator(jobFolder.path())) ++backedUp[e.path().filename().string()];
  }
  for (auto const& k : keysByName) EXPECT_EQ(1, backedUp[k.first]) << k.first;
  EXPECT_EQ(keysByName.size(), backedUp.size());
}

TEST(UploadCrash, AMultipartUploadCutByAKillSendsAtMostOnePartAgain) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "resume");
  qxtest::HostPort const upstream = qxtest::hostPortOf(s3.endpoint);
  // Slow enough that the kill falls among the parts.
  qxtest::FaultProxy proxy(upstream.host, upstream.port, [](std::string const& method, std::string const&) {
    return method == "PUT" ? qxtest::Fault::throttle(16u << 20) : qxtest::Fault::pass();
  });
  qxtest::TempDir tmp;
  Service service(tmp.path(), "s3://127.0.0.1:" + std::to_string(proxy.port()) + "/" + bucket, s3,
                  {"--multipart-from", "5", "--part-size", "5"});
  std::uint64_t const partSize = 5u << 20;
  std::string content;
  for (int i = 0; content.size() < 12 * partSize + 12345; ++i) content += "line " + std::to_string(i) + "\n";
  qxtest::writeFile(tmp / "big.txt", content);
  service.start();
  fs::rename(tmp / "big.txt", tmp / "in" / "big.txt");
  auto sent = [&] {
    std::uint64_t total = 0;
    for (auto const& p : proxy.bodyBytesByPath()) {
      if (p.first.size() >= 8 && p.first.compare(p.first.size() - 8, 8, "/big.txt") == 0) total += p.second;
    }
    return total;
  };
  ASSERT_TRUE(qxtest::waitFor([&] { return sent() >= 5 * partSize; }, std::chrono::seconds(60)))
      << proxy.report() << service.log();
  service.kill();
  std::uint64_t const beforeKill = sent();
  EXPECT_LT(beforeKill, content.size()) << "the kill came after the last part";
  proxy.setPolicy({});
  service.start();
  std::vector<std::string> keys;
  ASSERT_TRUE(qxtest::waitFor(
      [&] {
        keys = qxtest::s3ListKeys(s3, bucket);
        return keys.size() == 1 && fs::is_empty(tmp / "out");
      },
      std::chrono::seconds(120)))
      << proxy.report() << service.log();
  EXPECT_EQ(qxsvc::sha256OfText(content), qxsvc::sha256OfText(qxtest::s3ObjectBytes(s3, bucket, keys.front())));
  // Every byte went once, but for the part in flight at the kill.
  EXPECT_GE(sent(), content.size());
  EXPECT_LE(sent(), content.size() + partSize) << beforeKill << " before the kill";
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{}, qxtest::s3ListMultipartUploads(s3, bucket));
}

}  // namespace
