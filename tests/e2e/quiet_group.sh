#!/usr/bin/env bash
# Three cameras, 1 and 2 with --fast-join, left alone for three announce periods: no event, nothing but
# ANNOUNCEs, one per camera and family every 55 s, each applied at the siblings' next 5-s round.
# Usage: quiet_group.sh <scripts/lab> <kinwatch>
source "$(dirname "$0")/lab_test.sh" kwquiet "$@"
holds_others() { # <camera>: its known list holds exactly the two others, its lost list nothing
  [[ $(lab nodes "$1" | cut -d' ' -f1 | tr '\n' ' ') == "$(for n in 1 2 3; do ((n == $1)) || printf '02:00:00:00:00:%02x ' "$n"; done)" &&
    -z $(lab nodes "$1" --lost) ]]
}
events() { for n in 1 2 3; do lab events "$n" | wc -l; done | tr '\n' ' '; }

lab up 3 --binary "$kinwatch" --fast-join=1,2 || exit 1
# Timers of one host fire at the same instant of the second: restarted 2.5 s later, camera 3 does not
# tick as its siblings announce. Its LEAVE makes its start news that the siblings answer.
lab run-state 3 Stopped && sleep 2.5 && lab run-state 3 Running || exit 1
for ((tries = 30; tries > 0; tries--)); do
  holds_others 1 && holds_others 2 && holds_others 3 && break
  sleep 1
done
((tries > 0)) || { echo "FAIL: the cameras did not learn each other within 30 s"; exit 1; }
before=$(events)
echo "--- left alone for three announce periods"
lab capture "$state/quiet.pcap" 0 170 2>/dev/null
sleep 6 # the last ANNOUNCEs captured are applied
after=$(events)

# Seconds since the first datagram captured (logs and capture share this machine's wall clock).
tcpdump -r "$state/quiet.pcap" -n -tttt 2>/dev/null | sed -E 's/^[^ ]+ /wire /' | sort -k2,2 >"$state/quiet.lines"
for n in 1 2 3; do
  sed -nE "s/.*DEBUG: ([0-9:.]+): ANNOUNCE: ([0-9]+), First seen.*/log $n \\1 \\2/p" "$state/c$n/kinwatch.log"
done >>"$state/quiet.lines"
awk '
  function t(hms) { split(hms, f, ":"); d = f[1] * 3600 + f[2] * 60 + f[3] - start; return d < -43200 ? d + 86400 : d }
  function fail(text) { print "FAIL: " text; failed = 1 }
  $1 == "wire" && !start { start = t($2) }
  $1 == "log" { nlog++ }
  $1 == "wire" {
    if ($NF != 32) fail("a datagram other than an ANNOUNCE: " $0)
    camera = $4; sub(/^(10\.78\.0\.|fd78::)/, "", camera); sub(/\..*/, "", camera)
    key = camera " " $3; sent[key, ++count[key]] = t($2)
  }
  $1 == "log" && (at = t($3)) > -1 && at < 180 { rounds[$2, ++nrounds[$2]] = at; from[$2, nrounds[$2]] = $4 - 2199023255552 }
  END {
    for (n = 1; n <= 3; n++) for (family = 0; family < 2; family++) {
      key = n " " (family ? "IP6" : "IP")
      if (count[key] < 3) fail("camera " n ": " count[key] + 0 " " key " ANNOUNCEs in three announce periods")
      for (i = 1; i <= count[key]; i++) {
        if (i > 1 && ((gap = sent[key, i] - sent[key, i - 1]) < 54.5 || gap > 55.5)) fail("camera " n ": " key " ANNOUNCEs " gap " s apart")
        for (a = 1; a <= 3; a++) {
          found = a == n
          for (j = 1; j <= nrounds[a]; j++)
            if (from[a, j] == n && (late = rounds[a, j] - sent[key, i]) >= -0.1 && late <= 5.5) found = 1
          if (!found) fail("camera " a " did not apply camera " n "s " key " ANNOUNCE within 5 s")
        }
      }
    }
    # Rounds that apply something are whole process periods apart.
    for (a = 1; a <= 3; a++) for (i = 2; i <= nrounds[a]; i++) {
      gap = rounds[a, i] - rounds[a, i - 1]; off = gap % 5
      if (off > 0.5 && off < 4.5) fail("camera " a ": processing rounds " gap " s apart")
    }
    printf "%d datagrams; ANNOUNCEs applied: %d %d %d\n", NR - nlog, nrounds[1], nrounds[2], nrounds[3]
    exit failed
  }' "$state/quiet.lines" || failures=1
[[ $before == "$after" ]] || { echo "FAIL: events raised while left alone: $before then $after"; failures=1; }
for n in 1 2 3; do holds_others "$n" || { echo "FAIL: camera $n no longer holds exactly the others"; failures=1; }; done
((failures == 0)) && echo "passed"
