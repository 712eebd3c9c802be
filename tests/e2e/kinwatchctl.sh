#!/usr/bin/env bash
# kinwatchctl against three cameras: node signals as watches on 1 and 2 see camera 3 leave, join again and
# be killed; a limited watch that never polls; every command in each state of camera 1, output and status.
# Usage: kinwatchctl.sh <scripts/lab> <kinwatch> <kinwatchctl>
source "$(dirname "$0")/lab_test.sh" kwctl "$@"
knows() { [[ $(lab nodes "$1" 2>/dev/null | cut -d' ' -f1 | tr '\n' ' ') == "$2" ]]; } # <camera> "<macs> "

lab up 3 --binary "$kinwatch" --fast-join || exit 1
wait_for 20 eval 'knows 1 "$(mac 2) $(mac 3) " && knows 2 "$(mac 1) $(mac 3) "' || fail "the cameras did not learn each other"

echo "--- signals: camera 3 leaves, joins again and is killed"
for n in 1 2; do # as commands, not through ctl, so that $! is theirs to end
  spawn "$ctl_binary" --address "$(lab address "$n")" watch --json >"$state/signals$n" 2>"$state/signals$n.err"
  eval "signals$n=\$!"
done
spawn dbus-monitor --address "$(lab address 1)" "type='method_call'" >"$state/calls" 2>/dev/null
monitor=$!
# Each watch says when it has subscribed and read the lists.
watching() { local f; for f; do wait_for 20 grep -qs '^kinwatchctl: watching' "$f" || fail "no watch began: $f"; done; }
watching "$state/signals1.err" "$state/signals2.err"
sleep 1 # dbus-monitor's own subscription
lab run-state 3 Stopped
seen() { wait_for 20 eval "[[ \$(wc -l <'$state/signals$1') -ge $2 ]]" || fail "camera $1 saw no change $2"; } # <camera> <n>
seen 1 1
ctl 1 watch --limit 2 >"$state/limited" 2>&1 &
limited=$!
watching "$state/limited"
lab run-state 3 Running
seen 2 2
lab kill 3
wait "$limited"
check equals "$?" 0
check equals "$(grep -v '^kinwatchctl: watching' "$state/limited")" "joined $(mac 3) 10.78.0.3 fd78::3
lost $(mac 3) 10.78.0.3 fd78::3"
end "$monitor"
check equals "$(grep -cE 'member=Get(Known|Lost)Nodes' "$state/calls")" 0
check grep -q 'member=GetNodes' "$state/calls"
seen 2 3
# A watch ends at once on its interrupt: here waiting for signals, below for a service that does not answer.
ended() { # <pid> <signal> <what>
  local from=${EPOCHREALTIME/./} status=0
  end "$1" "$2" || fail "$3 still ran 5 s after its SIG$2"
  wait "$1" || status=$?
  echo "$3 ended with status $status $(((${EPOCHREALTIME/./} - from) / 1000)) ms after its SIG$2"
  ((status == 0)) || fail "$3 ended with status $status: $(cat "$state/$4")"
}
for n in 1 2; do
  ended "$(eval echo "\$signals$n")" TERM "camera $n's watch" "signals$n.err"
  # One change each, generations one apart, the loss reported by camera 1 alone.
  check equals "$(sed -E 's/"generation":[0-9]+,//; s/,"first_seen".*"reported"/,"reported"/; s/,"first_seen".*\}/}/' "$state/signals$n")" \
