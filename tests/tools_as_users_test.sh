#!/usr/bin/env bash
# Drives the installed tools the way an operator types them, beside
# net-snmp's snmptrap and snmptrapd where they do the same job: which
# configuration the tools read, hubevent's send and listen forms, its
# version line and usage errors, and a C program that includes net-snmp's
# headers and libevents' together.
# Usage: tools_as_users_test.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
export PATH=$prefix/bin:$PATH
examples=$prefix/share/libevents/examples
unset KZHUBDCONF KZ_CONF_DIR KZ_MIB_FILE VORAD_CONF
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
# expect_in FILE TEXT...: every TEXT occurs in FILE.
expect_in() {
  local file=$1; shift
  for text in "$@"; do grep -qF -- "$text" "$file" || fail "$file lacks: $text"; done
}
# Waits up to ten seconds for a condition.
wait_for() {
  for _ in $(seq 100); do eval "$1" && return 0; sleep 0.1; done
  fail "timed out waiting for: $1"
}
free_udp_port() {
  python3 -c 'import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])'
}
# listen NAME ARGS...: hubevent listen on the hub in the background, output
# in $work/NAME.out and .err.
listen() {
  local name=$1; shift
  hubevent listen -t unix -n "$hub" "$@" >"$work/$name.out" 2>"$work/$name.err" &
  pids+=($!)
  wait_for "grep -q listening '$work/$name.err'"
}

hub=$work/hub.sock
udp=$(free_udp_port)
hubd-dev --unix "$hub" --udp "127.0.0.1:$udp" >"$work/hub.log" 2>&1 &
pids+=($!)
wait_for "[ -S '$hub' ]"

# Item 1: the configuration comes from where the library finds it.  A
# configuration directory of our own, with a format text that only it has.
conf=$work/conf
mkdir -p "$conf/C"
cp "$examples"/{mib.labels,oid_to_label,vorad.conf} "$conf/"
cp "$examples/critical-nodes.list" "$conf/C/"
sed -e 's/^Interface \$1 of \$A is down$/OWN CONFIGURATION: $1 down/' -e "s#/usr/KZ/conf/C/#$conf/C/#" \
  "$examples/hubd.conf" >"$conf/C/hubd.conf"
KZ_CONF_DIR=$conf listen own --format --verbose --count 1
listen bundled --examples --verbose --format --count 1
KZ_CONF_DIR=$conf hubconf --verbose match 1.3.6.1.6.3.1.1.5 2 0 >/dev/null 2>"$work/match.err"
KZ_CONF_DIR=$conf hubsnmp --verbose -t 0.1 -r 0 get 127.0.0.1:9 sysDescr.0 >/dev/null \
  2>"$work/snmp.err" || true
hubevent send trap 1.3.6.1.6.3.1.1.5 2 0 1.3.6.1.2.1.2.2.1.1.3 i 3 \
  -t unix -n "$hub" --agent 127.0.0.1
wait_for "grep -q down '$work/own.out' && grep -q down '$work/bundled.out'"
expect_in "$work/own.err" "hubevent: hubd.conf   $conf/C/hubd.conf (KZ_CONF_DIR)" \
  "hubevent: MIB labels  $conf/mib.labels (KZ_CONF_DIR)" "hubevent: OID names   $conf/oid_to_label"
expect_in "$work/match.err" "hubconf: hubd.conf   $conf/C/hubd.conf (KZ_CONF_DIR)"
expect_in "$work/snmp.err" "hubsnmp: MIB labels  $conf/mib.labels (KZ_CONF_DIR)"
expect_in "$work/own.out" "OWN CONFIGURATION: 3 down"
expect_in "$work/bundled.err" "hubevent: hubd.conf   $(realpath "$examples")/hubd.conf (KZHUBDCONF)"
expect_in "$work/bundled.out" "Interface 3 of localhost is down"
# Nothing set and nothing installed at the default place: a clear failure.
if [ ! -e /usr/KZ/conf/mib.labels ]; then
  status=0
  hubevent listen --format -t unix -n "$hub" 2>"$work/none.err" || status=$?
  [ "$status" = 1 ] || fail "listen --format without a configuration: status $status"
  expect_in "$work/none.err" "cannot read the MIB label file /usr/KZ/conf/mib.labels"
fi

