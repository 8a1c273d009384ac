// Pins the path rules of the filesystem library that the file-type rules and
// the spool names rely on: the version-3 split of a name into stem and
// extension (a leading dot starts the extension), filename() of a path with a
// trailing separator, appending, and the quoted stream form used in log lines.
#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

namespace fs = boost::filesystem;

static_assert(BOOST_FILESYSTEM_VERSION == 3,
              "the library and its users split names with the version-3 rules");

TEST(BoostFilesystem, VersionThreeIsSelected) { EXPECT_EQ(3, BOOST_FILESYSTEM_VERSION); }

TEST(BoostFilesystem, StemAndExtensionSplit) {
  struct Case {
    char const* path;
    char const* stem;
    char const* extension;
  };
  Case const cases[] = {
      {".DS_Store", "", ".DS_Store"},
      {"report.pdf", "report", ".pdf"},
      {"report.pdf.noqx", "report.pdf", ".noqx"},
      {"a.tar.gz", "a.tar", ".gz"},
      {"a.", "a", "."},
      {".", ".", ""},
      {"..", "..", ""},
      {"README", "README", ""},
      {".profile", "", ".profile"},
      {"dir/x.txt", "x", ".txt"},
      {"x..pdf", "x.", ".pdf"},
  };
  for (Case const& c : cases) {
    fs::path const p(c.path);
    EXPECT_EQ(c.stem, p.stem().string()) << "stem of " << c.path;
    EXPECT_EQ(c.extension, p.extension().string()) << "extension of " << c.path;
  }
}

TEST(BoostFilesystem, DotFileIsAllExtension) {
  fs::path const p(".DS_Store");
  EXPECT_TRUE(p.stem().empty());
  EXPECT_EQ(".DS_Store", p.extension().string());
}

TEST(BoostFilesystem, FilenameOfPathWithTrailingSeparatorIsDot) {
  EXPECT_EQ(".", fs::path("a/b/").filename().string());
  EXPECT_EQ("b", fs::path("a/b").filename().string());
  EXPECT_EQ("a/b", fs::path("a/b/").parent_path().string());
}

TEST(BoostFilesystem, AppendPutsOneSeparator) {
  struct Case {
    char const* left;
    char const* right;
    char const* expected;
  };
  Case const cases[] = {
      {"a", "b", "a/b"},      {"a/", "b", "a/b"},         {"", "b", "b"},
      {"a", "", "a"},         {"/", "b", "/b"},           {"/var/spool", "in", "/var/spool/in"},
      {"a", "/b", "a/b"},     {"a/b", "c.txt", "a/b/c.txt"},
  };
  for (Case const& c : cases) {
    fs::path p(c.left);
    p /= c.right;
    EXPECT_EQ(c.expected, p.string()) << "\"" << c.left << "\" /= \"" << c.right << "\"";
    EXPECT_EQ(c.expected, (fs::path(c.left) / c.right).string())
        << "\"" << c.left << "\" / \"" << c.right << "\"";
  }
}

TEST(BoostFilesystem, StreamWritesPathInDoubleQuotesWithAmpersandEscape) {
  struct Case {
    char const* path;
    char const* expected;
  };
  Case const cases[] = {
      {"/var/spool/in", "\"/var/spool/in\""},
      {"a b", "\"a b\""},
      {"say \"hi\".txt", "\"say &\"hi&\".txt\""},
      {"R&D", "\"R&&D\""},
      {"back\\slash", "\"back\\slash\""},
      {"", "\"\""},
  };
  for (Case const& c : cases) {
    std::ostringstream os;
    os << fs::path(c.path);
    EXPECT_EQ(c.expected, os.str()) << c.path;
  }
}

TEST(BoostFilesystem, StreamFormReadsBackToTheSamePath) {
  for (char const* name : {"plain", "with space", "quote\"d", "amp&er", "&\"&\""}) {
    std::stringstream io;
    io << fs::path(name);
    fs::path back;
    io >> back;
    EXPECT_EQ(name, back.string()) << io.str();
  }
}

}  // namespace
