# What the end-to-end tests share: source lab_test.sh <prefix> <scripts/lab> <kinwatch> [<kinwatchctl>]
# A lab of the test's own (<prefix><pid>, down on exit; those of killed runs go first), and the checks.
set -uo pipefail
prefix=$1 script=$(realpath "$2") kinwatch=$3 ctl_binary=${4:-}
name=$prefix$$
state=/tmp/kinwatch-lab-$name
failures=0
[[ $(id -u) -eq 0 ]] || { echo "needs root for the lab's namespaces"; exit 77; }

fail() { echo "FAIL: $*"; ((failures++)) || lab log 1 2>/dev/null | tail -n 15 | sed 's/^/  camera 1: /'; } # its log once
check() { "$@" || fail "$*"; } # <command...>
lab() { bash "$script" --name "$name" "$@"; }

# Processes are bounded here, not by timeout(1), whose SIGCONT after its signal cancels the ptrace stop
# of a sanitizer's leak checker at exit, which then hangs for ever (ThreadSuspender::SuspendThread in
# waitpid). What a process that does not end was doing goes to fd $diagnostics, apart from checked output.
exec {diagnostics}>&2
alive() { local stat; stat=$(cat "/proc/$1/stat" 2>/dev/null) && stat=${stat##*) } && [[ ${stat%% *} != Z ]]; } # <pid>
# Sends the signal and waits; one that lingers past the grace is explained and killed (status 1).
end() { # <pid> [signal] [grace seconds]
  local pid=$1 signal=${2:-TERM} tries=$((${3:-5} * 20))
  kill "-$signal" "$pid" 2>/dev/null || return 0
  while alive "$pid"; do
    if ((tries-- <= 0)); then
      "$(dirname "$script")/stacks" "$pid" "a SIG$signal sent ${3:-5} s ago, pid" >&"$diagnostics"
      kill -KILL "$pid" 2>/dev/null
      return 1
    fi
    sleep 0.05
  done
}
# Runs a command with a deadline; past it, it is explained and ended (status 124).
bounded() { # <seconds> <command...>
  local seconds=$1 pid guard status=0; shift
  "$@" &
  pid=$!
  ( # Its sleep goes with it, so that nothing outlives the test holding its output.
    trap 'kill "$sleeper" 2>/dev/null; exit 0' TERM
    sleep "$seconds" & sleeper=$!
    wait "$sleeper"
    alive "$pid" && { echo "bounded: '$*' still runs after $seconds s" >&"$diagnostics"; end "$pid" TERM; }
  ) &
  guard=$!
  wait "$pid" || status=$?
  kill "$guard" 2>/dev/null; wait "$guard" 2>/dev/null
  return "$status"
}
# No call hangs a test: past 150 s (a watch outlives a loss report) it is ended.
ctl() { local n=$1; shift; bounded 150 "$ctl_binary" --address "$(lab address "$n")" "$@"; }
# Starts a command in the background ($! is its pid); the test ends it by then.
spawned=()
spawn() { "$@" & spawned+=("$!"); } # <command...>
equals() { [[ $1 == "$2" ]] || { echo "  got:      ${1@Q}"; echo "  expected: ${2@Q}"; return 1; }; }
matches() { [[ $1 =~ $2 ]] || { echo "  got:      ${1@Q}"; echo "  expected: /$2/"; return 1; }; }
wait_for() { local end=$((SECONDS + $1)); shift; until "$@"; do ((SECONDS < end)) || return 1; sleep 0.5; done; }
mac() { printf '02:00:00:00:00:%02x' "$1"; }
node() { echo "$(mac "$1") 10.78.0.$1 fd78::$1"; }

for dir in /tmp/kinwatch-lab-"$prefix"[0-9]*; do
  old=${dir#/tmp/kinwatch-lab-}
  [[ -d $dir ]] && ! kill -0 "${old#"$prefix"}" 2>/dev/null && bash "$script" --name "$old" down
done
trap 'for pid in "${spawned[@]}"; do alive "$pid" && end "$pid"; done; lab down >/dev/null 2>&1' EXIT
