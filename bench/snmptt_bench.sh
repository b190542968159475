#!/usr/bin/env bash
# Measures snmptt, the trap-to-text tool operators would otherwise pick, on
# a configuration of generated trap formats and the traps that hit them.
#
#   bench/snmptt_bench.sh [FORMATS] [TRAPS]     (defaults 10000 and 3000)
#
# The formats mirror a generated hubd.conf: format i belongs to enterprise
# 1.3.6.1.4.1.49999.100.(i/100), is enterprise-specific trap (i%100)+1, and
# reads "Trap $S of $e from $A: $1, $2".  Each trap carries an INTEGER and
# an OCTET STRING binding and hits one of the formats in turn.
#
# snmptt runs in daemon mode without forking, fed spool files in the form
# its trap handler writes; the configuration load and a first trap are not
# counted.  Its CPU time comes from /proc; the result is traps per CPU
# second, and CPU microseconds per trap.  snmptt is installed on demand
# (Debian package snmptt; root is needed for that).
set -euo pipefail
formats=${1:-10000}
traps=${2:-3000}

if ! command -v snmptt >/dev/null 2>&1 && [ ! -x /usr/sbin/snmptt ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends snmptt >/dev/null
fi
snmptt=$(command -v snmptt || echo /usr/sbin/snmptt)

work=$(mktemp -d)
pid=
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
mkdir "$work/spool" "$work/staging"

awk -v n="$formats" 'BEGIN {
  for (i = 0; i < n; ++i) {
    printf "EVENT trap%d .1.3.6.1.4.1.49999.100.%d.0.%d \"Status Events\" Normal\n", i, int(i / 100), i % 100 + 1
    printf "FORMAT Trap $S of $e from $A: $1, $2\n"
    printf "SDESC\nGenerated format %d.\nEDESC\n", i
  }
}' > "$work/snmptt.conf"

sed -e 's/^mode = .*/mode = daemon/' \
    -e 's/^daemon_fork = .*/daemon_fork = 0/' \
    -e 's/^daemon_uid = .*/daemon_uid = /' \
    -e "s|^pid_file = .*|pid_file = $work/snmptt.pid|" \
    -e "s|^spool_directory = .*|spool_directory = $work/spool/|" \
    -e 's/^sleep = .*/sleep = 0.01/' \
    -e 's/^ipv6_enable = .*/ipv6_enable = 0/' \
    -e 's/^dns_enable = .*/dns_enable = 0/' \
    -e "s|^log_file = .*|log_file = $work/snmptt.log|" \
    -e 's/^log_system_enable = .*/log_system_enable = 0/' \
    -e 's/^syslog_enable = .*/syslog_enable = 0/' \
    -e 's/^syslog_system_enable = .*/syslog_system_enable = 0/' \
    -e 's/^exec_enable = .*/exec_enable = 0/' \
    -e 's/^pre_exec_enable = .*/pre_exec_enable = 0/' \
    -e "/^snmptt_conf_files = <<END/,/^END/c\\
snmptt_conf_files = <<END\\
$work/snmptt.conf\\
END" /etc/snmp/snmptt.ini > "$work/snmptt.ini"

# Spool files in the form snmptthandler writes for a v1 trap from
# snmptrapd: time, host, transport, uptime, trap OID (ENTERPRISE.0.SPECIFIC),
# the bindings, then agent address, community and enterprise.  snmptt only
# reads files whose names hold a "#".
write_traps() {  # FIRST COUNT DIR
  awk -v first="$1" -v count="$2" -v n="$formats" -v dir="$3" 'BEGIN {
    for (t = first; t < first + count; ++t) {
      i = t % n
      e = ".1.3.6.1.4.1.49999.100." int(i / 100)
      f = sprintf("%s/#snmptt-trap-%09d", dir, t)
      printf "%d\nlocalhost\nUDP: [127.0.0.1]:50000->[127.0.0.1]:162\n", 1700000000 > f
      printf ".1.3.6.1.2.1.1.3.0 0:0:00:01.00\n.1.3.6.1.6.3.1.1.4.1.0 %s.0.%d\n", e, i % 100 + 1 > f
      printf "%s.1.1 %d\n%s.1.2 \"gateway%d\"\n", e, t, e, t > f
      printf ".1.3.6.1.6.3.18.1.3.0 10.1.2.3\n.1.3.6.1.6.3.18.1.4.0 \"public\"\n" > f
      printf ".1.3.6.1.6.3.1.1.4.3.0 %s\n", e > f
      close(f)
    }
  }'
}

cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
logged() { [ -f "$work/snmptt.log" ] && wc -l < "$work/snmptt.log" || echo 0; }
wait_for_lines() {  # COUNT
  while [ "$(logged)" -lt "$1" ]; do
    kill -0 "$pid" 2>/dev/null || { echo "snmptt stopped; see its warnings" >&2; exit 1; }
    sleep 0.2
  done
}

"$snmptt" --daemon --ini="$work/snmptt.ini" ${SNMPTT_DEBUG:+--debug=1 --debugfile=$SNMPTT_DEBUG} >"$work/out" 2>"$work/warnings" &
pid=$!
write_traps 0 1 "$work/staging"
mv "$work/staging"/* "$work/spool/"
wait_for_lines 1

write_traps 1 "$traps" "$work/staging"
hz=$(getconf CLK_TCK)
before=$(cpu_ticks "$pid")
start=$(date +%s.%N)
mv "$work/staging"/* "$work/spool/"
wait_for_lines $((traps + 1))
end=$(date +%s.%N)
after=$(cpu_ticks "$pid")

head -n 1 "$work/snmptt.log" | sed 's/^/first line: /'
awk -v t="$traps" -v c="$((after - before))" -v hz="$hz" -v s="$start" -v e="$end" 'BEGIN {
  cpu = c / hz
  printf "snmptt: %d formats, %d traps: %.2f s CPU, %.2f s wall\n", '"$formats"', t, cpu, e - s
  printf "snmptt: %.0f traps per CPU second, %.0f us CPU per trap\n", t / cpu, cpu * 1e6 / t
}'
