// The JSON form of Settings: serialize(), deserialize(), the legacy keys and
// the path of the configuration file.
#include "settings/Settings.h"

#include "shared/Platform.h"
#include "tests/SettingsTestUtil.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string>
#include <unordered_set>
#include <vector>

namespace fs = boost::filesystem;

namespace {

using qxtest::exts;
using qxtest::fullRecord;
using qxtest::kDefaultSrvExtsText;
using qxtest::parse;
using qxtest::text;

using ExtSet = std::unordered_set<std::string>;

// The record that the reader and fix() make of the object given as text.
Settings read(std::string const& objText) { return Settings(parse(objText)); }

// "absent", or the integer under key.
std::string writtenInteger(json::Object const& obj, char const* key) {
  json::Value const v = obj[key];
  if (v.empty()) return "absent";
  if (!v.isInteger()) return "not an integer: " + v.type2String();
  return std::to_string(v.asInt());
}

}  // namespace

// ---------------------------------------------------------------------------
// The whole form

TEST(SettingsForm, DefaultRecordWritesOnlyListsAndFolders) {
  json::Object const obj = Settings(json::Object()).serialize();
  EXPECT_EQ(json::jsonToString(obj, false),
            std::string(R"({"IgnoredExtension":["noqx","ds_store","db"],"SrvFileExts":)") +
                kDefaultSrvExtsText +
                R"(,"ReceiveFolder":"/var/spool/QXUpload/in","SpoolFolder":"/var/spool/QXUpload/out",)"
                R"("BackupFolder":"/var/spool/QXUpload/backup"})");
  EXPECT_EQ(json::jsonToString(obj, true),
            std::string(R"({"BackupFolder":"/var/spool/QXUpload/backup",)"
                        R"("IgnoredExtension":["noqx","ds_store","db"],)"
                        R"("ReceiveFolder":"/var/spool/QXUpload/in",)"
                        R"("SpoolFolder":"/var/spool/QXUpload/out","SrvFileExts":)") +
                kDefaultSrvExtsText + "}");
}

TEST(SettingsForm, FullRecordWritesEveryKeyInOrder) {
  json::Object const obj = fullRecord().serialize();
  EXPECT_EQ(
      json::jsonToString(obj, false),
      R"({"AccountId":"acct-1","SpoolerId":42,"KeyId":7,"PublicKey":"PUBLIC-KEY",)"
      R"("IgnoredExtension":["tmp","noqx"],"SrvFileExts":["pdf","txt"],)"
      R"("ReceiveFolder":"/data/in","SpoolFolder":"/data/out","BackupExpireSecs":86400,)"
      R"("BackupFolder":"/data/backup","EnableLogging":true,"AllowRemoteConfig":true,)"
      R"("MinFilesToZip":-7,"UseDirName":true,"ConcurrentUploads":5,"IpcPort":5000,)"
      R"("MaxConnIdleSecs":120,"IpcForceIP4":true,"EnableCurlDbgLog":true,)"
      R"("InetServer":"srv.example.com","InetAltServer":"alt.example.com","InetUseProxy":true,)"
      R"("InetProxy":"proxy.example.com:3128","InetProxyTunnel":true,"InetProxySocks":true,)"
      R"("InetInsecureTls":true,"InetProxyAuth":"digest","InetProxyUser":"proxy-user",)"
      R"("InetProxyPassword":"proxy-pass","EmailSmtpUrl":"smtp://mail.example.com:587",)"
      R"("EmailUser":"mail-user","EmailPassword":"mail-pass","EmailRequireTls":true,)"
      R"("EmailNotifySuccess":true,"EmailNotifyFailure":true,"EmailFrom":"from@example.com",)"
      R"("EmailTo":"to@example.com"})");
  EXPECT_EQ(
      json::jsonToString(obj, true),
      R"({"AccountId":"acct-1","AllowRemoteConfig":true,"BackupExpireSecs":86400,)"
      R"("BackupFolder":"/data/backup","ConcurrentUploads":5,"EmailFrom":"from@example.com",)"
      R"("EmailNotifyFailure":true,"EmailNotifySuccess":true,"EmailPassword":"mail-pass",)"
      R"("EmailRequireTls":true,"EmailSmtpUrl":"smtp://mail.example.com:587",)"
      R"("EmailTo":"to@example.com","EmailUser":"mail-user","EnableCurlDbgLog":true,)"
      R"("EnableLogging":true,"IgnoredExtension":["tmp","noqx"],)"
      R"("InetAltServer":"alt.example.com","InetInsecureTls":true,)"
      R"("InetProxy":"proxy.example.com:3128","InetProxyAuth":"digest",)"
      R"("InetProxyPassword":"proxy-pass","InetProxySocks":true,"InetProxyTunnel":true,)"
      R"("InetProxyUser":"proxy-user","InetServer":"srv.example.com","InetUseProxy":true,)"
      R"("IpcForceIP4":true,"IpcPort":5000,"KeyId":7,"MaxConnIdleSecs":120,)"
      R"("MinFilesToZip":-7,"PublicKey":"PUBLIC-KEY","ReceiveFolder":"/data/in",)"
      R"("SpoolFolder":"/data/out","SpoolerId":42,"SrvFileExts":["pdf","txt"],)"
      R"("UseDirName":true})");
}

