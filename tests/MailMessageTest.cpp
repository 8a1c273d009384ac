// composeMail's exact bytes, the encodings of the subject and the body, and
// the checks of addresses: nothing from outside reaches a header.
#include "apps/svc/notify/MailMessage.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

// 2026-11-24T04:49:22Z
constexpr std::time_t kDate = 1795495762;

qxsvc::MailMessage sample() {
  qxsvc::MailMessage message;
  message.from = "qxlite@example.org";
  message.to = {"ops@example.org", "desk@example.com"};
  message.subject = "QXLite: 1 upload rejected";
  message.body = "Rejected: scan.pdf\n";
  message.date = kDate;
  message.messageId = "00112233445566778899aabbccddeeff@example.org";
  return message;
}

TEST(MailMessageTest, ComposesHeadersAndBase64Body) {
  EXPECT_EQ(
      "Date: Tue, 24 Nov 2026 04:49:22 +0000\r\n"
      "From: qxlite@example.org\r\n"
      "To: ops@example.org,\r\n"
      " desk@example.com\r\n"
      "Subject: QXLite: 1 upload rejected\r\n"
      "Message-ID: <00112233445566778899aabbccddeeff@example.org>\r\n"
      "Auto-Submitted: auto-generated\r\n"
      "MIME-Version: 1.0\r\n"
      "Content-Type: text/plain; charset=UTF-8\r\n"
      "Content-Transfer-Encoding: base64\r\n"
      "\r\n"
      "UmVqZWN0ZWQ6IHNjYW4ucGRmCg==\r\n",
      qxsvc::composeMail(sample()));
}

TEST(MailMessageTest, HostileBodyTextStaysEncoded) {
  qxsvc::MailMessage message = sample();
  message.to = {"ops@example.org"};
  message.body = "x\r\nBcc: victim@example.net\r\n.\r\n";
  std::string const mail = qxsvc::composeMail(message);
  EXPECT_EQ(std::string::npos, mail.find("Bcc"));
  EXPECT_EQ(
      "Content-Transfer-Encoding: base64\r\n"
      "\r\n"
      "eA0KQmNjOiB2aWN0aW1AZXhhbXBsZS5uZXQNCi4NCg==\r\n",
      mail.substr(mail.find("Content-Transfer-Encoding")));
}

TEST(MailMessageTest, LongBodyInLinesOf76) {
  std::string const lines = qxsvc::base64Lines(std::string(60, 'a'));
  EXPECT_EQ(
      "YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFh\r\n"
      "YWFh\r\n",
      lines);
  EXPECT_EQ("", qxsvc::base64Lines(""));
}

struct SubjectCase {
  char const* text;
  char const* header;
};

TEST(MailMessageTest, SubjectPlainOrEncodedWords) {
  SubjectCase const cases[] = {
      {"QXLite: 2 uploads done", "QXLite: 2 uploads done"},
      {"r\xC3\xA9sum\xC3\xA9", "=?UTF-8?B?csOpc3Vtw6k=?="},
      {"a\r\nBcc: x@y", "=?UTF-8?B?YQ0KQmNjOiB4QHk=?="},
      {"=?UTF-8?B?eA==?=", "=?UTF-8?B?PT9VVEYtOD9CP2VBPT0/PQ==?="},
      // 46 bytes: the two-byte letter that the cut at 45 would split goes
      // whole into the second word.
      {"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\xC3\xA9",
       "=?UTF-8?B?YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWE=?=\r\n =?UTF-8?B?w6k=?="},
  };
  for (SubjectCase const& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.header, qxsvc::encodeMailSubject(c.text));
  }
}

struct AddressCase {
  char const* address;
  char const* why;
};

TEST(MailMessageTest, ChecksAddresses) {
  AddressCase const cases[] = {
      {"ops@example.org", ""},
      {"first.last+tag@mail.example.org", ""},
      {"", "an empty address"},
      {"ops", "\"ops\" has no \"@\""},
      {"@example.org", "\"@example.org\" has nothing before the \"@\""},
      {"ops@", "\"ops@\" has no domain name after a single \"@\""},
      {"a@b@c", "\"a@b@c\" has no domain name after a single \"@\""},
      {"ops@example..org", "\"ops@example..org\" has no domain name after a single \"@\""},
      {"ops@example.org\r\nBcc: x@y",
       "an address with a blank, a control character or one of <>,\"();:\\[] is not accepted"},
      {"Ops <ops@example.org>",
       "an address with a blank, a control character or one of <>,\"();:\\[] is not accepted"},
  };
  for (AddressCase const& c : cases) {
    SCOPED_TRACE(c.address);
    EXPECT_EQ(c.why, qxsvc::checkMailAddress(c.address));
  }
}

TEST(MailMessageTest, SplitsRecipientLists) {
  EXPECT_EQ((std::vector<std::string>{"a@x.org", "b@y.org"}), qxsvc::splitMailAddresses(" a@x.org ,b@y.org,, "));
  try {
    qxsvc::splitMailAddresses("a@x.org, nobody");
    FAIL() << "a wrong address was taken";
  } catch (std::invalid_argument const& e) {
    EXPECT_STREQ("wrong address \"nobody\": \"nobody\" has no \"@\"", e.what());
  }
  try {
    qxsvc::splitMailAddresses(" , ");
    FAIL() << "an empty list was taken";
  } catch (std::invalid_argument const& e) {
    EXPECT_STREQ("no address is given", e.what());
  }
}

TEST(MailMessageTest, RefusesWrongAddressesInHeaders) {
  qxsvc::MailMessage message = sample();
  message.to = {"ops@example.org\r\nBcc: x@y"};
  EXPECT_THROW(qxsvc::composeMail(message), std::invalid_argument);
  message = sample();
  message.from = "";
  EXPECT_THROW(qxsvc::composeMail(message), std::invalid_argument);
}

TEST(MailMessageTest, MessageIdTakesTheSendersDomain) {
  std::string const id = qxsvc::newMessageId("qxlite@example.org");
  EXPECT_EQ(32u + 12u, id.size()) << id;
  EXPECT_EQ("@example.org", id.substr(32));
  EXPECT_NE(id, qxsvc::newMessageId("qxlite@example.org"));
}

}  // namespace
