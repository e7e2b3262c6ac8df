#!/usr/bin/env bash
# Builds everything and runs every test (GoogleTest suites under CTest).
#   BUILD_DIR   build directory (default: build)
#   CMAKE_ARGS  extra configure arguments, e.g. -DQX_SANITIZE=address,undefined
#   CTEST_ARGS  extra ctest arguments, e.g. -R ConcurrencyTest
#   BUILD_TYPE  CMake build type (default: RelWithDebInfo)
#   TARGETS     what to build (default: everything)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
build=${BUILD_DIR:-build}
# shellcheck disable=SC2086
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" ${CMAKE_ARGS:-} >/dev/null
if [ -n "${TARGETS:-}" ]; then
  # shellcheck disable=SC2086
  cmake --build "$build" -j2 --target ${TARGETS}
else
  cmake --build "$build" -j2
fi
cd "$build"
# shellcheck disable=SC2086
ctest -j2 --output-on-failure --timeout 600 ${CTEST_ARGS:-}
