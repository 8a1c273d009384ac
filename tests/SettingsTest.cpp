// The Settings record: its defaults, both constructors, the normalisation by
// fix(), operator== and the node and key ids.
#include "settings/Settings.h"

#include "tests/SettingsTestUtil.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <climits>
#include <functional>
#include <initializer_list>
#include <string>
#include <unordered_set>
#include <vector>

namespace fs = boost::filesystem;

namespace {

using qxtest::constructedRecord;
using qxtest::exts;
using qxtest::jsonExcMessage;
using qxtest::kDefaultSrvExtsText;
using qxtest::parse;
using qxtest::text;

using ExtSet = std::unordered_set<std::string>;

// A copy of the class constant: the library does not define
// Settings::INVALID_NODE_ID out of line, so binding the class member to a
// reference (as the assertion macros do) does not link.
constexpr long long kInvalidNodeId = Settings::INVALID_NODE_ID;

// A record built with the full constructor from empty folders and lists.
Settings emptyFullRecord(std::string const& nodeId, Settings::CfgFileExts&& ignored,
                         Settings::CfgFileExts&& accepted) {
  return Settings("", nodeId, 0, "", std::move(ignored), std::move(accepted), fs::path(),
                  fs::path(), "", "", false, "", false, false, false,
                  Inet::InetCfg::ProxyAuthMethod::None, "", "", 0, fs::path(), false, false, 10,
                  false, "", "", "", false, false, false, "", "");
}

}  // namespace

// ---------------------------------------------------------------------------
// Defaults

TEST(SettingsDefaults, EmptyObjectGivesEveryDefault) {
  Settings const s{json::Object()};
  EXPECT_EQ(s.AccountId, "");
  // The reader assigns 0 for the missing "SpoolerId"; -1 does not survive.
  EXPECT_EQ(s.SpoolerId, 0);
  EXPECT_EQ(s.KeyId, 0);
  EXPECT_EQ(s.PublicKey, "");
  EXPECT_EQ(text(s.IgnoredExtension), R"(["noqx","ds_store","db"])");
  EXPECT_EQ(s.IgnoredExtensionSet, (ExtSet{"noqx", "ds_store", "db"}));
  EXPECT_EQ(text(s.SrvFileExts), kDefaultSrvExtsText);
  EXPECT_TRUE(s.SrvFileExtsSet.empty());
  EXPECT_EQ(s.ReceiveFolder.string(), "/var/spool/QXUpload/in");
  EXPECT_EQ(s.SpoolFolder.string(), "/var/spool/QXUpload/out");
  EXPECT_TRUE(s.InetConfig == Inet::InetCfg(LITE_VERSION_STR));
  EXPECT_EQ(s.InetConfig.version(), "7.0.1");
  EXPECT_TRUE(s.EmailConfig == Inet::EmailCfg());
  EXPECT_EQ(s.BackupExpireSecs, 0u);
  EXPECT_EQ(s.BackupFolder.string(), "/var/spool/QXUpload/backup");
  EXPECT_EQ(s.RejectedFolder.string(), "/var/spool/QXUpload/backup/.rejected");
  EXPECT_FALSE(s.EnableLogging);
  EXPECT_FALSE(s.AllowRemoteConfig);
  EXPECT_EQ(s.MinFilesToZip, 10u);
  EXPECT_FALSE(s.UseDirName);
  EXPECT_EQ(s.ConcurrentUploads, 2u);
  EXPECT_EQ(s.IpcPort, 45654);
  EXPECT_FALSE(s.IpcForceIP4);
  EXPECT_EQ(s.MaxConnIdleSecs, 600u);
  EXPECT_FALSE(s.EnableCurlDbgLog);
}

TEST(SettingsDefaults, ConstantsHoldTheirValues) {
  EXPECT_EQ(kInvalidNodeId, -1);
  EXPECT_EQ(IPC_DEFAULT_SVC_PORT, 45654);
  EXPECT_STREQ(LITE_VERSION_STR, "7.0.1");
  EXPECT_EQ(Settings::RESERVED_IGNORED_EXT, "noqx");
  EXPECT_EQ(Settings::INDIR_BAD_EXTS, (ExtSet{"zip", "enm"}));
}

