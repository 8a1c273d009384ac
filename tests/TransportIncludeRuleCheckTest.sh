#!/usr/bin/env bash
# TransportIncludeRuleTest.sh must see the rule broken: in a copy of the tree
# where a public header and a unit that is not the transport's include an
# internal header, it must fail and name both.
#   TransportIncludeRuleCheckTest.sh SOURCE_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

mkdir -p "$tmp/shared/transport"
cp "$src"/shared/*.h "$src"/shared/*.cpp "$tmp/shared/"
# The tree as it is passes.
bash "$here/TransportIncludeRuleTest.sh" "$tmp" shared/CmdServer.h shared/CmdClient.h

sed -i '0,/#include "shared\/CmdI.h"/s//#include "shared\/CmdI.h"\n#include "shared\/transport\/Wire.h"/' "$tmp/shared/CmdServer.h"
printf '#include <shared/transport/AsioTypes.h>\n' >>"$tmp/shared/Platform.cpp"
set +e
out=$(bash "$here/TransportIncludeRuleTest.sh" "$tmp" shared/CmdServer.h shared/CmdClient.h)
status=$?
set -e
expected_header=$(grep -n 'shared/transport/Wire.h' "$tmp/shared/CmdServer.h" | head -1)
expected_unit=$(grep -n 'shared/transport/AsioTypes.h' "$tmp/shared/Platform.cpp")
# The public header breaks both halves of the rule.
expected="installed header shared/CmdServer.h: $expected_header
not a transport unit shared/CmdServer.h: $expected_header
not a transport unit shared/Platform.cpp: $expected_unit"
if [ "$status" -ne 1 ] || [ "$out" != "$expected" ]; then
  echo "expected status 1 and:"
  echo "$expected"
  echo "got status $status and:"
  echo "$out"
  exit 1
fi