# Items 5 and 6: hubevent's send forms and listen's output and filters.
# net-snmp's snmptrap sends the same bindings into the hub's UDP port (its
# x takes blank-separated pairs only).
listen json --json --count 4 --examples --format hubd
listen plain --count 2 --color=always --examples --category 1
listen link --count 1 --enterprise 1.3.6.1.6.3.1.1.5 --agent 10.9.8.7 --severity minor --examples
listen cisco --count 1 --category LOGONLY --examples
hubevent send -t udp -n "127.0.0.1:$udp" --agent 10.9.8.7 trap 1.3.6.1.6.3.1.1.5 2 0 \
  1.3.6.1.2.1.2.2.1.1.3 i -3 1.3.6.1.2.1.2.2.1.2.3 x "00:11:22" 1.3.6.1.2.1.2.2.1.3.3 s "été"
snmptrap -v1 -c public -m "" -M "" "127.0.0.1:$udp" 1.3.6.1.6.3.1.1.5 10.9.8.6 2 0 0 \
  1.3.6.1.2.1.2.2.1.1.3 i -3 1.3.6.1.2.1.2.2.1.2.3 x "00 11 22" 1.3.6.1.2.1.2.2.1.3.3 s "été"
hubevent send event 50790438 "-- a text that looks like options --" -t unix -n "$hub" --host gw
hubevent send -n "$hub" -t unix trap 1.3.6.1.4.1.9.9.99 6 5 1.3.6.1.4.1.9.9.99.1 s fan
wait_for "grep -q 9.9.99 '$work/json.out' && grep -q 'trap 2 received' '$work/plain.out'"
wait_for "grep -q 10.9.8.7 '$work/link.out' && grep -q 1.3.6.1.4.1.9.9.99 '$work/cisco.out'"
# The two linkDown traps carry the same bindings, whoever sent them.
python3 - "$work/json.out" <<'PY' || fail "JSON lines"
import json, sys
lines = [json.loads(line) for line in open(sys.argv[1])]
ours, theirs = [t for t in lines if t["generic"] == 2]
assert ours["agent"] == "10.9.8.7" and theirs["agent"] == "10.9.8.6", lines
assert ours["bindings"] == theirs["bindings"], (ours, theirs)
assert ours["bindings"][1] == {"oid": "1.3.6.1.2.1.2.2.1.2.3", "type": "OctetString",
                               "value": "0x00 11 22", "encoding": "hex"}, ours
assert ours["bindings"][2]["value"] == "été" and ours["bindings"][2]["encoding"] == "text"
assert (ours["format"], ours["category"], ours["category_name"], ours["severity"]) == \
    ("linkDown_1", 1, "Network Topology Events", "Minor"), ours
assert ours["received"][:2] == "20", ours
cisco = [t for t in lines if t["enterprise"] == "1.3.6.1.4.1.9.9.99"][0]
assert cisco["category_name"] == "LOGONLY" and cisco["format"] == "ciscoAnyTrap", cisco
PY
expect_in "$work/plain.out" "1.3.6.1.2.1.2.2.1.1.3 = Integer: -3" \
  "1.3.6.1.2.1.2.2.1.2.3 = OctetString: 0x00 11 22" "= OctetString: \"été\"" \
  "severity $(printf '\033[33m')Minor" "trap 1 received 20"
grep -q 'agent       10.9.8.7' "$work/link.out" && ! grep -q 10.9.8.6 "$work/link.out" \
  || fail "--enterprise and --agent filters: $(cat "$work/link.out")"
grep -q 'format      ciscoAnyTrap, category 7 LOGONLY' "$work/cisco.out" || fail "--category"
grep -q 'trap 2' "$work/cisco.out" && fail "--count counts the connection events"

# net-snmp's snmptrapd receives hubevent's datagram on a port of its own.
trapd=$(free_udp_port)
printf 'disableAuthorization yes\nformat1 TRAP %%a|%%N|%%w|%%q|%%v\\n\n' >"$work/snmptrapd.conf"
snmptrapd -f -Lo -n -C -c "$work/snmptrapd.conf" -m "" -M "" -On "udp:127.0.0.1:$trapd" \
  >"$work/trapd.out" 2>&1 &
pids+=($!)
wait_for "grep -q 'NET-SNMP version' '$work/trapd.out'"
hubevent send -t udp -n "127.0.0.1:$trapd" --agent 10.1.2.3 trap 1.3.6.1.4.1.49999 6 17 \
  1.3.6.1.4.1.49999.1.1 x "de:ad:be:ef"
