#!/usr/bin/env bash
# Builds Kinwatch and runs three simulated cameras in the lab (scripts/lab).
# Each camera runs the service in network and mount namespaces of its own
# with a system bus of its own, so nothing reaches the machine's own
# interfaces, package directory or system bus. Shows what the cameras learn
# and the events they raise until Ctrl-C, then removes everything.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kw_install_missing

build=${KW_BUILD_DIR:-build/run}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKW_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target kinwatch

exec scripts/lab demo "${KW_CAMERAS:-3}" --binary "$build/src/frame/kinwatch"
