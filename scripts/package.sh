#!/usr/bin/env bash
# Builds the Debian package and checks it: configures a tree for /usr (no tests, no
# benchmarks) unless BUILD_DIR is already configured, builds it, runs cpack -G DEB,
# installs the package into a scratch root with dpkg and runs the installed
# marquelctl --version. With --lintian it also runs lintian, which must then be installed
# (apt-get install lintian), and fails on any error it reports.
# Usage: scripts/package.sh [--lintian] [BUILD_DIR]   (default build-deb; the .deb lands there)
set -euo pipefail
cd "$(dirname "$0")/.."
lint=0
if [ "${1:-}" = "--lintian" ]; then
  lint=1
  shift
fi
dir="${1:-build-deb}"
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
    -DMARQUEL_BUILD_TESTS=OFF -DMARQUEL_BUILD_BENCH=OFF >/dev/null
fi
# The package installs into /usr, and the tree names its prefix in the files it installs.
grep -qx 'CMAKE_INSTALL_PREFIX:PATH=/usr' "$dir/CMakeCache.txt" \
  || { echo "FAIL: $dir is not configured with -DCMAKE_INSTALL_PREFIX=/usr"; exit 1; }
cmake --build "$dir" -j "$(nproc)" >/dev/null
rm -f "$dir"/marquel_*.deb
(cd "$dir" && cpack -G DEB >/dev/null)
deb="$(ls "$dir"/marquel_*.deb)"
echo "package: $deb"
dpkg-deb --field "$deb" Package Version Architecture Depends

root="$(mktemp -d)"
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/log"
touch "$root/var/lib/dpkg/status"
# The scratch root has no other package, so dpkg's complaints about dependencies are
# expected; its output is shown only when the install fails.
dpkg --root="$root" --force-not-root --force-depends --log=/dev/null -i "$deb" >"$root/dpkg.out" 2>&1 \
  || { cat "$root/dpkg.out"; echo "FAIL: dpkg could not install the package"; exit 1; }
version="$("$root/usr/bin/marquelctl" --version)"
echo "installed marquelctl --version: $version"
[[ $version == *"$(dpkg-deb --field "$deb" Version)"* ]] \
  || { echo "FAIL: marquelctl --version does not name the package's version"; exit 1; }
[ -x "$root/usr/bin/marquel64" ] || { echo "FAIL: no /usr/bin/marquel64 in the package"; exit 1; }
grep -qx "ExecStart=/usr/bin/marquel64" "$root/usr/lib/systemd/user/marquel64.service" \
  || { echo "FAIL: the packaged unit does not run /usr/bin/marquel64"; exit 1; }

if [ $lint = 1 ]; then
  lintian --tag-display-limit 0 --fail-on error "$deb" || { echo "FAIL: lintian reports errors"; exit 1; }
fi
echo "package installed and runs"
