#!/usr/bin/env bash
# Soak: one lab camera (scripts/lab, its own namespaces and bus) put through
#   - monitor start/stop cycles through its run-state file,
#   - additions and removals of a second veth interface while it runs,
#   - bus property writes and reads,
# CYCLES of each (default 1000) after a warm-up of 50 of each. Prints the
# service's open descriptors, threads and resident memory after the warm-up
# and after the cycles. The lab is named $KW_LAB_NAME (default soak); with
# KW_BENCH_BRIEF=1 (the test suite's check that it still runs) the warm-up is
# one cycle of each. Run as root from the top of a checkout:
#   bench/soak.sh [CYCLES] [--binary PATH]
set -euo pipefail
cd "$(dirname "$0")/.."

cycles=1000
binary=build/run/src/frame/kinwatch
while (($#)); do
  case $1 in
    --binary) binary=$2; shift 2 ;;
    *) cycles=$1; shift ;;
  esac
done
warm_up=${KW_SOAK_WARM_UP:-50}
[[ -z ${KW_BENCH_BRIEF:-} ]] || warm_up=1
name=${KW_LAB_NAME:-soak}
lab=(scripts/lab --name "$name")
ns=kwlab-$name-c1
camera=/tmp/kinwatch-lab-$name/c1
run_state=$camera/local/packages/kinwatch/is_running

"${lab[@]}" up 1 --binary "$binary" >/dev/null
trap '"${lab[@]}" down >/dev/null 2>&1 || true' EXIT
read -r pid _ <"$camera/kinwatch.pid"

figures() { # <label>
  printf '%-28s descriptors %4d  threads %3d  resident %6d kB\n' "$1" "$(ls "/proc/$pid/fd" | wc -l)" \
    "$(awk '/^Threads:/ {print $2}' "/proc/$pid/status")" "$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status")"
}
# The monitor's sender and receiver threads, two per chain; GLib's own
# worker threads come and go as they like and are not counted here.
chain_threads() { cat /proc/"$pid"/task/*/comm 2>/dev/null | grep -c '^monitor_' || true; }
# Waits until the service has the given number of chain threads (30 s at most).
wait_threads() { # <count> <what>
  local tries=3000
  while [[ $(chain_threads) != "$1" ]] && ((tries-- > 0)); do sleep 0.01; done
  [[ $(chain_threads) == "$1" ]] || { echo "soak: $2: $(chain_threads) chain threads, expected $1" >&2; exit 1; }
}

# The running monitor has one interface with two chains: four threads.
start_stop() {
  printf 'Stopped\n' >"$run_state"
  wait_threads 0 "stopping"
  printf 'Running\n' >"$run_state"
  wait_threads 4 "starting"
}
wait_threads 4 "starting"
# An interface made after the monitor started is followed by the link
# watcher (reported when it comes up and when it goes) but gets no chain, so
# the log tells when each step has been seen.
reports() { grep -c 'Interface(kwsoak0)' "$camera/kinwatch.log" || true; }
wait_reports() { # <count> <what>
  local tries=3000
  while (($(reports) < $1)) && ((tries-- > 0)); do sleep 0.01; done
  (($(reports) >= $1)) || { echo "soak: $2: not reported" >&2; exit 1; }
}
add_remove() {
  local seen
  seen=$(reports)
  ip -n "$ns" link add kwsoak0 type veth peer name kwsoak1
  ip -n "$ns" addr add 10.79.0.1/24 dev kwsoak0
  ip -n "$ns" link set kwsoak1 up
  ip -n "$ns" link set kwsoak0 up
  wait_reports $((seen + 1)) "adding an interface"
  ip -n "$ns" link del kwsoak0
  wait_reports $((seen + 2)) "removing an interface"
}
write_read() { # <i>
  "${lab[@]}" set 1 TTL $(($1 % 8 + 1)) >/dev/null
  "${lab[@]}" get 1 TTL | grep -q "byte 0x0$(($1 % 8 + 1))" || { echo "soak: TTL read back wrong" >&2; exit 1; }
}

round() { # <count>
  local i
  for ((i = 0; i < $1; i++)); do start_stop; done
  for ((i = 0; i < $1; i++)); do add_remove; done
  for ((i = 0; i < $1; i++)); do write_read "$i"; done
}

round "$warm_up"
figures "after $warm_up warm-up cycles"
started=$SECONDS
round "$cycles"
figures "after $cycles more cycles"
echo "($((SECONDS - started)) s)"
