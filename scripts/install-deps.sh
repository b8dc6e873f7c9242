#!/usr/bin/env bash
# Installs the Debian packages the engine needs to build, run and test.
# Idempotent: packages already present are not touched, and the package index
# is refreshed only when something is missing.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config clang clang-format-14 libclang-rt-14-dev ccache
  libglib2.0-dev libglib2.0-bin dbus-daemon
  libboost-thread-dev libboost-system-dev
  libjsoncpp-dev libcurl4-openssl-dev libexif-dev libtag1-dev libavformat-dev
  imagemagick libimage-exiftool-perl ffmpeg
  uuid-dev libsystemd-dev libudev-dev umockdev libumockdev-dev systemd util-linux
  libgtest-dev libgmock-dev libbenchmark-dev valgrind
  libcli11-dev jq python3 bsdutils tmux
  libfuse3-dev fuse3 e2fsprogs libsqlite3-dev
  debhelper lintian fakeroot dpkg-dev rsync
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "Installing: ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
