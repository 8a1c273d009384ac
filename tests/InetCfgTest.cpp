// Tests of Inet::InetCfg: defaults, the address check of the proxy, the sparse
// JSON form and its tolerant reading, equality and the text dump. Also checks
// that the keys of InetCfg and EmailCfg stay clear of each other and of the
// keys of Settings, with which they share one flat object.
#include "shared/EmailCfg.h"
#include "shared/InetCfg.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <jansson.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qxtest::jsonExcMessage;
using qxtest::parse;

using Inet::InetCfg;
using Method = InetCfg::ProxyAuthMethod;

std::string sortedText(json::Object const& obj) { return json::jsonToString(obj, true); }

std::string serialized(InetCfg const& cfg) {
  json::Object obj;
  cfg.serialize(obj);
  return sortedText(obj);
}

using qxtest::keysOf;

// The arguments of the full constructor, so that a case can change one.
struct InetArgs {
  std::string server = "https://up.example.com/api";
  std::string altServer = "https://alt.example.com/api";
  bool useProxy = true;
  std::string proxy = "proxy.example.com:3128";
  bool tunnel = true;
  bool socks = true;
  bool insecureTls = true;
  Method auth = Method::Digest;
  std::string user = "jdoe";
  std::string password = "pr0xy-Secret";
  std::string version = "7.0.1";

  InetCfg build() const {
    return InetCfg(server, altServer, useProxy, proxy, tunnel, socks, insecureTls, auth, user,
                   password, version);
  }
};

InetCfg fullInet() { return InetArgs().build(); }

char const kFullInetJson[] =
    R"({"InetAltServer":"https://alt.example.com/api","InetInsecureTls":true,)"
    R"("InetProxy":"proxy.example.com:3128","InetProxyAuth":"digest",)"
    R"("InetProxyPassword":"pr0xy-Secret","InetProxySocks":true,"InetProxyTunnel":true,)"
    R"("InetProxyUser":"jdoe","InetServer":"https://up.example.com/api","InetUseProxy":true})";

void expectDefaults(InetCfg const& cfg) {
  EXPECT_EQ("", cfg.serverAddress());
  EXPECT_EQ("", cfg.altServerAddress());
  EXPECT_FALSE(cfg.useProxy());
  EXPECT_EQ("", cfg.proxyAddress());
  EXPECT_FALSE(cfg.proxyTunnel());
  EXPECT_FALSE(cfg.proxySocks());
  EXPECT_FALSE(cfg.insecureTls());
  EXPECT_EQ(Method::None, cfg.proxyAuth());
  EXPECT_EQ("", cfg.proxyUser());
  EXPECT_EQ("", cfg.proxyPassword());
}

struct AuthCase {
  Method method;
  char const* name;
};
AuthCase const kAuthCases[] = {
    {Method::None, "none"},     {Method::Basic, "basic"},         {Method::Digest, "digest"},
    {Method::Ntlm, "ntlm"},     {Method::Negotiate, "negotiate"}, {Method::Any, "any"},
};

// ------------------------------------------------------------- construction

TEST(InetCfg, VersionConstructorGivesDefaults) {
  InetCfg const cfg("7.0.1");
  expectDefaults(cfg);
  EXPECT_EQ("7.0.1", cfg.version());
}

TEST(InetCfg, FullConstructorKeepsEveryMember) {
  InetCfg const cfg = fullInet();
  EXPECT_EQ("https://up.example.com/api", cfg.serverAddress());
  EXPECT_EQ("https://alt.example.com/api", cfg.altServerAddress());
  EXPECT_TRUE(cfg.useProxy());
  EXPECT_EQ("proxy.example.com:3128", cfg.proxyAddress());
  EXPECT_TRUE(cfg.proxyTunnel());
  EXPECT_TRUE(cfg.proxySocks());
  EXPECT_TRUE(cfg.insecureTls());
  EXPECT_EQ(Method::Digest, cfg.proxyAuth());
  EXPECT_EQ("jdoe", cfg.proxyUser());
  EXPECT_EQ("pr0xy-Secret", cfg.proxyPassword());
  EXPECT_EQ("7.0.1", cfg.version());
}

TEST(InetCfg, SettersReplaceTheServerAddresses) {
  InetCfg cfg("v");
  cfg.setServerAddress("https://a.example.com");
  cfg.setAltServerAddress("https://b.example.com");
  EXPECT_EQ("https://a.example.com", cfg.serverAddress());
  EXPECT_EQ("https://b.example.com", cfg.altServerAddress());
}

