// qxui::noticesBetween: what a person is told between two snapshots of the
// uploads (GetUploads): a job that became rejected (its name and reason),
// and a queue that became held (the reason). Each event is told once: a job
// that stays rejected, or a queue held for the same reason, is not told
// again. Pure functions; the tray or the status bar shows what they give.
#ifndef QX_APPS_UI_UPLOADSEVENTS_H
#define QX_APPS_UI_UPLOADSEVENTS_H

#include "apps/ui/UploadsSnapshot.h"

#include <QString>

#include <vector>

namespace qxui {

struct UploadsNotice {
  enum class Kind { JobRejected, QueueHeld };
  Kind kind;
  QString title;
  QString text;

  bool operator==(UploadsNotice const& other) const {
    return kind == other.kind && title == other.title && text == other.text;
  }
};

// The notices of what changed from before to after; before null: after is
// the first snapshot, whose jobs are what was there already (not told) but
// whose held queue is told.
std::vector<UploadsNotice> noticesBetween(UploadsSnapshot const* before, UploadsSnapshot const& after);

}  // namespace qxui

#endif  // QX_APPS_UI_UPLOADSEVENTS_H
