// The transfers of the service: one thread of its own drives libcurl's multi
// interface, with at most maxTransfers requests at once. Nothing here runs on
// the IPC transport's threads, and no caller ever waits on the network.
//
// One upload puts one local file under one key:
//  - S3: a PUT signed with SigV4 that carries the file's SHA-256 as
//    x-amz-content-sha256 (the server checks the bytes) and as the metadata
//    x-amz-meta-sha256, with If-None-Match: * so that nothing is replaced. A
//    412 is settled by a HEAD: the same hash means the object is already
//    there (done); other bytes move the upload to alternativeKey(key, 2, 3,
//    ...), and so does an object without x-amz-meta-sha256 (whose bytes
//    cannot be known; it is never replaced). A multipart upload, which
//    If-None-Match does not guard, asks the same with a HEAD before it
//    starts. Files of multipartThreshold bytes or more go as a multipart
//    upload, several parts at once (multipartLayout()): the parts in flight
//    of one file hold partSize bytes together at most, which is therefore
//    the most that a crash makes the file send again. The upload id is
//    reported through onUploadId before the first part is sent, and an
//    upload given with an upload id (after a restart) asks the server which
//    parts it holds (ListParts) and sends only the others.
//  - WebDAV: a PUT with basic authentication; the caller's keys cannot
//    collide (they hold the job id), since many servers ignore
//    If-None-Match. Missing folders are made (MKCOL) when the server asks
//    for them (409): every folder of the path from the top (405, "already
//    there", is fine), then the PUT once more; a second 409 is rejected.
// No redirect is followed: a 3xx means the address is wrong, and holds.
// The bytes are read with pread() from the descriptor given, never held in
// memory whole. A file that changed after it was hashed ends as
// Outcome::changed, and what was sent is removed again (WebDAV: the bytes
// are hashed as they go) or refused by the server (S3: every request
// carries the hash of its body, which the server checks; a multipart
// upload's parts carry the part hashes given with the file's, or, without
// them, are read once more in order to hash them and compare the whole
// with the file's hash).
//
// Requests: at most maxTransfers at once, the parts in flight included, so
// one large file may use every request that no other upload needs.
//
// Every request's line and status go to the log as TRACE lines when
// traceRequests is set; libcurl's own debug output too with curlDebug.
//
// Threads: every member may be called from any thread. The callbacks run on
// the engine's thread, one at a time; they must not call back into the
// engine's blocking members (the destructor) and should be quick (a journal
// write is fine).
#ifndef QX_APPS_SVC_UPLOAD_UPLOADENGINE_H
#define QX_APPS_SVC_UPLOAD_UPLOADENGINE_H

#include "apps/svc/FolderFd.h"
#include "apps/svc/upload/Credentials.h"
#include "apps/svc/upload/Target.h"
#include "shared/InetCfg.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace qxsvc {

// How an upload ended. The table of HTTP statuses to outcomes is in
// UploadEngine.cpp.
enum class Outcome {
  done,       // the server holds the bytes under finalKey
  transient,  // connect error, time-out, reset, 408, 429, 5xx: try again later
  hold,       // 401/403 or no server reachable at all: stop the whole queue
  rejected,   // another 4xx: the server refuses this upload (message says why)
  changed,    // the file's bytes are not those hashed: hash again
  stopped,    // cancelled, or paused between two parts (the upload id stays valid)
};

char const* outcomeName(Outcome outcome);

struct PartRecord {
  unsigned number = 0;  // 1-based
  std::uint64_t size = 0;
  std::string etag;
};

struct UploadRequest {
  std::uint64_t ticket = 0;  // the caller's, returned in every callback
  Target target;             // main or alternative address, as the caller chose
  std::string key;           // objectKey() of the item
  FileFd file;               // open for reading; the engine owns it from submit()
  std::uint64_t size = 0;
  std::string sha256;        // lower-case hex of the file's bytes
  // The hashes of the parts of multipartLayout(size, partSize), read with
  // sha256 (sha256OfFileAndParts()), or empty: the engine then reads every
  // part once more to hash it and to compare the whole with sha256.
  std::vector<std::string> partSha256;
  std::string uploadId;      // a multipart upload to go on with, or empty
};

