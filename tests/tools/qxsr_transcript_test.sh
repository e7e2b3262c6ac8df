#!/usr/bin/env bash
# Usage: qxsr_transcript_test.sh QXSR SCRIPT EXPECTED [BUFFER]: the masked transcript matches and
# every table left in /demo reopens.
set -uo pipefail
qxsr=$1 script=$2 expected=$3
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir "$dir/mnt"
[ $# -lt 4 ] || cp "$4" "$dir/s390x.buf"
(cd "$dir" && "$qxsr" -m "/demo=$dir/mnt" -f "$script" >"$dir/raw" 2>&1)
echo "exit status $?" >>"$dir/raw"
sed -E -e "s#$dir#DIR#g" -e 's/0x[0-9a-f]{6,}/0xADDR/g' -e 's/near line [0-9]+/near line N/' \
  "$dir/raw" >"$dir/out"
diff -u "$expected" "$dir/out" || { echo "qxsr transcript differs from $expected"; exit 1; }
for table in $("$qxsr" -m "/demo=$dir/mnt" list /demo); do
  "$qxsr" -m "/demo=$dir/mnt" show "$table" >"$dir/again" 2>&1 || { cat "$dir/again"; exit 1; }
done
echo "transcript matches"
