// The file-type rules of Settings: extension normalisation, the extension
// sets, and the decisions about single files, folders and zipping.
#include "settings/Settings.h"

#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <initializer_list>
#include <string>
#include <unordered_set>

namespace fs = boost::filesystem;

namespace {

using qxtest::jsonExcMessage;
using qxtest::text;

using ExtSet = std::unordered_set<std::string>;

json::Array list(std::initializer_list<char const*> items) {
  json::Array result;
  for (char const* item : items) result.append(json::Value(item));
  return result;
}


// A record whose lists are given; fix() adds the ignored defaults when
// "noqx" is missing.
Settings record(json::Array const& accepted, json::Array const& ignored) {
  json::Object obj;
  obj.setAt("SrvFileExts", accepted);
  obj.setAt("IgnoredExtension", ignored);
  return Settings(obj);
}

// A record with the default lists but an empty accepted list (set before any
// rule has built the accepted set).
Settings recordAcceptingAll() {
  Settings s{json::Object()};
  s.SrvFileExts = json::Array();
  return s;
}

void makeDir(fs::path const& dir) { fs::create_directories(dir); }

}  // namespace

// ---------------------------------------------------------------------------
// fixExtForSet and cfgExtsToSet

TEST(FileTypeExtNormalise, DropsOneLeadingDotAndLowersCase) {
  struct Case {
    char const* ext;
    char const* expected;
  };
  Case const cases[] = {
      {"", ""},          {".", ""},         {"pdf", "pdf"},      {".PDF", "pdf"},
      {"..pdf", ".pdf"}, {"Tar.GZ", "tar.gz"}, {".DS_Store", "ds_store"}, {"PdF.", "pdf."},
      {"..", "."},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(Settings::fixExtForSet(c.ext), c.expected) << "extension \"" << c.ext << "\"";
  }
}

TEST(FileTypeExtSet, EqualNormalisedFormsCollapse) {
  Settings::CfgFileExts exts;
  exts = list({".PDF", "pdf", "Zip", "..pdf", ""});
  EXPECT_EQ(Settings::cfgExtsToSet(exts), (ExtSet{"pdf", "zip", ".pdf", ""}));
}

TEST(FileTypeExtSet, EmptyOrMissingListGivesEmptySet) {
  Settings::CfgFileExts exts;
  EXPECT_TRUE(Settings::cfgExtsToSet(exts).empty());
  Settings::CfgFileExts const moved(std::move(exts));
  ASSERT_TRUE(exts.empty());
  EXPECT_TRUE(Settings::cfgExtsToSet(exts).empty());
}

TEST(FileTypeExtSet, NonStringElementThrows) {
  json::Array mixed = list({"pdf"});
  mixed.append(json::Value(json_int_t{7}));
  Settings::CfgFileExts exts;
  exts = mixed;
  EXPECT_EQ(jsonExcMessage([&] { Settings::cfgExtsToSet(exts); }),
            "JSON error: Wrong type: integer. Expected type: string");
  json::Array nulls;
  nulls.append(json::Value(json_null()));
  exts = nulls;
  EXPECT_EQ(jsonExcMessage([&] { Settings::cfgExtsToSet(exts); }),
            "JSON error: Wrong type: null. Expected type: string");
}

// ---------------------------------------------------------------------------
// CfgFileExts::operator=

TEST(FileTypeListAssign, StoresADeepCopy) {
  json::Array source = list({"pdf", "TXT"});
  Settings::CfgFileExts exts;
  exts = source;
  EXPECT_NE(exts.get(), source.get());
  EXPECT_TRUE(exts == source);
  json_array_append_new(source.get(), json_string("exe"));
  EXPECT_EQ(text(exts), R"(["pdf","TXT"])");
}

TEST(FileTypeListAssign, MissingArrayThrowsAndKeepsTheList) {
  Settings::CfgFileExts exts;
  exts = list({"pdf"});
  json::Array gone = list({"x"});
  json::Array const taker(std::move(gone));
  ASSERT_TRUE(gone.empty());
  EXPECT_EQ(jsonExcMessage([&] { exts = gone; }),
            "JSON error: Wrong type: empty. Expected type: array");
  EXPECT_EQ(text(exts), R"(["pdf"])");
}

