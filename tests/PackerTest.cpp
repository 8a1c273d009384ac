// Packing the files of a drop into a zip archive: its entries and bytes
// read back with libzip, which types are stored and which deflated, what
// stays apart, the archive's name, its writing under a temporary name, and
// the files that cannot be read.
#include "apps/svc/upload/Packer.h"

#include "apps/svc/FolderFd.h"
#include "tests/IntakeTestUtil.h"
#include "tests/TestUtil.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = boost::filesystem;

namespace {

// An entry of an archive as libzip reads it back.
struct Entry {
  std::string bytes;
  int method = -1;
};

// The entries of the archive at path, by name (raw bytes of the name).
std::map<std::string, Entry> readArchive(fs::path const& path) {
  std::map<std::string, Entry> entries;
  int err = 0;
  zip_t* const zip = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &err);
  if (!zip) {
    ADD_FAILURE() << "libzip cannot open " << path << ": error " << err;
    return entries;
  }
  zip_int64_t const count = zip_get_num_entries(zip, 0);
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat_index(zip, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_RAW, &st) != 0) {
      ADD_FAILURE() << "entry " << i << ": " << zip_strerror(zip);
      continue;
    }
    Entry entry;
    entry.method = st.comp_method;
    zip_file_t* const file = zip_fopen_index(zip, static_cast<zip_uint64_t>(i), 0);
    if (!file) {
      ADD_FAILURE() << "entry " << st.name << ": " << zip_strerror(zip);
      continue;
    }
    char buffer[65536];
    zip_int64_t got = 0;
    while ((got = zip_fread(file, buffer, sizeof buffer)) > 0) entry.bytes.append(buffer, static_cast<std::size_t>(got));
    EXPECT_EQ(got, 0) << "reading " << st.name;
    zip_fclose(file);
    entries[st.name] = entry;
  }
  zip_discard(zip);
  return entries;
}

// The general-purpose flags of each entry of the archive's central
// directory, by name.
std::map<std::string, unsigned> centralFlags(fs::path const& path) {
  std::string const bytes = qxtest::readFile(path);
  std::map<std::string, unsigned> flags;
  auto u16 = [&bytes](std::size_t at) {
    return static_cast<unsigned>(static_cast<unsigned char>(bytes[at])) |
           static_cast<unsigned>(static_cast<unsigned char>(bytes[at + 1])) << 8;
  };
  for (std::size_t at = bytes.find("PK\x01\x02"); at != std::string::npos && at + 46 <= bytes.size();
       at = bytes.find("PK\x01\x02", at + 4)) {
    std::size_t const nameLength = u16(at + 28);
    flags[bytes.substr(at + 46, nameLength)] = u16(at + 8);
  }
  return flags;
}


using qxtest::namesIn;

// Content that deflate shrinks well, different for each file.
std::string textOf(std::string const& name, std::size_t repeats) {
  std::string text;
  for (std::size_t i = 0; i < repeats; ++i) text += name + " line " + std::to_string(i % 7) + "\n";
  return text;
}

Settings const& defaults() {
  static Settings const settings{json::Object()};
  return settings;
}

}  // namespace

TEST(Packer, AFolderOfFilesRoundTripsUnderItsRelativePaths) {
  qxtest::TempDir job;
  fs::create_directories(job / "drop" / "sub");
  std::vector<std::string> files;
  std::map<std::string, std::string> written;
  for (int i = 0; i < 12; ++i) {
    std::string const name = "drop/file" + std::to_string(i) + ".pdf";
    written[name] = textOf(name, static_cast<std::size_t>(i) * 100);
    files.push_back(name);
  }
  written["drop/sub/binary.xml"] = std::string("\0\x01\xff\xfe binary\0", 12);
  files.push_back("drop/sub/binary.xml");
  for (auto const& [name, bytes] : written) qxtest::writeFile(job / name, bytes);

  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  qxsvc::Packed const packed = qxsvc::pack(defaults(), dir.get(), files, "J.zip");
  EXPECT_EQ(packed.archive, "J.zip");
  EXPECT_EQ(packed.packed, files);
  EXPECT_TRUE(packed.apart.empty());
  std::map<std::string, Entry> const entries = readArchive(job / "J.zip");
  ASSERT_EQ(entries.size(), written.size());
  for (auto const& [name, bytes] : written) {
    auto const found = entries.find(name);
    ASSERT_NE(found, entries.end()) << name;
    EXPECT_EQ(found->second.bytes, bytes) << name;
  }
  EXPECT_EQ(namesIn(job.path()), (std::vector<std::string>{"J.zip", "drop"}));
}

