#!/usr/bin/env bash
# Renders each manual page as man and groff do and fails on any warning.
set -uo pipefail
status=0
for page in "$@"; do
  if [[ ! -f $page ]]; then
    echo "missing: $page"
    status=1
    continue
  fi
  warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
  warnings+=$(groff -ww -man -z "$page" 2>&1)
  if [[ -n $warnings ]]; then
    echo "$page:"
    echo "$warnings"
    status=1
  fi
done
exit "$status"
