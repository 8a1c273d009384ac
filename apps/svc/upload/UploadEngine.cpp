#include "apps/svc/upload/UploadEngine.h"

#include "apps/svc/CurlInet.h"
#include "apps/svc/upload/ObjectKey.h"
#include "apps/svc/upload/S3Xml.h"
#include "apps/svc/upload/Sha256.h"
#include "shared/Log.h"

#include <curl/curl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

namespace qxsvc {

namespace {

// The SHA-256 of no bytes: what a request without a body signs.
constexpr char kEmptySha256[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
// S3's limits on multipart uploads.
constexpr std::uint64_t kMinPartSize = 5ull << 20;
constexpr std::uint64_t kMaxParts = 10000;
// Parts of one file in flight at once, at most: two keep the wire busy while
// the server stores a part; more would only make the parts smaller (more
// requests for the same bytes).
constexpr std::uint64_t kMostPartsInFlight = 2;
// A part is read in pieces of this size to hash it.
constexpr std::size_t kHashChunk = 1 << 20;
// WebDAV bodies below this size go without "Expect: 100-continue": the
// round trip costs more than sending bytes that the server might refuse.
constexpr std::uint64_t kExpectThreshold = 1ull << 20;
// What is kept of an answer's body: enough for an error or a page of a
// listing; the rest is read and dropped.
constexpr std::size_t kMaxErrorBody = 64 * 1024;
constexpr std::size_t kMaxListBody = 8 << 20;
// How many alternative keys an upload tries before it gives up.
constexpr unsigned kMaxAlternatives = 1000;
// The most pages of a listing of multipart uploads that abortOrphans reads.
constexpr unsigned kMaxListPages = 1000;
// Throughput is averaged over this many seconds.
constexpr int kThroughputWindow = 5;

// ---------------------------------------------------------------------------
// How HTTP statuses and libcurl's errors end an upload.

struct StatusRule {
  long first;
  long last;
  Outcome outcome;
};
// A status that the step did not expect; the first matching range wins.
constexpr StatusRule kStatusRules[] = {
    {300, 399, Outcome::hold},       // sent elsewhere (no redirect is followed): the address is wrong
    {401, 401, Outcome::hold},       // the credentials are refused
    {403, 403, Outcome::hold},       // the account may not write here
    {408, 408, Outcome::transient},  // request time-out
    {429, 429, Outcome::transient},  // too many requests
    {400, 499, Outcome::rejected},   // the server refuses this upload
    {500, 599, Outcome::transient},  // the server's own trouble
    {0, 299, Outcome::rejected},     // an unexpected success or an informational status
};

// S3 error codes that say more than their status.
struct CodeRule {
  char const* code;
  Outcome outcome;
};
constexpr CodeRule kS3CodeRules[] = {
    {"XAmzContentSHA256Mismatch", Outcome::changed},  // the bytes that arrived are not those hashed
    {"BadDigest", Outcome::changed},
    {"NoSuchBucket", Outcome::hold},  // every upload would fail the same way
    {"InvalidAccessKeyId", Outcome::hold},
    {"SignatureDoesNotMatch", Outcome::hold},
    {"RequestTimeTooSkewed", Outcome::hold},
    {"RequestTimeout", Outcome::transient},
    {"SlowDown", Outcome::transient},
    {"ServiceUnavailable", Outcome::transient},
};

struct CurlRule {
  CURLcode code;
  Outcome outcome;
};
// libcurl's errors; anything not listed is transient.
constexpr CurlRule kCurlRules[] = {
    {CURLE_UNSUPPORTED_PROTOCOL, Outcome::hold},
    {CURLE_URL_MALFORMAT, Outcome::hold},
    {CURLE_PEER_FAILED_VERIFICATION, Outcome::hold},
    {CURLE_SSL_CACERT_BADFILE, Outcome::hold},
    {CURLE_SSL_CERTPROBLEM, Outcome::hold},
    {CURLE_LOGIN_DENIED, Outcome::hold},
    {CURLE_COULDNT_RESOLVE_PROXY, Outcome::transient},
    {CURLE_COULDNT_RESOLVE_HOST, Outcome::transient},
    {CURLE_COULDNT_CONNECT, Outcome::transient},
    {CURLE_OPERATION_TIMEDOUT, Outcome::transient},
};

Outcome outcomeOfStatus(long status, std::string const& s3Code) {
  for (CodeRule const& rule : kS3CodeRules) {
    if (s3Code == rule.code) return rule.outcome;
  }
  for (StatusRule const& rule : kStatusRules) {
    if (status >= rule.first && status <= rule.last) return rule.outcome;
  }
  return Outcome::transient;
}

Outcome outcomeOfCurl(CURLcode code) {
  for (CurlRule const& rule : kCurlRules) {
    if (code == rule.code) return rule.outcome;
  }
  return Outcome::transient;
}

bool isSha256Hex(std::string const& text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

std::string hostPortOf(std::string const& url) {
  std::size_t const start = url.find("://");
  if (start == std::string::npos) return url;
  std::size_t const end = url.find('/', start + 3);
  return url.substr(start + 3, end == std::string::npos ? std::string::npos : end - start - 3);
}

}  // namespace

MultipartLayout multipartLayout(std::uint64_t size, std::uint64_t partBudget) {
  std::uint64_t const mib = 1ull << 20;
  std::uint64_t const budget = std::max(partBudget, kMinPartSize);
  MultipartLayout layout;
  // Parts as small as S3 allows, and as many at once as fit in the budget,
  // in whole MiB: the layout must come out the same in every run, or a
  // resumed upload would find none of its parts on the server.
  layout.inFlight = static_cast<unsigned>(std::min<std::uint64_t>(budget / kMinPartSize, kMostPartsInFlight));
  layout.partSize = std::max(budget / layout.inFlight / mib * mib, kMinPartSize);
  if ((size + layout.partSize - 1) / layout.partSize > kMaxParts) {
    // Parts grow so that no more than 10,000 are needed; the budget then
    // holds as many as fit, and at least one.
    layout.partSize = ((size + kMaxParts - 1) / kMaxParts + mib - 1) / mib * mib;
    layout.inFlight = static_cast<unsigned>(std::max<std::uint64_t>(1, budget / layout.partSize));
  }
  layout.partCount = static_cast<unsigned>((size + layout.partSize - 1) / layout.partSize);
  return layout;
}

namespace {

// ---------------------------------------------------------------------------
// One HTTP exchange: what goes out and what came back.

enum class BodySource { none, file, memory };

struct Answer {
  CURLcode code = CURLE_OK;
  std::string error;  // libcurl's text when code is not CURLE_OK
  long status = 0;
  std::string reason;  // of the status line
  std::string body;
  std::string etag;
  std::string metaSha256;
  bool hasMetaSha256 = false;
  std::uint64_t bodyBytesSent = 0;
};

struct Exchange {
  std::string method;
  std::string url;
  std::vector<std::string> headers;
  BodySource source = BodySource::none;
  // The body: bytes [fileOffset, fileOffset + bodySize) of fd, or memory.
  int fd = -1;
  std::uint64_t fileOffset = 0;
  std::string memory;
  std::uint64_t bodySize = 0;
  bool hashBody = false;  // hash the file's bytes as they go (bodyHash)
  std::size_t maxBody = kMaxErrorBody;
  // Filled while it runs.
  std::uint64_t position = 0;  // of the body
  bool shortFile = false;      // the file ended before bodySize bytes
  int readErrno = 0;
  Sha256 bodyHash;  // of the file's bytes as they were read
  std::function<void(std::uint64_t)> onBodyBytes;
  Answer answer;
  char errorText[CURL_ERROR_SIZE] = {};
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headerList{nullptr, curl_slist_free_all};
};

std::size_t readBody(char* buffer, std::size_t size, std::size_t count, void* data) {
  auto* exchange = static_cast<Exchange*>(data);
  std::uint64_t const left = exchange->bodySize - exchange->position;
  std::size_t const wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size * count, left));
  if (wanted == 0) return 0;
  if (exchange->source == BodySource::memory) {
    std::memcpy(buffer, exchange->memory.data() + exchange->position, wanted);
  } else {
    std::size_t got = 0;
    while (got < wanted) {
      ssize_t const n = ::pread(exchange->fd, buffer + got, wanted - got,
                                static_cast<off_t>(exchange->fileOffset + exchange->position + got));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        exchange->readErrno = errno;
        return CURL_READFUNC_ABORT;
      }
      if (n == 0) {
        exchange->shortFile = true;
        return CURL_READFUNC_ABORT;
      }
      got += static_cast<std::size_t>(n);
    }
    if (exchange->hashBody) exchange->bodyHash.update(buffer, wanted);
  }
  exchange->position += wanted;
  if (exchange->onBodyBytes) exchange->onBodyBytes(wanted);
  return wanted;
}

// libcurl rewinds a body only to send it again from its start.
int seekBody(void* data, curl_off_t offset, int origin) {
  auto* exchange = static_cast<Exchange*>(data);
  if (offset != 0 || origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
  exchange->position = 0;
  exchange->bodyHash.hex();  // starts the hash again
  if (exchange->onBodyBytes) exchange->onBodyBytes(0);
  return CURL_SEEKFUNC_OK;
}

std::size_t collectBody(char* data, std::size_t size, std::size_t count, void* out) {
  auto* exchange = static_cast<Exchange*>(out);
  std::size_t const room = exchange->maxBody - std::min(exchange->maxBody, exchange->answer.body.size());
  exchange->answer.body.append(data, std::min(room, size * count));
  return size * count;
}

bool headerIs(std::string const& line, char const* name, std::string& value) {
  std::size_t const length = std::strlen(name);
  if (line.size() <= length || line[length] != ':' || ::strncasecmp(line.c_str(), name, length) != 0) {
    return false;
  }
  value = line.substr(length + 1);
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.erase(0, 1);
  while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' '))
    value.pop_back();
  return true;
}

