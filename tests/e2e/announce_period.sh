#!/usr/bin/env bash
# Five lab cameras: 1 to 3 announce every second (--announce-period=1), 4
# and 5 every 55 s, 4 with --fast-join so that it answers news. Nobody is
# lost in 20 s; camera 3 killed with SIGKILL is reported by camera 1 alone,
# 3 to 4.5 s after camera 1 last heard it. Then, with 5 % of the datagrams
# dropped on the bridge and camera 3 started again (news that camera 4
# answers), no false loss in three minutes, and camera 4 killed is reported
# once, 50 to 66 s after it was last heard.
# Usage: announce_period.sh <scripts/lab> <kinwatch>
source "$(dirname "$0")/lab_test.sh" kwperiod "$@"
knows_all() { for n in 1 2 3 4 5; do [[ $(lab nodes "$n" 2>/dev/null | wc -l) == 4 ]] || return 1; done; }
losses() { for n in 1 2 3 4 5; do lab events "$n" | grep SiblingDisconnected | sed "s/^/$n /"; done; }
# Seconds from the last ANNOUNCE of the camera in camera 1's log to camera 1's report of it.
silence() { # <camera>
  lab log 1 | awk -v id="ANNOUNCE: $((0x020000000000 + $1)), IPv4" -v lost="SiblingDisconnected: serialnumber=$(mac "$1")" '
    function t() { match($0, /[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\.[0-9]+/); split(substr($0, RSTART, RLENGTH), f, ":")
      return f[1] * 3600 + f[2] * 60 + f[3] }
    index($0, id) { heard = t() }
    index($0, lost) { print (t() - heard + 86400) % 86400; exit }'
}
between() { awk -v s="$1" -v low="$2" -v high="$3" 'BEGIN { exit !(s != "" && s >= low && s <= high) }'; }

lab up 5 --binary "$kinwatch" --announce-period=1:1,2,3 --fast-join=4 || exit 1
wait_for 30 knows_all || fail "the cameras did not learn each other"
sleep 20
check equals "$(losses)" ""
echo "--- camera 3 killed"
lab kill 3
wait_for 10 eval '[[ -n $(losses) ]]' || fail "camera 3 was not reported"
sleep 1
check equals "$(losses)" "1 SiblingDisconnected serialnumber=$(mac 3) ipv4address=10.78.0.3 ipv6address=fd78::3"
echo "camera 1 reported camera 3 $(silence 3) s after it last heard it"
check between "$(silence 3)" 3 4.5

echo "--- 5 % of the datagrams lost, camera 3 back, three minutes"
lab loss 5
lab start 3
mixed=$SECONDS
own=$((0x020000000004))
last_own() { lab log 4 | sed -nE "s/.*DEBUG: ([0-9:.]+): ANNOUNCE: $own, IPv4.*/\1/p" | tail -1; }
age() { echo $(($(date +%s) - $(date -d "$(last_own)" +%s))); }
# Camera 4 lives through a minute after the news, then dies 45 s after its
# last ANNOUNCE, so that its loss comes within the three minutes.
sleep 60
wait_for 60 eval '(($(age) >= 45))'
lab kill 4
wait_for 30 eval '[[ $(losses | wc -l) -ge 2 ]]' || fail "camera 4 was not reported"
echo "camera 1 reported camera 4 $(silence 4) s after it last heard it"
check between "$(silence 4)" 50 66
sleep $((mixed + 180 - SECONDS))
check equals "$(losses | cut -d' ' -f1-3)" "1 SiblingDisconnected serialnumber=$(mac 3)
1 SiblingDisconnected serialnumber=$(mac 4)"
for n in 1 2 3 5; do check equals "$(lab nodes "$n" | cut -c16-17 | tr '\n' ' ')" "$(for m in 1 2 3 5; do ((m == n)) || printf '%02d ' "$m"; done)"; done
echo "$failures failures"
((failures == 0))
