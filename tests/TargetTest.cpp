// parseTarget: every scheme, hosts of each kind, and the exact sentence of
// every refusal; objectUrl's encoding of keys with blanks, UTF-8 and the
// characters that mean something in a URL.
#include "apps/svc/upload/Target.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qxsvc::Protocol;
using qxsvc::Target;

struct Accepted {
  char const* address;
  Protocol protocol;
  char const* origin;
  char const* bucket;
  char const* prefix;
  char const* region;
  char const* display;
};

TEST(TargetTest, ReadsEveryScheme) {
  Accepted const cases[] = {
      {"s3://127.0.0.1:7480/docs", Protocol::S3, "http://127.0.0.1:7480", "docs", "", "us-east-1",
       "s3://127.0.0.1:7480/docs"},
      {"s3s://store.example.com/docs/in/box/", Protocol::S3, "https://store.example.com", "docs", "in/box",
       "us-east-1", "s3s://store.example.com/docs/in/box"},
      {"s3://[::1]:9000/my.bucket-1/a%20b?region=eu-west-3", Protocol::S3, "http://[::1]:9000", "my.bucket-1",
       "a b", "eu-west-3", "s3://[::1]:9000/my.bucket-1/a b?region=eu-west-3"},
      {"S3://host/docs//x", Protocol::S3, "http://host", "docs", "x", "us-east-1", "s3://host/docs/x"},
      {"dav://127.0.0.1:8080/dav/up", Protocol::WebDav, "http://127.0.0.1:8080", "", "dav/up", "",
       "http://127.0.0.1:8080/dav/up"},
      {"davs://files.example.org", Protocol::WebDav, "https://files.example.org", "", "", "",
       "https://files.example.org/"},
      {"http://h-1.example:1/dav/", Protocol::WebDav, "http://h-1.example:1", "", "dav", "",
       "http://h-1.example:1/dav"},
      {"https://[2001:db8::7]/r%C3%A9sum%C3%A9", Protocol::WebDav, "https://[2001:db8::7]", "",
       "r\xC3\xA9sum\xC3\xA9", "", "https://[2001:db8::7]/r\xC3\xA9sum\xC3\xA9"},
  };
  for (Accepted const& c : cases) {
    SCOPED_TRACE(c.address);
    Target target;
    std::string why = "stale";
    ASSERT_TRUE(qxsvc::parseTarget(c.address, target, why)) << why;
    EXPECT_EQ("", why);
    EXPECT_EQ(c.protocol, target.protocol);
    EXPECT_EQ(c.origin, target.origin);
    EXPECT_EQ(c.bucket, target.bucket);
    EXPECT_EQ(c.prefix, target.prefix);
    EXPECT_EQ(c.region, target.region);
    EXPECT_EQ(c.display, target.display());
  }
}

struct Refused {
  char const* address;
  char const* why;
};

