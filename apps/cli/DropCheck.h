// What `qxlite drop` checks before it sends anything: every path given is
// looked at first, and one problem anywhere means that nothing is sent. Each
// problem is one line for a person: the path in quotes, then what is wrong
// and, where there is one, what the service would take instead.
//
// localDropProblems needs only the file system, so the client says what is
// wrong with a path before it contacts the service; typeDropProblems applies
// the service's file-type rules (Settings::isBadFileExt) and names the rule
// that refuses a file. Both only read: nothing is opened for writing and no
// link is followed below a dropped folder.
#ifndef QX_APPS_CLI_DROPCHECK_H
#define QX_APPS_CLI_DROPCHECK_H

#include "settings/Settings.h"

#include <string>
#include <vector>

namespace qxcli {

// Missing paths, what is neither a file nor a folder (a FIFO, a socket, a
// device), what cannot be read, and the entries of a folder that would not be
// sent (sub-folders, FIFOs, ...). In the order of paths, then of the
// folder's entries by name.
std::vector<std::string> localDropProblems(std::vector<std::string> const& paths);

// The files that the service's type rules refuse, with the rule: a type it
// does not accept (and the types it does), an archive inside a folder.
std::vector<std::string> typeDropProblems(std::vector<std::string> const& paths, Settings const& settings);

}  // namespace qxcli

#endif  // QX_APPS_CLI_DROPCHECK_H