TEST(FileTypeListAssign, LeavesTheBuiltSetAlone) {
  Settings s = record(list({"pdf"}), list({"noqx"}));
  ASSERT_TRUE(s.isBadFileExt("a.exe", false));
  s.SrvFileExts = list({"exe"});
  EXPECT_EQ(text(s.SrvFileExts), R"(["exe"])");
  EXPECT_EQ(s.SrvFileExtsSet, (ExtSet{"pdf"}));
  EXPECT_TRUE(s.isBadFileExt("a.exe", false));
  EXPECT_FALSE(s.isBadFileExt("a.pdf", false));
  // The next record built from the saved form follows the new list.
  Settings const next{s.serialize()};
  EXPECT_FALSE(next.isBadFileExt("a.exe", false));
  EXPECT_TRUE(next.isBadFileExt("a.pdf", false));
}

// ---------------------------------------------------------------------------
// isIgnoredExtension

TEST(FileTypeIgnored, DefaultListIgnoresByLastExtension) {
  Settings const s{json::Object()};
  struct Case {
    char const* name;
    bool ignored;
  };
  Case const cases[] = {
      {".DS_Store", true},     {"dir/.ds_store", true}, {"Thumbs.db", true},
      {"Thumbs.DB", true},     {"item.noqx", true},     {"x.pdf.NOQX", true},
      {"a.noqx.pdf", false},   {"db", false},           {"a.tar.gz", false},
      {"file.", false},        {"notes", false},        {".", false},
      {"..", false},           {"dir.db/file", false},  {"dir/.hidden.db", true},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(s.isIgnoredExtension(c.name), c.ignored) << c.name;
  }
}

TEST(FileTypeIgnored, EmptyExtensionCoversNoDotAndTrailingDot) {
  Settings const s = record(list({"pdf"}), list({"noqx", ""}));
  EXPECT_TRUE(s.isIgnoredExtension("notes"));
  EXPECT_TRUE(s.isIgnoredExtension("file."));
  EXPECT_FALSE(s.isIgnoredExtension("a.pdf"));
}

TEST(FileTypeIgnored, NonStringEntryThrowsAndCachesNothing) {
  Settings s{json::Object()};
  json::Array bad;
  bad.append(json::Value(json_int_t{1}));
  s.IgnoredExtension = bad;
  s.IgnoredExtensionSet.clear();
  EXPECT_EQ(jsonExcMessage([&] { s.isIgnoredExtension("a.tmp"); }),
            "JSON error: Wrong type: integer. Expected type: string");
  EXPECT_TRUE(s.IgnoredExtensionSet.empty());
  s.IgnoredExtension = list({"TMP"});
  EXPECT_TRUE(s.isIgnoredExtension("a.tmp"));
  EXPECT_EQ(s.IgnoredExtensionSet, (ExtSet{"tmp"}));
}

// ---------------------------------------------------------------------------
// isBadFileExt and checkPathForAcceptedExts on single files

TEST(FileTypeAccepted, OnlyPdfAcceptsAnyPdfSpelling) {
  Settings const s = record(list({"pdf"}), list({"noqx"}));
  EXPECT_FALSE(s.isBadFileExt("Report.PDF", false));
  EXPECT_FALSE(s.isBadFileExt("x..pdf", false));
  EXPECT_TRUE(s.isBadFileExt("notes", false));
  EXPECT_TRUE(s.isBadFileExt("a.pdf.exe", false));

  qxtest::TempDir dir;
  qxtest::writeFile(dir / "Report.PDF", "%PDF");
  qxtest::writeFile(dir / "x..pdf", "%PDF");
  qxtest::writeFile(dir / "notes", "text");
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "Report.PDF"), "");
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "x..pdf"), "");
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "notes"), (dir / "notes").string());
}

TEST(FileTypeAccepted, NoExtensionAcceptedWhenEmptyExtensionIsIgnored) {
  Settings const s = record(list({"pdf"}), list({"noqx", ""}));
  qxtest::TempDir dir;
  qxtest::writeFile(dir / "notes", "text");
  EXPECT_FALSE(s.isBadFileExt("notes", false));
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "notes"), "");
}

TEST(FileTypeAccepted, DottedUpperCaseEntryMatches) {
  Settings const s = record(list({".PDF"}), list({"noqx"}));
  EXPECT_FALSE(s.isBadFileExt("a.pdf", false));
  EXPECT_FALSE(s.isBadFileExt("A.Pdf", false));
  EXPECT_TRUE(s.isBadFileExt("a.txt", false));
}

TEST(FileTypeAccepted, DoubleDotEntryMatchesNothing) {
  Settings const s = record(list({"..pdf"}), list({"noqx"}));
  EXPECT_EQ(s.SrvFileExts.size(), 1u);
  for (char const* name : {"a.pdf", "a..pdf", ".pdf", "..pdf", "a.PDF"}) {
    EXPECT_TRUE(s.isBadFileExt(name, false)) << name;
  }
  EXPECT_EQ(s.SrvFileExtsSet, (ExtSet{".pdf"}));
}

