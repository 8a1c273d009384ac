#include "ipc/IpcCmdsLite.h"

#include "shared/Log.h"

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/thread/lock_guard.hpp>

#include <algorithm>
#include <functional>
#include <iterator>
#include <random>
#include <sstream>

namespace Ipc {

namespace {

// "ok" first, then "msg", each only when it says something.
json::Object okMsgBody(bool ok, std::string const& msg) {
  json::Object obj;
  if (ok) obj.setAt("ok", json::Value::makeTrue());
  if (!msg.empty()) obj.setAt("msg", json::Value(msg));
  return obj;
}

void readOkMsg(json::Object const& obj, bool& ok, std::string& msg) {
  ok = obj["ok"].isTrue();
  msg = obj["msg"].asStringSafe();
}

}  // namespace

std::string dumpReqOrResp(json::Object const&, char const* text, unsigned long length) {
  constexpr unsigned long kShown = 30;
  if (length <= kShown) return std::string(text, length);
  return std::string(text, kShown) + "...";
}

void CmdLiteBase::accept(CmdProcessorI& p) {
  // CmdProcessorLiteI has CmdProcessorI as its first, primary base.
  accept(static_cast<CmdProcessorLiteI&>(p));
}

// ---------------------------------------------------------------------------

IsRunning::~IsRunning() = default;
char const* IsRunning::name() const { return "\"Is Running\""; }
void IsRunning::sendReq() { CmdI::sendReq(); }
void IsRunning::readReq() { CmdI::readReq(); }

json::Object IsRunning::serializeResp() const {
  json::Object obj;
  if (running) obj.setAt(FIELD_RESP, json::Value::makeTrue());
  return obj;
}

void IsRunning::deserializeResp(json::Object const& obj) { running = obj[FIELD_RESP].isTrue(); }
void IsRunning::accept(CmdProcessorLiteI& p) { p.visit(*this); }

// ---------------------------------------------------------------------------

GetCfg::~GetCfg() = default;
char const* GetCfg::name() const { return "\"Get Configuration\""; }
void GetCfg::sendReq() { CmdI::sendReq(); }
void GetCfg::readReq() { CmdI::readReq(); }
json::Object GetCfg::serializeResp() const { return payload; }
void GetCfg::deserializeResp(json::Object const& obj) { payload = obj; }
void GetCfg::accept(CmdProcessorLiteI& p) { p.visit(*this); }
void GetCfg::setSetts(Settings const& settings) { payload = settings.serialize(); }
std::unique_ptr<Settings> GetCfg::pSetts() const { return std::make_unique<Settings>(payload); }

// ---------------------------------------------------------------------------

SaveCfg::SaveCfg(std::shared_ptr<CmdProcessorI> processor, Settings const& settings)
    : CmdLiteBase(std::move(processor), SAVE_CFG_TYPE), payload(settings.serialize()) {}
SaveCfg::SaveCfg(std::shared_ptr<CmdProcessorI> processor)
    : CmdLiteBase(std::move(processor), SAVE_CFG_TYPE) {}
SaveCfg::~SaveCfg() = default;
char const* SaveCfg::name() const { return "\"Save Configuration\""; }
json::Object SaveCfg::serializeReq() const { return payload; }
void SaveCfg::deserializeReq(json::Object const& obj) { payload = obj; }
json::Object SaveCfg::serializeResp() const { return okMsgBody(ok, msg); }
void SaveCfg::deserializeResp(json::Object const& obj) { readOkMsg(obj, ok, msg); }
void SaveCfg::accept(CmdProcessorLiteI& p) { p.visit(*this); }
std::unique_ptr<Settings> SaveCfg::pSetts() const { return std::make_unique<Settings>(payload); }

// ---------------------------------------------------------------------------

Resume::~Resume() = default;
char const* Resume::name() const { return "Resume"; }
void Resume::sendReq() { CmdI::sendReq(); }
void Resume::readReq() { CmdI::readReq(); }
json::Object Resume::serializeResp() const { return okMsgBody(ok, msg); }
void Resume::deserializeResp(json::Object const& obj) { readOkMsg(obj, ok, msg); }
void Resume::accept(CmdProcessorLiteI& p) { p.visit(*this); }

// ---------------------------------------------------------------------------

Pause::~Pause() = default;
char const* Pause::name() const { return "Pause"; }
// A pause carries a body, unlike the resume it derives from.
void Pause::sendReq() { JsonCmdBase::sendReq(); }
void Pause::readReq() { JsonCmdBase::readReq(); }

json::Object Pause::serializeReq() const {
  json::Object obj;
  if (delAll) obj.setAt("delAll", json::Value::makeTrue());
  return obj;
}

void Pause::deserializeReq(json::Object const& obj) { delAll = obj["delAll"].isTrue(); }
void Pause::accept(CmdProcessorLiteI& p) { p.visit(*this); }

// ---------------------------------------------------------------------------

ServerRequest::ServerRequest(std::shared_ptr<CmdProcessorI> processor,
                             std::string const& callName, json::Object const& params,
                             Inet::InetCfg const* inetCfg)
    : CmdLiteBase(std::move(processor), SERVER_REQUEST_TYPE) {
  payload.setAt("method", json::Value(callName));
  payload.setAt("params", params);
  if (inetCfg) {
    json::Object cfg;
    inetCfg->serialize(cfg);
    payload.setAt("inetCfg", cfg);
  }
}

ServerRequest::ServerRequest(std::shared_ptr<CmdProcessorI> processor)
    : CmdLiteBase(std::move(processor), SERVER_REQUEST_TYPE) {}
ServerRequest::~ServerRequest() = default;
char const* ServerRequest::name() const { return "\"Server Call\""; }
int ServerRequest::reqTimeoutId() const { return TIMEOUT_LONG; }
json::Object ServerRequest::serializeReq() const { return payload; }
void ServerRequest::deserializeReq(json::Object const& obj) { payload = obj; }
json::Object ServerRequest::serializeResp() const { return payload; }
void ServerRequest::deserializeResp(json::Object const& obj) { payload = obj; }
void ServerRequest::accept(CmdProcessorLiteI& p) { p.visit(*this); }

std::string ServerRequest::callName() const {
  json::Value const method = payload["method"];
  if (!method.isString()) method.onCastErr("string");
  return method.asStringSafe();
}

json::Object ServerRequest::jParams() const { return json::Object(payload["params"]); }

std::unique_ptr<Inet::InetCfg> ServerRequest::pInetCfg() const {
  json::Value const value = payload["inetCfg"];
  if (value.empty()) return nullptr;
  auto cfg = std::make_unique<Inet::InetCfg>(LITE_VERSION_STR);
  cfg->deserialize(json::Object(value));
  return cfg;
}

// ---------------------------------------------------------------------------

GetUploads::~GetUploads() = default;
char const* GetUploads::name() const { return "\"Get Uploads\""; }
void GetUploads::sendReq() { CmdI::sendReq(); }
void GetUploads::readReq() { CmdI::readReq(); }
json::Object GetUploads::serializeResp() const { return payload; }
void GetUploads::deserializeResp(json::Object const& obj) { payload = obj; }
void GetUploads::accept(CmdProcessorLiteI& p) { p.visit(*this); }

// ---------------------------------------------------------------------------
// Unique spool names

namespace {

namespace fs = boost::filesystem;

using Creator = std::function<bool(fs::path&, fs::path const&, std::string const&, unsigned int,
                                   std::string const&)>;

constexpr unsigned int kCountedAttempts = 10;
constexpr unsigned int kRandomAttempts = 999;

// Held around each test-and-claim of a name in the spool folder, so that two
// drops of one process never claim the same name.
boost::mutex& g_mutexUniPath() {
  static boost::mutex mutex;
  return mutex;
}

fs::path createUniName(fs::path const& folder, std::string const& base, unsigned int n,
                       std::string const& ext) {
  if (n == 0) return folder / (base + ext);
  return folder / (base + "_" + std::to_string(n) + ext);
}

// Counted names first (base, base_1 ... base_9), then random ones: the name
// that creator claimed, or an empty path after 1009 failures.
fs::path createUniquePath(fs::path const& folder, std::string const& base,
                          std::string const& ext, Creator const& creator) {
  fs::path candidate = folder / (base + ext);
  for (unsigned int n = 0; n < kCountedAttempts; ++n) {
    if (creator(candidate, folder, base, n, ext)) return candidate;
  }
  std::random_device device("default");
  unsigned long const seed = device() % 2147483647UL;
  std::minstd_rand0 engine(seed == 0 ? 1 : seed);
  std::uniform_int_distribution<unsigned int> pick(1, 4294967295U);
  for (unsigned int i = 0; i < kRandomAttempts; ++i) {
    if (creator(candidate, folder, base, pick(engine), ext)) return candidate;
  }
  boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
  Log::inst().logStreamStartLine() << "ERR:" << "Ipc Failed too many times to create temp file item \""
                                   << base << ext << "\"" << std::endl;
  return fs::path();
}

// Nothing is there under candidate. A name the folder cannot hold (too
// long, say) or cannot be looked at is not free either: it counts as one
// failed attempt, never as an exception out of a request.
bool isFreeName(fs::path const& candidate) {
  boost::system::error_code ec;
  return fs::status(candidate, ec).type() == fs::file_not_found;
}

bool createEmptyFile(fs::path& candidate, fs::path const& folder, std::string const& base,
                     unsigned int n, std::string const& ext) {
  candidate = createUniName(folder, base, n, ext);
  boost::lock_guard<boost::mutex> lock(g_mutexUniPath());
  if (!isFreeName(candidate)) return false;
  fs::ofstream file(candidate, std::ios::out);
  bool const made = file.is_open();
  file.close();
  return made;
}

bool createEmptyDir(fs::path& candidate, fs::path const& folder, std::string const& base,
                    unsigned int n, std::string const& ext) {
  candidate = createUniName(folder, base, n, ext);
  boost::lock_guard<boost::mutex> lock(g_mutexUniPath());
  if (!isFreeName(candidate)) return false;
  boost::system::error_code ec;
  return fs::create_directory(candidate, ec) && !ec;
}

void logPathLine(char const* level, std::string const& text, fs::path const& p,
                 char const* tail) {
  boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
  Log::inst().logStreamStartLine() << level << text << p << tail << std::endl;
}

}  // namespace

// ---------------------------------------------------------------------------

FileDrop::FileDrop(std::shared_ptr<CmdProcessorI> processor, fs::path const& path)
    : CmdLiteBase(std::move(processor), FILE_DROP_TYPE), path(path) {}
FileDrop::~FileDrop() = default;
char const* FileDrop::name() const { return "\"Drop File\""; }
int FileDrop::reqTimeoutId() const { return TIMEOUT_TRANSFER; }
json::Object FileDrop::serializeResp() const { return okMsgBody(ok, msg); }
void FileDrop::deserializeResp(json::Object const& obj) { readOkMsg(obj, ok, msg); }
void FileDrop::accept(CmdProcessorLiteI& p) { p.visit(*this); }

void FileDrop::addMemFile(std::string const& name, std::string content) {
  std::uint64_t const size = content.size();
  files.emplace_back(FileInf{name, size, std::streampos(0), std::move(content)});
}

bool FileDrop::prepareReq() {
  auto addFile = [this](fs::path const& file) {
    std::uint64_t const size = fs::file_size(file);
    if (size == 0) {
      logPathLine("WARNING:", "Ipc " + std::string(name()) + " request with empty file. ", file,
                  " skipped!");
      return;
    }
    files.emplace_back(FileInf{file, size, std::streampos(0), std::string()});
  };
  if (fs::is_directory(fs::status(path))) {
    for (fs::directory_iterator it(path), end; it != end; ++it) {
      if (fs::is_directory(fs::status(it->path()))) {
        logPathLine("WARNING:",
                    "Ipc " + std::string(name()) + " request with sub-folders is not supported. ",
                    it->path(), " skipped!");
        continue;
      }
      addFile(it->path());
    }
  } else {
    addFile(path);
  }
  return !files.empty();
}

json::Object FileDrop::serializeReq() const {
  json::Array list;
  for (FileInf const& f : files) {
    json::Object entry;
    entry.setAt("name", json::Value(f.path.filename().string()));
    entry.setAt("size", json::Value(static_cast<json_int_t>(f.size)));
    list.append(entry);
  }
  json::Object obj;
  obj.setAt("files", list);
  return obj;
}

void FileDrop::deserializeReq(json::Object const& obj) {
  json::Array const list(obj["files"]);
  std::size_t const n = list.size();
  if (n == 1) {
    json::Object const entry(list[0]);
    std::string const sentName = entry["name"].c_str();
    fs::path const sent(sentName);
    std::string const base = sent.stem().string();
    std::string const ext = sent.extension().string() + "." + Settings::RESERVED_IGNORED_EXT;
    fs::path const target = createUniquePath(path, base, ext, createEmptyFile);
    if (target.empty()) throw json::Exc("Svc failed to create temp file for " + sentName);
    // Read after the file was made: a bad size leaves an empty temporary file.
    std::uint64_t const size = static_cast<std::uint64_t>(entry["size"].asInt());
    files.emplace_back(FileInf{target, size, std::streampos(0), std::string()});
    return;
  }
  path = createUniquePath(path, "tmp", "." + Settings::RESERVED_IGNORED_EXT, createEmptyDir);
  for (std::size_t i = 0; i < n; ++i) {
    json::Object const entry(list[i]);
    std::uint64_t const size = static_cast<std::uint64_t>(entry["size"].asInt());
    std::string const sentName = entry["name"].c_str();
    files.emplace_back(FileInf{path / sentName, size, std::streampos(0), std::string()});
  }
}

void FileDrop::growBuffer(std::size_t size) {
  if (size <= bufferSize) return;
  buffer.reset(new char[size]);
  bufferSize = size;
}

void FileDrop::sendReqDone() { sendFilesContent(); }

void FileDrop::sendFilesContent() {
  if (files.empty()) {
    JsonCmdBase::sendReqDone();
    return;
  }
  FileInf& r = files.front();
  fs::path const file = r.path;  // r may be gone before the piece is read
  std::unique_ptr<std::istream> in;
  if (!r.content.empty()) {
    in = std::make_unique<std::istringstream>(r.content);
  } else {
    in = std::make_unique<fs::ifstream>(file, std::ios::in | std::ios::binary);
  }
  if (!in->good()) {
    onTransferError("Failed to open " + file.string());
    return;
  }
  if (r.pos != std::streampos(0)) in->seekg(r.pos);
  std::uint64_t const rest = r.size - static_cast<std::uint64_t>(std::streamoff(r.pos));
  std::size_t piece;
  if (rest > PIECE_SIZE) {
    piece = PIECE_SIZE;
    r.pos += PIECE_SIZE;
  } else {
    piece = static_cast<std::size_t>(rest);
    if (g_LogVerbose) logPathLine("TRACE:", "Ipc finalizing the transfer of ", file, "");
    files.pop_front();
  }
  growBuffer(piece);
  in->read(buffer.get(), static_cast<std::streamsize>(piece));
  if (in->bad() || in->fail()) {
    onTransferError("Failed to read " + file.string());
    return;
  }
  in.reset();
  channel()->writeAsync(shared_from_this(), buffer.get(), piece, [this] { sendFilesContent(); });
}

void FileDrop::readReqDone() { readFilesContent(); }

bool FileDrop::isOwnTarget(fs::path const& target) const {
  if (path.empty()) return false;
  // Targets are made as path / name, so their parent is compared with the
  // parent of such a join: a folder given with a trailing separator
  // ("/spool/in/") is then the same folder as the parent of its targets.
  fs::path const folder = (path / "x").parent_path();
  fs::path const leaf = target.filename();
  return target.parent_path() == folder && leaf != "." && leaf != ".." && !leaf.empty();
}

void FileDrop::readFilesContent() {
  auto const next = std::find_if(files.begin(), files.end(), [](FileInf const& f) {
    return static_cast<std::uint64_t>(std::streamoff(f.pos)) != f.size;
  });
  if (next == files.end()) {
    JsonCmdBase::readReqDone();
    return;
  }
  FileInf* const r = &*next;
  std::uint64_t const rest = r->size - static_cast<std::uint64_t>(std::streamoff(r->pos));
  std::size_t piece = PIECE_SIZE;
  bool last = false;
  if (rest <= PIECE_SIZE) {
    piece = static_cast<std::size_t>(rest);
    last = r == &files.back();
    if (g_LogVerbose) logPathLine("TRACE:", "Ipc finalizing the transfer of ", r->path, "");
  }
  r->pos += static_cast<std::streamoff>(piece);
  growBuffer(piece);
  channel()->readAsync(shared_from_this(), buffer.get(), piece, [this, r, piece, last] {
    // A target outside the folder this drop created is never opened.
    if (!isOwnTarget(r->path)) {
      onTransferError("Ipc Failed to open " + r->path.string());
      return;
    }
    fs::ofstream out(r->path, std::ios::out | std::ios::binary | std::ios::ate | std::ios::app);
    if (!out.is_open()) {
      onTransferError("Ipc Failed to open " + r->path.string());
      return;
    }
    // Flushed here, so that a full disk is seen now rather than lost at close.
    out.write(buffer.get(), static_cast<std::streamsize>(piece));
    out.flush();
    bool const written = !(out.bad() || out.fail());
    // Closed before the outcome is reported: the client hears of a failure
    // only once the target is released (its space freed when it is removed).
    // A failure to close is not reported.
    out.close();
    if (!written) {
      onTransferError("Ipc Failed to write to " + r->path.string());
      return;
    }
    if (last) {
      JsonCmdBase::readReqDone();
    } else {
      readFilesContent();
    }
  });
}

void FileDrop::setResp() {
  fs::path const item = files.size() == 1 ? files.front().path : path;
  ok = removeExtension(item);
  if (!ok) msg = "Service file operation failed. Please contact customer service for help";
}

bool FileDrop::removeExtension(fs::path const& p) {
  fs::path const stem = p.stem();
  std::string const ext = stem.extension().string();
  std::string const base = stem.stem().string();
  fs::path const folder = p.parent_path();
  Creator const renamer = [&p](fs::path& candidate, fs::path const& folder,
                               std::string const& base, unsigned int n, std::string const& ext) {
    candidate = createUniName(folder, base, n, ext);
    boost::lock_guard<boost::mutex> lock(g_mutexUniPath());
    if (fs::exists(fs::status(candidate))) return false;
    boost::system::error_code ec;
    fs::rename(p, candidate, ec);
    return !ec;
  };
  return !createUniquePath(folder, base, ext, renamer).empty();
}

// ---------------------------------------------------------------------------

TestCfg::TestCfg(std::shared_ptr<CmdProcessorI> processor, Settings const& settings)
    : CmdLiteBase(std::move(processor), TEST_CFG_TYPE),
      payload(settings.serialize()),
      lines(std::make_shared<SharedRespMsgs>()) {}

TestCfg::TestCfg(std::shared_ptr<CmdProcessorI> processor)
    : CmdLiteBase(std::move(processor), TEST_CFG_TYPE), lines(std::make_shared<SharedRespMsgs>()) {}

TestCfg::TestCfg(TestCfg const& other)
    : CmdLiteBase(other.processor(), TEST_CFG_TYPE), lines(other.lines) {}

TestCfg::~TestCfg() = default;
char const* TestCfg::name() const { return "\"Test Configuration\""; }
int TestCfg::reqTimeoutId() const { return TIMEOUT_LONG; }
json::Object TestCfg::serializeReq() const { return payload; }
void TestCfg::deserializeReq(json::Object const& obj) { payload = obj; }
json::Object TestCfg::serializeResp() const { return json::Object(); }
void TestCfg::deserializeResp(json::Object const&) {}
void TestCfg::accept(CmdProcessorLiteI& p) { p.visit(*this); }
std::unique_ptr<Settings> TestCfg::pSetts() const { return std::make_unique<Settings>(payload); }

void TestCfg::sendResp() { execOneTest(); }

void TestCfg::execOneTest() {
  std::deque<std::string>& queue = lines->lines;
  for (;;) {
    bool const more = runner && runner->runStep();
    if (!more) {
      queue.emplace_back();  // the end marker
      break;
    }
    if (runner->waiting()) return;  // its work goes on elsewhere; the runner resumes the test
    if (!queue.empty()) break;
  }
  sendRespLine(frontWithinLimit());
}

std::string const* TestCfg::frontWithinLimit() {
  std::string& line = lines->lines.front();
  if (line.size() > MAX_RESP_LINE) {
    std::size_t const marker = sizeof CUT_MARKER - 1;
    std::size_t keep = MAX_RESP_LINE - marker;
    // Never leave half a UTF-8 character before the marker.
    while (keep > 0 && (static_cast<unsigned char>(line[keep]) & 0xC0) == 0x80) --keep;
    line.resize(keep);
    line += CUT_MARKER;
  }
  return &line;
}

void TestCfg::sendRespLine(std::string const* line) {
  m_wireLength = line->size();
  channel()->writeAsync(shared_from_this(), &m_wireLength, sizeof m_wireLength,
                        [this, line] { sendRespLineBody(line); });
}

void TestCfg::sendRespLineBody(std::string const* line) {
  if (line->empty()) {
    channel()->finishCmd(shared_from_this());
    return;
  }
  channel()->writeAsync(shared_from_this(), line->data(), line->size(), [this] {
    std::deque<std::string>& queue = lines->lines;
    queue.pop_front();
    if (!queue.empty()) {
      sendRespLine(frontWithinLimit());
    } else {
      execOneTest();
    }
  });
}

void TestCfg::readResp() {
  channel()->readAsync(shared_from_this(), &m_wireLength, sizeof m_wireLength, [this] {
    if (m_wireLength == 0) {
      lockAndAddToLines(std::string());
      channel()->finishCmd(shared_from_this());
      return;
    }
    if (m_wireLength > MAX_RESP_LINE) {
      onTransferError("Ipc " + std::string(name()) + " result line of " + std::to_string(m_wireLength) +
                      " bytes is over the limit of " + std::to_string(MAX_RESP_LINE) + " bytes");
      return;
    }
    m_wireLine.resize(static_cast<std::size_t>(m_wireLength));
    channel()->readAsync(shared_from_this(), &m_wireLine[0], m_wireLine.size(), [this] {
      lockAndAddToLines(std::move(m_wireLine));
      m_wireLine.clear();  // a moved-from string is valid but unspecified
      if (processor()) processor()->processCmd(std::make_shared<TestCfg>(*this));
      readResp();
    });
  });
}

void TestCfg::lockAndAddToLines(std::string&& line) {
  boost::lock_guard<boost::mutex> lock(lines->mutex);
  lines->lines.push_back(std::move(line));
}

bool TestCfg::getRespLine(std::string& out) {
  boost::lock_guard<boost::mutex> lock(lines->mutex);
  if (lines->lines.empty() || lines->lines.front().empty()) return false;
  out = std::move(lines->lines.front());
  lines->lines.pop_front();
  return true;
}

// ---------------------------------------------------------------------------

namespace {

using Maker = std::shared_ptr<CmdLiteBase> (*)(std::shared_ptr<CmdProcessorI> const&,
                                               boost::filesystem::path const&);

template <class Cmd>
std::shared_ptr<CmdLiteBase> make(std::shared_ptr<CmdProcessorI> const& p,
                                  boost::filesystem::path const&) {
  return std::make_shared<Cmd>(p);
}

std::shared_ptr<CmdLiteBase> makeFileDrop(std::shared_ptr<CmdProcessorI> const& p,
                                          boost::filesystem::path const& spoolFolder) {
  return std::make_shared<FileDrop>(p, spoolFolder);
}

struct CmdEntry {
  CmdI::TypeCode type;
  Maker maker;
};

constexpr CmdEntry kCmdTable[] = {
    {IS_RUNNING_TYPE, &make<IsRunning>},   {GET_CFG_TYPE, &make<GetCfg>},
    {PAUSE_TYPE, &make<Pause>},            {RESUME_TYPE, &make<Resume>},
    {SAVE_CFG_TYPE, &make<SaveCfg>},       {GET_UPLOADS_TYPE, &make<GetUploads>},
    {SERVER_REQUEST_TYPE, &make<ServerRequest>}, {TEST_CFG_TYPE, &make<TestCfg>},
    {FILE_DROP_TYPE, &makeFileDrop},
};

}  // namespace

std::shared_ptr<CmdLiteBase> createLiteCmd(CmdI::TypeCode type,
                                           std::shared_ptr<CmdProcessorI> const& processor,
                                           boost::filesystem::path const& spoolFolder) {
  auto const entry = std::find_if(std::begin(kCmdTable), std::end(kCmdTable),
                                  [type](CmdEntry const& e) { return e.type == type; });
  return entry == std::end(kCmdTable) ? nullptr : entry->maker(processor, spoolFolder);
}

}  // namespace Ipc
