#include "apps/ui/MainWindow.h"

#include "apps/ui/ConfigTestPage.h"
#include "apps/ui/DropZone.h"
#include "apps/ui/ProgressDelegate.h"
#include "apps/ui/SettingsPage.h"
#include "apps/ui/UploadsModel.h"

#include <QAction>
#include <QApplication>
#include <QFileDialog>
#include <QItemSelectionModel>
#include <QKeySequence>
#include <QMenu>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QIcon>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QStatusBar>
#include <QSystemTrayIcon>
#include <QTabWidget>
#include <QTableView>
#include <QTimer>
#include <QVBoxLayout>

namespace qxui {

MainWindow::MainWindow(UiSession::Where where, QWidget* parent)
    : QMainWindow(parent),
      m_session(new UiSession(std::move(where), this)),
      m_model(new UploadsModel(this)),
      m_banner(new QLabel),
      m_pause(new QPushButton(tr("&Pause"))),
      m_discard(new QPushButton(tr("Pause and &discard waiting…"))),
      m_resume(new QPushButton(tr("&Resume"))),
      m_dropZone(new DropZone),
      m_table(new QTableView),
      m_cancelJob(new QPushButton(tr("Ca&ncel job…"))),
      m_retryJob(new QPushButton(tr("Retr&y job"))),
      m_cancelAction(new QAction(tr("Cancel job…"), this)),
      m_retryAction(new QAction(tr("Retry job now"), this)),
      m_connection(new QLabel),
      m_answer(new QLabel),
      m_notice(new QLabel),
      m_dropTicker(new QTimer(this)) {
  setWindowTitle(tr("QXLite uploads"));
  setWindowIcon(QIcon::fromTheme(QStringLiteral("qxlite-ui"), QIcon(QStringLiteral(":/qxlite-ui.svg"))));

  m_banner->setObjectName(QStringLiteral("banner"));
  m_banner->setAccessibleName(tr("Service state"));
  m_banner->setTextFormat(Qt::PlainText);
  m_banner->setWordWrap(true);
  m_banner->setStyleSheet(QStringLiteral("background: #fff4ce; color: #3b2e00; padding: 6px;"));
  m_banner->hide();

  m_pause->setObjectName(QStringLiteral("pause"));
  m_pause->setAccessibleName(tr("Pause the service"));
  m_discard->setObjectName(QStringLiteral("pauseDiscard"));
  m_discard->setAccessibleName(tr("Pause the service and discard the waiting items"));
  m_resume->setObjectName(QStringLiteral("resume"));
  m_resume->setAccessibleName(tr("Resume the service"));
  auto* addFiles = new QPushButton(tr("Add &files…"));
  addFiles->setObjectName(QStringLiteral("addFiles"));
  addFiles->setAccessibleName(tr("Choose files to hand to the service"));
  auto* addFolder = new QPushButton(tr("Add f&older…"));
  addFolder->setObjectName(QStringLiteral("addFolder"));
  addFolder->setAccessibleName(tr("Choose a folder to hand to the service"));
  m_answer->setObjectName(QStringLiteral("commandAnswer"));
  m_answer->setAccessibleName(tr("The service's answer"));
  m_answer->setTextFormat(Qt::PlainText);

  auto* buttons = new QHBoxLayout;
  buttons->addWidget(m_pause);
  buttons->addWidget(m_discard);
  buttons->addWidget(m_resume);
  buttons->addWidget(m_answer, 1);
  buttons->addWidget(addFiles);
  buttons->addWidget(addFolder);

  m_table->setObjectName(QStringLiteral("uploads"));
  m_table->setAccessibleName(tr("Uploads"));
  m_table->setModel(m_model);
  m_table->setItemDelegate(new ProgressDelegate(m_table));
  m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
  m_table->setTabKeyNavigation(false);
  m_table->verticalHeader()->hide();
  m_table->horizontalHeader()->setStretchLastSection(true);

  // Cancel and retry act on the selected job: by button, by the table's
  // context menu, and by key while the table has the focus.
  m_cancelJob->setObjectName(QStringLiteral("cancelJob"));
  m_cancelJob->setAccessibleName(tr("Cancel the selected job"));
  m_retryJob->setObjectName(QStringLiteral("retryJob"));
  m_retryJob->setAccessibleName(tr("Retry the selected job now"));
  m_cancelAction->setObjectName(QStringLiteral("cancelJobAction"));
  m_cancelAction->setShortcut(QKeySequence::Delete);
  m_cancelAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  m_retryAction->setObjectName(QStringLiteral("retryJobAction"));
  m_retryAction->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_R));
  m_retryAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  m_table->addAction(m_cancelAction);
  m_table->addAction(m_retryAction);
  m_table->setContextMenuPolicy(Qt::CustomContextMenu);
  connect(m_table, &QWidget::customContextMenuRequested, this, [this](QPoint const& at) {
    QMenu menu(this);
    menu.addAction(m_cancelAction);
    menu.addAction(m_retryAction);
    menu.exec(m_table->viewport()->mapToGlobal(at));
  });
  auto* jobButtons = new QHBoxLayout;
  jobButtons->addWidget(m_cancelJob);
  jobButtons->addWidget(m_retryJob);
  jobButtons->addStretch(1);

  auto* uploadsPage = new QWidget;
  auto* layout = new QVBoxLayout(uploadsPage);
  layout->addLayout(buttons);
  layout->addWidget(m_dropZone);
  layout->addWidget(m_table, 1);
  layout->addLayout(jobButtons);
  m_settings = new SettingsPage(*m_session);
  auto* tabs = new QTabWidget;
  tabs->setObjectName(QStringLiteral("pages"));
  tabs->setAccessibleName(tr("Pages"));
  tabs->addTab(uploadsPage, tr("&Uploads"));
  tabs->addTab(m_settings, tr("S&ettings"));
  tabs->addTab(new ConfigTestPage(*m_session), tr("Configuration &check"));
  auto* central = new QWidget;
  auto* outer = new QVBoxLayout(central);
  outer->addWidget(m_banner);
  outer->addWidget(tabs, 1);
  setCentralWidget(central);
  setTabOrder(m_pause, m_discard);
  setTabOrder(m_discard, m_resume);
  setTabOrder(m_resume, addFiles);
  setTabOrder(addFiles, addFolder);
  setTabOrder(addFolder, m_table);
  setTabOrder(m_table, m_cancelJob);
  setTabOrder(m_cancelJob, m_retryJob);

  m_connection->setObjectName(QStringLiteral("connectionState"));
  m_connection->setAccessibleName(tr("Connection to the service"));
  m_connection->setTextFormat(Qt::PlainText);
  m_connection->setText(m_session->stateText());
  statusBar()->addWidget(m_connection, 1);
  m_notice->setObjectName(QStringLiteral("notice"));
  m_notice->setAccessibleName(tr("Last notice"));
  m_notice->setTextFormat(Qt::PlainText);
  statusBar()->addPermanentWidget(m_notice);
  if (QSystemTrayIcon::isSystemTrayAvailable()) makeTrayIcon();

  connect(m_session, &UiSession::stateChanged, this, &MainWindow::onStateChanged);
  connect(m_session, &UiSession::uploadsChanged, this, &MainWindow::onUploads);
  connect(m_session, &UiSession::commandAnswered, m_answer, &QLabel::setText);
  connect(m_session, &UiSession::dropAnswered, m_dropZone, &DropZone::showOutcome);
  connect(m_session, &UiSession::dropStarted, this, &MainWindow::onDropStarted);
  connect(m_session, &UiSession::dropAnswered, this, [this] {
    m_dropTicker->stop();
    m_dropZone->hideProgress();
  });
  m_dropTicker->setInterval(200);
  connect(m_dropTicker, &QTimer::timeout, this, &MainWindow::showDropProgress);
  connect(m_dropZone, &DropZone::pathsDropped, m_session, &UiSession::drop);
  connect(m_dropZone, &DropZone::cancelRequested, m_session, &UiSession::cancelDrop);
  connect(m_pause, &QPushButton::clicked, this, [this] { m_session->pause(false); });
  connect(m_discard, &QPushButton::clicked, this, &MainWindow::pauseDiscarding);
  connect(m_resume, &QPushButton::clicked, this, [this] { m_session->resume(); });
  connect(m_cancelJob, &QPushButton::clicked, this, &MainWindow::cancelSelected);
  connect(m_retryJob, &QPushButton::clicked, this, &MainWindow::retrySelected);
  connect(m_cancelAction, &QAction::triggered, this, &MainWindow::cancelSelected);
  connect(m_retryAction, &QAction::triggered, this, &MainWindow::retrySelected);
  connect(m_session, &UiSession::jobAnswered, this, &MainWindow::onJobAnswered);
  connect(m_table->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] {
    m_selectedId = selectedJob().id;
    updateButtons();
  });
  connect(addFiles, &QPushButton::clicked, this, &MainWindow::addFiles);
  connect(addFolder, &QPushButton::clicked, this, &MainWindow::addFolder);
  updateButtons();
  m_session->start();
}

