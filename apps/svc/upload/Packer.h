// Packs the files of one drop into a zip archive (libzip) when the drop has
// MinFilesToZip files or more.
//
// The archive holds the files that Settings::canZip allows, under their
// paths inside the drop; types that are compressed already (zip, jpg, png,
// gz, ...) are stored, others deflated. Files canZip refuses stay beside it
// and are uploaded on their own. The archive is written as "<name>.noqx",
// fsync'd, then renamed to its name, so a crash leaves either no archive or
// a whole one (a leftover ".noqx" is removed and packing starts again).
#ifndef QX_APPS_SVC_UPLOAD_PACKER_H
#define QX_APPS_SVC_UPLOAD_PACKER_H

#include "settings/Settings.h"

#include <functional>
#include <string>
#include <vector>

namespace qxsvc {

// The archive's name: the dropped folder's name + ".zip" when UseDirName is
// set and the drop was a folder, else jobId + ".zip".
std::string archiveName(Settings const& settings, std::string const& jobId, std::string const& droppedName,
                        bool droppedFolder);

struct Packed {
  std::string archive;              // its name in the job folder, empty when nothing was packed
  std::vector<std::string> packed;  // the files inside it
  std::vector<std::string> apart;   // the files canZip refused
};

// Packs files (paths inside the job folder jobDir, also the entries' names
// in the archive) into archive, a name in jobDir. Each file is opened below
// jobDir without following links, only while it is read. An archive of that
// name that exists already is never replaced (the pack throws). Throws
// std::runtime_error naming the file and libzip's message; no archive and
// no partial one is left then.
// progress, when given, is called now and then while the archive is
// written: a long pack still shows that its thread is alive.
Packed pack(Settings const& settings, int jobDir, std::vector<std::string> const& files,
            std::string const& archive, std::function<void()> const& progress = nullptr);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_PACKER_H