TEST(SettingsDefaults, UnregisteredNodeIdIsDefinedForUseByReference) {
  // A caller that binds the constant to a reference (std::max, the assertion
  // macros) needs its definition in the library.
  void const* const symbol = dlsym(RTLD_DEFAULT, "_ZN8Settings15INVALID_NODE_IDE");
  ASSERT_NE(symbol, nullptr) << "Settings::INVALID_NODE_ID is not defined by the library";
  EXPECT_EQ(*static_cast<long long const*>(symbol), -1);
}

TEST(SettingsDefaults, DefaultPortTextIs45654) {
  EXPECT_EQ(Settings::IPC_DEFAULT_SVC_PORT_STR(), "45654");
}

// ---------------------------------------------------------------------------
// Full constructor

TEST(SettingsFullConstructor, StoresEveryArgument) {
  Settings const s = constructedRecord("42");
  EXPECT_EQ(s.AccountId, "acct-1");
  EXPECT_EQ(s.SpoolerId, 42);
  EXPECT_EQ(s.KeyId, 7);
  EXPECT_EQ(s.PublicKey, "PUBLIC-KEY");
  // The marker is already listed, so fix() adds no other ignored default.
  EXPECT_EQ(text(s.IgnoredExtension), R"(["tmp","noqx"])");
  EXPECT_EQ(text(s.SrvFileExts), R"(["pdf","txt"])");
  EXPECT_EQ(s.ReceiveFolder.string(), "/data/in");
  EXPECT_EQ(s.SpoolFolder.string(), "/data/out");
  EXPECT_EQ(s.InetConfig.serverAddress(), "srv.example.com");
  EXPECT_EQ(s.InetConfig.altServerAddress(), "alt.example.com");
  EXPECT_TRUE(s.InetConfig.useProxy());
  EXPECT_EQ(s.InetConfig.proxyAddress(), "proxy.example.com:3128");
  EXPECT_TRUE(s.InetConfig.proxyTunnel());
  EXPECT_TRUE(s.InetConfig.proxySocks());
  EXPECT_TRUE(s.InetConfig.insecureTls());
  EXPECT_EQ(s.InetConfig.proxyAuth(), Inet::InetCfg::ProxyAuthMethod::Digest);
  EXPECT_EQ(s.InetConfig.proxyUser(), "proxy-user");
  EXPECT_EQ(s.InetConfig.proxyPassword(), "proxy-pass");
  EXPECT_EQ(s.InetConfig.version(), "7.0.1");
  EXPECT_EQ(s.BackupExpireSecs, 86400u);
  EXPECT_EQ(s.BackupFolder.string(), "/data/backup");
  EXPECT_EQ(s.RejectedFolder.string(), "/data/backup/.rejected");
  EXPECT_TRUE(s.EnableLogging);
  EXPECT_TRUE(s.AllowRemoteConfig);
  // No offset here: the offset of 10 belongs to the JSON form only.
  EXPECT_EQ(s.MinFilesToZip, 3u);
  EXPECT_TRUE(s.UseDirName);
  EXPECT_EQ(s.EmailConfig.smtpUrl(), "smtp://mail.example.com:587");
  EXPECT_EQ(s.EmailConfig.user(), "mail-user");
  EXPECT_EQ(s.EmailConfig.password(), "mail-pass");
  EXPECT_TRUE(s.EmailConfig.requireTls());
  EXPECT_TRUE(s.EmailConfig.notifySuccess());
  EXPECT_TRUE(s.EmailConfig.notifyFailure());
  EXPECT_EQ(s.EmailConfig.from(), "from@example.com");
  EXPECT_EQ(s.EmailConfig.to(), "to@example.com");
  // The members without a parameter start at their defaults.
  EXPECT_EQ(s.ConcurrentUploads, 2u);
  EXPECT_EQ(s.IpcPort, 45654);
  EXPECT_FALSE(s.IpcForceIP4);
  EXPECT_EQ(s.MaxConnIdleSecs, 600u);
  EXPECT_FALSE(s.EnableCurlDbgLog);
}

