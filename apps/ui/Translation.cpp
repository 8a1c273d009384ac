#include "apps/ui/Translation.h"

#include <QString>

namespace qxui {

std::unique_ptr<QTranslator> translatorFor(QLocale const& locale) {
  auto translator = std::make_unique<QTranslator>();
  // Tries the locale's languages in its order of preference: qxlite-ui_de.qm
  // for de_AT too.
  if (!translator->load(locale, QStringLiteral("qxlite-ui"), QStringLiteral("_"), QStringLiteral(":/translations"))) {
    return nullptr;
  }
  return translator;
}

}  // namespace qxui
