// qxui::MainWindow: wires the session to what a person sees. The banner
// (paused, held), the pause and resume buttons, the drop zone with its file
// dialogs, the uploads table with cancel and retry of the selected job
// (buttons, context menu, Delete and Ctrl+R), and the connection state in
// the status bar. Notices (a job rejected, the queue held) go to the tray
// icon where the desktop has a tray, else to the status bar.
// The session is the window's: the destructor stops its transport before
// any widget goes. UI thread only.
#ifndef QX_APPS_UI_MAINWINDOW_H
#define QX_APPS_UI_MAINWINDOW_H

#include "apps/ui/UiSession.h"
#include "apps/ui/UploadsEvents.h"

#include <QElapsedTimer>
#include <QMainWindow>
#include <QStringList>

#include <optional>

class QAction;
class QLabel;
class QPushButton;
class QSystemTrayIcon;
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

 signals:
  // A notice was told (by the tray or the status bar).
  void noticeShown(QString const& title, QString const& text);

 private:
  void onStateChanged(UiSession::State state, QString const& text);
  void onUploads(UploadsSnapshot const& snapshot);
  void pauseDiscarding();
  void addFiles();
  void addFolder();
  void updateButtons();
  // The job of the selected row; empty id when none, or a waiting item.
  UploadRow selectedJob() const;
  void cancelSelected();
  void retrySelected();
  void makeTrayIcon();
  void tell(UploadsNotice const& notice);
  void onJobAnswered(qxapp::JobAction action, QString const& jobId, bool ok, QString const& refusal);
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
  QPushButton* m_cancelJob;
  QPushButton* m_retryJob;
  QAction* m_cancelAction;
  QAction* m_retryAction;
  QString m_selectedId;  // kept across snapshots that change the rows
  QLabel* m_connection;
  QLabel* m_answer;
  QLabel* m_notice;
  QSystemTrayIcon* m_tray = nullptr;  // only where the desktop has a tray
  std::optional<UploadsSnapshot> m_lastSnapshot;  // what the notices compare with
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
