// qxui::WindowRecorder: what the window shows, written to files for programs
// outside it (the tests under a real X server, and the README's pictures).
// Off unless the environment variable QXLITE_UI_RECORD_DIR names a folder;
// people never set it.
//
// Five times a second it grabs the window (QWidget::grab()). When the picture
// differs from the last one saved, it saves it as DIR/window-NNN.png
// (NNN counts from 001) and then replaces DIR/window.txt whole, so a reader
// never sees half a file. window.txt holds one line for each named label
// that is visible ("connectionState: Connected to the service"), one for
// each row of the uploads table ("uploads.1: title | state | ..."), where
// the drop zone lies on the screen ("dropZone.screen: x y width height", so a
// test can drag onto it) and the picture it belongs to ("picture: window-NNN.png").
//
// Owned by the window it records (its parent). UI thread only.
#ifndef QX_APPS_UI_WINDOWRECORDER_H
#define QX_APPS_UI_WINDOWRECORDER_H

#include <QDir>
#include <QImage>
#include <QObject>

class QTimer;
class QWidget;

namespace qxui {

class WindowRecorder : public QObject {
  Q_OBJECT

 public:
  // Starts a recorder of window when QXLITE_UI_RECORD_DIR is set; nothing otherwise.
  static void startIfAsked(QWidget& window);

  WindowRecorder(QWidget& window, QDir const& folder);
  WindowRecorder(WindowRecorder const&) = delete;
  WindowRecorder& operator=(WindowRecorder const&) = delete;

 private:
  void record();
  QString describe(QString const& picture) const;

  QWidget& m_window;
  QDir const m_folder;
  QTimer* m_ticker;
  QImage m_last;
  int m_saved = 0;
};

}  // namespace qxui

#endif  // QX_APPS_UI_WINDOWRECORDER_H