TEST(InetCfg, FullConstructorAcceptsProxyAddressesWithValidOrNoPort) {
  char const* const accepted[] = {"",
                                  "proxy",
                                  "proxy:1",
                                  "proxy:65535",
                                  "proxy:3128",
                                  "proxy:08080",
                                  "10.0.0.1:8080",
                                  "[::1]:8080",
                                  "[fe80::1]",
                                  "::1",
                                  "http://proxy.example.com:3128/",
                                  "user:pw@proxy:8080"};
  for (char const* proxy : accepted) {
    InetArgs args;
    args.proxy = proxy;
    EXPECT_NO_THROW(args.build()) << proxy;
    EXPECT_EQ(proxy, args.build().proxyAddress()) << proxy;
  }
}

struct RefusedProxy {
  char const* proxy;
  char const* reason;
};
RefusedProxy const kRefusedProxies[] = {
    {"proxy:0", R"(port "0" is not a number from 1 to 65535)"},
    {"proxy:70000", R"(port "70000" is not a number from 1 to 65535)"},
    {"proxy:65536", R"(port "65536" is not a number from 1 to 65535)"},
    {"proxy:abc", R"(port "abc" is not a number from 1 to 65535)"},
    {"proxy:", R"(port "" is not a number from 1 to 65535)"},
    {"proxy:-1", R"(port "-1" is not a number from 1 to 65535)"},
    {"proxy:123456", R"(port "123456" is not a number from 1 to 65535)"},
    {"[::1]:0", R"(port "0" is not a number from 1 to 65535)"},
    {"[::1", "the IPv6 address has no closing ']'"},
    {"[::1]x", "unexpected text after the IPv6 address"},
};

TEST(InetCfg, FullConstructorRefusesProxyPortOutsideRange) {
  for (RefusedProxy const& c : kRefusedProxies) {
    InetArgs args;
    args.proxy = c.proxy;
    try {
      args.build();
      ADD_FAILURE() << c.proxy << ": no exception";
    } catch (std::invalid_argument const& e) {
      EXPECT_EQ(std::string("Inet: proxy address \"") + c.proxy + "\": " + c.reason, e.what())
          << c.proxy;
    }
  }
}

TEST(InetCfg, FullConstructorChecksTheProxyEvenWhenNotUsed) {
  InetArgs args;
  args.useProxy = false;
  args.proxy = "proxy:0";
  EXPECT_THROW(args.build(), std::invalid_argument);
}

TEST(InetCfg, ProxyAuthNameOfEachMethod) {
  for (AuthCase const& c : kAuthCases) {
    EXPECT_STREQ(c.name, InetCfg::proxyAuthName(c.method)) << c.name;
  }
}

// ---------------------------------------------------------------- serialize

TEST(InetCfg, DefaultRecordWritesNoKey) {
  EXPECT_EQ("{}", serialized(InetCfg("7.0.1")));
}

TEST(InetCfg, SerializeWritesEveryMemberThatIsSet) {
  EXPECT_EQ(kFullInetJson, serialized(fullInet()));
}

TEST(InetCfg, SerializeWritesOnlyMembersThatDifferFromTheDefault) {
  struct Case {
    char const* name;
    std::function<void(InetArgs&)> change;
    char const* expected;
  };
  Case const cases[] = {
      {"server", [](InetArgs& a) { a.server = "s"; }, R"({"InetServer":"s"})"},
      {"alternative server", [](InetArgs& a) { a.altServer = "t"; }, R"({"InetAltServer":"t"})"},
      {"use proxy", [](InetArgs& a) { a.useProxy = true; }, R"({"InetUseProxy":true})"},
      {"proxy", [](InetArgs& a) { a.proxy = "p:1"; }, R"({"InetProxy":"p:1"})"},
      {"tunnel", [](InetArgs& a) { a.tunnel = true; }, R"({"InetProxyTunnel":true})"},
      {"socks", [](InetArgs& a) { a.socks = true; }, R"({"InetProxySocks":true})"},
      {"insecure TLS", [](InetArgs& a) { a.insecureTls = true; }, R"({"InetInsecureTls":true})"},
      {"auth", [](InetArgs& a) { a.auth = Method::Any; }, R"({"InetProxyAuth":"any"})"},
      {"user", [](InetArgs& a) { a.user = "u"; }, R"({"InetProxyUser":"u"})"},
      {"password", [](InetArgs& a) { a.password = "pw"; }, R"({"InetProxyPassword":"pw"})"},
  };
  for (Case const& c : cases) {
    InetArgs args{"", "", false, "", false, false, false, Method::None, "", "", "7.0.1"};
    c.change(args);
    EXPECT_EQ(c.expected, serialized(args.build())) << c.name;
  }
}