TEST(FileTypeAccepted, UnacceptedButIgnoredIsNotBad) {
  Settings const s = record(list({"pdf"}), list({"noqx", "tmp"}));
  EXPECT_FALSE(s.isBadFileExt("a.tmp", false));
  EXPECT_FALSE(s.isBadFileExt("a.TMP", true));
  EXPECT_FALSE(s.isBadFileExt("spool.noqx", true));
  EXPECT_TRUE(s.isBadFileExt("a.exe", true));
}

TEST(FileTypeAccepted, DecisionByNameAndFolderFlag) {
  // Default lists: the fifteen accepted extensions, "noqx", "ds_store", "db"
  // ignored. The names do not exist on disk.
  Settings const s{json::Object()};
  struct Case {
    char const* name;
    bool inDir;
    bool bad;
  };
  Case const cases[] = {
      {"a.pdf", false, false}, {"a.pdf", true, false},  {"a.zip", false, false},
      {"a.zip", true, true},   {"a.ENM", false, false}, {"a.ENM", true, true},
      {"a.exe", false, true},  {"a.exe", true, true},   {".DS_Store", true, false},
      {"x.noqx", false, false}, {"Thumbs.db", true, false}, {"notes", false, true},
      {"a.tar", true, false},  {"a.qxw", true, false},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(s.isBadFileExt(c.name, c.inDir), c.bad)
        << c.name << (c.inDir ? " inside a folder" : " on its own");
  }
}

TEST(FileTypeAccepted, EmptyAcceptedListAcceptsEverySingleFile) {
  Settings const s = recordAcceptingAll();
  qxtest::TempDir dir;
  for (char const* name : {"a.exe", "notes", "archive.zip", "data.ENM", "x.noqx"}) {
    qxtest::writeFile(dir / name, "x");
    EXPECT_EQ(s.checkPathForAcceptedExts(dir / name), "") << name;
    EXPECT_FALSE(s.isBadFileExt(dir / name, false)) << name;
  }
  EXPECT_TRUE(s.SrvFileExtsSet.empty());
}

TEST(FileTypeAccepted, EmptyAcceptedListStillRefusesArchivesAndFoldersInsideAFolder) {
  Settings const s = recordAcceptingAll();
  qxtest::TempDir dir;
  struct Case {
    char const* entry;
    bool isFolder;
  };
  Case const cases[] = {
      {"archive.zip", false}, {"scan.ENM", false}, {"sub", true}, {"sub.pdf", true}};
  for (Case const& c : cases) {
    fs::path const folder = dir / (std::string("drop-") + c.entry);
    makeDir(folder);
    qxtest::writeFile(folder / "a.exe", "x");
    if (c.isFolder) {
      makeDir(folder / c.entry);
    } else {
      qxtest::writeFile(folder / c.entry, "x");
    }
    EXPECT_EQ(s.checkPathForAcceptedExts(folder), (folder / c.entry).string()) << c.entry;
  }
  fs::path const plain = dir / "drop-plain";
  makeDir(plain);
  qxtest::writeFile(plain / "a.exe", "x");
  qxtest::writeFile(plain / "notes", "x");
  EXPECT_EQ(s.checkPathForAcceptedExts(plain), "");
}

TEST(FileTypeAccepted, EmptyAcceptedListIsReadAgainOnEveryCall) {
  Settings s = recordAcceptingAll();
  EXPECT_FALSE(s.isBadFileExt("a.exe", false));
  s.SrvFileExts = list({"pdf"});
  EXPECT_TRUE(s.isBadFileExt("a.exe", false));
  EXPECT_EQ(s.SrvFileExtsSet, (ExtSet{"pdf"}));
}

TEST(FileTypeAccepted, NonStringEntryThrowsAndCachesNothing) {
  Settings s{json::Object()};
  json::Array bad = list({"pdf"});
  bad.append(json::Value(json_int_t{1}));
  s.SrvFileExts = bad;
  EXPECT_EQ(jsonExcMessage([&] { s.isBadFileExt("a.pdf", false); }),
            "JSON error: Wrong type: integer. Expected type: string");
  EXPECT_TRUE(s.SrvFileExtsSet.empty());
  s.SrvFileExts = list({"txt"});
  EXPECT_TRUE(s.isBadFileExt("a.pdf", false));
  EXPECT_FALSE(s.isBadFileExt("a.txt", false));
}

// ---------------------------------------------------------------------------
// checkPathForAcceptedExts on folders

