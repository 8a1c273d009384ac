// Tests of the IPC secret token: random generation, the token file that the
// service creates or reads (its content, mode, group and owner), the client's
// reading of it, and the comparison.
//
// The tests run as root, so that a file can be given to another user.
#include "shared/SecretToken.h"

#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <stdexcept>
#include <string>

namespace {

namespace fs = boost::filesystem;

using qxtest::runtimeErrorMessage;

constexpr uid_t kNobody = 65534;

// The first of the groups that a test may use, or the empty string.
std::string someGroup(gid_t* gid) {
  for (char const* name : {"daemon", "adm", "sys", "bin"}) {
    if (struct group const* g = ::getgrnam(name)) {
      *gid = g->gr_gid;
      return name;
    }
  }
  return std::string();
}

struct stat statOf(fs::path const& file) {
  struct stat st {};
  EXPECT_EQ(0, ::lstat(file.c_str(), &st)) << file;
  return st;
}

std::string hexOf(Ipc::SecretToken const& token) {
  static char const kHex[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < Ipc::SecretToken::SIZE; ++i) {
    text += kHex[token.data()[i] >> 4];
    text += kHex[token.data()[i] & 0xF];
  }
  return text;
}

bool sameToken(Ipc::SecretToken const& a, Ipc::SecretToken const& b) { return a.matches(b.data()); }

class SecretTokenTest : public ::testing::Test {
 protected:
  qxtest::TempDir dir;
};

TEST_F(SecretTokenTest, GeneratedTokensDiffer) {
  Ipc::SecretToken const a = Ipc::SecretToken::generate();
  Ipc::SecretToken const b = Ipc::SecretToken::generate();
  EXPECT_FALSE(sameToken(a, b));
  EXPECT_NE(hexOf(a), hexOf(b));
  EXPECT_NE(std::string(64, '0'), hexOf(a));
}

TEST_F(SecretTokenTest, MatchesComparesEveryByte) {
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  unsigned char copy[Ipc::SecretToken::SIZE];
  std::copy(token.data(), token.data() + Ipc::SecretToken::SIZE, copy);
  EXPECT_TRUE(token.matches(copy));
  for (std::size_t i : {std::size_t(0), std::size_t(17), Ipc::SecretToken::SIZE - 1}) {
    copy[i] ^= 0x01;
    EXPECT_FALSE(token.matches(copy)) << "byte " << i;
    copy[i] ^= 0x01;
  }
  EXPECT_TRUE(token.matches(copy));
}

TEST_F(SecretTokenTest, LoadOrCreateMakesAPrivateFileWithTheToken) {
  fs::path const file = dir / "sub" / "folder" / "ipc.token";
  Ipc::SecretToken const token = Ipc::SecretToken::loadOrCreate(file);
  struct stat const st = statOf(file);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(0600u, st.st_mode & 07777u);
  EXPECT_EQ(::geteuid(), st.st_uid);
  std::string const text = qxtest::readFile(file);
  EXPECT_TRUE(std::regex_match(text, std::regex("^[0-9a-f]{64}\n$"))) << text;
  EXPECT_EQ(hexOf(token) + "\n", text);
}

TEST_F(SecretTokenTest, LoadOrCreateTwiceGivesTheSameToken) {
  fs::path const file = dir / "ipc.token";
  Ipc::SecretToken const first = Ipc::SecretToken::loadOrCreate(file);
  std::string const text = qxtest::readFile(file);
  Ipc::SecretToken const second = Ipc::SecretToken::loadOrCreate(file);
  EXPECT_TRUE(sameToken(first, second));
  EXPECT_EQ(text, qxtest::readFile(file));
  EXPECT_TRUE(sameToken(first, Ipc::SecretToken::load(file)));
}

TEST_F(SecretTokenTest, LoadOrCreateKeepsAWrittenTokenAndFixesItsMode) {
  fs::path const file = dir / "ipc.token";
  std::string const hex = "00112233445566778899aabbccddeeff00112233445566778899AABBCCDDEEFF";
  qxtest::writeFile(file, hex + "\n");
  ASSERT_EQ(0, ::chmod(file.c_str(), 0644));
  Ipc::SecretToken const token = Ipc::SecretToken::loadOrCreate(file);
  EXPECT_EQ("00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff", hexOf(token));
  EXPECT_EQ(0600u, statOf(file).st_mode & 07777u);
  EXPECT_EQ(hex + "\n", qxtest::readFile(file));
}

TEST_F(SecretTokenTest, LoadOrCreateWithAGroup) {
  gid_t gid = 0;
  std::string const group = someGroup(&gid);
  if (group.empty()) GTEST_SKIP() << "no usable group on this system";
  fs::path const file = dir / "ipc.token";
  Ipc::SecretToken const token = Ipc::SecretToken::loadOrCreate(file, group);
  struct stat const st = statOf(file);
  EXPECT_EQ(0640u, st.st_mode & 07777u);
  EXPECT_EQ(gid, st.st_gid);
  EXPECT_EQ(hexOf(token) + "\n", qxtest::readFile(file));

  // Without the group the file becomes private again; the token stays.
  Ipc::SecretToken const again = Ipc::SecretToken::loadOrCreate(file);
  EXPECT_TRUE(sameToken(token, again));
  EXPECT_EQ(0600u, statOf(file).st_mode & 07777u);
}

TEST_F(SecretTokenTest, UnknownGroupIsNamedAndNoFileIsMade) {
  fs::path const file = dir / "ipc.token";
  EXPECT_EQ("Ipc token group \"no-such-group-qx\" does not exist",
            runtimeErrorMessage([&] { Ipc::SecretToken::loadOrCreate(file, "no-such-group-qx"); }));
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(SecretTokenTest, MalformedFileIsNamed) {
  fs::path const file = dir / "ipc.token";
  std::string const expected =
      "Ipc token file \"" + file.string() + "\": does not hold a token of 64 hexadecimal digits";
  for (std::string const& content :
       {std::string("abc\n"), std::string(64, 'g') + "\n", std::string(65, 'a') + "\n", std::string(),
        std::string(64, 'a') + "\n\n", std::string(64, 'a') + " \n"}) {
    qxtest::writeFile(file, content);
    EXPECT_EQ(expected, runtimeErrorMessage([&] { Ipc::SecretToken::loadOrCreate(file); }))
        << content;
    EXPECT_EQ(expected, runtimeErrorMessage([&] { Ipc::SecretToken::load(file); })) << content;
  }
  // A token without its line feed is still read.
  qxtest::writeFile(file, std::string(64, 'a'));
  EXPECT_EQ(std::string(64, 'a'), hexOf(Ipc::SecretToken::load(file)));
}

TEST_F(SecretTokenTest, SymbolicLinkIsRefused) {
  fs::path const target = dir / "real.token";
  Ipc::SecretToken::loadOrCreate(target);
  fs::path const link = dir / "ipc.token";
  fs::create_symlink(target, link);
  std::string const expected = "Ipc token file \"" + link.string() + "\": is a symbolic link";
  EXPECT_EQ(expected, runtimeErrorMessage([&] { Ipc::SecretToken::loadOrCreate(link); }));
  EXPECT_EQ(expected, runtimeErrorMessage([&] { Ipc::SecretToken::load(link); }));

  // A link to nowhere makes no file at its target either.
  fs::path const dangling = dir / "dangling.token";
  fs::create_symlink(dir / "nowhere.token", dangling);
  EXPECT_EQ("Ipc token file \"" + dangling.string() + "\": is a symbolic link",
            runtimeErrorMessage([&] { Ipc::SecretToken::loadOrCreate(dangling); }));
  EXPECT_FALSE(fs::exists(dir / "nowhere.token"));
}

TEST_F(SecretTokenTest, FileOfAnotherUserIsRefused) {
  fs::path const file = dir / "ipc.token";
  Ipc::SecretToken::loadOrCreate(file);
  ASSERT_EQ(0, ::chown(file.c_str(), kNobody, static_cast<gid_t>(-1)));
  EXPECT_EQ("Ipc token file \"" + file.string() + "\": belongs to user id 65534, not to this service",
            runtimeErrorMessage([&] { Ipc::SecretToken::loadOrCreate(file); }));
  // Its mode was left alone.
  EXPECT_EQ(0600u, statOf(file).st_mode & 07777u);
}

TEST_F(SecretTokenTest, FolderInsteadOfAFileIsRefused) {
  fs::path const file = dir / "ipc.token";
  fs::create_directory(file);
  EXPECT_EQ("Ipc token file \"" + file.string() + "\": is not a regular file",
            runtimeErrorMessage([&] { Ipc::SecretToken::loadOrCreate(file); }));
}

TEST_F(SecretTokenTest, SpecialFileIsRefusedWithoutWaiting) {
  fs::path const file = dir / "ipc.token";
  ASSERT_EQ(0, ::mkfifo(file.c_str(), 0600));
  std::string const expected = "Ipc token file \"" + file.string() + "\": is not a regular file";
  EXPECT_EQ(expected, runtimeErrorMessage([&] { Ipc::SecretToken::loadOrCreate(file); }));
  EXPECT_EQ(expected, runtimeErrorMessage([&] { Ipc::SecretToken::load(file); }));
}

TEST_F(SecretTokenTest, LoadOfAMissingFileNamesIt) {
  fs::path const file = dir / "missing.token";
  EXPECT_EQ("Ipc token file \"" + file.string() + "\": cannot be opened: No such file or directory",
            runtimeErrorMessage([&] { Ipc::SecretToken::load(file); }));
}

TEST_F(SecretTokenTest, LoadReadsWhatLoadOrCreateWrote) {
  fs::path const file = dir / "ipc.token";
  Ipc::SecretToken const made = Ipc::SecretToken::loadOrCreate(file);
  Ipc::SecretToken const read = Ipc::SecretToken::load(file);
  EXPECT_TRUE(sameToken(made, read));
  EXPECT_FALSE(sameToken(Ipc::SecretToken::generate(), read));
}

}  // namespace