TEST(InetCfg, SerializeNamesEachAuthMethodAndLeavesNoneOut) {
  for (AuthCase const& c : kAuthCases) {
    InetArgs args;
    args.auth = c.method;
    json::Object obj;
    args.build().serialize(obj);
    if (c.method == Method::None) {
      EXPECT_TRUE(obj["InetProxyAuth"].empty()) << c.name;
    } else {
      EXPECT_EQ(c.name, obj["InetProxyAuth"].asStringSafe()) << c.name;
    }
  }
}

TEST(InetCfg, SerializeNeverWritesTheVersion) {
  InetArgs args;
  args.version = "VERSION-TEXT";
  EXPECT_EQ(std::string::npos, serialized(args.build()).find("VERSION-TEXT"));
  EXPECT_EQ("{}", serialized(InetCfg("VERSION-TEXT")));
}

TEST(InetCfg, SerializeKeepsOtherKeysOfTheObject) {
  json::Object obj = parse(R"({"AccountId":"acc","IpcPort":7})");
  fullInet().serialize(obj);
  EXPECT_EQ("acc", obj["AccountId"].asStringSafe());
  EXPECT_EQ(7, obj["IpcPort"].asInt());
  EXPECT_EQ(12u, obj.size());
}

// -------------------------------------------------------------- deserialize

TEST(InetCfg, RoundTripKeepsEveryMember) {
  InetCfg const original = fullInet();
  json::Object obj;
  original.serialize(obj);
  InetCfg back("other version");
  back.deserialize(obj);
  EXPECT_TRUE(back == original);
  EXPECT_EQ(original.serverAddress(), back.serverAddress());
  EXPECT_EQ(original.altServerAddress(), back.altServerAddress());
  EXPECT_EQ(original.useProxy(), back.useProxy());
  EXPECT_EQ(original.proxyAddress(), back.proxyAddress());
  EXPECT_EQ(original.proxyTunnel(), back.proxyTunnel());
  EXPECT_EQ(original.proxySocks(), back.proxySocks());
  EXPECT_EQ(original.insecureTls(), back.insecureTls());
  EXPECT_EQ(original.proxyAuth(), back.proxyAuth());
  EXPECT_EQ(original.proxyUser(), back.proxyUser());
  EXPECT_EQ(original.proxyPassword(), back.proxyPassword());
  EXPECT_EQ("other version", back.version());
}

TEST(InetCfg, RoundTripOfEachAuthMethod) {
  for (AuthCase const& c : kAuthCases) {
    InetArgs args;
    args.auth = c.method;
    json::Object obj;
    args.build().serialize(obj);
    InetCfg back("v");
    back.deserialize(obj);
    EXPECT_EQ(c.method, back.proxyAuth()) << c.name;
  }
}

TEST(InetCfg, DeserializeResetsMissingKeysToDefaults) {
  InetCfg cfg = fullInet();
  cfg.deserialize(json::Object());
  expectDefaults(cfg);
  EXPECT_TRUE(cfg == InetCfg("7.0.1"));

  cfg = fullInet();
  cfg.deserialize(parse(R"({"InetServer":"only"})"));
  InetCfg expected("7.0.1");
  expected.setServerAddress("only");
  EXPECT_TRUE(cfg == expected) << cfg.dump();
}

TEST(InetCfg, DeserializeKeepsTheVersion) {
  InetCfg cfg("7.0.1");
  cfg.deserialize(parse(kFullInetJson));
  EXPECT_EQ("7.0.1", cfg.version());
}

TEST(InetCfg, DeserializeReadsExplicitNoneAuth) {
  InetCfg cfg = fullInet();
  cfg.deserialize(parse(R"({"InetProxyAuth":"none"})"));
  EXPECT_EQ(Method::None, cfg.proxyAuth());
}

TEST(InetCfg, DeserializeRefusesProxyPortOutsideRange) {
  for (RefusedProxy const& c : kRefusedProxies) {
    json::Object obj;
    obj.setAt("InetProxy", json::Value(c.proxy));
    InetCfg cfg("v");
    EXPECT_EQ(std::string("Inet: \"InetProxy\" \"") + c.proxy + "\": " + c.reason,
              jsonExcMessage([&] { cfg.deserialize(obj); }))
        << c.proxy;
  }
}

