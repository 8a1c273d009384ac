#include "apps/RuntimeFile.h"

#include "apps/ConfigFile.h"
#include "json/Json.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace fs = boost::filesystem;

namespace qxapp {

namespace {

// A runtime file is a few hundred bytes; anything much larger is not one.
constexpr std::size_t kMaxRuntimeFileBytes = 64 * 1024;

std::string quoted(fs::path const& p) { return "\"" + p.string() + "\""; }

// The whole file, or nothing when it is missing; throws a text on failure.
std::optional<std::string> readSmallFile(fs::path const& file) {
  int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw std::string(std::strerror(errno));
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    throw std::string("not a regular file");
  }
  std::string text;
  char buffer[4096];
  for (;;) {
    ssize_t const n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int const err = errno;
      ::close(fd);
      throw std::string(std::strerror(err));
    }
    if (n == 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
    if (text.size() > kMaxRuntimeFileBytes) {
      ::close(fd);
      throw std::string("larger than " + std::to_string(kMaxRuntimeFileBytes) + " bytes");
    }
  }
  ::close(fd);
  return text;
}

fs::path const kSystemRuntimeFolder("/run/qxlite");

fs::path personalRuntimeFolder() {
  char const* xdg = std::getenv("XDG_RUNTIME_DIR");
  return xdg && *xdg == '/' ? fs::path(xdg) / "qxlite" : fs::path();
}

}  // namespace

fs::path serviceRuntimeFolder() {
  if (char const* given = std::getenv("RUNTIME_DIRECTORY"); given && *given == '/') {
    std::string const first(given, std::strcspn(given, ":"));
    return first;
  }
  return ::geteuid() == 0 ? kSystemRuntimeFolder : personalRuntimeFolder();
}

std::vector<fs::path> clientRuntimeFolders() {
  fs::path const personal = ::geteuid() == 0 ? fs::path() : personalRuntimeFolder();
  if (personal.empty()) return {kSystemRuntimeFolder};
  return {personal, kSystemRuntimeFolder};
}

bool processRuns(long pid) { return pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM); }

fs::path runtimeFileIn(fs::path const& folder) { return folder / "qxlite-svc.json"; }

void writeRuntimeFacts(fs::path const& folder, RuntimeFacts const& facts) {
  if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
    throw ConfigError("the runtime folder " + quoted(folder) + " cannot be made: " + std::strerror(errno));
  }
  json::Object obj;
  obj.setAt("pid", json::Value(static_cast<json_int_t>(facts.pid)));
  obj.setAt("port", json::Value(static_cast<json_int_t>(facts.port)));
  obj.setAt("version", json::Value(facts.version));
  obj.setAt("config", json::Value(facts.configFile));
  obj.setAt("tokenFile", json::Value(facts.tokenFile));
  obj.setAt("started", json::Value(static_cast<json_int_t>(facts.started)));
  writeFileAtomically(runtimeFileIn(folder), json::jsonToString(obj, false) + "\n", 0644, "runtime file");
}

void removeRuntimeFacts(fs::path const& folder) {
  std::string why;
  std::optional<RuntimeFacts> const facts = readRuntimeFacts(folder, why);
  // A service started since (by mistake, on another port) keeps its file.
  if (facts && facts->pid == static_cast<long>(::getpid())) ::unlink(runtimeFileIn(folder).c_str());
}

std::optional<RuntimeFacts> readRuntimeFacts(fs::path const& folder, std::string& why) {
  why.clear();
  fs::path const file = runtimeFileIn(folder);
  std::optional<std::string> text;
  try {
    text = readSmallFile(file);
  } catch (std::string const& reason) {
    why = "the runtime file " + quoted(file) + " cannot be read: " + reason;
    return std::nullopt;
  }
  if (!text) return std::nullopt;
  try {
    json::Object const obj = json::strToObject(text->data(), text->size());
    auto fact = [&obj](char const* key) {
      json::Value const value = obj[key];
      if (value.empty()) throw json::Exc(std::string("\"") + key + "\" is missing");
      return value;
    };
    RuntimeFacts facts;
    json_int_t const pid = fact("pid").asInt();
    json_int_t const port = fact("port").asInt();
    if (pid <= 0 || pid > 4194304) throw json::Exc("\"pid\" is out of range");
    if (port <= 0 || port > 65535) throw json::Exc("\"port\" is out of range");
    facts.pid = static_cast<long>(pid);
    facts.port = static_cast<std::uint16_t>(port);
    facts.version = fact("version").c_str();
    facts.configFile = fact("config").c_str();
    facts.tokenFile = fact("tokenFile").c_str();
    facts.started = fact("started").asInt();
    if (facts.tokenFile.empty()) throw json::Exc("\"tokenFile\" is empty");
    return facts;
  } catch (json::Exc const& e) {
    why = "the runtime file " + quoted(file) + " is not one: " + e.what();
    return std::nullopt;
  }
}

}  // namespace qxapp
