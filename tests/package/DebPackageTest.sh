#!/usr/bin/env bash
# The Debian packages, as an administrator meets them: builds them from the
# build tree (cpack), checks them with lintian (no error), installs them with
# apt-get, checks the service's user, group and folders, runs the installed
# service exactly as its unit's ExecStart would (as its user, without
# systemd), drops a file with the installed client and sees it queued (no
# upload server is set), stops the service, purges the packages and checks
# that what they made is gone while the dropped document stays. When the build
# has the desktop program, its package qxlite-ui goes the same way: its
# dependencies (Qt's libraries, which the service's package must not pull
# in), the program run from the installed files (--version, --help, with no
# display), its desktop entry checked by desktop-file-validate, and nothing
# of it left after the purge.
#
# It installs system-wide: it needs root, runs alone (RUN_SERIAL), refuses a
# machine that already has the packages or the user qxlite, sets the
# service's folders aside when they exist, and leaves the machine as it
# found it, also when it fails.
#   DebPackageTest.sh BUILD_DIR
set -euo pipefail
build=$1

packages=(qxlite libqxlitecommon-dev libqxlitecommon7)
components=$(sed -n 's/^set(CPACK_COMPONENTS_ALL "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
with_ui=false
if [[ ";$components;" == *";ui;"* ]]; then
  with_ui=true
  packages=(qxlite-ui "${packages[@]}")
fi
made=(/etc/QXLite /var/lib/qxlite /var/spool/QXUpload)
spool=/var/spool/QXUpload
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")

fail() {
  echo "FAILED: $*" >&2
  exit 1
}
# expect WHAT EXPECTED ACTUAL
expect() {
  [ "$2" = "$3" ] || fail "$1: expected \"$2\", got \"$3\""
}
known_to_dpkg() {
  local state
  state=$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) || return 1
  [ -n "$state" ] && [ "$state" != "not-installed" ]
}
wait_for_line() {  # FILE TEXT SECONDS
  local deadline=$((SECONDS + $3))
  until grep -qF -- "$2" "$1"; do
    [ $SECONDS -lt $deadline ] || { cat "$1" >&2; fail "no line \"$2\" in $1 within $3 s"; }
    kill -0 "$svc_pid" 2>/dev/null || { cat "$1" >&2; fail "the service ended before \"$2\""; }
    sleep 0.1
  done
}

[ "$(id -u)" -eq 0 ] || fail "needs root: it installs and removes packages system-wide"
for p in "${packages[@]}"; do
  ! known_to_dpkg "$p" || fail "the package $p is on this machine already; the test would remove it"
done
! getent passwd qxlite >/dev/null || fail "the user qxlite exists already; the test would remove it"
! getent group qxlite >/dev/null || fail "the group qxlite exists already; the test would remove it"
[ -n "$version" ] || fail "no package version in $build"
# Folders of an earlier installation by hand (or a service once run as root
# with the defaults) are set aside whole and put back at the end.
set_aside=()
for f in "${made[@]}"; do
  [ ! -e "$f.before-DebPackage" ] || fail "$f.before-DebPackage exists: left by a test run that was killed; put it back as $f"
done

work=$(mktemp -d)
# apt-get reads local packages as its own unprivileged user.
chmod 0755 "$work"
svc_pid=""
started=$SECONDS

