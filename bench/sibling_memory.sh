#!/usr/bin/env bash
# Private memory of one lab camera against the number of siblings it knows,
# without a key and with one (-k). Camera 1 runs with MaxHosts 1024; camera
# 2's kinwatch is stopped and its namespace sends the siblings' ANNOUNCEs,
# each on IPv4 and IPv6 as a camera sends them (signed, with the key, when
# camera 1 has one), one round per tick, ROUNDS rounds before each figure.
# Private memory is Private_Dirty of /proc/PID/smaps_rollup two ticks after
# the last round: the heap, stacks and written data that no other process
# shares. Private_Clean is shown apart: it is the binary's and libraries'
# pages that no other process happens to map at the time, a figure of the
# machine rather than of the service, which does not grow with siblings.
# Each figure is taken before anything reads the node lists; afterwards the
# known list is read once and must hold every sibling.
#
# Needs root; builds nothing. The lab is named $KW_LAB_NAME (default
# sibmem); camera 1 runs first without a key, then is started again with one.
# With KW_BENCH_BRIEF=1 (the test suite's check that it still runs) it takes
# 0 and 16 siblings and one round each. It fails when it cannot measure (a
# camera that does not come up or tick, siblings not all learnt, an
# unreadable smaps_rollup), never on a figure.
#   bench/sibling_memory.sh [--binary PATH] [--rounds R] [COUNT...]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
binary=$root/build/plain/src/frame/kinwatch
rounds=3
counts=()
while (($#)); do
  case $1 in
    --binary) binary=$2; shift 2 ;;
    --rounds) rounds=$2; shift 2 ;;
    *) counts+=("$1"); shift ;;
  esac
