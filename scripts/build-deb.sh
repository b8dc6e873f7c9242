#!/usr/bin/env bash
# Builds the Debian packages (mox-engine, libmoxcommon0, libmoxcommon-dev,
# moxctl) from the working tree with `dpkg-buildpackage -us -uc -b` and checks
# them with lintian (no error, no warning). The source is copied to
# build-deb/mox-engine-VERSION so that nothing is written next to the
# checkout; the .deb files end up in build-deb/.
#   scripts/build-deb.sh            build and lint
#   scripts/build-deb.sh --lint     lint what is there
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
OUT=$ROOT/build-deb
VERSION=$(dpkg-parsechangelog -l "$ROOT/debian/changelog" -S Version)
SRC=$OUT/mox-engine-$VERSION

need=(debhelper lintian fakeroot dpkg-dev rsync)
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

export DEB_BUILD_OPTIONS=${DEB_BUILD_OPTIONS:-parallel=$(nproc)}
if [ "${1:-}" != "--lint" ]; then
  mkdir -p "$OUT"
  rm -f "$OUT"/*.deb "$OUT"/*.changes "$OUT"/*.buildinfo
  # The tree as it is (uncommitted changes included), without build output.
  # The copy keeps its path from run to run, so ccache hits.
  mkdir -p "$SRC"
  rsync -a --delete --exclude='/build*' --exclude='/.git' --exclude='/obj-*' "$ROOT/" "$SRC/"
  (cd "$SRC" && dpkg-buildpackage -us -uc -b)
fi
CHANGES=$(ls "$OUT"/mox-engine_"$VERSION"_*.changes)
echo "== lintian $CHANGES"
# --fail-on warning: an error or a warning fails the build; overrides carry
# their reason in debian/*.lintian-overrides.
lintian --fail-on error,warning --info --display-info "$CHANGES"
echo "== lintian: no error, no warning"
