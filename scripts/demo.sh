#!/usr/bin/env bash
# Builds libevents and runs its demo: a sample trap encoded, printed as
# octets and decoded again; then the whole road of a trap: the development
# hub relays traps from hubevent and from net-snmp's snmptrap and
# snmpinform (SNMPv2c, translated by the hub) to listeners that format them
# by the example configuration or print them as JSON lines; hubconf imports
# the trap definitions of a MIB module and explains choices of format; a
# console reading a NATS JetStream stream stops and catches up.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" >/dev/null
build/examples/trap_roundtrip

work=$(mktemp -d)
hub_pid=
nats_pid=
listen_pid=
log_pid=
json_pid=
cleanup() {
  [ -n "$listen_pid" ] && kill "$listen_pid" 2>/dev/null || true
  [ -n "$log_pid" ] && kill "$log_pid" 2>/dev/null || true
  [ -n "$json_pid" ] && kill "$json_pid" 2>/dev/null || true
  [ -n "$hub_pid" ] && kill "$hub_pid" 2>/dev/null || true
  [ -n "$nats_pid" ] && kill "$nats_pid" 2>/dev/null || true
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

# The whole road: traps go through the development hub to two listeners
# that format them: the operator's display by the bundled examples as
# installed (--examples), and the daemon's log by a configuration of the
# demo's own (found through KZHUBDCONF and KZ_CONF_DIR, as the library finds
# it) whose node list makes this machine a critical node.
socket=$work/hubd.socket
udp_port=$((20000 + RANDOM % 20000))
export KZ_HUBD_SOCKET=$socket  # the default transport (5) connects here
{ cat examples/critical-nodes.list; echo "localhost   this machine, for the demo"; } \
  >"$work/critical-nodes.list"
sed "s#/usr/KZ/conf/C/#$work/#" examples/hubd.conf >"$work/hubd.conf"
export KZHUBDCONF=$work/hubd.conf KZ_CONF_DIR=$PWD/examples
echo
echo "== hubd-dev --unix $socket --udp 127.0.0.1:$udp_port"
build/tools/hubd-dev --unix "$socket" --udp "127.0.0.1:$udp_port" >"$work/hub.log" 2>&1 &
hub_pid=$!
wait_for "[ -S '$socket' ]"

# The listeners run until the last trap, the datagram, has reached both.
build/tools/hubevent listen --examples --format --color=never >"$work/display.out" 2>"$work/display.err" &
listen_pid=$!
build/tools/hubevent listen --format hubd --verbose >"$work/log.out" 2>"$work/log.err" &
log_pid=$!
build/tools/hubevent listen --json --format hubd --examples >"$work/json.out" 2>"$work/json.err" &
json_pid=$!
wait_for "grep -q listening '$work/display.err' && grep -q listening '$work/log.err' && grep -q listening '$work/json.err'"

echo "== the daemon's log listener reads (hubevent listen --format hubd --verbose)"
sed -n 's/^hubevent: //p' "$work/log.err" | grep -v listening
echo "== linkDown from localhost: a critical node in the demo's configuration"
build/tools/hubevent send trap 1.3.6.1.6.3.1.1.5 2 0 \
  1.3.6.1.2.1.2.2.1.1.3 i 3 1.3.6.1.2.1.2.2.1.7.3 i 1 1.3.6.1.2.1.2.2.1.8.3 i 2 --agent 127.0.0.1
echo "== a Cisco trap without a format of its own: the enterprise's wildcard format"
build/tools/hubevent send --agent 127.0.0.1 trap 1.3.6.1.4.1.9.9.99 6 5 \
  1.3.6.1.4.1.9.9.99.1.1.0 s "fan tray 2 removed"
echo "== a trap of an enterprise nobody configured, as a datagram to the hub's UDP port"
build/tools/hubevent send -t udp -n "127.0.0.1:$udp_port" --agent 127.0.0.1 trap 1.3.6.1.4.1.7777.1 6 12 \
  1.3.6.1.4.1.7777.1.4.0 c 42 1.3.6.1.4.1.7777.1.5.0 x "00:1b:21:3a:4f:01"
echo "== a platform event from source 8"
build/tools/hubevent send event 58917937 "Backup of the configuration finished." -s 8 --host gateway7
echo "== net-snmp's snmpinform -v2c: linkUp, translated and acknowledged by the hub"
snmpinform -v2c -c public -m "" -M "" "127.0.0.1:$udp_port" 360000 1.3.6.1.6.3.1.1.5.4 \
  1.3.6.1.2.1.2.2.1.1.3 i 3 1.3.6.1.2.1.2.2.1.7.3 i 1 1.3.6.1.2.1.2.2.1.8.3 i 1 \
  1.3.6.1.2.1.2.2.1.9.3 t 355000
echo "== net-snmp's snmptrap into the hub's UDP port: nsNotifyRestart"
snmptrap -v1 -c public -m "" -M "" "127.0.0.1:$udp_port" 1.3.6.1.4.1.8072.4 127.0.0.1 6 3 ""

wait_for "grep -q restarted '$work/display.out' && grep -q restarted '$work/log.out' && grep -q 8072 '$work/json.out'"
kill "$listen_pid" "$log_pid" "$json_pid"
wait "$listen_pid" "$log_pid" "$json_pid" || true
listen_pid=
log_pid=
json_pid=
echo
echo "== the operator's display (hubevent listen --examples --format)"
cat "$work/display.out"
echo
echo "== the daemon's log (hubevent listen --format hubd)"
cat "$work/log.out"
echo
echo "== the translated inform as a JSON line (hubevent listen --json --format hubd)"
grep '"trap_oid":"1.3.6.1.6.3.1.1.5.4"' "$work/json.out"
echo
echo "== format, category and severity of every trap: jq on the JSON lines"
jq -r '[.enterprise, .format, .category, .category_name, .severity] | @tsv' <"$work/json.out"
echo
echo "== hubconf import-mib NET-SNMP-AGENT-MIB: formats from a vendor's module, hub told"
build/tools/hubconf import-mib NET-SNMP-AGENT-MIB
build/tools/hubconf match --file "$work/hubd.conf" 1.3.6.1.4.1.8072.4 6 2 --node localhost
kill "$hub_pid"
wait "$hub_pid" || true
hub_pid=
echo
echo "== hubconf match: why the Cisco trap got its format"
build/tools/hubconf match --file "$work/hubd.conf" 1.3.6.1.4.1.9.9.99 6 5 --node localhost
echo
sed "s#/usr/KZ/conf/C/#$PWD/examples/#" examples/hubd.conf > build/hubd.conf
build/tools/hubconf check build/hubd.conf

# The event channel on NATS JetStream: a hub that also publishes to a
# stream, and a console that stops and, started again, catches up on the
# traps it missed.
echo
nats_port=$((20000 + RANDOM % 20000))
url="nats://127.0.0.1:$nats_port/TRAPS"
echo "== nats-server -js on 127.0.0.1:$nats_port; hubd-dev --jetstream $url"
nats-server -js -a 127.0.0.1 -p "$nats_port" -sd "$work/nats" -l "$work/nats.log" &
nats_pid=$!
wait_for "grep -q 'Server is ready' '$work/nats.log' 2>/dev/null"
js_socket=$work/js.socket
build/tools/hubd-dev --unix "$js_socket" --jetstream "$url" >"$work/js-hub.log" 2>&1 &
hub_pid=$!
wait_for "[ -S '$js_socket' ]"
send_numbered() {
  build/tools/hubevent send -t unix -n "$js_socket" --agent 127.0.0.1 trap 1.3.6.1.4.1.9.9.99 6 5 \
    1.3.6.1.4.1.9.9.99.1.1.0 s "fan tray $1 removed"
}
# The Cisco wildcard format is LOGONLY: the console shows the daemon's log.
console() {
  timeout 30 build/tools/hubevent listen -t jetstream -n "$url" --durable console --count "$1" \
    --examples --format hubd --color=never 2>/dev/null
}
send_numbered 1
echo "== the console takes the first trap, then stops"
console 1
send_numbered 2
send_numbered 3
echo "== two traps were sent while it was stopped; started again, it catches up"
console 2
kill "$hub_pid" "$nats_pid"
wait "$hub_pid" "$nats_pid" || true
hub_pid=
nats_pid=
