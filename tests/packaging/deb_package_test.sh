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

unit=$(dpkg-deb --fsys-tarfile "$deb" | tar -xOf - ./usr/lib/systemd/system/kinwatch.service)
grep -qx 'ExecStart=/usr/sbin/kinwatch -n -c /etc/kinwatch/kinwatch.conf' <<<"$unit" ||
  fail "the unit does not start /usr/sbin/kinwatch on /etc/kinwatch/kinwatch.conf"

exit "$status"
