// objectKey's layout, percentEncode's bytes, and alternativeKey's names.
#include "apps/svc/upload/ObjectKey.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// 2026-11-23T20:33:48Z
constexpr std::time_t kCreated = 1795466028;

struct KeyCase {
  char const* account;
  long long spooler;
  char const* job;
  char const* name;
  char const* key;
};

TEST(ObjectKeyTest, LaysOutAccountSpoolerDayJobAndName) {
  KeyCase const cases[] = {
      {"acct1", 7, "j-1", "report.pdf", "acct1/7/2026-11-23/j-1/report.pdf"},
      {"", 0, "j", "a b.pdf", "-/0/2026-11-23/j/a b.pdf"},
      {"acct", -3, "j", "folder/sub/r\xC3\xA9sum\xC3\xA9 100%+#?.txt",
       "acct/-3/2026-11-23/j/folder/sub/r\xC3\xA9sum\xC3\xA9 100%+#?.txt"},
      // A "/" in an id makes no segment; empty, "." and ".." segments of a name
      // cannot climb out of the job's folder.
      {"a/b", 1, "j/k", "x", "a_b/1/2026-11-23/j_k/x"},
      {"..", 1, ".", "../../etc/passwd", "_../1/2026-11-23/_./_../_../etc/passwd"},
      {"a", 1, "j", "x//y/./z/", "a/1/2026-11-23/j/x/_/y/_./z/_"},
      {"a", 1, "j", "", "a/1/2026-11-23/j/_"},
  };
  for (KeyCase const& c : cases) {
    SCOPED_TRACE(std::string(c.account) + " | " + c.job + " | " + c.name);
    EXPECT_EQ(c.key, qxsvc::objectKey(c.account, c.spooler, kCreated, c.job, c.name));
  }
}

TEST(ObjectKeyTest, DayIsTheUtcDayOfCreation) {
  EXPECT_EQ("a/1/1970-01-01/j/n", qxsvc::objectKey("a", 1, 0, "j", "n"));
  EXPECT_EQ("a/1/2026-11-23/j/n", qxsvc::objectKey("a", 1, 1795478399, "j", "n"));  // 23:59:59
  EXPECT_EQ("a/1/2026-11-24/j/n", qxsvc::objectKey("a", 1, 1795478400, "j", "n"));
}

struct EncodeCase {
  std::string text;
  bool keepSlash;
  char const* encoded;
};

TEST(ObjectKeyTest, PercentEncodesAllButUnreservedBytes) {
  EncodeCase const cases[] = {
      {"AZaz09-._~", false, "AZaz09-._~"},
      {"a b/c", true, "a%20b/c"},
      {"a b/c", false, "a%20b%2Fc"},
      {"100%+#?&=;:@!$'()*,[]", true, "100%25%2B%23%3F%26%3D%3B%3A%40%21%24%27%28%29%2A%2C%5B%5D"},
      {"r\xC3\xA9sum\xC3\xA9", true, "r%C3%A9sum%C3%A9"},
      {std::string("nul\0ff\xff", 7), false, "nul%00ff%FF"},
      {"", true, ""},
  };
  for (EncodeCase const& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.encoded, qxsvc::percentEncode(c.text, c.keepSlash));
  }
}

struct AlternativeCase {
  char const* key;
  unsigned n;
  char const* alternative;
};

TEST(ObjectKeyTest, AlternativeKeysNumberTheLastSegment) {
  AlternativeCase const cases[] = {
      {"a/1/d/j/name.pdf", 2, "a/1/d/j/name_2.pdf"},
      {"a/1/d/j/name.pdf", 3, "a/1/d/j/name_3.pdf"},
      {"a/1/d/j/archive.tar.gz", 2, "a/1/d/j/archive.tar_2.gz"},
      {"a/1/d/j/README", 2, "a/1/d/j/README_2"},
      {"a/1/d/j/.profile", 2, "a/1/d/j/.profile_2"},
      {"a/1/d.x/j/noext", 12, "a/1/d.x/j/noext_12"},
      {"a/1/d/j/my file \xC3\xA9.txt", 2, "a/1/d/j/my file \xC3\xA9_2.txt"},
      {"plain.txt", 2, "plain_2.txt"},
      {"a/1/d/j/name.pdf", 1, "a/1/d/j/name.pdf"},
  };
  for (AlternativeCase const& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + std::to_string(c.n));
    EXPECT_EQ(c.alternative, qxsvc::alternativeKey(c.key, c.n));
  }
}

}  // namespace
