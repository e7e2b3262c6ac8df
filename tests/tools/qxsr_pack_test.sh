#!/usr/bin/env bash
# Runs the packed-buffer script in a fresh temporary directory (which is also
# its mount point and holds a buffer packed on s390x) and compares the
# transcript with the expected one.  Addresses in dumps, the directory's name
# and source line numbers in library messages are masked.
# Usage: qxsr_pack_test.sh QXSR SCRIPT EXPECTED S390X_BUFFER
set -uo pipefail
qxsr=$1 script=$2 expected=$3 s390x_buffer=$4
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cp "$s390x_buffer" "$dir/s390x.buf"
(cd "$dir" && "$qxsr" -m "/demo=$dir" -f "$script" >"$dir/raw" 2>&1)
status=$?
sed -E -e "s#$dir#DIR#g" -e 's/0x[0-9a-f]{6,}/0xADDR/g' -e 's/near line [0-9]+/near line N/' \
  "$dir/raw" >"$dir/out"
echo "exit status $status" >>"$dir/out"
if ! diff -u "$expected" "$dir/out"; then
  echo "qxsr transcript differs from $expected"
  exit 1
fi
echo "transcript matches"
