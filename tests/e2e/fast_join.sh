#!/usr/bin/env bash
# Ten cameras with --fast-join. Camera 10, its package started once the nine know each other, and camera 5,
# killed and started again at once, know and are known by every other within 2 s of their first ANNOUNCE
# on the wire; nobody reports a loss.
# Usage: fast_join.sh <scripts/lab> <kinwatch>
source "$(dirname "$0")/lab_test.sh" kwfast "$@"
lists() { # <camera> [<camera not listed>]: it lists exactly the others
  [[ $(lab nodes "$1" 2>/dev/null | cut -c16-17 | tr '\n' ' ') == "$(for m in {1..10}; do ((m == $1 || m == ${2:-0})) || printf '%02x ' "$m"; done)" ]]
}
nine_know() { for n in {1..9}; do lists "$n" 10 || return 1; done; }
# Seconds from its first ANNOUNCE on the wire to the last SiblingConnected for it, and the last of its own.
joins() { # <camera> <what makes it join...>
  local n=$1 at
  spawn lab capture "$state/join.pcap" 0 10
  sleep 1
  "${@:2}"
  wait "${spawned[-1]}"
  at=$(tcpdump -r "$state/join.pcap" -n -tttt 2>/dev/null | awk -v src="10.78.0.$n." '$NF == 32 && index($4, src) == 1 { print $2; exit }')
  for a in {1..10}; do lab events "$a" --times | sed "s/^/$a /"; done | awk -v at="$at" -v mac="serialnumber=$(mac "$n")" -v n="$n" '
    function t(hms) { split(hms, f, ":"); return f[1] * 3600 + f[2] * 60 + f[3] }
    $3 == "SiblingConnected" && t($2) > t(at) - 0.01 { if ($1 == n) own[$4] = t($2) - t(at); else if ($4 == mac) by[$1] = t($2) - t(at) }
    END { for (a in by) { k++; if (by[a] > known) known = by[a] }; for (s in own) { o++; if (own[s] > knows) knows = own[s] }
      printf "camera %d known by %d others, the last after %.3f s; knows %d, the last after %.3f s\n", n, k, known, o, knows
      exit !(k == 9 && o == 9 && known <= 2 && knows <= 2) }' || fail "camera $n did not join within 2 s"
}

lab up 10 --binary "$kinwatch" --fast-join || exit 1
lab run-state 10 Stopped
wait_for 60 nine_know || fail "the nine did not know exactly each other"
echo "--- camera 10's package runs"
joins 10 lab run-state 10 Running
echo "--- camera 5 killed and started again at once"
joins 5 eval 'lab kill 5 && lab start 5'
for n in {1..10}; do
  check lists "$n"
  check equals "$(lab events "$n" | grep -c SiblingDisconnected)" 0
done
echo "$failures failures"
((failures == 0))
