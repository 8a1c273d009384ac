// qxui::MainWindow: wires the session to what a person sees. The banner
// (paused, held), the pause and resume buttons, the drop zone with its file
// dialogs, the uploads table and the connection state in the status bar.
// The session is the window's: the destructor stops its transport before
// any widget goes. UI thread only.
#ifndef QX_APPS_UI_MAINWINDOW_H
#define QX_APPS_UI_MAINWINDOW_H

#include "apps/ui/UiSession.h"

#include <QElapsedTimer>
#include <QMainWindow>
#include <QStringList>

class QLabel;
class QPushButton;
class QTableView;
class QTimer;

namespace qxui {

class DropZone;
class SettingsPage;
class UploadsModel;

class MainWindow : public QMainWindow {
  Q_OBJECT

 public:
  explicit MainWindow(UiSession::Where where, QWidget* parent = nullptr);
  ~MainWindow() override;
  MainWindow(MainWindow const&) = delete;
  MainWindow& operator=(MainWindow const&) = delete;

  UiSession& session() { return *m_session; }
  // Paths to hand to the service once it is first reached (the command line).
  void dropWhenConnected(QStringList const& paths);

 private:
  void onStateChanged(UiSession::State state, QString const& text);
  void onUploads(UploadsSnapshot const& snapshot);
  void pauseDiscarding();
  void addFiles();
  void addFolder();
  void updateButtons();
  void onDropStarted(qint64 totalBytes);
  void showDropProgress();

  UiSession* m_session;
  UploadsModel* m_model;
  QLabel* m_banner;
  QPushButton* m_pause;
  QPushButton* m_discard;
  QPushButton* m_resume;
  DropZone* m_dropZone;
  QTableView* m_table;
  QLabel* m_connection;
  QLabel* m_answer;
  SettingsPage* m_settings = nullptr;
  bool m_paused = false;
  bool m_everConnected = false;
  QStringList m_pendingDrop;
  // The drop on its way: its size, and where the connection's count of
  // bytes written stood when it started.
  QTimer* m_dropTicker;
  QElapsedTimer m_dropClock;
  qint64 m_dropTotal = 0;
  std::uint64_t m_dropBase = 0;
};

}  // namespace qxui

#endif  // QX_APPS_UI_MAINWINDOW_H