TEST(SettingsFullConstructor, TakesOverTheListHandles) {
  Settings::CfgFileExts ignored = exts({"noqx"});
  Settings::CfgFileExts accepted = exts({"pdf"});
  json_t* const ignoredNode = ignored.get();
  json_t* const acceptedNode = accepted.get();
  Settings const s = emptyFullRecord("1", std::move(ignored), std::move(accepted));
  EXPECT_TRUE(ignored.empty());
  EXPECT_TRUE(accepted.empty());
  EXPECT_EQ(s.IgnoredExtension.get(), ignoredNode);
  EXPECT_EQ(s.SrvFileExts.get(), acceptedNode);
}

TEST(SettingsFullConstructor, NodeIdIsParsedFromText) {
  struct Case {
    char const* nodeId;
    long long expected;
  };
  Case const cases[] = {
      {"", 0},
      {"-1", -1},
      {"0012", 12},
      {"42", 42},
      {" 42", 42},
      {"42abc", 42},
      {"abc", 0},
      {"99999999999999999999", LLONG_MAX},
  };
  for (Case const& c : cases) {
    Settings const s = emptyFullRecord(c.nodeId, exts({}), exts({}));
    EXPECT_EQ(s.SpoolerId, c.expected) << "node id text \"" << c.nodeId << "\"";
  }
}

TEST(SettingsFullConstructor, FillsEmptyFoldersAndLists) {
  Settings const s = emptyFullRecord("", exts({}), exts({}));
  EXPECT_EQ(s.ReceiveFolder.string(), "/var/spool/QXUpload/in");
  EXPECT_EQ(s.SpoolFolder.string(), "/var/spool/QXUpload/out");
  EXPECT_EQ(s.BackupFolder.string(), "/var/spool/QXUpload/backup");
  EXPECT_EQ(s.RejectedFolder.string(), "/var/spool/QXUpload/backup/.rejected");
  EXPECT_EQ(text(s.IgnoredExtension), R"(["noqx","ds_store","db"])");
  EXPECT_EQ(text(s.SrvFileExts), kDefaultSrvExtsText);
}

TEST(SettingsFullConstructor, RefusedProxyAddressLeavesTheConstructor) {
  EXPECT_THROW(Settings("", "1", 0, "", exts({}), exts({}), fs::path(), fs::path(), "", "", true,
                        "proxy.example.com:0", false, false, false,
                        Inet::InetCfg::ProxyAuthMethod::None, "", "", 0, fs::path(), false,
                        false, 10, false, "", "", "", false, false, false, "", ""),
               std::invalid_argument);
}

TEST(SettingsFullConstructor, NonStringIgnoredEntryLeavesTheConstructor) {
  Settings::CfgFileExts ignored;
  ignored.append(json::Value(json_int_t{5}));
  EXPECT_EQ(jsonExcMessage([&] { emptyFullRecord("1", std::move(ignored), exts({})); }),
            "JSON error: Wrong type: integer. Expected type: string");
}

// ---------------------------------------------------------------------------
// Node and key ids

namespace {

struct IdCase {
  char const* name;
  std::function<json::Value()> value;
  long long expected;
};

std::vector<IdCase> idCases() {
  return {
      {"integer 7", [] { return json::Value(json_int_t{7}); }, 7},
      {"integer -1", [] { return json::Value(json_int_t{-1}); }, -1},
      {"text 7", [] { return json::Value("7"); }, 7},
      {"text with a leading blank", [] { return json::Value(" 42"); }, 42},
      {"text with trailing letters", [] { return json::Value("42abc"); }, 42},
      {"text +5", [] { return json::Value("+5"); }, 5},
      {"real 7.5", [] { return json::Value(json_real(7.5)); }, 0},
      {"real 42.0", [] { return json::Value(json_real(42.0)); }, 0},
      {"text abc", [] { return json::Value("abc"); }, 0},
      {"empty text", [] { return json::Value(""); }, 0},
      {"twenty nines", [] { return json::Value("99999999999999999999"); }, LLONG_MAX},
      {"minus twenty nines", [] { return json::Value("-99999999999999999999"); }, LLONG_MIN},
      {"true", [] { return json::Value::makeTrue(); }, 0},
      {"null", [] { return json::Value(json_null()); }, 0},
      {"empty handle", [] { return json::Value(); }, 0},
      {"object", [] { return json::Value(json::Object()); }, 0},
  };
}

}  // namespace

TEST(SettingsNodeId, SetNodeIdReadsIntegersAndNumericText) {
  Settings s{json::Object()};
  for (IdCase const& c : idCases()) {
    s.SpoolerId = 555;
    s.setNodeId(c.value());
    EXPECT_EQ(s.SpoolerId, c.expected) << c.name;
  }
}

