// Settings::reconfig: the server's remote changes, the change line and the
// pause, stop or reset request.
#include "settings/Settings.h"

#include "shared/Service.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_set>

namespace {

using qxtest::jsonExcMessage;
using qxtest::parse;
using qxtest::text;

// stopSecs before a call, so that a write through it shows.
constexpr long long kUntouched = 12345;


json::Array array(std::string const& text) {
  return json::strToArray(text.data(), text.size());
}


std::string form(Settings const& s) { return json::jsonToString(s.serialize(), false); }

// A registered record with every field that reconfig() looks at away from
// what the tests send.
Settings registeredRecord() {
  return Settings(parse(R"({"AccountId":"acct-1","SpoolerId":42,"KeyId":7,"PublicKey":"PK",)"
                        R"("InetServer":"main.example.com","InetAltServer":"alt.example.com"})"));
}

}  // namespace

// ---------------------------------------------------------------------------
// Nothing to change

TEST(Reconfig, EmptyObjectChangesNothing) {
  Settings s = registeredRecord();
  std::string const before = form(s);
  long long stop = kUntouched;
  EXPECT_EQ(s.reconfig(json::Object(), &stop), "");
  EXPECT_EQ(stop, kUntouched);
  EXPECT_EQ(form(s), before);
}

TEST(Reconfig, UnknownKeysAreIgnored) {
  Settings s = registeredRecord();
  std::string const before = form(s);
  long long stop = kUntouched;
  EXPECT_EQ(s.reconfig(parse(R"({"AccountId":"x","EnableLogging":true,"pause":5})"), &stop), "");
  EXPECT_EQ(stop, kUntouched);
  EXPECT_EQ(form(s), before);
}

TEST(Reconfig, EqualLoggingFlagChangesNothing) {
  Settings s = registeredRecord();
  s.EnableLogging = true;
  std::string const before = form(s);
  EXPECT_EQ(s.reconfig(parse(R"({"enable_logging":true})"), nullptr), "");
  EXPECT_EQ(form(s), before);
}

TEST(Reconfig, EqualValuesInEveryRowChangeNothing) {
  Settings s = registeredRecord();
  s.MinFilesToZip = 5;
  s.BackupExpireSecs = 60;
  s.SrvFileExts = array(R"(["pdf","txt"])");
  s.InetConfig.setAltServerAddress("main.example.com");
  std::string const before = form(s);
  EXPECT_EQ(s.reconfig(parse(R"({"account":"acct-1","enable_logging":false,)"
                             R"("enable_remote_clients":false,"zip_min_files":5,)"
                             R"("backup_expire_secs":60,"secondary_site":"main.example.com",)"
                             R"("accept_xtn":["pdf","txt"],"reset_registration":false})"),
                       nullptr),
            "");
  EXPECT_EQ(form(s), before);
}

// ---------------------------------------------------------------------------
// Rows 1 to 5: account, flags, numbers

TEST(Reconfig, AccountIsReplacedAlsoByAnEmptyText) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"account":"acct-2"})"), nullptr),
            "Reconfigured settings: account");
  EXPECT_EQ(s.AccountId, "acct-2");
  EXPECT_EQ(s.reconfig(parse(R"({"account":""})"), nullptr), "Reconfigured settings: account");
  EXPECT_EQ(s.AccountId, "");
}

TEST(Reconfig, AccountOfWrongTypeThrows) {
  Settings s = registeredRecord();
  EXPECT_EQ(jsonExcMessage([&] { s.reconfig(parse(R"({"account":5})"), nullptr); }),
            "JSON error: Wrong type: integer. Expected type: string");
  EXPECT_EQ(jsonExcMessage([&] { s.reconfig(parse(R"({"account":null})"), nullptr); }),
            "JSON error: Wrong type: null. Expected type: string");
  EXPECT_EQ(s.AccountId, "acct-1");
}