MainWindow::~MainWindow() {
  // No completion may come once the widgets start to go.
  m_session->stop();
}

void MainWindow::dropWhenConnected(QStringList const& paths) {
  if (m_session->state() == UiSession::State::Connected) {
    m_session->drop(paths);
  } else {
    m_pendingDrop += paths;
  }
}

void MainWindow::onStateChanged(UiSession::State state, QString const& text) {
  m_connection->setText(text);
  if (state != UiSession::State::Connected) {
    m_banner->hide();
  } else if (!m_everConnected) {
    // The form shows the configuration in force as soon as there is one.
    m_everConnected = true;
    m_settings->reload();
  }
  if (state == UiSession::State::Connected && !m_pendingDrop.isEmpty()) {
    QStringList const paths = m_pendingDrop;
    m_pendingDrop.clear();
    m_session->drop(paths);
  }
  updateButtons();
}

void MainWindow::makeTrayIcon() {
  m_tray = new QSystemTrayIcon(windowIcon(), this);
  m_tray->setToolTip(windowTitle());
  auto* menu = new QMenu(this);
  QAction* const showHide = menu->addAction(tr("Show or hide the window"));
  connect(showHide, &QAction::triggered, this, [this] { setVisible(!isVisible()); });
  menu->addSeparator();
  connect(menu->addAction(tr("Pause")), &QAction::triggered, this, [this] { m_session->pause(false); });
  connect(menu->addAction(tr("Resume")), &QAction::triggered, this, [this] { m_session->resume(); });
  menu->addSeparator();
  connect(menu->addAction(tr("Quit")), &QAction::triggered, qApp, &QApplication::quit);
  m_tray->setContextMenu(menu);
  connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::Trigger) setVisible(!isVisible());
  });
  m_tray->show();
}

