#!/usr/bin/env bash
# Runs a qxsr script on a fresh temporary mount point and compares what it
# prints (standard output and error, in order) with the expected transcript.
# Usage: qxsr_script_test.sh QXSR SCRIPT EXPECTED
set -uo pipefail
qxsr=$1 script=$2 expected=$3
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
"$qxsr" -m "/demo=$dir" -f "$script" >"$dir/out" 2>&1
status=$?
echo "exit status $status" >>"$dir/out"
if ! diff -u "$expected" "$dir/out"; then
  echo "qxsr transcript differs from $expected"
  exit 1
fi
# Run again on the files the first run left: every table must reopen.
"$qxsr" -m "/demo=$dir" show /demo/people >"$dir/again" 2>&1 || { cat "$dir/again"; exit 1; }
grep -q "(3 rows)" "$dir/again" || { cat "$dir/again"; exit 1; }
echo "transcript matches"
