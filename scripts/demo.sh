#!/usr/bin/env bash
# A short end-to-end demonstration, in a scratch home so that the user's data is untouched.
# Usage: scripts/demo.sh BIN_DIR
set -euo pipefail
bin="$(cd "${1:-build/bin}" && pwd)"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
export XDG_DATA_HOME="$scratch/data" TMPDIR="$scratch/tmp" MARQUEL_MACHINE_STORE="$scratch/machine.db"
mkdir -p "$XDG_DATA_HOME" "$TMPDIR"

echo "== marquelctl --help"
"$bin/marquelctl" --help
echo
echo "== a round trip through the per-user store"
"$bin/marquelctl" reg set 'Software\Halvern\Demo' Greeting --string "hello from Marquel"
"$bin/marquelctl" reg get 'Software\Halvern\Demo' Greeting
"$bin/marquelctl" reg get --json 'Software\Halvern\Demo' Greeting
"$bin/marquelctl" reg delete 'Software\Halvern\Demo'
echo "demo finished"
