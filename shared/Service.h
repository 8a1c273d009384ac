/// \file
/// Words by which messages name the background service.
#ifndef QX_SHARED_SERVICE_H
#define QX_SHARED_SERVICE_H

#include "json/Export.h"

#include <string>

/// The words that name the background service.
namespace Service {

/// "service": the noun that user-facing messages use for the background
/// process. Set when libQXShared is loaded, before any library that uses it.
extern QX_SHARED_API std::string const TERM4SVC;

}  // namespace Service

#endif  // QX_SHARED_SERVICE_H
