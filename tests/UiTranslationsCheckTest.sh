#!/usr/bin/env bash
# UiTranslationsTest.sh must see a text that the code has and the
# translation file lacks: in a copy of the sources with one more tr() text
# it must fail and name the file.
#   UiTranslationsCheckTest.sh LUPDATE SOURCE_ROOT
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
lupdate=$1
root=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir -p "$tmp/apps"
cp -r "$root/apps/ui" "$tmp/apps/ui"
cp "$root/apps/ConfigFile.cpp" "$tmp/apps/"
cat >>"$tmp/apps/ui/DropZone.cpp" <<'CPP'
namespace qxui {
QString probeText() { return DropZone::tr("A text the translation lacks"); }
}  // namespace qxui
CPP
if bash "$here/UiTranslationsTest.sh" "$lupdate" "$tmp" >"$tmp/out" 2>"$tmp/err"; then
  echo "a text missing from the translation file went unseen" >&2
  exit 1
fi
grep -q '^+        <source>A text the translation lacks</source>$' "$tmp/out" || { cat "$tmp/out"; exit 1; }
grep -qx "$tmp/apps/ui/translations/qxlite-ui_de.ts is stale: run scripts/update-translations.sh and translate what it adds" "$tmp/err" ||
  { cat "$tmp/err"; exit 1; }
# And the copy as it was passes.
cp "$root/apps/ui/DropZone.cpp" "$tmp/apps/ui/DropZone.cpp"
bash "$here/UiTranslationsTest.sh" "$lupdate" "$tmp"
