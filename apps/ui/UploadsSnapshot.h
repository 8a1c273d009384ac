// One answer of GetUploads, in the UI's own types: what the uploads table
// and the banner show. Built on the UI thread from the service's list, so
// that no JSON document outlives the command it came with.
#ifndef QX_APPS_UI_UPLOADSSNAPSHOT_H
#define QX_APPS_UI_UPLOADSSNAPSHOT_H

#include "json/Json.h"

#include <QString>

#include <vector>

namespace qxui {

struct UploadRow {
  QString id;     // empty for an item the paused service has not taken in
  QString title;
  QString state;  // "queued", "uploading", "done", ..., or "waiting"
  qint64 size = 0;
  qint64 sent = 0;
  qint64 attempts = 0;
  qint64 nextTry = 0;  // unix seconds; 0: none
  QString lastError;
};

struct UploadsSnapshot {
  std::vector<UploadRow> rows;  // the jobs, then the waiting items
  bool paused = false;
  QString held;  // why nothing leaves; empty when uploads may leave
  qint64 throughput = 0;  // bytes a second, all jobs
};

UploadsSnapshot snapshotOf(json::Object const& list);

}  // namespace qxui

#endif  // QX_APPS_UI_UPLOADSSNAPSHOT_H
