// What the service accepts as spool folders, and how it makes them.
//
// The service may run as root, and whoever saves a configuration chooses
// where dropped files go: a configuration must never make it write into a
// system location, and a spool folder must never be writable by other users
// (whoever can plant a link there could make the service overwrite files
// elsewhere).
#ifndef QX_APPS_SVC_SPOOLPOLICY_H
#define QX_APPS_SVC_SPOOLPOLICY_H

#include "settings/Settings.h"

#include <boost/filesystem/path.hpp>

#include <string>
#include <vector>

namespace qxsvc {

struct SpoolFolder {
  char const* role;  // "incoming", "outgoing", "backup", "rejected"
  boost::filesystem::path path;
};

// The four folders of a configuration, in that order.
std::vector<SpoolFolder> spoolFolders(Settings const& settings);

// Why folder may not be a spool folder ("/etc/x is inside the system location
// /etc"), or the empty string. Relative folders are refused; links are
// resolved as far as the folder exists.
std::string checkNotSystemLocation(boost::filesystem::path const& folder);

// Why the folders of settings cannot serve (a system location, two folders
// that are the same or inside one another), or the empty string.
std::string checkFolders(Settings const& settings);

// Makes each folder that is missing, with mode 0750, and checks each: a
// folder, not writable by other users, owned by this user or root. Returns
// the problem, naming the folder, or the empty string.
std::string prepareFolders(Settings const& settings);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_SPOOLPOLICY_H
