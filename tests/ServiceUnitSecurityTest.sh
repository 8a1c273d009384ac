#!/usr/bin/env bash
# The service's systemd unit, as CMake configured it, must keep its overall
# exposure level at most 2.0 ("OK") in systemd's own offline analysis.
#   ServiceUnitSecurityTest.sh UNIT-FILE
set -euo pipefail
unit=$1
limit=2.0

command -v systemd-analyze >/dev/null || { echo "systemd-analyze is missing (Debian package systemd)" >&2; exit 1; }
[ -f "$unit" ] || { echo "no unit file \"$unit\"" >&2; exit 1; }

report=$(systemd-analyze security --offline=true --no-pager "$unit" 2>&1) || {
  echo "$report" >&2
  echo "systemd-analyze failed on \"$unit\"" >&2
  exit 1
}
echo "$report" | grep -v '^✓' || true
level=$(echo "$report" | sed -n 's/^→ Overall exposure level for [^:]*: \([0-9][0-9]*\.[0-9]\) .*/\1/p')
[ -n "$level" ] || { echo "no overall exposure level in the report" >&2; exit 1; }
echo "overall exposure level: $level (limit $limit)"
awk -v level="$level" -v limit="$limit" 'BEGIN { exit !(level <= limit) }' || {
  echo "the exposure level $level of \"$unit\" is over $limit" >&2
  exit 1
}
