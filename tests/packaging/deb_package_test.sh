#!/usr/bin/env bash
# Builds the Debian package from a build tree into a scratch directory, checks
# its files and control fields, runs lintian on it, and installs, upgrades,
# removes and purges it in a private mount namespace whose /etc, /usr and /var
# are overlays in memory and whose /run is empty, so the machine's own files,
# dpkg database and services stay as they were.
set -uo pipefail

status=0
fail() { echo "$*"; status=1; }
quiet() { # <log> <command...>: runs it with standard input closed, prints the log if it fails
  local log=$1; shift
  "$@" <&- >"$log" 2>&1 || { cat "$log"; fail "failed: $*"; return 1; }
}

# Runs in the namespace: <caller's mount namespace> <scratch> <package> <newer package> <newer version>
lifecycle() {
  local scratch=$2 deb=$3 newer=$4 version=$5
  local conf=/etc/kinwatch/kinwatch.conf wants=/etc/systemd/system/multi-user.target.wants/kinwatch.service
  [[ $(readlink /proc/self/ns/mnt) != "$1" ]] || { echo "not in a mount namespace of its own"; exit 1; }
  mount -t tmpfs kwt-layers "$scratch/layers" || exit 1
  for dir in /etc /usr /var; do
    mkdir -p "$scratch/layers$dir/upper" "$scratch/layers$dir/work"
    mount -t overlay kwt-overlay -o "lowerdir=$dir,upperdir=$scratch/layers$dir/upper,workdir=$scratch/layers$dir/work" \
      "$dir" || exit 1
  done
  # An empty /run hides a running systemd and the system bus from the
  # maintainer scripts, as in a chroot or an image build.
  mount -t tmpfs kwt-run /run || exit 1
  for dir in /etc /usr /var /run; do
    [[ $(findmnt -no SOURCE --mountpoint "$dir") == kwt-* ]] || { echo "$dir is not isolated"; exit 1; }
  done

  dpkg --purge kinwatch >/dev/null 2>&1 # should the machine have it
  quiet "$scratch/install.log" dpkg -i "$deb" || exit
  [[ $(stat -c '%U:%G %a' /etc/kinwatch "$conf") == $'kinwatch:kinwatch 750\nkinwatch:kinwatch 640' ]] ||
    fail "configuration: $(stat -c '%n %U:%G %a' /etc/kinwatch "$conf")"
  cmp -s "$conf" /usr/share/kinwatch/kinwatch.conf || fail "the configuration is not the default"
  [[ -L $wants ]] || fail "the unit is not enabled"
  # Installed, the unit's program, user and manual pages are there to check.
  verify=$(systemd-analyze verify /usr/lib/systemd/system/kinwatch.service 2>&1) && [[ -z $verify ]] ||
    fail "systemd-analyze verify: $verify"
  echo 'KINWATCH_OPTIONS="--fast-join"' >>/etc/default/kinwatch
  cp /etc/default/kinwatch "$scratch/options"

  # The service rewrites its file through a temporary one in the same folder.
  setpriv --reuid=kinwatch --regid=kinwatch --clear-groups sh -c \
    "sed -e '/^#/d' -e 's/^Enabled=.*/Enabled=true/' $conf >$conf.tmp && mv $conf.tmp $conf" ||
    fail "the service's user cannot rewrite its configuration"
  cp "$conf" "$scratch/changed"
  quiet "$scratch/upgrade.log" dpkg -i "$newer" || exit
  [[ $(dpkg-query -W -f '${Version}' kinwatch) == "$version" ]] || fail "not upgraded to $version"
  cmp "$scratch/changed" "$conf" || fail "the upgrade changed the configuration"
  cmp "$scratch/options" /etc/default/kinwatch || fail "the upgrade changed the edited options"

  quiet "$scratch/remove.log" dpkg --remove kinwatch || exit
  cmp "$scratch/changed" "$conf" || fail "a removal changed the configuration"
  quiet "$scratch/purge.log" dpkg --purge kinwatch || exit
  [[ ! -e /etc/kinwatch && ! -e /etc/default/kinwatch ]] || fail "a purge keeps /etc/kinwatch or the options"
  getent passwd kinwatch >/dev/null || getent group kinwatch >/dev/null && fail "a purge keeps the user or group"
  [[ ! -e $wants && ! -L $wants ]] || fail "a purge leaves the unit enabled"
  exit "$status"
}
if [[ ${1:-} == --in-namespace ]]; then
  shift
  lifecycle "$@"
fi

build=$1
version=$2
scratch=$(mktemp -d "${TMPDIR:-/tmp}/kwt-deb.XXXXXX") || exit 1
trap 'rm -rf "$scratch"' EXIT