TEST(SettingsForm, FullRecordSurvivesTheRoundTrip) {
  Settings const original = fullRecord();
  json::Object const obj = original.serialize();
  std::string const written = text(obj);
  qxtest::LogCapture log;
  Settings const back{obj};
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(back == original) << "written: " << written << "\nread back: " << back.dump();
  EXPECT_EQ(text(back.serialize()), written);
}

TEST(SettingsForm, DefaultRecordSurvivesTheRoundTrip) {
  Settings const original{json::Object()};
  Settings const back{original.serialize()};
  EXPECT_TRUE(back == original);
  EXPECT_EQ(text(back.serialize()), text(original.serialize()));
}

TEST(SettingsForm, RecordSurvivesTheConfigurationFile) {
  qxtest::TempDir dir;
  fs::path const file = dir / "config.json";
  Settings const original = fullRecord();
  qxtest::writeFile(file, json::jsonToString(original.serialize(), true));
  std::string const content = qxtest::readFile(file);
  Settings const back{json::strToObject(content.data(), content.size())};
  EXPECT_TRUE(back == original) << content;
}

TEST(SettingsForm, WriterSharesTheListNodesWithTheRecord) {
  Settings const s = fullRecord();
  json::Object const obj = s.serialize();
  EXPECT_EQ(obj["IgnoredExtension"].get(), s.IgnoredExtension.get());
  EXPECT_EQ(obj["SrvFileExts"].get(), s.SrvFileExts.get());
  // Copy-on-write keeps a change of the written list away from the record.
  json::Array written(obj["SrvFileExts"]);
  written.append(json::Value("exe"));
  EXPECT_EQ(text(written), R"(["pdf","txt","exe"])");
  EXPECT_EQ(text(s.SrvFileExts), R"(["pdf","txt"])");
}

TEST(SettingsForm, EmptyOrMissingListsAreNotWritten) {
  Settings s{json::Object()};
  s.IgnoredExtension = json::Array();
  Settings::CfgFileExts const taken(std::move(s.SrvFileExts));
  ASSERT_TRUE(s.SrvFileExts.empty());
  json::Object const obj = s.serialize();
  EXPECT_TRUE(obj["IgnoredExtension"].empty());
  EXPECT_TRUE(obj["SrvFileExts"].empty());
}

TEST(SettingsForm, FalseFlagsAndEmptyTextsAreNotWritten) {
  Settings s = fullRecord();
  s.AccountId.clear();
  s.PublicKey.clear();
  s.EnableLogging = false;
  s.AllowRemoteConfig = false;
  s.UseDirName = false;
  s.IpcForceIP4 = false;
  s.EnableCurlDbgLog = false;
  json::Object const obj = s.serialize();
  for (char const* key : {"AccountId", "PublicKey", "EnableLogging", "AllowRemoteConfig",
                          "UseDirName", "IpcForceIP4", "EnableCurlDbgLog", "BackupEnabled"}) {
    EXPECT_TRUE(obj[key].empty()) << key;
  }
}

