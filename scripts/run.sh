#!/usr/bin/env bash
# Builds Kinwatch and runs the service in the foreground on the example
# configuration, inside a private network namespace and a private mount
# namespace (its own /usr/local), so nothing reaches the machine's own
# interfaces or package directory. Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kw_install_missing

build=${KW_BUILD_DIR:-build/run}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKW_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target kinwatch

work=$(mktemp -d /tmp/kinwatch-run.XXXXXX)
trap 'rm -rf "$work"' EXIT
cp data/kinwatch.conf "$work/kinwatch.conf"
echo "Configuration: $work/kinwatch.conf"

export G_MESSAGES_DEBUG=all
unshare --net --mount --propagation private sh -c '
  mount -t tmpfs kinwatch-local /usr/local &&
  ip link set lo up &&
  exec "$0" -n -c "$1"' "$build/src/frame/kinwatch" "$work/kinwatch.conf"
