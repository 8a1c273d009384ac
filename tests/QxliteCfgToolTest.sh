#!/usr/bin/env bash
# The configuration tool: report, normalised sparse file, errors that leave the
# file untouched. QXLITE_CFG names the program.
set -euo pipefail
tool=${QXLITE_CFG:?}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# A legacy file: the report, and what normalising would change, key by key;
# without --write the file stays as it is.
cat > "$work/config.json" <<'JSON'
{"SpoolerId": "12", "BackupEnabled": true, "SmtpHost": "mail.example.org", "SmtpPort": 587,
 "IgnoredExtension": ["tmp"], "SrvFileExts": ["pdf"], "ReceiveFolder": "/srv/in", "Colour": "blue",
 "ConcurrentUploads": 2, "EmailPassword": "hunter2", "EmailUser": "mail"}
JSON
original=$(cat "$work/config.json")
changes='  SpoolerId: "12" → 12
  IgnoredExtension: ["tmp"] → ["tmp","noqx","ds_store","db"]
  SpoolFolder: (absent) → "/var/spool/QXUpload/out"
  BackupExpireSecs: (absent) → 4294967295
  BackupFolder: (absent) → "/var/spool/QXUpload/backup"
  ConcurrentUploads: 2 → (removed: the default)
  EmailSmtpUrl: (absent) → "smtp://mail.example.org:587"
  BackupEnabled: true → (removed: an older key, read into "BackupExpireSecs")
  SmtpHost: "mail.example.org" → (removed: an older key, read into "EmailSmtpUrl")
  SmtpPort: 587 → (removed: an older key, read into "EmailSmtpUrl")
  Colour: "blue" → (removed: not a configuration key)'
out=$("$tool" "$work/config.json")
grep -qx 'Node Id: 12' <<<"$out" || fail "report lacks the node id: $out"
grep -qx 'Backup enabled, no expire' <<<"$out" || fail "report lacks the backup line"
tail=$(sed -n '/^Normalising/,$p' <<<"$out")
[ "$tail" = "Normalising would change:
$changes
\"$work/config.json\" was not changed: qxlite-cfg --write $work/config.json writes the normalised form" ] ||
  fail "changes without --write: $tail"
grep -q hunter2 <<<"$out" && fail "a password was shown: $out"
[ "$(cat "$work/config.json")" = "$original" ] || fail "the file changed without --write"

# --write writes the normalised form and lists the same changes.
out=$("$tool" --write "$work/config.json")
tail=$(sed -n '/^Normalising/,$p' <<<"$out")
[ "$tail" = "Normalising changed:
$changes
Wrote \"$work/config.json\"" ] || fail "changes with --write: $tail"
expected='{"BackupExpireSecs":4294967295,"BackupFolder":"/var/spool/QXUpload/backup","EmailPassword":"hunter2","EmailSmtpUrl":"smtp://mail.example.org:587","EmailUser":"mail","IgnoredExtension":["tmp","noqx","ds_store","db"],"ReceiveFolder":"/srv/in","SpoolFolder":"/var/spool/QXUpload/out","SpoolerId":12,"SrvFileExts":["pdf"]}'
[ "$(cat "$work/config.json")" = "$expected" ] || fail "normalised file: $(cat "$work/config.json")"
[ "$(stat -c %a "$work/config.json")" = 600 ] || fail "mode is not 0600"
# A normalised file has nothing to change.
out=$("$tool" "$work/config.json")
[ "$(tail -n 1 <<<"$out")" = "\"$work/config.json\" is in normalised form" ] || fail "second run: $out"
grep -q '^Normalising' <<<"$out" && fail "a normalised file lists changes: $out"
[ "$(cat "$work/config.json")" = "$expected" ] || fail "second run changed the file"

# A missing file: nothing is written without --write; with it, defaults.
out=$("$tool" "$work/new.json")
[ "$(tail -n 1 <<<"$out")" = "\"$work/new.json\" does not exist: qxlite-cfg --write $work/new.json writes a configuration of defaults" ] ||
  fail "missing file: $(tail -n 1 <<<"$out")"
[ -e "$work/new.json" ] && fail "a missing file was created without --write"
"$tool" --write "$work/new.json" >/dev/null
grep -q '"SrvFileExts":\["pdf","ps"' "$work/new.json" || fail "defaults not written: $(cat "$work/new.json")"

# The command shown can be copied: a path with a space and a quote is
# quoted for the shell.
odd="$work/my files/it's.json"
mkdir -p "$work/my files"
out=$("$tool" "$odd")
[ "$(tail -n 1 <<<"$out")" = "\"$odd\" does not exist: qxlite-cfg --write '$work/my files/it'\\''s.json' writes a configuration of defaults" ] ||
  fail "quoted path: $(tail -n 1 <<<"$out")"

# Malformed text: clear error, exit 2, file untouched.
printf '{"IpcPort": 5000,' > "$work/bad.json"
if err=$("$tool" --write "$work/bad.json" 2>&1 >/dev/null); then fail "malformed file accepted"; fi
grep -q "^qxlite-cfg: \"$work/bad.json\" is not a JSON object: JSON error: " <<<"$err" || fail "message: $err"
[ "$(cat "$work/bad.json")" = '{"IpcPort": 5000,' ] || fail "malformed file was changed"

# A refused value: clear error, file untouched.
printf '{"EmailSmtpUrl": "smtp://h:99999"}' > "$work/refused.json"
if err=$("$tool" --write "$work/refused.json" 2>&1 >/dev/null); then fail "refused value accepted"; fi
grep -q 'holds a value that is refused: .*99999' <<<"$err" || fail "message: $err"
[ "$(cat "$work/refused.json")" = '{"EmailSmtpUrl": "smtp://h:99999"}' ] || fail "refused file changed"

# A value of the wrong type is refused, never dropped: the file stays.
printf '{"ReceiveFolder": 5, "ConcurrentUploads": "four"}' > "$work/types.json"
if err=$("$tool" --write "$work/types.json" 2>&1 >/dev/null); then fail "wrong types accepted"; fi
[ "$err" = "qxlite-cfg: \"$work/types.json\" holds a value that is refused: \"ConcurrentUploads\" must be an integer from 1 to 1024" ] ||
  fail "message: $err"
[ "$(cat "$work/types.json")" = '{"ReceiveFolder": 5, "ConcurrentUploads": "four"}' ] || fail "file with wrong types changed"

# A folder that cannot be written (its parent is a regular file): clear error.
touch "$work/plain"
if err=$("$tool" --write "$work/plain/config.json" 2>&1 >/dev/null); then fail "write under a file accepted"; fi
grep -q 'cannot open' <<<"$err" || fail "message: $err"

# Usage.
if "$tool" 2>/dev/null; then fail "no argument accepted"; fi