std::size_t collectHeader(char* data, std::size_t size, std::size_t count, void* out) {
  auto* exchange = static_cast<Exchange*>(out);
  std::string const line(data, std::min<std::size_t>(size * count, 8192));
  std::string value;
  if (line.compare(0, 5, "HTTP/") == 0) {
    // A new status line (after "100 Continue" too): only the last one counts.
    std::size_t const code = line.find(' ');
    std::size_t const reason = code == std::string::npos ? code : line.find(' ', code + 1);
    exchange->answer.reason = reason == std::string::npos ? "" : cleanQuote(line.substr(reason + 1));
    exchange->answer.etag.clear();
    exchange->answer.hasMetaSha256 = false;
  } else if (headerIs(line, "ETag", value)) {
    exchange->answer.etag = value;
  } else if (headerIs(line, "x-amz-meta-sha256", value)) {
    exchange->answer.metaSha256 = value;
    exchange->answer.hasMetaSha256 = true;
  }
  return size * count;
}

// What every request shares: the account, the options and the proxy.
struct Common {
  explicit Common(Inet::InetCfg const& inetCfg) : inet(inetCfg) {}

  Inet::InetCfg inet;
  Credentials credentials;
  EngineOptions options;
  std::string tracePrefix = "qxlite-svc curl ";
};

// Sets handle up for exchange against target.
void setUp(CURL* h, Exchange& exchange, Target const& target, Common const& common) {
  curl_easy_reset(h);
  curl_easy_setopt(h, CURLOPT_URL, exchange.url.c_str());
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, exchange.errorText);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, static_cast<long>(common.options.connectTimeout.count()));
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, static_cast<long>(common.options.stallTimeout.count()));
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collectBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &exchange);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, collectHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &exchange);
  applyInetCfg(h, common.inet);
  if (common.options.curlDebug) traceCurlToLog(h, &common.tracePrefix);
  curl_easy_setopt(h, CURLOPT_USERNAME, common.credentials.user.c_str());
  curl_easy_setopt(h, CURLOPT_PASSWORD, common.credentials.secret.c_str());

  std::vector<std::string> headers = exchange.headers;
  if (target.protocol == Protocol::S3) {
    std::string const sigv4 = "aws:amz:" + target.region + ":s3";
    curl_easy_setopt(h, CURLOPT_AWS_SIGV4, sigv4.c_str());
  } else {
    curl_easy_setopt(h, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
  }
  // S3 requests keep "Expect: 100-continue" whatever their size: libcurl
  // 7.88 signs an emptied header that it then leaves out, and the server
  // refuses the signature. (Not waiting for the "100 Continue" instead makes
  // every small PUT ten times slower on the gateway.)
  if (exchange.source != BodySource::none && exchange.bodySize < kExpectThreshold &&
      target.protocol == Protocol::WebDav) {
    headers.push_back("Expect:");
  }

  if (exchange.method == "HEAD") {
    curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
  } else if (exchange.method == "PUT") {
    curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(exchange.bodySize));
  } else if (exchange.method == "POST") {
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(exchange.bodySize));
    // libcurl would announce a form otherwise (and an emptied header breaks
    // the signature, as above).
    headers.push_back("Content-Type: application/xml");
  } else if (exchange.method != "GET") {
    curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, exchange.method.c_str());
  }
  if (exchange.method == "PUT" || exchange.method == "POST") {
    curl_easy_setopt(h, CURLOPT_READFUNCTION, readBody);
    curl_easy_setopt(h, CURLOPT_READDATA, &exchange);
    curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, seekBody);
    curl_easy_setopt(h, CURLOPT_SEEKDATA, &exchange);
  }
  curl_slist* list = nullptr;
  for (std::string const& header : headers) list = curl_slist_append(list, header.c_str());
  exchange.headerList.reset(list);
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, list);
}

// A request of method to url; S3 requests sign payloadSha256, the hash of
// their body.
std::unique_ptr<Exchange> exchangeFor(Protocol protocol, std::string method, std::string url,
                                      std::string const& payloadSha256) {
  auto exchange = std::make_unique<Exchange>();
  exchange->method = std::move(method);
  exchange->url = std::move(url);
  if (protocol == Protocol::S3) exchange->headers.push_back("x-amz-content-sha256: " + payloadSha256);
  return exchange;
}

