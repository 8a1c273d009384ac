#include "apps/svc/SpoolDrop.h"

#include "ipc/MsgsUItoSvc.h"
#include "shared/Log.h"

#include <boost/filesystem/operations.hpp>

namespace qxsvc {

namespace fs = boost::filesystem;

SpoolDrop::SpoolDrop(std::shared_ptr<Ipc::CmdProcessorI> processor, fs::path const& incomingFolder)
    : FileDrop(std::move(processor), incomingFolder), m_incomingFolder(incomingFolder) {}

void SpoolDrop::deserializeReq(json::Object const& obj) {
  FileDrop::deserializeReq(obj);
  // One file lands in a temporary file of its own; more in a temporary
  // folder, which then is the drop's path.
  if (path != m_incomingFolder) {
    m_temporary = path;
  } else if (!files.empty()) {
    m_temporary = files.front().path;
  }
}

void SpoolDrop::onTransferError(std::string why) {
  FileDrop::onTransferError(std::move(why));
  // ok: the item has its final name, and may be a job already.
  if (ok || m_temporary.empty()) return;
  boost::system::error_code ec;
  fs::remove_all(m_temporary, ec);
  if (ec) {
    Log::inst().writeLine("WARNING:", "qxlite-svc cannot remove the partial drop \"" + m_temporary.string() +
                                          "\": " + ec.message());
  } else {
    Log::inst().writeLine("INFO:", "qxlite-svc removed the partial drop \"" + m_temporary.string() + "\"");
  }
  m_temporary.clear();
}

std::shared_ptr<Ipc::CmdI> makeServiceCmd(Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& processor,
                                          fs::path const& incomingFolder) {
  if (type == Ipc::FILE_DROP_TYPE) return std::make_shared<SpoolDrop>(processor, incomingFolder);
  return Ipc::createLiteCmd(type, processor, incomingFolder);
}

}  // namespace qxsvc
