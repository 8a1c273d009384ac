#include "shared/SecretToken.h"

#include "shared/Platform.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace fs = boost::filesystem;

namespace Ipc {

namespace {

constexpr char kHex[] = "0123456789abcdef";

[[noreturn]] void fail(fs::path const& file, std::string const& what, int err = 0) {
  std::string msg = "Ipc token file \"" + file.string() + "\": " + what;
  if (err) msg += ": " + std::string(std::strerror(err));
  throw std::runtime_error(msg);
}

// Closes the descriptor when the scope ends.
class Fd {
 public:
  explicit Fd(int fd) : m_fd(fd) {}
  ~Fd() {
    if (m_fd >= 0) ::close(m_fd);
  }
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  int get() const { return m_fd; }

 private:
  int m_fd;
};

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string readAll(int fd, fs::path const& file) {
  std::string text;
  char buf[256];
  for (;;) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) fail(file, "cannot be read", errno);
    if (n == 0) break;
    text.append(buf, static_cast<std::size_t>(n));
    if (text.size() > 1024) fail(file, "is too large to be a token file");
  }
  return text;
}

// Opens the token file for reading. A symbolic link in its place is refused
// (O_NOFOLLOW), and a special file cannot make the open block (O_NONBLOCK).
int openForReading(fs::path const& file) {
  int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    int const err = errno;
    struct stat st {};
    if (err == ELOOP && ::lstat(file.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
      fail(file, "is a symbolic link");
    }
    fail(file, "cannot be opened", err);
  }
  return fd;
}

// The status of the open file, which must be a regular file.
struct stat examineRegular(int fd, fs::path const& file) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) fail(file, "cannot be examined", errno);
  if (!S_ISREG(st.st_mode)) fail(file, "is not a regular file");
  return st;
}

// The token held by the open file (examined with examineRegular first).
std::array<unsigned char, SecretToken::SIZE> readToken(int fd, fs::path const& file) {
  std::string text = readAll(fd, file);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (text.size() != 2 * SecretToken::SIZE) fail(file, "does not hold a token of 64 hexadecimal digits");
  std::array<unsigned char, SecretToken::SIZE> bytes{};
  for (std::size_t i = 0; i < SecretToken::SIZE; ++i) {
    int const hi = hexValue(text[2 * i]);
    int const lo = hexValue(text[2 * i + 1]);
    if (hi < 0 || lo < 0) fail(file, "does not hold a token of 64 hexadecimal digits");
    bytes[i] = static_cast<unsigned char>(hi << 4 | lo);
  }
  return bytes;
}

gid_t groupId(std::string const& group) {
  long const bufSize = ::sysconf(_SC_GETGR_R_SIZE_MAX);
  std::vector<char> buf(bufSize > 0 ? static_cast<std::size_t>(bufSize) : 16384);
  struct group gr {};
  struct group* found = nullptr;
  if (::getgrnam_r(group.c_str(), &gr, buf.data(), buf.size(), &found) != 0 || !found) {
    throw std::runtime_error("Ipc token group \"" + group + "\" does not exist");
  }
  return found->gr_gid;
}

}  // namespace

SecretToken SecretToken::generate() {
  SecretToken token;
  std::size_t done = 0;
  while (done < SIZE) {
    ssize_t const n = ::getrandom(token.m_bytes.data() + done, SIZE - done, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error("Ipc cannot make a token: " + std::string(std::strerror(errno)));
    done += static_cast<std::size_t>(n);
  }
  return token;
}

SecretToken SecretToken::load(fs::path const& file) {
  Fd fd(openForReading(file));
  examineRegular(fd.get(), file);
  SecretToken token;
  token.m_bytes = readToken(fd.get(), file);
  return token;
}

SecretToken SecretToken::loadOrCreate(fs::path const& file, std::string const& group) {
  gid_t const gid = group.empty() ? static_cast<gid_t>(-1) : groupId(group);
  mode_t const mode = group.empty() ? 0600 : 0640;

  boost::system::error_code ec;
  if (file.has_parent_path()) {
    fs::create_directories(file.parent_path(), ec);
    if (ec) fail(file, "its folder cannot be made: " + ec.message());
  }
  int const created =
      ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (created >= 0) {
    Fd fd(created);
    SecretToken const token = generate();
    char text[2 * SIZE + 1];
    for (std::size_t i = 0; i < SIZE; ++i) {
      text[2 * i] = kHex[token.m_bytes[i] >> 4];
      text[2 * i + 1] = kHex[token.m_bytes[i] & 0xF];
    }
    text[2 * SIZE] = '\n';
    if (::write(fd.get(), text, sizeof text) != static_cast<ssize_t>(sizeof text) ||
        ::fsync(fd.get()) != 0) {
      int const err = errno;
      ::unlink(file.c_str());
      fail(file, "cannot be written", err);
    }
  } else if (errno != EEXIST) {
    fail(file, "cannot be created", errno);
  }

  // Whether new or old, the file must be this user's own, and end with the
  // mode and group that were asked for. The token is read from the very file
  // that was checked, not from whatever the path names afterwards.
  Fd fd(openForReading(file));
  struct stat const st = examineRegular(fd.get(), file);
  if (st.st_uid != ::geteuid()) {
    fail(file, "belongs to user id " + std::to_string(st.st_uid) + ", not to this service");
  }
  if (::fchown(fd.get(), static_cast<uid_t>(-1), gid) != 0) fail(file, "cannot be given its group", errno);
  if (::fchmod(fd.get(), mode) != 0) fail(file, "cannot be given its mode", errno);
  SecretToken token;
  token.m_bytes = readToken(fd.get(), file);
  return token;
}

fs::path SecretToken::defaultPath() {
  Platform const& platform = Platform::inst();
  if (platform.sysCfgDir().empty()) platform.initSysCfgDir();
  return fs::path(platform.sysCfgDir()) / "QXLite" / "ipc.token";
}

fs::path SecretToken::clientDefaultPath() {
  fs::path const own = defaultPath();
  boost::system::error_code ec;
  if (fs::exists(own, ec)) return own;
  return fs::path("/etc/QXLite/ipc.token");
}

bool SecretToken::matches(unsigned char const* candidate) const {
  unsigned char diff = 0;
  for (std::size_t i = 0; i < SIZE; ++i) diff |= static_cast<unsigned char>(m_bytes[i] ^ candidate[i]);
  // The accumulated difference is read through a volatile so that the loop
  // is not cut short.
  volatile unsigned char const result = diff;
  return result == 0;
}

}  // namespace Ipc
