#!/bin/sh
# s390x (qemu-user) packs and unpacks both ways; i386 (-m32) writes identical files and reads ours.
# Usage: run_exchange.sh s390x|i386 HOST_EXCHANGE SOURCE_DIR WORK_DIR   (77: skipped, no tools)
set -eu
machine=$1 host=$2 source_dir=$3 work=$4
mkdir -p "$work"
if [ "$machine" = s390x ]; then
  cxx=${QX_CROSS_CXX:-s390x-linux-gnu-g++} flags=
  qemu=${QX_CROSS_QEMU:-qemu-s390x} sysroot=${QX_CROSS_SYSROOT:-/usr/s390x-linux-gnu}
  command -v "$cxx" >/dev/null && command -v "$qemu" >/dev/null ||
    { echo "SKIPPED: no $cxx or $qemu (apt-get install g++-s390x-linux-gnu qemu-user)"; exit 77; }
  other() { "$qemu" -L "$sysroot" "$work/exchange.other" "$@"; }
else
  cxx=${QX_M32_CXX:-g++} flags="-m32 -idirafter /usr/include/x86_64-linux-gnu"
  printf '#include <errno.h>\n#include <string>\nint main() { return errno; }\n' >"$work/probe.cpp"
  # shellcheck disable=SC2086
  if ! "$cxx" $flags -std=c++20 "$work/probe.cpp" -o "$work/probe" >/dev/null 2>&1 ||
     ! "$work/probe"; then
    echo "SKIPPED: cannot run 32-bit x86 programs (apt-get install lib32stdc++-12-dev libc6-dev-i386)"
    exit 77
  fi
  other() { "$work/exchange.other" "$@"; }
fi
cmake -S "$source_dir" -B "$work/build" \
  -DCMAKE_TOOLCHAIN_FILE="$source_dir/tests/cross/$machine-toolchain.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_BUILD_TESTS=OFF -DQX_BUILD_BENCH=OFF >/dev/null
cmake --build "$work/build" -j2 --target qx_sr_static >/dev/null
# shellcheck disable=SC2086
"$cxx" $flags -std=c++20 -O1 -Wall -Wextra -Werror -I"$source_dir/include" -I"$source_dir/tests" \
  "$source_dir/tests/cross/exchange.cpp" "$work/build/libqx_sr_static.a" \
  "$work/build/libqx_pmsg_static.a" "$work/build/libqx_tr_static.a" \
  "$work/build/libqx_cu_static.a" -lpthread -o "$work/exchange.other"

# Both sides in the C locale: the tables hold ASCII text only.
export LC_ALL=C
rm -rf "$work/here" "$work/there"
mkdir -p "$work/here" "$work/there"
if [ "$machine" = s390x ]; then
  other pack "$work/there/be"
  "$host" check "$work/there/be"
  "$host" pack "$work/here/le"
  other check "$work/here/le"
  echo "PASS: packed tables cross between byte orders both ways"
  exit 0
fi
echo "== each side writes"
"$host" write "$work/here"
other write "$work/there"
for file in "$work"/here/*; do
  cmp "$file" "$work/there/$(basename "$file")"
  echo "$(basename "$file"): identical ($(wc -c <"$file") bytes)"
done
[ "$(ls "$work/here" | wc -l)" -eq "$(ls "$work/there" | wc -l)" ]
echo "== each side reads the other's"
"$host" read "$work/there"
other read "$work/here"
echo "PASS: 32-bit and 64-bit processes write the same bytes and read each other's"
