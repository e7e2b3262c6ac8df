#!/usr/bin/env bash
# Proves an installed tree is usable: a C program built with pkg-config and a
# C++ program built both with pkg-config and as a CMake project using
# find_package(qx_sr) open a tree and read the library's message for a
# refused call.
set -euo pipefail
prefix=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for h in qx_types.h qx_cu.h qx_tr.h qx_pmsg.h qx_sr.h qx_sr.hpp; do
  test -f "$prefix/include/$h" || { echo "missing header $h"; exit 1; }
done
for l in qx_cu qx_tr qx_pmsg qx_sr; do
  test -e "$prefix/lib/lib$l.so" || { echo "missing lib$l.so"; exit 1; }
done

for m in man1/qxsr.1 man3/qx_sr.3; do
  test -f "$prefix/share/man/$m" || { echo "missing manual page $m"; exit 1; }
done
"$prefix/bin/qxsr" --version >/dev/null || { echo "the installed qxsr does not run"; exit 1; }

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
