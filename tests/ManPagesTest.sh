#!/usr/bin/env bash
# The manual pages as a person reads them: each renders at 80 columns without
# a single warning, its SYNOPSIS, OPTIONS and COMMANDS name every option that
# its program's --help (and each sub-command's) lists, and qxlite-config(5)
# shows every key of `qxlite config keys` with its type and default. With
# QXLITE_UI (a build with the desktop program) qxlite-ui(1) is checked too.
#   ManPagesTest.sh MAN_DIR QXLITE QXLITE_SVC QXLITE_CFG [QXLITE_UI]
set -uo pipefail
man_dir=$1 qxlite=$2 qxlite_svc=$3 qxlite_cfg=$4 qxlite_ui=${5:-}
pages=(qxlite.1 qxlite-cfg.1 qxlite-config.5 qxlite-svc.8)
[ -z "$qxlite_ui" ] || pages+=(qxlite-ui.1)
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# The page as plain text, one line a paragraph (no line is broken).
plain() { LC_ALL=C MANWIDTH=1000 man -l "$1" 2>/dev/null | col -b; }

# The lines of the sections of a plain page named after the first argument.
sections() {
  local page=$1; shift
  local wanted
  wanted=$(printf '%s|' "$@")
  plain "$page" | awk -v wanted="|${wanted}" '
    /^[A-Z][A-Z ]*$/ { keep = index(wanted, "|" $0 "|") > 0; next }
    keep'
}

# Every option a help text names: --long ones and -h style short ones.
help_options() { grep -oE -- '(^|[ ,])--?[a-zA-Z][a-zA-Z0-9-]*' | sed 's/^[ ,]//' | sort -u; }

# Each of qxlite's commands, one a line ("status", "config get", ...).
qxlite_commands() {
  local prefix=("$@") sub
  for sub in $("$qxlite" "${prefix[@]}" --help | awk '/^Subcommands:/ { on = 1; next } on && NF { print $1 }'); do
    echo "${prefix[*]} $sub" | sed 's/^ //'
    qxlite_commands "${prefix[@]}" "$sub"
  done
}

# 1. Every page renders without a warning.
for page in "${pages[@]}"; do
  [ -s "$man_dir/$page" ] || { fail "$page was not built in $man_dir"; continue; }
  [ -s "$man_dir/$page.gz" ] || fail "$page.gz (the installed form) was not built"
  warnings=$(MANWIDTH=80 man --warnings -l "$man_dir/$page" 2>&1 >/dev/null)
  status=$?
  [ "$status" -eq 0 ] || fail "$page: man exits $status"
  [ -z "$warnings" ] || fail "$page: warnings: $warnings"
done

# 2. Every option of the programs' help is on their page.
check_options() {  # PAGE HELP-TEXT WHAT
  local page=$1 help=$2 what=$3 documented option
  documented=$(sections "$man_dir/$page" SYNOPSIS OPTIONS COMMANDS)
  [ -n "$documented" ] || { fail "$page has no SYNOPSIS, OPTIONS or COMMANDS"; return; }
  while read -r option; do
    [ -n "$option" ] || continue
    grep -qE -- "(^|[^a-zA-Z0-9-])${option}([^a-zA-Z0-9-]|\$)" <<<"$documented" ||
      fail "$page does not name $option of \`$what --help\`"
  done < <(help_options <<<"$help")
}
check_options qxlite-svc.8 "$("$qxlite_svc" --help)" qxlite-svc
check_options qxlite-cfg.1 "$("$qxlite_cfg" --help)" qxlite-cfg
check_options qxlite.1 "$("$qxlite" --help)" qxlite
# --help needs no display (the program reads its command line first).
[ -z "$qxlite_ui" ] || check_options qxlite-ui.1 "$(env -u DISPLAY -u WAYLAND_DISPLAY "$qxlite_ui" --help)" qxlite-ui
commands=$(qxlite_commands)
[ "$(wc -l <<<"$commands")" -ge 10 ] || fail "qxlite --help lists too few commands: $commands"
while read -r command; do
  # shellcheck disable=SC2086 # a command is words
  check_options qxlite.1 "$("$qxlite" $command --help)" "qxlite $command"
  sections "$man_dir/qxlite.1" COMMANDS | grep -q "^ *${command}\( \|\$\)" ||
    fail "qxlite.1 has no entry for the command \"$command\""
done <<<"$commands"

# 3. qxlite-config(5) shows each key of the program's table, its type and its
# default ("KEY (TYPE; default: VALUE)"), whitespace aside.
page_text=$(sections "$man_dir/qxlite-config.5" KEYS | tr -d ' \t\n')
keys=$("$qxlite" config keys | tail -n +2)
[ "$(wc -l <<<"$keys")" -ge 30 ] || fail "qxlite config keys lists too few keys: $keys"
while IFS= read -r line; do
  key=$(cut -c1-20 <<<"$line" | tr -d ' ')
  type=$(cut -c21-35 <<<"$line" | sed 's/ *$//')
  default=$(sed -n 's/.* (default: \(.*\))$/\1/p' <<<"$line")
  entry="$key($type${default:+; default: $default})"
  grep -qF -- "$(tr -d ' ' <<<"$entry")" <<<"$page_text" ||
    fail "qxlite-config.5 lacks the key entry $entry"
done <<<"$keys"

if [ "$failures" -gt 0 ]; then
  echo "$failures failure(s)" >&2
  exit 1
fi
echo "the manual pages render cleanly and name every option and key"
