#!/usr/bin/env bash
# The reference of the public headers builds without a single warning: every
# public member is documented and every comment is well-formed. Runs doxygen
# on the build's Doxyfile (the docs target's), with its output in a folder of
# its own, and prints each warning.
#   ApiDocsTest.sh DOXYFILE [HEADER...]   HEADER: more input, for ApiDocsCheckTest.sh
set -euo pipefail
doxyfile=$1
shift
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

extra=""
for header in "$@"; do extra+=" $header"; done
status=0
{
  cat "$doxyfile"
  echo "OUTPUT_DIRECTORY = $tmp/out"
  echo "WARN_LOGFILE = $tmp/warnings.log"
  [ -z "$extra" ] || echo "INPUT += $extra"
} | doxygen - >"$tmp/doxygen.out" 2>&1 || status=$?
if [ "$status" -ne 0 ] || [ -s "$tmp/warnings.log" ]; then
  # Each warning once: doxygen repeats some.
  awk '!seen[$0]++' "$tmp/warnings.log" 2>/dev/null || true
  [ -s "$tmp/warnings.log" ] || cat "$tmp/doxygen.out"
  exit 1
fi
[ -f "$tmp/out/html/classSettings.html" ] || { echo "doxygen made no page of Settings" >&2; exit 1; }
