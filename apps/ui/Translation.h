// qxui::translatorFor: the desktop program's texts in the language of a
// locale, from the translations built into the program (":/translations").
// The caller installs it (QCoreApplication::installTranslator) and keeps it
// while the application runs. UI thread only.
#ifndef QX_APPS_UI_TRANSLATION_H
#define QX_APPS_UI_TRANSLATION_H

#include <QLocale>
#include <QTranslator>

#include <memory>

namespace qxui {

// Null when the program has no translation for locale's languages (English,
// the texts of the code, needs none).
std::unique_ptr<QTranslator> translatorFor(QLocale const& locale);

}  // namespace qxui

#endif  // QX_APPS_UI_TRANSLATION_H
