#!/usr/bin/env bash
# Builds libevents and runs its demo: a sample trap encoded, printed as
# octets and decoded again; then the event channel through the development
# hub on a temporary socket: a listener connects, an event and a trap are
# sent, and every trap the listener receives is shown.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" >/dev/null
build/examples/trap_roundtrip

work=$(mktemp -d)
hub_pid=
listen_pid=
cleanup() {
  [ -n "$listen_pid" ] && kill "$listen_pid" 2>/dev/null || true
  [ -n "$hub_pid" ] && kill "$hub_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Waits up to five seconds for a condition.
wait_for() {
  for _ in $(seq 50); do
    if eval "$1"; then return 0; fi
    sleep 0.1
  done
  echo "demo: timed out waiting for: $1" >&2
  return 1
}

socket=$work/hubd.socket
export KZ_HUBD_SOCKET=$socket  # the default transport (5) connects here
echo
echo "== hubd-dev --unix $socket"
build/tools/hubd-dev --unix "$socket" --verbose >"$work/hub.log" 2>&1 &
hub_pid=$!
wait_for "[ -S '$socket' ]"

# Each sender announces itself and says goodbye: 3 traps per send.
build/tools/hubevent listen --count 6 >"$work/listen.out" 2>"$work/listen.err" &
listen_pid=$!
wait_for "grep -q listening '$work/listen.err'"

echo "== hubevent send event 50790438 (source 8)"
build/tools/hubevent send -s 8 --host "gateway7 port3" --data hubd.conf \
  event 50790438 "Trap configuration changed."
echo "== hubevent send trap 1.3.6.1.4.1.49999.6.3.1 6 17 (source 3)"
build/tools/hubevent send -s 3 trap 1.3.6.1.4.1.49999.6.3.1 6 17 \
  1.3.6.1.4.1.49999.6.3.1.1.3.0 s gateway7 1.3.6.1.2.1.2.2.1.1.3 i 3 \
  1.3.6.1.4.1.49999.1.1 a 192.168.1.20

wait_for "! kill -0 $listen_pid 2>/dev/null"
wait "$listen_pid" || true
listen_pid=
echo
echo "== hubevent listen received"
cat "$work/listen.out"
kill "$hub_pid"
wait "$hub_pid" || true
hub_pid=
echo "== hubd-dev log"
cat "$work/hub.log"
sed "s#/usr/KZ/conf/C/#$PWD/examples/#" examples/hubd.conf > build/hubd.conf
build/tools/hubconf check build/hubd.conf
