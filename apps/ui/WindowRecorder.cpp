#include "apps/ui/WindowRecorder.h"

#include <QAbstractItemModel>
#include <QFrame>
#include <QLabel>
#include <QSaveFile>
#include <QTableView>
#include <QTimer>
#include <QWidget>

#include <cstdio>

namespace qxui {

void WindowRecorder::startIfAsked(QWidget& window) {
  QString const folder = qEnvironmentVariable("QXLITE_UI_RECORD_DIR");
  if (folder.isEmpty()) return;
  QDir dir(folder);
  if (!dir.mkpath(QStringLiteral("."))) {
    std::fprintf(stderr, "qxlite-ui: QXLITE_UI_RECORD_DIR: cannot make the folder \"%s\"\n", qPrintable(folder));
    return;
  }
  new WindowRecorder(window, dir);
}

WindowRecorder::WindowRecorder(QWidget& window, QDir const& folder)
    : QObject(&window), m_window(window), m_folder(folder), m_ticker(new QTimer(this)) {
  m_ticker->setInterval(200);
  connect(m_ticker, &QTimer::timeout, this, &WindowRecorder::record);
  m_ticker->start();
}

void WindowRecorder::record() {
  if (!m_window.isVisible()) return;
  QImage const picture = m_window.grab().toImage();
  if (picture == m_last) return;
  QString const name = QStringLiteral("window-%1.png").arg(++m_saved, 3, 10, QLatin1Char('0'));
  if (!picture.save(m_folder.filePath(name))) {
    std::fprintf(stderr, "qxlite-ui: cannot save \"%s\"\n", qPrintable(m_folder.filePath(name)));
    m_ticker->stop();
    return;
  }
  m_last = picture;
  QSaveFile text(m_folder.filePath(QStringLiteral("window.txt")));
  if (!text.open(QIODevice::WriteOnly) || text.write(describe(name).toUtf8()) < 0 || !text.commit()) {
    std::fprintf(stderr, "qxlite-ui: cannot write \"%s\"\n", qPrintable(text.fileName()));
    m_ticker->stop();
  }
}

QString WindowRecorder::describe(QString const& picture) const {
  QString lines;
  auto const line = [&lines](QString const& name, QString const& value) {
    lines += name + QStringLiteral(": ") + QString(value).replace(QLatin1Char('\n'), QStringLiteral(" / ")) +
             QLatin1Char('\n');
  };
  line(QStringLiteral("title"), m_window.windowTitle());
  for (QLabel const* label : m_window.findChildren<QLabel*>()) {
    if (!label->objectName().isEmpty() && label->isVisible()) line(label->objectName(), label->text());
  }
  for (QTableView const* table : m_window.findChildren<QTableView*>()) {
    QAbstractItemModel const* model = table->model();
    if (table->objectName().isEmpty() || !model) continue;
    for (int row = 0; row < model->rowCount(); ++row) {
      QStringList cells;
      for (int column = 0; column < model->columnCount(); ++column) {
        cells << model->index(row, column).data().toString();
      }
      line(table->objectName() + QLatin1Char('.') + QString::number(row + 1), cells.join(QStringLiteral(" | ")));
    }
  }
  if (auto const* zone = m_window.findChild<QFrame*>(QStringLiteral("dropZone"))) {
    QPoint const at = zone->mapToGlobal(QPoint(0, 0));
    line(QStringLiteral("dropZone.screen"), QStringLiteral("%1 %2 %3 %4").arg(at.x()).arg(at.y()).arg(zone->width()).arg(zone->height()));
  }
  line(QStringLiteral("picture"), picture);
  return lines;
}

}  // namespace qxui
