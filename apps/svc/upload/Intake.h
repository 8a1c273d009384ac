// From the incoming folder into jobs: which entries are ready, the rules
// that refuse some, and the claim that makes each accepted entry a job.
//
// An entry is ready when its name is not ignored (the reserved ".noqx" of
// items still being received among them) and, for entries that another
// program copies in, when its size and modification time (of every file
// below a folder) have not changed for settleTime: SettleTracker keeps what
// it saw last.
//
// Claim: the job folder "<outgoing>/<job id>" is made, then the entry is
// renamed into it under its own name, never replacing anything (renameat2
// RENAME_NOREPLACE). Both are fsync'd before the claim returns. A crash
// between the two leaves an empty job folder (removed at the next start); a
// crash after them leaves a job folder the journal may lack (adopted).
//
// Reject: the entry moves to "<rejected>/<reject id>/<name>" with
// "reason.json" beside it: {"time": unix seconds, "rule": "...",
// "message": "..."}; "rule" is one of "extension", "bad-type-in-folder",
// "empty", "not-a-file", "unreadable", "discarded", "cancelled", "server",
// "expired", "changed".
//
// Every function works on folder descriptors (FolderFd.h) open for reading
// (not O_PATH: claim and reject fsync them) and follows no link. One thread
// at a time per folder; the functions keep no state.
#ifndef QX_APPS_SVC_UPLOAD_INTAKE_H
#define QX_APPS_SVC_UPLOAD_INTAKE_H

#include "apps/svc/FolderFd.h"
#include "settings/Settings.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace qxsvc {

// A job id: "YYYYMMDDTHHMMSSZ-" and 8 random hex digits, unique in practice
// and sortable by time.
std::string newJobId(std::time_t now);
// Whether name has the form of a job id (folders of other forms under the
// outgoing folder are not the service's).
bool isJobId(std::string const& name);

class SettleTracker {
 public:
  explicit SettleTracker(std::chrono::milliseconds settleTime) : m_settleTime(settleTime) {}
  // Whether the entry name of dir has kept its size and times since
  // settleTime; the first sighting starts the clock. For a folder, the sum of
  // the sizes and the latest modification or change time of everything
  // below it count. A dropped item renamed
  // into place by the IPC transfer is complete already: items that arrived
  // through a rename (moved in: inotify's IN_MOVED_TO) may be marked with
  // trust() and are ready at once.
  bool settled(int dir, std::string const& name, std::chrono::steady_clock::time_point now);
  void trust(std::string const& name);
  // Forgets entries that are gone.
  void forgetAllBut(std::vector<std::string> const& present);

 private:
  struct Seen {
    std::uint64_t size = 0;
    std::int64_t mtimeNs = 0;
    std::chrono::steady_clock::time_point since;
    bool trusted = false;
  };
  std::chrono::milliseconds const m_settleTime;
  std::map<std::string, Seen> m_seen;
};

// What the rules say of an entry of the incoming folder:
//  - ignore: its name has an ignored extension (".noqx" among them);
//  - reject "not-a-file": a link, pipe, socket or device (never followed);
//  - reject "extension": a file whose extension is not accepted;
//  - reject "bad-type-in-folder": a folder holding an entry that
//    Settings::isBadFileExt refuses inside a folder (another folder, a zip or
//    enm file, an extension not accepted) or a link or special file;
//  - reject "empty": a folder with nothing to upload (no entry, or only
//    ignored ones). A 0-byte file is accepted: it is a document too.
// The type of each entry is read from the folder's descriptor, never through
// a path. Throws std::system_error naming the entry when it cannot be read.
struct Verdict {
  enum class Kind { accept, ignore, reject } kind = Kind::accept;
  std::string rule;     // for reject: as in reason.json
  std::string message;  // for reject: for people, naming the file
};
Verdict judge(Settings const& settings, int incomingDir, std::string const& name);

// Claims the entry name of incomingDir as job jobId under outgoingDir.
// Throws std::system_error naming the entry when it fails; nothing is lost
// (the entry stays where it was, or is inside the job folder). A job folder
// of that id that exists already is never used: the claim throws (EEXIST)
// and the caller takes another id. name must be one entry and jobId a job id
// (EINVAL otherwise).
void claim(int incomingDir, std::string const& name, int outgoingDir, std::string const& jobId);

// Many claims with one sync of each folder they touch, for a burst of
// entries taken in together: add() makes the job folder and renames the
// entry into it as claim() does, and throws as it does; sync() then flushes
// every job folder made since the last sync, the outgoing folder and the
// incoming folder once. A claim is durable only once sync() returned: a
// crash before leaves each entry either still in the incoming folder or in
// its job folder (the rename is atomic), never in both or neither, and an
// empty job folder at most, which the next start removes. So the journal
// hears of the jobs only after sync(). sync() throws std::system_error
// naming the burst's first entry; the entries stay in their job folders
// (adopted at the next start). Holds the job folders open until sync().
class ClaimBurst {
 public:
  ClaimBurst(int incomingDir, int outgoingDir);
  ClaimBurst(ClaimBurst const&) = delete;
  ClaimBurst& operator=(ClaimBurst const&) = delete;

  void add(std::string const& name, std::string const& jobId);
  void sync();

 private:
  struct Claim {
    std::string name;
    std::string jobId;
    FolderFd jobDir;
  };
  int const m_incomingDir;
  int const m_outgoingDir;
  std::vector<Claim> m_claims;  // added since the last sync
};

// Moves the entry name of fromDir to the rejected folder with its reason;
// returns the path of the new entry, relative to rejectedDir
// ("<id>/<name>"; an entry named "reason.json" becomes "<id>/reason_1.json").
// The reason is written before the entry moves; a reject that fails leaves
// no folder behind. Throws std::system_error naming the entry.
std::string reject(int fromDir, std::string const& name, int rejectedDir, std::string const& rule,
                   std::string const& message, std::time_t now);

// Removes the folders of the rejected folder that a reject stopped by a
// crash left without their entry (holding only the reason, whole or not);
// returns how many. Folders holding anything else are left alone.
std::size_t sweepUnfinishedRejects(int rejectedDir);

// The files of a job folder (relative paths, sorted), sizes included; links
// and special files are not listed, folders are walked (64 levels at most).
// Throws std::system_error naming a folder that cannot be read.
struct JobFile {
  std::string name;
  std::uint64_t size = 0;
  std::int64_t mtimeNs = 0;
};
std::vector<JobFile> filesOf(int jobDir);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_INTAKE_H
