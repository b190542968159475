#!/usr/bin/env bash
# Installs everything the build, the tests, the fuzzers and the benchmarks
# need, and registers the daemon's TCP services. Safe to run again.
set -euo pipefail

packages=(
  build-essential cmake pkg-config locales
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-dev
  snmp snmpd snmptrapd libsnmp-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends "${missing[@]}"
fi

# The event channel looks its TCP ports up by service name.
register_service() {
  local name=$1 port=$2
  grep -qE "^${name}[[:space:]]" /etc/services || printf '%s\t%s/tcp\n' "$name" "$port" >> /etc/services
}
register_service zxhubd-client 1661
register_service zxhubd-trap 1662
