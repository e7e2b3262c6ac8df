#!/usr/bin/env bash
# Measures how much of the four libraries (cu, tr, pmsg, sr) the project's own
# tests reach: a Debug build at -O0 with --coverage (GCC's gcov), the whole
# test suite, then line, function and branch coverage from gcovr.
#   BUILD_DIR   build directory (default: build-coverage)
#   CTEST_ARGS  extra ctest arguments, e.g. -R Expr to measure a subset
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
if ! command -v gcovr >/dev/null 2>&1; then
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq gcovr >/dev/null
fi

build=${BUILD_DIR:-build-coverage}
# Atomic counters: the concurrency tests update them from several threads.
flags="--coverage -O0 -fprofile-update=atomic"
CC=gcc CXX=g++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQX_BUILD_BENCH=OFF \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$build" -j2
# Counters of an earlier run would add to this one.
find "$build" -name '*.gcda' -delete
# A failing test still leaves its counters: report coverage, then fail.
status=0
# shellcheck disable=SC2086
(cd "$build" && ctest -j2 --timeout 600 ${CTEST_ARGS:-}) || status=$?

# The seam sources are compiled twice; the copy without seams (for the
# installed library) would disagree with the test copy on where functions
# are, so only the test copy is counted.
find "$build" -path '*_shipped_obj.dir/*' -name '*.gc[dn][ao]' -delete
# Every branch gcov counts, those the compiler adds for exceptions included,
# so that figures stay comparable from run to run.
gcovr --root . --object-directory "$build" \
  --filter 'cu/' --filter 'tr/' --filter 'pmsg/' --filter 'sr/' \
  --exclude-directories '.*/CMakeFiles/[0-9.]+' --gcov-ignore-parse-errors \
  --print-summary --txt "$build/coverage.txt" >"$build/coverage-summary.txt"
cat "$build/coverage-summary.txt"
echo "per-file report: $build/coverage.txt"
exit "$status"
