// What the service accepts as spool folders, and how it makes them.
//
// Whoever saves a configuration chooses where dropped files go, and the
// service moves and writes files there with its own rights: a configuration
// must never make it write into a system location, and no one but the
// service's user (and root) may be able to change any folder on the way to a
// spool folder (whoever can swap a component for a link could redirect the
// service's moves). The rules, in the order they are applied:
//
//   1. the folder is an absolute path and not "/";
//   2. neither the folder nor its real path lies in a system location
//      (kSystemLocations in SpoolPolicy.cpp: /etc, /usr, /var, /home, ...),
//      unless it lies in one of the service's own places (the default spool
//      /var/spool/QXUpload, its state folder /var/lib/qxlite, and the home
//      folder of the service's user when that is not root);
//   3. every component from "/" down is a folder, not a link, owned by root
//      or the service's user and writable by no one else (a sticky folder
//      such as /tmp is accepted above a component that root or the service's
//      user owns), and the folder itself belongs to the service's user (see
//      FolderFd.h).
//
// Refusals name the folder and the rule: `the outgoing folder "/var/www/x":
// "/var/www" is a system location`. Every function may be called from any
// thread.
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

// `the incoming folder "/x"`: how refusals name a folder.
std::string folderName(SpoolFolder const& folder);

// Rules 1 and 2: why folder may not be a spool folder, beginning with the
// quoted folder (`"qx" is not an absolute path`, `"/var/www/x": "/var/www"
// is a system location`), or the empty string. Links are resolved as far as
// the folder exists.
std::string checkLocation(boost::filesystem::path const& folder);

// Rules 1 and 2 for the folders of settings, and that no two of them are the
// same or inside one another: the first problem, naming the folder, or the
// empty string. Touches nothing.
std::string checkFolders(Settings const& settings);

// Only that no two folders of settings are the same or inside one another
// (links resolved as far as they exist): the first pair, or the empty string.
std::string checkOverlap(Settings const& settings);

// Rule 3: makes each folder that is missing (mode 0750, component by
// component, without following links) and checks each. Returns the first
// problem, naming the folder, or the empty string. Call after checkFolders.
std::string prepareFolders(Settings const& settings);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_SPOOLPOLICY_H