void MainWindow::tell(UploadsNotice const& notice) {
  if (m_tray) {
    m_tray->showMessage(notice.title, notice.text,
                        notice.kind == UploadsNotice::Kind::JobRejected ? QSystemTrayIcon::Warning
                                                                        : QSystemTrayIcon::Information);
  } else {
    m_notice->setText(tr("%1: %2").arg(notice.title, notice.text));
  }
  emit noticeShown(notice.title, notice.text);
}

void MainWindow::onUploads(UploadsSnapshot const& snapshot) {
  for (UploadsNotice const& notice : noticesBetween(m_lastSnapshot ? &*m_lastSnapshot : nullptr, snapshot)) {
    tell(notice);
  }
  m_lastSnapshot = snapshot;
  QString const selected = m_selectedId;
  m_model->setSnapshot(snapshot);
  // A snapshot with other rows resets the model: the job stays selected.
  if (!selected.isEmpty() && selectedJob().id != selected) {
    for (int r = 0; r < m_model->rowCount(); ++r) {
      if (m_model->row(r).id != selected) continue;
      m_table->selectRow(r);
      break;
    }
  }
  m_paused = snapshot.paused;
  QStringList lines;
  if (snapshot.paused) lines << tr("Paused: nothing new starts until you resume.");
  if (!snapshot.held.isEmpty()) lines << tr("Uploads held: %1").arg(snapshot.held);
  m_banner->setText(lines.join(QLatin1Char('\n')));
  m_banner->setVisible(!lines.isEmpty());
  updateButtons();
}

