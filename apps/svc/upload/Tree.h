// Whole entries of the spool folders, relative to folder descriptors and
// without following links: listing, opening below a folder, moving and
// removing a tree.
#ifndef QX_APPS_SVC_UPLOAD_TREE_H
#define QX_APPS_SVC_UPLOAD_TREE_H

#include "apps/svc/FolderFd.h"

#include <string>
#include <vector>

namespace qxsvc {

// The names in the folder open as dir, sorted, without "." and "..".
// Throws std::system_error when it cannot be read.
std::vector<std::string> listFolder(int dir);

// Opens the path rel ("a/b/c.pdf") below dir one component at a time with
// O_NOFOLLOW; an invalid FileFd (errno set) when a component is missing or
// a link.
FileFd openBeneath(int dir, std::string const& rel, int flags);

// Removes the entry name of dir and everything below it. Throws
// std::system_error naming the entry.
void removeTree(int dir, std::string const& name);

// Moves the entry name of fromDir into toDir under the same name, never
// replacing anything; across file systems it is copied (and synced) first,
// then removed. Throws std::system_error naming the entry; a copy that
// failed half-way is removed again, and the source stays.
void moveTree(int fromDir, std::string const& name, int toDir);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_TREE_H
