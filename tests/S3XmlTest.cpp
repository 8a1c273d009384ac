// The S3 answers' XML as the transfers read it: texts, entities, ranges,
// and bodies built to make a reader slow or wrong.
#include "apps/svc/upload/S3Xml.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

struct TextCase {
  std::string body;
  char const* tag;
  std::size_t from;
  std::size_t to;
  std::string text;
};

TEST(S3XmlTest, TextOfTheFirstElementInTheRange) {
  std::string const error =
      "<Error><Code>NoSuchKey</Code><Message>a &lt;b&gt; &amp; &quot;c&quot;</Message></Error>";
  TextCase const cases[] = {
      {error, "Code", 0, std::string::npos, "NoSuchKey"},
      {error, "Message", 0, std::string::npos, "a <b> & \"c\""},
      {error, "Missing", 0, std::string::npos, ""},
      {"<ETag>&#34;0a1b&#34;</ETag>", "ETag", 0, std::string::npos, "\"0a1b\""},
      {"<ETag>&apos;x&#39; &unknown; &amp</ETag>", "ETag", 0, std::string::npos, "'x' &unknown; &amp"},
      {"<Code>open", "Code", 0, std::string::npos, ""},
      {"</Code>x<Code>", "Code", 0, std::string::npos, ""},
      {"<Code></Code>", "Code", 0, std::string::npos, ""},
      {"<Code>a</Code><Code>b</Code>", "Code", 1, std::string::npos, "b"},
      // The element must lie in the range whole.
      {"<Code>a</Code><Code>b</Code>", "Code", 0, 10, ""},
      {"<Code>a</Code><Code>b</Code>", "Code", 0, 14, "a"},
      {"<Code>a</Code>", "Code", 20, 30, ""},
      {"<CodeX>a</CodeX><Code>b</Code>", "Code", 0, std::string::npos, "b"},
      {"", "Code", 0, std::string::npos, ""},
  };
  for (TextCase const& c : cases) {
    SCOPED_TRACE(c.body + " " + c.tag + " [" + std::to_string(c.from) + ", " + std::to_string(c.to) + ")");
    EXPECT_EQ(c.text, qxsvc::xmlText(c.body, c.tag, c.from, c.to));
  }
}

TEST(S3XmlTest, ElementsInOrder) {
  std::string const body = "<L><Part><N>1</N></Part><Part><N>2</N></Part><Part><N>3</N></L>";
  auto const ranges = qxsvc::xmlElements(body, "Part");
  ASSERT_EQ(2u, ranges.size());
  EXPECT_EQ("1", qxsvc::xmlText(body, "N", ranges[0].first, ranges[0].second));
  EXPECT_EQ("2", qxsvc::xmlText(body, "N", ranges[1].first, ranges[1].second));
  EXPECT_EQ(0u, qxsvc::xmlElements("<Part><Part>", "Part").size());
  EXPECT_EQ(0u, qxsvc::xmlElements("", "Part").size());
}

TEST(S3XmlTest, EscapeForAnElement) {
  struct Case {
    char const* text;
    char const* escaped;
  } const cases[] = {
      {"\"0a1b\"", "&quot;0a1b&quot;"},
      {"a<b>&c", "a&lt;b&gt;&amp;c"},
      {"plain", "plain"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.escaped, qxsvc::xmlEscape(c.text));
  }
}

TEST(S3XmlTest, CleanQuoteIsOneBoundedLine) {
  struct Case {
    std::string text;
    std::string quoted;
  } const cases[] = {
      {"Access Denied", "Access Denied"},
      {"a\r\nb\x01\x7f"
       "c",
       "a  b  c"},
      {"trailing \r\n", "trailing"},
      {"r\xC3\xA9sum\xC3\xA9", "r\xC3\xA9sum\xC3\xA9"},
      {std::string(300, 'x'), std::string(300, 'x')},
      {std::string(301, 'x'), std::string(300, 'x') + "..."},
      {"", ""},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    EXPECT_EQ(c.quoted, qxsvc::cleanQuote(c.text));
  }
}

TEST(S3XmlTest, DecimalNumbersOnly) {
  struct Case {
    char const* text;
    bool ok;
    std::uint64_t value;
  } const cases[] = {
      {"0", true, 0},   {"10000", true, 10000}, {"9999999999999999999", true, 9999999999999999999ull},
      {"", false, 0},   {"-1", false, 0},       {"1a", false, 0},
      {" 1", false, 0}, {"+1", false, 0},       {"18446744073709551616", false, 0},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    std::uint64_t value = 7;
    EXPECT_EQ(c.ok, qxsvc::parseDecimal(c.text, value));
    if (c.ok) {
      EXPECT_EQ(c.value, value);
    }
  }
}

TEST(S3XmlTest, LargeHostileBodiesTakeLinearTime) {
  // 8 MiB of elements without the texts that are looked for in each: a
  // search past each element's end would take hours.
  std::string body;
  while (body.size() < (8u << 20)) body += "<Part><Size>1</Size></Part>";
  body += "<PartNumber>7</PartNumber>";
  auto const started = std::chrono::steady_clock::now();
  auto const ranges = qxsvc::xmlElements(body, "Part");
  std::size_t found = 0;
  for (auto const& range : ranges) {
    if (!qxsvc::xmlText(body, "PartNumber", range.first, range.second).empty()) ++found;
  }
  EXPECT_EQ(0u, found);
  EXPECT_EQ((8u << 20) / 27 + 1, ranges.size());
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
}

}  // namespace
