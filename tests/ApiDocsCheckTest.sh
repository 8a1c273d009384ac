#!/usr/bin/env bash
# ApiDocsTest.sh must see an undocumented public member and a malformed
# comment: with a header that has both beside the public ones, it must fail
# and name each.
#   ApiDocsCheckTest.sh DOXYFILE
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

cat >"$tmp/Probe.h" <<'HEADER'
/// \file
/// A header with two faults.
#ifndef PROBE_H
#define PROBE_H

/// A documented class.
class Probe {
 public:
  /// Escapes \q nothing.
  void documented();
  void undocumented();
};

#endif
HEADER
set +e
out=$(bash "$here/ApiDocsTest.sh" "$1" "$tmp/Probe.h")
status=$?
set -e
expected="$tmp/Probe.h:9: error: Found unknown command '\\q'
$tmp/Probe.h:11: error: Member undocumented() (function) of class Probe is not documented."
if [ "$status" -ne 1 ] || [ "$out" != "$expected" ]; then
  echo "expected status 1 and:"
  echo "$expected"
  echo "got status $status and:"
  echo "$out"
  exit 1
fi