cleanup() {
  local status=$?
  set +e
  if [ -n "$svc_pid" ] && kill -0 "$svc_pid" 2>/dev/null; then
    kill -TERM "$svc_pid"
    wait "$svc_pid" 2>/dev/null
  fi
  local left=()
  for p in "${packages[@]}"; do
    known_to_dpkg "$p" && left+=("$p")
  done
  if [ ${#left[@]} -gt 0 ]; then
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "${left[@]}" >/dev/null 2>&1 ||
      dpkg --purge "${left[@]}" >/dev/null 2>&1
  fi
  # What was there before the test was set aside; the rest is the test's.
  rm -rf "${made[@]}"
  for f in "${set_aside[@]}"; do
    mv "$f.before-DebPackage" "$f"
  done
  getent passwd qxlite >/dev/null && userdel qxlite
  getent group qxlite >/dev/null && groupdel qxlite
  rm -rf "$work"
  exit $status
}
trap cleanup EXIT
# A stop from outside (ctest's time limit, ^C) cleans up too.
trap 'exit 143' TERM
trap 'exit 130' INT
for f in "${made[@]}"; do
  if [ -e "$f" ]; then
    mv "$f" "$f.before-DebPackage"
    set_aside+=("$f")
  fi
done

# Packages.
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/cpack" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack"; }
debs=()
for p in "${packages[@]}"; do
  deb=$(echo "$work/cpack/${p}_${version}_"*.deb)
  [ -f "$deb" ] || { ls "$work/cpack" >&2; fail "no package $p"; }
  debs+=("$deb")
done
echo "packages built in $((SECONDS - started)) s"

lintian_started=$SECONDS
# lintian warns on stderr that it runs as root; its findings go to stdout.
lintian --fail-on error --no-tag-display-limit "${debs[@]}" 2>/dev/null | tee "$work/lintian.txt" ||
  fail "lintian reports an error"
echo "lintian: $(grep -c '^E:' "$work/lintian.txt" || true) errors, $(grep -c '^W:' "$work/lintian.txt" || true) warnings in $((SECONDS - lintian_started)) s"

# What each package depends on: the libraries' package of the same version,
# and Qt for the desktop program only.
qxlite_depends=$(dpkg-deb -f "$work/cpack/qxlite_${version}_"*.deb Depends)
[[ "$qxlite_depends" == "libqxlitecommon7 (= $version), "* ]] || fail "qxlite's dependencies: $qxlite_depends"
[[ "$qxlite_depends" != *libqt* ]] || fail "the service's package pulls in Qt: $qxlite_depends"
if $with_ui; then
  ui_deb=$(echo "$work/cpack/qxlite-ui_${version}_"*.deb)
  ui_depends=$(dpkg-deb -f "$ui_deb" Depends)
  [[ "$ui_depends" == "libqxlitecommon7 (= $version), "* ]] || fail "qxlite-ui's dependencies: $ui_depends"
  for qt in libqt6core6 libqt6gui6 libqt6widgets6; do
    [[ "$ui_depends" == *"$qt "* ]] || fail "qxlite-ui does not depend on $qt: $ui_depends"
  done
  expect "qxlite-ui's recommendations" "qxlite" "$(dpkg-deb -f "$ui_deb" Recommends)"
fi

# Installation.
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${debs[@]}" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log" >&2; fail "apt-get install"; }

# What postinst made; it makes the same when it runs again (a reinstall), and
# keeps what is there.
check_setup() {
  IFS=: read -r _ _ uid gid _ home shell < <(getent passwd qxlite) || fail "no user qxlite"
  [ "$uid" -lt 1000 ] || fail "qxlite is not a system user (uid $uid)"
  expect "qxlite's primary group" "qxlite" "$(getent group "$gid" | cut -d: -f1)"
  expect "qxlite's home" "/var/lib/qxlite" "$home"
  expect "qxlite's shell" "/usr/sbin/nologin" "$shell"
  for folder in /etc/QXLite /var/lib/qxlite "$spool" "$spool/in" "$spool/out" "$spool/backup" "$spool/backup/.rejected"; do
    expect "owner and mode of $folder" "qxlite:qxlite 750" "$(stat -c '%U:%G %a' "$folder" 2>&1)"
  done
  expect "the configuration that the package made" "{}" "$(cat /etc/QXLite/config.json)"
  expect "owner and mode of /etc/QXLite/config.json" "qxlite:qxlite 600" "$(stat -c '%U:%G %a' /etc/QXLite/config.json)"
}
check_setup
first_uid=$uid
/var/lib/dpkg/info/qxlite.postinst configure "$version" >"$work/postinst-again.log" 2>&1 ||
  { cat "$work/postinst-again.log" >&2; fail "postinst configure, run again"; }
