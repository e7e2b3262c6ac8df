#!/usr/bin/env bash
# The manual pages render with groff and man without a single warning.
# Usage: man_pages_test.sh PAGE...   (exit 77, skipped, without groff)
set -uo pipefail
if ! command -v groff >/dev/null; then
  echo "groff is not installed: the manual page test is skipped (scripts/deps.sh installs it)"
  exit 77
fi
err=$(mktemp)
trap 'rm -f "$err"' EXIT
status=0
for page in "$@"; do
  warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
  if command -v man >/dev/null; then
    text=$(MANWIDTH=80 man --warnings=all -l "$page" 2>"$err")
    warnings+=$(grep -v '^$' "$err")
    [ "$(wc -l <<<"$text")" -gt 40 ] || { echo "$page renders to almost nothing"; status=1; }
  fi
  if [ -n "$warnings" ]; then
    echo "$page:"
    echo "$warnings"
    status=1
  fi
done
[ $status -eq 0 ] && echo "manual pages render cleanly"
exit $status
