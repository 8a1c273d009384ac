#include "apps/ui/ProgressDelegate.h"

#include "apps/ui/UploadsModel.h"

#include <QApplication>
#include <QStyleOptionProgressBar>

namespace qxui {

ProgressDelegate::ProgressDelegate(QObject* parent) : QStyledItemDelegate(parent) {}

void ProgressDelegate::paint(QPainter* painter, QStyleOptionViewItem const& option, QModelIndex const& index) const {
  QString const text = index.data(Qt::DisplayRole).toString();
  if (index.column() != UploadsModel::Progress || text.isEmpty()) {
    QStyledItemDelegate::paint(painter, option, index);
    return;
  }
  QStyleOptionProgressBar bar;
  bar.rect = option.rect.adjusted(2, 2, -2, -2);
  bar.minimum = 0;
  bar.maximum = 1000;
  bar.progress = index.data(UploadsModel::kProgressRole).toInt();
  bar.text = text;
  bar.textVisible = true;
  bar.state = option.state | QStyle::State_Horizontal;
  bar.palette = option.palette;
  QStyle* const style = option.widget ? option.widget->style() : QApplication::style();
  style->drawControl(QStyle::CE_ProgressBar, &bar, painter, option.widget);
}

}  // namespace qxui
