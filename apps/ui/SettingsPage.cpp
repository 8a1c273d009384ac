#include "apps/ui/SettingsPage.h"

#include "apps/ConfigFile.h"
#include "apps/ui/UiSession.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

namespace qxui {

namespace {

enum class Group { Folders, ServerAndProxy, Uploads, Backup, Email, Advanced };

struct GroupTitle {
  Group group;
  char const* title;
};
constexpr GroupTitle kGroupTitles[] = {
    {Group::Folders, QT_TRANSLATE_NOOP("qxui::SettingsPage", "Folders")},
    {Group::ServerAndProxy, QT_TRANSLATE_NOOP("qxui::SettingsPage", "Server and proxy")},
    {Group::Uploads, QT_TRANSLATE_NOOP("qxui::SettingsPage", "Uploads")},
    {Group::Backup, QT_TRANSLATE_NOOP("qxui::SettingsPage", "Backup")},
    {Group::Email, QT_TRANSLATE_NOOP("qxui::SettingsPage", "E-mail notices")},
    {Group::Advanced, QT_TRANSLATE_NOOP("qxui::SettingsPage", "Advanced")},
};

// The group of each key; a key not named here is advanced.
struct KeyGroup {
  char const* key;
  Group group;
};
constexpr KeyGroup kKeyGroups[] = {
    {"ReceiveFolder", Group::Folders},      {"SpoolFolder", Group::Folders},
    {"BackupFolder", Group::Folders},       {"IgnoredExtension", Group::Folders},
    {"InetServer", Group::ServerAndProxy},  {"InetAltServer", Group::ServerAndProxy},
    {"InetInsecureTls", Group::ServerAndProxy}, {"InetUseProxy", Group::ServerAndProxy},
    {"InetProxy", Group::ServerAndProxy},   {"InetProxyTunnel", Group::ServerAndProxy},
    {"InetProxySocks", Group::ServerAndProxy}, {"InetProxyAuth", Group::ServerAndProxy},
    {"InetProxyUser", Group::ServerAndProxy}, {"InetProxyPassword", Group::ServerAndProxy},
    {"AccountId", Group::Uploads},          {"SpoolerId", Group::Uploads},
    {"KeyId", Group::Uploads},              {"PublicKey", Group::Uploads},
    {"SrvFileExts", Group::Uploads},        {"ConcurrentUploads", Group::Uploads},
    {"MinFilesToZip", Group::Uploads},      {"UseDirName", Group::Uploads},
    {"BackupExpireSecs", Group::Backup},    {"EmailSmtpUrl", Group::Email},
    {"EmailUser", Group::Email},            {"EmailPassword", Group::Email},
    {"EmailRequireTls", Group::Email},      {"EmailNotifySuccess", Group::Email},
    {"EmailNotifyFailure", Group::Email},   {"EmailFrom", Group::Email},
    {"EmailTo", Group::Email},
};

Group groupOf(char const* key) {
  for (KeyGroup const& k : kKeyGroups) {
    if (std::string(k.key) == key) return k.group;
  }
  return Group::Advanced;
}

bool isType(qxapp::ConfigKey const& key, char const* type) { return std::string(key.type) == type; }

// A list of texts as a person types it: "pdf, ps, xps".
QString listText(json::Value const& value) {
  QStringList items;
  if (value.isArray()) {
    json::Array const list(value);
    for (std::size_t i = 0; i < list.size(); ++i) items << QString::fromStdString(list[i].asStringSafe());
  }
  return items.join(QStringLiteral(", "));
}

json::Value listValue(QString const& text) {
  json::Array list;
  for (QString const& item : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
    QString const trimmed = item.trimmed();
    if (!trimmed.isEmpty()) list.append(json::Value(trimmed.toStdString()));
  }
  return list;
}

// A value of the configuration for its field: the default where the
// configuration leaves the key out.
json::Value valueOf(json::Object const& config, qxapp::ConfigKey const& key) {
  json::Value const v = config[key.name];
  if (!v.empty() || !*key.defaultValue) return v;
  std::string const wrapped = std::string("{\"v\":") + key.defaultValue + "}";
  try {
    return json::strToObject(wrapped.data(), wrapped.size())["v"];
  } catch (json::Exc const&) {
    return json::Value(std::string(key.defaultValue));
  }
}

}  // namespace

// One key's control: a check box for a flag, a line for the rest.
struct SettingsPage::Field {
  qxapp::ConfigKey key;
  QCheckBox* check = nullptr;
  QLineEdit* line = nullptr;
  QString shown;  // what the field held when filled

