#!/bin/sh
# Shows that table files and packed buffers do not depend on the word size:
# the libraries and the exchange program are built for 32-bit x86 as well;
# a 64-bit and a 32-bit process each write table files and packed buffers
# from the same operations, the two sets must be byte-identical, and each
# process reads the other's.
#
#   run_word_size.sh HOST_EXCHANGE SOURCE_DIR WORK_DIR
#
# Exits 77 (reported as skipped) when 32-bit programs cannot be built here.
set -eu
host_exchange=$1
source_dir=$2
work=$3
cxx=${QX_M32_CXX:-g++}
m32="-m32 -idirafter /usr/include/x86_64-linux-gnu"

mkdir -p "$work"
printf '#include <errno.h>\n#include <string>\nint main() { return errno; }\n' >"$work/probe.cpp"
# shellcheck disable=SC2086
if ! "$cxx" $m32 -std=c++20 "$work/probe.cpp" -o "$work/probe" >/dev/null 2>&1 ||
   ! "$work/probe"; then
  echo "SKIPPED: cannot build and run 32-bit x86 programs" \
       "(apt-get install lib32stdc++-12-dev libc6-dev-i386)"
  exit 77
fi

cmake -S "$source_dir" -B "$work/build" \
  -DCMAKE_TOOLCHAIN_FILE="$source_dir/tests/cross/i386-toolchain.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_BUILD_TESTS=OFF -DQX_BUILD_BENCH=OFF >/dev/null
cmake --build "$work/build" -j2 --target qx_sr_static >/dev/null
# shellcheck disable=SC2086
"$cxx" $m32 -std=c++20 -O1 -Wall -Wextra -Werror -I"$source_dir/include" -I"$source_dir/tests" \
  "$source_dir/tests/cross/word_size_exchange.cpp" \
  "$work/build/libqx_sr_static.a" "$work/build/libqx_pmsg_static.a" \
  "$work/build/libqx_tr_static.a" "$work/build/libqx_cu_static.a" -lpthread \
  -o "$work/word_size_exchange.i386"

export LC_ALL=C
rm -rf "$work/w64" "$work/w32"
mkdir -p "$work/w64" "$work/w32"
echo "== each side writes"
"$host_exchange" write "$work/w64"
"$work/word_size_exchange.i386" write "$work/w32"
echo "== the two sides' bytes"
for file in "$work"/w64/*; do
  name=$(basename "$file")
  cmp "$file" "$work/w32/$name"
  echo "$name: identical ($(wc -c <"$file") bytes)"
done
[ "$(ls "$work/w64" | wc -l)" -eq "$(ls "$work/w32" | wc -l)" ]
echo "== each side reads the other's"
"$host_exchange" check "$work/w32"
"$work/word_size_exchange.i386" check "$work/w64"
echo "PASS: 32-bit and 64-bit processes write the same bytes and read each other's"
