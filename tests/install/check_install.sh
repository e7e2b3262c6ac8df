#!/usr/bin/env bash
# An installed tree works: C and C++ programs built with pkg-config and find_package(qx_sr).
set -euo pipefail
prefix=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for f in include/{qx_types.h,qx_cu.h,qx_tr.h,qx_pmsg.h,qx_sr.h,qx_sr.hpp} \
         lib/lib{qx_cu,qx_tr,qx_pmsg,qx_sr}.so share/man/{man1/qxsr.1,man3/qx_sr.3}; do
  test -e "$prefix/$f" || { echo "missing $f"; exit 1; }
done
"$prefix/bin/qxsr" --version >/dev/null || { echo "the installed qxsr does not run"; exit 1; }

# No test seams installed: nm sees an unstripped library's locals, the string check a stripped one.
lib=$(readlink -f "$prefix/lib/libqx_sr.so")
if LC_ALL=C grep -q -a QX_SR_TEST_PAUSE "$lib"; then
  echo "the installed libqx_sr.so reads QX_SR_TEST_PAUSE"; exit 1
fi
seams=$( { nm -C "$lib" 2>/dev/null || true; nm -D -C "$lib"; } |
  grep -Ew 'sr_i_file_ops|sr_i_default_file_ops|sr_i_alloc_fail_after|sr_i_alloc_failure_pending|sr_i_alloc_move_reallocations|sr_i_test_pause_reload' || true)
if [ -n "$seams" ]; then
  echo "the installed libqx_sr.so has test seams:"; echo "$seams"; exit 1
fi

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror -o "$work/c_api" "$here/../c/c_api_test.c" \
  $(pkg-config --cflags --libs qx_sr)
"$work/c_api"
# shellcheck disable=SC2046
c++ -std=c++20 -Wall -Wextra -Werror -o "$work/consumer_pc" "$here/consumer/consumer.cpp" \
  $(pkg-config --cflags --libs qx_sr)
"$work/consumer_pc"

cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"
echo "install check passed"