check_setup
expect "qxlite's uid after postinst ran again" "$first_uid" "$uid"
expect "qxlite --version" "qxlite $version" "$(qxlite --version)"
expect "qxlite-svc --version" "qxlite-svc $version" "$(qxlite-svc --version)"
expect "qxlite-cfg --version" "qxlite-cfg $version" "$(qxlite-cfg --version)"
if $with_ui; then
  # As from a terminal with no display: neither option needs one.
  no_display=(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM)
  expect "qxlite-ui --version" "qxlite-ui $version" "$("${no_display[@]}" qxlite-ui --version 2>&1)"
  "${no_display[@]}" qxlite-ui --help >"$work/ui-help.txt" 2>&1 || { cat "$work/ui-help.txt" >&2; fail "qxlite-ui --help"; }
  expect "qxlite-ui --help, first line" "Usage: qxlite-ui [options] [FILE...]" "$(head -n 1 "$work/ui-help.txt")"
  for option in "-h, --help" "--version" "--port <PORT>" "--token-file <FILE>" "--runtime-dir <DIR>"; do
    grep -qF -- "  $option  " "$work/ui-help.txt" || { cat "$work/ui-help.txt" >&2; fail "qxlite-ui --help does not name $option"; }
  done
  ui_files=(/usr/bin/qxlite-ui /usr/share/applications/qxlite-ui.desktop /usr/share/icons/hicolor/scalable/apps/qxlite-ui.svg)
  # Its manual page, where the build made the pages (scdoc).
  [ ! -f "$build/man/qxlite-ui.1.gz" ] || ui_files+=(/usr/share/man/man1/qxlite-ui.1.gz)
  for f in "${ui_files[@]}"; do
    dpkg -L qxlite-ui | grep -qxF "$f" || fail "the package qxlite-ui does not hold $f"
  done
  # Hints (a remark on the categories) are not errors; an error fails.
  desktop-file-validate /usr/share/applications/qxlite-ui.desktop >"$work/desktop.txt" 2>&1 ||
    { cat "$work/desktop.txt" >&2; fail "desktop-file-validate finds the installed desktop entry invalid"; }
fi
unit=$(dpkg -L qxlite | grep '/systemd/system/qxlite-svc.service$') || fail "the package has no unit"
[ -L /etc/systemd/system/multi-user.target.wants/qxlite-svc.service ] || fail "the unit is not enabled"

# The service, as its unit starts it.
unit_value() {
  sed -n "s/^$1=//p" "$unit"
}
read -r -a exec_start <<<"$(unit_value ExecStart)"
expect "the unit's program" "/usr/bin/qxlite-svc" "${exec_start[0]}"
user=$(unit_value User)
group=$(unit_value Group)
umask_value=$(unit_value UMask)
# The administrator's configuration: the port, an OS-chosen free one. The
# rest stays the defaults, as in the file that the package made.
port=$(perl -MIO::Socket::INET -e 'print IO::Socket::INET->new(Listen => 1, LocalAddr => "127.0.0.1:0")->sockport')
printf '{"IpcPort": %s}\n' "$port" >"$work/config.json"
install -o qxlite -g qxlite -m 0600 "$work/config.json" /etc/QXLite/config.json
(
  umask "$umask_value"
  cd /
  # The environment that systemd gives a service with User=.
  exec env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
    HOME="$home" USER="$user" LOGNAME="$user" SHELL="$shell" \
    setpriv --reuid="$user" --regid="$group" --init-groups -- "${exec_start[@]}"
) 2>"$work/svc.log" &
svc_pid=$!
wait_for_line "$work/svc.log" "serving on 127.0.0.1:$port with configuration \"/etc/QXLite/config.json\", token file \"/etc/QXLite/ipc.token\", incoming folder \"$spool/in\"" 20
expect "the service's user" "qxlite" "$(ps -o user= -p "$svc_pid")"
expect "owner and mode of the token file" "qxlite:qxlite 640" "$(stat -c '%U:%G %a' /etc/QXLite/ipc.token)"

