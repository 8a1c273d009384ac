#!/usr/bin/env bash
# The transport's internals (shared/transport/) stay out of sight: no
# installed header includes one of them, and in shared/ only the units that
# make up the transport do.
#   TransportIncludeRuleTest.sh ROOT HEADER...   HEADER: the installed headers, relative to ROOT
# Prints each include that breaks the rule, and fails when there is one.
set -euo pipefail
root=$1
shift

# The units of shared/ outside shared/transport/ that are part of the
# transport, or write its frames.
allowed=(shared/CmdClient.cpp shared/CmdServer.cpp shared/IoThreads.cpp shared/CmdI.cpp shared/JsonCmdBase.cpp)

pattern='^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"]shared/transport/'
broken=0
for header in "$@"; do
  if hits=$(grep -nE "$pattern" "$root/$header"); then
    while IFS= read -r hit; do echo "installed header $header: $hit"; done <<<"$hits"
    broken=1
  fi
done
shopt -s nullglob
for file in "$root"/shared/*.h "$root"/shared/*.cpp; do
  rel=${file#"$root"/}
  for ok in "${allowed[@]}"; do [ "$rel" = "$ok" ] && continue 2; done
  if hits=$(grep -nE "$pattern" "$file"); then
    while IFS= read -r hit; do echo "not a transport unit $rel: $hit"; done <<<"$hits"
    broken=1
  fi
done
exit $broken