TEST(Packer, APackCallsItsProgressWhileItWritesTheArchive) {
  qxtest::TempDir job;
  fs::create_directories(job / "drop");
  std::vector<std::string> files;
  for (int i = 0; i < 20; ++i) {
    files.push_back("drop/page" + std::to_string(i) + ".txt");
    qxtest::writeFile(job / files.back(), textOf(files.back(), 20000));
  }
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  int calls = 0;
  qxsvc::Packed const packed = qxsvc::pack(defaults(), dir.get(), files, "J.zip", [&calls] { ++calls; });
  EXPECT_EQ(packed.archive, "J.zip");
  EXPECT_EQ(readArchive(job / "J.zip").size(), files.size());
  // Along the way, not only at its end.
  EXPECT_GE(calls, 20);
}

TEST(Packer, CompressedTypesAreStoredOthersDeflated) {
  struct Case {
    char const* name;
    int method;
  };
  Case const cases[] = {
      {"a.gz", ZIP_CM_STORE},   {"a.JPG", ZIP_CM_STORE},  {"a.jpeg", ZIP_CM_STORE}, {"a.png", ZIP_CM_STORE},
      {"a.gif", ZIP_CM_STORE},  {"a.mp4", ZIP_CM_STORE},  {"a.7z", ZIP_CM_STORE},   {"a.xz", ZIP_CM_STORE},
      {"a.bz2", ZIP_CM_STORE},  {"a.zst", ZIP_CM_STORE},  {"a.docx", ZIP_CM_STORE}, {"a.xlsx", ZIP_CM_STORE},
      {"a.pptx", ZIP_CM_STORE}, {"a.odt", ZIP_CM_STORE},  {"a.ods", ZIP_CM_STORE},  {"a.pdf", ZIP_CM_DEFLATE},
      {"a.xml", ZIP_CM_DEFLATE}, {"a.csv", ZIP_CM_DEFLATE}, {"a.txt", ZIP_CM_DEFLATE}, {"noext", ZIP_CM_DEFLATE},
      {"a.tar", ZIP_CM_DEFLATE},
  };
  qxtest::TempDir job;
  fs::create_directories(job / "d");
  std::vector<std::string> files;
  for (Case const& c : cases) {
    std::string const name = std::string("d/") + c.name;
    qxtest::writeFile(job / name, textOf(name, 50));
    files.push_back(name);
  }
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  qxsvc::pack(defaults(), dir.get(), files, "J.zip");
  std::map<std::string, Entry> const entries = readArchive(job / "J.zip");
  for (Case const& c : cases) {
    auto const found = entries.find(std::string("d/") + c.name);
    ASSERT_NE(found, entries.end()) << c.name;
    EXPECT_EQ(found->second.method, c.method) << c.name;
    EXPECT_EQ(found->second.bytes, textOf(std::string("d/") + c.name, 50)) << c.name;
  }
}

TEST(Packer, ZipAndEnmFilesStayApart) {
  qxtest::TempDir job;
  fs::create_directories(job / "d");
  std::vector<std::string> const files = {"d/a.pdf", "d/inner.zip", "d/b.xml", "d/c.ENM"};
  for (std::string const& f : files) qxtest::writeFile(job / f, f);
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  qxsvc::Packed const packed = qxsvc::pack(defaults(), dir.get(), files, "J.zip");
  EXPECT_EQ(packed.packed, (std::vector<std::string>{"d/a.pdf", "d/b.xml"}));
  EXPECT_EQ(packed.apart, (std::vector<std::string>{"d/inner.zip", "d/c.ENM"}));
  std::map<std::string, Entry> const entries = readArchive(job / "J.zip");
  EXPECT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries.count("d/a.pdf"), 1u);
  EXPECT_EQ(entries.count("d/b.xml"), 1u);

  // Nothing to pack: no archive.
  qxsvc::Packed const none = qxsvc::pack(defaults(), dir.get(), {"d/inner.zip"}, "K.zip");
  EXPECT_EQ(none.archive, "");
  EXPECT_TRUE(none.packed.empty());
  EXPECT_EQ(none.apart, std::vector<std::string>{"d/inner.zip"});
  EXPECT_FALSE(fs::exists(job / "K.zip"));
}

