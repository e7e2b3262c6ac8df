#!/usr/bin/env bash
# Every command has help with its syntax and an example; --version answers;
# a failing script line is reported by number and fails the run.
# Usage: qxsr_help_test.sh QXSR
set -uo pipefail
qxsr=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

commands=$("$qxsr" help | sed -n '/^commands/,$s/^  \([a-z-]*\) .*/\1/p')
[ "$(echo "$commands" | wc -l)" -gt 30 ] || fail "help lists too few commands: $commands"
for c in $commands; do
  out=$("$qxsr" help "$c") || fail "help $c"
  grep -q "^usage: $c" <<<"$out" || fail "help $c has no usage line"
  grep -A1 '^example:$' <<<"$out" | grep -q "^  $c" || fail "help $c has no example"
done
"$qxsr" help nosuch 2>/dev/null && fail "help of an unknown command succeeds"
"$qxsr" --version | grep -Eq '^qxsr [0-9]+\.[0-9]+\.[0-9]+$' || fail "--version"

printf 'create /m/t id:int32:key\n# a comment\n\nadd /m/t id=1\nadd /m/t id=1\nshow /m/t\n' \
  >"$dir/script"
"$qxsr" -f "$dir/script" >"$dir/out" 2>&1 && fail "a failing script exits with status 0"
grep -q '^qxsr: line 5 failed: add$' "$dir/out" || fail "failing line not named: $(cat "$dir/out")"
grep -q '^(1 row)$' "$dir/out" || fail "the script stopped at the failure"
echo "help, version and script errors pass"
