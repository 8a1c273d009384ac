#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer into build-fuzz/, then runs each for SECS seconds
# (default 60) from its seed corpus in fuzz/corpus/TARGET/. Any report (a crash,
# a leak, an abort, a time-out of one input) fails the run and leaves the input
# that caused it in build-fuzz/findings/.
#   scripts/fuzz.sh [--seconds SECS] [TARGET...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

seconds=60
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds=$2; shift 2 ;;
    --seconds=*) seconds=${1#--seconds=}; shift ;;
    -*) echo "usage: scripts/fuzz.sh [--seconds SECS] [TARGET...]" >&2; exit 2 ;;
    *) targets+=("$1"); shift ;;
  esac
done
[ ${#targets[@]} -gt 0 ] || targets=(FuzzJsonText FuzzSettings FuzzCmdBodies FuzzServiceFrames)

bash "$root/scripts/install-deps.sh"

build="$root/build-fuzz"
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" \
  -DCMAKE_CXX_COMPILER=clang++ -DQX_SANITIZE=address,undefined -DQX_BUILD_FUZZERS=ON \
  -DQX_BUILD_TESTS=OFF -DQX_BUILD_BENCHMARKS=OFF -DQX_BUILD_APPS=ON >/dev/null
cmake --build "$build" --target "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
findings="$build/findings"
mkdir -p "$findings"
failed=0
for target in "${targets[@]}"; do
  # New inputs go to a scratch folder: the seeds in the tree stay as they are.
  scratch=$(mktemp -d)
  echo "== $target: ${seconds} s"
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
       -max_len=65536 -print_final_stats=1 -artifact_prefix="$findings/$target-" \
       "$scratch" "$root/fuzz/corpus/$target" 2>"$build/$target.log"; then
    tail -n 60 "$build/$target.log"
    echo "== $target: FAILED (input in $findings)"
    failed=$((failed + 1))
  else
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb)' "$build/$target.log" || true
    echo "== $target: passed"
  fi
  rm -rf "$scratch"
done
echo "fuzz targets: $(( ${#targets[@]} - failed )) clean, $failed with findings"
[ "$failed" -eq 0 ]
