#!/usr/bin/env bash
# Brings qxlite-ui's translation files up to date with the texts of the code
# and of the configuration keys' meanings that the settings show (lupdate:
# new texts are added unfinished, vanished ones dropped), to be
# translated and committed. tests/UiTranslationsTest.sh fails while a file
# is stale.
#   scripts/update-translations.sh [LUPDATE]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
lupdate=${1:-/usr/lib/qt6/bin/lupdate}
for ts in "$root"/apps/ui/translations/*.ts; do
  "$lupdate" -silent -I "$root" -locations none -no-obsolete "$root/apps/ui" "$root/apps/ConfigFile.cpp" -ts "$ts"
done
