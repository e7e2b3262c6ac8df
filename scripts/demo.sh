#!/usr/bin/env bash
# Builds the shell and runs it on a demonstration registry in a temporary
# directory.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target qxsr qx_sr_catalogue
demo_dir=$(mktemp -d)
trap 'rm -rf "$demo_dir"' EXIT
export NLSPATH="$PWD/$build/nls/C/%N"
# The script contains one deliberately refused update, so a non-zero status
# is expected; everything it shows is on standard output and error.
"$build/qxsr" -m "/demo=$demo_dir" -f tools/demo.qxsr || true
echo
echo "Table files written under the demonstration mount point:"
ls -l "$demo_dir"