TEST(Reconfig, IntegerLoggingFlagThrows) {
  Settings s = registeredRecord();
  EXPECT_EQ(jsonExcMessage([&] { s.reconfig(parse(R"({"enable_logging":1})"), nullptr); }),
            "JSON error: Wrong type: integer. Expected type: boolean");
  EXPECT_FALSE(s.EnableLogging);
}

TEST(Reconfig, RemoteClientsFlagOfWrongTypeThrows) {
  Settings s = registeredRecord();
  EXPECT_EQ(
      jsonExcMessage([&] { s.reconfig(parse(R"({"enable_remote_clients":"true"})"), nullptr); }),
      "JSON error: Wrong type: string. Expected type: boolean");
  EXPECT_EQ(
      jsonExcMessage([&] { s.reconfig(parse(R"({"enable_remote_clients":null})"), nullptr); }),
      "JSON error: Wrong type: null. Expected type: boolean");
}

TEST(Reconfig, FlagsAreSwitchedBothWays) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"enable_logging":true,"enable_remote_clients":true})"), nullptr),
            "Reconfigured settings: extra logging; configuration from remote clients");
  EXPECT_TRUE(s.EnableLogging);
  EXPECT_TRUE(s.AllowRemoteConfig);
  EXPECT_EQ(s.reconfig(parse(R"({"enable_remote_clients":false})"), nullptr),
            "Reconfigured settings: configuration from remote clients");
  EXPECT_FALSE(s.AllowRemoteConfig);
}

TEST(Reconfig, ZipAndBackupChangesAreListedInOrder) {
  Settings s = registeredRecord();
  s.BackupExpireSecs = 3600;
  EXPECT_EQ(s.reconfig(parse(R"({"backup_expire_secs":0,"zip_min_files":5})"), nullptr),
            "Reconfigured settings: zip min files; backup");
  EXPECT_EQ(s.MinFilesToZip, 5u);
  EXPECT_EQ(s.BackupExpireSecs, 0u);
}

TEST(Reconfig, NumbersOfWrongTypeThrow) {
  Settings s = registeredRecord();
  EXPECT_EQ(jsonExcMessage([&] { s.reconfig(parse(R"({"zip_min_files":"5"})"), nullptr); }),
            "JSON error: Wrong type: string. Expected type: integer");
  EXPECT_EQ(jsonExcMessage([&] { s.reconfig(parse(R"({"zip_min_files":5.0})"), nullptr); }),
            "JSON error: Wrong type: float. Expected type: integer");
  EXPECT_EQ(jsonExcMessage([&] { s.reconfig(parse(R"({"backup_expire_secs":true})"), nullptr); }),
            "JSON error: Wrong type: boolean. Expected type: integer");
  EXPECT_EQ(s.MinFilesToZip, 10u);
  EXPECT_EQ(s.BackupExpireSecs, 0u);
}

TEST(Reconfig, BackupExpiryOfMinusOneNeverExpires) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"backup_expire_secs":-1})"), nullptr),
            "Reconfigured settings: backup");
  EXPECT_EQ(s.BackupExpireSecs, 4294967295u);
  EXPECT_NE(s.dump().find("\nBackup enabled, no expire\n"), std::string::npos) << s.dump();
}

TEST(Reconfig, NumbersAreComparedAndStoredAsLowThirtyTwoBits) {
  Settings s = registeredRecord();
  // 4294967306 is 10 in its low 32 bits: equal to the current value.
  EXPECT_EQ(s.reconfig(parse(R"({"zip_min_files":4294967306})"), nullptr), "");
  EXPECT_EQ(s.MinFilesToZip, 10u);
  EXPECT_EQ(s.reconfig(parse(R"({"zip_min_files":4294967301})"), nullptr),
            "Reconfigured settings: zip min files");
  EXPECT_EQ(s.MinFilesToZip, 5u);
}

