#!/bin/sh
# Exchanges packed table buffers with a real big-endian machine: the
# libraries and the exchange program are built for s390x with Debian's cross
# compiler and run under qemu-user.  The s390x side packs, this side converts,
# unpacks and compares every field; then the other way round.
#
#   run_cross.sh HOST_EXCHANGE SOURCE_DIR WORK_DIR
#
# Exits 77 (reported as skipped) when the cross tools are not installed.
set -eu
host_exchange=$1
source_dir=$2
work=$3
cxx=${QX_CROSS_CXX:-s390x-linux-gnu-g++}
qemu=${QX_CROSS_QEMU:-qemu-s390x}
sysroot=${QX_CROSS_SYSROOT:-/usr/s390x-linux-gnu}
for tool in "$cxx" "$qemu"; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "SKIPPED: $tool is not installed (apt-get install g++-s390x-linux-gnu qemu-user)"
    exit 77
  fi
done

mkdir -p "$work"
# The registry's libraries, compiled for s390x from the same sources.
cmake -S "$source_dir" -B "$work/build" \
  -DCMAKE_TOOLCHAIN_FILE="$source_dir/tests/cross/s390x-toolchain.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_BUILD_TESTS=OFF -DQX_BUILD_BENCH=OFF >/dev/null
cmake --build "$work/build" -j2 --target qx_sr_static >/dev/null
"$cxx" -std=c++20 -O1 -Wall -Wextra -Werror -I"$source_dir/include" -I"$source_dir/tests" \
  "$source_dir/tests/cross/cross_exchange.cpp" \
  "$work/build/libqx_sr_static.a" "$work/build/libqx_pmsg_static.a" \
  "$work/build/libqx_tr_static.a" "$work/build/libqx_cu_static.a" -lpthread \
  -o "$work/cross_exchange.s390x"
s390x() { "$qemu" -L "$sysroot" "$work/cross_exchange.s390x" "$@"; }

# Both sides in the C locale: the tables hold ASCII text only.
export LC_ALL=C
rm -f "$work"/be_* "$work"/le_*
echo "== s390x packs, this machine unpacks"
s390x pack "$work/be"
"$host_exchange" check "$work/be"
echo "== this machine packs, s390x unpacks"
"$host_exchange" pack "$work/le"
s390x check "$work/le"
echo "PASS: packed tables cross between byte orders both ways"
