#!/usr/bin/env bash
# Builds the Debian package from a build tree into a scratch directory and
# checks its files, its control fields and its conffile.
set -uo pipefail
build=$1
version=$2

scratch=$(mktemp -d "${TMPDIR:-/tmp}/kwt-deb.XXXXXX") || exit 1
trap 'rm -rf "$scratch"' EXIT

if ! (cd "$build" && cpack -G DEB -B "$scratch") >"$scratch/cpack.log" 2>&1; then
  cat "$scratch/cpack.log"
  echo "cpack failed"
  exit 1
fi
deb=$scratch/kinwatch_${version}_$(dpkg --print-architecture).deb
[[ -f $deb ]] || { ls "$scratch"; echo "no package at $deb"; exit 1; }

status=0
fail() { echo "$*"; status=1; }

files=$(dpkg-deb -c "$deb" | awk '{print $6}')
for path in \
  ./usr/sbin/kinwatch \
  ./usr/bin/kinwatchctl \
  ./usr/lib/systemd/system/kinwatch.service \
  ./usr/lib/sysusers.d/kinwatch.conf \
  ./usr/share/dbus-1/system.d/com.tavix.Kinwatch.conf \
  ./etc/kinwatch/kinwatch.conf \
  ./usr/share/man/man8/kinwatch.8 \
  ./usr/share/man/man1/kinwatchctl.1 \
  ./usr/share/man/man5/kinwatch.conf.5; do
  grep -qxF "$path" <<<"$files" || fail "not in the package: $path"
done

info=$(dpkg-deb -I "$deb")
field() { sed -n "s/^ $1: //p" <<<"$info"; }
[[ $(field Package) == kinwatch ]] || fail "Package: $(field Package)"
[[ $(field Version) == "$version" ]] || fail "Version: $(field Version), expected $version"
depends=$(field Depends)
for library in libglib2.0-0 libnl-3-200 libnl-route-3-200; do
  grep -Eq "(^|, )$library( |,|$)" <<<"$depends" || fail "Depends does not name $library: $depends"
done

conffiles=$(dpkg-deb -I "$deb" conffiles 2>&1)
[[ $conffiles == /etc/kinwatch/kinwatch.conf ]] || fail "conffiles: $conffiles"

member() { dpkg-deb --fsys-tarfile "$deb" | tar -xOf - "$1"; }
unit=$(member ./usr/lib/systemd/system/kinwatch.service)
for line in 'ExecStart=/usr/sbin/kinwatch -n -c /etc/kinwatch/kinwatch.conf' User=kinwatch Group=kinwatch \
  ReadWritePaths=/etc/kinwatch Restart=always; do
  grep -qxF "$line" <<<"$unit" || fail "the unit lacks: $line"
done
[[ $(grep -c '^ReadWritePaths=' <<<"$unit") == 1 ]] || fail "the unit may write more than /etc/kinwatch"
grep -Eq '^u kinwatch ' <(member ./usr/lib/sysusers.d/kinwatch.conf) || fail "sysusers.d does not make the user"

# The user is made at installation and owns the configuration; a purge
# removes it.
scripts=$scratch/control
dpkg-deb -e "$deb" "$scripts"
grep -q 'systemd-sysusers' "$scripts/postinst" && grep -q 'useradd --system' "$scripts/postinst" ||
  fail "postinst does not make the user"
grep -q 'chown kinwatch:kinwatch /etc/kinwatch /etc/kinwatch/kinwatch.conf' "$scripts/postinst" ||
  fail "postinst does not give the configuration to the user"
sed -n '/= purge/,/^fi/p' "$scripts/postrm" | grep -q 'userdel kinwatch' || fail "a purge keeps the user"

# The bus policy: the service's user and root own the name and may write
# properties; every other user may only read.
policy=$(member ./usr/share/dbus-1/system.d/com.tavix.Kinwatch.conf)
for user in kinwatch root; do
  sed -n "/<policy user=\"$user\">/,/<\/policy>/p" <<<"$policy" | grep -q 'allow own="com.tavix.Kinwatch"' ||
    fail "$user may not own the name"
done
sed -n '/<policy context="default">/,/<\/policy>/p' <<<"$policy" | grep -Eq 'own=|send_member="Set"' &&
  fail "every user may own the name or write properties"

exit "$status"