TEST(FileTypeFolder, SubfolderIsRefusedEvenWithAcceptedExtension) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  fs::path const folder = dir / "drop";
  makeDir(folder / "docs.pdf");
  qxtest::writeFile(folder / "a.pdf", "x");
  EXPECT_EQ(s.checkPathForAcceptedExts(folder), (folder / "docs.pdf").string());
}

TEST(FileTypeFolder, SubfolderWithIgnoredExtensionIsSkipped) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  fs::path const folder = dir / "drop";
  makeDir(folder / "cache.db");
  // Entries of a subfolder are not looked at.
  qxtest::writeFile(folder / "cache.db" / "evil.exe", "x");
  qxtest::writeFile(folder / "a.pdf", "x");
  EXPECT_EQ(s.checkPathForAcceptedExts(folder), "");
}

TEST(FileTypeFolder, ArchiveAcceptedAloneButRefusedInsideAFolder) {
  Settings const s = record(list({"pdf", "zip"}), list({"noqx"}));
  qxtest::TempDir dir;
  qxtest::writeFile(dir / "archive.zip", "PK");
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "archive.zip"), "");
  fs::path const folder = dir / "drop";
  makeDir(folder);
  qxtest::writeFile(folder / "archive.zip", "PK");
  EXPECT_EQ(s.checkPathForAcceptedExts(folder), (folder / "archive.zip").string());
}

TEST(FileTypeFolder, SystemFilesAreSkippedWhenIgnored) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  fs::path const folder = dir / "drop";
  makeDir(folder);
  qxtest::writeFile(folder / ".DS_Store", "x");
  qxtest::writeFile(folder / "Thumbs.db", "x");
  qxtest::writeFile(folder / "a.pdf", "x");
  EXPECT_EQ(s.checkPathForAcceptedExts(folder), "");
}

TEST(FileTypeFolder, SystemFilesAreRefusedWhenNotIgnored) {
  Settings const s = record(list({"pdf"}), list({"noqx"}));
  qxtest::TempDir dir;
  for (char const* name : {".DS_Store", "Thumbs.db"}) {
    fs::path const folder = dir / (std::string("drop") + name);
    makeDir(folder);
    qxtest::writeFile(folder / name, "x");
    EXPECT_EQ(s.checkPathForAcceptedExts(folder), (folder / name).string()) << name;
  }
}

TEST(FileTypeFolder, EmptyFolderAndAcceptableFileGiveEmptyText) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  makeDir(dir / "empty");
  qxtest::writeFile(dir / "a.pdf", "x");
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "empty"), "");
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "a.pdf"), "");
}

TEST(FileTypeFolder, FolderIsJudgedByItsEntriesNotItsName) {
  Settings const s = record(list({"pdf"}), list({"noqx"}));
  qxtest::TempDir dir;
  fs::path const folder = dir / "drop.exe";
  makeDir(folder);
  qxtest::writeFile(folder / "a.pdf", "x");
  EXPECT_EQ(s.checkPathForAcceptedExts(folder), "");
}

TEST(FileTypeFolder, LinkToAFolderInsideAFolderIsRefused) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  makeDir(dir / "target");
  fs::path const folder = dir / "drop";
  makeDir(folder);
  fs::create_directory_symlink(dir / "target", folder / "link.pdf");
  EXPECT_EQ(s.checkPathForAcceptedExts(folder), (folder / "link.pdf").string());
}

TEST(FileTypeFolder, LinkToAFileInsideAFolderIsJudgedByItsName) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  qxtest::writeFile(dir / "target.exe", "x");
  fs::path const folder = dir / "drop";
  makeDir(folder);
  fs::create_symlink(dir / "target.exe", folder / "link.pdf");
  EXPECT_EQ(s.checkPathForAcceptedExts(folder), "");
}

TEST(FileTypeFolder, MissingPathIsJudgedByName) {
  Settings const s = record(list({"pdf"}), list({"noqx"}));
  qxtest::TempDir dir;
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "missing.pdf"), "");
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "missing.exe"), (dir / "missing.exe").string());
}

TEST(FileTypeFolder, PathBelowARegularFileIsJudgedByName) {
  // Its status is "not found" (ENOTDIR), not an error.
  Settings const s = record(list({"pdf"}), list({"noqx"}));
  qxtest::TempDir dir;
  qxtest::writeFile(dir / "plain.txt", "x");
  boost::system::error_code ec;
  ASSERT_EQ(fs::status(dir / "plain.txt" / "child.exe", ec).type(), fs::file_not_found);
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "plain.txt" / "child.pdf"), "");
  EXPECT_EQ(s.checkPathForAcceptedExts(dir / "plain.txt" / "child.exe"),
            (dir / "plain.txt" / "child.exe").string());
}

