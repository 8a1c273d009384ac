#!/usr/bin/env bash
# The configuration tool: report, normalised sparse file, errors that leave the
# file untouched. QXLITE_CFG names the program.
set -euo pipefail
tool=${QXLITE_CFG:?}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# A legacy file is normalised: legacy keys become current ones, keys sorted.
cat > "$work/config.json" <<'JSON'
{"SpoolerId": "12", "BackupEnabled": true, "SmtpHost": "mail.example.org", "SmtpPort": 587,
 "IgnoredExtension": ["tmp"], "SrvFileExts": ["pdf"], "ReceiveFolder": "/srv/in"}
JSON
out=$("$tool" "$work/config.json")
grep -qx 'Node Id: 12' <<<"$out" || fail "report lacks the node id: $out"
grep -qx 'Backup enabled, no expire' <<<"$out" || fail "report lacks the backup line"
grep -qx "Wrote \"$work/config.json\"" <<<"$out" || fail "no confirmation line"
expected='{"BackupExpireSecs":4294967295,"BackupFolder":"/var/spool/QXUpload/backup","EmailSmtpUrl":"smtp://mail.example.org:587","IgnoredExtension":["tmp","noqx","ds_store","db"],"ReceiveFolder":"/srv/in","SpoolFolder":"/var/spool/QXUpload/out","SpoolerId":12,"SrvFileExts":["pdf"]}'
[ "$(cat "$work/config.json")" = "$expected" ] || fail "normalised file: $(cat "$work/config.json")"
[ "$(stat -c %a "$work/config.json")" = 600 ] || fail "mode is not 0600"
# Running again changes nothing.
"$tool" "$work/config.json" >/dev/null
[ "$(cat "$work/config.json")" = "$expected" ] || fail "second run changed the file"

# A missing file gives a configuration of defaults.
"$tool" "$work/new.json" >/dev/null
grep -q '"SrvFileExts":\["pdf","ps"' "$work/new.json" || fail "defaults not written: $(cat "$work/new.json")"

# Malformed text: clear error, exit 2, file untouched.
printf '{"IpcPort": 5000,' > "$work/bad.json"
if err=$("$tool" "$work/bad.json" 2>&1 >/dev/null); then fail "malformed file accepted"; fi
grep -q "^qxlite-cfg: \"$work/bad.json\" is not a JSON object: JSON error: " <<<"$err" || fail "message: $err"
[ "$(cat "$work/bad.json")" = '{"IpcPort": 5000,' ] || fail "malformed file was changed"

# A refused value: clear error, file untouched.
printf '{"EmailSmtpUrl": "smtp://h:99999"}' > "$work/refused.json"
if err=$("$tool" "$work/refused.json" 2>&1 >/dev/null); then fail "refused value accepted"; fi
grep -q 'holds a value that is refused: .*99999' <<<"$err" || fail "message: $err"
[ "$(cat "$work/refused.json")" = '{"EmailSmtpUrl": "smtp://h:99999"}' ] || fail "refused file changed"

# A value of the wrong type is refused, never dropped: the file stays.
printf '{"ReceiveFolder": 5, "ConcurrentUploads": "four"}' > "$work/types.json"
if err=$("$tool" "$work/types.json" 2>&1 >/dev/null); then fail "wrong types accepted"; fi
[ "$err" = "qxlite-cfg: \"$work/types.json\" holds a value that is refused: \"ConcurrentUploads\" must be an integer from 1 to 1024" ] ||
  fail "message: $err"
[ "$(cat "$work/types.json")" = '{"ReceiveFolder": 5, "ConcurrentUploads": "four"}' ] || fail "file with wrong types changed"

# A folder that cannot be written (its parent is a regular file): clear error.
touch "$work/plain"
if err=$("$tool" "$work/plain/config.json" 2>&1 >/dev/null); then fail "write under a file accepted"; fi
grep -q 'cannot open' <<<"$err" || fail "message: $err"

# Usage.
if "$tool" 2>/dev/null; then fail "no argument accepted"; fi
