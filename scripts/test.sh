#!/usr/bin/env bash
# Builds everything and runs every test (GoogleTest suites under CTest).
#   BUILD_DIR   build directory (default: build)
#   CMAKE_ARGS  extra configure arguments, e.g. -DQX_SANITIZE=address,undefined
#   CTEST_ARGS  extra ctest arguments, e.g. -R ConcurrencyTest
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
build=${BUILD_DIR:-build}
# shellcheck disable=SC2086
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${CMAKE_ARGS:-} >/dev/null
cmake --build "$build" -j2
cd "$build"
# shellcheck disable=SC2086
ctest -j2 --output-on-failure --timeout 600 ${CTEST_ARGS:-}
