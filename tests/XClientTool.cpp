// The X clients of the tests under a real X server, as one small Qt program:
//
//   XClientTool drag-source FILE X Y   a window at X,Y that starts a drag of
//                                      FILE (text/uri-list) on a mouse press;
//                                      prints "ready" once it is on screen,
//                                      "accepted: copy" when a target takes
//                                      it, "drag ended: ACTION" at its end
//   XClientTool grab-screen OUT.png    saves the whole screen, prints its size
//   XClientTool tray                   prints "tray: yes" or "tray: no"
//
// Exit status 0, or 2 with a line on standard error. Every answer is flushed
// at once: a sanitizer's report at exit may end the program before stdio does.
#include <QApplication>
#include <QDrag>
#include <QLabel>
#include <QMimeData>
#include <QMouseEvent>
#include <QPixmap>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QUrl>

#include <cstdio>

namespace {

class DragSource : public QLabel {
 public:
  explicit DragSource(QString path) : m_path(std::move(path)) {
    setText(QStringLiteral("drag me"));
    setAlignment(Qt::AlignCenter);
    setStyleSheet(QStringLiteral("background: #cde; border: 2px solid #345;"));
  }

 protected:
  void showEvent(QShowEvent* event) override {
    QLabel::showEvent(event);
    // Once the window is mapped, so that a press on it reaches us.
    QTimer::singleShot(0, this, [] {
      std::puts("ready");
      std::fflush(stdout);
    });
  }
  void mousePressEvent(QMouseEvent* event) override {
    if (event->button() != Qt::LeftButton) return;
    auto* mime = new QMimeData;
    mime->setUrls({QUrl::fromLocalFile(m_path)});
    auto* drag = new QDrag(this);
    drag->setMimeData(mime);
    // The target under the pointer took the drag (or let it go again).
    connect(drag, &QDrag::actionChanged, this, [](Qt::DropAction action) {
      std::printf("accepted: %s\n", action == Qt::CopyAction ? "copy" : "none");
      std::fflush(stdout);
    });
    Qt::DropAction const action = drag->exec(Qt::CopyAction);
    std::printf("drag ended: %s\n", action == Qt::CopyAction ? "copy" : action == Qt::IgnoreAction ? "ignored" : "other");
    std::fflush(stdout);
  }

 private:
  QString const m_path;
};

int fail(char const* message) {
  std::fprintf(stderr, "XClientTool: %s\n", message);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  QStringList const args = QApplication::arguments();
  QString const mode = args.value(1);
  if (mode == QLatin1String("drag-source") && args.size() == 5) {
    DragSource source(args[2]);
    source.setGeometry(args[3].toInt(), args[4].toInt(), 200, 120);
    source.show();
    return QApplication::exec();
  }
  if (mode == QLatin1String("grab-screen") && args.size() == 3) {
    QScreen* const screen = QGuiApplication::primaryScreen();
    if (!screen) return fail("no screen");
    QPixmap const shot = screen->grabWindow(0);
    if (shot.isNull() || !shot.save(args[2])) return fail("cannot grab the screen or save the picture");
    std::printf("%dx%d\n", shot.width(), shot.height());
    std::fflush(stdout);
    return 0;
  }
  if (mode == QLatin1String("tray") && args.size() == 2) {
    std::printf("tray: %s\n", QSystemTrayIcon::isSystemTrayAvailable() ? "yes" : "no");
    std::fflush(stdout);
    return 0;
  }
  return fail("usage: drag-source FILE X Y | grab-screen OUT.png | tray");
}
