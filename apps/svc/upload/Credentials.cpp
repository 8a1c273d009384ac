#include "apps/svc/upload/Credentials.h"

#include "json/Json.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace qxsvc {

namespace {

// A credentials file is a few lines; anything larger is not one.
constexpr std::size_t kMaxFileSize = 64 * 1024;

std::string modeText(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// The member key of the file's object, a non-empty string; throws otherwise.
std::string member(json::Object const& obj, char const* key, std::string const& named) {
  json::Value const value = obj[key];
  if (!value.get()) throw std::runtime_error(named + " has no \"" + key + "\"");
  if (!value.isString()) throw std::runtime_error(named + " has a \"" + key + "\" that is not a text");
  std::string text = value.asStringSafe();
  if (text.empty()) throw std::runtime_error(named + " has an empty \"" + key + "\"");
  return text;
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : m_fd(fd) {}
  ~Descriptor() {
    if (m_fd >= 0) ::close(m_fd);
  }
  Descriptor(Descriptor const&) = delete;
  Descriptor& operator=(Descriptor const&) = delete;
  int get() const { return m_fd; }

 private:
  int m_fd;
};

}  // namespace

boost::filesystem::path defaultCredentialsPath() {
  char const* dir = std::getenv("CREDENTIALS_DIRECTORY");
  if (dir && *dir) return boost::filesystem::path(dir) / "upload";
  return "/etc/QXLite/credentials.json";
}

Credentials loadCredentials(boost::filesystem::path const& file) {
  std::string const named = "the credentials file \"" + file.string() + "\"";
  // O_NOFOLLOW: a link could point the service at a file someone else
  // controls; O_NONBLOCK: a FIFO must not hang the start.
  Descriptor fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (fd.get() < 0) {
    int const error = errno;
    if (error == ELOOP) throw std::runtime_error(named + " is a symbolic link: give the file itself");
    throw std::runtime_error(named + " cannot be opened: " + std::strerror(error));
  }
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) {
    throw std::runtime_error(named + " cannot be examined: " + std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) throw std::runtime_error(named + " is not a regular file");
  if (info.st_uid != ::geteuid()) {
    throw std::runtime_error(named + " belongs to user id " + std::to_string(info.st_uid) +
                             ", not to the service's user (id " + std::to_string(::geteuid()) +
                             "): chown it");
  }
  if (info.st_mode & (S_IRGRP | S_IROTH)) {
    throw std::runtime_error(named + " is readable by others (mode " + modeText(info.st_mode) +
                             "): chmod 600 it");
  }
  if (info.st_mode & (S_IWGRP | S_IWOTH | S_IXGRP | S_IXOTH)) {
    throw std::runtime_error(named + " is open to others (mode " + modeText(info.st_mode) +
                             "): chmod 600 it");
  }
  if (static_cast<std::uint64_t>(info.st_size) > kMaxFileSize) {
    throw std::runtime_error(named + " is larger than 64 KiB");
  }
  std::string text(kMaxFileSize + 1, '\0');
  std::size_t length = 0;
  while (length < text.size()) {
    ssize_t const n = ::read(fd.get(), &text[length], text.size() - length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error(named + " cannot be read: " + std::strerror(errno));
    if (n == 0) break;
    length += static_cast<std::size_t>(n);
  }
  if (length > kMaxFileSize) throw std::runtime_error(named + " is larger than 64 KiB");
  text.resize(length);

  json::Object obj;
  try {
    obj = json::strToObject(text.data(), text.size());
  } catch (json::Exc const& e) {
    throw std::runtime_error(named + " is not a JSON object: " + e.what());
  }
  Credentials credentials;
  credentials.user = member(obj, "user", named);
  credentials.secret = member(obj, "secret", named);
  if (credentials.user.find(':') != std::string::npos) {
    throw std::runtime_error(named + " has a \"user\" with a \":\", which no server can take");
  }
  return credentials;
}

}  // namespace qxsvc
