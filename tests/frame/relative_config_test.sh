#!/usr/bin/env bash
# kinwatch -c RELATIVE -k RELATIVE, sent to the background: the detached
# service works in "/", yet loads and rewrites the file its caller named, and
# holds its keys in locked memory; a bad key file ends the launcher with
# status 1. Runs in a private mount and network namespace, with a bus of its
# own at the system address.
#   relative_config_test.sh KINWATCH POLICY
set -u
[[ $(id -u) == 0 ]] || exit 77
dir=$(mktemp -d /tmp/kwt-relative.XXXXXX)
trap 'rm -rf "$dir"' EXIT
unshare -m -n bash -s "$1" "$2" "$dir" <<'EOF'
set -u
binary=$1 policy=$2 dir=$3
fail() { echo "$*"; status=1; }
mount -t tmpfs kw /run && mount -t tmpfs kw /usr/local && mount -t sysfs kw /sys || exit 1
mkdir -p /run/dbus /usr/local/packages/kinwatch && echo Running >/usr/local/packages/kinwatch/is_running
cat >"$dir/bus.conf" <<CONF
<busconfig><type>system</type><listen>unix:path=/run/dbus/system_bus_socket</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
<allow send_requested_reply="true" send_type="method_return"/><allow receive_type="method_call"/>
<allow receive_type="method_return"/><allow receive_type="signal"/><allow receive_type="error"/>
<allow send_destination="org.freedesktop.DBus"/></policy>
<include>$policy</include></busconfig>
CONF
dbus-daemon --config-file="$dir/bus.conf" --nofork --nopidfile </dev/null >/dev/null 2>&1 &
bus_pid=$!
printf '# dropped\n[Settings]\nTTL=3\nEnabled=true\nMulticastGroupIPv4=239.255.77.1\nMulticastGroupIPv6=ff05::77
MulticastPort=21844\nInterface=lo\nKinwatchGroup=1\nMaxHosts=256\n' >"$dir/kinwatch.conf"
printf '%064d\n' 7 >"$dir/group.key" && printf 'x\n' >"$dir/bad.key" && chmod 600 "$dir/group.key" "$dir/bad.key"
# The launcher waits for the detached service's start: a bad key file ends it with status 1, the reason on its stderr.
errors=$(cd "$dir" && "$binary" -c kinwatch.conf -k bad.key 2>&1)
[[ $? == 1 && $errors == *"/bad.key: line 1 is not a key of 64 hex digits" ]] || fail "a bad key file: $errors"
(cd "$dir" && "$binary" -c kinwatch.conf -k group.key) || fail "the launcher failed"

driver() { timeout 5 gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
  --method "org.freedesktop.DBus.$1" com.tavix.Kinwatch 2>/dev/null; }
kinwatch() { timeout 5 gdbus call --system --dest com.tavix.Kinwatch --object-path /com/tavix/Kinwatch \
  --method "org.freedesktop.DBus.Properties.$1" com.tavix.Kinwatch "${@:2}"; }
for ((tries = 0; tries < 200; tries++)); do driver NameHasOwner | grep -q true && break; sleep 0.1; done
pid=$(driver GetConnectionUnixProcessID | sed -n 's/.*uint32 \([0-9]*\).*/\1/p')
[[ -n $pid && $(readlink "/proc/$pid/cwd") == / ]] || fail "no detached service owns the name"
# The sanitizers' runtimes make mlock do nothing.
ldd "$binary" | grep -q 'lib[at]san' || [[ $(awk '/^VmLck:/ {print $2}' "/proc/$pid/status") -gt 0 ]] ||
  fail "the keys are not in locked memory"
[[ $(kinwatch Get TTL) == "(<byte 0x03>,)" ]] || fail "TTL is not the file's: $(kinwatch Get TTL)"
grep -q dropped "$dir/kinwatch.conf" && fail "the start did not rewrite the file"
kinwatch Set TTL "<byte 2>" >/dev/null || fail "the TTL write was refused"
grep -qx TTL=2 "$dir/kinwatch.conf" || fail "the file does not hold the new TTL: $(cat "$dir/kinwatch.conf")"
[[ -n $pid ]] && kill "$pid"
kill "$bus_pid"
exit "${status:-0}"
EOF
