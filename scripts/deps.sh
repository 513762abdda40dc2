#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing Marquel need, but only those
# that are missing, so that a second run costs nothing.
set -euo pipefail

packages=(
  g++ cmake make pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libsqlite3-dev sqlite3
  libsdbus-c++-dev libsdbus-c++-bin libsystemd-dev
  dbus-daemon dbus-bin
  libcli11-dev nlohmann-json3-dev zlib1g-dev
  ffmpeg clang
  chromium python3-dbus
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