// Reads what the finished exchange got back.
void collectAnswer(CURL* h, CURLcode code, Exchange& exchange) {
  Answer& answer = exchange.answer;
  answer.code = code;
  if (code != CURLE_OK) answer.error = exchange.errorText[0] ? exchange.errorText : curl_easy_strerror(code);
  while (!answer.error.empty() && answer.error.back() == '\n') answer.error.pop_back();
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &answer.status);
  curl_off_t sent = 0;
  curl_easy_getinfo(h, CURLINFO_SIZE_UPLOAD_T, &sent);
  answer.bodyBytesSent = static_cast<std::uint64_t>(std::max<curl_off_t>(sent, 0));
}

// The sentence for people about an exchange that did not go as the step wanted.
std::string describe(Exchange const& exchange) {
  Answer const& answer = exchange.answer;
  if (answer.code != CURLE_OK) {
    if (answer.code == CURLE_COULDNT_CONNECT) {
      return "connect to " + hostPortOf(exchange.url) + " failed: " + answer.error;
    }
    return exchange.method + " " + exchange.url + " failed: " + answer.error;
  }
  std::string text = "HTTP " + std::to_string(answer.status);
  std::string const code = cleanQuote(xmlText(answer.body, "Code"));
  std::string const message = cleanQuote(xmlText(answer.body, "Message"));
  if (!code.empty()) {
    text += " " + code;
    if (!message.empty()) text += ": " + message;
  } else if (!answer.reason.empty()) {
    text += " " + answer.reason;
  }
  return text + " (" + exchange.method + " " + exchange.url + ")";
}

std::string s3Code(Answer const& answer) { return xmlText(answer.body, "Code"); }

void trace(Exchange const& exchange, bool done) {
  boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
  std::ostream& line = Log::inst().logStreamStartLine()
                       << "TRACE:"
                       << "qxlite-svc " << exchange.method << " " << exchange.url;
  if (!done) {
    line << std::endl;
  } else if (exchange.answer.code != CURLE_OK) {
    line << " -> " << exchange.answer.error << std::endl;
  } else {
    line << " -> " << exchange.answer.status << " (" << exchange.answer.bodyBytesSent << " bytes sent)"
         << std::endl;
  }
}

// ---------------------------------------------------------------------------
// One upload and the steps it goes through.

enum class Step {
  s3Put,             // PUT the whole file with If-None-Match: *
  s3HeadTaken,       // after a 412: whose bytes hold the key?
  s3HeadBefore,      // multipart: is the key free, or are these bytes there already?
  s3ListParts,       // multipart, resumed: which parts does the server hold?
  s3Initiate,        // multipart: a new upload id
  s3PutPart,         // multipart: one part
  s3Complete,        // multipart: the parts become the object
  s3AbortChanged,    // multipart: the file changed, the upload goes
  davPut,            // PUT the whole file
  davMakeFolder,     // MKCOL one folder of the key's path, after a 409
  davDeleteChanged,  // the file changed after it was sent: the object goes
};

// One part of a multipart upload on the wire, on a handle of its own.
struct PartFlight {
  unsigned number = 0;
  CURL* handle = nullptr;
  std::unique_ptr<Exchange> exchange;
};

struct Transfer {
  explicit Transfer(UploadRequest r) : request(std::move(r)) {}

  UploadRequest request;
  CURL* handle = nullptr;
  Step step = Step::s3Put;
  std::unique_ptr<Exchange> exchange;
  unsigned keyNumber = 1;  // 1: the key itself; 2, 3...: alternativeKey
  std::string key;
  std::uint64_t bytesSent = 0;  // body bytes of this run
  long lastStatus = 0;
  bool cancelled = false;
  // Multipart.
  std::string uploadId;
  MultipartLayout layout;
  unsigned nextPart = 1;                       // the next to send or find on the server
  std::list<PartFlight> flights;               // the parts on the wire
  std::map<unsigned, PartRecord> serverParts;  // what ListParts reported
  std::map<unsigned, PartRecord> stored;       // what the server holds, for the completion
  std::uint64_t storedBytes = 0;
  std::uint64_t partMarker = 0;
  Sha256 fileHash;  // of the parts read so far, in order
  // WebDAV.
  std::vector<std::string> folders;  // the URLs still to make, after a 409
  bool madeFolders = false;
  // The result kept for a clean-up step's end.
  UploadResult pending;
};

}  // namespace

char const* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::done: return "done";
    case Outcome::transient: return "transient";
    case Outcome::hold: return "hold";
    case Outcome::rejected: return "rejected";
    case Outcome::changed: return "changed";
    case Outcome::stopped: return "stopped";
  }
  return "unknown";
}

class UploadEngine::Impl {
 public:
  Impl(Inet::InetCfg const& inet, Credentials credentials, EngineOptions const& options, Callbacks callbacks)
      : m_common(inet), m_callbacks(std::move(callbacks)) {
    static std::once_flag curlStarted;
    std::call_once(curlStarted, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    m_common.credentials = std::move(credentials);
    m_common.options = options;
    m_maxTransfers = options.maxTransfers;
    m_multi = curl_multi_init();
    if (!m_multi) throw std::runtime_error("libcurl could not start its transfers");
    m_thread = std::thread([this] { run(); });
  }

  ~Impl() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
    }
    curl_multi_wakeup(m_multi);
    m_thread.join();
    for (auto& transfer : m_running) {
      dropFlights(*transfer);
      curl_multi_remove_handle(m_multi, transfer->handle);
      curl_easy_cleanup(transfer->handle);
    }
    m_running.clear();
    curl_multi_cleanup(m_multi);
  }

  void submit(UploadRequest request) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_queue.push_back(std::make_unique<Transfer>(std::move(request)));
    }
    curl_multi_wakeup(m_multi);
  }

  void cancel(std::uint64_t ticket) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_cancels.push_back(ticket);
    }
    curl_multi_wakeup(m_multi);
  }

  void setPaused(bool paused) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_paused = paused;
    }
    curl_multi_wakeup(m_multi);
  }

  void setMaxTransfers(std::size_t maxTransfers) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_maxTransfers = maxTransfers;
    }
    curl_multi_wakeup(m_multi);
  }

  std::vector<TransferProgress> inFlight() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<TransferProgress> list;
    for (auto const& entry : m_progress) list.push_back(entry.second);
    return list;
  }

  double throughput() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    long long const now = nowSecond();
    std::uint64_t bytes = 0;
    for (auto const& bucket : m_sentPerSecond) {
      if (bucket.first > now - kThroughputWindow) bytes += bucket.second;
    }
    return static_cast<double>(bytes) / kThroughputWindow;
  }

  std::size_t abortOrphans(Target const& target, std::set<std::string> const& owned);

 private:
  static long long nowSecond() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  void run();
  void takeCommands(bool& paused, std::size_t& maxTransfers);
  void start(std::unique_ptr<Transfer> transfer);
  void send(Transfer& transfer, Step step, std::unique_ptr<Exchange> exchange);
  void advance(Transfer& transfer);
  void finish(Transfer& transfer, Outcome outcome, std::string message);
  void finishWithAnswer(Transfer& transfer);
  void countSent(Transfer& transfer, std::uint64_t bytes);
  void noteProgress(std::uint64_t ticket, std::uint64_t bytesSent, std::uint64_t moved);
  std::size_t requestsInFlight() const;
  void dropFlights(Transfer& transfer);
  void partDone(Transfer& transfer, std::list<PartFlight>::iterator flight, CURLcode code);
  bool hashPart(Transfer& transfer, std::uint64_t offset, std::uint64_t size, std::string& partHash,
                std::string& error);
  bool sendPart(Transfer& transfer, unsigned number, std::uint64_t offset, std::uint64_t size,
                std::string const& partHash);
  // Steps.
  void s3Put(Transfer& transfer);
  void s3Head(Transfer& transfer, Step step);
  void s3ListParts(Transfer& transfer);
  void s3Initiate(Transfer& transfer);
  void s3SendParts(Transfer& transfer);
  void s3Complete(Transfer& transfer);
  void s3Abort(Transfer& transfer, Outcome outcome, std::string message);
  void davPut(Transfer& transfer);
  void davMakeNextFolder(Transfer& transfer);
  bool nextKey(Transfer& transfer);

  std::string keyUrl(Transfer const& transfer) const {
    return transfer.request.target.objectUrl(transfer.key);
  }

  Common m_common;
  Callbacks const m_callbacks;
  CURLM* m_multi = nullptr;
  // Only the engine's thread touches these.
  std::list<std::unique_ptr<Transfer>> m_running;
  std::deque<std::unique_ptr<Transfer>> m_waiting;
  bool m_moreToDo = false;        // the loop goes round again without waiting
  std::size_t m_requestLimit = 1;  // maxTransfers of this round
  std::vector<unsigned char> m_hashBuffer = std::vector<unsigned char>(kHashChunk);

  mutable std::mutex m_mutex;
  // Guarded by m_mutex: what the callers ask for, and what they may read.
  std::deque<std::unique_ptr<Transfer>> m_queue;
  std::vector<std::uint64_t> m_cancels;
  bool m_paused = false;
  bool m_stopping = false;
  std::size_t m_maxTransfers = 2;
  std::map<std::uint64_t, TransferProgress> m_progress;
  std::deque<std::pair<long long, std::uint64_t>> m_sentPerSecond;

  std::thread m_thread;
};

