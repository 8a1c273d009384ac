// Whole entries of the spool folders, relative to folder descriptors and
// without following links: moving and removing a tree (listing and opening
// below a folder are in FolderFd.h).
#ifndef QX_APPS_SVC_UPLOAD_TREE_H
#define QX_APPS_SVC_UPLOAD_TREE_H

#include "apps/svc/FolderFd.h"

#include <string>

namespace qxsvc {

// Removes the entry name of dir and everything below it. Throws
// std::system_error naming the entry.
void removeTree(int dir, std::string const& name);

// Moves the entry name of fromDir into toDir under the same name, never
// replacing anything; across file systems it is copied (and synced) first,
// then removed. Throws std::system_error naming the entry; a copy that
// failed half-way is removed again, and the source stays.
//
// MoveSync::byCaller leaves the sync of toDir after a rename to the caller,
// who moves many entries and syncs once; a copy across file systems is
// synced before its source goes, whichever is asked.
enum class MoveSync { now, byCaller };
void moveTree(int fromDir, std::string const& name, int toDir, MoveSync sync = MoveSync::now);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_TREE_H
