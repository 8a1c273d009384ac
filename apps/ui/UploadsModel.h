// qxui::UploadsModel: the service's uploads as a table, one row a job (then
// one a waiting item), fed with each snapshot the session receives. The rate
// of a job is what it sent between two snapshots, over the time between
// them. UI thread only.
#ifndef QX_APPS_UI_UPLOADSMODEL_H
#define QX_APPS_UI_UPLOADSMODEL_H

#include "apps/ui/UploadsSnapshot.h"

#include <QAbstractTableModel>
#include <QElapsedTimer>
#include <QHash>

namespace qxui {

class UploadsModel : public QAbstractTableModel {
  Q_OBJECT

 public:
  enum Column { Title, State, Size, Progress, Rate, Attempts, NextTry, LastError, ColumnCount };
  // The progress column's value for the delegate: per mille sent, 0 to 1000.
  static constexpr int kProgressRole = Qt::UserRole + 1;

  explicit UploadsModel(QObject* parent = nullptr);

  // The time since the last snapshot is measured here, or given.
  void setSnapshot(UploadsSnapshot const& snapshot);
  void setSnapshot(UploadsSnapshot const& snapshot, qint64 msSinceLast);
  UploadRow const& row(int r) const { return m_rows[static_cast<std::size_t>(r)]; }

  int rowCount(QModelIndex const& parent = QModelIndex()) const override;
  int columnCount(QModelIndex const& parent = QModelIndex()) const override;
  QVariant data(QModelIndex const& index, int role = Qt::DisplayRole) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

 private:
  QString stateText(QString const& state) const;

  std::vector<UploadRow> m_rows;
  std::vector<qint64> m_rates;  // bytes a second, by row
  QHash<QString, qint64> m_sentBefore;  // by job id, at the last snapshot
  QElapsedTimer m_sinceLast;
};

}  // namespace qxui

#endif  // QX_APPS_UI_UPLOADSMODEL_H
