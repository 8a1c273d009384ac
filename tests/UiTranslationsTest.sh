#!/usr/bin/env bash
# qxlite-ui's translation files are what lupdate makes of the code as it is:
# no text of the code is missing from them, none is left that the code no
# longer has. On a difference it shows it and says how to bring them up to
# date.
#   UiTranslationsTest.sh LUPDATE SOURCE_ROOT
set -euo pipefail
lupdate=$1
root=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
status=0
for ts in "$root"/apps/ui/translations/*.ts; do
  fresh="$tmp/$(basename "$ts")"
  cp "$ts" "$fresh"
  "$lupdate" -silent -I "$root" -locations none -no-obsolete "$root/apps/ui" "$root/apps/ConfigFile.cpp" -ts "$fresh"
  if ! diff -u "$ts" "$fresh"; then
    echo "$ts is stale: run scripts/update-translations.sh and translate what it adds" >&2
    status=1
  fi
done
exit $status