TEST(SettingsForm, FolderIsWrittenAsItsNativeText) {
  Settings s{json::Object()};
  s.ReceiveFolder = "relative dir/in/";
  s.SpoolFolder = "/a\"quote/out";
  json::Object const obj = s.serialize();
  EXPECT_EQ(obj["ReceiveFolder"].asStringSafe(), "relative dir/in/");
  EXPECT_EQ(obj["SpoolFolder"].asStringSafe(), "/a\"quote/out");
}

// ---------------------------------------------------------------------------
// Node and key ids

TEST(SettingsFormIds, SpoolerIdReadsIntegersAndNumericText) {
  struct Case {
    char const* obj;
    long long expected;
  };
  Case const cases[] = {
      {R"({"SpoolerId":123})", 123},     {R"({"SpoolerId":"123"})", 123},
      {R"({"SpoolerId":12.5})", 0},      {R"({"SpoolerId":" 9"})", 9},
      {R"({"SpoolerId":-5})", -5},       {R"({"SpoolerId":true})", 0},
      {R"({"SpoolerId":"abc"})", 0},     {R"({})", 0},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(read(c.obj).SpoolerId, c.expected) << c.obj;
  }
}

TEST(SettingsFormIds, KeyIdReadsIntegersAndNumericText) {
  struct Case {
    char const* obj;
    long long expected;
  };
  Case const cases[] = {
      {R"({"KeyId":8})", 8},   {R"({"KeyId":"8"})", 8}, {R"({"KeyId":8.0})", 0},
      {R"({"KeyId":-2})", -2}, {R"({})", 0},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(read(c.obj).KeyId, c.expected) << c.obj;
  }
}

TEST(SettingsFormIds, OnlyIdsAboveZeroAreWritten) {
  struct Case {
    long long id;
    char const* written;
  };
  Case const cases[] = {{1, "1"}, {123, "123"}, {0, "absent"}, {-1, "absent"}, {-5, "absent"}};
  for (Case const& c : cases) {
    Settings s{json::Object()};
    s.SpoolerId = c.id;
    s.KeyId = c.id;
    json::Object const obj = s.serialize();
    EXPECT_EQ(writtenInteger(obj, "SpoolerId"), c.written) << "id " << c.id;
    EXPECT_EQ(writtenInteger(obj, "KeyId"), c.written) << "id " << c.id;
  }
}

TEST(SettingsFormIds, UnregisteredNodeReadsBackAsZero) {
  Settings s{json::Object()};
  s.SpoolerId = Settings::INVALID_NODE_ID;
  EXPECT_EQ(Settings(s.serialize()).SpoolerId, 0);
}

// ---------------------------------------------------------------------------
// Numbers

TEST(SettingsFormNumbers, MinFilesToZipIsStoredAsDistanceFromTen) {
  struct Case {
    std::uint32_t value;
    char const* written;
  };
  Case const cases[] = {
      {3, "-7"},  {10, "absent"}, {0, "-10"},          {25, "15"},
      {11, "1"},  {9, "-1"},      {4294967295u, "4294967285"},
  };
  for (Case const& c : cases) {
    Settings s{json::Object()};
    s.MinFilesToZip = c.value;
    json::Object const obj = s.serialize();
    EXPECT_EQ(writtenInteger(obj, "MinFilesToZip"), c.written) << "MinFilesToZip " << c.value;
    EXPECT_EQ(Settings(obj).MinFilesToZip, c.value) << "MinFilesToZip " << c.value;
  }
}

TEST(SettingsFormNumbers, MinFilesToZipReadsLowBitsPlusTen) {
  struct Case {
    char const* obj;
    std::uint32_t expected;
  };
  Case const cases[] = {
      {R"({"MinFilesToZip":15})", 25},         {R"({"MinFilesToZip":-10})", 0},
      {R"({"MinFilesToZip":"5"})", 10},        {R"({"MinFilesToZip":2.0})", 10},
      {R"({"MinFilesToZip":4294967286})", 0},  {R"({"MinFilesToZip":4294967297})", 11},
      {R"({})", 10},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(read(c.obj).MinFilesToZip, c.expected) << c.obj;
  }
}

