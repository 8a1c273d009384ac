#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, then builds and runs a small
# consumer and the example programs against it twice: with
# find_package(QXLiteCommon CONFIG) and with pkg-config.
# Usage: InstalledPackageTest.sh BUILD_DIR CONSUMER_SOURCE_DIR EXAMPLES_DIR
set -euo pipefail
build=$1
src=$2
examples=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
for f in include/QXLiteCommon/json/Json.h include/QXLiteCommon/settings/Settings.h \
         include/QXLiteCommon/shared/Log.h lib/pkgconfig/qxlitecommon.pc \
         lib/cmake/QXLiteCommon/QXLiteCommonConfig.cmake \
         lib/cmake/QXLiteCommon/QXLiteCommonConfigVersion.cmake; do
  [ -f "$work/prefix/$f" ] || { echo "not installed: $f" >&2; exit 1; }
done
ls "$work"/prefix/lib/libQXShared.so.7* "$work"/prefix/lib/libQXLiteCommon.so.7* >/dev/null

# Only the API is exported: names of the installed headers are, internal
# helpers are not.
shared_names=$(nm -DC --defined-only "$work"/prefix/lib/libQXShared.so.7)
lite_names=$(nm -DC --defined-only "$work"/prefix/lib/libQXLiteCommon.so.7)
for name in 'json::strToObject(char const*, unsigned long)' 'typeinfo for json::Exc' \
            'Ipc::CmdClient::run' 'g_LogVerbose'; do
  grep -qF "$name" <<<"$shared_names" || { echo "libQXShared does not export: $name" >&2; exit 1; }
done
for name in 'Settings::serialize() const' 'Ipc::TST_LINE_START_ERR' 'vtable for Ipc::FileDrop'; do
  grep -qF "$name" <<<"$lite_names" || { echo "libQXLiteCommon does not export: $name" >&2; exit 1; }
done
# (Members of these names; template code of Boost that merely mentions them
# may stay visible.)
for name in 'qx::cfgjson::' 'Ipc::CmdClient::Conn::' 'Ipc::JsonCmdBase::readBody'; do
  if grep -qE "^[0-9a-f]+ [A-Za-z] $name" <<<"$shared_names"; then
    echo "libQXShared exports: $name" >&2
    exit 1
  fi
done

expected='45654 /etc/QXLite/config.json ["noqx","ds_store","db"]'

cmake -S "$src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" -DQX_EXAMPLES_DIR="$examples" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
got=$("$work/cmake-build/consumer")
[ "$got" = "$expected" ] || { echo "cmake consumer printed: $got" >&2; exit 1; }

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/pc-consumer" "$src/consumer.cpp" $(pkg-config --cflags --libs qxlitecommon)
got=$(LD_LIBRARY_PATH="$work/prefix/lib" "$work/pc-consumer")
[ "$got" = "$expected" ] || { echo "pkg-config consumer printed: $got" >&2; exit 1; }
for example in DropWithProgress:qxlite-drop-example TestConfigOnUiThread:qxlite-testcfg-example; do
  # shellcheck disable=SC2046
  g++ -std=c++17 -o "$work/pc-${example#*:}" "$examples/${example%%:*}.cpp" $(pkg-config --cflags --libs qxlitecommon)
done

# Each example, built both ways, runs: it reads its options, looks at the
# file to drop, and names the token file that it cannot open.
missing="$work/no.token"
for prefix in "$work/cmake-build/examples/" "$work/pc-"; do
  for program in qxlite-drop-example qxlite-testcfg-example; do
    args=(--port 1 --token-file "$missing")
    [ "$program" = qxlite-drop-example ] && args+=("$src/consumer.cpp")
    status=0
    got=$(LD_LIBRARY_PATH="$work/prefix/lib" "$prefix$program" "${args[@]}" 2>&1) || status=$?
    want="$program: Ipc token file \"$missing\": cannot be opened: No such file or directory"
    if [ "$status" != 1 ] || [ "$got" != "$want" ]; then
      echo "$prefix$program exited $status and printed: $got" >&2
      echo "expected status 1 and: $want" >&2
      exit 1
    fi
  done
done
echo "installed package: cmake and pkg-config consumers and examples OK"
