#!/usr/bin/env bash
# Ten lab cameras with --fast-join. Camera 10, whose package starts running
# while the nine others know each other, and camera 5, killed with SIGKILL
# and started again at once, each know every other camera and are known by
# every other one within 2 s of their first ANNOUNCE on the wire; nobody
# reports a loss.
# Usage: fast_join.sh <scripts/lab> <kinwatch>
source "$(dirname "$0")/lab_test.sh" kwfast "$@"
others() { for n in {1..10}; do ((n == $1)) || node "$n"; done; } # <camera>
lists() { [[ $(lab nodes "$1" 2>/dev/null | cut -d' ' -f1-3) == "$(others "$1" | grep -v "^$(mac "${2:-0}")")" ]]; }
# Seconds from the camera's first ANNOUNCE in the capture to the last
# SiblingConnected raised for it, and to the last one it raised itself.
joined_after() { # <camera> <pcap>
  local at
  at=$(tcpdump -r "$2" -n -tttt 2>/dev/null | awk -v src="10.78.0.$1." '$NF == 32 && index($4, src) == 1 { print $2; exit }')
  for n in {1..10}; do lab events "$n" --times | sed "s/^/$n /"; done | awk -v at="$at" -v c="$(mac "$1")" -v n="$1" '
    function t(hms) { split(hms, f, ":"); return f[1] * 3600 + f[2] * 60 + f[3] }
    $3 == "SiblingConnected" && t($2) > t(at) - 0.01 { if ($1 == n) own[$4] = t($2) - t(at); else if ($4 == "serialnumber=" c) known[$1] = t($2) - t(at) }
    END { for (a in known) if (known[a] > k) k = known[a]; for (s in own) if (own[s] > o) o = own[s]
      printf "%d %d %.3f %.3f\n", length(known), length(own), k, o }'
}
check_joined() { # <camera> <pcap>
  local got
  got=$(joined_after "$1" "$2")
  echo "camera $1 known by / knowing others, the last after: $got"
  check awk -v got="$got" 'BEGIN { split(got, g); exit !(g[1] == 9 && g[2] == 9 && g[3] <= 2 && g[4] <= 2) }'
}

lab up 10 --binary "$kinwatch" --fast-join || exit 1
lab run-state 10 Stopped
nine_know() { for n in {1..9}; do lists "$n" 10 || return 1; done; }
wait_for 60 nine_know || fail "the nine did not know exactly each other"
echo "--- camera 10's package runs"
spawn lab capture "$state/new.pcap" 0 10
sleep 1
lab run-state 10 Running
wait "${spawned[-1]}"
check_joined 10 "$state/new.pcap"

echo "--- camera 5 killed and started again at once"
spawn lab capture "$state/restart.pcap" 0 10
sleep 1
lab kill 5 && lab start 5
wait "${spawned[-1]}"
check_joined 5 "$state/restart.pcap"
for n in {1..10}; do
  check lists "$n"
  check equals "$(lab events "$n" | grep -c SiblingDisconnected)" 0
done
echo "$failures failures"
((failures == 0))