void UploadEngine::Impl::takeCommands(bool& paused, std::size_t& maxTransfers) {
  std::vector<std::uint64_t> cancels;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    while (!m_queue.empty()) {
      m_waiting.push_back(std::move(m_queue.front()));
      m_queue.pop_front();
    }
    cancels.swap(m_cancels);
    paused = m_paused;
    maxTransfers = m_maxTransfers;
  }
  for (std::uint64_t ticket : cancels) {
    for (auto it = m_waiting.begin(); it != m_waiting.end();) {
      if ((*it)->request.ticket != ticket) {
        ++it;
        continue;
      }
      UploadResult result;
      result.ticket = ticket;
      result.outcome = Outcome::stopped;
      result.message = "cancelled before it started";
      result.finalKey = (*it)->request.key;
      it = m_waiting.erase(it);
      if (m_callbacks.onDone) m_callbacks.onDone(result);
    }
    for (auto& transfer : m_running) {
      if (transfer->request.ticket == ticket) transfer->cancelled = true;
    }
  }
  // A cancelled transfer stops at once: its request is dropped half-way
  // (a cut PUT leaves nothing; a multipart upload id stays valid). Only the
  // removal of what a changed file left on the server runs to its end.
  for (auto it = m_running.begin(); it != m_running.end();) {
    Transfer& transfer = **it;
    bool const cleaningUp = transfer.step == Step::s3AbortChanged || transfer.step == Step::davDeleteChanged;
    if (!transfer.cancelled || cleaningUp) {
      ++it;
      continue;
    }
    curl_multi_remove_handle(m_multi, transfer.handle);
    curl_off_t sent = 0;
    curl_easy_getinfo(transfer.handle, CURLINFO_SIZE_UPLOAD_T, &sent);
    countSent(transfer, static_cast<std::uint64_t>(std::max<curl_off_t>(sent, 0)));
    finish(transfer, Outcome::stopped, "cancelled");
    it = m_running.begin();  // finish() erased it
  }
}

void UploadEngine::Impl::run() {
  for (;;) {
    bool paused = false;
    std::size_t maxTransfers = 0;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_stopping) return;
    }
    takeCommands(paused, maxTransfers);
    m_requestLimit = std::max<std::size_t>(1, maxTransfers);
    while (!paused && requestsInFlight() < maxTransfers && !m_waiting.empty()) {
      std::unique_ptr<Transfer> transfer = std::move(m_waiting.front());
      m_waiting.pop_front();
      start(std::move(transfer));
    }
    // Requests that no upload waits for go to the parts of large files.
    if (!paused) {
      std::vector<Transfer*> partial;
      for (auto& transfer : m_running) {
        if (transfer->step == Step::s3PutPart && !transfer->flights.empty() &&
            transfer->flights.size() < transfer->layout.inFlight &&
            transfer->nextPart <= transfer->layout.partCount) {
          partial.push_back(transfer.get());
        }
      }
      for (Transfer* transfer : partial) {
        if (requestsInFlight() < maxTransfers) s3SendParts(*transfer);
      }
    }
    int active = 0;
    curl_multi_perform(m_multi, &active);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* handle = message->easy_handle;
      CURLcode const code = message->data.result;
      for (auto& transfer : m_running) {
        if (transfer->handle == handle) {
          curl_multi_remove_handle(m_multi, handle);
          collectAnswer(handle, code, *transfer->exchange);
          advance(*transfer);
          break;
        }
        auto flight = std::find_if(transfer->flights.begin(), transfer->flights.end(),
                                   [handle](PartFlight const& f) { return f.handle == handle; });
        if (flight != transfer->flights.end()) {
          curl_multi_remove_handle(m_multi, handle);
          partDone(*transfer, flight, code);
          break;
        }
      }
    }
    // A request just added, or a slot just freed for a waiting upload, needs
    // the next round at once: the wait would last until the poll's time-out
    // when nothing else is on the wire.
    if (!m_moreToDo) curl_multi_poll(m_multi, nullptr, 0, 1000, nullptr);
    m_moreToDo = false;
  }
}

// Only the file's bytes count, not those of a request's own body (the list
// of parts that completes an upload). The parts count in partDone() and
// dropFlights().
void UploadEngine::Impl::countSent(Transfer& transfer, std::uint64_t bytes) {
  if (transfer.exchange && transfer.exchange->source == BodySource::file) transfer.bytesSent += bytes;
}

void UploadEngine::Impl::noteProgress(std::uint64_t ticket, std::uint64_t bytesSent, std::uint64_t moved) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_progress.find(ticket);
  if (it != m_progress.end()) it->second.bytesSent = bytesSent;
  long long const second = nowSecond();
  if (m_sentPerSecond.empty() || m_sentPerSecond.back().first != second) m_sentPerSecond.emplace_back(second, 0);
  m_sentPerSecond.back().second += moved;
  while (m_sentPerSecond.size() > static_cast<std::size_t>(kThroughputWindow) + 1) m_sentPerSecond.pop_front();
}