TEST(SettingsFormNumbers, IpcPortReadsLowSixteenBitsWithZeroAsDefault) {
  struct Case {
    char const* obj;
    std::uint16_t expected;
  };
  Case const cases[] = {
      {R"({"IpcPort":0})", 45654},      {R"({"IpcPort":"5000"})", 45654},
      {R"({"IpcPort":5000})", 5000},    {R"({"IpcPort":70000})", 4464},
      {R"({"IpcPort":65536})", 45654},  {R"({"IpcPort":65535})", 65535},
      {R"({"IpcPort":-1})", 65535},     {R"({"IpcPort":5000.0})", 45654},
      {R"({})", 45654},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(read(c.obj).IpcPort, c.expected) << c.obj;
  }
}

TEST(SettingsFormNumbers, IpcPortIsWrittenUnlessDefault) {
  struct Case {
    std::uint16_t port;
    char const* written;
  };
  Case const cases[] = {{45654, "absent"}, {5000, "5000"}, {0, "0"}, {65535, "65535"}};
  for (Case const& c : cases) {
    Settings s{json::Object()};
    s.IpcPort = c.port;
    EXPECT_EQ(writtenInteger(s.serialize(), "IpcPort"), c.written) << "IpcPort " << c.port;
  }
}

TEST(SettingsFormNumbers, ConcurrentUploadsReadsSixtyFourBitsWithZeroAsDefault) {
  struct Case {
    char const* obj;
    std::size_t expected;
  };
  Case const cases[] = {
      {R"({"ConcurrentUploads":0})", 2},
      {R"({"ConcurrentUploads":8})", 8},
      {R"({"ConcurrentUploads":-1})", 18446744073709551615u},
      {R"({"ConcurrentUploads":-5})", 18446744073709551611u},
      {R"({"ConcurrentUploads":4294967296})", 4294967296u},
      {R"({"ConcurrentUploads":"8"})", 2},
      {R"({"ConcurrentUploads":8.0})", 2},
      {R"({})", 2},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(read(c.obj).ConcurrentUploads, c.expected) << c.obj;
  }
}

TEST(SettingsFormNumbers, ConcurrentUploadsIsWrittenAsSignedSixtyFourBits) {
  struct Case {
    std::size_t value;
    char const* written;
  };
  Case const cases[] = {
      {2, "absent"}, {8, "8"}, {std::numeric_limits<std::size_t>::max(), "-1"}};
  for (Case const& c : cases) {
    Settings s{json::Object()};
    s.ConcurrentUploads = c.value;
    json::Object const obj = s.serialize();
    EXPECT_EQ(writtenInteger(obj, "ConcurrentUploads"), c.written) << c.value;
    EXPECT_EQ(Settings(obj).ConcurrentUploads, c.value) << c.value;
  }
}

TEST(SettingsFormNumbers, MaxConnIdleSecsReadsLowBitsWithZeroAsDefault) {
  struct Case {
    char const* obj;
    std::uint32_t expected;
  };
  Case const cases[] = {
      {R"({"MaxConnIdleSecs":0})", 600},     {R"({"MaxConnIdleSecs":30})", 30},
      {R"({"MaxConnIdleSecs":600.0})", 600}, {R"({"MaxConnIdleSecs":"30"})", 600},
      {R"({"MaxConnIdleSecs":-1})", 4294967295u},
      {R"({"MaxConnIdleSecs":4294967296})", 600},
      {R"({})", 600},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(read(c.obj).MaxConnIdleSecs, c.expected) << c.obj;
  }
}

TEST(SettingsFormNumbers, MaxConnIdleSecsIsWrittenUnlessDefault) {
  struct Case {
    std::uint32_t value;
    char const* written;
  };
  Case const cases[] = {{600, "absent"}, {30, "30"}, {0, "0"}, {4294967295u, "4294967295"}};
  for (Case const& c : cases) {
    Settings s{json::Object()};
    s.MaxConnIdleSecs = c.value;
    EXPECT_EQ(writtenInteger(s.serialize(), "MaxConnIdleSecs"), c.written) << c.value;
  }
}

// ---------------------------------------------------------------------------
// Backup expiry and the legacy "BackupEnabled"

