#!/usr/bin/env bash
# Usage: qxsr_cli_test.sh QXSR: help, --version, script failures, CSV/JSON export and import.
set -uo pipefail
qxsr=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir "$dir/mnt"
cd "$dir" || exit 1
fail() { echo "FAIL: $*"; exit 1; }
q() { "$qxsr" -m "/demo=$dir/mnt" "$@"; }

commands=$("$qxsr" help | sed -n '/^commands/,$s/^  \([a-z-]*\) .*/\1/p')
[ "$(echo "$commands" | wc -l)" -gt 30 ] || fail "help lists too few commands: $commands"
for c in $commands; do
  out=$("$qxsr" help "$c") || fail "help $c"
  grep -q "^usage: $c" <<<"$out" || fail "help $c has no usage line"
  grep -A1 '^example:$' <<<"$out" | grep -q "^  $c" || fail "help $c has no example"
done
"$qxsr" help nosuch 2>/dev/null && fail "help of an unknown command succeeds"
"$qxsr" --version | grep -Eq '^qxsr [0-9]+\.[0-9]+\.[0-9]+$' || fail "--version"
printf 'create /m/t id:int32:key\n# a comment\n\nadd /m/t id=1\nadd /m/t id=1\nshow /m/t\n' >script
"$qxsr" -f script >out 2>&1 && fail "a failing script exits with status 0"
grep -q '^qxsr: line 5 failed: add$' out || fail "failing line not named: $(cat out)"
grep -q '^(1 row)$' out || fail "the script stopped at the failure"

columns='id:int32:key u32:uint32 i64:int64 u64:uint64 f32:float32 f64:float64 s:string
 b:binary h:handle sb:sbs st:sd(x:float64,n:string) ai:int32[] au:uint32[] al:int64[]
 aul:uint64[] af:float32[] ad:float64[] as:string[] ab:binary[] ah:handle[]
 ast:sd(k:int32,v:string)[]'
columns=${columns//$'\n'/ }
cat >round.qxsr <<END
create /demo/all $columns
add /demo/all id=-2147483648 u32=4294967295 i64=-9223372036854775808 u64=18446744073709551615 f32=0.1 f64=0.1 "s=a, \"b\"\\nc é" b=0x00ff "h=0x0001 0x0002 0x00000003 0x00000004 0x00000005 0xffffffff" sb=0xbeef st={2.5,hi} ai=[1,-2] au=[3] al=[-4,5] aul=[6] af=[1.5,-0.25] ad=[1e300,-2] as=[x,y] ab=[0x01,0x] "ah=[0x0001 0x0002 0x00000003 0x00000004 0x00000005 0x00000006]" ast=[{1,one},{2,two}]
add /demo/all id=7 s=
export /demo/all all.csv
export /demo/all all.json
create /demo/fromcsv $columns
import /demo/fromcsv all.csv
export /demo/fromcsv again.csv
create /demo/fromjson $columns
import /demo/fromjson all.json
export /demo/fromjson again.json
export /demo/all all.txt --json
END
q -f round.qxsr >out 2>&1 || { cat out; fail "round trip script"; }
cmp all.csv again.csv || fail "CSV round trip differs"
cmp all.json again.json || fail "JSON round trip differs"
cmp all.json all.txt || fail "--json export"
grep -q '"st": {"x": 2.5, "n": "hi"}' all.json || fail "structured data as an object"
grep -q '"ai": \[1, -2\]' all.json || fail "arrays as arrays"
grep -q '"b": "0x00ff"' all.json || fail "binary as hex"
grep -q $'^id,u32,i64,u64,.*\r$' all.csv || fail "CSV lines end with CR LF"

# Start-up options choose the output mode.
q --csv select /demo/all -c s "id == 7" >csv.out || fail "--csv"
printf 'id,s\n7,\n' | cmp - csv.out || fail "--csv output: $(cat csv.out)"
q --json select /demo/all -c id "id == 7" | tr -d ' \n' | grep -qx '\[{"id":7}\]' ||
  fail "--json output"

# A bad value: the message names line, column and value; nothing is added.
printf 'id,s,u32\r\n1,a,5\r\n2,"multi\nline",6\r\n3,b,x\r\n' >bad.csv
refused() { q import "$1" "$2" >r.out 2>&1 && fail "$2 accepted"; grep -q "$3" r.out || fail "$(cat r.out)"; }
refused /demo/fromcsv bad.csv "line 5, column u32, value 'x'"
printf '[{"id": 10},\n {"id": 11, "ai": [1, "z"]}]\n' >bad.json
refused /demo/fromjson bad.json "line 2, column ai"
# A row the library refuses (a key already there) undoes the rows before it.
printf 'id\n100\n101\n7\n' >dup.csv
refused /demo/fromcsv dup.csv "line 4"
printf 'nosuch\n1\n' >unknown.csv
refused /demo/fromcsv unknown.csv "no column 'nosuch'"

# Imports into tables the session holds open: reading, implicit, in a transaction (abort drops).
printf '\xef\xbb\xbfid\n20\n\n' >one.csv  # a byte order mark and a blank last line
printf 'id\n21\n' >two.csv
printf 'id\n22\n' >three.csv
cat >open.qxsr <<END
show /demo/fromcsv
import /demo/fromcsv one.csv
add /demo/fromcsv id=30
import /demo/fromcsv two.csv
add /demo/fromcsv id=31
begin /demo/fromjson
import /demo/fromjson three.csv
select /demo/fromjson -i -u "id == 22"
abort /demo/fromjson
END
q -f open.qxsr >open.out 2>&1 || { cat open.out; fail "imports into open tables"; }
# New sessions read committed imports; failed imports and the aborted transaction left nothing.
q show /demo/fromcsv | grep -q '^(6 rows)$' || fail "imports beside a session's handles"
q show /demo/fromjson | grep -q '^(2 rows)$' || fail "an aborted transaction kept imported rows"
grep -q '^(1 row)$' open.out || fail "imported rows are in the transaction: $(cat open.out)"
echo "help, script errors, export and import pass"
