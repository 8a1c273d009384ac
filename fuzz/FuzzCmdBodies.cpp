// Every command's request and response readers on any body. The first byte
// picks the command, the second whether the body is read as a request (the
// service's side) or as a response (the user interface's side); the rest is
// the body's text.
//
// Request readers may refuse a body only with json::Exc; response readers
// never throw. A drop's request is read into a fresh spool folder, and
// nothing may appear beside that folder afterwards: a name that escapes it
// is a finding.
#include "fuzz/FuzzUtil.h"
#include "ipc/IpcCmdsLite.h"
#include "json/Json.h"

#include <boost/filesystem.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace {

bool const g_quiet = qxfuzz::quietLog();

Ipc::CmdI::TypeCode const kTypes[] = {
    Ipc::IS_RUNNING_TYPE,  Ipc::GET_CFG_TYPE,        Ipc::PAUSE_TYPE,
    Ipc::RESUME_TYPE,      Ipc::SAVE_CFG_TYPE,       Ipc::GET_UPLOADS_TYPE,
    Ipc::SERVER_REQUEST_TYPE, Ipc::TEST_CFG_TYPE,    Ipc::FILE_DROP_TYPE,
};

// A folder of its own per input, holding the spool folder; removed after.
class Sandbox {
 public:
  Sandbox() : m_top(fs::temp_directory_path() / fs::unique_path("qxfuzz-%%%%-%%%%-%%%%")) {
    fs::create_directories(m_top / "spool");
  }
  ~Sandbox() {
    boost::system::error_code ec;
    fs::remove_all(m_top, ec);
  }
  Sandbox(Sandbox const&) = delete;
  Sandbox& operator=(Sandbox const&) = delete;

  fs::path spool() const { return m_top / "spool"; }
  // Whether anything but the spool folder stands in the sandbox's top.
  bool escaped() const {
    for (fs::directory_iterator it(m_top), end; it != end; ++it) {
      if (it->path().filename() != "spool") return true;
    }
    return false;
  }

 private:
  fs::path m_top;
};

// Reads the request as the service's transport does, then what the service's
// visits take from it.
void readRequest(Ipc::CmdLiteBase& cmd, json::Object const& body) {
  try {
    cmd.deserializeReq(body);
    if (auto* save = dynamic_cast<Ipc::SaveCfg*>(&cmd)) (void)save->pSetts();
    if (auto* test = dynamic_cast<Ipc::TestCfg*>(&cmd)) (void)test->pSetts();
    if (auto* call = dynamic_cast<Ipc::ServerRequest*>(&cmd)) {
      (void)call->callName();
      (void)call->jParams();
      (void)call->pInetCfg();
    }
  } catch (json::Exc const&) {
  }
  (void)cmd.serializeResp();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 2) return 0;
  Ipc::CmdI::TypeCode const type = kTypes[data[0] % (sizeof kTypes / sizeof kTypes[0])];
  bool const asRequest = (data[1] & 1) == 0;
  json::Object body;
  try {
    body = json::strToObject(reinterpret_cast<char const*>(data + 2), size - 2);
  } catch (json::Exc const&) {
    return 0;
  }

  Sandbox box;
  std::shared_ptr<Ipc::CmdLiteBase> cmd = Ipc::createLiteCmd(type, nullptr, box.spool());
  if (!cmd) std::abort();
  if (asRequest) {
    readRequest(*cmd, body);
  } else {
    cmd->deserializeResp(body);
    (void)cmd->serializeReq();
  }
  cmd.reset();
  if (box.escaped()) std::abort();
  return 0;
}
