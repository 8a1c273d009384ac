// Helpers of the tests that drive the service's spool parts in process: a
// configuration whose folders lie in a temporary folder, folders owned by
// another user, and what changed in a folder since a stamp.
#ifndef QX_TESTS_SPOOLTESTUTIL_H
#define QX_TESTS_SPOOLTESTUTIL_H

#include "apps/svc/upload/Pipeline.h"
#include "settings/Settings.h"
#include "tests/TestUtil.h"

#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace qxtest {

// A record with the three folders given and everything else by default.
inline Settings spoolSettings(boost::filesystem::path const& in, boost::filesystem::path const& out,
                              boost::filesystem::path const& backup) {
  json::Object obj;
  obj.setAt("ReceiveFolder", json::Value(in.string()));
  obj.setAt("SpoolFolder", json::Value(out.string()));
  obj.setAt("BackupFolder", json::Value(backup.string()));
  return Settings(obj);
}

// Options of a pipeline whose journal lives in stateFolder (made here) and
// whose credentials file is credentials (none by default: a pipeline without
// a server address holds its queue and moves nothing beyond the outgoing
// folder).
inline qxsvc::PipelineOptions pipelineOptions(boost::filesystem::path const& stateFolder,
                                              boost::filesystem::path const& credentials = {}) {
  boost::filesystem::create_directories(stateFolder);
  ::chmod(stateFolder.c_str(), 0700);
  qxsvc::PipelineOptions options;
  options.stateFolder = stateFolder;
  options.credentialsFile = credentials;
  return options;
}

// The user id and group id of "nobody": someone who is neither root nor this
// process's user.
struct OtherUser {
  uid_t uid = 65534;
  gid_t gid = 65534;
};
inline OtherUser otherUser() {
  OtherUser user;
  if (passwd const* pw = ::getpwnam("nobody")) {
    user.uid = pw->pw_uid;
    user.gid = pw->pw_gid;
  }
  return user;
}

// Makes folder with mode, owned by owner; false (with a failure) when that
// cannot be done (giving a folder away needs root).
inline bool makeFolder(boost::filesystem::path const& folder, mode_t mode, OtherUser const* owner = nullptr) {
  boost::filesystem::create_directories(folder);
  if (owner && ::chown(folder.c_str(), owner->uid, owner->gid) != 0) {
    ADD_FAILURE() << "cannot give " << folder << " to user id " << owner->uid;
    return false;
  }
  if (::chmod(folder.c_str(), mode) != 0) {
    ADD_FAILURE() << "cannot set the mode of " << folder;
    return false;
  }
  return true;
}

// A stamp taken now: what `find FOLDER -newer STAMP` lists afterwards
// (the folder itself when an entry was made or removed in it, or anything
// made or changed below it).
class ChangeStamp {
 public:
  explicit ChangeStamp(boost::filesystem::path file) : m_file(std::move(file)) {
    writeFile(m_file, "stamp");
    // Whatever happens next must be strictly newer than the stamp, also
    // where the file system counts time in coarse ticks.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }

  // What find lists below (and including) folder as changed since the stamp.
  std::vector<std::string> changedIn(boost::filesystem::path const& folder) const {
    std::string const command = "find '" + folder.string() + "' -newer '" + m_file.string() + "' -print 2>&1";
    std::vector<std::string> changed;
    FILE* const pipe = ::popen(command.c_str(), "r");
    if (!pipe) {
      ADD_FAILURE() << "cannot run " << command;
      return changed;
    }
    char line[4096];
    while (std::fgets(line, sizeof line, pipe)) {
      std::string text(line);
      if (!text.empty() && text.back() == '\n') text.pop_back();
      changed.push_back(text);
    }
    ::pclose(pipe);
    return changed;
  }

 private:
  boost::filesystem::path const m_file;
};

}  // namespace qxtest

#endif  // QX_TESTS_SPOOLTESTUTIL_H
