#!/usr/bin/env bash
# Keyed cameras 1 and 2 rotate from key A to B in three steps (1 by a rename, 2 in place): nobody is lost
# then or 65 s after, nothing refused, an invalid file leaves the keys, and camera 3 with B alone joins.
# Usage: group_keys.sh <scripts/lab> <kinwatch>
source "$(dirname "$0")/lab_test.sh" kwkeys "$@"
loaded() { [[ $(lab log "$1" | grep -c 'Group keys loaded from') -ge $2 ]]; } # <camera> <times>
knows() { [[ $(lab nodes "$1" 2>/dev/null | cut -c 16-17 | tr -d '\n') == "$2" ]]; } # <camera> <last digits...>

lab up 3 --binary "$kinwatch" --fast-join --user --key-file || exit 1
A=$(grep -v '^#' "/tmp/kinwatch-lab-$name/c1/keys/group.key")
B=$(od -An -tx1 -N32 /dev/urandom | tr -d ' \n')
lab run-state 3 Stopped # its monitor says LEAVE; a killed camera would be reported lost
wait_for 15 eval 'knows 1 02 && knows 2 01' || fail "the keyed cameras did not learn each other"
lab stop 3

echo "--- rotation from A to B, one step on both cameras every few seconds"
for step in 1 2 3; do
  keys=("$A $B" "$B $A" "$B")
  # shellcheck disable=SC2086 # one key per word
  lab key 1 --rename ${keys[step - 1]} && lab key 2 ${keys[step - 1]}
  wait_for 5 eval "loaded 1 $step && loaded 2 $step" || fail "step $step did not take effect within 5 s"
  sleep 3
done
rotated=$SECONDS
lab key 1 "not a key"
wait_for 5 eval "lab log 1 | grep -q 'line 1 is not a key of 64 hex digits; the keys in use stay'" ||
  fail "the invalid file was not refused"

echo "--- camera 3 starts with key B alone"
lab key 3 "$B"
lab run-state 3 Running
lab start 3
wait_for 20 eval 'knows 1 0203 && knows 2 0103 && knows 3 0102' || fail "camera 3 and the others did not learn each other"
sleep $((rotated + 70 - SECONDS)) # a silent sibling is reported 60 to 65 s after it was last heard
for n in 1 2 3; do
  lab events "$n" | grep SiblingDisconnected && fail "camera $n reported a loss"
  lab log "$n" | grep -E 'Refused|Sanitizer|runtime error:' && fail "camera $n refused datagrams or failed"
done
knows 1 0203 && knows 2 0103 && knows 3 0102 || fail "a camera was forgotten"
lab down
echo "$failures failures"
((failures == 0))
