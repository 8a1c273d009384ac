#!/usr/bin/env bash
# The bash completion of qxlite and qxlite-svc: each case sets COMP_WORDS and
# COMP_CWORD as bash would for a command line (bash splits "KEY=VALUE" and
# "--option=VALUE" at the "=", so the cases write it as three words), calls
# the completion function and compares COMPREPLY with what a person should
# be offered.
#   CompletionTest.sh COMPLETION_DIR QXLITE
set -uo pipefail
completion_dir=$1 qxlite=$2
# shellcheck source=/dev/null
source "$completion_dir/qxlite.bash" || exit 1
# shellcheck source=/dev/null
source "$completion_dir/qxlite-svc.bash" || exit 1

# The files to offer in a folder of their own; what the checks keep, beside it.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/files/sub"
touch "$work/files/a.pdf" "$work/files/b.csv" "$work/files/with space.pdf" "$work/files/sub/inner.txt"
cd "$work/files" || exit 1

failures=0 cases=0

# complete FUNCTION PROGRAM LINE: COMPREPLY, sorted, one a line. LINE is
# the command line up to the cursor; a blank at its end starts a new word.
complete_line() {
  local function=$1 program=$2 line=$3
  local -a words
  read -ra words <<<"$line"
  [[ $line == *' ' ]] && words+=('')
  words[0]=$program
  COMP_WORDS=("${words[@]}")
  COMP_CWORD=$((${#words[@]} - 1))
  COMP_LINE=$line
  COMP_POINT=${#line}
  COMPREPLY=()
  "$function" "$program" "${words[COMP_CWORD]}" "${words[COMP_CWORD-1]}"
  ((${#COMPREPLY[@]} == 0)) || printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort
}

# check FUNCTION PROGRAM LINE EXPECTED...: the words offered are exactly
# EXPECTED (none given: nothing is offered), and nothing is written on
# standard error.
check() {
  local function=$1 program=$2 line=$3
  shift 3
  cases=$((cases + 1))
  local got expected errors
  errors=$( { complete_line "$function" "$program" "$line" >"$work/.got"; } 2>&1)
  got=$(cat "$work/.got")
  expected=$( (($# == 0)) || printf '%s\n' "$@" | LC_ALL=C sort)
  if [[ $got != "$expected" || -n $errors ]]; then
    failures=$((failures + 1))
    echo "FAIL: \"$line\"" >&2
    echo "  expected: $(tr '\n' ' ' <<<"$expected")" >&2
    echo "  got:      $(tr '\n' ' ' <<<"$got")" >&2
    [[ -z $errors ]] || echo "  standard error: $errors" >&2
  fi
}

q() { check _qxlite "$qxlite" "$@"; }
svc() { check _qxlite_svc qxlite-svc "$@"; }

files=(a.pdf b.csv sub 'with space.pdf')
all_keys=()
while read -r key; do all_keys+=("$key="); done < <("$qxlite" config keys --names)
((${#all_keys[@]} >= 30)) || { echo "FAIL: qxlite config keys --names lists ${#all_keys[@]} keys" >&2; exit 1; }

# The commands and the global options.
q 'qxlite ' status config pause resume drop test-config call uploads cancel retry notify-test
q 'qxlite st' status
q 'qxlite --verbose c' config call cancel
q 'qxlite -' --host --port --token-file --runtime-dir --timeout --verbose --version --help
q 'qxlite --t' --token-file --timeout
q 'qxlite --port '
q 'qxlite --host 127.0.0.1 --port 45654 st' status
q 'qxlite --port = 45654 dr' drop
q 'qxlite --token-file ' "${files[@]}"
q 'qxlite --token-file = w' 'with space.pdf'
q 'qxlite --runtime-dir ' sub
q 'qxlite --timeout 5 up' uploads
# Each command's options.
q 'qxlite status -' --json --help
q 'qxlite pause --' --discard --help
q 'qxlite uploads --' --json --watch --help
q 'qxlite uploads --json --w' --watch
q 'qxlite resume -' --help
q 'qxlite config get -' --json --show-secrets --help
q 'qxlite config keys --' --names --help
q 'qxlite --port 1 config keys --n' --names
# config and its keys, asked of the program.
q 'qxlite config ' get keys save set
q 'qxlite config s' save set
q 'qxlite config set ' "${all_keys[@]}"
q 'qxlite config set Email' EmailSmtpUrl= EmailUser= EmailPassword= EmailRequireTls= EmailNotifySuccess= \
  EmailNotifyFailure= EmailFrom= EmailTo=
q 'qxlite config set Rec' ReceiveFolder=
q 'qxlite config set ReceiveFolder = /srv/in AccountId = x Spool' SpoolerId= SpoolFolder=
q 'qxlite config set ReceiveFolder ='
q 'qxlite config set ReceiveFolder = '
q 'qxlite config set Nothing'
q 'qxlite config get '
# Files where a command takes files.
q 'qxlite config save ' "${files[@]}"
q 'qxlite config save a.pdf '
q 'qxlite drop ' "${files[@]}"
q 'qxlite drop a.pdf s' sub
q 'qxlite drop sub/' sub/inner.txt
q 'qxlite test-config b' b.csv
q 'qxlite test-config b.csv '
q 'qxlite cancel '
q 'qxlite call '
# Without a program to ask, no keys and no noise.
check _qxlite "$work/no-such-qxlite" 'qxlite config set Rec'

# qxlite-svc: options, files, folders, groups.
svc 'qxlite-svc --t' --token-file --token-group --threads
svc 'qxlite-svc --h' --help --http-timeout
svc 'qxlite-svc --foreground --v' --verbose --version
svc 'qxlite-svc --config ' "${files[@]}"
svc 'qxlite-svc --config = sub/' sub/inner.txt
svc 'qxlite-svc --credentials a' a.pdf
svc 'qxlite-svc --log-file b' b.csv
svc 'qxlite-svc --mail-ca-file a' a.pdf
svc 'qxlite-svc --mail-' --mail-window --mail-per-hour --mail-ca-file
svc 'qxlite-svc --mail-window '
svc 'qxlite-svc --token-file w' 'with space.pdf'
svc 'qxlite-svc --state-dir ' sub
svc 'qxlite-svc --runtime-dir ' sub
svc 'qxlite-svc --token-group roo' root
svc 'qxlite-svc --port '
svc 'qxlite-svc --port 0 --fo' --foreground

# Both functions are bound to their programs.
[[ $(complete -p qxlite) == 'complete -F _qxlite qxlite' ]] || { failures=$((failures + 1)); echo "FAIL: complete -p qxlite: $(complete -p qxlite)" >&2; }
[[ $(complete -p qxlite-svc) == 'complete -F _qxlite_svc qxlite-svc' ]] || { failures=$((failures + 1)); echo "FAIL: complete -p qxlite-svc" >&2; }

echo "completion: $cases cases, $failures failing"
((failures == 0))
