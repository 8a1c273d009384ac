#include "apps/ui/DropZone.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QUrl>
#include <QVBoxLayout>

namespace qxui {

namespace {

// The local files of a drag; empty when it carries anything else.
QStringList localPaths(QMimeData const* mime) {
  QStringList paths;
  if (!mime || !mime->hasUrls()) return paths;
  for (QUrl const& url : mime->urls()) {
    if (!url.isLocalFile()) return QStringList();
    paths << url.toLocalFile();
  }
  return paths;
}

}  // namespace

DropZone::DropZone(QWidget* parent)
    : QFrame(parent), m_hint(new QLabel(this)), m_outcome(new QLabel(this)) {
  setObjectName(QStringLiteral("dropZone"));
  setAccessibleName(tr("Drop zone"));
  setAccessibleDescription(tr("Drop files or folders here to hand them to the service"));
  setAcceptDrops(true);
  setFrameStyle(QFrame::StyledPanel | QFrame::Sunken);
  setMinimumHeight(90);
  m_hint->setText(tr("Drop files or folders here"));
  m_hint->setAlignment(Qt::AlignCenter);
  m_outcome->setObjectName(QStringLiteral("dropOutcome"));
  m_outcome->setAccessibleName(tr("Outcome of the last drop"));
  m_outcome->setWordWrap(true);
  m_outcome->setTextFormat(Qt::PlainText);
  m_outcome->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(m_hint);
  layout->addWidget(m_outcome);
}

void DropZone::showOutcome(QStringList const& lines, bool ok) {
  m_outcome->setText(lines.join(QLatin1Char('\n')));
  m_outcome->setStyleSheet(ok ? QString() : QStringLiteral("color: #b00020;"));
}

QString DropZone::outcomeText() const { return m_outcome->text(); }

void DropZone::dragEnterEvent(QDragEnterEvent* event) {
  if (!localPaths(event->mimeData()).isEmpty()) event->acceptProposedAction();
}

void DropZone::dropEvent(QDropEvent* event) {
  QStringList const paths = localPaths(event->mimeData());
  if (paths.isEmpty()) return;
  event->acceptProposedAction();
  emit pathsDropped(paths);
}

}  // namespace qxui
