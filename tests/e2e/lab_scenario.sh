#!/usr/bin/env bash
# Four lab cameras, services as the user kinwatch under the package's bus policy, 1 to 3 with --fast-join,
# camera 1 under libfaketime: learning, fast join, the run state, a late link, group changes, a kill and
# its single report, wall-clock steps and a restarted bus daemon.
# Usage: lab_scenario.sh <scripts/lab> <kinwatch> <kinwatchctl>
source "$(dirname "$0")/lab_test.sh" kwe2e "$@"

# Whether camera A's known (--lost: lost) list holds exactly the cameras named; a failed call nothing.
holds() { # [--lost] <a> <camera...>
  local lost=() n want="" got
  [[ $1 == --lost ]] && { lost=(--lost); shift; }
  local a=$1
  shift
  for n in "$@"; do want+=$(node "$n")$'\n'; done
  got=$(lab nodes "$a" "${lost[@]}" 2>/dev/null | cut -d' ' -f1-3) || return 1
  [[ $got == "${want%$'\n'}" ]]
}
count_events() { # <camera> <event> [<camera named>]
  lab events "$1" | grep -c "^$2 serialnumber=${3:+$(mac "$3") }"
}
gone() { [[ ! -e /proc/$1 || $(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null) == Z* ]]; }

out=$(cd / && setpriv --reuid=65534 --regid=65534 --clear-groups bash -s -- status <"$script" 2>&1)
check test $? -ne 0
check grep -q "must run as root" <<<"$out"

since=$(date +%s)
lab up 4 --binary "$kinwatch" --fast-join=1,2,3 --user --fake-clock=1 || exit 1
for pid in $(lab status | grep -oE 'kinwatch=[0-9]+' | cut -d= -f2); do
  check test "$(awk '/^Uid:/ {print $2}' "/proc/$pid/status")" -ne 0
done

echo "--- every camera learns the three others, camera 4 from the others' answers"
start=$SECONDS
# Well below the 55 s of periodic ANNOUNCEs: with the option within 10 s, camera 4 at its tick after the answers.
wait_for 10 eval 'holds 1 2 3 4 && holds 2 1 3 4 && holds 3 1 2 4' || fail "cameras 1 to 3 did not learn all within 10 s"
wait_for 10 holds 4 1 2 3 || fail "camera 4 did not learn the others from their answers"
echo "converged in $((SECONDS - start)) s"
# Own ANNOUNCEs sent: camera 4, without the option, only the start's; camera 1 also answered the others.
own_announces() { lab log "$1" | grep -c "ANNOUNCE: $((0x020000000000 + $1)), IPv4"; }
check equals "$(own_announces 4)" 1
check test "$(own_announces 1)" -ge 2
now=$(date +%s)
for a in 1 2 3 4; do
  check equals "$(lab nodes "$a" | awk -v s="$since" -v n="$now" '!(s <= $4 && $4 <= $5 && $5 <= n)')" ""
  for b in 1 2 3 4; do
    ((a == b)) || check equals "$(count_events "$a" SiblingConnected "$b")" 1
  done
  check equals "$(count_events "$a" SiblingDisconnected)" 0
done

echo "--- a camera whose package stops leaves without an event"
lab run-state 3 Stopped
wait_for 30 eval 'holds 1 2 4 && holds 2 1 4 && holds 4 1 2' || fail "camera 3 is still listed"
check holds 3
for a in 1 2 4; do check holds --lost "$a"; done
echo "--- its monitor starts again with its link down; the link comes up 20 s later"
lab link 3 down
lab run-state 3 Running
answers=$(own_announces 1)
sleep 20
# Nobody joined meanwhile: at most a periodic ANNOUNCE, answers do not cascade.
check test $(($(own_announces 1) - answers)) -le 1
check holds 1 2 4
lab link 3 up
start=$SECONDS
wait_for 10 eval 'holds 1 2 3 4 && holds 2 1 3 4 && holds 4 1 2 3' || fail "camera 3 was not learnt within 10 s"
echo "learnt in $((SECONDS - start)) s"
# Its first ANNOUNCE after the link came up is its own, not an answer to the others' periodic ones.
check awk -v leave="LEAVE: $((0x020000000003))" -v own="ANNOUNCE: $((0x020000000003)), IPv4" '
  index($0, leave) { phase = 1; first = "" }
  phase == 1 && /Interface\(eth0\): state:up/ { phase = 2 }
  phase == 2 && first == "" && /ANNOUNCE: [0-9]+, IPv4/ { first = $0 }
  END { exit !index(first, own) }' "$state/c3/kinwatch.log"
