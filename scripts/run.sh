#!/usr/bin/env bash
# The project's main job, end to end on this machine: installs what it needs,
# builds, starts the reference service with a configuration, token file and
# spool folders under out/demo/ (nothing in /etc or /var), drops a few sample
# files with the client, runs a configuration test, lists the uploads and
# stops the service, showing each step.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" --target qxlite-svc qxlite qxlite-cfg

demo="$root/out/demo"
rm -rf "$demo"
mkdir -p "$demo/samples/batch"
cat > "$demo/config.json" <<JSON
{"ReceiveFolder": "$demo/spool/in", "SpoolFolder": "$demo/spool/out",
 "BackupFolder": "$demo/spool/backup", "BackupExpireSecs": 604800,
 "EmailSmtpUrl": "smtp://mail.example.org:587"}
JSON
printf '%%PDF-1.7 quarterly report\n' > "$demo/samples/report.pdf"
printf 'date,amount\n2026-11-01,120\n' > "$demo/samples/ledger.csv"
printf '<invoice id="1"/>\n' > "$demo/samples/batch/invoice-1.xml"
printf '<invoice id="2"/>\n' > "$demo/samples/batch/invoice-2.xml"

step() { printf '\n== %s\n' "$*"; }

step "start the service: qxlite-svc --config out/demo/config.json --token-file out/demo/ipc.token --port 0 --foreground"
"$root/build/qxlite-svc" --config "$demo/config.json" --token-file "$demo/ipc.token" \
  --port 0 --foreground --scan-interval 0.2 2> "$demo/service.log" &
svc=$!
trap 'kill "$svc" 2>/dev/null || true' EXIT
port=""
for _ in $(seq 100); do
  port=$(grep -o 'serving on 127.0.0.1:[0-9]*' "$demo/service.log" | cut -d: -f2 || true)
  [ -n "$port" ] && break
  kill -0 "$svc" 2>/dev/null || { cat "$demo/service.log"; exit 1; }
  sleep 0.1
done
[ -n "$port" ] || { echo "the service did not start" >&2; cat "$demo/service.log"; exit 1; }
cat "$demo/service.log"

q() { echo "\$ qxlite $*"; "$root/build/qxlite" --port "$port" --token-file "$demo/ipc.token" "$@"; }

step "is it running?";               q status
step "drop a file";                  q drop "$demo/samples/report.pdf"
step "drop another";                 q drop "$demo/samples/ledger.csv"
step "drop a folder of two files";   q drop "$demo/samples/batch"
step "test the configuration";       q test-config
step "list the uploads";             sleep 0.5; q uploads
step "stop the service (SIGTERM)"
kill -TERM "$svc"
wait "$svc" || true
trap - EXIT
tail -n 8 "$demo/service.log"
step "what is on disk"
find "$demo/spool" | sort
