// The service as a process under a notification socket of the test's own,
// uploading to the real S3 gateway through a proxy that slows the upload
// down: its STATUS lines follow the upload, and a SIGHUP with a changed
// configuration takes the change into force while the upload in flight goes
// on and ends on the server exactly once, in one request.
#include "apps/svc/upload/Sha256.h"
#include "tests/FaultProxy.h"
#include "tests/NotifySocket.h"
#include "tests/ProcessHarness.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <signal.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using qxtest::logLines;

namespace fs = boost::filesystem;


std::string configText(fs::path const& dir, std::string const& address, std::string const& extra) {
  return "{\"ReceiveFolder\":\"" + (dir / "in").string() + "\",\"SpoolFolder\":\"" + (dir / "out").string() +
         "\",\"BackupFolder\":\"" + (dir / "backup").string() + "\",\"InetServer\":\"" + address +
         "\",\"SrvFileExts\":[\"txt\"]" + extra + "}";
}

TEST(ServiceReload, StatusFollowsAnUploadAndSighupChangesTheConfigurationWithoutRestartingIt) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "reload");
  qxtest::HostPort const upstream = qxtest::hostPortOf(s3.endpoint);
  // 600 KB at 200 KB/s: the upload takes three seconds.
  constexpr std::uint64_t kBytesPerSecond = 200000;
  qxtest::FaultProxy proxy(upstream.host, upstream.port, [](std::string const& method, std::string const&) {
    return method == "PUT" ? qxtest::Fault::throttle(kBytesPerSecond) : qxtest::Fault::pass();
  });

  qxtest::TempDir tmp;
  fs::path const dir = tmp.path();
  for (char const* f : {"in", "out", "backup", "backup/.rejected", "state"}) {
    fs::create_directories(dir / f);
    ::chmod((dir / f).c_str(), 0750);
  }
  std::string const address = "s3://127.0.0.1:" + std::to_string(proxy.port()) + "/" + bucket;
  fs::path const cfgFile = dir / "config.json";
  qxtest::writeFile(cfgFile, configText(dir, address, ""));
  qxtest::writeFile(dir / "credentials.json",
                    "{\"user\":\"" + s3.accessKey + "\",\"secret\":\"" + s3.secretKey + "\"}");
  ::chmod((dir / "credentials.json").c_str(), 0600);

  qxtest::NotifySocket notify(dir / "notify.sock");
  std::unique_ptr<qxtest::Child> service;
  {
    qxtest::ScopedEnv const env("NOTIFY_SOCKET", notify.path().string());
    service = std::make_unique<qxtest::Child>(
        QX_SVC_PROGRAM,
        std::vector<std::string>{"--config", cfgFile.string(), "--token-file", (dir / "ipc.token").string(), "--port",
                                 "0", "--foreground", "--state-dir", (dir / "state").string(), "--credentials",
                                 (dir / "credentials.json").string(), "--settle-time", "0.05", "--runtime-dir",
                                 (dir / "run").string()},
        dir / "svc.out", dir / "svc.err");
  }
  ASSERT_TRUE(notify.waitFor("READY=1")) << service->err();
  ASSERT_TRUE(notify.waitFor("STATUS=idle")) << service->err();

  std::string content;
  while (content.size() < 600000) content += "line " + std::to_string(content.size()) + " of the slow upload\n";
  qxtest::writeFile(dir / "slow.txt", content);
  fs::rename(dir / "slow.txt", dir / "in" / "slow.txt");
  ASSERT_TRUE(notify.waitFor("STATUS=uploading 1")) << service->err();
  // Bytes are moving when the signal comes.
  ASSERT_TRUE(qxtest::waitFor([&] {
    auto const sent = proxy.bodyBytesByPath();
    return std::any_of(sent.begin(), sent.end(), [](auto const& p) { return p.second > 0; });
  })) << proxy.report();

  qxtest::writeFile(cfgFile, configText(dir, address, ",\"AccountId\":\"acme\",\"ConcurrentUploads\":3"));
  service->signal(SIGHUP);
  ASSERT_TRUE(notify.waitFor("READY=1", 2)) << service->err();
  std::vector<std::string> const lines = logLines(service->err());
  std::string const reloaded = "INFO:qxlite-svc Configuration reloaded from \"" + cfgFile.string() +
                               "\": AccountId: (none) \u2192 \"acme\"; ConcurrentUploads: 2 \u2192 3";
  EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), reloaded)) << service->err();
  // Still under way after the reload.
  auto const requestsNow = proxy.requests();
  EXPECT_EQ(1, std::count_if(requestsNow.begin(), requestsNow.end(), [](auto const& r) { return r.method == "PUT"; }))
      << proxy.report();
  {
    qxtest::Child client(QX_CLI_PROGRAM, {"--runtime-dir", (dir / "run").string(), "config", "get"}, dir / "cli.out",
                         dir / "cli.err");
    ASSERT_TRUE(client.wait());
    EXPECT_EQ(0, client.status()) << client.err();
    EXPECT_NE(std::string::npos, client.out().find("\nConcurrentUploads   Max upload threads: 3\n")) << client.out();
    EXPECT_EQ(0u, client.out().find("AccountId           Account Id: acme\n")) << client.out();
  }

  ASSERT_TRUE(notify.waitFor("STATUS=idle", 2, std::chrono::seconds(60))) << service->err() << proxy.report();
  std::vector<std::string> const keys = qxtest::s3ListKeys(s3, bucket);
  ASSERT_EQ(1u, keys.size());
  EXPECT_EQ("slow.txt", keys.front().substr(keys.front().rfind('/') + 1));
  // Named when it was queued, before the change of account.
  EXPECT_EQ(0u, keys.front().rfind("-/0/", 0)) << keys.front();
  EXPECT_EQ(qxsvc::sha256OfText(content), qxsvc::sha256OfText(qxtest::s3ObjectBytes(s3, bucket, keys.front())));
  // One PUT, never begun again: the reload did not stop the transfer.
  std::vector<qxtest::SeenRequest> const seen = proxy.requests();
  EXPECT_EQ(1, std::count_if(seen.begin(), seen.end(), [](auto const& r) { return r.method == "PUT"; }))
      << proxy.report();
  EXPECT_EQ(content.size(), proxy.bodyBytesForwarded("/" + bucket + "/" + keys.front()));

  service->signal(SIGTERM);
  ASSERT_TRUE(service->wait());
  EXPECT_EQ(0, service->status()) << service->err();
  std::vector<std::string> statuses;
  for (std::string const& t : notify.texts()) {
    if (t.rfind("STATUS=", 0) == 0 && (statuses.empty() || statuses.back() != t)) statuses.push_back(t);
  }
  // "starting" may come first when the loop beats before the start's
  // clean-up of abandoned uploads ends.
  if (!statuses.empty() && statuses.front() == "STATUS=starting") statuses.erase(statuses.begin());
  EXPECT_EQ((std::vector<std::string>{"STATUS=idle", "STATUS=uploading 1", "STATUS=idle"}), statuses);
  EXPECT_EQ("STOPPING=1", notify.texts().back());
}

}  // namespace
