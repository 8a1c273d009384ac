// Helpers of the tests of the upload pipeline's intake parts (intake,
// packing, hashing, the folder watch): folders opened as the service opens
// them.
#ifndef QX_TESTS_INTAKETESTUTIL_H
#define QX_TESTS_INTAKETESTUTIL_H

#include "apps/svc/FolderFd.h"

#include <fcntl.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace qxtest {

// The folder at path opened for reading, without following a link; an
// invalid holder (and a failure) when it cannot be opened.
inline qxsvc::FolderFd openFolder(boost::filesystem::path const& path) {
  qxsvc::FolderFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder.valid()) ADD_FAILURE() << "cannot open the folder " << path;
  return folder;
}

// The names in folder, sorted; none when it does not exist.
inline std::vector<std::string> namesIn(boost::filesystem::path const& folder) {
  std::vector<std::string> names;
  if (!boost::filesystem::exists(folder)) return names;
  for (boost::filesystem::directory_iterator it(folder), end; it != end; ++it) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace qxtest

#endif  // QX_TESTS_INTAKETESTUTIL_H