// Each upload holds one request; parts in flight beyond its first take more.
std::size_t UploadEngine::Impl::requestsInFlight() const {
  std::size_t requests = 0;
  for (auto const& transfer : m_running) requests += std::max<std::size_t>(1, transfer->flights.size());
  return requests;
}

// Cuts the parts on the wire: the server keeps none of a cut part, and the
// upload id stays valid.
void UploadEngine::Impl::dropFlights(Transfer& transfer) {
  for (PartFlight& flight : transfer.flights) {
    curl_multi_remove_handle(m_multi, flight.handle);
    curl_off_t sent = 0;
    curl_easy_getinfo(flight.handle, CURLINFO_SIZE_UPLOAD_T, &sent);
    transfer.bytesSent += static_cast<std::uint64_t>(std::max<curl_off_t>(sent, 0));
    curl_easy_cleanup(flight.handle);
  }
  transfer.flights.clear();
}

void UploadEngine::Impl::start(std::unique_ptr<Transfer> owned) {
  Transfer& transfer = *owned;
  transfer.handle = curl_easy_init();
  transfer.key = transfer.request.key;
  transfer.uploadId = transfer.request.uploadId;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    TransferProgress& progress = m_progress[transfer.request.ticket];
    progress.ticket = transfer.request.ticket;
    progress.size = transfer.request.size;
  }
  m_running.push_back(std::move(owned));
  if (!transfer.handle) {
    finish(transfer, Outcome::transient, "libcurl could not start a request");
    return;
  }
  // The hash goes into request headers: it must be what it claims to be.
  if (!isSha256Hex(transfer.request.sha256)) {
    finish(transfer, Outcome::rejected,
           "the hash \"" + cleanQuote(transfer.request.sha256) + "\" of " + transfer.request.key +
               " is not 64 lower-case hexadecimal digits");
    return;
  }
  for (std::string const& part : transfer.request.partSha256) {
    if (isSha256Hex(part)) continue;
    finish(transfer, Outcome::rejected,
           "the hash \"" + cleanQuote(part) + "\" of a part of " + transfer.request.key +
               " is not 64 lower-case hexadecimal digits");
    return;
  }
  if (transfer.request.target.protocol == Protocol::WebDav) {
    davPut(transfer);
  } else if (transfer.request.size >= m_common.options.multipartThreshold) {
    transfer.layout = multipartLayout(transfer.request.size, m_common.options.partSize);
    s3Head(transfer, Step::s3HeadBefore);
  } else {
    s3Put(transfer);
  }
}

void UploadEngine::Impl::send(Transfer& transfer, Step step, std::unique_ptr<Exchange> exchange) {
  transfer.step = step;
  transfer.exchange = std::move(exchange);
  Exchange& current = *transfer.exchange;
  std::uint64_t const ticket = transfer.request.ticket;
  current.onBodyBytes = [this, ticket, &current](std::uint64_t bytes) {
    noteProgress(ticket, current.position, bytes);
  };
  setUp(transfer.handle, current, transfer.request.target, m_common);
  if (m_common.options.traceRequests) trace(current, false);
  curl_multi_add_handle(m_multi, transfer.handle);
  m_moreToDo = true;
}

void UploadEngine::Impl::finish(Transfer& transfer, Outcome outcome, std::string message) {
  dropFlights(transfer);
  UploadResult result;
  result.ticket = transfer.request.ticket;
  result.outcome = outcome;
  result.httpStatus = transfer.lastStatus;
  result.message = std::move(message);
  result.finalKey = transfer.key;
  result.bytesSent = transfer.bytesSent;
  if (transfer.exchange) {
    CURLcode const code = transfer.exchange->answer.code;
    result.unreachable = code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST ||
                         code == CURLE_COULDNT_RESOLVE_PROXY;
  }
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_progress.erase(transfer.request.ticket);
  }
  if (transfer.handle) curl_easy_cleanup(transfer.handle);
  transfer.handle = nullptr;
  m_moreToDo = true;  // a waiting upload may start
  for (auto it = m_running.begin(); it != m_running.end(); ++it) {
    if (it->get() == &transfer) {
      std::unique_ptr<Transfer> gone = std::move(*it);
      m_running.erase(it);
      if (m_callbacks.onDone) m_callbacks.onDone(result);
      return;
    }
  }
}

// An answer that the step did not expect ends the upload as the tables say.
void UploadEngine::Impl::finishWithAnswer(Transfer& transfer) {
  Exchange const& exchange = *transfer.exchange;
  Outcome const outcome = exchange.answer.code != CURLE_OK
                              ? outcomeOfCurl(exchange.answer.code)
                              : outcomeOfStatus(exchange.answer.status, s3Code(exchange.answer));
  finish(transfer, outcome, describe(exchange));
}

bool UploadEngine::Impl::nextKey(Transfer& transfer) {
  if (++transfer.keyNumber > kMaxAlternatives) return false;
  transfer.key = alternativeKey(transfer.request.key, transfer.keyNumber);
  return true;
}