TEST(SettingsNodeId, SetKeyIdReadsLikeSetNodeId) {
  Settings s{json::Object()};
  for (IdCase const& c : idCases()) {
    s.KeyId = 555;
    s.setKeyId(c.value());
    EXPECT_EQ(s.KeyId, c.expected) << c.name;
  }
}

TEST(SettingsNodeId, UnregisteredNodeIdTextIsMinusOne) {
  Settings s{json::Object()};
  s.SpoolerId = Settings::INVALID_NODE_ID;
  EXPECT_EQ(s.strNodeId(), "-1");
}

TEST(SettingsNodeId, ZeroKeyIdTextIsZero) {
  Settings const s{json::Object()};
  ASSERT_EQ(s.KeyId, 0);
  EXPECT_EQ(s.strKeyId(), "0");
}

TEST(SettingsNodeId, IdTextsArePlainSignedDecimal) {
  Settings s{json::Object()};
  s.SpoolerId = 1234567890123LL;
  s.KeyId = LLONG_MIN;
  EXPECT_EQ(s.strNodeId(), "1234567890123");
  EXPECT_EQ(s.strKeyId(), "-9223372036854775808");
}

// ---------------------------------------------------------------------------
// operator==

TEST(SettingsEquality, RecordsOfTheSameContentAreEqual) {
  Settings const a = constructedRecord("42");
  Settings const b = constructedRecord("42");
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
}

TEST(SettingsEquality, OrderOfIgnoredExtensionsCounts) {
  Settings const a{parse(R"({"IgnoredExtension":["noqx","db"]})")};
  Settings const b{parse(R"({"IgnoredExtension":["db","noqx"]})")};
  EXPECT_EQ(a.IgnoredExtensionSet, b.IgnoredExtensionSet);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
}

TEST(SettingsEquality, OrderOfAcceptedExtensionsCounts) {
  Settings const a{parse(R"({"SrvFileExts":["pdf","zip"]})")};
  Settings const b{parse(R"({"SrvFileExts":["zip","pdf"]})")};
  EXPECT_FALSE(a == b);
}

TEST(SettingsEquality, ElementTypesOfAListCount) {
  Settings a{json::Object()};
  Settings b{json::Object()};
  json::Array numbers;
  numbers.append(json::Value(json_int_t{5}));
  a.SrvFileExts = numbers;
  b.SrvFileExts = exts({"5"});
  EXPECT_FALSE(a == b);
}

TEST(SettingsEquality, CachesAreNotCompared) {
  Settings const a{json::Object()};
  Settings const b{json::Object()};
  ASSERT_FALSE(a.isBadFileExt("x.pdf", false));
  ASSERT_FALSE(a.SrvFileExtsSet.empty());
  ASSERT_TRUE(b.SrvFileExtsSet.empty());
  b.IgnoredExtensionSet.insert("other");
  EXPECT_TRUE(a == b);
}

TEST(SettingsEquality, RejectedFolderIsCompared) {
  Settings const a{json::Object()};
  Settings b{json::Object()};
  b.RejectedFolder = "/elsewhere/.rejected";
  EXPECT_FALSE(a == b);
}

