// Tests of the log's escaping: no text written into a line can start another
// line or hide in the line, whichever way the line is written.
#include "shared/Log.h"

#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct EscapeCase {
  std::string text;
  std::string logged;
};

// Shows a case's text with its bytes in hexadecimal, for a failure message.
std::string hexOf(std::string const& text) {
  std::ostringstream out;
  for (unsigned char const c : text) out << std::hex << static_cast<unsigned>(c) << ' ';
  return out.str();
}

std::vector<EscapeCase> const kEscapeCases{
    {"", ""},
    {"plain text, with \"quotes\" and 'marks'", "plain text, with \"quotes\" and 'marks'"},
    {"a\nb", "a\\nb"},
    {"end\n", "end\\n"},
    {"\n\n", "\\n\\n"},
    {"cr\rlf\n", "cr\\rlf\\n"},
    {"tab\there", "tab\\there"},
    {"back\\slash", "back\\slash"},
    {R"({"quoted":"a\"b\nc"})", R"({"quoted":"a\"b\nc"})"},
    {std::string("nul\0byte", 8), "nul\\x00byte"},
    {"\x01\x1f", "\\x01\\x1f"},
    {"\x1b[31mred", "\\x1b[31mred"},
    {"del\x7f", "del\\x7f"},
    {"space ~", "space ~"},
    {"Gr\xc3\xbc\xc3\x9f" "e \xe2\x82\xac", "Gr\xc3\xbc\xc3\x9f" "e \xe2\x82\xac"},
    {"\x80\xff", "\x80\xff"},
};

TEST(LogEscape, ControlBytesAreEscapedAndUtf8StaysAsItIs) {
  for (EscapeCase const& c : kEscapeCases) {
    EXPECT_EQ(c.logged, logEscaped(c.text)) << "text bytes: " << hexOf(c.text);
  }
}

// Every byte value: the printable ASCII bytes (the backslash too) and those
// from 0x80 up pass, every other one is escaped and the escape holds no
// control byte.
TEST(LogEscape, EveryByteValue) {
  for (int b = 0; b < 256; ++b) {
    std::string const one(1, static_cast<char>(b));
    std::string const logged = logEscaped(one);
    bool const passes = (b >= 0x20 && b < 0x7f) || b >= 0x80;
    if (passes) {
      EXPECT_EQ(one, logged) << "byte " << b;
      continue;
    }
    ASSERT_GE(logged.size(), 2u) << "byte " << b;
    EXPECT_EQ('\\', logged[0]) << "byte " << b;
    for (unsigned char const c : logged) EXPECT_TRUE(c >= 0x20 && c < 0x7f) << "byte " << b;
  }
}

TEST(LogEscape, WriteLineWritesEachTextAsOneEscapedLine) {
  for (EscapeCase const& c : kEscapeCases) {
    qxtest::LogCapture capture;
    Log::inst().writeLine("INFO:", c.text);
    EXPECT_EQ(std::vector<std::string>{"INFO:" + c.logged}, capture.lines()) << "text bytes: " << hexOf(c.text);
  }
}

TEST(LogEscape, TheLineStreamEscapesLikeWriteLine) {
  for (EscapeCase const& c : kEscapeCases) {
    qxtest::LogCapture capture;
    {
      boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
      Log::inst().logStreamStartLine() << "WARNING:" << c.text << std::endl;
    }
    EXPECT_EQ(std::vector<std::string>{"WARNING:" + c.logged}, capture.lines()) << "text bytes: " << hexOf(c.text);
  }
}

// The attack: a name that holds a whole log line of its own.
TEST(LogEscape, AForgedLineStaysInsideTheLineThatQuotesIt) {
  std::ostringstream out;
  Log::inst().toStream(out);
  Log::inst().writeLine("INFO:", "qxlite-svc queued a.pdf\n2026-11-21T21:53:22.123Z ERR:disk full.pdf");
  Log::inst().toStderr();
  std::string const text = out.str();
  EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text;
  ASSERT_TRUE(qxtest::LogCapture::hasLineStart(text)) << text;
  EXPECT_EQ("INFO:qxlite-svc queued a.pdf\\n2026-11-21T21:53:22.123Z ERR:disk full.pdf\n",
            text.substr(qxtest::LogCapture::kLineStartSize));
}

TEST(LogEscape, OnlyTheFlushedLineFeedEndsTheLine) {
  qxtest::LogCapture capture;
  {
    boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
    std::ostream& line = Log::inst().logStreamStartLine();
    line << "ERR:one\n";
    line << "two\n" << '\n' << std::flush;
  }
  EXPECT_EQ(std::vector<std::string>{"ERR:one\\ntwo\\n"}, capture.lines());
}

TEST(LogEscape, ALineLeftOpenIsEndedByTheNextLine) {
  qxtest::LogCapture capture;
  {
    boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
    Log::inst().logStreamStartLine() << "ERR:left open\n";
  }
  Log::inst().writeLine("INFO:", "next");
  EXPECT_EQ((std::vector<std::string>{"ERR:left open", "INFO:next"}), capture.lines());
}

TEST(LogEscape, FormattingEndsWithItsLine) {
  qxtest::LogCapture capture;
  {
    boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
    Log::inst().logStreamStartLine() << "TRACE:" << std::hex << 255 << std::endl;
    Log::inst().logStreamStartLine() << "TRACE:" << 255 << std::endl;
  }
  EXPECT_EQ((std::vector<std::string>{"TRACE:ff", "TRACE:255"}), capture.lines());
}

}  // namespace