TEST(InetCfg, DeserializeRefusesPortZeroSeventyThousandAndText) {
  struct Case {
    char const* json;
    char const* message;
  };
  Case const cases[] = {
      {R"({"InetProxy":"proxy:0"})",
       R"(Inet: "InetProxy" "proxy:0": port "0" is not a number from 1 to 65535)"},
      {R"({"InetProxy":"proxy:70000"})",
       R"(Inet: "InetProxy" "proxy:70000": port "70000" is not a number from 1 to 65535)"},
      {R"({"InetProxy":"proxy:abc"})",
       R"(Inet: "InetProxy" "proxy:abc": port "abc" is not a number from 1 to 65535)"},
  };
  for (Case const& c : cases) {
    InetCfg cfg("v");
    EXPECT_EQ(c.message, jsonExcMessage([&] { cfg.deserialize(parse(c.json)); })) << c.json;
  }
}

TEST(InetCfg, DeserializeRefusesUnknownProxyAuth) {
  for (char const* name : {"kerberos", "NTLM", "basic "}) {
    json::Object obj;
    obj.setAt("InetProxyAuth", json::Value(name));
    InetCfg cfg("v");
    EXPECT_EQ(std::string("Inet: \"InetProxyAuth\" \"") + name +
                  "\" is not one of none, basic, digest, ntlm, negotiate, any",
              jsonExcMessage([&] { cfg.deserialize(obj); }))
        << name;
  }
}

TEST(InetCfg, WrongJsonTypesFallBackToDefaults) {
  char const wrong[] =
      R"({"InetServer":5,"InetAltServer":["x"],"InetUseProxy":"true","InetProxyTunnel":1,)"
      R"("InetProxySocks":false,"InetInsecureTls":null,"InetProxy":3128,"InetProxyAuth":1,)"
      R"("InetProxyUser":{"u":1},"InetProxyPassword":true})";
  InetCfg cfg = fullInet();
  EXPECT_NO_THROW(cfg.deserialize(parse(wrong)));
  expectDefaults(cfg);
}

TEST(InetCfg, FlagsAreReadTrueOnlyFromJsonTrue) {
  struct Case {
    char const* value;
    bool expected;
  };
  Case const cases[] = {{"true", true},   {"false", false}, {"1", false},
                        {"\"true\"", false}, {"null", false}, {"1.0", false}};
  for (Case const& c : cases) {
    InetCfg cfg("v");
    cfg.deserialize(parse(std::string(R"({"InetUseProxy":)") + c.value +
                          R"(,"InetProxyTunnel":)" + c.value + R"(,"InetProxySocks":)" +
                          c.value + R"(,"InetInsecureTls":)" + c.value + "}"));
    EXPECT_EQ(c.expected, cfg.useProxy()) << c.value;
    EXPECT_EQ(c.expected, cfg.proxyTunnel()) << c.value;
    EXPECT_EQ(c.expected, cfg.proxySocks()) << c.value;
    EXPECT_EQ(c.expected, cfg.insecureTls()) << c.value;
  }
}

// ----------------------------------------------------------------- equality

TEST(InetCfg, EqualityComparesEveryMemberButTheVersion) {
  struct Case {
    char const* name;
    std::function<void(InetArgs&)> change;
  };
  Case const cases[] = {
      {"server", [](InetArgs& a) { a.server += "x"; }},
      {"alternative server", [](InetArgs& a) { a.altServer += "x"; }},
      {"use proxy", [](InetArgs& a) { a.useProxy = false; }},
      {"proxy", [](InetArgs& a) { a.proxy = "proxy.example.com:3129"; }},
      {"tunnel", [](InetArgs& a) { a.tunnel = false; }},
      {"socks", [](InetArgs& a) { a.socks = false; }},
      {"insecure TLS", [](InetArgs& a) { a.insecureTls = false; }},
      {"auth", [](InetArgs& a) { a.auth = Method::Basic; }},
      {"user", [](InetArgs& a) { a.user += "x"; }},
      {"password", [](InetArgs& a) { a.password += "x"; }},
  };
  InetCfg const base = fullInet();
  EXPECT_TRUE(base == fullInet());
  EXPECT_FALSE(base != fullInet());
  for (Case const& c : cases) {
    InetArgs args;
    c.change(args);
    InetCfg const changed = args.build();
    EXPECT_FALSE(base == changed) << c.name;
    EXPECT_TRUE(base != changed) << c.name;
  }
  InetArgs otherVersion;
  otherVersion.version = "9.9.9";
  EXPECT_TRUE(base == otherVersion.build());
}

// --------------------------------------------------------------------- dump

TEST(InetCfg, DumpOfDefaultRecord) {
  EXPECT_EQ(
      "Server address: \n"
      "Alternative server address: \n"
      "Proxy: not used\n"
      "Server certificate check: on\n",
      InetCfg("7.0.1").dump());
}

