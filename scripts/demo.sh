#!/usr/bin/env bash
# A short end-to-end demonstration, in a scratch home so that the user's data is untouched:
# the server is started by D-Bus activation, a client inserts tags into a video file and
# reads them back, the server is stopped and started again, and the tags are still there.
# Usage: scripts/demo.sh BIN_DIR
set -euo pipefail
bin="$(cd "${1:-build/bin}" && pwd)"

if [ -z "${MARQUEL_DEMO_SCRATCH:-}" ]; then
  scratch="$(mktemp -d)"
  trap 'rm -rf "$scratch"' EXIT
  export MARQUEL_DEMO_SCRATCH="$scratch"
  # The bus daemon finds the activation file through XDG_DATA_HOME, so it is set first.
  export XDG_DATA_HOME="$scratch/data" XDG_RUNTIME_DIR="$scratch/run" TMPDIR="$scratch/tmp"
  export MARQUEL_MACHINE_STORE="$scratch/machine.db" MARQUEL_IDLE_GRACE_MS=500
  mkdir -p "$XDG_DATA_HOME" "$XDG_RUNTIME_DIR" "$TMPDIR"
  chmod 700 "$XDG_RUNTIME_DIR"
  # A private session bus, so that the demo never meets a server the user already runs.
  dbus-run-session -- "$0" "$bin"
  exit $?
fi
scratch="$MARQUEL_DEMO_SCRATCH"
ctl="$bin/marquelctl"

server_pid() {
  busctl --user call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus \
    GetConnectionUnixProcessID s com.halvern.Marquel64 2>/dev/null | awk '{print $2}'
}

echo "== register the server for D-Bus activation"
"$bin/marquel64" -RegServer

video="$scratch/holiday.avi"
echo "== make a two-second video: $video"
ffmpeg -loglevel error -f lavfi -i testsrc=duration=2:size=160x120:rate=25 "$video"
"$ctl" detect "$video"

echo "== open it, insert samples of tag 16, read them back, close (the server starts by itself)"
"$ctl" file "$video" put 16 0=1 10000000=2 20000000=3 get 16 tags

echo "== the server's status"
"$ctl" status

pid="$(server_pid)"
echo "== stop the server (pid $pid) and wait until it has gone"
kill -TERM "$pid"
while kill -0 "$pid" 2>/dev/null; do sleep 0.1; done

echo "== where the data went: the per-user cache"
"$ctl" cache list

echo "== reopen: a new server starts, and the samples come back from the cache"
"$ctl" get "$video" --tag 16
echo "demo finished"