for a in 1 2 4; do check equals "$(count_events "$a" SiblingConnected 3)" 2; done

echo "--- a group change over kinwatchctl"
check ctl 4 set group 5
check grep -qx KinwatchGroup=5 "$state/c4/kinwatch.conf"
check grep -qx 'group:       5' <<<"$(ctl 4 status)"
check holds 4
wait_for 30 eval 'holds 1 2 3 && holds 2 1 3' || fail "camera 4's LEAVE did not reach cameras 1 and 2"

echo "--- camera 1's wall clock steps an hour ahead: it loses nobody"
ahead=$(lab log 1 | wc -l)
lab clock 1 +3600
sleep 12 # two ticks: silence measured on the wall clock would lose both at the first
check holds 1 2 3
check equals "$(count_events 1 SiblingDisconnected)" 0

echo "--- an hour behind, then a kill: reported once, by the lowest id, 60 to 65 s after it was last heard"
behind=$(lab log 1 | wc -l)
lab clock 1 -3600
lab kill 3
start=$SECONDS
wait_for 100 eval '[[ $(count_events 1 SiblingDisconnected 3) -gt 0 ]]' || fail "camera 1 did not report camera 3"
echo "reported in $((SECONDS - start)) s"
wait_for 30 eval 'holds --lost 1 3 && holds --lost 2 3 && holds 1 2 && holds 2 1' ||
  fail "cameras 1 and 2 did not both move camera 3 to their lost lists"
# Camera 4, in another group since, applies nothing of group 1.
check equals "$(for a in 1 2 4; do count_events "$a" SiblingDisconnected; done)" $'1\n0\n0'
# Off camera 1's log, whose lines between the steps are an hour ahead, those after an hour behind:
# 60 s of silence and at most one 5-s tick, with a second's grace for a late tick.
heard_to_report() {
  lab log 1 | awk -v ahead="$ahead" -v behind="$behind" -v id=$((0x020000000003)) '
    function real(line) { match(line, /[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\.[0-9]+/); split(substr(line, RSTART, RLENGTH), f, ":")
      return f[1] * 3600 + f[2] * 60 + f[3] + (NR <= ahead ? 0 : NR <= behind ? -3600 : 3600) }
    $0 ~ "DEBUG: .*: ANNOUNCE: " id ", IPv4" { heard = real($0) }
    /SiblingDisconnected: serialnumber=02:00:00:00:00:03/ { print (real($0) - heard + 86400) % 86400; exit }'
}
echo "camera 1 reported camera 3 $(heard_to_report) s after it last heard it"
check awk -v s="$(heard_to_report)" 'BEGIN { exit !(s >= 60 && s <= 66) }'

echo "--- camera 2's bus daemon killed, started again 5 s later: its service and monitor run on"
service_pid() { lab status | sed -nE "s/^cam$1 kinwatch=([0-9]+) .*/\1/p"; }
pid=$(service_pid 2) lines=$(lab log 2 | wc -l)
lab bus 2 kill
sleep 5 # several attempts to reconnect fail meanwhile
lab bus 2 start
start=$SECONDS
wait_for 10 eval 'lab get 2 TTL >/dev/null 2>&1' || fail "camera 2's name did not answer within 10 s of its bus"
echo "answered in $((SECONDS - start)) s"
check equals "$(service_pid 2)" "$pid"
check holds 2 1
check equals "$(lab log 2 | tail -n +$((lines + 1)) | grep -oE 'LEAVE:|System bus connection lost, reconnecting|Connected to the system bus')" \
  $'System bus connection lost, reconnecting\nConnected to the system bus'

for n in 1 2 3 4; do
  check equals "$(lab log "$n" | grep -E 'Sanitizer|runtime error:|CRITICAL \*\*|ERROR \*\*')" ""
  ((failures == 0)) || { echo "--- end of camera $n's log"; lab log "$n" | tail -40; }
done

echo "--- down leaves no process, namespace, mount or file"
pids=$(lab status | grep -oE '(kinwatch|dbus)=[0-9]+' | cut -d= -f2)
check lab down
check lab down
check equals "$(ip netns list | grep -c "^kwlab-$name-")" 0
check test ! -e "$state"
check equals "$(grep -c "$state" /proc/mounts)" 0
for pid in $pids; do
  wait_for 10 gone "$pid" || fail "process $pid still runs"
done

echo "$failures failures"
((failures == 0))