// The transitions of an upload: what each step's answer leads to.
void UploadEngine::Impl::advance(Transfer& transfer) {
  Exchange& exchange = *transfer.exchange;
  Answer const& answer = exchange.answer;
  if (m_common.options.traceRequests) trace(exchange, true);
  if (answer.code == CURLE_OK) transfer.lastStatus = answer.status;
  countSent(transfer, answer.bodyBytesSent);
  bool const ok = answer.code == CURLE_OK && answer.status >= 200 && answer.status <= 299;
  // A body that could not be read whole: the file is not what was hashed.
  if (exchange.shortFile || exchange.readErrno) {
    std::string const why =
        exchange.shortFile ? "the file ended before its " + std::to_string(transfer.request.size) + " bytes"
                           : std::string("reading the file failed: ") + std::strerror(exchange.readErrno);
    if (transfer.step == Step::s3PutPart) {
      s3Abort(transfer, Outcome::changed, why);
    } else {
      finish(transfer, Outcome::changed, why);
    }
    return;
  }

  switch (transfer.step) {
    case Step::s3Put:
      if (ok) return finish(transfer, Outcome::done, "");
      if (answer.code == CURLE_OK && answer.status == 412) return s3Head(transfer, Step::s3HeadTaken);
      return finishWithAnswer(transfer);

    case Step::s3HeadTaken:
    case Step::s3HeadBefore: {
      bool const multipart = transfer.step == Step::s3HeadBefore;
      if (ok) {
        // Only an object that says it holds these very bytes is ours; one
        // without the hash may hold anything, and is never replaced.
        if (answer.hasMetaSha256 && answer.metaSha256 == transfer.request.sha256) {
          return finish(transfer, Outcome::done, "");
        }
        if (!nextKey(transfer))
          return finish(transfer, Outcome::rejected, "no free key near " + transfer.request.key);
        return multipart ? s3Head(transfer, Step::s3HeadBefore) : s3Put(transfer);
      }
      if (answer.code == CURLE_OK && answer.status == 404) {
        if (!multipart) return s3Put(transfer);  // removed since the 412: try again
        return transfer.uploadId.empty() ? s3Initiate(transfer) : s3ListParts(transfer);
      }
      return finishWithAnswer(transfer);
    }

    case Step::s3ListParts: {
      if (answer.code == CURLE_OK && answer.status == 404) {
        // The upload id is gone (aborted, or made for another key): start over.
        transfer.uploadId.clear();
        transfer.serverParts.clear();
        return s3Initiate(transfer);
      }
      if (!ok) return finishWithAnswer(transfer);
      for (auto const& range : xmlElements(answer.body, "Part")) {
        PartRecord part;
        std::uint64_t number = 0;
        if (!parseDecimal(xmlText(answer.body, "PartNumber", range.first, range.second), number) ||
            !parseDecimal(xmlText(answer.body, "Size", range.first, range.second), part.size) ||
            number == 0 || number > kMaxParts) {
          continue;
        }
        part.number = static_cast<unsigned>(number);
        part.etag = xmlText(answer.body, "ETag", range.first, range.second);
        transfer.serverParts[part.number] = part;
      }
      std::uint64_t marker = 0;
      if (xmlText(answer.body, "IsTruncated") == "true" &&
          parseDecimal(xmlText(answer.body, "NextPartNumberMarker"), marker) &&
          marker > transfer.partMarker && marker < kMaxParts) {
        transfer.partMarker = marker;
        return s3ListParts(transfer);
      }
      return s3SendParts(transfer);
    }

    case Step::s3Initiate: {
      if (!ok) return finishWithAnswer(transfer);
      std::string const id = xmlText(answer.body, "UploadId");
      if (id.empty() || id.size() > 1024) {
        return finish(transfer, Outcome::transient,
                      "the server started a multipart upload without an id (" + exchange.method + " " +
                          exchange.url + ")");
      }
      transfer.uploadId = id;
      if (m_callbacks.onUploadId) m_callbacks.onUploadId(transfer.request.ticket, id);
      return s3SendParts(transfer);
    }

    case Step::s3PutPart: return;  // the parts end in partDone()

    case Step::s3Complete: {
      // A completion may fail after its 200: the error is then in the body.
      std::string const code = s3Code(answer);
      if (ok && code.empty()) return finish(transfer, Outcome::done, "");
      if (ok) {
        return finish(transfer, outcomeOfStatus(500, code), describe(exchange));
      }
      return finishWithAnswer(transfer);
    }

    case Step::s3AbortChanged:
    case Step::davDeleteChanged: return finish(transfer, transfer.pending.outcome, transfer.pending.message);

    case Step::davPut:
      if (ok) {
        if (exchange.position < exchange.bodySize) {
          // A server that answers before it has the whole body may keep a
          // piece of the file: that piece goes, and the upload tries again.
          transfer.pending.outcome = Outcome::transient;
          transfer.pending.message = "the server answered HTTP " + std::to_string(answer.status) + " after " +
                                     std::to_string(exchange.position) + " of " +
                                     std::to_string(exchange.bodySize) +
                                     " bytes; the piece on the server was removed";
        } else if (exchange.bodyHash.hex() == transfer.request.sha256) {
          return finish(transfer, Outcome::done, "");
        } else {
          transfer.pending.outcome = Outcome::changed;
          transfer.pending.message = "the file changed while it was sent; the copy on the server was removed";
        }
        return send(transfer, Step::davDeleteChanged,
                    exchangeFor(transfer.request.target.protocol, "DELETE", keyUrl(transfer), kEmptySha256));
      }
      if (answer.code == CURLE_OK && answer.status == 409 && !transfer.madeFolders) {
        // The server has no folder to put the object in: make the path's
        // folders from the top, then put once more.
        transfer.madeFolders = true;
        transfer.folders.clear();
        Target const& target = transfer.request.target;
        // Each folder of the prefix and of the key on its own: a server
        // makes one level at a time.
        std::string const path = target.prefix.empty() ? transfer.key : target.prefix + "/" + transfer.key;
        std::size_t start = 0;
        std::vector<std::string> segments;
        for (std::size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
          segments.push_back(path.substr(start, slash - start));
        }
        std::string url = target.origin;
        for (std::string const& segment : segments) {
          url += "/" + percentEncode(segment, true);
          transfer.folders.push_back(url + "/");
        }
        return davMakeNextFolder(transfer);
      }
      return finishWithAnswer(transfer);

    case Step::davMakeFolder:
      // 405: the folder is there already.
      if (ok || (answer.code == CURLE_OK && answer.status == 405)) return davMakeNextFolder(transfer);
      return finishWithAnswer(transfer);
  }
}

void UploadEngine::Impl::s3Put(Transfer& transfer) {
  UploadRequest const& request = transfer.request;
  auto exchange = exchangeFor(transfer.request.target.protocol, "PUT", keyUrl(transfer), request.sha256);
  exchange->headers.push_back("x-amz-meta-sha256: " + request.sha256);
  exchange->headers.push_back("If-None-Match: *");
  exchange->source = BodySource::file;
  exchange->fd = request.file.get();
  exchange->bodySize = request.size;
  send(transfer, Step::s3Put, std::move(exchange));
}

void UploadEngine::Impl::s3Head(Transfer& transfer, Step step) {
  send(transfer, step, exchangeFor(transfer.request.target.protocol, "HEAD", keyUrl(transfer), kEmptySha256));
}

void UploadEngine::Impl::s3ListParts(Transfer& transfer) {
  // Query parameters sorted, each with "=", as the signature needs them.
  std::string url = keyUrl(transfer) + "?max-parts=1000";
  if (transfer.partMarker) url += "&part-number-marker=" + std::to_string(transfer.partMarker);
  url += "&uploadId=" + percentEncode(transfer.uploadId, false);
  auto exchange = exchangeFor(transfer.request.target.protocol, "GET", url, kEmptySha256);
  exchange->maxBody = kMaxListBody;
  send(transfer, Step::s3ListParts, std::move(exchange));
}

void UploadEngine::Impl::s3Initiate(Transfer& transfer) {
  auto exchange =
      exchangeFor(transfer.request.target.protocol, "POST", keyUrl(transfer) + "?uploads=", kEmptySha256);
  exchange->headers.push_back("x-amz-meta-sha256: " + transfer.request.sha256);
  exchange->source = BodySource::memory;
  send(transfer, Step::s3Initiate, std::move(exchange));
}

// Reads the part at offset once, into the file's hash and into partHash.
bool UploadEngine::Impl::hashPart(Transfer& transfer, std::uint64_t offset, std::uint64_t size,
                                  std::string& partHash, std::string& error) {
  Sha256 part;
  std::uint64_t done = 0;
  while (done < size) {
    std::size_t const want = static_cast<std::size_t>(std::min<std::uint64_t>(m_hashBuffer.size(), size - done));
    ssize_t const n = ::pread(transfer.request.file.get(), m_hashBuffer.data(), want, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = std::string("reading the file failed: ") + std::strerror(errno);
      return false;
    }
    if (n == 0) {
      error = "the file ended before its " + std::to_string(transfer.request.size) + " bytes";
      return false;
    }
    transfer.fileHash.update(m_hashBuffer.data(), static_cast<std::size_t>(n));
    part.update(m_hashBuffer.data(), static_cast<std::size_t>(n));
    done += static_cast<std::uint64_t>(n);
  }
  partHash = part.hex();
  return true;
}