wait_for "grep -q '^TRAP' '$work/trapd.out'"
expect_in "$work/trapd.out" \
  "TRAP 10.1.2.3|.1.3.6.1.4.1.49999|6|.17|.1.3.6.1.4.1.49999.1.1 = Hex-STRING: DE AD BE EF"

# A message that is not a trap is reported with the reason and counted.
junk=$work/junk.sock
python3 - "$junk" <<'PY' &
import socket, struct, sys, time
server = socket.socket(socket.AF_UNIX)
server.bind(sys.argv[1])
server.listen(1)
client, _ = server.accept()
client.sendall(struct.pack("<iIiiiI", 30, 1, -1, 0, 0, 0) + b"\x30\x1c" + b"\xff" * 28)
time.sleep(0.5)
PY
pids+=($!)
wait_for "[ -S '$junk' ]"
status=0
hubevent listen -t unix -n "$junk" >/dev/null 2>"$work/junk.err" || status=$?
[ "$status" = 1 ] || fail "listen on a closed stream: status $status"
expect_in "$work/junk.err" \
  "hubevent: skipped a message of 30 octets that is not a trap: malformed or cut short" \
  "hubevent: 0 traps, 1 messages not decodable"

# Item 8: the version line and one-line usage errors, without the path.
[ "$(hubevent -V)" = "$(hubevent --version)" ] || fail "-V and --version differ"
hubevent --version | grep -q '^hubevent (libevents) [0-9]' || fail "version line"
for args in "listen --color=sometimes" "listen --severity Loud" "send -t pigeon event 1 x" \
  "listen --count" "transmit"; do
  status=0
  # shellcheck disable=SC2086
  "$prefix/bin/hubevent" $args 2>"$work/usage.err" >/dev/null || status=$?
  [ "$status" = 2 ] && [ "$(wc -l <"$work/usage.err")" = 2 ] \
    && grep -q '^hubevent: ' "$work/usage.err" && grep -q "^Try 'hubevent --help'" "$work/usage.err" \
    || fail "usage error for $args: $(cat "$work/usage.err")"
done

# Item 10: net-snmp's headers and libevents' in one C file, against the
# installed tree; the decoded agent address converted for the encoder.
pcdir=$(dirname "$(find "$prefix" -name libevents.pc)")
cat >"$work/beside.c" <<'C'
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#define EVENTS_BESIDE_NETSNMP
#include <libevents/event.h>
#include <libevents/snmp.h>
#include <libevents/snmp_clnt.h>
#include <libevents/trp_format.h>

int main(void) {
  oid name[] = {1, 3, 6, 1, 2, 1, 1, 5, 0}; /* net-snmp's oid */
  snmp_trap_infoEMS trap = {0}, decoded;
  SnmpVarBindEMS vars[1] = {{.oid = {1, 3, 6, 1, 2, 1, 1, 5, 0}, .oid_length = 9,
                             .type = ASN_INTEGER, .val = {.integer = 7}, .val_len = 4}};
  unsigned char message[512];
  int length = sizeof message;
  trap.enterprise[0] = 1, trap.enterprise[1] = 3, trap.elen = 2;
  trap.agent = 0x0A010203; /* 10.1.2.3, host order, as the encoder takes it */
  trap.gen = 6, trap.vars = 1, trap.maxvars = 1;
  if (snmpBuildTrapEMS(message, &length, &trap, NULL, vars) != 0) return 1;
  snmp_trap_reset_capacities(&decoded, 1);
  if (snmp_parse_trap(message, length, &decoded, NULL, vars) != 0) return 2;
  if (snmp_trap_agent_for_encoder(&decoded) != trap.agent) return 3;
  return name[8] == 0 && vars[0].type == ASN_INTEGER ? 0 : 4;
}
C
# shellcheck disable=SC2046
cc -std=c11 -Wall -Werror "$work/beside.c" -o "$work/beside" \
  $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs libevents) $(net-snmp-config --libs) \
  -Wl,-rpath,"$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir libevents)" \
  && "$work/beside" || fail "net-snmp and libevents headers in one program ($?)"

[ "$failures" = 0 ] || exit 1
echo "installed tools behave as an operator expects"