TEST(TargetTest, RefusesWithAReason) {
  Refused const cases[] = {
      {"", "the server address is empty"},
      {"ftp://x",
       "the server address \"ftp://x\" has an unknown scheme \"ftp\": use s3://, s3s://, dav://, "
       "davs://, http:// or https://"},
      {"127.0.0.1:7480/docs",
       "the server address \"127.0.0.1:7480/docs\" has no scheme: use s3://, s3s://, "
       "dav://, davs://, http:// or https://"},
      {"s3://KEY:SECRET@host/docs",
       "the server address \"s3://KEY:SECRET@host/docs\" holds a user name or password: put them in the "
       "credentials file"},
      {"dav://user@host/x",
       "the server address \"dav://user@host/x\" holds a user name or password: put them "
       "in the credentials file"},
      {"s3://host/a b", "the server address \"s3://host/a b\" holds a blank or a control character"},
      {"s3://host/a\tb", "the server address \"s3://host/a\tb\" holds a blank or a control character"},
      {"s3:///docs", "the server address \"s3:///docs\" has no host"},
      {"s3://ho_st/docs", "the server address \"s3://ho_st/docs\" has an invalid host \"ho_st\""},
      {"s3://-host/docs", "the server address \"s3://-host/docs\" has an invalid host \"-host\""},
      {"s3://[zz::1]/docs", "the server address \"s3://[zz::1]/docs\" has an invalid host \"[zz::1]\""},
      {"s3://[::1/docs", "the server address \"s3://[::1/docs\" has an invalid host \"[::1\""},
      {"s3://host:0/docs",
       "the server address \"s3://host:0/docs\" has an invalid port \"0\": use a number "
       "from 1 to 65535"},
      {"s3://host:65536/docs",
       "the server address \"s3://host:65536/docs\" has an invalid port \"65536\": "
       "use a number from 1 to 65535"},
      {"s3://host:80a/docs",
       "the server address \"s3://host:80a/docs\" has an invalid port \"80a\": use a "
       "number from 1 to 65535"},
      {"s3://host:/docs",
       "the server address \"s3://host:/docs\" has an invalid port \"\": use a number from "
       "1 to 65535"},
      {"s3://host", "the server address \"s3://host\" has no bucket: use s3://host/bucket"},
      {"s3://host/", "the server address \"s3://host/\" has no bucket: use s3://host/bucket"},
      {"s3://host/Docs",
       "the server address \"s3://host/Docs\" has an invalid bucket name \"Docs\": use 3 to "
       "63 lower-case letters, digits, \".\" and \"-\""},
      {"s3://host/ab",
       "the server address \"s3://host/ab\" has an invalid bucket name \"ab\": use 3 to 63 "
       "lower-case letters, digits, \".\" and \"-\""},
      {"s3://host/docs?acl",
       "the server address \"s3://host/docs?acl\" has an unknown parameter \"acl\": only "
       "\"region=NAME\" is allowed"},
      {"s3://host/docs?region=", "the server address \"s3://host/docs?region=\" has an invalid region \"\""},
      {"s3://host/docs?region=a&b",
       "the server address \"s3://host/docs?region=a&b\" has an invalid region "
       "\"a&b\""},
      {"dav://host/x?y=1",
       "the server address \"dav://host/x?y=1\" has a query \"?y=1\": WebDAV addresses "
       "take none"},
      {"dav://host/x?", "the server address \"dav://host/x?\" has a query \"?\": WebDAV addresses take none"},
      {"dav://host/x#top", "the server address \"dav://host/x#top\" has a fragment \"#top\": remove it"},
      {"dav://host/a/../b",
       "the server address \"dav://host/a/../b\" has a path segment \"..\" that is not a "
       "name"},
      {"dav://host/a/%2e%2E/b",
       "the server address \"dav://host/a/%2e%2E/b\" has a path segment \"%2e%2E\" "
       "that is not a name"},
      {"dav://host/a%2Fb",
       "the server address \"dav://host/a%2Fb\" has a path segment \"a%2Fb\" that is not "
       "a name"},
      {"dav://host/100%", "the server address \"dav://host/100%\" has a broken percent escape in \"100%\""},
      {"dav://host/%zz", "the server address \"dav://host/%zz\" has a broken percent escape in \"%zz\""},
      {"dav://host/a%0Ab", "the server address \"dav://host/a%0Ab\" has a control character in its path"},
  };
  for (Refused const& c : cases) {
    SCOPED_TRACE(c.address);
    Target target;
    target.origin = "untouched";
    std::string why;
    EXPECT_FALSE(qxsvc::parseTarget(c.address, target, why));
    EXPECT_EQ(c.why, why);
    EXPECT_EQ("untouched", target.origin);
  }
}

struct Url {
  char const* address;
  char const* key;
  char const* url;
};

TEST(TargetTest, ObjectUrlEncodesEverySegment) {
  Url const cases[] = {
      {"s3://127.0.0.1:7480/docs", "a/b.pdf", "http://127.0.0.1:7480/docs/a/b.pdf"},
      {"s3://127.0.0.1:7480/docs/in%20box", "acct/7/2026-11-23/j1/my file.pdf",
       "http://127.0.0.1:7480/docs/in%20box/acct/7/2026-11-23/j1/my%20file.pdf"},
      {"dav://h/dav", "x/100%+1#2?.txt", "http://h/dav/x/100%25%2B1%232%3F.txt"},
      {"davs://h", "\xC3\xA9t\xC3\xA9 & co/~a_b-c.d", "https://h/%C3%A9t%C3%A9%20%26%20co/~a_b-c.d"},
  };
  for (Url const& c : cases) {
    SCOPED_TRACE(std::string(c.address) + " " + c.key);
    Target target;
    std::string why;
    ASSERT_TRUE(qxsvc::parseTarget(c.address, target, why)) << why;
    EXPECT_EQ(c.url, target.objectUrl(c.key));
  }
}

}  // namespace