// Puts one part on the wire, read from the file as it goes; the server
// checks it against partHash.
bool UploadEngine::Impl::sendPart(Transfer& transfer, unsigned number, std::uint64_t offset, std::uint64_t size,
                                  std::string const& partHash) {
  PartFlight flight;
  flight.number = number;
  flight.handle = curl_easy_init();
  if (!flight.handle) return false;
  std::string const url = keyUrl(transfer) + "?partNumber=" + std::to_string(number) +
                          "&uploadId=" + percentEncode(transfer.uploadId, false);
  flight.exchange = exchangeFor(transfer.request.target.protocol, "PUT", url, partHash);
  Exchange& exchange = *flight.exchange;
  exchange.source = BodySource::file;
  exchange.fd = transfer.request.file.get();
  exchange.fileOffset = offset;
  exchange.bodySize = size;
  Transfer* const owner = &transfer;
  exchange.onBodyBytes = [this, owner](std::uint64_t bytes) {
    std::uint64_t sent = owner->storedBytes;
    for (PartFlight const& f : owner->flights) sent += f.exchange->position;
    noteProgress(owner->request.ticket, sent, bytes);
  };
  setUp(flight.handle, exchange, transfer.request.target, m_common);
  if (m_common.options.traceRequests) trace(exchange, false);
  transfer.flights.push_back(std::move(flight));
  curl_multi_add_handle(m_multi, transfer.flights.back().handle);
  m_moreToDo = true;
  return true;
}

// Sends the next parts, as many at once as the layout and the free requests
// allow, skipping those the server holds already; each is read once to hash
// it (in order, so the file's hash grows with them). Once every part is
// stored, checks the file's hash and completes; paused, stops after the
// parts in flight.
void UploadEngine::Impl::s3SendParts(Transfer& transfer) {
  UploadRequest const& request = transfer.request;
  transfer.step = Step::s3PutPart;
  bool paused = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    paused = m_paused;
  }
  MultipartLayout const& layout = transfer.layout;
  // Hashes read with the file's own need no second reading: the server
  // checks each part against them, so a file changed since is refused.
  bool const hashesGiven = request.partSha256.size() == layout.partCount;
  while (transfer.nextPart <= layout.partCount && transfer.flights.size() < layout.inFlight) {
    if (paused && !transfer.stored.empty()) break;
    if (!transfer.flights.empty() && requestsInFlight() >= m_requestLimit) break;
    unsigned const number = transfer.nextPart;
    std::uint64_t const offset = (number - 1) * layout.partSize;
    std::uint64_t const size = std::min(layout.partSize, request.size - offset);
    std::string partHash = hashesGiven ? request.partSha256[number - 1] : std::string();
    std::string error;
    if (!hashesGiven && !hashPart(transfer, offset, size, partHash, error)) {
      dropFlights(transfer);
      return s3Abort(transfer, Outcome::changed, error);
    }
    ++transfer.nextPart;
    auto held = transfer.serverParts.find(number);
    if (held != transfer.serverParts.end() && held->second.size == size && !held->second.etag.empty()) {
      transfer.stored[number] = held->second;
      transfer.storedBytes += size;
      noteProgress(request.ticket, transfer.storedBytes, 0);
      continue;
    }
    if (!sendPart(transfer, number, offset, size, partHash)) {
      return finish(transfer, Outcome::transient, "libcurl could not start a request");
    }
  }
  if (!transfer.flights.empty()) return;
  if (transfer.nextPart <= layout.partCount) {
    return finish(transfer, Outcome::stopped, "paused after part " + std::to_string(transfer.stored.rbegin()->first));
  }
  if (!hashesGiven && transfer.fileHash.hex() != request.sha256) {
    return s3Abort(transfer, Outcome::changed, "the file changed while it was sent; its upload was aborted");
  }
  s3Complete(transfer);
}

// One part came back: stored, the next goes; refused or cut, the upload
// ends (the other parts in flight are cut) as the tables say.
void UploadEngine::Impl::partDone(Transfer& transfer, std::list<PartFlight>::iterator done, CURLcode code) {
  PartFlight flight = std::move(*done);
  transfer.flights.erase(done);
  Exchange& exchange = *flight.exchange;
  collectAnswer(flight.handle, code, exchange);
  curl_easy_cleanup(flight.handle);
  Answer const& answer = exchange.answer;
  if (m_common.options.traceRequests) trace(exchange, true);
  if (answer.code == CURLE_OK) transfer.lastStatus = answer.status;
  transfer.bytesSent += answer.bodyBytesSent;
  bool const ok = answer.code == CURLE_OK && answer.status >= 200 && answer.status <= 299;
  unsigned const number = flight.number;
  // The failure's exchange is the one the result tells about.
  transfer.exchange = std::move(flight.exchange);
  if (exchange.shortFile || exchange.readErrno) {
    dropFlights(transfer);
    return s3Abort(transfer, Outcome::changed,
                   exchange.shortFile
                       ? "the file ended before its " + std::to_string(transfer.request.size) + " bytes"
                       : std::string("reading the file failed: ") + std::strerror(exchange.readErrno));
  }
  if (!ok) {
    // Bytes that are not those hashed: the upload goes, as the file must be
    // hashed again.
    if (answer.code == CURLE_OK && outcomeOfStatus(answer.status, s3Code(answer)) == Outcome::changed) {
      dropFlights(transfer);
      return s3Abort(transfer, Outcome::changed, describe(exchange));
    }
    return finishWithAnswer(transfer);
  }
  if (exchange.position < exchange.bodySize) {
    return finish(transfer, Outcome::transient,
                  "the server answered HTTP " + std::to_string(answer.status) + " after " +
                      std::to_string(exchange.position) + " of " + std::to_string(exchange.bodySize) +
                      " bytes of part " + std::to_string(number) + " (" + exchange.method + " " + exchange.url +
                      ")");
  }
  PartRecord part;
  part.number = number;
  part.size = exchange.bodySize;
  part.etag = answer.etag;
  if (part.etag.empty()) {
    return finish(transfer, Outcome::transient,
                  "the server stored part " + std::to_string(part.number) + " without an ETag (" +
                      exchange.method + " " + exchange.url + ")");
  }
  transfer.stored[number] = part;
  transfer.storedBytes += part.size;
  if (m_callbacks.onPart) m_callbacks.onPart(transfer.request.ticket, part);
  s3SendParts(transfer);
}

void UploadEngine::Impl::s3Complete(Transfer& transfer) {
  std::string body = "<CompleteMultipartUpload>";
  for (auto const& entry : transfer.stored) {
    PartRecord const& part = entry.second;
    body += "<Part><PartNumber>" + std::to_string(part.number) + "</PartNumber><ETag>" +
            xmlEscape(part.etag) + "</ETag></Part>";
  }
  body += "</CompleteMultipartUpload>";
  auto exchange = exchangeFor(transfer.request.target.protocol, "POST",
                              keyUrl(transfer) + "?uploadId=" + percentEncode(transfer.uploadId, false),
                              sha256OfText(body));
  exchange->source = BodySource::memory;
  exchange->bodySize = body.size();
  exchange->memory = std::move(body);
  send(transfer, Step::s3Complete, std::move(exchange));
}

