#!/usr/bin/env bash
# Installs what the project needs, builds it and runs every test.
#   scripts/test.sh                              plain build in build/
#   scripts/test.sh --sanitize=address,undefined build-address-undefined/
#   scripts/test.sh --sanitize=thread            build-thread/
#   scripts/test.sh --clang                      build-clang/: clang++, whose -Wthread-safety
#                                                checks the lock annotations
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

sanitize=""
clang=""
for arg in "$@"; do
  case "$arg" in
    --sanitize=*) sanitize=${arg#--sanitize=} ;;
    --clang) clang=1 ;;
    *) echo "usage: scripts/test.sh [--sanitize=address,undefined|thread] [--clang]" >&2; exit 2 ;;
  esac
done

bash "$root/scripts/install-deps.sh"

build="$root/build"
extra=()
# The plain build also tests the Debian packages (installed system-wide and
# purged again); the sanitizer and clang builds do not.
package_test=ON
[ -z "$sanitize" ] && [ -z "$clang" ] || package_test=OFF
extra+=(-DQX_PACKAGE_TEST=$package_test)
if [ -n "$sanitize" ]; then
  build="$root/build-${sanitize//,/-}"
  # Benchmarks measure the plain build only.
  extra+=(-DQX_BUILD_BENCHMARKS=OFF)
fi
if [ -n "$clang" ]; then
  build="$root/build-clang${sanitize:+-${sanitize//,/-}}"
  extra+=(-DCMAKE_CXX_COMPILER=clang++ -DQX_BUILD_BENCHMARKS=OFF)
fi

# A compiler cache, where the machine has one, makes the repeated builds quick.
command -v ccache >/dev/null && extra+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQX_SANITIZE="$sanitize" "${extra[@]}" >/dev/null
cmake --build "$build"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
