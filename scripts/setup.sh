#!/usr/bin/env bash
# Installs everything the build, the tests, the fuzzers and the benchmarks
# need, and registers the daemon's TCP services. Safe to run again.
set -euo pipefail

packages=(
  build-essential cmake pkg-config locales
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-dev
  snmp snmpd snmptrapd libsnmp-dev
  nlohmann-json3-dev
  nats-server libnats-dev
  libsnmp-base
  jq python3
  libssl-dev
)

# Not root: through sudo when there is one, else say what is missing.
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null; then
    as_root=(sudo)
  else
    need_root() {
      echo "setup.sh: not root and no sudo: as root, $1" >&2
      exit 2
    }
  fi
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if declare -F need_root >/dev/null; then
    need_root "install these packages: apt-get install ${missing[*]}"
  fi
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
fi

# The event channel looks its TCP ports up by service name.
register_service() {
  local name=$1 port=$2
  grep -qE "^${name}[[:space:]]" /etc/services && return
  if declare -F need_root >/dev/null; then
    need_root "add this line to /etc/services: $name $port/tcp"
  fi
  printf '%s\t%s/tcp\n' "$name" "$port" | "${as_root[@]}" tee -a /etc/services >/dev/null
}
register_service zxhubd-client 1661
register_service zxhubd-trap 1662