TEST(SettingsFormBackup, ExpiryReadsLowBitsThenTheLegacyFlag) {
  struct Case {
    char const* obj;
    std::uint32_t expected;
  };
  Case const cases[] = {
      {R"({})", 0},
      {R"({"BackupEnabled":true})", 4294967295u},
      {R"({"BackupExpireSecs":86400,"BackupEnabled":false})", 86400},
      {R"({"BackupExpireSecs":86400,"BackupEnabled":true})", 86400},
      {R"({"BackupExpireSecs":0,"BackupEnabled":true})", 4294967295u},
      {R"({"BackupEnabled":1})", 0},
      {R"({"BackupEnabled":"true"})", 0},
      {R"({"BackupExpireSecs":"100"})", 0},
      {R"({"BackupExpireSecs":"100","BackupEnabled":true})", 4294967295u},
      {R"({"BackupExpireSecs":-1})", 4294967295u},
      {R"({"BackupExpireSecs":4294967396})", 100},
      {R"({"BackupExpireSecs":4294967296,"BackupEnabled":true})", 4294967295u},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(read(c.obj).BackupExpireSecs, c.expected) << c.obj;
  }
}

TEST(SettingsFormBackup, LegacyFlagIsWrittenBackAsExpiry) {
  json::Object const obj = read(R"({"BackupEnabled":true})").serialize();
  EXPECT_EQ(writtenInteger(obj, "BackupExpireSecs"), "4294967295");
  EXPECT_TRUE(obj["BackupEnabled"].empty());
}

TEST(SettingsFormBackup, ExpiryIsWrittenUnlessZero) {
  struct Case {
    std::uint32_t value;
    char const* written;
  };
  Case const cases[] = {{0, "absent"}, {1, "1"}, {86400, "86400"}, {4294967295u, "4294967295"}};
  for (Case const& c : cases) {
    Settings s{json::Object()};
    s.BackupExpireSecs = c.value;
    json::Object const obj = s.serialize();
    EXPECT_EQ(writtenInteger(obj, "BackupExpireSecs"), c.written) << c.value;
    EXPECT_EQ(Settings(obj).BackupExpireSecs, c.value) << c.value;
  }
}

// ---------------------------------------------------------------------------
// Flags, texts, folders and lists

TEST(SettingsFormFlags, OnlyTheJsonTrueReadsAsSet) {
  struct Flag {
    char const* key;
    bool Settings::*member;
  };
  Flag const flags[] = {
      {"EnableLogging", &Settings::EnableLogging},
      {"AllowRemoteConfig", &Settings::AllowRemoteConfig},
      {"UseDirName", &Settings::UseDirName},
      {"IpcForceIP4", &Settings::IpcForceIP4},
      {"EnableCurlDbgLog", &Settings::EnableCurlDbgLog},
  };
  struct FlagValue {
    char const* json;
    bool expected;
  };
  FlagValue const values[] = {
      {"true", true}, {"false", false}, {"1", false}, {"\"true\"", false}, {"null", false},
  };
  for (Flag const& f : flags) {
    for (FlagValue const& v : values) {
      std::string const obj = std::string("{\"") + f.key + "\":" + v.json + "}";
      EXPECT_EQ(read(obj).*f.member, v.expected) << obj;
    }
    EXPECT_FALSE(read("{}").*f.member) << f.key << " missing";
  }
}

TEST(SettingsFormFlags, SetFlagIsWrittenAsTrue) {
  Settings const s = fullRecord();
  json::Object const obj = s.serialize();
  for (char const* key :
       {"EnableLogging", "AllowRemoteConfig", "UseDirName", "IpcForceIP4", "EnableCurlDbgLog"}) {
    EXPECT_TRUE(obj[key].isTrue()) << key;
  }
}

TEST(SettingsFormTexts, NonStringTextsAndFoldersReadAsEmpty) {
  Settings s = fullRecord();
  s.deserialize(parse(R"({"AccountId":5,"PublicKey":true,"ReceiveFolder":7,)"
                      R"("SpoolFolder":["/x"],"BackupFolder":null})"));
  EXPECT_EQ(s.AccountId, "");
  EXPECT_EQ(s.PublicKey, "");
  EXPECT_TRUE(s.ReceiveFolder.empty());
  EXPECT_TRUE(s.SpoolFolder.empty());
  EXPECT_TRUE(s.BackupFolder.empty());
}

