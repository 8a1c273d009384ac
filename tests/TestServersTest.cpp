// The helpers of tests/TestServers.h against the real servers that the
// TestServers fixture starts.
#include "tests/TestServers.h"
#include "tests/DropTestUtil.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace qxtest {
namespace {

TEST(TestServersEnvTest, MissingFileNamesIt) {
  TempDir dir;
  std::string const file = (dir / "env").string();
  EXPECT_EQ(runtimeErrorMessage([&] { readTestServersEnv(file); }),
            "test servers: cannot read " + file +
                " (start them: ctest with the TestServers fixture, or "
                "scripts/test-servers.sh start DIR)");
}

TEST(TestServersEnvTest, MissingLineNamesFileAndName) {
  TempDir dir;
  std::string const file = (dir / "env").string();
  writeFile(file,
            "QX_S3_ENDPOINT=http://127.0.0.1:1\nQX_S3_ACCESS_KEY=K\nQX_S3_SECRET_KEY=S\n"
            "QX_S3_REGION=us-east-1\nQX_DAV_URL=http://127.0.0.1:2/dav\nQX_DAV_USER=u\n"
            "QX_DAV_PASSWORD=\n");
  EXPECT_EQ(runtimeErrorMessage([&] { readTestServersEnv(file); }),
            "test servers: " + file + " has no QX_DAV_PASSWORD");
}

TEST(TestServersEnvTest, ReadsEveryLine) {
  TempDir dir;
  std::string const file = (dir / "env").string();
  writeFile(file,
            "QX_S3_ENDPOINT=http://127.0.0.1:1\nQX_S3_ACCESS_KEY=K\nQX_S3_SECRET_KEY=S=s\n"
            "QX_S3_REGION=us-east-1\nQX_DAV_URL=http://127.0.0.1:2/dav\nQX_DAV_USER=u\n"
            "QX_DAV_PASSWORD=p\nQX_DAV_ROOT=/r\n");
  TestServersEnv const env = readTestServersEnv(file);
  EXPECT_EQ(env.s3.endpoint, "http://127.0.0.1:1");
  EXPECT_EQ(env.s3.accessKey, "K");
  EXPECT_EQ(env.s3.secretKey, "S=s");
  EXPECT_EQ(env.s3.region, "us-east-1");
  EXPECT_EQ(env.dav.url, "http://127.0.0.1:2/dav");
  EXPECT_EQ(env.dav.user, "u");
  EXPECT_EQ(env.dav.password, "p");
  EXPECT_EQ(env.dav.root, "/r");
}

TEST(HostPortTest, ReadsHostAndPort) {
  struct Case {
    std::string url;
    std::string host;
    std::uint16_t port;
  };
  std::vector<Case> const cases = {
      {"http://127.0.0.1:7480", "127.0.0.1", 7480},
      {"http://127.0.0.1:8080/dav", "127.0.0.1", 8080},
      {"http://[::1]:1/x", "[::1]", 1},
  };
  for (Case const& c : cases) {
    HostPort const found = hostPortOf(c.url);
    EXPECT_EQ(found.host, c.host) << c.url;
    EXPECT_EQ(found.port, c.port) << c.url;
  }
  for (std::string const url : {"http://127.0.0.1", "http://h:", "http://h:65536", "http://h:8x/"}) {
    EXPECT_EQ(runtimeErrorMessage([&] { hostPortOf(url); }), "no port in the address \"" + url + "\"")
        << url;
  }
}

TEST(BasicAuthorizationTest, EncodesUserAndPassword) {
  EXPECT_EQ(basicAuthorization("Aladdin", "open sesame"), "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
  EXPECT_EQ(basicAuthorization("a", "b"), "Basic YTpi");
}

TEST(S3EncodeTest, EncodesAllButUnreserved) {
  struct Case {
    std::string text;
    bool keepSlash;
    std::string encoded;
  };
  std::vector<Case> const cases = {
      {"aZ09-_.~", false, "aZ09-_.~"},
      {"a/b c", true, "a/b%20c"},
      {"a/b c", false, "a%2Fb%20c"},
      {"ü+=&", true, "%C3%BC%2B%3D%26"},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(s3Encode(c.text, c.keepSlash), c.encoded) << c.text << " keepSlash " << c.keepSlash;
  }
}

TEST(TestServersS3Test, PutThenGetGivesTheSameBytes) {
  S3TestServer const& s3 = s3Server();
  std::string const bucket = makeBucket(s3, "put get");
  std::string const bytes = pattern(76800, 1);
  HttpAnswer const put = s3Request(s3, "PUT", "/" + bucket + "/a%20b/c.bin", bytes);
  ASSERT_EQ(put.status, 200) << put.body;
  EXPECT_EQ(put.header("ETag").size(), 34u) << put.header("ETag");
  EXPECT_EQ(s3ObjectBytes(s3, bucket, "a b/c.bin"), bytes);
  HttpAnswer const head = s3Request(s3, "HEAD", "/" + bucket + "/a%20b/c.bin");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.header("content-length"), std::to_string(bytes.size()));
  EXPECT_EQ(head.body, "");
}

TEST(TestServersS3Test, MissingObjectIsAnErrorNamingIt) {
  S3TestServer const& s3 = s3Server();
  std::string const bucket = makeBucket(s3, "missing");
  std::string const message = runtimeErrorMessage([&] { s3ObjectBytes(s3, bucket, "nothing"); });
  EXPECT_EQ(message.rfind("getting " + bucket + "/nothing: status 404: ", 0), 0u) << message;
}

TEST(TestServersS3Test, WrongSecretIsRefused) {
  S3TestServer wrong = s3Server();
  wrong.secretKey += "x";
  HttpAnswer const answer = s3Request(wrong, "PUT", "/qx-never-made-" + std::to_string(::getpid()));
  EXPECT_EQ(answer.status, 403);
  EXPECT_NE(answer.body.find("<Code>SignatureDoesNotMatch</Code>"), std::string::npos)
      << answer.body;
}

TEST(TestServersS3Test, BucketNamesAreNewAndValid) {
  S3TestServer const& s3 = s3Server();
  std::string const first = makeBucket(s3, "Same Hint!! with a rather long text that goes on");
  std::string const second = makeBucket(s3, "Same Hint!! with a rather long text that goes on");
  EXPECT_NE(first, second);
  std::regex const valid("[a-z0-9][a-z0-9-]{1,61}[a-z0-9]");
  for (std::string const& name : {first, second}) {
    EXPECT_TRUE(std::regex_match(name, valid)) << name;
    EXPECT_EQ(name.find("--"), std::string::npos) << name;
    EXPECT_EQ(name.rfind("qx-same-hint-with-a-rather-long-", 0), 0u) << name;
  }
}

TEST(TestServersS3Test, ListKeysByPrefixOverPages) {
  S3TestServer const& s3 = s3Server();
  std::string const bucket = makeBucket(s3, "list");
  std::vector<std::string> const keys = {"a/1", "a/2", "a/3 x", "ab", "b/1"};
  for (std::string const& key : keys) {
    ASSERT_EQ(s3Request(s3, "PUT", "/" + bucket + "/" + s3Encode(key, true), key).status, 200)
        << key;
  }
  EXPECT_EQ(s3ListKeys(s3, bucket, "a/"), (std::vector<std::string>{"a/1", "a/2", "a/3 x"}));
  EXPECT_EQ(s3ListKeys(s3, bucket), keys);
  EXPECT_EQ(s3ListKeys(s3, bucket, "c"), std::vector<std::string>{});
  // The helper follows the continuation tokens from page to page.
  EXPECT_EQ(s3ListKeys(s3, bucket, "", 2), keys);
  EXPECT_EQ(s3ListKeys(s3, bucket, "a/", 1), (std::vector<std::string>{"a/1", "a/2", "a/3 x"}));
  // The query as written, unsorted and unencoded, still signs right.
  HttpAnswer const page = s3Request(s3, "GET", "/" + bucket + "?prefix=a/&list-type=2&max-keys=1");
  ASSERT_EQ(page.status, 200) << page.body;
  EXPECT_EQ(xmlElementText(page.body, "IsTruncated"), "true") << page.body;
  EXPECT_EQ(xmlElementText(page.body, "Key"), "a/1") << page.body;
}

TEST(TestServersS3Test, MultipartUploadsAreListedUntilAborted) {
  S3TestServer const& s3 = s3Server();
  std::string const bucket = makeBucket(s3, "multipart");
  EXPECT_EQ(s3ListMultipartUploads(s3, bucket), std::vector<MultipartUploadEntry>{});
  HttpAnswer const begun = s3Request(s3, "POST", "/" + bucket + "/big%20one?uploads");
  ASSERT_EQ(begun.status, 200) << begun.body;
  std::string const uploadId = xmlElementText(begun.body, "UploadId");
  ASSERT_FALSE(uploadId.empty()) << begun.body;
  EXPECT_EQ(s3ListMultipartUploads(s3, bucket),
            (std::vector<MultipartUploadEntry>{{"big one", uploadId}}));
  HttpAnswer const aborted =
      s3Request(s3, "DELETE", "/" + bucket + "/big%20one?uploadId=" + uploadId);
  EXPECT_EQ(aborted.status, 204) << aborted.body;
  EXPECT_EQ(s3ListMultipartUploads(s3, bucket), std::vector<MultipartUploadEntry>{});
}

TEST(TestServersDavTest, PutMakesTheFileUnderRoot) {
  DavTestServer const& dav = davServer();
  std::string const folder = "/put-" + std::to_string(::getpid());
  std::string const bytes = pattern(10240, 2);
  HttpAnswer const put = davRequest(dav, "PUT", folder + "/deep/er/file%201.bin", bytes);
  EXPECT_EQ(put.status, 201) << put.body;
  EXPECT_EQ(readFile(dav.root + folder + "/deep/er/file 1.bin"), bytes);
  HttpAnswer const again = davRequest(dav, "PUT", folder + "/deep/er/file%201.bin", "new");
  EXPECT_EQ(again.status, 204) << again.body;
  EXPECT_EQ(readFile(dav.root + folder + "/deep/er/file 1.bin"), "new");
  HttpAnswer const listing = davRequest(dav, "PROPFIND", folder + "/deep/er/", "", {"Depth: 1"});
  EXPECT_EQ(listing.status, 207);
  EXPECT_NE(listing.body.find("file%201.bin"), std::string::npos) << listing.body;
}

TEST(TestServersDavTest, WrongPasswordWritesNothing) {
  DavTestServer wrong = davServer();
  wrong.password += "x";
  std::string const path = "/refused-" + std::to_string(::getpid()) + ".txt";
  HttpAnswer const put = davRequest(wrong, "PUT", path, "bytes");
  EXPECT_EQ(put.status, 401);
  EXPECT_FALSE(boost::filesystem::exists(wrong.root + path));
}

}  // namespace
}  // namespace qxtest