"{\"change\":\"left\",\"mac\":\"$(mac 3)\",\"ipv4\":\"10.78.0.3\",\"ipv6\":\"fd78::3\"}
{\"change\":\"joined\",\"mac\":\"$(mac 3)\",\"ipv4\":\"10.78.0.3\",\"ipv6\":\"fd78::3\"}
{\"change\":\"lost\",\"mac\":\"$(mac 3)\",\"ipv4\":\"10.78.0.3\",\"ipv6\":\"fd78::3\",\"reported\":$([[ $n == 1 ]] && echo true || echo false)}"
  check awk -F'"generation":' 'NR > 1 && $2 + 0 != last + 1 { exit 1 } { last = $2 + 0 }' "$state/signals$n"
done

echo "--- a watch whose service does not answer its first read"
spawn dbus-monitor --address "$(lab address 2)" "type='method_call',member='GetNodes'" >"$state/reads" 2>/dev/null
reader=$!
sleep 1 # dbus-monitor's own subscription
read -r service _ <"$state/c2/kinwatch.pid"
kill -STOP "$service"
for signal in INT TERM; do
  reads=$(grep -c 'member=GetNodes' "$state/reads")
  spawn "$ctl_binary" --address "$(lab address 2)" watch >"$state/stuck" 2>&1
  watcher=$!
  wait_for 20 eval '(($(grep -c member=GetNodes "$state/reads") > reads))' || fail "the watch asked for no lists"
  ended "$watcher" "$signal" "a watch of a stopped service" stuck
done
kill -CONT "$service"
end "$reader"

echo "--- status follows a link added and removed"
in_use() { ctl 1 status | sed -n '/^interfaces:/,$p'; }
eth0="interfaces:  eth0 10.78.0.1 fd78::1" both="interfaces:  eth0 10.78.0.1 fd78::1
             eth1 10.79.0.1 fd79::1"
ip -n "kwlab-$name-c1" link add eth1 type veth peer name eth1c1 netns "kwlab-$name-br" &&
  ip -n "kwlab-$name-br" link set eth1c1 up && ip -n "kwlab-$name-c1" link set eth1 up &&
  ip -n "kwlab-$name-c1" addr add 10.79.0.1/24 dev eth1 && ip -n "kwlab-$name-c1" addr add fd79::1/64 dev eth1 nodad
check wait_for 20 eval '[[ $(in_use) == "$both" ]]'
ip -n "kwlab-$name-c1" link del eth1
check wait_for 20 eval '[[ $(in_use) == "$eth0" ]]'

echo "--- every command in every state of camera 1"
# Each row: state, command, exit status, the output as a pattern. Camera 1 knows 2 and has lost 3.
absent="^kinwatchctl: the kinwatch service is not running on this bus$"
settings="^enabled: +(true|false)
ttl: +[0-9]+
group: +1
ipv4-group: +239\.255\.78\.1
ipv6-group: +ff05::78
keyed: +no
"
json='^\{"enabled":(true|false),"ttl":[0-9]+,"group":1,"ipv4_group":"239\.255\.78\.1","ipv6_group":"ff05::78","keyed":false,'
table="
enabled|status|0|${settings}known nodes: 1
lost nodes:  1
interfaces:  eth0 10\.78\.0\.1 fd78::1$
enabled|status --json|0|$json\"known_nodes\":1,\"lost_nodes\":1,\"interfaces\":\[\{\"name\":\"eth0\",\"ipv4\":\"10\.78\.0\.1\",\"ipv6\":\"fd78::1\"}]}$
enabled|nodes|0|^HARDWARE ADDRESS .*
$(mac 2)  10\.78\.0\.2  fd78::2  [^
]+$
enabled|nodes --lost|0|^HARDWARE ADDRESS .*
$(mac 3)  10\.78\.0\.3  fd78::3  [^
]+$
enabled|nodes --json|0|^\{\"mac\":\"$(mac 2)\",\"ipv4\":\"10\.78\.0\.2\",\"ipv6\":\"fd78::2\",\"first_seen\":[0-9]+,\"last_seen\":[0-9]+\}$
enabled|set ttl 0|1|^kinwatchctl: cannot set ttl: TTL must be in the range \[1\.\.255\]$
enabled|set ttl 256|2|^kinwatchctl: invalid value '256' for ttl: expected a whole number from 0 to 255
Try 'kinwatchctl --help'\.$
enabled|set ttl 2|0|^$
enabled|watch|0|^kinwatchctl: watching 1 known and 1 lost nodes; interrupt to stop$
enabled|stats|0|^received_ipv4: +[1-9][0-9]*
(.*
)*queue_high_water: +[0-9]+$
enabled|stats --json|0|^\{\"received_ipv4\":[1-9][0-9]*,(\"[a-z0-9_]+\":[0-9]+,){21}\"queue_high_water\":[0-9]+\}$
disabled|status|0|${settings}known nodes: - \(not enabled\)
lost nodes:  - \(not enabled\)
interfaces:  none$
disabled|status --json|0|$json\"known_nodes\":null,\"lost_nodes\":null,\"interfaces\":\[]}$
disabled|nodes|1|^kinwatchctl: cannot list the known nodes: Kinwatch is not enabled$
disabled|nodes --lost|1|^kinwatchctl: cannot list the lost nodes: Kinwatch is not enabled$
disabled|nodes --json|1|^kinwatchctl: cannot list the known nodes: Kinwatch is not enabled$
disabled|set ttl 3|0|^$
disabled|watch|0|^kinwatchctl: watching 0 known and 0 lost nodes; interrupt to stop$
disabled|stats --json|0|^\{\"received_ipv4\":[1-9]
stopped|status|0|${settings}known nodes: 0
lost nodes:  0
interfaces:  none$
stopped|nodes|0|^No known nodes\.$
stopped|nodes --lost|0|^No lost nodes\.$
stopped|nodes --json|0|^$
stopped|set ttl 1|0|^$
stopped|watch|0|^kinwatchctl: watching 0 known and 0 lost nodes; interrupt to stop$
stopped|stats|0|^received_ipv4: +[1-9]
$(for c in status nodes 'nodes --json' 'set ttl 2' watch stats; do echo "absent|$c|3|$absent"; done)
"
enter() { # <state>
  case $1 in
    disabled) ctl 1 set enabled false ;;
    stopped) ctl 1 set enabled true && lab run-state 1 Stopped ;;
    absent) lab stop 1 ;;
  esac
}
current=enabled
rows=()
while IFS= read -r line; do
  if [[ $line =~ ^(enabled|disabled|stopped|absent)\| ]]; then
    rows+=("$line")
  elif [[ -n $line ]] && ((${#rows[@]})); then
    rows[-1]+=$'\n'$line
  fi
done <<<"$table"
for row in "${rows[@]}"; do
  IFS='|' read -r when command status _ <<<"${row%%$'\n'*}"
  pattern=${row#*|*|*|}
  [[ $when == "$current" ]] || { enter "$when"; current=$when; sleep 1; }
  # A watch that has begun (or ended on its own) is ended with SIGTERM, its clean end.
  if [[ $command == watch ]]; then
    spawn "$ctl_binary" --address "$(lab address 1)" watch >"$state/row" 2>&1
    pid=$!
    wait_for 20 eval '! alive $pid || grep -q "^kinwatchctl: watching" "$state/row"'
    end "$pid" || fail "$when: kinwatchctl watch still ran 5 s after its SIGTERM"
    wait "$pid"
    got=$?
    out=$(cat "$state/row")
  else
    # shellcheck disable=SC2086 # the command's words
    out=$(ctl 1 $command 2>&1)
    got=$?
  fi
  equals "$got" "$status" && matches "$out" "$pattern" || fail "$when: kinwatchctl $command"
done

echo "$failures failures"
((failures == 0))
