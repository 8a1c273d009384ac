// The names that uploads get on the server, and their encoding in URLs.
//
// Layout of an object key (segments joined by "/"):
//   AccountId/SpoolerId/YYYY-MM-DD/job-id/name
// where AccountId is "-" when it is empty, the date is the job's creation
// day in UTC, and name is the item's path inside its job (a dropped folder
// keeps its sub-folder names). The target's prefix goes in front (Target.h).
// A "/" in the account or job id becomes "_", and a segment that is empty,
// "." or ".." becomes "_", "_." or "_..", so that no key climbs out of its
// job's folder on a server that reads the path.
// Keys are raw UTF-8 text; only URLs encode them.
#ifndef QX_APPS_SVC_UPLOAD_OBJECTKEY_H
#define QX_APPS_SVC_UPLOAD_OBJECTKEY_H

#include <cstdint>
#include <ctime>
#include <string>

namespace qxsvc {

std::string objectKey(std::string const& accountId, long long spoolerId, std::time_t created,
                      std::string const& jobId, std::string const& name);

// Percent-encodes every byte of text but the unreserved ones (A-Z a-z 0-9
// "-" "." "_" "~"); with keepSlash, "/" stays as it is. This is the encoding
// that S3 signatures expect of paths and query values, and that WebDAV
// servers decode.
std::string percentEncode(std::string const& text, bool keepSlash);

// The key that takes the place of key when the server holds other bytes
// under it: "name_2.ext", "name_3.ext" ... for n = 2, 3 ... (the last
// segment changes; the extension stays).
std::string alternativeKey(std::string const& key, unsigned n);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_OBJECTKEY_H
