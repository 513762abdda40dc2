#!/usr/bin/env bash
# Installs the build tree into a scratch DESTDIR and checks that everything a user needs is
# there; then installs it into a scratch prefix, builds the consumer program against it with
# find_package(MarquelClient) and with pkg-config, and runs both on a private session bus,
# where the installed activation file starts the installed server.
# Usage: check_install.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build="$1"
consumer_src="$2"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
expect_file() { [ -f "$1" ] || fail "not installed: ${1#"$scratch"/}"; }

# The tree as a package would get it: the configured prefix under DESTDIR.
prefix="$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")"
DESTDIR="$scratch/dest" cmake --install "$build" >/dev/null
root="$scratch/dest$prefix"
for f in bin/marquel64 bin/marquelctl include/marquel/marquel_client.h include/marquel/hresult.h \
  share/dbus-1/interfaces/com.halvern.Marquel64.xml share/dbus-1/interfaces/com.halvern.Marquel.Status1.xml \
  share/dbus-1/services/com.halvern.Marquel64.service lib/systemd/user/marquel64.service \
  share/man/man1/marquel64.1.gz share/man/man1/marquelctl.1.gz share/man/man7/marquel.7.gz \
  share/bash-completion/completions/marquelctl share/doc/marquel/copyright; do
  expect_file "$root/$f"
done
for pattern in 'lib*/libmarquel-client.a' 'lib*/cmake/MarquelClient/MarquelClientConfig.cmake' \
  'lib*/pkgconfig/marquel-client.pc' 'share/zsh/*/_marquelctl'; do
  compgen -G "$root/$pattern" >/dev/null || fail "not installed: $pattern"
done
grep -qx "Exec=/bin/sh -c '$prefix/bin/marquel64 -RegServer && exec $prefix/bin/marquel64'" \
  "$root/share/dbus-1/services/com.halvern.Marquel64.service" || fail "activation file names another server"
grep -qx "ExecStart=$prefix/bin/marquel64" "$root/lib/systemd/user/marquel64.service" \
  || fail "unit names another server"
grep -qx "ExecStartPre=$prefix/bin/marquel64 -Service" "$root/lib/systemd/user/marquel64.service" \
  || fail "the unit does not register the user first"
grep -qx "Restart=on-failure" "$root/lib/systemd/user/marquel64.service" \
  || fail "the unit is not the one the server writes (no Restart=on-failure)"
grep -q -- '-std=c++17' "$root"/lib*/pkgconfig/marquel-client.pc || fail "pkg-config file names no standard"
gzip -t "$root/share/man/man1/marquel64.1.gz" || fail "man page is not gzip"

# A real prefix, as `cmake --install --prefix` makes it.
user="$scratch/prefix"
cmake --install "$build" --prefix "$user" >/dev/null
grep -q "Exec=/bin/sh -c '$user/bin/marquel64 -RegServer" "$user/share/dbus-1/services/com.halvern.Marquel64.service" \
  || fail "activation file does not follow --prefix"
"$user/bin/marquelctl" --version | grep -q . || fail "installed marquelctl has no version"

# A library built with a sanitizer needs the same flags in the programs that link it.
flags="${MARQUEL_CONSUMER_FLAGS:-}"
cmake -S "$consumer_src" -B "$scratch/by-cmake" -DCMAKE_PREFIX_PATH="$user" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$scratch/by-cmake" >/dev/null
export PKG_CONFIG_PATH="$(dirname "$(compgen -G "$user/lib*/pkgconfig/marquel-client.pc")")"
# shellcheck disable=SC2046,SC2086
g++ $flags "$consumer_src/main.cc" $(pkg-config --cflags --libs marquel-client) -o "$scratch/by-pkg-config"

# A fresh home and a private bus whose services come from the installed prefix only.
home="$scratch/home"
mkdir -p "$home/data" "$home/config" "$home/cache" "$home/run" "$home/tmp"
chmod 700 "$home/run"
video="$home/clip.mpg"
: >"$video"
env -i PATH="$PATH" HOME="$home" ASAN_OPTIONS="${ASAN_OPTIONS:-}" UBSAN_OPTIONS="${UBSAN_OPTIONS:-}" \
  TSAN_OPTIONS="${TSAN_OPTIONS:-}" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" \
  XDG_CACHE_HOME="$home/cache" XDG_RUNTIME_DIR="$home/run" TMPDIR="$home/tmp" \
  MARQUEL_MACHINE_STORE="$home/machine.db" MARQUEL_IDLE_GRACE_MS=200 \
  XDG_DATA_DIRS="$user/share" \
  dbus-run-session -- bash -c '"$1" "$3" && "$2" "$3"' run "$scratch/by-cmake/consumer" \
  "$scratch/by-pkg-config" "$video" >"$scratch/out" 2>&1 || { cat "$scratch/out"; fail "consumer failed"; }
[ "$(grep -c '^tag 40 at 1 s: 7$' "$scratch/out")" = 2 ] || { cat "$scratch/out"; fail "consumer output"; }
echo "installed tree complete; both consumers talked to the installed server"
