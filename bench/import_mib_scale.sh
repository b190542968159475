#!/usr/bin/env bash
# Times hubconf import-mib on a generated module of NOTIFICATION-TYPEs, and
# snmptt's converter, snmpttconvertmib, on the same kind of module.
#
#   bench/import_mib_scale.sh HUBCONF [NOTIFICATIONS] [PEER_NOTIFICATIONS]
#                                      (defaults 10000 and 500)
#
# Notification i is { g(i/100) (i%100)+1 } below enterprises.49997, with two
# objects (one enumerated) and a two-sentence DESCRIPTION.  The import
# starts from a configuration with only its categories; the figure is the
# whole command's wall time, module parsing, lock, edit, write and change
# notice included.  A second import of the same module (which writes
# nothing) is timed too.  snmpttconvertmib is run on a module of
# PEER_NOTIFICATIONS, since it calls snmptranslate for each one.
set -euo pipefail
hubconf=${1:?usage: import_mib_scale.sh HUBCONF [NOTIFICATIONS] [PEER_NOTIFICATIONS]}
count=${2:-10000}
peer_count=${3:-500}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/mibs"

generate() {
  awk -v n="$1" 'BEGIN {
    print "BENCH-MIB DEFINITIONS ::= BEGIN"
    print "IMPORTS MODULE-IDENTITY, OBJECT-TYPE, NOTIFICATION-TYPE, Integer32, enterprises FROM SNMPv2-SMI;"
    print "bench OBJECT IDENTIFIER ::= { enterprises 49997 }"
    print "benchIndex OBJECT-TYPE SYNTAX Integer32 MAX-ACCESS accessible-for-notify STATUS current"
    print "  DESCRIPTION \"Index.\" ::= { bench 1 }"
    print "benchState OBJECT-TYPE SYNTAX INTEGER { up(1), down(2) } MAX-ACCESS accessible-for-notify"
    print "  STATUS current DESCRIPTION \"State.\" ::= { bench 2 }"
    for (g = 0; g * 100 < n; ++g) printf "g%d OBJECT IDENTIFIER ::= { bench %d }\n", g, g + 100
    for (i = 0; i < n; ++i) {
      printf "n%d NOTIFICATION-TYPE\n  OBJECTS { benchIndex, benchState }\n  STATUS current\n", i
      printf "  DESCRIPTION \"Generated notification %d changed state. It carries two objects.\"\n", i
      printf "  ::= { g%d %d }\n", int(i / 100), i % 100 + 1
    }
    print "END"
  }'
}

seconds() { date +%s.%N; }

generate "$count" > "$work/mibs/BENCH-MIB.txt"
printf 'CATEGORY 3 "Status Events"\n' > "$work/hubd.conf"
export KZHUBDCONF="$work/hubd.conf" KZ_CONF_DIR="$work" KZ_HUBD_SOCKET="$work/no-hub.sock"
start=$(seconds)
"$hubconf" import-mib -M "$work/mibs" BENCH-MIB > "$work/first.out" 2>&1
middle=$(seconds)
"$hubconf" import-mib -M "$work/mibs" BENCH-MIB > "$work/second.out" 2>&1
end=$(seconds)
grep -q "$count trap formats added" "$work/first.out"
grep -q "0 trap formats added or replaced, $count unchanged" "$work/second.out"
echo "hubconf import-mib, $count notifications: first $(echo "$middle - $start" | bc) s," \
  "second (unchanged) $(echo "$end - $middle" | bc) s"

if command -v snmpttconvertmib >/dev/null 2>&1 || [ -x /usr/sbin/snmpttconvertmib ]; then
  convert=$(command -v snmpttconvertmib || echo /usr/sbin/snmpttconvertmib)
  generate "$peer_count" > "$work/mibs/BENCH-MIB.txt"
  # snmptranslate needs the base registrations, which Debian does not ship.
  printf '%s\n' 'SNMPv2-SMI DEFINITIONS ::= BEGIN' 'org OBJECT IDENTIFIER ::= { iso 3 }' \
    'dod OBJECT IDENTIFIER ::= { org 6 }' 'internet OBJECT IDENTIFIER ::= { dod 1 }' \
    'private OBJECT IDENTIFIER ::= { internet 4 }' \
    'enterprises OBJECT IDENTIFIER ::= { private 1 }' 'END' > "$work/mibs/SNMPv2-SMI.txt"
  start=$(seconds)
  MIBS=+BENCH-MIB MIBDIRS="+$work/mibs" "$convert" --in="$work/mibs/BENCH-MIB.txt" \
    --out="$work/snmptt.conf" > /dev/null 2>&1
  end=$(seconds)
  echo "snmpttconvertmib, $peer_count notifications: $(echo "$end - $start" | bc) s," \
    "$(grep -c '^EVENT' "$work/snmptt.conf") events written"
fi