TEST(SettingsFormLists, NonArrayListReadsAsEmptyList) {
  Settings s = fullRecord();
  s.deserialize(parse(R"({"IgnoredExtension":"pdf","SrvFileExts":{"pdf":1}})"));
  EXPECT_TRUE(s.IgnoredExtension.isArray());
  EXPECT_EQ(text(s.IgnoredExtension), "[]");
  EXPECT_TRUE(s.SrvFileExts.isArray());
  EXPECT_EQ(text(s.SrvFileExts), "[]");
}

TEST(SettingsFormLists, NonArrayListGetsTheDefaultsThroughTheConstructor) {
  Settings const s = read(R"({"IgnoredExtension":"pdf","SrvFileExts":"pdf"})");
  EXPECT_EQ(text(s.IgnoredExtension), R"(["noqx","ds_store","db"])");
  EXPECT_EQ(text(s.SrvFileExts), kDefaultSrvExtsText);
}

TEST(SettingsFormLists, ListIsReadAsADeepCopy) {
  json::Object const obj = parse(R"({"IgnoredExtension":["noqx","Tmp"],"SrvFileExts":["pdf"]})");
  Settings const s{obj};
  EXPECT_NE(s.IgnoredExtension.get(), obj["IgnoredExtension"].get());
  EXPECT_NE(s.SrvFileExts.get(), obj["SrvFileExts"].get());
  // Changing the source node in place leaves the record's list alone.
  json_array_append_new(obj["SrvFileExts"].get(), json_string("exe"));
  EXPECT_EQ(text(s.SrvFileExts), R"(["pdf"])");
  EXPECT_EQ(text(s.IgnoredExtension), R"(["noqx","Tmp"])");
}

// ---------------------------------------------------------------------------
// Legacy e-mail server keys

TEST(SettingsFormLegacySmtp, HostAndPortBecomeTheServerUrl) {
  std::string const prefix = Inet::EmailCfg::SMTP_PROT_PREF;
  struct Case {
    char const* obj;
    std::string expected;
  };
  Case const cases[] = {
      {R"({"SmtpHost":"mail.example.com","SmtpPort":25})", "mail.example.com"},
      {R"({"SmtpHost":"mail.example.com","SmtpPort":587})", prefix + "mail.example.com:587"},
      {R"({"SmtpHost":"mail.example.com","SmtpPort":0})", "mail.example.com"},
      {R"({"SmtpHost":"mail.example.com"})", "mail.example.com"},
      {R"({"SmtpHost":"mail.example.com","SmtpPort":"587"})", "mail.example.com"},
      {R"({"SmtpHost":"mail.example.com","SmtpPort":4294967883})", prefix + "mail.example.com:587"},
      {R"({"SmtpHost":"mail.example.com","SmtpPort":-1})", prefix + "mail.example.com:4294967295"},
      {R"({"SmtpHost":"","SmtpPort":587})", ""},
      {R"({"SmtpHost":5,"SmtpPort":587})", ""},
      {R"({"SmtpPort":587})", ""},
      {R"({"EmailSmtpUrl":"smtp://new.example.com:2525","SmtpHost":"old.example.com","SmtpPort":587})",
       "smtp://new.example.com:2525"},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(read(c.obj).EmailConfig.smtpUrl(), c.expected) << c.obj;
  }
}

TEST(SettingsFormLegacySmtp, LegacyKeysAreNotWrittenBack) {
  json::Object const obj = read(R"({"SmtpHost":"mail.example.com","SmtpPort":587})").serialize();
  EXPECT_TRUE(obj["SmtpHost"].empty());
  EXPECT_TRUE(obj["SmtpPort"].empty());
  EXPECT_EQ(obj["EmailSmtpUrl"].asStringSafe(), Inet::EmailCfg::SMTP_PROT_PREF + "mail.example.com:587");
}

// ---------------------------------------------------------------------------
// deserialize() on a record that already holds values

