// qxsvc::SpoolDrop: the service's side of a file drop. It receives as the
// library's FileDrop does, and when the transfer breaks off (the client let
// the connection go or cancelled, a stall, a write that failed, the service
// stopping) it removes the temporary item it made in the incoming folder:
// a drop that will never complete leaves nothing behind. An item that
// already has its final name is never touched. A service killed mid-drop
// runs no code; what it leaves keeps its reserved extension, which the
// scanner ignores.
//
// Threads: the transport's; one exchange at a time, as any command.
#ifndef QX_APPS_SVC_SPOOLDROP_H
#define QX_APPS_SVC_SPOOLDROP_H

#include "ipc/IpcCmdsLite.h"

#include <boost/filesystem/path.hpp>

#include <memory>
#include <string>

namespace qxsvc {

class SpoolDrop : public Ipc::FileDrop {
 public:
  SpoolDrop(std::shared_ptr<Ipc::CmdProcessorI> processor, boost::filesystem::path const& incomingFolder);

  void deserializeReq(json::Object const& obj) override;
  void onTransferError(std::string why) override;

 private:
  boost::filesystem::path const m_incomingFolder;
  boost::filesystem::path m_temporary;  // the file or folder this drop made; empty before
};

// The command a type code names, as the library makes it, but a drop is a
// SpoolDrop into incomingFolder; null for a code the service does not know.
std::shared_ptr<Ipc::CmdI> makeServiceCmd(Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& processor,
                                          boost::filesystem::path const& incomingFolder);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_SPOOLDROP_H