TEST(SettingsEquality, EveryStoredMemberIsCompared) {
  struct Case {
    char const* member;
    std::function<void(Settings&)> change;
  };
  std::vector<Case> const cases = {
      {"AccountId", [](Settings& s) { s.AccountId = "other"; }},
      {"SpoolerId", [](Settings& s) { s.SpoolerId = 43; }},
      {"KeyId", [](Settings& s) { s.KeyId = 8; }},
      {"PublicKey", [](Settings& s) { s.PublicKey = "OTHER"; }},
      {"IgnoredExtension", [](Settings& s) { s.IgnoredExtension = exts({"tmp"}); }},
      {"SrvFileExts", [](Settings& s) { s.SrvFileExts = exts({"pdf"}); }},
      {"ReceiveFolder", [](Settings& s) { s.ReceiveFolder = "/other/in"; }},
      {"SpoolFolder", [](Settings& s) { s.SpoolFolder = "/other/out"; }},
      {"InetConfig", [](Settings& s) { s.InetConfig.setServerAddress("other.example.com"); }},
      {"EmailConfig", [](Settings& s) { s.EmailConfig.setSmtpUrl("smtp://other:25"); }},
      {"BackupExpireSecs", [](Settings& s) { s.BackupExpireSecs = 1; }},
      {"BackupFolder", [](Settings& s) { s.BackupFolder = "/other/backup"; }},
      {"RejectedFolder", [](Settings& s) { s.RejectedFolder = "/other/.rejected"; }},
      {"EnableLogging", [](Settings& s) { s.EnableLogging = false; }},
      {"AllowRemoteConfig", [](Settings& s) { s.AllowRemoteConfig = false; }},
      {"MinFilesToZip", [](Settings& s) { s.MinFilesToZip = 4; }},
      {"UseDirName", [](Settings& s) { s.UseDirName = false; }},
      {"ConcurrentUploads", [](Settings& s) { s.ConcurrentUploads = 3; }},
      {"IpcPort", [](Settings& s) { s.IpcPort = 1; }},
      {"IpcForceIP4", [](Settings& s) { s.IpcForceIP4 = true; }},
      {"MaxConnIdleSecs", [](Settings& s) { s.MaxConnIdleSecs = 1; }},
      {"EnableCurlDbgLog", [](Settings& s) { s.EnableCurlDbgLog = true; }},
  };
  Settings const original = constructedRecord("42");
  for (Case const& c : cases) {
    Settings changed = constructedRecord("42");
    ASSERT_TRUE(changed == original) << c.member;
    c.change(changed);
    EXPECT_FALSE(changed == original) << c.member;
    EXPECT_FALSE(original == changed) << c.member;
  }
}

TEST(SettingsEquality, NullListHandlesCompareByPresence) {
  Settings a{json::Object()};
  Settings b{json::Object()};
  Settings::CfgFileExts const takenFromA(std::move(a.SrvFileExts));
  ASSERT_TRUE(a.SrvFileExts.empty());
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(b == a);
  Settings::CfgFileExts const takenFromB(std::move(b.SrvFileExts));
  EXPECT_TRUE(a == b);
}

// ---------------------------------------------------------------------------
// fix()

TEST(SettingsFix, EmptyFoldersAndListsGetTheDefaults) {
  Settings s = constructedRecord("42");
  s.ReceiveFolder.clear();
  s.SpoolFolder.clear();
  s.BackupFolder.clear();
  s.RejectedFolder.clear();
  s.IgnoredExtension = json::Array();
  s.IgnoredExtensionSet.clear();
  s.SrvFileExts = json::Array();
  s.fix();
  EXPECT_EQ(s.ReceiveFolder.string(), "/var/spool/QXUpload/in");
  EXPECT_EQ(s.SpoolFolder.string(), "/var/spool/QXUpload/out");
  EXPECT_EQ(s.BackupFolder.string(), "/var/spool/QXUpload/backup");
  EXPECT_EQ(s.RejectedFolder.string(), "/var/spool/QXUpload/backup/.rejected");
  EXPECT_EQ(text(s.IgnoredExtension), R"(["noqx","ds_store","db"])");
  EXPECT_EQ(s.IgnoredExtensionSet, (ExtSet{"noqx", "ds_store", "db"}));
  EXPECT_EQ(text(s.SrvFileExts), kDefaultSrvExtsText);
}

TEST(SettingsFix, SecondFixChangesNothing) {
  Settings s{json::Object()};
  Settings const before = s;
  std::string const formBefore = json::jsonToString(s.serialize(), false);
  json_t* const ignoredNode = s.IgnoredExtension.get();
  json_t* const acceptedNode = s.SrvFileExts.get();
  s.fix();
  EXPECT_TRUE(s == before);
  EXPECT_EQ(json::jsonToString(s.serialize(), false), formBefore);
  EXPECT_EQ(s.IgnoredExtension.get(), ignoredNode);
  EXPECT_EQ(s.SrvFileExts.get(), acceptedNode);
  EXPECT_EQ(s.IgnoredExtensionSet, (ExtSet{"noqx", "ds_store", "db"}));
  EXPECT_EQ(s.RejectedFolder.string(), "/var/spool/QXUpload/backup/.rejected");
}