TEST(SettingsFormReader, MissingKeysResetTheirMembers) {
  Settings s = fullRecord();
  ASSERT_FALSE(s.isBadFileExt("a.pdf", false));
  ExtSet const ignoredSetBefore = s.IgnoredExtensionSet;
  ExtSet const acceptedSetBefore = s.SrvFileExtsSet;
  s.deserialize(json::Object());
  EXPECT_EQ(s.AccountId, "");
  EXPECT_EQ(s.SpoolerId, 0);
  EXPECT_EQ(s.KeyId, 0);
  EXPECT_EQ(s.PublicKey, "");
  EXPECT_EQ(text(s.IgnoredExtension), "[]");
  EXPECT_EQ(text(s.SrvFileExts), "[]");
  EXPECT_TRUE(s.ReceiveFolder.empty());
  EXPECT_TRUE(s.SpoolFolder.empty());
  EXPECT_TRUE(s.InetConfig == Inet::InetCfg(LITE_VERSION_STR));
  EXPECT_TRUE(s.EmailConfig == Inet::EmailCfg());
  EXPECT_EQ(s.BackupExpireSecs, 0u);
  EXPECT_TRUE(s.BackupFolder.empty());
  EXPECT_FALSE(s.EnableLogging);
  EXPECT_FALSE(s.AllowRemoteConfig);
  EXPECT_EQ(s.MinFilesToZip, 10u);
  EXPECT_FALSE(s.UseDirName);
  EXPECT_EQ(s.ConcurrentUploads, 2u);
  EXPECT_EQ(s.IpcPort, 45654);
  EXPECT_EQ(s.MaxConnIdleSecs, 600u);
  EXPECT_FALSE(s.IpcForceIP4);
  EXPECT_FALSE(s.EnableCurlDbgLog);
  // Not part of the form: the derived folder and the caches stay.
  EXPECT_EQ(s.RejectedFolder.string(), "/data/backup/.rejected");
  EXPECT_EQ(s.IgnoredExtensionSet, ignoredSetBefore);
  EXPECT_EQ(s.SrvFileExtsSet, acceptedSetBefore);
  EXPECT_EQ(s.SrvFileExtsSet, (ExtSet{"pdf", "txt"}));
}

TEST(SettingsFormReader, DirectCallerGetsTheReadersException) {
  Settings s = fullRecord();
  qxtest::LogCapture log;
  EXPECT_THROW(s.deserialize(parse(R"({"AccountId":"other","EmailSmtpUrl":"smtp://host:99999"})")),
               json::Exc);
  EXPECT_TRUE(log.lines().empty());
  // Read before the failure.
  EXPECT_EQ(s.AccountId, "other");
  EXPECT_EQ(s.SpoolerId, 0);
  EXPECT_FALSE(s.EnableLogging);
  // Not reached: these keep the record's own values.
  EXPECT_EQ(s.ConcurrentUploads, 5u);
  EXPECT_EQ(s.IpcPort, 5000);
  EXPECT_EQ(s.MaxConnIdleSecs, 120u);
  EXPECT_TRUE(s.IpcForceIP4);
  EXPECT_TRUE(s.EnableCurlDbgLog);
}

TEST(SettingsFormReader, ReaderDoesNotNormalise) {
  Settings s = fullRecord();
  s.deserialize(parse(R"({"IgnoredExtension":["tmp"],"ReceiveFolder":"in"})"));
  EXPECT_EQ(text(s.IgnoredExtension), R"(["tmp"])");
  EXPECT_EQ(s.ReceiveFolder.string(), "in");
  EXPECT_EQ(text(s.SrvFileExts), "[]");
}

// ---------------------------------------------------------------------------
// Configuration file path

TEST(SettingsCfgFilePath, SameObjectEndingInQXLiteConfigJson) {
  fs::path const& first = Settings::OLD_CFG_FILE_PATH();
  fs::path const& second = Settings::OLD_CFG_FILE_PATH();
  EXPECT_EQ(&first, &second);
  EXPECT_EQ(first.filename().string(), "config.json");
  EXPECT_EQ(first.parent_path().filename().string(), "QXLite");
}

TEST(SettingsCfgFilePath, BuiltOnceFromThePlatformDirectory) {
  fs::path const& first = Settings::OLD_CFG_FILE_PATH();
  std::string const dir = Platform::inst().sysCfgDir();
  ASSERT_FALSE(dir.empty());
  std::string const expected = (fs::path(dir) / "QXLite" / "config.json").string();
  EXPECT_EQ(first.string(), expected);

  qxtest::TempDir other;
  Platform::inst().setSysCfgDir(other.path().string());
  fs::path const& again = Settings::OLD_CFG_FILE_PATH();
  Platform::inst().setSysCfgDir(dir);
  EXPECT_EQ(&again, &first);
  EXPECT_EQ(again.string(), expected);
}
