#include "apps/ui/UploadsEvents.h"

#include <QCoreApplication>
#include <QHash>

namespace qxui {

namespace {

QString const kRejected = QStringLiteral("rejected");

}  // namespace

std::vector<UploadsNotice> noticesBetween(UploadsSnapshot const* before, UploadsSnapshot const& after) {
  std::vector<UploadsNotice> notices;
  // Without a snapshot before, the rejected jobs were there before the
  // window: no news.
  if (before) {
    QHash<QString, QString> stateBefore;  // by job id
    for (UploadRow const& r : before->rows) {
      if (!r.id.isEmpty()) stateBefore.insert(r.id, r.state);
    }
    for (UploadRow const& r : after.rows) {
      if (r.id.isEmpty() || r.state != kRejected || stateBefore.value(r.id) == kRejected) continue;
      QString const text = r.lastError.isEmpty()
                               ? r.title
                               : QCoreApplication::translate("qxui::UploadsEvents", "%1: %2").arg(r.title, r.lastError);
      notices.push_back(UploadsNotice{UploadsNotice::Kind::JobRejected,
                                      QCoreApplication::translate("qxui::UploadsEvents", "Upload rejected"), text});
    }
  }
  QString const heldBefore = before ? before->held : QString();
  if (!after.held.isEmpty() && after.held != heldBefore) {
    notices.push_back(UploadsNotice{UploadsNotice::Kind::QueueHeld,
                                    QCoreApplication::translate("qxui::UploadsEvents", "Uploads held"), after.held});
  }
  return notices;
}

}  // namespace qxui