// Aborts the multipart upload (if one was started), then ends as outcome.
void UploadEngine::Impl::s3Abort(Transfer& transfer, Outcome outcome, std::string message) {
  if (transfer.uploadId.empty()) return finish(transfer, outcome, std::move(message));
  transfer.pending.outcome = outcome;
  transfer.pending.message = std::move(message);
  send(transfer, Step::s3AbortChanged,
       exchangeFor(transfer.request.target.protocol, "DELETE",
                   keyUrl(transfer) + "?uploadId=" + percentEncode(transfer.uploadId, false), kEmptySha256));
}

void UploadEngine::Impl::davPut(Transfer& transfer) {
  UploadRequest const& request = transfer.request;
  auto exchange = exchangeFor(transfer.request.target.protocol, "PUT", keyUrl(transfer), kEmptySha256);
  exchange->source = BodySource::file;
  exchange->fd = request.file.get();
  exchange->bodySize = request.size;
  exchange->hashBody = true;  // the server checks nothing: the hash is compared after the PUT
  send(transfer, Step::davPut, std::move(exchange));
}

void UploadEngine::Impl::davMakeNextFolder(Transfer& transfer) {
  if (transfer.folders.empty()) return davPut(transfer);
  std::string const url = transfer.folders.front();
  transfer.folders.erase(transfer.folders.begin());
  send(transfer, Step::davMakeFolder,
       exchangeFor(transfer.request.target.protocol, "MKCOL", url, kEmptySha256));
}

// ---------------------------------------------------------------------------

std::size_t UploadEngine::Impl::abortOrphans(Target const& target, std::set<std::string> const& owned) {
  if (target.protocol != Protocol::S3) return 0;
  std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
  if (!handle) throw std::runtime_error("libcurl could not start a request");
  auto perform = [&](Exchange& exchange) {
    setUp(handle.get(), exchange, target, m_common);
    if (m_common.options.traceRequests) trace(exchange, false);
    collectAnswer(handle.get(), curl_easy_perform(handle.get()), exchange);
    if (m_common.options.traceRequests) trace(exchange, true);
    Answer const& answer = exchange.answer;
    if (answer.code != CURLE_OK || answer.status < 200 || answer.status > 299) {
      throw std::runtime_error(describe(exchange));
    }
  };
  std::string const bucketUrl = target.origin + "/" + percentEncode(target.bucket, true);
  std::string const prefix = target.prefix.empty() ? "" : target.prefix + "/";
  std::string keyMarker;
  std::string idMarker;
  std::size_t aborted = 0;
  // A server that never ends its listing does not keep the caller forever.
  for (unsigned page = 0; page < kMaxListPages; ++page) {
    // Parameters in sorted order, as the signature needs them.
    std::string url = bucketUrl + "?";
    if (!keyMarker.empty()) url += "key-marker=" + percentEncode(keyMarker, false) + "&";
    url += "prefix=" + percentEncode(prefix, false) + "&";
    if (!idMarker.empty()) url += "upload-id-marker=" + percentEncode(idMarker, false) + "&";
    url += "uploads=";
    auto listing = exchangeFor(Protocol::S3, "GET", url, kEmptySha256);
    listing->maxBody = kMaxListBody;
    perform(*listing);
    std::string const& body = listing->answer.body;
    for (auto const& range : xmlElements(body, "Upload")) {
      std::string const key = xmlText(body, "Key", range.first, range.second);
      std::string const id = xmlText(body, "UploadId", range.first, range.second);
      if (key.empty() || id.empty() || owned.count(id)) continue;
      if (key.compare(0, prefix.size(), prefix) != 0) continue;  // not under the target's prefix
      auto abort = exchangeFor(
          Protocol::S3, "DELETE",
          bucketUrl + "/" + percentEncode(key, true) + "?uploadId=" + percentEncode(id, false), kEmptySha256);
      perform(*abort);
      ++aborted;
    }
    std::string const nextKey = xmlText(body, "NextKeyMarker");
    std::string const nextId = xmlText(body, "NextUploadIdMarker");
    if (xmlText(body, "IsTruncated") != "true" || (nextKey == keyMarker && nextId == idMarker)) break;
    keyMarker = nextKey;
    idMarker = nextId;
  }
  return aborted;
}

AccountCheck checkAccount(Target const& target, Inet::InetCfg const& inet, Credentials credentials,
                          EngineOptions const& options, std::chrono::seconds timeout,
                          std::function<bool()> const& abandoned) {
  Common common(inet);
  common.credentials = std::move(credentials);
  common.options = options;
  std::unique_ptr<Exchange> exchange;
  if (target.protocol == Protocol::S3) {
    std::string const prefix = target.prefix.empty() ? "" : target.prefix + "/";
    exchange = exchangeFor(Protocol::S3, "GET",
                           target.origin + "/" + percentEncode(target.bucket, true) +
                               "?list-type=2&max-keys=1&prefix=" + percentEncode(prefix, false),
                           kEmptySha256);
  } else {
    std::string const folder = target.prefix.empty() ? "" : percentEncode(target.prefix, true) + "/";
    exchange = exchangeFor(Protocol::WebDav, "PROPFIND", target.origin + "/" + folder, kEmptySha256);
    exchange->headers.push_back("Depth: 0");
  }
  AccountCheck check;
  std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
  if (!handle) {
    check.message = "libcurl could not start a request";
    return check;
  }
  setUp(handle.get(), *exchange, target, common);
  curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, static_cast<long>(timeout.count()));
  if (abandoned) abandonWhen(handle.get(), &abandoned);
  if (options.traceRequests) trace(*exchange, false);
  CURLcode const code = curl_easy_perform(handle.get());
  collectAnswer(handle.get(), code, *exchange);
  if (options.traceRequests) trace(*exchange, true);
  if (code == CURLE_ABORTED_BY_CALLBACK && abandoned && abandoned()) {
    check.message = "the request was abandoned";
    return check;
  }
  check.answered = code == CURLE_OK;
  check.status = check.answered ? exchange->answer.status : 0;
  check.message = check.answered ? describe(*exchange) : exchange->answer.error;
  return check;
}

UploadEngine::UploadEngine(Inet::InetCfg const& inet, Credentials credentials, EngineOptions const& options,
                           Callbacks callbacks)
    : m_impl(std::make_unique<Impl>(inet, std::move(credentials), options, std::move(callbacks))) {}

UploadEngine::~UploadEngine() = default;

void UploadEngine::submit(UploadRequest request) { m_impl->submit(std::move(request)); }
void UploadEngine::cancel(std::uint64_t ticket) { m_impl->cancel(ticket); }
void UploadEngine::setPaused(bool paused) { m_impl->setPaused(paused); }
void UploadEngine::setMaxTransfers(std::size_t maxTransfers) { m_impl->setMaxTransfers(maxTransfers); }
std::vector<TransferProgress> UploadEngine::inFlight() const { return m_impl->inFlight(); }
double UploadEngine::throughput() const { return m_impl->throughput(); }
std::size_t UploadEngine::abortOrphans(Target const& target, std::set<std::string> const& owned) {
  return m_impl->abortOrphans(target, owned);
}

}  // namespace qxsvc
