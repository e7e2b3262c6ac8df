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
"$build/qxsr" -m "/demo=$demo_dir" -f tools/demo.qxsr
