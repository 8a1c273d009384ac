#!/usr/bin/env bash
# The project's main job, end to end on this machine: installs what it needs,
# builds, starts a WebDAV server and an S3 gateway on loopback
# (scripts/test-servers.sh), starts the reference service with a
# configuration, token file, credentials, journal and spool folders under
# out/demo/ (nothing in /etc or /var), drops a few sample files with the
# client and shows them arrive on the WebDAV server and in `qxlite uploads`,
# points the service at an S3 bucket and does it again, then stops
# everything, showing each step.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" --target qxlite-svc qxlite qxlite-cfg

demo="$root/out/demo"
[ -d "$demo/servers" ] && bash "$root/scripts/test-servers.sh" stop "$demo/servers" >/dev/null 2>&1 || true
rm -rf "$demo"
mkdir -p "$demo/samples/batch"
chmod 0700 "$demo"

step() { printf '\n== %s\n' "$*"; }

step "start a WebDAV server and an S3 gateway on loopback: scripts/test-servers.sh start out/demo/servers"
bash "$root/scripts/test-servers.sh" start "$demo/servers" | grep -v '^QX_'
# shellcheck disable=SC1091
. "$demo/servers/env"
cleanup() {
  [ -n "${svc:-}" ] && kill "$svc" 2>/dev/null
  bash "$root/scripts/test-servers.sh" stop "$demo/servers" >/dev/null 2>&1 || true
}
trap cleanup EXIT

cat > "$demo/config.json" <<JSON
{"ReceiveFolder": "$demo/spool/in", "SpoolFolder": "$demo/spool/out",
 "BackupFolder": "$demo/spool/backup", "BackupExpireSecs": 604800,
 "AccountId": "demo", "MinFilesToZip": -8,
 "InetServer": "$QX_DAV_URL/uploads"}
JSON
# The upload account: a file only the service's user may read.
( umask 077; printf '{"user": "%s", "secret": "%s"}\n' "$QX_DAV_USER" "$QX_DAV_PASSWORD" > "$demo/credentials.json" )
printf '%%PDF-1.7 quarterly report\n' > "$demo/samples/report.pdf"
printf 'date,amount\n2026-11-01,120\n' > "$demo/samples/ledger.csv"
printf '<invoice id="1"/>\n' > "$demo/samples/batch/invoice-1.xml"
printf '<invoice id="2"/>\n' > "$demo/samples/batch/invoice-2.xml"

step "start the service: qxlite-svc --config out/demo/config.json --token-file out/demo/ipc.token --credentials out/demo/credentials.json --state-dir out/demo/state --runtime-dir out/demo/run --port 0 --foreground"
"$root/build/qxlite-svc" --config "$demo/config.json" --token-file "$demo/ipc.token" \
  --credentials "$demo/credentials.json" --state-dir "$demo/state" --runtime-dir "$demo/run" \
  --port 0 --foreground 2> "$demo/service.log" &
svc=$!
port=""
for _ in $(seq 100); do
  port=$(grep -o 'serving on 127.0.0.1:[0-9]*' "$demo/service.log" | cut -d: -f2 || true)
  [ -n "$port" ] && break
  kill -0 "$svc" 2>/dev/null || { cat "$demo/service.log"; exit 1; }
  sleep 0.1
done
[ -n "$port" ] || { echo "the service did not start" >&2; cat "$demo/service.log"; exit 1; }
cat "$demo/service.log"

# The client finds the service through its runtime file: each line shown is
# the command run, and can be copied as it stands (from the project's folder).
cd "$root"
q() { echo "\$ build/qxlite --runtime-dir out/demo/run $*"; build/qxlite --runtime-dir out/demo/run "$@"; }

step "is it running?";               q status
step "drop a file";                  q drop out/demo/samples/report.pdf
step "drop another";                 q drop out/demo/samples/ledger.csv
step "drop a folder of two files (MinFilesToZip is 2 here: it goes as one zip)"; q drop out/demo/samples/batch
step "test the configuration";       q test-config

# Until every job is done (or 30 s).
wait_done() {
  for _ in $(seq 300); do
    build/qxlite --runtime-dir out/demo/run uploads | grep -q ' 0 queued, 0 uploading' && return 0
    sleep 0.1
  done
  return 1
}
step "list the uploads";             wait_done || true; q uploads
step "what the WebDAV server holds (under $QX_DAV_URL/uploads)"
( cd "$QX_DAV_ROOT/uploads" && find . -type f | sort )

step "point the service at an S3 bucket: the account's key in the credentials file, then the address"
curl -fsS -X PUT --aws-sigv4 "aws:amz:$QX_S3_REGION:s3" -u "$QX_S3_ACCESS_KEY:$QX_S3_SECRET_KEY" \
  -H "x-amz-content-sha256: e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855" \
  "$QX_S3_ENDPOINT/demo-bucket" >/dev/null
( umask 077; printf '{"user": "%s", "secret": "%s"}\n' "$QX_S3_ACCESS_KEY" "$QX_S3_SECRET_KEY" > "$demo/credentials.json" )
q config set "InetServer=s3://${QX_S3_ENDPOINT#http://}/demo-bucket/scans"
step "drop the report again";        q drop out/demo/samples/report.pdf
step "list the uploads";             wait_done || true; q uploads
step "what the bucket holds"
curl -fsS --aws-sigv4 "aws:amz:$QX_S3_REGION:s3" -u "$QX_S3_ACCESS_KEY:$QX_S3_SECRET_KEY" \
  -H "x-amz-content-sha256: e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855" \
  "$QX_S3_ENDPOINT/demo-bucket?list-type=2" | grep -o '<Key>[^<]*</Key>' | sed 's/<[^>]*>//g'

step "stop the service (SIGTERM)"
kill -TERM "$svc"
wait "$svc" || true
svc=""
tail -n 12 "$demo/service.log"
step "what is on disk (the backups: BackupExpireSecs is a week here)"
find "$demo/spool" | sort
