#!/usr/bin/env bash
# A flood at one lab camera: COUNT ANNOUNCEs of its group with random node
# ids and COUNT junk datagrams, over IPv4 and IPv6, in SECONDS, sent from a
# second camera's namespace (its kinwatch stopped). Prints camera 1's
# resident size, private (dirty) memory, threads and descriptors before,
# right after and a while after the flood, its node counts, whether its bus
# still answers, and its warnings. With --keyed both cameras run with the
# lab's key, and the flood is of ANNOUNCEs signed with it (a key holder's
# forgeries, each from a new id), so every one of them reaches the challenge
# path; its counters are printed too. Needs root; builds nothing. The lab is
# named $KW_LAB_NAME (default flood); with KW_BENCH_BRIEF=1 (the test
# suite's check that it still runs) it waits 1 s instead of 12 before and
# after the flood.
#   bench/flood.sh [--binary PATH] [--keyed] [COUNT] [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
binary=$root/build/plain/src/frame/kinwatch
if [[ ${1:-} == --binary ]]; then binary=$2; shift 2; fi
keyed=()
if [[ ${1:-} == --keyed ]]; then keyed=(--key-file); shift; fi
count=${1:-200000}
seconds=${2:-5}
name=${KW_LAB_NAME:-flood}
wait=12
[[ -z ${KW_BENCH_BRIEF:-} ]] || wait=1
lab() { "$root/scripts/lab" --name "$name" "$@"; }

lab up 2 --binary "$binary" "${keyed[@]}" >/dev/null
trap 'lab down >/dev/null' EXIT
lab stop 2
sleep "$wait" # a couple of ticks: camera 1 settles
read -r pid _ <"/tmp/kinwatch-lab-$name/c1/kinwatch.pid"
figures() {
  printf '%-12s rss %6s kB  private %6s kB  threads %3s  descriptors %3s  known %3s  lost %3s\n' "$1" \
    "$(awk '/VmRSS/ {print $2}' /proc/$pid/status)" "$(awk '$1 == "Private_Dirty:" {print $2}' /proc/$pid/smaps_rollup)" \
    "$(ls /proc/$pid/task | wc -l)" \
    "$(ls /proc/$pid/fd | wc -l)" "$(lab nodes 1 | wc -l)" "$(lab nodes 1 --lost | wc -l)"
  echo "             threads: $(sort /proc/$pid/task/*/comm | uniq -c | tr -s ' \n' ' ')"
  ((${#keyed[@]} == 0)) || gdbus call --address "$(lab address 1)" --dest com.tavix.Kinwatch --object-path \
    /com/tavix/Kinwatch --method org.freedesktop.DBus.Properties.Get com.tavix.Kinwatch.Monitor1 Statistics |
    grep -oE "'(refused_unverified|refused_over_limit|sent_challenge|refused_no_trailer)': (uint64 )?[0-9]+" |
    sed -E "s/'([a-z_]+)': (uint64 )?([0-9]+)/\1 \3/" | tr '\n' ' ' | sed 's/^/             /; s/$/\n/'
}
figures before
key=$(grep -sv '^#' "/tmp/kinwatch-lab-$name/c1/keys/group.key" || true)
ip netns exec "kwlab-$name-c2" python3 - "$count" "$seconds" "$key" <<'PY'
import hashlib, hmac, os, random, socket, struct, sys, time
count, seconds, key = int(sys.argv[1]), float(sys.argv[2]), bytes.fromhex(sys.argv[3])
key_id = hmac.new(key, b"kinwatch key identifier", hashlib.sha256).digest()[:4]
def signed(plain):
    if not key:
        return plain
    head = plain + key_id + struct.pack(">Q", time.time_ns() // 1000)
    return head + hmac.new(key, head, hashlib.sha256).digest()[:16]
targets = [(socket.AF_INET, ("239.255.78.1", 21845)), (socket.AF_INET6, ("ff05::78", 21845))]
sockets = []
for family, target in targets:
    s = socket.socket(family, socket.SOCK_DGRAM)
    if family == socket.AF_INET:
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, struct.pack("4s4si", bytes(4), bytes(4), socket.if_nametoindex("eth0")))
    else:
        s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, struct.pack("i", socket.if_nametoindex("eth0")))
    sockets.append((s, target))
start = time.monotonic()
for i in range(count):
    s, target = sockets[i % 2]
    node = random.getrandbits(48).to_bytes(6, "big")
    s.sendto(signed(b"\x00\x01\x00\x00\x00\x01" + node + bytes([10, 78, 0, 2]) + bytes(16)), target)
    s.sendto(os.urandom(1 + i % 64), target)
    if i % 1000 == 0:
        ahead = start + seconds * i / count - time.monotonic()
        if ahead > 0:
            time.sleep(ahead)
print(f"sent {2 * count} datagrams in {time.monotonic() - start:.1f} s")
PY
figures after
sleep "$wait"
figures "$wait s later"
lab get 1 TTL >/dev/null
echo "bus answers"
lab log 1 | { grep -i warning || true; } | sort | uniq -c | sort -rn | head
