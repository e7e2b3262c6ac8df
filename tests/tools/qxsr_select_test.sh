#!/usr/bin/env bash
# Runs a qxsr script on a fresh temporary mount point and compares its
# transcript (standard output and error, in order) with the expected one.
# Source line numbers in library messages are masked: they move with edits.
# Usage: qxsr_select_test.sh QXSR SCRIPT EXPECTED
set -uo pipefail
qxsr=$1 script=$2 expected=$3
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir "$dir/mnt"  # the mount point holds only what the script makes
"$qxsr" -m "/demo=$dir/mnt" -f "$script" >"$dir/raw" 2>&1
status=$?
sed -E 's/near line [0-9]+/near line N/' "$dir/raw" >"$dir/out"
echo "exit status $status" >>"$dir/out"
if ! diff -u "$expected" "$dir/out"; then
  echo "qxsr transcript differs from $expected"
  exit 1
fi
echo "transcript matches"
