// qxui::ProgressDelegate: draws the progress column of the uploads table as
// a bar (UploadsModel::kProgressRole, per mille) with its text; the other
// columns as usual. UI thread only.
#ifndef QX_APPS_UI_PROGRESSDELEGATE_H
#define QX_APPS_UI_PROGRESSDELEGATE_H

#include <QStyledItemDelegate>

namespace qxui {

class ProgressDelegate : public QStyledItemDelegate {
  Q_OBJECT

 public:
  explicit ProgressDelegate(QObject* parent = nullptr);

  void paint(QPainter* painter, QStyleOptionViewItem const& option, QModelIndex const& index) const override;
};

}  // namespace qxui

#endif  // QX_APPS_UI_PROGRESSDELEGATE_H
