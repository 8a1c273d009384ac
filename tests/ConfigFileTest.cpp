// The configuration keys of the programs against the keys of the record.
#include "apps/ConfigFile.h"

#include "SettingsTestUtil.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <jansson.h>

#include <set>
#include <string>
#include <vector>

namespace {

using qxtest::keysOf;

// A record with every member set writes every key, so the programs' list
// must hold exactly what it writes: a key added to the record and not to the
// list (or the other way round) shows here by name.
TEST(ConfigKeys, AreTheKeysThatAFullRecordWrites) {
  Settings const full = qxtest::fullRecord();
  std::set<std::string> const written = keysOf(full.serialize());

  for (std::string const& key : written) {
    EXPECT_EQ(qxapp::configKeys().count(key), 1u) << "written but not listed: " << key;
  }
  for (std::string const& key : qxapp::configKeys()) {
    EXPECT_EQ(written.count(key), 1u) << "listed but not written: " << key;
  }
  EXPECT_EQ(qxapp::configKeys().size(), 37u);
}

// `qxlite config keys` lists the keys in the order a full record writes them,
// each with a type, a meaning and no key twice.
TEST(ConfigKeys, TheTableFollowsTheWritersOrder) {
  json::Object const written = qxtest::fullRecord().serialize();
  std::vector<std::string> inOrder;
  char const* key;
  json_t* value;
  json_object_foreach(written.get(), key, value) { inOrder.push_back(key); }
  std::vector<std::string> listed;
  for (qxapp::ConfigKey const& k : qxapp::configKeyTable()) {
    listed.push_back(k.name);
    EXPECT_NE(std::string(), k.type) << k.name;
    EXPECT_NE(std::string(), k.meaning) << k.name;
  }
  EXPECT_EQ(inOrder, listed);
  EXPECT_EQ(listed.size(), qxapp::configKeys().size());
}

// The client masks exactly the passwords.
TEST(ConfigKeys, TheSecretsAreThePasswords) {
  std::set<std::string> secrets;
  for (qxapp::ConfigKey const& k : qxapp::configKeyTable()) {
    if (k.secret) secrets.insert(k.name);
  }
  EXPECT_EQ((std::set<std::string>{"EmailPassword", "InetProxyPassword"}), secrets);
  EXPECT_EQ(nullptr, qxapp::findConfigKey("BackupEnabled"));
  ASSERT_NE(nullptr, qxapp::findConfigKey("EmailPassword"));
  EXPECT_TRUE(qxapp::findConfigKey("EmailPassword")->secret);
}

// The record under test leaves no member at its default: each part of it
// writes its whole set of keys.
TEST(ConfigKeys, FullRecordSetsTheInternetAndEmailKeys) {
  Settings const full = qxtest::fullRecord();
  json::Object inet;
  full.InetConfig.serialize(inet);
  json::Object email;
  full.EmailConfig.serialize(email);
  EXPECT_EQ(keysOf(inet),
            (std::set<std::string>{"InetServer", "InetAltServer", "InetUseProxy", "InetProxy",
                                   "InetProxyTunnel", "InetProxySocks", "InetInsecureTls",
                                   "InetProxyAuth", "InetProxyUser", "InetProxyPassword"}));
  EXPECT_EQ(keysOf(email),
            (std::set<std::string>{"EmailSmtpUrl", "EmailUser", "EmailPassword", "EmailFrom",
                                   "EmailTo", "EmailRequireTls", "EmailNotifySuccess",
                                   "EmailNotifyFailure"}));
}

}  // namespace

namespace {

TEST(ConfigChanges, EachChangedKeyOnceInTheTablesOrderWithPasswordsMasked) {
  Settings const before(qxtest::parse(R"({"AccountId":"acme","BackupExpireSecs":0,"InetProxyPassword":"old"})"));
  Settings const after(qxtest::parse(
      R"({"AccountId":"acme 2","BackupExpireSecs":86400,"InetProxyPassword":"new","SrvFileExts":["pdf"]})"));
  EXPECT_EQ((std::vector<std::string>{"AccountId: \"acme\" \u2192 \"acme 2\"",
                                      "SrvFileExts: [\"pdf\",\"ps\",\"xps\",\"oxps\",\"xml\",\"json\",\"js\",\"csv\","
                                      "\"xls\",\"xlsx\",\"ods\",\"zip\",\"tar\",\"enm\",\"qxw\"] \u2192 [\"pdf\"]",
                                      "BackupExpireSecs: 0 \u2192 86400", "InetProxyPassword: *** \u2192 ***"}),
            qxapp::configChanges(before, after));
  EXPECT_EQ(std::vector<std::string>{}, qxapp::configChanges(after, after));
}

}  // namespace

namespace {

TEST(ConfigValues, EachValueTheReaderWouldPassOverIsRefusedWithItsRule) {
  struct Row {
    char const* json;
    char const* why;
  };
  Row const rows[] = {
      {R"({})", ""},
      {R"({"SpoolerId":"12","ReceiveFolder":"/in","EnableLogging":true,"SrvFileExts":["pdf"]})", ""},
      {R"({"ReceiveFolder":5})", "\"ReceiveFolder\" must be a text, not integer"},
      {R"({"ConcurrentUploads":"four"})", "\"ConcurrentUploads\" must be an integer from 1 to 1024"},
      {R"({"ConcurrentUploads":0})", "\"ConcurrentUploads\" must be an integer from 1 to 1024"},
      {R"({"IpcPort":70000})", "\"IpcPort\" must be an integer from 1 to 65535"},
      {R"({"MinFilesToZip":-11})", "\"MinFilesToZip\" must be an integer from -10 to 4294967285"},
      {R"({"KeyId":"7"})", "\"KeyId\" must be an integer, not string"},
      {R"({"EnableLogging":"yes"})", "\"EnableLogging\" must be true or false, not string"},
      {R"({"InetUseProxy":1})", "\"InetUseProxy\" must be true or false, not integer"},
      {R"({"InetServer":["a"]})", "\"InetServer\" must be a text, not array"},
      {R"({"SrvFileExts":"pdf"})", "\"SrvFileExts\" must be a list of texts, not string"},
      {R"({"IgnoredExtension":["tmp",3]})", "\"IgnoredExtension\" must be a list of texts"},
      {"{\"SpoolFolder\":\"/a\\u0000b\"}", "\"SpoolFolder\" holds a NUL character"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.json);
    EXPECT_EQ(row.why, qxapp::checkConfigValues(qxtest::parse(row.json)));
  }
}

}  // namespace
