// qxui::SettingsPage: a form for every configuration key, grouped (folders,
// server and proxy, uploads, backup, e-mail, advanced), filled from the
// configuration in force. Save checks the values with the service's own
// rules (qxapp::checkConfigValues) before anything is sent, and after the
// service saved them shows what changed. Passwords are masked. Only keys
// whose field was changed are written, so values left alone stay as the
// file has them. UI thread only.
#ifndef QX_APPS_UI_SETTINGSPAGE_H
#define QX_APPS_UI_SETTINGSPAGE_H

#include "json/Json.h"

#include <QString>
#include <QWidget>

#include <map>
#include <memory>
#include <string>

class QLabel;
class QPushButton;

namespace qxui {

class UiSession;

class SettingsPage : public QWidget {
  Q_OBJECT

 public:
  explicit SettingsPage(UiSession& session, QWidget* parent = nullptr);
  ~SettingsPage() override;

  // Asks the service for the configuration in force.
  void reload();
  QString outcomeText() const;

 private:
  struct Field;

  void fill(json::Object const& config);
  void save();
  void onSaved(bool ok, QString const& message, json::Object const& saved);
  void showOutcome(QString const& text, bool ok);

  UiSession& m_session;
  std::map<std::string, std::unique_ptr<Field>> m_fields;  // by key
  json::Object m_loaded;  // the configuration the form was filled from
  QPushButton* m_save;
  QLabel* m_outcome;
};

}  // namespace qxui

#endif  // QX_APPS_UI_SETTINGSPAGE_H