TEST(Reconfig, FailureKeepsEarlierRowsAndSkipsLaterOnes) {
  Settings s = registeredRecord();
  long long stop = kUntouched;
  EXPECT_EQ(jsonExcMessage([&] {
              s.reconfig(parse(R"({"account":"acct-2","enable_logging":true,)"
                               R"("zip_min_files":"7","backup_expire_secs":60,)"
                               R"("secondary_site":"new.example.com","service_stop":60})"),
                         &stop);
            }),
            "JSON error: Wrong type: string. Expected type: integer");
  EXPECT_EQ(s.AccountId, "acct-2");
  EXPECT_TRUE(s.EnableLogging);
  EXPECT_EQ(s.MinFilesToZip, 10u);
  EXPECT_EQ(s.BackupExpireSecs, 0u);
  EXPECT_EQ(s.InetConfig.serverAddress(), "main.example.com");
  EXPECT_EQ(stop, kUntouched);
}

// ---------------------------------------------------------------------------
// Rows 6 and 7: server addresses

TEST(Reconfig, EmptyOrNonStringSiteChangesNothing) {
  for (char const* obj : {R"({"secondary_site":""})", R"({"secondary_site":7})",
                          R"({"secondary_site":null})", R"({"secondary_site":["x"]})"}) {
    Settings s = registeredRecord();
    std::string const before = form(s);
    EXPECT_EQ(s.reconfig(parse(obj), nullptr), "") << obj;
    EXPECT_EQ(form(s), before) << obj;
  }
}

TEST(Reconfig, NewSiteReplacesBothAddresses) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"secondary_site":"new.example.com"})"), nullptr),
            "Reconfigured settings: server address; alternative server address");
  EXPECT_EQ(s.InetConfig.serverAddress(), "new.example.com");
  EXPECT_EQ(s.InetConfig.altServerAddress(), "new.example.com");
}

TEST(Reconfig, SiteEqualToTheMainAddressReportsOnlyTheAlternative) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"secondary_site":"main.example.com"})"), nullptr),
            "Reconfigured settings: alternative server address");
  EXPECT_EQ(s.InetConfig.serverAddress(), "main.example.com");
  EXPECT_EQ(s.InetConfig.altServerAddress(), "main.example.com");
}

TEST(Reconfig, SiteEqualToTheAlternativeReportsOnlyTheMainAddress) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"secondary_site":"alt.example.com"})"), nullptr),
            "Reconfigured settings: server address");
  EXPECT_EQ(s.InetConfig.serverAddress(), "alt.example.com");
}

// ---------------------------------------------------------------------------
// Row 8: accepted extensions

TEST(Reconfig, EmptyAcceptListKeepsTheList) {
  Settings s = registeredRecord();
  std::string const before = text(s.SrvFileExts);
  ASSERT_NE(before, "[]");
  EXPECT_EQ(s.reconfig(parse(R"({"accept_xtn":[]})"), nullptr), "");
  EXPECT_EQ(text(s.SrvFileExts), before);
}

TEST(Reconfig, NonArrayAcceptListIsIgnored) {
  for (char const* obj : {R"({"accept_xtn":"pdf"})", R"({"accept_xtn":{"pdf":1}})",
                          R"({"accept_xtn":null})"}) {
    Settings s = registeredRecord();
    std::string const before = text(s.SrvFileExts);
    EXPECT_EQ(s.reconfig(parse(obj), nullptr), "") << obj;
    EXPECT_EQ(text(s.SrvFileExts), before) << obj;
  }
}

TEST(Reconfig, NewAcceptListIsCopied) {
  Settings s = registeredRecord();
  json::Object const srv = parse(R"({"accept_xtn":["pdf","TXT"]})");
  EXPECT_EQ(s.reconfig(srv, nullptr), "Reconfigured settings: accepted file types");
  EXPECT_EQ(text(s.SrvFileExts), R"(["pdf","TXT"])");
  EXPECT_NE(s.SrvFileExts.get(), srv["accept_xtn"].get());
  json_array_append_new(srv["accept_xtn"].get(), json_string("exe"));
  EXPECT_EQ(text(s.SrvFileExts), R"(["pdf","TXT"])");
}

