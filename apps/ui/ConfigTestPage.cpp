#include "apps/ui/ConfigTestPage.h"

#include "apps/ui/UiSession.h"
#include "ipc/MsgsUItoSvc.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

namespace qxui {

namespace {

// How each kind of result line is shown, by the start of the line.
struct LineKind {
  std::string const& start;
  QStyle::StandardPixmap icon;
  char const* colour;
  char const* name;  // for screen readers
};

LineKind const* kindOf(QString const& line) {
  static LineKind const kinds[] = {
      {Ipc::TST_LINE_START_ERR, QStyle::SP_MessageBoxCritical, "#b00020",
       QT_TRANSLATE_NOOP("qxui::ConfigTestPage", "Error")},
      {Ipc::TST_LINE_START_WARN, QStyle::SP_MessageBoxWarning, "#8a5a00",
       QT_TRANSLATE_NOOP("qxui::ConfigTestPage", "Warning")},
      {Ipc::TST_LINE_START_PASS, QStyle::SP_DialogApplyButton, "#1b6e20",
       QT_TRANSLATE_NOOP("qxui::ConfigTestPage", "Passed")},
      {Ipc::TST_LINE_START_DESCR, QStyle::SP_MessageBoxInformation, "#555555",
       QT_TRANSLATE_NOOP("qxui::ConfigTestPage", "Detail")},
  };
  std::string const text = line.toStdString();
  for (LineKind const& k : kinds) {
    if (text.compare(0, k.start.size(), k.start) == 0) return &k;
  }
  return nullptr;
}

}  // namespace

ConfigTestPage::ConfigTestPage(UiSession& session, QWidget* parent)
    : QWidget(parent), m_session(session), m_run(new QPushButton(tr("&Test the configuration"))),
      m_lines(new QListWidget), m_summary(new QLabel) {
  setObjectName(QStringLiteral("configTest"));
  m_run->setObjectName(QStringLiteral("runTest"));
  m_run->setAccessibleName(tr("Have the service test the configuration in force"));
  m_lines->setObjectName(QStringLiteral("testLines"));
  m_lines->setAccessibleName(tr("Results of the configuration test"));
  m_summary->setObjectName(QStringLiteral("testSummary"));
  m_summary->setAccessibleName(tr("Outcome of the configuration test"));
  m_summary->setTextFormat(Qt::PlainText);
  auto* top = new QHBoxLayout;
  top->addWidget(m_run);
  top->addWidget(m_summary, 1);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(top);
  layout->addWidget(m_lines, 1);
  connect(m_run, &QPushButton::clicked, this, &ConfigTestPage::run);
  connect(&m_session, &UiSession::testLine, this, &ConfigTestPage::addLine);
  connect(&m_session, &UiSession::testFinished, this, &ConfigTestPage::finish);
}

void ConfigTestPage::run() {
  m_lines->clear();
  m_summary->setText(tr("Testing…"));
  m_run->setEnabled(false);
  m_session.testConfig();
}

void ConfigTestPage::addLine(QString const& line) {
  auto* item = new QListWidgetItem(line, m_lines);
  if (LineKind const* kind = kindOf(line)) {
    item->setIcon(style()->standardIcon(kind->icon));
    item->setForeground(QColor(QString::fromLatin1(kind->colour)));
    item->setData(Qt::AccessibleDescriptionRole, tr(kind->name));
  }
  m_lines->scrollToItem(item);
}

void ConfigTestPage::finish(int errors, QString const& failure) {
  m_run->setEnabled(true);
  m_summary->setText(failure.isEmpty() ? tr("The test found %n error(s).", nullptr, errors) : failure);
}

}  // namespace qxui
