#!/usr/bin/env bash
# Installs, as root on Debian 12, the packages that Kinwatch's build, tests
# and lab need and that are not installed yet. Sourced or run; does nothing
# when everything is present.
set -euo pipefail

kw_packages=(
  g++ make cmake pkg-config
  libglib2.0-dev libnl-3-dev libnl-route-3-dev libsodium-dev libsystemd-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  iproute2 procps util-linux dbus-daemon tcpdump libglib2.0-bin faketime gdb nftables
  dpkg-dev file man-db groff-base lintian
)

kw_install_missing() {
  local missing=()
  local p
  for p in "${kw_packages[@]}" "$@"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed"; then
      missing+=("$p")
    fi
  done
  if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    if [[ $(id -u) -ne 0 ]]; then
      echo "Missing packages and not root: ${missing[*]}" >&2
      return 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
}

if [[ "${BASH_SOURCE[0]}" == "$0" ]]; then
  kw_install_missing "$@"
fi
