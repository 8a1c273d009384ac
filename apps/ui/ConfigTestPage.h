// qxui::ConfigTestPage: runs the service's test of the configuration in
// force and shows its result lines as they arrive, each kind (error,
// warning, passed check, description) with its own icon and colour, then
// the count of errors. UI thread only.
#ifndef QX_APPS_UI_CONFIGTESTPAGE_H
#define QX_APPS_UI_CONFIGTESTPAGE_H

#include <QWidget>

class QLabel;
class QListWidget;
class QPushButton;

namespace qxui {

class UiSession;

class ConfigTestPage : public QWidget {
  Q_OBJECT

 public:
  explicit ConfigTestPage(UiSession& session, QWidget* parent = nullptr);

  void run();

 private:
  void addLine(QString const& line);
  void finish(int errors, QString const& failure);

  UiSession& m_session;
  QPushButton* m_run;
  QListWidget* m_lines;
  QLabel* m_summary;
};

}  // namespace qxui

#endif  // QX_APPS_UI_CONFIGTESTPAGE_H
