# What the end-to-end tests share, sourced first by each:
#   source lab_test.sh <prefix> <scripts/lab> <kinwatch> [<kinwatchctl>]
# A lab of the test's own (named <prefix> and its pid, taken down on exit;
# those of earlier runs that were killed go first), and the checks.
set -uo pipefail
prefix=$1 script=$(realpath "$2") kinwatch=$3 ctl_binary=${4:-}
name=$prefix$$
state=/tmp/kinwatch-lab-$name
failures=0
[[ $(id -u) -eq 0 ]] || { echo "needs root for the lab's namespaces"; exit 77; }

fail() { echo "FAIL: $*"; ((failures++)) || lab log 1 2>/dev/null | tail -n 15 | sed 's/^/  camera 1: /'; } # its log once
check() { "$@" || fail "$*"; } # <command...>
lab() { bash "$script" --name "$name" "$@"; }
# No call hangs a test: past 150 s (a watch outlives a loss report) it ends, status 124 or 137.
ctl() { local n=$1; shift; timeout -k 30 150 "$ctl_binary" --address "$(lab address "$n")" "$@"; }
equals() { [[ $1 == "$2" ]] || { echo "  got:      ${1@Q}"; echo "  expected: ${2@Q}"; return 1; }; }
matches() { [[ $1 =~ $2 ]] || { echo "  got:      ${1@Q}"; echo "  expected: /$2/"; return 1; }; }
wait_for() { local end=$((SECONDS + $1)); shift; until "$@"; do ((SECONDS < end)) || return 1; sleep 0.5; done; }
mac() { printf '02:00:00:00:00:%02x' "$1"; }
node() { echo "$(mac "$1") 10.78.0.$1 fd78::$1"; }

for dir in /tmp/kinwatch-lab-"$prefix"[0-9]*; do
  old=${dir#/tmp/kinwatch-lab-}
  [[ -d $dir ]] && ! kill -0 "${old#"$prefix"}" 2>/dev/null && bash "$script" --name "$old" down
done
trap 'lab down >/dev/null 2>&1' EXIT
