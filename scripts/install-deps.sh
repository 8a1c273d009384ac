#!/usr/bin/env bash
# Installs the Debian packages that building and testing the project need.
# Runs apt-get only when a package is missing; needs root (or sudo).
set -euo pipefail

packages=(
  g++ clang cmake ninja-build pkg-config git
  libboost-filesystem-dev libboost-thread-dev libboost-system-dev
  libjansson-dev libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev libcurl4-openssl-dev libssl-dev
  systemd libclang-rt-14-dev
  libzip-dev libsqlite3-dev
  # The Debian packages: built by CPack (dpkg-shlibdeps, file), checked with
  # lintian; their test runs the service with ps and adduser at hand.
  dpkg-dev file lintian adduser procps
  # The manual pages (scdoc builds them, man renders them in their test) and
  # the folder of the bash completions (bash-completion's pkg-config file).
  scdoc man-db groff-base bash-completion
  # The reference of the public headers (the docs target and its test).
  doxygen
  # The desktop program qxlite-ui (Qt 6 Widgets and Qt Test), its SVG icon
  # (the icon engine), lupdate/lrelease for its translations; its package's
  # test checks the installed desktop entry (desktop-file-validate).
  qt6-base-dev libqt6svg6 qt6-l10n-tools desktop-file-utils
  # qxlite-ui under a real X server (UiXvfbTest): the server, xauth (which
  # xvfb-run needs and does not pull in), keyboard and mouse from outside, a
  # tray, and xwininfo to see the program's icon inside it.
  xvfb xauth xdotool trayer x11-utils
  # The upload targets of the tests (scripts/test-servers.sh) and a reference client.
  ceph-mon ceph-osd radosgw ceph-common nginx libnginx-mod-http-dav-ext curl rclone
  # The SMTP server that receives the e-mail notices in the tests (with openssl's certificates).
  python3-aiosmtpd openssl
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
