#include "ipc/MsgsUItoSvc.h"

namespace Ipc {

std::string const TST_LINE_START_ERR = "- ";
std::string const TST_LINE_START_WARN = "* ";
std::string const TST_LINE_START_PASS = "+ ";
std::string const TST_LINE_START_DESCR = "    -> ";

}  // namespace Ipc