TEST(FileTypeFolder, StatusErrorPassesToTheCaller) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  fs::create_symlink(dir / "loop-b.pdf", dir / "loop-a.pdf");
  fs::create_symlink(dir / "loop-a.pdf", dir / "loop-b.pdf");
  try {
    s.checkPathForAcceptedExts(dir / "loop-a.pdf");
    ADD_FAILURE() << "no filesystem_error for a link loop";
  } catch (fs::filesystem_error const& e) {
    EXPECT_EQ(e.code().value(), ELOOP) << e.what();
    EXPECT_EQ(e.path1().string(), (dir / "loop-a.pdf").string());
  }
}

TEST(FileTypeFolder, StatusErrorOfAnEntryPassesToTheCaller) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  fs::path const folder = dir / "drop";
  makeDir(folder);
  fs::create_symlink(folder / "loop-b.pdf", folder / "loop-a.pdf");
  fs::create_symlink(folder / "loop-a.pdf", folder / "loop-b.pdf");
  try {
    s.checkPathForAcceptedExts(folder);
    ADD_FAILURE() << "no filesystem_error for a link loop inside the folder";
  } catch (fs::filesystem_error const& e) {
    EXPECT_EQ(e.code().value(), ELOOP) << e.what();
  }
}

TEST(FileTypeFolder, EntryRefusedByNameNeedsNoStatus) {
  // A link loop whose name is refused is reported, not followed.
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  fs::path const folder = dir / "drop";
  makeDir(folder);
  fs::create_symlink(folder / "loop-b.exe", folder / "loop-a.exe");
  fs::create_symlink(folder / "loop-a.exe", folder / "loop-b.exe");
  std::string const found = s.checkPathForAcceptedExts(folder);
  EXPECT_TRUE(found == (folder / "loop-a.exe").string() ||
              found == (folder / "loop-b.exe").string())
      << found;
}

TEST(FileTypeFolder, ArchiveEntryIsRefusedBeforeItsStatusIsTaken) {
  // An accepted "zip" entry inside a folder is refused by its extension; a
  // link loop of that name is reported, not followed.
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  fs::path const folder = dir / "drop";
  makeDir(folder);
  fs::create_symlink(folder / "loop.zip", folder / "loop.zip");
  EXPECT_EQ(s.checkPathForAcceptedExts(folder), (folder / "loop.zip").string());
}

TEST(FileTypeFolder, FolderHandedOverItselfIsNotRefusedByTheFileRule) {
  // Without the folder flag only the name counts; the folder test belongs to
  // entries of a dropped folder.
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  makeDir(dir / "docs.pdf");
  makeDir(dir / "pack.zip");
  EXPECT_FALSE(s.isBadFileExt(dir / "docs.pdf", false));
  EXPECT_FALSE(s.isBadFileExt(dir / "pack.zip", false));
  EXPECT_TRUE(s.isBadFileExt(dir / "docs.pdf", true));
}

// ---------------------------------------------------------------------------
// canZip

TEST(FileTypeZip, ArchivesAreNeverZippedAgain) {
  Settings const s = record(list({"pdf"}), list({"noqx"}));
  struct Case {
    char const* name;
    bool canZip;
  };
  Case const cases[] = {
      {"a.ZIP", false},    {"a.zip", false}, {"a.enm", false},  {"a.Enm", false},
      {"a.zip.txt", true}, {"a.exe", true},  {"notes", true},   {"zip", true},
      {".zip", false},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(s.canZip(c.name), c.canZip) << c.name;
  }
}

TEST(FileTypeZip, AnyFolderCanBeZipped) {
  Settings const s{json::Object()};
  qxtest::TempDir dir;
  makeDir(dir / "pack.zip");
  makeDir(dir / "scan.enm");
  fs::create_directory_symlink(dir / "pack.zip", dir / "link.zip");
  EXPECT_TRUE(s.canZip(dir.path()));
  EXPECT_TRUE(s.canZip(dir / "pack.zip"));
  EXPECT_TRUE(s.canZip(dir / "scan.enm"));
  EXPECT_TRUE(s.canZip(dir / "link.zip"));
}

TEST(FileTypeZip, MinimumFileCountIsNotConsulted) {
  Settings s{json::Object()};
  s.MinFilesToZip = 4294967295u;
  EXPECT_TRUE(s.canZip("a.pdf"));
  s.MinFilesToZip = 0;
  EXPECT_FALSE(s.canZip("a.zip"));
}