TEST(InetCfg, DumpOfRecordWithHttpProxyThroughATunnel) {
  InetArgs args;
  args.socks = false;
  args.auth = Method::Ntlm;
  EXPECT_EQ(
      "Server address: https://up.example.com/api\n"
      "Alternative server address: https://alt.example.com/api\n"
      "Proxy: proxy.example.com:3128 (HTTP), tunnelled\n"
      "Proxy authentication: ntlm\n"
      "Proxy user: jdoe\n"
      "Proxy password: set\n"
      "Server certificate check: off\n",
      args.build().dump());
}

TEST(InetCfg, DumpOfRecordWithSocksProxyWithoutPassword) {
  InetArgs args;
  args.proxy = "socks.example.com:1080";
  args.tunnel = false;
  args.insecureTls = false;
  args.auth = Method::None;
  args.user = "";
  args.password = "";
  EXPECT_EQ(
      "Server address: https://up.example.com/api\n"
      "Alternative server address: https://alt.example.com/api\n"
      "Proxy: socks.example.com:1080 (SOCKS5)\n"
      "Proxy authentication: none\n"
      "Proxy user: \n"
      "Proxy password: not set\n"
      "Server certificate check: on\n",
      args.build().dump());
}

TEST(InetCfg, DumpNeverShowsThePassword) {
  for (bool useProxy : {true, false}) {
    InetArgs args;
    args.useProxy = useProxy;
    args.password = "Pa55-w0rd-9271";
    std::string const dump = args.build().dump();
    EXPECT_EQ(std::string::npos, dump.find("Pa55-w0rd-9271")) << dump;
    EXPECT_EQ('\n', dump.back());
  }
}

// ------------------------------------------------------------ shared object

// The keys of Settings, written into the same flat object.
char const* const kSettingsKeys[] = {
    "AccountId",   "SpoolerId",         "KeyId",            "PublicKey",
    "IgnoredExtension", "SrvFileExts",  "ReceiveFolder",    "SpoolFolder",
    "BackupExpireSecs", "BackupFolder", "EnableLogging",    "AllowRemoteConfig",
    "MinFilesToZip", "UseDirName",      "ConcurrentUploads", "IpcPort",
    "MaxConnIdleSecs", "IpcForceIP4",   "EnableCurlDbgLog", "BackupEnabled",
    "SmtpHost",    "SmtpPort"};

Inet::EmailCfg fullEmail() {
  return Inet::EmailCfg("smtp://mail.example.com:587", "mailer", "m41l-Secret", true, true, true,
                        "qx@example.com", "ops@example.com");
}

TEST(CfgKeys, InetKeysBeginWithInetAndEmailKeysWithEmail) {
  json::Object inetObj;
  fullInet().serialize(inetObj);
  std::set<std::string> const inetKeys = keysOf(inetObj);
  EXPECT_EQ(10u, inetKeys.size());
  for (std::string const& k : inetKeys) EXPECT_EQ(0u, k.rfind("Inet", 0)) << k;

  json::Object emailObj;
  fullEmail().serialize(emailObj);
  std::set<std::string> const emailKeys = keysOf(emailObj);
  EXPECT_EQ(8u, emailKeys.size());
  for (std::string const& k : emailKeys) EXPECT_EQ(0u, k.rfind("Email", 0)) << k;
}

TEST(CfgKeys, NoKeyCollidesWithTheKeysOfSettings) {
  json::Object obj;
  fullInet().serialize(obj);
  fullEmail().serialize(obj);
  std::set<std::string> const written = keysOf(obj);
  EXPECT_EQ(18u, written.size()) << sortedText(obj);
  for (char const* k : kSettingsKeys) EXPECT_EQ(0u, written.count(k)) << k;
}

TEST(CfgKeys, BothRecordsShareOneObjectWithSettingsKeys) {
  std::string settingsPart = "{";
  for (char const* k : kSettingsKeys) {
    settingsPart += std::string(settingsPart.size() > 1 ? "," : "") + "\"" + k + "\":\"" + k + "\"";
  }
  settingsPart += "}";
  json::Object obj = parse(settingsPart);
  fullInet().serialize(obj);
  fullEmail().serialize(obj);
  EXPECT_EQ(22u + 18u, obj.size());
  for (char const* k : kSettingsKeys) EXPECT_EQ(k, obj[k].asStringSafe()) << k;

  InetCfg inet("7.0.1");
  inet.deserialize(obj);
  EXPECT_TRUE(inet == fullInet()) << inet.dump();
  Inet::EmailCfg email;
  email.deserialize(obj);
  EXPECT_TRUE(email == fullEmail()) << email.dump();
}

}  // namespace