TEST(Reconfig, SameAcceptListInAnotherOrderIsANewList) {
  Settings s = registeredRecord();
  s.SrvFileExts = array(R"(["pdf","txt"])");
  EXPECT_EQ(s.reconfig(parse(R"({"accept_xtn":["txt","pdf"]})"), nullptr),
            "Reconfigured settings: accepted file types");
  EXPECT_EQ(text(s.SrvFileExts), R"(["txt","pdf"])");
}

TEST(Reconfig, NewAcceptListLeavesTheBuiltSetAlone) {
  Settings s = registeredRecord();
  ASSERT_FALSE(s.isBadFileExt("a.pdf", false));
  ASSERT_TRUE(s.isBadFileExt("a.txt", false));
  EXPECT_EQ(s.reconfig(parse(R"({"accept_xtn":["txt"]})"), nullptr),
            "Reconfigured settings: accepted file types");
  EXPECT_FALSE(s.isBadFileExt("a.pdf", false));
  EXPECT_TRUE(s.isBadFileExt("a.txt", false));
  Settings const saved{s.serialize()};
  EXPECT_TRUE(saved.isBadFileExt("a.pdf", false));
  EXPECT_FALSE(saved.isBadFileExt("a.txt", false));
}

TEST(Reconfig, AcceptListElementsAreNotCheckedHere) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"accept_xtn":["pdf",5]})"), nullptr),
            "Reconfigured settings: accepted file types");
  EXPECT_EQ(jsonExcMessage([&] { s.isBadFileExt("a.pdf", false); }),
            "JSON error: Wrong type: integer. Expected type: string");
}

// ---------------------------------------------------------------------------
// Rows 9 and 10: registration reset and service stop

TEST(Reconfig, NegativeStopRequestsSuspension) {
  Settings s = registeredRecord();
  long long stop = kUntouched;
  EXPECT_EQ(s.reconfig(parse(R"({"service_stop":-1})"), &stop),
            "Reconfigured settings: requested " + Service::TERM4SVC + " suspension!");
  EXPECT_EQ(stop, -1);
}

TEST(Reconfig, PositiveStopRequestsPause) {
  Settings s = registeredRecord();
  long long stop = kUntouched;
  EXPECT_EQ(s.reconfig(parse(R"({"service_stop":60})"), &stop),
            "Reconfigured settings: requested " + Service::TERM4SVC + " pause for 60s");
  EXPECT_EQ(stop, 60);
}

TEST(Reconfig, ZeroStopRequestsPauseOfZero) {
  Settings s = registeredRecord();
  long long stop = kUntouched;
  EXPECT_EQ(s.reconfig(parse(R"({"service_stop":0})"), &stop),
            "Reconfigured settings: requested " + Service::TERM4SVC + " pause for 0s");
  EXPECT_EQ(stop, 0);
}

TEST(Reconfig, NonIntegerStopReadsAsZero) {
  for (char const* obj : {R"({"service_stop":"60"})", R"({"service_stop":60.5})",
                          R"({"service_stop":null})"}) {
    Settings s = registeredRecord();
    long long stop = kUntouched;
    EXPECT_EQ(s.reconfig(parse(obj), &stop),
              "Reconfigured settings: requested " + Service::TERM4SVC + " pause for 0s")
        << obj;
    EXPECT_EQ(stop, 0) << obj;
  }
}

TEST(Reconfig, StopIsIgnoredWithoutOutParameter) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"service_stop":60})"), nullptr), "");
  EXPECT_EQ(s.reconfig(parse(R"({"service_stop":-1})"), nullptr), "");
}

TEST(Reconfig, ResetWithoutStopReportsServiceReset) {
  Settings s = registeredRecord();
  long long stop = kUntouched;
  EXPECT_EQ(s.reconfig(parse(R"({"reset_registration":true})"), &stop),
            "Reconfigured settings: registration information reset (service reset)");
  EXPECT_EQ(stop, 0);
  EXPECT_EQ(s.SpoolerId, 0);
  EXPECT_EQ(s.KeyId, 0);
  EXPECT_EQ(s.PublicKey, "");
  EXPECT_EQ(s.AccountId, "acct-1");
}

