#!/usr/bin/env bash
# The project's main job: installs what it needs, builds, and runs the
# configuration tool on a copy of the example configuration in out/: it prints
# the configuration report and writes the normalised sparse form back.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" --target qxlite-cfg

mkdir -p "$root/out"
cp "$root/examples/config.json" "$root/out/config.json"
echo "== configuration before: out/config.json"
cat "$root/out/config.json"
echo "== qxlite-cfg out/config.json"
"$root/build/qxlite-cfg" "$root/out/config.json"
echo "== configuration after (normalised, sparse, keys sorted): out/config.json"
cat "$root/out/config.json"
