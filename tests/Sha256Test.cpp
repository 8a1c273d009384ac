// SHA-256 of texts and of files read with pread, as lower-case hex.
#include "apps/svc/upload/Sha256.h"

#include "apps/svc/FolderFd.h"
#include "tests/IntakeTestUtil.h"
#include "tests/TestUtil.h"

#include <fcntl.h>

#include <gtest/gtest.h>

#include <string>
#include <system_error>

namespace {

using qxsvc::Sha256;
using qxsvc::sha256OfFile;
using qxsvc::sha256OfText;

struct Vector {
  std::string text;
  char const* digest;
};

std::vector<Vector> const& knownVectors() {
  static std::vector<Vector> const vectors = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  return vectors;
}

std::string shown(std::string const& text) { return text.size() > 60 ? text.substr(0, 20) + "... (" + std::to_string(text.size()) + " bytes)" : "\"" + text + "\""; }

}  // namespace

TEST(Sha256, KnownVectorsOfTexts) {
  for (Vector const& v : knownVectors()) EXPECT_EQ(sha256OfText(v.text), v.digest) << "text " << shown(v.text);
}

TEST(Sha256, PiecesGiveTheDigestOfTheWholeAndTheObjectStartsAgain) {
  Sha256 sha;
  std::string const million(1000000, 'a');
  for (std::size_t at = 0; at < million.size(); at += 9973) sha.update(million.data() + at, std::min<std::size_t>(9973, million.size() - at));
  EXPECT_EQ(sha.hex(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  // After hex() it starts again: the next digest is of "abc" alone.
  sha.update("abc", 3);
  EXPECT_EQ(sha.hex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(sha.hex(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256, MovedObjectKeepsItsState) {
  Sha256 first;
  first.update("ab", 2);
  Sha256 second(std::move(first));
  second.update("c", 1);
  EXPECT_EQ(second.hex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  Sha256 third;
  third = std::move(second);
  EXPECT_EQ(third.hex(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256, FileDigestEqualsTheDigestOfItsText) {
  qxtest::TempDir dir;
  // Sizes around the read chunk (1 MiB) as well as small and empty files.
  std::size_t const sizes[] = {0, 1, 3, 4096, (1u << 20) - 1, 1u << 20, (1u << 20) + 1, 3u * (1u << 20) + 17};
  for (std::size_t size : sizes) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 131 + size) & 0xff);
    qxtest::writeFile(dir / "f", text);
    qxsvc::FileFd const file(::open((dir / "f").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(file.valid());
    // The position of the descriptor does not matter: pread reads from 0.
    ASSERT_EQ(::lseek(file.get(), static_cast<off_t>(size / 2), SEEK_SET), static_cast<off_t>(size / 2));
    EXPECT_EQ(sha256OfFile(file.get(), "the file"), sha256OfText(text)) << "file of " << size << " bytes";
  }
}

TEST(Sha256, AFileHashCallsBackAfterEachBlock) {
  qxtest::TempDir dir;
  struct Case {
    std::size_t size;
    int calls;  // one per block of 1 MiB read
  };
  Case const cases[] = {{0, 0}, {1, 1}, {(1u << 20) - 1, 1}, {1u << 20, 1}, {(1u << 20) + 1, 2}, {3u << 20, 3}};
  for (Case const& c : cases) {
    std::string const text(c.size, 'q');
    qxtest::writeFile(dir / "f", text);
    qxsvc::FileFd const file(::open((dir / "f").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(file.valid());
    int calls = 0;
    EXPECT_EQ(sha256OfFile(file.get(), "the file", [&calls] { ++calls; }), sha256OfText(text)) << c.size;
    EXPECT_EQ(c.calls, calls) << "file of " << c.size << " bytes";
  }
}

TEST(Sha256, ReadErrorNamesWhatWasRead) {
  qxtest::TempDir dir;
  // A folder's descriptor opens but cannot be read: EISDIR.
  qxsvc::FolderFd const folder = qxtest::openFolder(dir.path());
  try {
    sha256OfFile(folder.get(), "\"job/a.pdf\"");
    ADD_FAILURE() << "a folder was hashed";
  } catch (std::system_error const& e) {
    EXPECT_EQ(e.code().value(), EISDIR);
    EXPECT_EQ(std::string(e.what()), "cannot read \"job/a.pdf\": Is a directory");
  }
  try {  // with the parts' thread running
    qxsvc::sha256OfFileAndParts(folder.get(), 5, "\"job/b.pdf\"");
    ADD_FAILURE() << "a folder was hashed in parts";
  } catch (std::system_error const& e) {
    EXPECT_EQ(std::string(e.what()), "cannot read \"job/b.pdf\": Is a directory");
  }
  try {
    sha256OfFile(-1, "the archive");
    ADD_FAILURE() << "descriptor -1 was hashed";
  } catch (std::system_error const& e) {
    EXPECT_EQ(std::string(e.what()), "cannot read the archive: Bad file descriptor");
  }
}

namespace {

struct PartsCase {
  std::size_t size;
  std::uint64_t partSize;
  std::size_t parts;  // how many part digests come back
};

TEST(Sha256, OneReadingGivesTheFileAndEachPart) {
  std::size_t const mib = 1 << 20;
  PartsCase const cases[] = {
      {0, 5, 0},                      // an empty file has no part
      {0, 0, 0},                      // no parts asked for
      {3 * mib + 5, 0, 0},
      {4, 5, 1},                      // shorter than a part
      {10, 5, 2},                     // parts end where the file ends
      {11, 5, 3},                     // the last part is shorter
      {2 * mib + 1, mib, 3},          // parts of the size of a read
      {3 * mib + 7, mib / 2 + 3, 6},  // parts that end inside a read
      {3 * mib + 7, 2 * mib, 2},      // parts larger than a read
  };
  qxtest::TempDir dir;
  for (PartsCase const& c : cases) {
    std::string text(c.size, '\0');
    for (std::size_t i = 0; i < c.size; ++i) text[i] = static_cast<char>((i * 131 + c.size) & 0xff);
    qxtest::writeFile(dir / "f", text);
    qxsvc::FileFd const file(::open((dir / "f").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(file.valid());
    qxsvc::FileDigests const digests = qxsvc::sha256OfFileAndParts(file.get(), c.partSize, "the file");
    std::string const input = std::to_string(c.size) + " bytes in parts of " + std::to_string(c.partSize);
    EXPECT_EQ(sha256OfText(text), digests.file) << input;
    ASSERT_EQ(c.parts, digests.parts.size()) << input;
    for (std::size_t i = 0; i < c.parts; ++i) {
      EXPECT_EQ(sha256OfText(text.substr(i * c.partSize, c.partSize)), digests.parts[i]) << input << ", part " << i + 1;
    }
  }
}

}  // namespace
