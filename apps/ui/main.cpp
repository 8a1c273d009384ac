// qxlite-ui: the desktop program of the QXLite service. Files named on the
// command line are handed to the service once it is reached, so that a file
// manager's "Open with" works.
#include "apps/ui/MainWindow.h"
#include "apps/ui/Translation.h"
#include "apps/ui/WindowRecorder.h"

#include <signal.h>

#include <QApplication>
#include <QCommandLineParser>

#include <cstdio>

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  QApplication::setApplicationName(QStringLiteral("qxlite-ui"));
  QApplication::setApplicationVersion(QStringLiteral(QX_VERSION));

  // The command line is read before the application connects to a display,
  // so that --help and a wrong option work without one.
  QCommandLineParser parser;
  parser.setApplicationDescription(QApplication::translate("main", "Hand files to the QXLite service and watch them upload"));
  QCommandLineOption const help({QStringLiteral("h"), QStringLiteral("help")},
                                QApplication::translate("main", "Print this help and exit"));
  QCommandLineOption const version(QStringLiteral("version"), QApplication::translate("main", "Print the version and exit"));
  parser.addOptions({help, version});
  QCommandLineOption const port(QStringLiteral("port"), QApplication::translate("main", "The service's port"),
                                QStringLiteral("PORT"));
  QCommandLineOption const tokenFile(QStringLiteral("token-file"),
                                     QApplication::translate("main", "The secret token file"), QStringLiteral("FILE"));
  QCommandLineOption const runtimeDir(
      QStringLiteral("runtime-dir"),
      QApplication::translate("main", "Folder of the service's runtime file (read without --port and --token-file)"),
      QStringLiteral("DIR"));
  parser.addOptions({port, tokenFile, runtimeDir});
  parser.addPositionalArgument(QStringLiteral("FILE"), QApplication::translate("main", "Files or folders to upload"),
                               QStringLiteral("[FILE...]"));
  QStringList arguments;
  for (int i = 0; i < argc; ++i) arguments << QString::fromLocal8Bit(argv[i]);
  if (!parser.parse(arguments)) {
    std::fprintf(stderr, "qxlite-ui: %s (see qxlite-ui --help)\n", qPrintable(parser.errorText()));
    return 2;
  }
  if (parser.isSet(help)) {
    // Without an application object the parser cannot know the program's name.
    std::fputs(qPrintable(parser.helpText().replace(QStringLiteral("<executable_name>"), QStringLiteral("qxlite-ui"))),
               stdout);
    return 0;
  }
  if (parser.isSet(version)) {
    std::printf("qxlite-ui %s\n", QX_VERSION);
    return 0;
  }

  qxui::UiSession::Where where;
  if (parser.isSet(port)) {
    bool ok = false;
    int const number = parser.value(port).toInt(&ok);
    if (!ok || number < 1 || number > 65535) {
      std::fprintf(stderr, "qxlite-ui: %s\n",
                   qPrintable(QApplication::translate("main", "--port: \"%1\" is not a port number from 1 to 65535")
                                  .arg(parser.value(port))));
      return 2;
    }
    where.port = number;
  }
  where.tokenFile = parser.value(tokenFile).toStdString();
  where.runtimeFolder = parser.value(runtimeDir).toStdString();

  QApplication app(argc, argv);
  // The user's language, where the program has it.
  std::unique_ptr<QTranslator> const translator = qxui::translatorFor(QLocale());
  if (translator) QApplication::installTranslator(translator.get());
  qxui::MainWindow window(where);
  if (!parser.positionalArguments().isEmpty()) window.dropWhenConnected(parser.positionalArguments());
  window.resize(900, 560);
  window.show();
  qxui::WindowRecorder::startIfAsked(window);
  return QApplication::exec();
}
