#!/usr/bin/env bash
# Makes the Debian package, has lintian look at it, installs it into a fresh Debian 12 with nothing else in it, picks and makes
# the page there, and removes it:
#   sudo tests/package.sh [MIRROR]                         (default: http://deb.debian.org/debian)
# Exit status 77 where it isn't run by root, or no Debian can be fetched.
set -eu
cd "$(dirname "$0")/.."
mirror=${1:-http://deb.debian.org/debian}
[ "$(id -u)" -eq 0 ] || { echo "skipped: a fresh Debian needs root"; exit 77; }
tools/install_packages.sh build package
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$(nproc)" >/dev/null
(cd build && cpack -B "$work/package" >/dev/null)
packages=("$work"/package/*.deb)
echo "== lintian"
lintian --allow-root --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs "${packages[@]}"
echo "No errors or warnings: ${packages[*]##*/}"

echo "== a fresh Debian 12"
debootstrap --variant=minbase bookworm "$work/root" "$mirror" >"$work/log" 2>&1 || {
  tail -n 3 "$work/log"
  echo "skipped: no Debian from $mirror"
  exit 77
}
cp "${packages[@]}" "$work/root/tmp/"
inside() { chroot "$work/root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive bash -euc "$1"; }
inside 'apt-get install -y --no-install-recommends /tmp/kestrix_*.deb' >"$work/log" 2>&1 || { tail -n 5 "$work/log"; exit 1; }
grep -E '^(The following NEW|Setting up kestrix)' -A3 "$work/log" | head -n 12
inside '
  kestrix --version
  mkdir /session && cd /session
  kestrix_simulate --number 2 --nx 2048 --ny 2048 --prefix mic_ >/dev/null
  kestrix --auto 1 --apixM 1.34 --diameter 260 --summary all.star mic_00?.mrc >log
  for n in 1 2; do
    kestrix_score --brief mic_00${n}_truth.star mic_00${n}_quorlin.star | awk "{ print \"F1\", \$6; exit !(\$6 > 0.9) }"
  done
  kestrix_report --apixM 1.34 --diameter 260 mic_00?.mrc >/dev/null
  ls -s kestrix_report/index.html
  apt-get purge -y kestrix >/dev/null 2>&1
  echo "Left behind: $(find /usr -name "*kestrix*" | wc -l) files"
  [ "$(find /usr -name "*kestrix*" | wc -l)" -eq 0 ]'
