// The service's runtime file: where a running service can be found, for the
// clients that were not told (no --port, no --token-file).
//
// The service writes "qxlite-svc.json" into its runtime folder once it
// serves (the folder systemd made for it, $RUNTIME_DIRECTORY; else
// "/run/qxlite" as root, "$XDG_RUNTIME_DIR/qxlite" otherwise; or the
// --runtime-dir of both programs), and removes it when it stops. A client
// looks in the person's own folder first, then in the system's. The file
// holds no secret (mode 0644): the port, the process id, the version, the
// configuration file, the token file (its path, never its bytes) and the
// start time. It is replaced whole, so a reader sees one run's facts or
// another's, never a mix. A service that was killed leaves its file behind:
// a client that then finds nobody on the port says the service is not
// running.
//
// The file is read as hostile input: a size limit, a JSON object, each fact
// of its type and range; anything else is "unreadable", with the reason.
#ifndef QX_APPS_RUNTIMEFILE_H
#define QX_APPS_RUNTIMEFILE_H

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qxapp {

struct RuntimeFacts {
  long pid = 0;
  std::uint16_t port = 0;
  std::string version;
  std::string configFile;
  std::string tokenFile;
  std::int64_t started = 0;  // unix seconds
};

// Where the service writes its file: $RUNTIME_DIRECTORY (its first folder)
// when systemd gives one; else "/run/qxlite" as root,
// "$XDG_RUNTIME_DIR/qxlite" otherwise; empty when there is no such folder.
boost::filesystem::path serviceRuntimeFolder();
// Where a client looks, in order: "$XDG_RUNTIME_DIR/qxlite" (not as root),
// then "/run/qxlite".
std::vector<boost::filesystem::path> clientRuntimeFolders();
// Whether the process pid of a runtime file still runs (a killed service
// leaves its file behind).
bool processRuns(long pid);
boost::filesystem::path runtimeFileIn(boost::filesystem::path const& folder);

// Makes the folder (mode 0755) when missing and replaces the file. Throws
// ConfigError naming the path.
void writeRuntimeFacts(boost::filesystem::path const& folder, RuntimeFacts const& facts);
// Removes the file when it is this process's.
void removeRuntimeFacts(boost::filesystem::path const& folder);

// The facts; nothing when there is no file. why says what is wrong with a
// file that cannot be used.
std::optional<RuntimeFacts> readRuntimeFacts(boost::filesystem::path const& folder, std::string& why);

}  // namespace qxapp

#endif  // QX_APPS_RUNTIMEFILE_H
