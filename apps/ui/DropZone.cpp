#include "apps/ui/DropZone.h"

#include "apps/SizeText.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QHBoxLayout>
#include <QProgressBar>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

#include <algorithm>

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
    : QFrame(parent), m_hint(new QLabel(this)), m_outcome(new QLabel(this)), m_progress(new QProgressBar(this)),
      m_progressText(new QLabel(this)), m_cancel(new QPushButton(tr("C&ancel drop"), this)) {
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
  m_progress->setObjectName(QStringLiteral("dropProgress"));
  m_progress->setAccessibleName(tr("Progress of the drop"));
  m_progress->setRange(0, 1000);
  m_progressText->setObjectName(QStringLiteral("dropProgressText"));
  m_progressText->setTextFormat(Qt::PlainText);
  m_progressText->setAccessibleName(tr("Sent, rate and time left"));
  m_cancel->setObjectName(QStringLiteral("cancelDrop"));
  m_cancel->setAccessibleName(tr("Cancel the drop on its way"));
  connect(m_cancel, &QPushButton::clicked, this, &DropZone::cancelRequested);
  hideProgress();
  auto* progressRow = new QHBoxLayout;
  progressRow->addWidget(m_progress, 1);
  progressRow->addWidget(m_cancel);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(m_hint);
  layout->addLayout(progressRow);
  layout->addWidget(m_progressText);
  layout->addWidget(m_outcome);
}

void DropZone::showOutcome(QStringList const& lines, bool ok) {
  m_outcome->setText(lines.join(QLatin1Char('\n')));
  m_outcome->setStyleSheet(ok ? QString() : QStringLiteral("color: #b00020;"));
}

QString DropZone::outcomeText() const { return m_outcome->text(); }

QString DropZone::progressText() const { return m_progressText->text(); }

void DropZone::showProgress(qint64 sent, qint64 total, double rate) {
  sent = std::min(sent, total);
  m_progress->setValue(total > 0 ? static_cast<int>(sent * 1000 / total) : 1000);
  auto size = [](double bytes) { return QString::fromStdString(qxapp::sizeText(bytes)); };
  QString text = tr("%1 of %2").arg(size(static_cast<double>(sent)), size(static_cast<double>(total)));
  if (rate > 0) {
    qint64 const left = static_cast<qint64>(static_cast<double>(total - sent) / rate);
    text += tr(", %1/s, %2:%3 left")
                .arg(size(rate))
                .arg(left / 60)
                .arg(left % 60, 2, 10, QLatin1Char('0'));
  }
  m_progressText->setText(text);
  m_progress->show();
  m_progressText->show();
  m_cancel->show();
}

void DropZone::hideProgress() {
  m_progress->hide();
  m_progressText->hide();
  m_cancel->hide();
  m_progressText->clear();
}

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
