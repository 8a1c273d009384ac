// The configuration test asks each server whether it accepts the service's
// upload account, without storing anything: the real S3 gateway and WebDAV
// server of the tests, with the right account, a wrong one, none, and
// addresses of buckets and folders that are not there.
#include "apps/svc/ConfigTestRunner.h"
#include "apps/svc/HttpClient.h"
#include "ipc/IpcCmdsLite.h"
#include "tests/HeldPort.h"
#include "tests/SpoolTestUtil.h"
#include "tests/TestServers.h"
#include "tests/TestUtil.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

struct Account {
  std::string user;
  std::string secret;
  mode_t mode = 0600;
};

struct Case {
  std::string label;
  std::string address;
  std::string altAddress;
  Account account;
  std::vector<std::string> expected;  // the lines about the account and the servers
};

// The lines of the test about the account and the servers (with their
// reasons), in order; libcurl's time to a refused connection reads
// "after N ms".
std::vector<std::string> accountLines(Case const& c, fs::path const& dir) {
  fs::path const credentials = dir / "credentials.json";
  qxtest::writeFile(credentials, "{\"user\":\"" + c.account.user + "\",\"secret\":\"" + c.account.secret + "\"}");
  ::chmod(credentials.c_str(), c.account.mode);
  Settings settings = qxtest::spoolSettings(dir / "in", dir / "out", dir / "backup");
  settings.InetConfig.setServerAddress(c.address);
  settings.InetConfig.setAltServerAddress(c.altAddress);
  Ipc::TestCfg cmd(nullptr, settings);
  qxsvc::ConfigTestRunner runner(cmd, {}, credentials, 10);
  while (runner.runStep()) {
  }
  std::vector<std::string> lines;
  bool about = false;
  for (std::string const& line : cmd.respMsgs()->lines) {
    if (line.compare(0, 4, "    ") != 0) {
      about = line.find("The server") != std::string::npos || line.find("upload account") != std::string::npos;
    }
    static std::regex const elapsed(" after [0-9]+ ms");
    if (about) lines.push_back(std::regex_replace(line, elapsed, " after N ms"));
  }
  return lines;
}

class ConfigTestAccount : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { qxsvc::HttpClient::globalInit(); }
  qxtest::TempDir tmp;
};

TEST_F(ConfigTestAccount, EachServerSaysWhetherItAcceptsTheUploadAccount) {
  qxtest::S3TestServer const& s3 = qxtest::s3Server();
  qxtest::DavTestServer const& dav = qxtest::davServer();
  std::string const bucket = qxtest::makeBucket(s3, "cfg-account");
  std::string const s3Host = s3.endpoint.substr(s3.endpoint.find("//") + 2);
  std::string const s3Address = "s3://" + s3Host + "/" + bucket + "/scans/in";
  std::string const missingBucket = "qx-missing-" + bucket.substr(bucket.size() - 8);
  std::string const davHostPath = dav.url.substr(dav.url.find("//") + 2);
  std::string const davAddress = "dav://" + davHostPath;
  std::string const listUrl = s3.endpoint + "/" + missingBucket + "?list-type=2&max-keys=1&prefix=";
  qxtest::HeldPort const dead;
  std::string const deadAddress = "dav://127.0.0.1:" + dead.text() + "/dav";
  Account const s3Account{s3.accessKey, s3.secretKey};
  Account const davAccount{dav.user, dav.password};

  std::vector<Case> const cases{
      {"S3, the right account",
       s3Address,
       "",
       s3Account,
       {"+ The server \"" + s3Address + "\" accepts the upload account"}},
      {"S3, a bucket that is not there",
       "s3://" + s3Host + "/" + missingBucket,
       "",
       s3Account,
       {"- The server \"s3://" + s3Host + "/" + missingBucket + "\" has no bucket \"" + missingBucket + "\"",
        "    -> HTTP 404 NoSuchBucket (GET " + listUrl + ")"}},
      {"S3, a wrong secret",
       s3Address,
       "",
       {s3.accessKey, s3.secretKey + "x"},
       {"- The server \"" + s3Address + "\" refuses the upload account",
        "    -> HTTP 403 SignatureDoesNotMatch (GET " + s3.endpoint + "/" + bucket +
            "?list-type=2&max-keys=1&prefix=scans%2Fin%2F)"}},
      {"S3, an unknown key",
       s3Address,
       "",
       {"QXUNKNOWNKEY", s3.secretKey},
       {"- The server \"" + s3Address + "\" refuses the upload account",
        "    -> HTTP 403 InvalidAccessKeyId (GET " + s3.endpoint + "/" + bucket +
            "?list-type=2&max-keys=1&prefix=scans%2Fin%2F)"}},
      {"WebDAV, the right account",
       davAddress,
       "",
       davAccount,
       {"+ The server \"" + davAddress + "\" accepts the upload account"}},
      {"WebDAV, a wrong password",
       davAddress,
       "",
       {dav.user, dav.password + "x"},
       {"- The server \"" + davAddress + "\" refuses the upload account",
        "    -> HTTP 401 Unauthorized (PROPFIND " + dav.url + "/)"}},
      {"WebDAV, a folder not made yet",
       davAddress + "/not%20yet",
       "",
       davAccount,
       {"* The server \"" + davAddress + "/not%20yet\" has no folder \"/dav/not yet\" yet: the first upload makes it"}},
      {"the alternative address too, where nothing listens",
       davAddress,
       deadAddress,
       davAccount,
       {"+ The server \"" + davAddress + "\" accepts the upload account",
        "- The server \"" + deadAddress + "\" does not answer",
        "    -> Failed to connect to 127.0.0.1 port " + dead.text() + " after N ms: Couldn't connect to server"}},
      {"an account that others may read",
       davAddress,
       "",
       {dav.user, dav.password, 0644},
       {"- The upload account cannot be read",
        "    -> the credentials file \"" + (tmp / "credentials.json").string() +
            "\" is readable by others (mode 0644): chmod 600 it",
        "* The server \"" + davAddress + "\" answers; the upload account was not checked"}},
      {"an address that is not an upload target",
       "ftp://" + davHostPath,
       "",
       davAccount,
       {"- The server \"ftp://" + davHostPath + "\" cannot be used",
        "    -> the server address \"ftp://" + davHostPath +
            "\" has an unknown scheme \"ftp\": use s3://, s3s://, dav://, davs://, http:// or https://"}},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(c.expected, accountLines(c, tmp.path())) << c.label;
  }
  // Nothing was stored by asking.
  EXPECT_EQ(std::vector<std::string>{}, qxtest::s3ListKeys(s3, bucket));
  EXPECT_FALSE(fs::exists(fs::path(dav.root) / "not yet"));
}

}  // namespace