TEST(Reconfig, ResetWithoutOutParameterIsStillReported) {
  Settings s = registeredRecord();
  EXPECT_EQ(s.reconfig(parse(R"({"reset_registration":true})"), nullptr),
            "Reconfigured settings: registration information reset");
  EXPECT_EQ(s.SpoolerId, 0);
  EXPECT_EQ(s.KeyId, 0);
  EXPECT_EQ(s.PublicKey, "");
}

TEST(Reconfig, ResetOfAnUnregisteredRecordIsStillReported) {
  Settings s{json::Object()};
  ASSERT_EQ(s.SpoolerId, 0);
  EXPECT_EQ(s.reconfig(parse(R"({"reset_registration":true})"), nullptr),
            "Reconfigured settings: registration information reset");
}

TEST(Reconfig, ResetWithStopReportsBoth) {
  Settings s = registeredRecord();
  long long stop = kUntouched;
  EXPECT_EQ(s.reconfig(parse(R"({"reset_registration":true,"service_stop":300})"), &stop),
            "Reconfigured settings: registration information reset; requested " +
                Service::TERM4SVC + " pause for 300s");
  EXPECT_EQ(stop, 300);
  Settings t = registeredRecord();
  stop = kUntouched;
  EXPECT_EQ(t.reconfig(parse(R"({"reset_registration":true,"service_stop":-5})"), &stop),
            "Reconfigured settings: registration information reset; requested " +
                Service::TERM4SVC + " suspension!");
  EXPECT_EQ(stop, -5);
}

TEST(Reconfig, ResetOtherThanTrueChangesNothing) {
  for (char const* obj : {R"({"reset_registration":false})", R"({"reset_registration":1})",
                          R"({"reset_registration":"true"})"}) {
    Settings s = registeredRecord();
    std::string const before = form(s);
    long long stop = kUntouched;
    EXPECT_EQ(s.reconfig(parse(obj), &stop), "") << obj;
    EXPECT_EQ(stop, kUntouched) << obj;
    EXPECT_EQ(form(s), before) << obj;
  }
}

// ---------------------------------------------------------------------------
// Everything at once

TEST(Reconfig, EveryRowChangedGivesTheFullLine) {
  Settings s = registeredRecord();
  long long stop = kUntouched;
  std::string const line = s.reconfig(
      parse(R"({"service_stop":300,"reset_registration":true,"accept_xtn":["txt"],)"
            R"("secondary_site":"new.example.com","backup_expire_secs":86400,)"
            R"("zip_min_files":3,"enable_remote_clients":true,"enable_logging":true,)"
            R"("account":"acct-2"})"),
      &stop);
  EXPECT_EQ(line,
            "Reconfigured settings: account; extra logging; configuration from remote clients; "
            "zip min files; backup; server address; alternative server address; accepted file "
            "types; registration information reset; requested " +
                Service::TERM4SVC + " pause for 300s");
  EXPECT_EQ(stop, 300);
  EXPECT_EQ(s.AccountId, "acct-2");
  EXPECT_TRUE(s.EnableLogging);
  EXPECT_TRUE(s.AllowRemoteConfig);
  EXPECT_EQ(s.MinFilesToZip, 3u);
  EXPECT_EQ(s.BackupExpireSecs, 86400u);
  EXPECT_EQ(s.InetConfig.serverAddress(), "new.example.com");
  EXPECT_EQ(s.InetConfig.altServerAddress(), "new.example.com");
  EXPECT_EQ(text(s.SrvFileExts), R"(["txt"])");
  EXPECT_EQ(s.SpoolerId, 0);
  EXPECT_EQ(s.KeyId, 0);
  EXPECT_EQ(s.PublicKey, "");
}
