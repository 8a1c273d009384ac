/// \file
/// Messages of the service to the user interface: the prefixes of the result
/// lines of a configuration test.
///
/// Every result line begins with one of them. The empty line is reserved: it
/// ends the stream of lines and is never a result. The constants are set when
/// the library is loaded, after the configuration unit's own constants.
#ifndef QX_IPC_MSGSUITOSVC_H
#define QX_IPC_MSGSUITOSVC_H

#include "json/Export.h"

#include <string>

namespace Ipc {

extern QX_LITE_API std::string const TST_LINE_START_ERR;    ///< "- ": an error
extern QX_LITE_API std::string const TST_LINE_START_WARN;   ///< "* ": a warning
extern QX_LITE_API std::string const TST_LINE_START_PASS;   ///< "+ ": a check that passed
extern QX_LITE_API std::string const TST_LINE_START_DESCR;  ///< "    -> ": describes the line before

}  // namespace Ipc

#endif  // QX_IPC_MSGSUITOSVC_H