quiet "$scratch/cpack.log" bash -c 'cd "$1" && cpack -G DEB -B "$2"' _ "$build" "$scratch" || exit
deb=$scratch/kinwatch_${version}_$(dpkg --print-architecture).deb
[[ -f $deb ]] || { ls "$scratch"; echo "no package at $deb"; exit 1; }

files=$(dpkg-deb -c "$deb" | awk '{print $6}')
for path in sbin/kinwatch bin/kinwatchctl lib/systemd/system/kinwatch.service lib/sysusers.d/kinwatch.conf \
  share/dbus-1/system.d/com.tavix.Kinwatch.conf share/kinwatch/kinwatch.conf share/doc/kinwatch/{copyright,changelog.gz} \
  share/man/man8/kinwatch.8.gz share/man/man1/kinwatchctl.1.gz share/man/man5/kinwatch.conf.5.gz; do
  grep -qxF "./usr/$path" <<<"$files" || fail "not in the package: /usr/$path"
done
[[ $(grep '^\./etc/.*[^/]$' <<<"$files") == ./etc/default/kinwatch ]] || fail "the package ships other files under /etc"
[[ $(dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./conffiles) == /etc/default/kinwatch ]] ||
  fail "/etc/default/kinwatch is not the one conffile"

info=$(dpkg-deb -I "$deb")
field() { sed -n "s/^ $1: //p" <<<"$info"; }
[[ $(field Package) == kinwatch ]] || fail "Package: $(field Package)"
[[ $(field Version) == "$version" ]] || fail "Version: $(field Version), expected $version"
depends=$(field Depends)
for library in libglib2.0-0 libnl-3-200 libnl-route-3-200; do
  grep -Eq "(^|, )$library( |,|$)" <<<"$depends" || fail "Depends does not name $library: $depends"
done

member() { dpkg-deb --fsys-tarfile "$deb" | tar -xOf - "$1"; }
unit=$(member ./usr/lib/systemd/system/kinwatch.service)
for line in 'ExecStart=/usr/sbin/kinwatch -n -c /etc/kinwatch/kinwatch.conf $KINWATCH_OPTIONS' User=kinwatch \
  Group=kinwatch ReadWritePaths=/etc/kinwatch Restart=always Type=notify NotifyAccess=main WatchdogSec=30 \
  EnvironmentFile=-/etc/default/kinwatch; do
  grep -qxF "$line" <<<"$unit" || fail "the unit lacks: $line"
done
# The options file sets the variable the unit passes, and nothing more.
[[ $(member ./etc/default/kinwatch | grep -v '^#') == 'KINWATCH_OPTIONS=""' ]] || fail "the options file sets other things"
[[ $(grep -c '^ReadWritePaths=' <<<"$unit") == 1 ]] || fail "the unit may write more than /etc/kinwatch"
[[ $(member ./usr/share/doc/kinwatch/changelog.gz | gzip -dc | head -1) == "kinwatch ($version) "* ]] ||
  fail "the change log does not start with version $version"

# The bus policy: the service's user and root own the name and may write
# properties; every other user may only read.
policy=$(member ./usr/share/dbus-1/system.d/com.tavix.Kinwatch.conf)
for user in kinwatch root; do
  sed -n "/<policy user=\"$user\">/,/<\/policy>/p" <<<"$policy" | grep -q 'allow own="com.tavix.Kinwatch"' ||
    fail "$user may not own the name"
done
sed -n '/<policy context="default">/,/<\/policy>/p' <<<"$policy" | grep -Eq 'own=|send_member="Set"' &&
  fail "every user may own the name or write properties"

lintian --fail-on error,warning "$deb" 2>/dev/null || fail "lintian (scripts/deps.sh installs it) finds errors or warnings"

# The newer version ships a changed default, as a real upgrade may; the
# camera's own file must survive it untouched and without a question.
newer=$version.1
dpkg-deb -R "$deb" "$scratch/newer"
sed -i "s/^Version: .*/Version: $newer/" "$scratch/newer/DEBIAN/control"
echo "# $newer" >>"$scratch/newer/usr/share/kinwatch/kinwatch.conf"
quiet "$scratch/newer.log" dpkg-deb -b "$scratch/newer" "$scratch/newer.deb" || exit

mkdir "$scratch/layers"
machine() { sha256sum /etc/passwd /etc/group; ls -d /etc/kinwatch; dpkg-query -W kinwatch; } 2>&1
before=$(machine)
unshare --mount --propagation private bash "$0" --in-namespace "$(readlink /proc/self/ns/mnt)" "$scratch" "$deb" \
  "$scratch/newer.deb" "$newer" || status=1
[[ $(machine) == "$before" ]] || fail "the machine's own users, /etc or dpkg database changed"
exit "$status"