done
if [[ -n ${KW_BENCH_BRIEF:-} ]]; then
  ((${#counts[@]})) || counts=(0 16)
  rounds=1
fi
((${#counts[@]})) || counts=(0 256 1000)
max_hosts=1024
name=${KW_LAB_NAME:-sibmem}
camera=/tmp/kinwatch-lab-$name/c1
key=$(od -An -tx1 -N32 /dev/urandom | tr -d ' \n')

die() { echo "sibling_memory: $*" >&2; exit 1; }
lab() { "$root/scripts/lab" --name "$name" "$@"; }

statistic() { # <counter>
  gdbus call --address "$(lab address 1)" --dest com.tavix.Kinwatch --object-path /com/tavix/Kinwatch \
    --method org.freedesktop.DBus.Properties.Get com.tavix.Kinwatch.Monitor1 Statistics 2>/dev/null |
    grep -oE "'$1': (uint64 )?[0-9]+" | grep -oE '[0-9]+$'
}

# Waits for COUNT more process ticks (at most 15 s each).
wait_ticks() { # <count>
  local now target tries=$((150 * $1))
  now=$(statistic ticks) || die "camera 1 does not answer"
  target=$((now + $1))
  while (($(statistic ticks) < target)) && ((tries-- > 0)); do sleep 0.1; done
  (($(statistic ticks) >= target)) || die "camera 1 does not tick"
}

# ANNOUNCEs of siblings 1..COUNT from camera 2's namespace, paced at 1,000
# siblings a second; signed with the key when one is given. A keyed camera
# takes a sender it holds no mark for only once the sender answers its
# CHALLENGE with an ANNOUNCE that carries the nonce: the siblings answer as
# cameras do, for a second after the last ANNOUNCE.
announce() { # <count> [key]
  ip netns exec "kwlab-$name-c2" python3 - "$@" <<'PY'
import hmac, hashlib, socket, struct, sys, threading, time
count = int(sys.argv[1])
key = bytes.fromhex(sys.argv[2]) if len(sys.argv) > 2 else None
key_id = hmac.new(key, b"kinwatch key identifier", hashlib.sha256).digest()[:4] if key else b""
index = socket.if_nametoindex("eth0")
v4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
v4.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, struct.pack("4s4si", bytes(4), bytes(4), index))
v4.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
v6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
v6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, struct.pack("i", index))
heard = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
heard.setsockopt(socket.SOL_SOCKET, 33, 1 << 22)  # SO_RCVBUFFORCE
heard.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
heard.bind(("239.255.78.1", 21845))
heard.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, struct.pack("4s4si", socket.inet_aton("239.255.78.1"), bytes(4), index))
sequence = time.time_ns() // 1000
lock = threading.Lock()

def body(i, nonce=b""):
    # Group 1, node 0a:00:00:00:xx:xx, 10.79.x.x and fd79::x.
    return b"\x00\x01\x00\x00\x00\x01" + (0x0a0000000000 + i).to_bytes(6, "big") + \
        bytes([10, 79, i >> 8, i & 255]) + bytes.fromhex("fd79" + "00" * 10) + i.to_bytes(4, "big") + nonce

def send(data, both=True, above=0):
    global sequence
    with lock:
        if key:
            sequence = max(sequence, above) + 1
            head = key_id + sequence.to_bytes(8, "big")
            data += head + hmac.new(key, data + head, hashlib.sha256).digest()[:16]
        v4.sendto(data, ("239.255.78.1", 21845))
        if both:
            v6.sendto(data, ("ff05::78", 21845))

def answer():
    while True:
        data = heard.recv(100)
        i = int.from_bytes(data[12:18], "big") - 0x0a0000000000
        if len(data) == 62 and data[0] == 3 and 0 < i <= count:
            send(body(i, data[18:26]), both=False, above=int.from_bytes(data[26:34], "big"))

if key:
    threading.Thread(target=answer, daemon=True).start()
start = time.monotonic()
for i in range(1, count + 1):
    send(body(i))
    if i % 50 == 0:
        time.sleep(max(start + i / 1000 - time.monotonic(), 0))
if key:
    time.sleep(1)
PY
}

# Starts camera 1 (again), with MaxHosts raised, and waits for its first tick.
start_camera() {
  sed -i "s/^MaxHosts=.*/MaxHosts=$max_hosts/" "$camera/kinwatch.conf"
  lab start 1
  local tries=100
  until statistic ticks >/dev/null || ((tries-- == 0)); do sleep 0.1; done
  read -r pid _ <"$camera/kinwatch.pid"
  wait_ticks 1
}

measure() { # plain|keyed
  local mode=$1 n r idle= dirty clean listed
  for n in "${counts[@]}"; do
    for ((r = 0; n > 0 && r < rounds; r++)); do
      ((r == 0)) || wait_ticks 1
      announce "$n" ${2:+"$2"}
    done
    # A keyed camera challenges at most 256 new senders at once: the rest
    # are taken in the rounds that follow.
    for ((r = 0; r < 10 && $(statistic events_connected) < n; r++)); do
      wait_ticks 1
      announce "$n" ${2:+"$2"}
    done
    wait_ticks 2
    (($(statistic events_connected) == n)) || die "$mode: $(statistic events_connected) siblings learnt, not $n"
    dirty=$(awk '$1 == "Private_Dirty:" {print $2}' "/proc/$pid/smaps_rollup")
    clean=$(awk '$1 == "Private_Clean:" {print $2}' "/proc/$pid/smaps_rollup")
    [[ -n $dirty && -n $clean ]] || die "cannot read /proc/$pid/smaps_rollup"
    idle=${idle:-$dirty}
    printf '%-6s %5d siblings  private %5d kB  idle + %4d kB  per sibling %5s kB   (clean %5d kB)\n' "$mode" "$n" \
      "$dirty" $((dirty - idle)) "$( ((n == 0)) && echo - || awk -v d=$((dirty - idle)) -v n="$n" 'BEGIN {printf "%.2f", d / n}')" \
      "$clean"
  done
  listed=$(lab nodes 1 | wc -l)
  ((listed == ${counts[-1]})) || die "$mode: $listed known nodes listed, not ${counts[-1]}"
}

# A freshly written binary's pages are dirty in the page cache until written
# back, and would count as private dirty memory.
sync "$binary" 2>/dev/null || true
lab up 2 --binary "$binary" >/dev/null || die "lab $name does not come up"
trap 'lab down >/dev/null' EXIT
lab stop 2
lab stop 1
start_camera
measure plain
lab stop 1
lab key 1 "$key"
start_camera
measure keyed "$key"