TEST(SettingsFix, IgnoredListWithoutMarkerGainsEveryDefault) {
  Settings const s{parse(R"({"IgnoredExtension":["DS_Store"]})")};
  EXPECT_EQ(text(s.IgnoredExtension), R"(["DS_Store","noqx","ds_store","db"])");
  EXPECT_EQ(s.IgnoredExtensionSet, (ExtSet{"ds_store", "noqx", "db"}));
}

TEST(SettingsFix, DefaultAlreadyListedIsAppendedAgain) {
  Settings const s{parse(R"({"IgnoredExtension":["db"]})")};
  EXPECT_EQ(text(s.IgnoredExtension), R"(["db","noqx","ds_store","db"])");
  EXPECT_EQ(s.IgnoredExtensionSet, (ExtSet{"noqx", "ds_store", "db"}));
}

TEST(SettingsFix, MarkerAloneGetsNoOtherDefaults) {
  for (char const* marker : {"noqx", ".NOQX"}) {
    Settings const s{parse(std::string(R"({"IgnoredExtension":[")") + marker + R"("]})")};
    EXPECT_EQ(text(s.IgnoredExtension), std::string("[\"") + marker + "\"]") << marker;
    EXPECT_EQ(s.IgnoredExtensionSet, (ExtSet{"noqx"})) << marker;
  }
}

TEST(SettingsFix, MarkedListKeepsTheUsersRemovals) {
  Settings s{parse(R"({"IgnoredExtension":["tmp","noqx"]})")};
  s.fix();
  EXPECT_EQ(text(s.IgnoredExtension), R"(["tmp","noqx"])");
  EXPECT_EQ(s.IgnoredExtensionSet, (ExtSet{"tmp", "noqx"}));
}

TEST(SettingsFix, FilledIgnoredSetDecidesAboutTheMarker) {
  // The set is a cache built once; fix() asks it, not the list.
  Settings s{json::Object()};
  s.IgnoredExtension = exts({"tmp"});
  s.fix();
  EXPECT_EQ(text(s.IgnoredExtension), R"(["tmp"])");
}

TEST(SettingsFix, FoldersThatAreSetStayAsTheyAre) {
  Settings s{json::Object()};
  s.ReceiveFolder = "relative/in/";
  s.SpoolFolder = "/no/such/out/../out";
  s.BackupFolder = "backup";
  s.fix();
  EXPECT_EQ(s.ReceiveFolder.string(), "relative/in/");
  EXPECT_EQ(s.SpoolFolder.string(), "/no/such/out/../out");
  EXPECT_EQ(s.BackupFolder.string(), "backup");
  EXPECT_EQ(s.RejectedFolder.string(), "backup/.rejected");
}

TEST(SettingsFix, RejectedFolderFollowsTheBackupFolder) {
  Settings s{json::Object()};
  s.BackupFolder = "/srv/backup";
  s.fix();
  EXPECT_EQ(s.RejectedFolder.string(), "/srv/backup/.rejected");
  s.RejectedFolder = "/somewhere/else";
  s.fix();
  EXPECT_EQ(s.RejectedFolder.string(), "/srv/backup/.rejected");
}

TEST(SettingsFix, AcceptedListWithAnyElementIsKept) {
  Settings s{json::Object()};
  s.SrvFileExts = exts({""});
  s.fix();
  EXPECT_EQ(text(s.SrvFileExts), R"([""])");
}

TEST(SettingsFix, MissingAcceptedListGetsTheDefaults) {
  Settings s{json::Object()};
  Settings::CfgFileExts const taken(std::move(s.SrvFileExts));
  ASSERT_TRUE(s.SrvFileExts.empty());
  s.fix();
  EXPECT_EQ(text(s.SrvFileExts), kDefaultSrvExtsText);
}

TEST(SettingsFix, MissingIgnoredListFailsTheAppend) {
  Settings s{json::Object()};
  Settings::CfgFileExts const taken(std::move(s.IgnoredExtension));
  s.IgnoredExtensionSet.clear();
  EXPECT_EQ(jsonExcMessage([&] { s.fix(); }),
            "JSON error: array element can not be appended. Size: 0. New value type: string");
}

TEST(SettingsFix, NonStringIgnoredEntryThrows) {
  Settings s{json::Object()};
  json::Array list;
  list.append(json::Value(json_int_t{1}));
  s.IgnoredExtension = list;
  s.IgnoredExtensionSet.clear();
  EXPECT_EQ(jsonExcMessage([&] { s.fix(); }),
            "JSON error: Wrong type: integer. Expected type: string");
}

// ---------------------------------------------------------------------------
// JSON constructor

TEST(SettingsJsonConstructor, ReaderFailureInEmailKeysKeepsWhatWasRead) {
  std::string const input =
      R"({"AccountId":"acct-9","SpoolerId":5,"KeyId":3,"PublicKey":"PK",)"
      R"("IgnoredExtension":["tmp"],"SrvFileExts":["pdf"],"ReceiveFolder":"/r/in",)"
      R"("SpoolFolder":"/r/out","InetServer":"srv.example.com","BackupExpireSecs":100,)"
      R"("BackupFolder":"/r/backup","EnableLogging":true,"AllowRemoteConfig":true,)"
      R"("MinFilesToZip":-5,"UseDirName":true,"EmailSmtpUrl":"smtp://host:99999",)"
      R"("SmtpHost":"legacy.example.com","ConcurrentUploads":7,"IpcPort":5000,)"
      R"("MaxConnIdleSecs":30,"IpcForceIP4":true,"EnableCurlDbgLog":true})";
  json::Object const obj = parse(input);
  std::string why;
  try {
    Inet::EmailCfg().deserialize(obj);
  } catch (std::runtime_error const& e) {
    why = e.what();
  }
  ASSERT_FALSE(why.empty()) << "the e-mail reader accepts the port 99999";

  qxtest::LogCapture log;
  Settings const s{obj};
  EXPECT_EQ(log.lines(), std::vector<std::string>{"ERR:Failed to deserialize settings from \"" +
                                                  input + "\"!Error: " + why});

  // Read before the e-mail reader failed.
  EXPECT_EQ(s.AccountId, "acct-9");
  EXPECT_EQ(s.SpoolerId, kInvalidNodeId);
  EXPECT_EQ(s.KeyId, 3);
  EXPECT_EQ(s.PublicKey, "PK");
  EXPECT_EQ(text(s.IgnoredExtension), R"(["tmp","noqx","ds_store","db"])");
  EXPECT_EQ(text(s.SrvFileExts), R"(["pdf"])");
  EXPECT_EQ(s.ReceiveFolder.string(), "/r/in");
  EXPECT_EQ(s.SpoolFolder.string(), "/r/out");
  EXPECT_EQ(s.InetConfig.serverAddress(), "srv.example.com");
  EXPECT_EQ(s.BackupExpireSecs, 100u);
  EXPECT_EQ(s.BackupFolder.string(), "/r/backup");
  EXPECT_EQ(s.RejectedFolder.string(), "/r/backup/.rejected");
  EXPECT_TRUE(s.EnableLogging);
  EXPECT_TRUE(s.AllowRemoteConfig);
  EXPECT_EQ(s.MinFilesToZip, 5u);
  EXPECT_TRUE(s.UseDirName);
  // Not reached: the legacy e-mail keys and everything after them.
  EXPECT_TRUE(s.EmailConfig == Inet::EmailCfg());
  EXPECT_EQ(s.EmailConfig.smtpUrl(), "");
  EXPECT_EQ(s.ConcurrentUploads, 2u);
  EXPECT_EQ(s.IpcPort, 45654);
  EXPECT_EQ(s.MaxConnIdleSecs, 600u);
  EXPECT_FALSE(s.IpcForceIP4);
  EXPECT_FALSE(s.EnableCurlDbgLog);
}

TEST(SettingsJsonConstructor, ReaderFailureInInetKeysKeepsWhatWasRead) {
  std::string const input =
      R"({"AccountId":"acct-9","SpoolerId":"77","KeyId":3,"PublicKey":"PK",)"
      R"("IgnoredExtension":["noqx"],"SrvFileExts":["txt"],"ReceiveFolder":"/r/in",)"
      R"("SpoolFolder":"/r/out","InetProxy":"proxy:0","BackupExpireSecs":100,)"
      R"("BackupFolder":"/r/backup","EnableLogging":true,"AllowRemoteConfig":true,)"
      R"("MinFilesToZip":-5,"UseDirName":true,"EmailSmtpUrl":"smtp://mail:25",)"
      R"("ConcurrentUploads":7,"IpcPort":5000,"MaxConnIdleSecs":30,"IpcForceIP4":true,)"
      R"("EnableCurlDbgLog":true})";
  json::Object const obj = parse(input);
  std::string why;
  try {
    Inet::InetCfg(LITE_VERSION_STR).deserialize(obj);
  } catch (std::runtime_error const& e) {
    why = e.what();
  }
  ASSERT_FALSE(why.empty()) << "the internet reader accepts the proxy port 0";

  qxtest::LogCapture log;
  Settings const s{obj};
  EXPECT_EQ(log.lines(), std::vector<std::string>{"ERR:Failed to deserialize settings from \"" +
                                                  input + "\"!Error: " + why});

  EXPECT_EQ(s.AccountId, "acct-9");
  EXPECT_EQ(s.SpoolerId, kInvalidNodeId);
  EXPECT_EQ(s.KeyId, 3);
  EXPECT_EQ(s.PublicKey, "PK");
  EXPECT_EQ(text(s.IgnoredExtension), R"(["noqx"])");
  EXPECT_EQ(text(s.SrvFileExts), R"(["txt"])");
  EXPECT_EQ(s.ReceiveFolder.string(), "/r/in");
  EXPECT_EQ(s.SpoolFolder.string(), "/r/out");
  // Everything from the backup expiry on keeps the constructor's defaults,
  // with the folders that fix() supplies.
  EXPECT_EQ(s.BackupExpireSecs, 0u);
  EXPECT_EQ(s.BackupFolder.string(), "/var/spool/QXUpload/backup");
  EXPECT_EQ(s.RejectedFolder.string(), "/var/spool/QXUpload/backup/.rejected");
  EXPECT_FALSE(s.EnableLogging);
  EXPECT_FALSE(s.AllowRemoteConfig);
  EXPECT_EQ(s.MinFilesToZip, 10u);
  EXPECT_FALSE(s.UseDirName);
  EXPECT_TRUE(s.EmailConfig == Inet::EmailCfg());
  EXPECT_EQ(s.ConcurrentUploads, 2u);
  EXPECT_EQ(s.IpcPort, 45654);
  EXPECT_EQ(s.MaxConnIdleSecs, 600u);
  EXPECT_FALSE(s.IpcForceIP4);
  EXPECT_FALSE(s.EnableCurlDbgLog);
}

TEST(SettingsJsonConstructor, ErrorLineQuotesTheInputInStoredKeyOrder) {
  // Keys out of sorted order, a quote and a line feed: the line carries the
  // compact text as the writer produces it, keys in stored order, and stays
  // one line.
  json::Object obj;
  obj.setAt("Zeta", json::Value("a\"b\nc"));
  obj.setAt("InetProxyAuth", json::Value("bogus"));
  obj.setAt("Alpha", json::Value(json_int_t{1}));
  std::string why;
  try {
    Inet::InetCfg(LITE_VERSION_STR).deserialize(obj);
  } catch (std::runtime_error const& e) {
    why = e.what();
  }
  ASSERT_FALSE(why.empty()) << "the internet reader accepts the proxy method \"bogus\"";

  qxtest::LogCapture log;
  Settings const s{obj};
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{
                R"(ERR:Failed to deserialize settings from "{"Zeta":"a\"b\nc","InetProxyAuth":"bogus","Alpha":1}"!Error: )" +
                why});
  EXPECT_EQ(s.SpoolerId, kInvalidNodeId);
}

TEST(SettingsJsonConstructor, SuccessfulReadLogsNothing) {
  qxtest::LogCapture log;
  Settings const s{parse(R"({"SpoolerId":12,"EmailSmtpUrl":"smtp://mail:587"})")};
  EXPECT_EQ(s.SpoolerId, 12);
  EXPECT_TRUE(log.lines().empty());
}

TEST(SettingsJsonConstructor, NonStringIgnoredEntryLeavesTheConstructor) {
  // fix() runs outside the reader's guard, so its error reaches the caller.
  qxtest::LogCapture log;
  EXPECT_EQ(jsonExcMessage([] { Settings const s{parse(R"({"IgnoredExtension":[1]})")}; }),
            "JSON error: Wrong type: integer. Expected type: string");
  EXPECT_TRUE(log.lines().empty());
}