TEST(Packer, ArchiveNameFollowsUseDirName) {
  struct Case {
    bool useDirName;
    bool folder;
    char const* dropped;
    char const* expected;
  };
  Case const cases[] = {
      {true, true, "Invoices 2024", "Invoices 2024.zip"},
      {true, false, "a.pdf", "20231114T221320Z-0a1b2c3d.zip"},
      {false, true, "Invoices 2024", "20231114T221320Z-0a1b2c3d.zip"},
      {false, false, "a.pdf", "20231114T221320Z-0a1b2c3d.zip"},
  };
  for (Case const& c : cases) {
    Settings settings{json::Object()};
    settings.UseDirName = c.useDirName;
    EXPECT_EQ(qxsvc::archiveName(settings, "20231114T221320Z-0a1b2c3d", c.dropped, c.folder), c.expected)
        << "UseDirName " << c.useDirName << ", folder " << c.folder << ", \"" << c.dropped << "\"";
  }
}

TEST(Packer, ALeftoverPartialArchiveIsReplaced) {
  qxtest::TempDir job;
  fs::create_directories(job / "d");
  qxtest::writeFile(job / "d" / "a.pdf", "a");
  qxtest::writeFile(job / "J.zip.noqx", "half an archive from before a crash");
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  qxsvc::pack(defaults(), dir.get(), {"d/a.pdf"}, "J.zip");
  EXPECT_EQ(namesIn(job.path()), (std::vector<std::string>{"J.zip", "d"}));
  EXPECT_EQ(readArchive(job / "J.zip").at("d/a.pdf").bytes, "a");
}

