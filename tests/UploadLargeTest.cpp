// A 5 GiB file (sparse: its bytes are zeros) through the pipeline to the real
// S3 gateway as a multipart upload: the object has the file's size, is made of
// the parts the default sizes give, and carries the file's SHA-256. Run
// alone (the gateway holds the object in memory) and in the plain build only.
#include "apps/svc/upload/Pipeline.h"
#include "tests/ProcessHarness.h"
#include "tests/SpoolTestUtil.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <string>

namespace {

namespace fs = boost::filesystem;

TEST(UploadLarge, AFiveGibFileGoesInPartsAndArrivesWhole) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  std::string const bucket = qxtest::makeBucket(s3, "large");
  qxtest::TempDir tmp;
  fs::path const in = tmp / "in";
  for (fs::path const& f : {in, tmp / "out", tmp / "backup", tmp / "backup" / ".rejected"}) {
    fs::create_directories(f);
    ::chmod(f.c_str(), 0750);
  }
  json::Object credentials;
  credentials.setAt("user", json::Value(s3.accessKey));
  credentials.setAt("secret", json::Value(s3.secretKey));
  qxtest::writeFile(tmp / "credentials.json", json::jsonToString(credentials, false));
  ::chmod((tmp / "credentials.json").c_str(), 0600);
  Settings settings = qxtest::spoolSettings(in, tmp / "out", tmp / "backup");
  settings.InetConfig.setServerAddress("s3://" + s3.endpoint.substr(7) + "/" + bucket);
  static char const kExts[] = R"(["iso"])";
  settings.SrvFileExts = Settings::CfgFileExts(json::strToArray(kExts, sizeof kExts - 1));
  settings.SrvFileExtsSet.clear();

  std::uint64_t const size = 5ull << 30;
  ASSERT_TRUE(qxtest::writeSparseFile(tmp / "disk.iso", size, "", 0640)) << std::strerror(errno);
  qxsvc::Pipeline p(settings, qxtest::pipelineOptions(tmp / "state", tmp / "credentials.json"));
  p.start();
  fs::rename(tmp / "disk.iso", in / "disk.iso");
  p.scanNow();
  ASSERT_TRUE(qxtest::waitFor(
      [&] {
        json::Array const list(p.uploads()["uploads"]);
        return list.size() == 1 && json::Object(list[0])["state"].asStringSafe() == "done";
      },
      std::chrono::minutes(10)))
      << qxtest::text(p.uploads());
  std::string const key = json::Object(json::Array(p.uploads()["uploads"])[0])["key"].asStringSafe();
  qxtest::HttpAnswer const head = qxtest::s3Request(s3, "HEAD", "/" + bucket + "/" + qxtest::s3Encode(key, true));
  EXPECT_EQ(200, head.status);
  EXPECT_EQ(std::to_string(size), head.header("content-length"));
  // 5 GiB in the parts of the default budget of 32 MiB: two at once of 16 MiB.
  std::string const etag = head.header("etag");
  EXPECT_NE(std::string::npos, etag.find("-320")) << etag;
  // The SHA-256 of 5 GiB of zeros.
  EXPECT_EQ("7f06c62352aebd8125b2a1841e2b9e1ffcbed602f381c3dcb3200200e383d1d5",
            head.header("x-amz-meta-sha256"));
  EXPECT_EQ(std::vector<qxtest::MultipartUploadEntry>{}, qxtest::s3ListMultipartUploads(s3, bucket));
  // Give the gateway its memory back.
  EXPECT_EQ(204, qxtest::s3Request(s3, "DELETE", "/" + bucket + "/" + qxtest::s3Encode(key, true)).status);
}

}  // namespace
