#!/usr/bin/env bash
# Builds Kinwatch and runs the whole test suite: under AddressSanitizer and
# UndefinedBehaviorSanitizer (the end-to-end lab tests included), as a normal
# build with every benchmark run once briefly, the threaded tests under
# ThreadSanitizer, and the fuzz targets for a bounded number of runs. Network
# tests run in private network namespaces and need root.
#
# The end-to-end tests spend most of their time waiting for the cameras' 55-s
# announcements, so they run in the background, side by side, from the
# moment the service is built, while the other builds and suites use the CPU.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kw_install_missing

# Everything from here runs in a network namespace of its own whose one link,
# eth0, stands where the machine's own interface would: every test makes its
# own namespaces for its network, so nothing may ever be sent out of this one.
# A datagram seen there fails the run, whichever test sent it.
if [[ -z ${KW_TEST_SENTINEL:-} ]]; then
  KW_TEST_SENTINEL=1 exec unshare --net "$0" "$@"
fi
ip link set lo up
ip link add eth0 type veth peer name sentinel0
ip addr add 192.0.2.2/24 dev eth0
ip -6 addr add fd00:5e::2/64 dev eth0 nodad
ip link set sentinel0 up
ip link set eth0 up
ip route add default via 192.0.2.1 dev eth0

start=$SECONDS
jobs=${KW_JOBS:-$(nproc)}
out=${KW_BUILD_ROOT:-build/test}
export CTEST_OUTPUT_ON_FAILURE=1
mkdir -p "$out"
tcpdump -l -n -i eth0 'udp or igmp' >"$out/sentinel.txt" 2>/dev/null &
sentinel=$!

# Namespaces left by an earlier run that was killed (their creator is gone).
for ns in $(ip netns list 2>/dev/null | awk '{print $1}' | grep '^kwt[0-9]*-' || true); do
  pid=${ns#kwt}; pid=${pid%%-*}
  [[ -d /proc/$pid ]] || ip netns del "$ns" 2>/dev/null || true
done
# Labs of the end-to-end tests and benchmarks named after their creator.
for dir in /tmp/kinwatch-lab-kw{quiet,bflood,bsoak,bsibmem,measure}[0-9]*; do
  [[ -d $dir ]] || continue
  lab=${dir#/tmp/kinwatch-lab-}
  [[ -d /proc/${lab##*[a-z]} ]] || scripts/lab --name "$lab" down
done

# Warnings are errors here, in the project's own builds only. The sanitized
# and fuzz trees are built at -O1 with line tables only, as is usual for
# sanitizers: their reports and the backtraces of a hung test still name
# every function and line, and the builds take much less time.
build() { # <dir> [--target "<targets...>"] <cmake args...>
  local dir=$1; shift
  local target=()
  if [[ ${1:-} == --target ]]; then read -ra target <<<"--target $2"; shift 2; fi
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" \
    -DKW_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs" "${target[@]}"
}

declare -a failed=()
suite() { # <name> <dir> <ctest args...>
  local name=$1 dir=$2; shift 2
  echo "=== $name ($((SECONDS - start)) s)"
  if ! (cd "$dir" && ctest -j "$jobs" --timeout 300 "$@"); then
    failed+=("$name")
  fi
}
# What runs beside the builds that follow it (the end-to-end tests, and the
# suites that mostly wait for namespaces, buses and ticks); its output is
# printed at the end.
declare -a bg_names=() bg_pids=() bg_logs=()
background() { # <name> <log> <dir> <ctest args...>
  local name=$1 log=$2 dir=$3; shift 3
  (cd "$dir" && ctest "$@") >"$log" 2>&1 &
  bg_names+=("$name") bg_pids+=($!) bg_logs+=("$log")
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export G_SLICE=always-malloc G_DEBUG=gc-friendly
build "$out/asan" --target "kinwatch kinwatchctl" -DKW_SANITIZE=ON
for test in $(cd "$out/asan" && ctest -N -L e2e | sed -nE 's/^ *Test +#[0-9]+: //p'); do
  background "end-to-end $test under ASan+UBSan" "$out/e2e-$test.log" "$out/asan" --timeout 600 -R "^$test\$"
done
build "$out/asan" -DKW_SANITIZE=ON
# The package is built and checked from the Release tree below.
echo "=== tests under ASan+UBSan: started beside the next builds ($((SECONDS - start)) s)"
background "tests under ASan+UBSan" "$out/suite-asan.log" "$out/asan" -j "$jobs" --timeout 300 -LE 'e2e|packaging'
unset ASAN_OPTIONS UBSAN_OPTIONS G_SLICE G_DEBUG

# Release, as the benchmarks' figures in the README are measured.
build "$out/plain" -DCMAKE_BUILD_TYPE=Release -DKW_BENCH=ON
echo "=== tests (Release, benchmarks once): started beside the next builds ($((SECONDS - start)) s)"
background "tests (Release, benchmarks once)" "$out/suite-plain.log" "$out/plain" -j "$jobs" --timeout 300 -LE e2e

# GLib and GIO are not instrumented: their own futex locks are invisible to
# TSan, so only races in our code are reported.
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1
build "$out/tsan" --target threaded_tests -DKW_TSAN=ON
suite "threaded tests under TSan" "$out/tsan" -L threaded
unset TSAN_OPTIONS

CC=clang CXX=clang++ build "$out/fuzz" --target fuzz_targets -DKW_FUZZ=ON
suite "fuzz" "$out/fuzz" -L fuzz

for i in "${!bg_pids[@]}"; do
  echo "=== ${bg_names[$i]} ($((SECONDS - start)) s)"
  bg_status=0
  wait "${bg_pids[$i]}" || bg_status=$?
  cat "${bg_logs[$i]}"
  ((bg_status == 0)) || failed+=("${bg_names[$i]}")
done

kill "$sentinel"
wait "$sentinel" || true
if grep -q . "$out/sentinel.txt"; then
  echo "=== sent outside the tests' own namespaces:"
  cat "$out/sentinel.txt"
  failed+=("namespace sentinel")
fi

echo "=== done in $((SECONDS - start)) s"
if ((${#failed[@]})); then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "All suites passed."
