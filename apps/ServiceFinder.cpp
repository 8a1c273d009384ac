#include "apps/ServiceFinder.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace fs = boost::filesystem;

namespace qxapp {

std::optional<RuntimeFacts> findRunningService(std::string const& namedFolder, bool verbose,
                                               std::function<void(std::string const&)> const& note) {
  bool const named = !namedFolder.empty();
  std::vector<fs::path> const folders = named ? std::vector<fs::path>{namedFolder} : clientRuntimeFolders();
  for (fs::path const& folder : folders) {
    std::string why;
    std::optional<RuntimeFacts> const facts = readRuntimeFacts(folder, why);
    std::string const file = "\"" + runtimeFileIn(folder).string() + "\"";
    if (facts && !processRuns(facts->pid)) {
      // Left behind by a service that was killed.
      std::string const stale = "the runtime file " + file + " names process " + std::to_string(facts->pid) +
                                ", which has ended";
      if (named) throw ServiceNotRunning(stale);
      if (verbose) note(stale + "; looking further");
      continue;
    }
    if (facts) return facts;
    // The folder a person named: the defaults might find another service.
    if (named && !why.empty()) throw std::runtime_error(why);
    if (named) throw ServiceNotRunning("no runtime file at " + file);
    if (!why.empty()) note(why + "; looking further");
  }
  return std::nullopt;
}

fs::path clientTokenFile(std::string const& tokenFile) {
  return tokenFile.empty() ? Ipc::SecretToken::clientDefaultPath() : fs::path(tokenFile);
}

Ipc::SecretToken loadClientToken(fs::path const& file) {
  int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) throw ServiceNotRunning("no token file at \"" + file.string() + "\"");
  if (fd < 0 && errno == EACCES) {
    struct stat st {};
    group const* owner = ::stat(file.c_str(), &st) == 0 ? ::getgrgid(st.st_gid) : nullptr;
    std::string const name = owner ? owner->gr_name : "qxlite";
    throw std::runtime_error("the token file \"" + file.string() +
                             "\" cannot be read: Permission denied; members of the group \"" + name +
                             "\" may use the service (after `usermod -aG " + name +
                             " $USER`, log in again for it to count)");
  }
  if (fd >= 0) ::close(fd);
  return Ipc::SecretToken::load(file);
}

std::string nobodyAnswers(std::string const& transportError) {
  static std::string const kNoService = "Ipc cannot connect to the service at ";
  if (transportError.compare(0, kNoService.size(), kNoService) != 0) return std::string();
  return "nothing answers at " + transportError.substr(kNoService.size());
}

std::string notRunningText(std::string const& why) {
  return "the service is not running (" + why + "): start it with `systemctl start qxlite-svc`";
}

}  // namespace qxapp