struct UploadResult {
  std::uint64_t ticket = 0;
  Outcome outcome = Outcome::transient;
  long httpStatus = 0;        // the last status seen, 0 when none arrived
  std::string message;        // for people: "HTTP 403 AccessDenied: ...", "connect to 127.0.0.1:7480 failed: ..."
  std::string finalKey;       // the key the bytes are under (done)
  std::uint64_t bytesSent = 0;  // the file's bytes that went out in this run
  bool unreachable = false;     // the last request found no server: name or connection failed
};

struct EngineOptions {
  std::size_t maxTransfers = 2;  // requests at once
  std::uint64_t multipartThreshold = 64ull << 20;
  // The bytes of one multipart upload in flight at once: the parts are cut
  // so that those in flight never hold more (multipartLayout()).
  std::uint64_t partSize = 32ull << 20;
  std::chrono::seconds connectTimeout{10};
  std::chrono::seconds stallTimeout{60};  // no byte moved for this long: transient
  bool traceRequests = false;
  bool curlDebug = false;
};

// How a multipart upload of size bytes goes with a budget of partBudget
// bytes in flight: partCount parts of partSize bytes (the last one shorter),
// inFlight of them at once, inFlight * partSize <= partBudget (unless a huge
// file needs parts larger than the budget to stay within S3's 10,000 parts:
// then one at a time). The same in every run for the same arguments, so that
// a resumed upload finds its parts on the server.
struct MultipartLayout {
  std::uint64_t partSize = 0;
  unsigned partCount = 0;
  unsigned inFlight = 1;
};
MultipartLayout multipartLayout(std::uint64_t size, std::uint64_t partBudget);

// Progress of one transfer in flight.
struct TransferProgress {
  std::uint64_t ticket = 0;
  std::uint64_t bytesSent = 0;  // of the whole file, parts the server already had included
  std::uint64_t size = 0;
};

// What the server says to the upload account, asked without storing
// anything: a signed listing of at most one key under the target's prefix
// (S3), or a PROPFIND of depth 0 on the target's folder (WebDAV).
struct AccountCheck {
  bool answered = false;  // an HTTP answer arrived
  long status = 0;        // its status
  // For people: the server's answer ("HTTP 403 InvalidAccessKeyId: ...
  // (GET url)"), or why none arrived (libcurl's error text).
  std::string message;
};
// Blocks for timeout at most, or until about a second after abandoned (when
// given) turns true. Any thread.
AccountCheck checkAccount(Target const& target, Inet::InetCfg const& inet, Credentials credentials,
                          EngineOptions const& options, std::chrono::seconds timeout,
                          std::function<bool()> const& abandoned = {});

class UploadEngine {
 public:
  struct Callbacks {
    // A multipart upload was started: write uploadId down before any part goes.
    std::function<void(std::uint64_t ticket, std::string const& uploadId)> onUploadId;
    // One part is stored on the server.
    std::function<void(std::uint64_t ticket, PartRecord const& part)> onPart;
    // The upload ended.
    std::function<void(UploadResult const& result)> onDone;
  };

  UploadEngine(Inet::InetCfg const& inet, Credentials credentials, EngineOptions const& options,
               Callbacks callbacks);
  // Stops every transfer (they end as stopped, without callbacks) and joins
  // the thread.
  ~UploadEngine();
  UploadEngine(UploadEngine const&) = delete;
  UploadEngine& operator=(UploadEngine const&) = delete;

  // Queues an upload; it starts when fewer than maxTransfers run.
  void submit(UploadRequest request);
  // Ends the upload of ticket as stopped (queued or in flight).
  void cancel(std::uint64_t ticket);
  // Paused: nothing new starts; multipart uploads stop after their current
  // part (stopped); single requests in flight finish.
  void setPaused(bool paused);
  void setMaxTransfers(std::size_t maxTransfers);
  std::vector<TransferProgress> inFlight() const;
  // Bytes per second over the last few seconds, all transfers together.
  double throughput() const;

  // Aborts the multipart uploads under the target's prefix whose upload ids
  // are not in owned; returns how many, or throws std::runtime_error with
  // the server's answer. Blocks: call it from the pipeline's own thread.
  std::size_t abortOrphans(Target const& target, std::set<std::string> const& owned);

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_UPLOADENGINE_H
