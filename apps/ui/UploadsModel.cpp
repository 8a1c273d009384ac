#include "apps/ui/UploadsModel.h"

#include "apps/SizeText.h"

#include <QDateTime>
#include <QLocale>

namespace qxui {

namespace {

// What each state of the service is called in the table.
struct StateName {
  char const* state;
  char const* shown;
};
constexpr StateName kStateNames[] = {
    {"queued", QT_TRANSLATE_NOOP("qxui::UploadsModel", "Queued")},
    {"uploading", QT_TRANSLATE_NOOP("qxui::UploadsModel", "Uploading")},
    {"done", QT_TRANSLATE_NOOP("qxui::UploadsModel", "Done")},
    {"failed", QT_TRANSLATE_NOOP("qxui::UploadsModel", "Failed")},
    {"rejected", QT_TRANSLATE_NOOP("qxui::UploadsModel", "Rejected")},
    {"cancelled", QT_TRANSLATE_NOOP("qxui::UploadsModel", "Cancelled")},
    {"waiting", QT_TRANSLATE_NOOP("qxui::UploadsModel", "Waiting")},
};

QString sizeText(qint64 bytes) { return QString::fromStdString(qxapp::sizeText(static_cast<double>(bytes))); }

}  // namespace

UploadsModel::UploadsModel(QObject* parent) : QAbstractTableModel(parent) {}

QString UploadsModel::stateText(QString const& state) const {
  for (StateName const& s : kStateNames) {
    if (state == QLatin1String(s.state)) return tr(s.shown);
  }
  return state;
}

void UploadsModel::setSnapshot(UploadsSnapshot const& snapshot) {
  qint64 const ms = m_sinceLast.isValid() ? m_sinceLast.restart() : 0;
  if (!m_sinceLast.isValid()) m_sinceLast.start();
  setSnapshot(snapshot, ms);
}

void UploadsModel::setSnapshot(UploadsSnapshot const& snapshot, qint64 msSinceLast) {
  double const secs = static_cast<double>(msSinceLast) / 1000.0;
  std::vector<qint64> rates;
  QHash<QString, qint64> sentNow;
  for (UploadRow const& r : snapshot.rows) {
    qint64 rate = 0;
    auto const before = m_sentBefore.constFind(r.id);
    if (r.state == QLatin1String("uploading") && before != m_sentBefore.constEnd() && secs > 0 && r.sent > *before) {
      rate = static_cast<qint64>(static_cast<double>(r.sent - *before) / secs);
    }
    rates.push_back(rate);
    if (!r.id.isEmpty()) sentNow.insert(r.id, r.sent);
  }
  bool const sameRows = snapshot.rows.size() == m_rows.size() &&
                        std::equal(m_rows.begin(), m_rows.end(), snapshot.rows.begin(),
                                   [](UploadRow const& a, UploadRow const& b) { return a.id == b.id && a.title == b.title; });
  if (sameRows) {
    m_rows = snapshot.rows;
    m_rates = std::move(rates);
    if (!m_rows.empty()) emit dataChanged(index(0, 0), index(rowCount() - 1, ColumnCount - 1));
  } else {
    beginResetModel();
    m_rows = snapshot.rows;
    m_rates = std::move(rates);
    endResetModel();
  }
  m_sentBefore = std::move(sentNow);
}

int UploadsModel::rowCount(QModelIndex const& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
}

int UploadsModel::columnCount(QModelIndex const& parent) const { return parent.isValid() ? 0 : ColumnCount; }

QVariant UploadsModel::data(QModelIndex const& index, int role) const {
  if (!index.isValid() || index.row() >= rowCount()) return QVariant();
  UploadRow const& r = m_rows[static_cast<std::size_t>(index.row())];
  qint64 const perMille = r.size > 0 ? r.sent * 1000 / r.size : 0;
  if (role == kProgressRole && index.column() == Progress) return static_cast<int>(perMille);
  if (role == Qt::TextAlignmentRole && index.column() != Title && index.column() != State &&
      index.column() != LastError) {
    return QVariant(Qt::AlignRight | Qt::AlignVCenter);
  }
  if (role == Qt::ToolTipRole && index.column() == LastError && !r.lastError.isEmpty()) return r.lastError;
  if (role != Qt::DisplayRole && role != Qt::AccessibleTextRole) return QVariant();
  switch (index.column()) {
    case Title: return r.title;
    case State: return stateText(r.state);
    case Size: return sizeText(r.size);
    case Progress: return r.id.isEmpty() ? QString() : tr("%1%").arg(perMille / 10);
    case Rate: {
      qint64 const rate = m_rates[static_cast<std::size_t>(index.row())];
      return rate > 0 ? tr("%1/s").arg(sizeText(rate)) : QString();
    }
    case Attempts: return r.id.isEmpty() ? QString() : QString::number(r.attempts);
    case NextTry:
      return r.nextTry > 0 ? QLocale().toString(QDateTime::fromSecsSinceEpoch(r.nextTry).time(), QLocale::ShortFormat)
                           : QString();
    case LastError: return r.lastError;
    default: return QVariant();
  }
}

QVariant UploadsModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return QVariant();
  switch (section) {
    case Title: return tr("Title");
    case State: return tr("State");
    case Size: return tr("Size");
    case Progress: return tr("Progress");
    case Rate: return tr("Rate");
    case Attempts: return tr("Attempts");
    case NextTry: return tr("Next try");
    case LastError: return tr("Last error");
    default: return QVariant();
  }
}

}  // namespace qxui
