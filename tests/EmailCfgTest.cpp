// Tests of Inet::EmailCfg: defaults, the SMTP URL check, the sparse JSON form
// and its tolerant reading, equality and the text dump.
#include "shared/EmailCfg.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

namespace {

using qxtest::jsonExcMessage;
using qxtest::parse;

using Inet::EmailCfg;


std::string serialized(EmailCfg const& cfg) {
  json::Object obj;
  cfg.serialize(obj);
  return json::jsonToString(obj, true);
}

// The arguments of the full constructor, so that a case can change one.
struct EmailArgs {
  std::string url = "smtp://mail.example.com:587";
  std::string user = "mailer";
  std::string password = "m41l-Secret";
  bool requireTls = true;
  bool notifySuccess = true;
  bool notifyFailure = true;
  std::string from = "qx@example.com";
  std::string to = "ops@example.com,boss@example.com";

  EmailCfg build() const {
    return EmailCfg(url, user, password, requireTls, notifySuccess, notifyFailure, from, to);
  }
};

char const kFullEmailJson[] =
    R"({"EmailFrom":"qx@example.com","EmailNotifyFailure":true,"EmailNotifySuccess":true,)"
    R"("EmailPassword":"m41l-Secret","EmailRequireTls":true,)"
    R"("EmailSmtpUrl":"smtp://mail.example.com:587","EmailTo":"ops@example.com,boss@example.com",)"
    R"("EmailUser":"mailer"})";

void expectDefaults(EmailCfg const& cfg) {
  EXPECT_EQ("", cfg.smtpUrl());
  EXPECT_EQ("", cfg.user());
  EXPECT_EQ("", cfg.password());
  EXPECT_FALSE(cfg.requireTls());
  EXPECT_FALSE(cfg.notifySuccess());
  EXPECT_FALSE(cfg.notifyFailure());
  EXPECT_EQ("", cfg.from());
  EXPECT_EQ("", cfg.to());
}

struct RefusedUrl {
  char const* name;
  std::string url;
  char const* reason;
};
RefusedUrl const kRefusedUrls[] = {
    {"port 99999", "smtp://mail.example.com:99999",
     R"(port "99999" is not a number from 1 to 65535)"},
    {"port 0", "smtp://mail.example.com:0", R"(port "0" is not a number from 1 to 65535)"},
    {"port 65536", "smtp://mail.example.com:65536",
     R"(port "65536" is not a number from 1 to 65535)"},
    {"port text", "smtp://mail.example.com:smtp", R"(port "smtp" is not a number from 1 to 65535)"},
    {"bare host with bad port", "mail.example.com:0", R"(port "0" is not a number from 1 to 65535)"},
    {"blank inside", "smtp://mail example.com", "blanks and control characters are not allowed"},
    {"leading blank", " smtp://mail.example.com", "blanks and control characters are not allowed"},
    {"trailing blank", "smtp://mail.example.com ", "blanks and control characters are not allowed"},
    {"tab", "smtp://mail.example.com\t", "blanks and control characters are not allowed"},
    {"line feed", "smtp://mail.example.com\n:25", "blanks and control characters are not allowed"},
    {"delete", "smtp://mail\x7f.example.com", "blanks and control characters are not allowed"},
    {"blank and bad port", "smtp://a b:99999", "blanks and control characters are not allowed"},
};

char const* const kAcceptedUrls[] = {"",
                                     "smtp://mail.example.com",
                                     "smtp://mail.example.com:25",
                                     "smtp://mail.example.com:1",
                                     "smtp://mail.example.com:65535",
                                     "smtps://mail.example.com:465",
                                     "mail.example.com",
                                     "mail.example.com:587",
                                     "smtp://[::1]:25",
                                     "smtp://user@mail.example.com:587"};

// ------------------------------------------------------------- construction

TEST(EmailCfg, SmtpProtocolPrefix) { EXPECT_EQ("smtp://", EmailCfg::SMTP_PROT_PREF); }

TEST(EmailCfg, DefaultConstructorGivesAnEmptyRecord) { expectDefaults(EmailCfg()); }

TEST(EmailCfg, FullConstructorKeepsEveryMember) {
  EmailCfg const cfg = EmailArgs().build();
  EXPECT_EQ("smtp://mail.example.com:587", cfg.smtpUrl());
  EXPECT_EQ("mailer", cfg.user());
  EXPECT_EQ("m41l-Secret", cfg.password());
  EXPECT_TRUE(cfg.requireTls());
  EXPECT_TRUE(cfg.notifySuccess());
  EXPECT_TRUE(cfg.notifyFailure());
  EXPECT_EQ("qx@example.com", cfg.from());
  EXPECT_EQ("ops@example.com,boss@example.com", cfg.to());
}

TEST(EmailCfg, SetSmtpUrlReplacesTheUrl) {
  EmailCfg cfg;
  cfg.setSmtpUrl("smtp://other.example.com");
  EXPECT_EQ("smtp://other.example.com", cfg.smtpUrl());
}

TEST(EmailCfg, CheckSmtpUrlAcceptsUrlsHostsAndValidPorts) {
  for (char const* url : kAcceptedUrls) {
    EXPECT_EQ("", EmailCfg::checkSmtpUrl(url)) << url;
  }
}

TEST(EmailCfg, CheckSmtpUrlGivesTheReasonOfARefusal) {
  for (RefusedUrl const& c : kRefusedUrls) {
    EXPECT_EQ(c.reason, EmailCfg::checkSmtpUrl(c.url)) << c.name;
  }
}

TEST(EmailCfg, FullConstructorAcceptsUrlsHostsAndValidPorts) {
  for (char const* url : kAcceptedUrls) {
    EmailArgs args;
    args.url = url;
    EXPECT_NO_THROW(args.build()) << url;
  }
}

TEST(EmailCfg, FullConstructorRefusesBadUrls) {
  for (RefusedUrl const& c : kRefusedUrls) {
    EmailArgs args;
    args.url = c.url;
    try {
      args.build();
      ADD_FAILURE() << c.name << ": no exception";
    } catch (std::invalid_argument const& e) {
      EXPECT_EQ("Inet: SMTP URL \"" + c.url + "\": " + c.reason, e.what()) << c.name;
    }
  }
}

// ---------------------------------------------------------------- serialize

TEST(EmailCfg, DefaultRecordWritesNoKey) { EXPECT_EQ("{}", serialized(EmailCfg())); }

TEST(EmailCfg, SerializeWritesEveryMemberThatIsSet) {
  EXPECT_EQ(kFullEmailJson, serialized(EmailArgs().build()));
}

TEST(EmailCfg, SerializeWritesOnlyMembersThatAreSet) {
  struct Case {
    char const* name;
    std::function<void(EmailArgs&)> change;
    char const* expected;
  };
  Case const cases[] = {
      {"url", [](EmailArgs& a) { a.url = "mail"; }, R"({"EmailSmtpUrl":"mail"})"},
      {"user", [](EmailArgs& a) { a.user = "u"; }, R"({"EmailUser":"u"})"},
      {"password", [](EmailArgs& a) { a.password = "p"; }, R"({"EmailPassword":"p"})"},
      {"require TLS", [](EmailArgs& a) { a.requireTls = true; }, R"({"EmailRequireTls":true})"},
      {"notify success", [](EmailArgs& a) { a.notifySuccess = true; },
       R"({"EmailNotifySuccess":true})"},
      {"notify failure", [](EmailArgs& a) { a.notifyFailure = true; },
       R"({"EmailNotifyFailure":true})"},
      {"from", [](EmailArgs& a) { a.from = "f@x"; }, R"({"EmailFrom":"f@x"})"},
      {"to", [](EmailArgs& a) { a.to = "t@x"; }, R"({"EmailTo":"t@x"})"},
  };
  for (Case const& c : cases) {
    EmailArgs args{"", "", "", false, false, false, "", ""};
    c.change(args);
    EXPECT_EQ(c.expected, serialized(args.build())) << c.name;
  }
}

TEST(EmailCfg, SerializeKeepsOtherKeysOfTheObject) {
  json::Object obj = parse(R"({"SmtpHost":"old.example.com","SmtpPort":25})");
  EmailArgs().build().serialize(obj);
  EXPECT_EQ("old.example.com", obj["SmtpHost"].asStringSafe());
  EXPECT_EQ(25, obj["SmtpPort"].asInt());
  EXPECT_EQ(10u, obj.size());
}

// -------------------------------------------------------------- deserialize

TEST(EmailCfg, RoundTripKeepsEveryMember) {
  EmailCfg const original = EmailArgs().build();
  json::Object obj;
  original.serialize(obj);
  EmailCfg back;
  back.deserialize(obj);
  EXPECT_TRUE(back == original);
  EXPECT_EQ(original.smtpUrl(), back.smtpUrl());
  EXPECT_EQ(original.user(), back.user());
  EXPECT_EQ(original.password(), back.password());
  EXPECT_EQ(original.requireTls(), back.requireTls());
  EXPECT_EQ(original.notifySuccess(), back.notifySuccess());
  EXPECT_EQ(original.notifyFailure(), back.notifyFailure());
  EXPECT_EQ(original.from(), back.from());
  EXPECT_EQ(original.to(), back.to());
}

TEST(EmailCfg, DeserializeResetsMissingKeysToDefaults) {
  EmailCfg cfg = EmailArgs().build();
  cfg.deserialize(json::Object());
  expectDefaults(cfg);

  cfg = EmailArgs().build();
  cfg.deserialize(parse(R"({"EmailTo":"only@example.com"})"));
  EXPECT_TRUE(cfg == EmailCfg("", "", "", false, false, false, "", "only@example.com"))
      << cfg.dump();
}

TEST(EmailCfg, DeserializeRefusesBadUrls) {
  for (RefusedUrl const& c : kRefusedUrls) {
    json::Object obj;
    obj.setAt("EmailSmtpUrl", json::Value(c.url));
    EmailCfg cfg;
    EXPECT_EQ("Inet: \"EmailSmtpUrl\" \"" + c.url + "\": " + c.reason,
              jsonExcMessage([&] { cfg.deserialize(obj); }))
        << c.name;
  }
}

TEST(EmailCfg, DeserializeRefusesPortNinetyNineThousandAndABlank) {
  struct Case {
    char const* json;
    char const* message;
  };
  Case const cases[] = {
      {R"({"EmailSmtpUrl":"smtp://mail.example.com:99999"})",
       R"(Inet: "EmailSmtpUrl" "smtp://mail.example.com:99999": port "99999" is not a number from 1 to 65535)"},
      {R"({"EmailSmtpUrl":"smtp://mail example.com"})",
       R"(Inet: "EmailSmtpUrl" "smtp://mail example.com": blanks and control characters are not allowed)"},
  };
  for (Case const& c : cases) {
    EmailCfg cfg;
    EXPECT_EQ(c.message, jsonExcMessage([&] { cfg.deserialize(parse(c.json)); })) << c.json;
  }
}

TEST(EmailCfg, DeserializeAcceptsUrlsHostsAndValidPorts) {
  for (char const* url : kAcceptedUrls) {
    json::Object obj;
    obj.setAt("EmailSmtpUrl", json::Value(url));
    EmailCfg cfg;
    EXPECT_NO_THROW(cfg.deserialize(obj)) << url;
    EXPECT_EQ(url, cfg.smtpUrl()) << url;
  }
}

TEST(EmailCfg, WrongJsonTypesFallBackToDefaults) {
  char const wrong[] =
      R"({"EmailSmtpUrl":25,"EmailUser":["u"],"EmailPassword":{"p":1},"EmailRequireTls":"true",)"
      R"("EmailNotifySuccess":1,"EmailNotifyFailure":null,"EmailFrom":false,"EmailTo":2.5})";
  EmailCfg cfg = EmailArgs().build();
  EXPECT_NO_THROW(cfg.deserialize(parse(wrong)));
  expectDefaults(cfg);
}

TEST(EmailCfg, FlagsAreReadTrueOnlyFromJsonTrue) {
  struct Case {
    char const* value;
    bool expected;
  };
  Case const cases[] = {{"true", true},      {"false", false}, {"1", false},
                        {"\"true\"", false}, {"null", false},  {"[true]", false}};
  for (Case const& c : cases) {
    EmailCfg cfg;
    cfg.deserialize(parse(std::string(R"({"EmailRequireTls":)") + c.value +
                          R"(,"EmailNotifySuccess":)" + c.value + R"(,"EmailNotifyFailure":)" +
                          c.value + "}"));
    EXPECT_EQ(c.expected, cfg.requireTls()) << c.value;
    EXPECT_EQ(c.expected, cfg.notifySuccess()) << c.value;
    EXPECT_EQ(c.expected, cfg.notifyFailure()) << c.value;
  }
}

// ----------------------------------------------------------------- equality

TEST(EmailCfg, EqualityComparesEveryMember) {
  struct Case {
    char const* name;
    std::function<void(EmailArgs&)> change;
  };
  Case const cases[] = {
      {"url", [](EmailArgs& a) { a.url = "smtp://mail.example.com:588"; }},
      {"user", [](EmailArgs& a) { a.user += "x"; }},
      {"password", [](EmailArgs& a) { a.password += "x"; }},
      {"require TLS", [](EmailArgs& a) { a.requireTls = false; }},
      {"notify success", [](EmailArgs& a) { a.notifySuccess = false; }},
      {"notify failure", [](EmailArgs& a) { a.notifyFailure = false; }},
      {"from", [](EmailArgs& a) { a.from += "x"; }},
      {"to", [](EmailArgs& a) { a.to += "x"; }},
  };
  EmailCfg const base = EmailArgs().build();
  EXPECT_TRUE(base == EmailArgs().build());
  EXPECT_FALSE(base != EmailArgs().build());
  for (Case const& c : cases) {
    EmailArgs args;
    c.change(args);
    EmailCfg const changed = args.build();
    EXPECT_FALSE(base == changed) << c.name;
    EXPECT_TRUE(base != changed) << c.name;
  }
  EXPECT_TRUE(EmailCfg() == EmailCfg());
}

// --------------------------------------------------------------------- dump

TEST(EmailCfg, DumpWithoutSmtpServerIsOneLine) {
  EXPECT_EQ("E-mail notices: off (no SMTP server)\n", EmailCfg().dump());
  EmailArgs args;
  args.url = "";
  EXPECT_EQ("E-mail notices: off (no SMTP server)\n", args.build().dump());
}

TEST(EmailCfg, DumpOfFullRecord) {
  EXPECT_EQ(
      "SMTP server: smtp://mail.example.com:587\n"
      "SMTP user: mailer\n"
      "SMTP password: set\n"
      "SMTP TLS: required\n"
      "E-mail on success: yes\n"
      "E-mail on failure: yes\n"
      "E-mail from: qx@example.com\n"
      "E-mail to: ops@example.com,boss@example.com\n",
      EmailArgs().build().dump());
}

TEST(EmailCfg, DumpOfRecordWithOnlyAServer) {
  EXPECT_EQ(
      "SMTP server: mail.example.com\n"
      "SMTP user: \n"
      "SMTP password: not set\n"
      "SMTP TLS: optional\n"
      "E-mail on success: no\n"
      "E-mail on failure: no\n"
      "E-mail from: \n"
      "E-mail to: \n",
      EmailCfg("mail.example.com", "", "", false, false, false, "", "").dump());
}

TEST(EmailCfg, DumpNeverShowsThePassword) {
  for (char const* url : {"smtp://mail.example.com", ""}) {
    EmailArgs args;
    args.url = url;
    args.password = "Pa55-w0rd-4418";
    std::string const dump = args.build().dump();
    EXPECT_EQ(std::string::npos, dump.find("Pa55-w0rd-4418")) << dump;
  }
}

}  // namespace
