#include "apps/svc/upload/Intake.h"

#include "apps/svc/FolderFd.h"

#include "json/Json.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

// Folders nest at most this deep below a job folder or a dropped folder;
// deeper ones are not the service's to walk.
constexpr unsigned kMaxDepth = 64;
constexpr char kReasonFile[] = "reason.json";
constexpr char kReasonFileAlias[] = "reason_1.json";

std::string quoted(std::string const& name) { return "\"" + name + "\""; }

std::system_error failure(int err, std::string const& what) {
  return std::system_error(err, std::generic_category(), what);
}

// A name of a single entry: no slash, not "." or "..", not empty.
void requireEntryName(std::string const& name, char const* doing) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.find('\0') != std::string::npos) {
    throw failure(EINVAL, std::string("cannot ") + doing + " " + quoted(name) + ": not the name of an entry");
  }
}

void fsyncOrThrow(int fd, std::string const& what) {
  if (::fsync(fd) != 0) throw failure(errno, "cannot flush " + what);
}

bool statNoFollow(int dir, std::string const& name, struct stat& st) {
  return ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

std::int64_t mtimeNsOf(struct stat const& st) {
  return static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

std::int64_t ctimeNsOf(struct stat const& st) {
  return static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
}

// How messages call the entries that are neither files nor folders.
struct TypeName {
  mode_t type;
  char const* name;
};
TypeName const kTypeNames[] = {
    {S_IFLNK, "a symbolic link"}, {S_IFIFO, "a named pipe"}, {S_IFSOCK, "a socket"},
    {S_IFCHR, "a device"},        {S_IFBLK, "a device"},
};

char const* typeName(mode_t mode) {
  for (TypeName const& t : kTypeNames) {
    if ((mode & S_IFMT) == t.type) return t.name;
  }
  return "not a file or folder";
}

// What the settle check compares: the total size and the latest change of
// everything below an entry (a folder's own times change when entries come
// or go).
struct Fingerprint {
  std::uint64_t size = 0;
  std::int64_t changedNs = 0;
};

void addToFingerprint(int dir, std::string const& name, unsigned depth, Fingerprint& print) {
  struct stat st {};
  if (!statNoFollow(dir, name, st)) return;
  print.changedNs = std::max({print.changedNs, mtimeNsOf(st), ctimeNsOf(st)});
  if (!S_ISDIR(st.st_mode)) {
    print.size += static_cast<std::uint64_t>(st.st_size);
    return;
  }
  if (depth >= kMaxDepth) return;
  FolderFd const sub(::openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!sub.valid()) return;
  try {
    for (std::string const& entry : entriesOf(sub.get(), name)) addToFingerprint(sub.get(), entry, depth + 1, print);
  } catch (std::system_error const&) {
    // An unreadable folder shows as its own times; the claim will say more.
  }
}

// The extensions that Settings accepts, for messages: "pdf, ps, xml".
std::string acceptedList(Settings const& settings) {
  std::vector<std::string> exts;
  for (std::string const& ext : Settings::cfgExtsToSet(settings.SrvFileExts)) exts.push_back(ext);
  std::sort(exts.begin(), exts.end());
  std::string text;
  for (std::string const& ext : exts) text += (text.empty() ? "" : ", ") + ext;
  return text;
}

std::string extensionOf(std::string const& name) { return Settings::fixExtForSet(fs::path(name).extension().string()); }

// The rules for an entry directly inside a dropped folder, as
// Settings::isBadFileExt(path, true) has them, but with the entry's type
// read from its descriptor instead of a path: an extension outside the
// accepted list refuses it (unless ignored), and so do "zip" and "enm" and
// folders inside a folder.
bool badInFolder(Settings const& settings, std::string const& name, struct stat const& st) {
  if (settings.isBadFileExt(fs::path(name), false)) return true;
  std::string const ext = extensionOf(name);
  bool const accepted = settings.SrvFileExtsSet.empty() || settings.SrvFileExtsSet.count(ext) != 0;
  if (!accepted) return false;  // ignored: skipped, not refused
  return Settings::INDIR_BAD_EXTS.count(ext) != 0 || S_ISDIR(st.st_mode);
}

Verdict refusal(char const* rule, std::string message) {
  Verdict verdict;
  verdict.kind = Verdict::Kind::reject;
  verdict.rule = rule;
  verdict.message = std::move(message);
  return verdict;
}

Verdict judgeFolder(Settings const& settings, int incomingDir, std::string const& name) {
  FolderFd const folder(::openat(incomingDir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder.valid()) throw failure(errno, "cannot open the folder " + quoted(name));
  std::size_t taken = 0;
  for (std::string const& entry : entriesOf(folder.get(), name)) {
    struct stat st {};
    if (!statNoFollow(folder.get(), entry, st)) continue;  // gone meanwhile
    std::string const inner = name + "/" + entry;
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
      return refusal("bad-type-in-folder", quoted(inner) + " is " + typeName(st.st_mode) +
                                               "; a folder may hold only files");
    }
    if (badInFolder(settings, entry, st)) {
      std::string const ext = extensionOf(entry);
      std::string why;
      if (S_ISDIR(st.st_mode)) why = "is a folder inside the folder; folders are taken one level deep";
      else if (Settings::INDIR_BAD_EXTS.count(ext) != 0) why = "is a \"" + ext + "\" file, which a folder may not hold";
      else if (ext.empty()) why = "has no extension; accepted are: " + acceptedList(settings);
      else why = "has the extension \"" + ext + "\", which is not accepted; accepted are: " + acceptedList(settings);
      return refusal("bad-type-in-folder", quoted(inner) + " " + why);
    }
    if (!settings.isIgnoredExtension(fs::path(entry))) ++taken;
  }
  if (taken == 0) return refusal("empty", "the folder " + quoted(name) + " holds no file to upload");
  return Verdict();
}

}  // namespace

// ---------------------------------------------------------------------------
// Job ids

std::string newJobId(std::time_t now) {
  // A random start per process, then one more per id: ids of one process
  // never repeat, and two processes meet only by chance.
  static std::atomic<std::uint32_t> next = [] {
    std::uint32_t seed = 0;
    if (::getrandom(&seed, sizeof seed, 0) != static_cast<ssize_t>(sizeof seed)) {
      seed = static_cast<std::uint32_t>(::getpid()) * 2654435761u ^ static_cast<std::uint32_t>(std::time(nullptr));
    }
    return seed;
  }();
  std::uint32_t const serial = next.fetch_add(1, std::memory_order_relaxed);
  std::tm utc {};
  ::gmtime_r(&now, &utc);
  char text[96];
  std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02dZ-%08x", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<unsigned>(serial));
  return text;
}

bool isJobId(std::string const& name) {
  // "YYYYMMDDTHHMMSSZ-hhhhhhhh"
  static char const shape[] = "ddddddddTddddddZ-hhhhhhhh";
  if (name.size() != sizeof shape - 1) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    char const c = name[i];
    switch (shape[i]) {
      case 'd':
        if (c < '0' || c > '9') return false;
        break;
      case 'h':
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
        break;
      default:
        if (c != shape[i]) return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------
// Settling

bool SettleTracker::settled(int dir, std::string const& name, std::chrono::steady_clock::time_point now) {
  struct stat st {};
  if (!statNoFollow(dir, name, st)) {
    m_seen.erase(name);
    return false;
  }
  Fingerprint print;
  addToFingerprint(dir, name, 0, print);
  auto const found = m_seen.find(name);
  if (found == m_seen.end()) {
    Seen& seen = m_seen[name];
    seen.size = print.size;
    seen.mtimeNs = print.changedNs;
    seen.since = now;
    return m_settleTime.count() <= 0;
  }
  Seen& seen = found->second;
  if (seen.trusted) return true;
  if (seen.size != print.size || seen.mtimeNs != print.changedNs) {
    seen.size = print.size;
    seen.mtimeNs = print.changedNs;
    seen.since = now;
  }
  return now - seen.since >= m_settleTime;
}

void SettleTracker::trust(std::string const& name) { m_seen[name].trusted = true; }

void SettleTracker::forgetAllBut(std::vector<std::string> const& present) {
  std::vector<std::string> sorted(present);
  std::sort(sorted.begin(), sorted.end());
  for (auto it = m_seen.begin(); it != m_seen.end();) {
    if (std::binary_search(sorted.begin(), sorted.end(), it->first)) ++it;
    else it = m_seen.erase(it);
  }
}

// ---------------------------------------------------------------------------
// Rules

Verdict judge(Settings const& settings, int incomingDir, std::string const& name) {
  requireEntryName(name, "judge");
  if (settings.isIgnoredExtension(fs::path(name))) {
    Verdict verdict;
    verdict.kind = Verdict::Kind::ignore;
    return verdict;
  }
  struct stat st {};
  if (!statNoFollow(incomingDir, name, st)) throw failure(errno, "cannot examine " + quoted(name));
  if (S_ISDIR(st.st_mode)) return judgeFolder(settings, incomingDir, name);
  if (!S_ISREG(st.st_mode)) {
    return refusal("not-a-file", quoted(name) + " is " + typeName(st.st_mode) + "; only files and folders are taken");
  }
  if (settings.isBadFileExt(fs::path(name), false)) {
    std::string const ext = extensionOf(name);
    std::string const accepted = "accepted are: " + acceptedList(settings);
    return refusal("extension", ext.empty() ? quoted(name) + " has no extension; " + accepted
                                            : quoted(name) + " has the extension \"" + ext +
                                                  "\", which is not accepted; " + accepted);
  }
  // A 0-byte file is a document like any other and is taken.
  return Verdict();
}

// ---------------------------------------------------------------------------
// Claim and reject

ClaimBurst::ClaimBurst(int incomingDir, int outgoingDir) : m_incomingDir(incomingDir), m_outgoingDir(outgoingDir) {}

void ClaimBurst::add(std::string const& name, std::string const& jobId) {
  requireEntryName(name, "claim");
  if (!isJobId(jobId)) throw failure(EINVAL, "cannot claim " + quoted(name) + ": " + quoted(jobId) + " is not a job id");
  if (::mkdirat(m_outgoingDir, jobId.c_str(), 0750) != 0) {
    int const err = errno;
    throw failure(err, "cannot claim " + quoted(name) + (err == EEXIST ? ": the job folder " + quoted(jobId) + " exists already"
                                                                       : ": cannot make the job folder " + quoted(jobId)));
  }
  FolderFd job(::openat(m_outgoingDir, jobId.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  int err = job.valid() ? 0 : errno;
  if (err == 0 && ::renameat2(m_incomingDir, name.c_str(), job.get(), name.c_str(), RENAME_NOREPLACE) != 0) err = errno;
  if (err != 0) {
    // The entry is still in the incoming folder: the empty job folder goes.
    ::unlinkat(m_outgoingDir, jobId.c_str(), AT_REMOVEDIR);
    throw failure(err, "cannot claim " + quoted(name) + " as job " + quoted(jobId) + "; it stays in the incoming folder");
  }
  m_claims.push_back(Claim{name, jobId, std::move(job)});
}

void ClaimBurst::sync() {
  if (m_claims.empty()) return;
  // The job folders first, then the folder that lists them, then the one
  // they left. On a journalling file system the first sync commits every
  // rename of the burst, so the others are cheap.
  std::string const what = m_claims.size() == 1
                               ? "the claim of " + quoted(m_claims.front().name) + " as job " + quoted(m_claims.front().jobId)
                               : "the claims of " + std::to_string(m_claims.size()) + " entries, " +
                                     quoted(m_claims.front().name) + " (job " + quoted(m_claims.front().jobId) + ") first";
  for (Claim const& c : m_claims) fsyncOrThrow(c.jobDir.get(), what);
  fsyncOrThrow(m_outgoingDir, what);
  fsyncOrThrow(m_incomingDir, what);
  m_claims.clear();
}

void claim(int incomingDir, std::string const& name, int outgoingDir, std::string const& jobId) {
  ClaimBurst burst(incomingDir, outgoingDir);
  burst.add(name, jobId);
  burst.sync();
}

namespace {

// Writes reason.json into dir (written under a temporary name, flushed, then
// renamed, so that it is whole or absent).
void writeReason(int dir, std::string const& rule, std::string const& message, std::time_t now,
                 std::string const& what) {
  json::Object reason;
  reason.setAt("time", json::Value(static_cast<json_int_t>(now)));
  reason.setAt("rule", json::Value(rule));
  reason.setAt("message", json::Value(message));
  std::string const text = json::jsonToString(reason, false);
  std::string const temp = std::string(kReasonFile) + ".noqx";
  FileFd const file(::openat(dir, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (!file.valid()) throw failure(errno, "cannot reject " + what + ": cannot write its reason");
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const wrote = ::write(file.get(), text.data() + done, text.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) throw failure(wrote < 0 ? errno : EIO, "cannot reject " + what + ": cannot write its reason");
    done += static_cast<std::size_t>(wrote);
  }
  fsyncOrThrow(file.get(), "the reason of " + what);
  if (::renameat2(dir, temp.c_str(), dir, kReasonFile, RENAME_NOREPLACE) != 0) {
    throw failure(errno, "cannot reject " + what + ": cannot write its reason");
  }
}

// Removes what a failed reject made in its folder, which holds nothing of
// the entry.
void removeRejectFolder(int rejectedDir, std::string const& id) {
  FolderFd const folder(::openat(rejectedDir, id.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.valid()) {
    ::unlinkat(folder.get(), kReasonFile, 0);
    ::unlinkat(folder.get(), (std::string(kReasonFile) + ".noqx").c_str(), 0);
  }
  ::unlinkat(rejectedDir, id.c_str(), AT_REMOVEDIR);
}

}  // namespace

std::string reject(int fromDir, std::string const& name, int rejectedDir, std::string const& rule,
                   std::string const& message, std::time_t now) {
  requireEntryName(name, "reject");
  std::string const what = quoted(name);
  std::string id;
  for (int attempt = 0;; ++attempt) {
    id = newJobId(now);
    if (::mkdirat(rejectedDir, id.c_str(), 0750) == 0) break;
    int const err = errno;
    if (err != EEXIST || attempt == 100) throw failure(err, "cannot reject " + what + ": cannot make its folder " + quoted(id));
  }
  // The folder is new and holds only the reason: an entry named like the
  // reason file is the one name that needs another.
  std::string const target = name == kReasonFile ? kReasonFileAlias : name;
  FolderFd const folder(::openat(rejectedDir, id.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  try {
    if (!folder.valid()) throw failure(errno, "cannot reject " + what + ": cannot open its folder " + quoted(id));
    // The reason first: an entry in the rejected folder always has one.
    writeReason(folder.get(), rule, message, now, what);
    if (::renameat2(fromDir, name.c_str(), folder.get(), target.c_str(), RENAME_NOREPLACE) != 0) {
      throw failure(errno, "cannot reject " + what + ": it cannot move to " + quoted(id + "/" + target));
    }
  } catch (std::system_error const&) {
    removeRejectFolder(rejectedDir, id);
    throw;
  }
  fsyncOrThrow(folder.get(), "the rejection of " + what);
  fsyncOrThrow(rejectedDir, "the rejection of " + what);
  fsyncOrThrow(fromDir, "the rejection of " + what);
  return id + "/" + target;
}

std::size_t sweepUnfinishedRejects(int rejectedDir) {
  std::size_t removed = 0;
  for (std::string const& id : entriesOf(rejectedDir, "the rejected folder")) {
    if (!isJobId(id)) continue;
    FolderFd const folder(::openat(rejectedDir, id.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.valid()) continue;
    std::vector<std::string> const names = entriesOf(folder.get(), id);
    std::string const temp = std::string(kReasonFile) + ".noqx";
    bool const onlyReasons = std::all_of(names.begin(), names.end(), [&temp](std::string const& n) {
      return n == kReasonFile || n == temp;
    });
    if (!onlyReasons) continue;  // holds what a person dropped: never touched
    removeRejectFolder(rejectedDir, id);
    ++removed;
  }
  return removed;
}

// ---------------------------------------------------------------------------
// Listing a job

namespace {

void listFiles(int dir, std::string const& prefix, unsigned depth, std::vector<JobFile>& files) {
  for (std::string const& name : entriesOf(dir, prefix.empty() ? "." : prefix)) {
    struct stat st {};
    if (!statNoFollow(dir, name, st)) continue;  // gone meanwhile
    std::string const path = prefix.empty() ? name : prefix + "/" + name;
    if (S_ISREG(st.st_mode)) {
      files.push_back({path, static_cast<std::uint64_t>(st.st_size), mtimeNsOf(st)});
    } else if (S_ISDIR(st.st_mode)) {
      if (depth >= kMaxDepth) throw failure(ELOOP, "cannot list " + quoted(path) + ": folders nest too deep");
      FolderFd const sub(::openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (!sub.valid()) throw failure(errno, "cannot list " + quoted(path));
      listFiles(sub.get(), path, depth + 1, files);
    }
  }
}

}  // namespace

std::vector<JobFile> filesOf(int jobDir) {
  std::vector<JobFile> files;
  listFiles(jobDir, std::string(), 0, files);
  std::sort(files.begin(), files.end(), [](JobFile const& a, JobFile const& b) { return a.name < b.name; });
  return files;
}

}  // namespace qxsvc