TEST(Packer, TheArchiveIsWrittenUnderATemporaryNameThenRenamed) {
  qxtest::TempDir job;
  fs::create_directories(job / "d");
  qxtest::writeFile(job / "d" / "a.pdf", "a");
  int const inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(inotify, 0);
  ASSERT_GE(::inotify_add_watch(inotify, job.path().c_str(), IN_CREATE | IN_MOVED_TO), 0);
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  qxsvc::pack(defaults(), dir.get(), {"d/a.pdf"}, "J.zip");
  // Every name under which a file appeared in the job folder, in order.
  std::vector<std::string> appeared;
  alignas(inotify_event) char buffer[65536];
  ssize_t got = 0;
  while ((got = ::read(inotify, buffer, sizeof buffer)) > 0) {
    for (ssize_t at = 0; at < got;) {
      auto const* const event = reinterpret_cast<inotify_event const*>(buffer + at);
      appeared.push_back(std::string(event->mask & IN_CREATE ? "made " : "renamed to ") + event->name);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  ::close(inotify);
  ASSERT_GE(appeared.size(), 2u);
  EXPECT_EQ(appeared[appeared.size() - 2], "renamed to J.zip.noqx");
  EXPECT_EQ(appeared.back(), "renamed to J.zip");
  for (std::string const& a : appeared) EXPECT_NE(a, "made J.zip") << "the archive appeared under its name unfinished";
}

TEST(Packer, AnExistingArchiveIsNeverReplaced) {
  qxtest::TempDir job;
  fs::create_directories(job / "d");
  qxtest::writeFile(job / "d" / "a.pdf", "a");
  qxtest::writeFile(job / "J.zip", "a file of the drop");
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  EXPECT_EQ(qxtest::runtimeErrorMessage([&] { qxsvc::pack(defaults(), dir.get(), {"d/a.pdf"}, "J.zip"); }),
            "cannot name the archive \"J.zip\": File exists");
  EXPECT_EQ(qxtest::readFile(job / "J.zip"), "a file of the drop");
  EXPECT_EQ(namesIn(job.path()), (std::vector<std::string>{"J.zip", "d"}));
}

TEST(Packer, AFileThatCannotBeReadIsNamedAndNoArchiveIsLeft) {
  qxtest::TempDir job;
  fs::create_directories(job / "d");
  fs::create_directories(job / "outside");
  qxtest::writeFile(job / "d" / "a.pdf", "a");
  qxtest::writeFile(job / "outside" / "secret.pdf", "not the drop's");
  fs::create_symlink(job / "outside" / "secret.pdf", job / "d" / "link.pdf");
  fs::create_symlink(job / "outside", job / "linkdir");
  ASSERT_EQ(::mkfifo((job / "d" / "pipe.pdf").c_str(), 0600), 0);
  fs::create_directories(job / "d" / "folder.pdf");
  struct Case {
    char const* file;
    char const* message;
  };
  Case const cases[] = {
      {"d/missing.pdf", "cannot pack \"d/missing.pdf\": No such file or directory"},
      {"d/link.pdf", "cannot pack \"d/link.pdf\": Too many levels of symbolic links"},
      {"linkdir/secret.pdf", "cannot pack \"linkdir/secret.pdf\": Not a directory"},
      {"d/pipe.pdf", "cannot pack \"d/pipe.pdf\": not a regular file"},
      {"d/folder.pdf", "cannot pack \"d/folder.pdf\": not a regular file"},
      {"d/../outside/secret.pdf", "cannot pack \"d/../outside/secret.pdf\": Invalid argument"},
  };
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  for (Case const& c : cases) {
    EXPECT_EQ(qxtest::runtimeErrorMessage([&] { qxsvc::pack(defaults(), dir.get(), {"d/a.pdf", c.file}, "J.zip"); }), c.message)
        << c.file;
    EXPECT_EQ(namesIn(job.path()), (std::vector<std::string>{"d", "linkdir", "outside"})) << c.file;
  }
}

TEST(Packer, Utf8NamesAreMarkedOthersKeptAsTheyAre) {
  qxtest::TempDir job;
  fs::create_directories(job / "d");
  std::string const utf8 = "d/\xc3\xa9t\xc3\xa9 \xe2\x82\xac.pdf";  // "été €.pdf"
  std::string const latin1 = "d/\xe9t\xe9.pdf";                   // not UTF-8
  qxtest::writeFile(job / utf8, "utf8");
  qxtest::writeFile(job / latin1, "latin1");
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  qxsvc::pack(defaults(), dir.get(), {utf8, latin1}, "J.zip");
  std::map<std::string, unsigned> const flags = centralFlags(job / "J.zip");
  ASSERT_EQ(flags.count(utf8), 1u);
  EXPECT_EQ(flags.at(utf8) & 0x0800u, 0x0800u) << "the UTF-8 flag (bit 11)";
  ASSERT_EQ(flags.count(latin1), 1u);
  EXPECT_EQ(flags.at(latin1) & 0x0800u, 0u);
  std::map<std::string, Entry> const entries = readArchive(job / "J.zip");
  EXPECT_EQ(entries.at(utf8).bytes, "utf8");
  EXPECT_EQ(entries.at(latin1).bytes, "latin1");
}

TEST(Packer, AnArchiveNameThatIsAPathIsRefused) {
  qxtest::TempDir job;
  fs::create_directories(job / "d");
  qxtest::writeFile(job / "d" / "a.pdf", "a");
  qxsvc::FolderFd const dir = qxtest::openFolder(job.path());
  for (char const* name : {"", "..", "../J.zip", "d/J.zip"}) {
    EXPECT_EQ(qxtest::runtimeErrorMessage([&] { qxsvc::pack(defaults(), dir.get(), {"d/a.pdf"}, name); }),
              std::string("cannot pack into \"") + name + "\": not the name of an entry")
        << "\"" << name << "\"";
  }
  EXPECT_EQ(namesIn(job.path()), std::vector<std::string>{"d"});
}
