// qxui::DropZone: the area that takes files and folders dragged from a file
// manager (text/uri-list of local files) and says what became of the last
// drop. It only collects paths: pathsDropped goes to whoever hands them to
// the service, and showOutcome shows the answer. While a drop is on its way
// its progress shows with a cancel button (cancelRequested). UI thread only.
#ifndef QX_APPS_UI_DROPZONE_H
#define QX_APPS_UI_DROPZONE_H

#include <QFrame>
#include <QStringList>

class QLabel;
class QProgressBar;
class QPushButton;

namespace qxui {

class DropZone : public QFrame {
  Q_OBJECT

 public:
  explicit DropZone(QWidget* parent = nullptr);

  // The answer to the last drop: one line a path, or the problems.
  void showOutcome(QStringList const& lines, bool ok);
  QString outcomeText() const;
  // A drop on its way: sent of total bytes at rate bytes a second.
  void showProgress(qint64 sent, qint64 total, double rate);
  void hideProgress();
  QString progressText() const;

 signals:
  void pathsDropped(QStringList const& paths);
  void cancelRequested();

 protected:
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  QLabel* m_hint;
  QLabel* m_outcome;
  QProgressBar* m_progress;
  QLabel* m_progressText;
  QPushButton* m_cancel;
};

}  // namespace qxui

#endif  // QX_APPS_UI_DROPZONE_H