# A drop, with the installed client, found as an administrator finds it (the
# token file where the service keeps it).
head -c 12345 /dev/urandom >"$work/scan.pdf"
qxlite --port "$port" drop "$work/scan.pdf" >"$work/drop.txt" 2>&1 || { cat "$work/drop.txt" >&2; fail "qxlite drop"; }
expect "what qxlite drop says" "dropped \"$work/scan.pdf\": 1 file(s), 12.1 KiB" "$(cat "$work/drop.txt")"
wait_for_line "$work/svc.log" 'queued "scan.pdf" as job ' 20
job=$(sed -n 's/.*queued "scan.pdf" as job \([0-9TZ]*-[0-9a-f]*\).*/\1/p' "$work/svc.log")
[ -n "$job" ] || fail "no job id in: $(grep 'queued "scan.pdf"' "$work/svc.log")"
cmp "$work/scan.pdf" "$spool/out/$job/scan.pdf" || fail "the job's file differs from the dropped one"
expect "owner of the job's file" "qxlite:qxlite" "$(stat -c '%U:%G' "$spool/out/$job/scan.pdf")"
expect "owner of the journal" "qxlite:qxlite" "$(stat -c '%U:%G' /var/lib/qxlite/journal.db)"
# No upload server is set: the job waits, and both commands say why.
qxlite --port "$port" uploads >"$work/uploads.txt" || fail "qxlite uploads"
for line in "$job queued      12.1 KiB    0%     0           scan.pdf" \
            "1 queued, 0 uploading, 0 done, 0 failed, 0 rejected, 0 cancelled; 0 B/s" \
            'held: no server address is set ("InetServer")'; do
  grep -qxF "$line" "$work/uploads.txt" || { cat "$work/uploads.txt" >&2; fail "qxlite uploads does not say: $line"; }
done
qxlite --port "$port" status >"$work/status.txt" || fail "qxlite status"
for line in "uploads: 1 queued, 0 uploading, 0 done, 0 failed, 0 rejected, 0 cancelled" \
            'uploads held: no server address is set ("InetServer")'; do
  grep -qxF "$line" "$work/status.txt" || { cat "$work/status.txt" >&2; fail "qxlite status does not say: $line"; }
done

kill -TERM "$svc_pid"
svc_status=0
wait "$svc_pid" || svc_status=$?
svc_pid=""
expect "the service's exit status after SIGTERM" 0 "$svc_status"

# Removal.
DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "${packages[@]}" >"$work/purge.log" 2>&1 ||
  { cat "$work/purge.log" >&2; fail "apt-get purge"; }
for p in "${packages[@]}"; do
  ! known_to_dpkg "$p" || fail "the package $p is still known to dpkg"
done
! getent passwd qxlite >/dev/null || fail "the user qxlite is still there"
! getent group qxlite >/dev/null || fail "the group qxlite is still there"
ui_gone=()
$with_ui && ui_gone=("${ui_files[@]}")
for gone in /etc/QXLite /var/lib/qxlite "$spool/in" "$spool/backup" "$unit" /usr/bin/qxlite-svc \
            /etc/systemd/system/multi-user.target.wants/qxlite-svc.service "${ui_gone[@]}"; do
  [ ! -e "$gone" ] && [ ! -L "$gone" ] || fail "$gone is still there after the purge"
done
cmp "$work/scan.pdf" "$spool/out/$job/scan.pdf" || fail "the purge took the document that was not uploaded"
grep -qF "qxlite: kept $spool/out: it is not empty (documents not uploaded yet, or their backups); remove it once they are not needed" "$work/purge.log" ||
  { cat "$work/purge.log" >&2; fail "the purge does not say that $spool/out was kept"; }

echo "installed, ran, dropped and purged in $((SECONDS - started)) s"