void MainWindow::onDropStarted(qint64 totalBytes) {
  m_dropTotal = totalBytes;
  m_dropBase = m_session->bytesSent();
  m_dropClock.start();
  m_dropZone->showProgress(0, m_dropTotal, 0);
  m_dropTicker->start();
}

void MainWindow::showDropProgress() {
  // A connection made again during the drop counts from zero.
  std::uint64_t const now = m_session->bytesSent();
  qint64 const sent = now >= m_dropBase ? static_cast<qint64>(now - m_dropBase) : 0;
  double const secs = static_cast<double>(m_dropClock.elapsed()) / 1000.0;
  m_dropZone->showProgress(sent, m_dropTotal, secs > 0 ? static_cast<double>(sent) / secs : 0);
}

void MainWindow::updateButtons() {
  bool const connected = m_session->state() == UiSession::State::Connected;
  m_pause->setEnabled(connected && !m_paused);
  m_discard->setEnabled(connected);
  m_resume->setEnabled(connected && m_paused);
  std::string const state = selectedJob().state.toStdString();
  bool const job = connected && !selectedJob().id.isEmpty();
  bool const cancel = job && qxapp::jobActionAllowed(qxapp::JobAction::Cancel, state);
  bool const retry = job && qxapp::jobActionAllowed(qxapp::JobAction::Retry, state);
  m_cancelJob->setEnabled(cancel);
  m_cancelAction->setEnabled(cancel);
  m_retryJob->setEnabled(retry);
  m_retryAction->setEnabled(retry);
}

UploadRow MainWindow::selectedJob() const {
  QModelIndexList const rows = m_table->selectionModel()->selectedRows();
  if (rows.isEmpty()) return UploadRow();
  return m_model->row(rows.first().row());
}

void MainWindow::cancelSelected() {
  UploadRow const job = selectedJob();
  if (job.id.isEmpty() || !qxapp::jobActionAllowed(qxapp::JobAction::Cancel, job.state.toStdString())) return;
  QMessageBox::StandardButton const answer = QMessageBox::question(
      this, tr("Cancel the job?"),
      tr("The service stops \"%1\" and moves its files to the rejected folder. They are not uploaded.").arg(job.title),
      QMessageBox::Yes | QMessageBox::No, QMessageBox::No);
  if (answer == QMessageBox::Yes) m_session->jobCommand(qxapp::JobAction::Cancel, job.id);
}

void MainWindow::retrySelected() {
  UploadRow const job = selectedJob();
  if (job.id.isEmpty() || !qxapp::jobActionAllowed(qxapp::JobAction::Retry, job.state.toStdString())) return;
  m_session->jobCommand(qxapp::JobAction::Retry, job.id);
}

void MainWindow::onJobAnswered(qxapp::JobAction action, QString const& jobId, bool ok, QString const& refusal) {
  if (!ok) {
    m_answer->setText(refusal);
  } else {
    m_answer->setText(action == qxapp::JobAction::Cancel ? tr("cancelled job %1").arg(jobId)
                                                         : tr("retrying job %1").arg(jobId));
  }
}

void MainWindow::pauseDiscarding() {
  QMessageBox::StandardButton const answer = QMessageBox::question(
      this, tr("Discard the waiting items?"),
      tr("The service pauses, and the items waiting in its incoming folder move to the rejected folder. "
         "They are not uploaded."),
      QMessageBox::Discard | QMessageBox::Cancel, QMessageBox::Cancel);
  if (answer == QMessageBox::Discard) m_session->pause(true);
}

void MainWindow::addFiles() {
  QStringList const files = QFileDialog::getOpenFileNames(this, tr("Files to upload"));
  if (!files.isEmpty()) m_session->drop(files);
}

void MainWindow::addFolder() {
  QString const folder = QFileDialog::getExistingDirectory(this, tr("Folder to upload"));
  if (!folder.isEmpty()) m_session->drop({folder});
}

}  // namespace qxui
