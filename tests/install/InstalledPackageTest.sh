#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, then builds and runs a small
# consumer against it twice: with find_package(QXLiteCommon CONFIG) and with
# pkg-config. Usage: InstalledPackageTest.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build=$1
src=$2
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

expected='45654 /etc/QXLite/config.json ["noqx","ds_store","db"]'

cmake -S "$src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
got=$("$work/cmake-build/consumer")
[ "$got" = "$expected" ] || { echo "cmake consumer printed: $got" >&2; exit 1; }

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/pc-consumer" "$src/consumer.cpp" $(pkg-config --cflags --libs qxlitecommon)
got=$(LD_LIBRARY_PATH="$work/prefix/lib" "$work/pc-consumer")
[ "$got" = "$expected" ] || { echo "pkg-config consumer printed: $got" >&2; exit 1; }
echo "installed package: cmake and pkg-config consumers OK"
