#!/usr/bin/env bash
# The manual pages render with groff and man without a single warning.
# Usage: man_pages_test.sh PAGE...   (exit 77, skipped, without groff)
set -uo pipefail
command -v groff >/dev/null || { echo "groff is not installed (scripts/deps.sh)"; exit 77; }
err=$(mktemp)
trap 'rm -f "$err"' EXIT
status=0
for page in "$@"; do
  warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
  if command -v man >/dev/null; then
    lines=$(MANWIDTH=80 man --warnings=all -l "$page" 2>"$err" | wc -l)
    warnings+=$(grep -v '^$' "$err")
    [ "$lines" -gt 40 ] || warnings+="$page renders to almost nothing"
  fi
  [ -z "$warnings" ] || { echo "$page: $warnings"; status=1; }
done
[ $status -eq 0 ] && echo "manual pages render cleanly"
exit $status