  QString text() const { return check ? (check->isChecked() ? QStringLiteral("true") : QStringLiteral("false")) : line->text(); }
  void set(json::Value const& v) {
    if (check) {
      check->setChecked(v.isTrue());
    } else if (isType(key, "list of texts")) {
      line->setText(listText(v));
    } else if (v.isInteger()) {
      line->setText(QString::number(static_cast<qint64>(json_integer_value(v.get()))));
    } else {
      line->setText(QString::fromStdString(v.asStringSafe()));
    }
    shown = text();
  }
  // The value for the configuration: a number that is not one stays text,
  // for the check to name.
  json::Value value() const {
    if (check) return json::Value(check->isChecked() ? json_true() : json_false());  // singletons
    if (isType(key, "list of texts")) return listValue(line->text());
    if (isType(key, "integer")) {
      bool ok = false;
      qlonglong const n = line->text().trimmed().toLongLong(&ok);
      if (ok) return json::Value(static_cast<json_int_t>(n));
    }
    return json::Value(line->text().toStdString());
  }
};

SettingsPage::SettingsPage(UiSession& session, QWidget* parent)
    : QWidget(parent), m_session(session), m_save(new QPushButton(tr("Sa&ve settings"))), m_outcome(new QLabel) {
  setObjectName(QStringLiteral("settings"));
  auto* form = new QWidget;
  auto* formLayout = new QVBoxLayout(form);
  std::map<Group, QFormLayout*> layouts;
  for (GroupTitle const& g : kGroupTitles) {
    auto* box = new QGroupBox(tr(g.title));
    box->setAccessibleName(tr(g.title));
    layouts[g.group] = new QFormLayout(box);
    formLayout->addWidget(box);
  }
  for (qxapp::ConfigKey const& key : qxapp::configKeyTable()) {
    auto field = std::make_unique<Field>(Field{key, nullptr, nullptr, QString()});
    QWidget* control = nullptr;
    if (isType(key, "flag")) {
      control = field->check = new QCheckBox;
    } else {
      control = field->line = new QLineEdit;
      if (key.secret) field->line->setEchoMode(QLineEdit::Password);
    }
    control->setObjectName(QString::fromLatin1(key.name));
    control->setAccessibleName(QString::fromLatin1(key.name));
    QString const meaning = QCoreApplication::translate("ConfigKey", key.meaning);
    control->setAccessibleDescription(meaning);
    control->setToolTip(meaning);
    layouts[groupOf(key.name)]->addRow(QString::fromLatin1(key.name), control);
    m_fields[key.name] = std::move(field);
  }
  auto* scroll = new QScrollArea;
  scroll->setObjectName(QStringLiteral("settingsForm"));
  scroll->setAccessibleName(tr("Settings form"));
  scroll->setWidget(form);
  scroll->setWidgetResizable(true);

  auto* reload = new QPushButton(tr("Re&load"));
  reload->setObjectName(QStringLiteral("reloadSettings"));
  reload->setAccessibleName(tr("Reload the configuration in force"));
  m_save->setObjectName(QStringLiteral("saveSettings"));
  m_save->setAccessibleName(tr("Save the settings as the service's configuration"));
  m_outcome->setObjectName(QStringLiteral("settingsOutcome"));
  m_outcome->setAccessibleName(tr("Outcome of saving the settings"));
  m_outcome->setTextFormat(Qt::PlainText);
  m_outcome->setWordWrap(true);
  m_outcome->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(m_outcome, 1);
  buttons->addWidget(reload);
  buttons->addWidget(m_save);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(scroll, 1);
  layout->addLayout(buttons);

  connect(reload, &QPushButton::clicked, this, &SettingsPage::reload);
  connect(m_save, &QPushButton::clicked, this, &SettingsPage::save);
  connect(&m_session, &UiSession::configFetched, this, &SettingsPage::fill);
  connect(&m_session, &UiSession::configSaved, this, &SettingsPage::onSaved);
  connect(&m_session, &UiSession::configFailed, this, [this](QString const& why) { showOutcome(why, false); });
  m_save->setEnabled(false);
}

SettingsPage::~SettingsPage() = default;

void SettingsPage::reload() { m_session.fetchConfig(); }

QString SettingsPage::outcomeText() const { return m_outcome->text(); }

void SettingsPage::showOutcome(QString const& text, bool ok) {
  m_outcome->setText(text);
  m_outcome->setStyleSheet(ok ? QString() : QStringLiteral("color: #b00020;"));
}

void SettingsPage::fill(json::Object const& config) {
  m_loaded = config;
  for (auto& f : m_fields) f.second->set(valueOf(config, f.second->key));
  m_save->setEnabled(true);
}

void SettingsPage::save() {
  // What the form changed, over the configuration it was filled from.
  json::Object config = m_loaded;
  for (auto const& f : m_fields) {
    if (f.second->text() != f.second->shown) config.setAt(f.first.c_str(), f.second->value());
  }
  std::string const problem = qxapp::checkConfigValues(config);
  if (!problem.empty()) {
    showOutcome(tr("Configuration not saved: %1").arg(QString::fromStdString(problem)), false);
    return;
  }
  m_session.saveConfig(config);
}

void SettingsPage::onSaved(bool ok, QString const& message, json::Object const& saved) {
  if (!ok) {
    showOutcome(message, false);  // the service's own words
    return;
  }
  QStringList lines{message};
  try {
    std::vector<std::string> const changes =
        qxapp::configChanges(qxapp::settingsFromObject(m_loaded, "the configuration in force"),
                             qxapp::settingsFromObject(saved, "the saved configuration"));
    for (std::string const& c : changes) lines << QString::fromStdString(c);
    if (changes.empty()) lines << tr("Nothing changed.");
  } catch (std::exception const& e) {
    lines << QString::fromStdString(e.what());
  }
  showOutcome(lines.join(QLatin1Char('\n')), true);
  reload();
}

}  // namespace qxui
