#!/usr/bin/env bash
# Drives the shell in a terminal as a person would (tmux: send keys, read
# the screen): Tab completes command names and table paths, Up recalls the
# previous line, and the history survives into the next run.
# Usage: qxsr_terminal_test.sh QXSR   (exit 77, skipped, without tmux)
set -uo pipefail
qxsr=$1
command -v tmux >/dev/null || { echo "tmux is not installed (scripts/deps.sh)"; exit 77; }
dir=$(mktemp -d)
sockets="${TMUX_TMPDIR:-/tmp}/tmux-$(id -u)" socket="qxsr-test-$$-1"
cleanup() {
  tmux -L "$socket" kill-server 2>/dev/null
  rm -rf "$dir" "$sockets/qxsr-test-$$-1" "$sockets/qxsr-test-$$-2"
}
trap cleanup EXIT
mkdir "$dir/mnt"
screen() { tmux -L "$socket" capture-pane -p -t qxsr; }
keys() { tmux -L "$socket" send-keys -t qxsr "$@"; }
fail() { echo "FAIL: $*"; echo "--- screen:"; screen 2>/dev/null; exit 1; }
# Waits (up to 10 s) until the screen has a line matching the pattern.
wait_for() {
  for _ in $(seq 100); do screen | grep -Eq -- "$1" && return 0; sleep 0.1; done
  fail "no line matching '$1'"
}
# Waits for an empty prompt on the last line: the shell reads keys again
# (a person, too, types the next line once the prompt is back).
prompt() {
  for _ in $(seq 100); do
    [ "$(screen | grep -v '^$' | tail -n 1)" = "qxsr>" ] && sleep 0.1 && return 0
    sleep 0.1
  done
  fail "no prompt"
}
# Each run on a server of its own: the last one may still be going away.
start() {
  socket="qxsr-test-$$-$1"
  tmux -L "$socket" new-session -d -s qxsr -x 100 -y 40 \
    "env HOME='$dir' TERM=xterm '$qxsr' -m '/demo=$dir/mnt'; sleep 30" || fail "tmux"
  prompt
}

start 1
keys 'cre' Tab
wait_for '^qxsr> create ?$'
keys '/demo/things id:int32:key name:string' Enter
wait_for '^created /demo/things with 2 columns$'
prompt
keys 'add /demo/th' Tab
wait_for '^qxsr> add /demo/things ?$'
keys 'name=one id=1' Enter
prompt
keys Up
wait_for '^qxsr> add /demo/things name=one id=1$'
keys BSpace '2' Enter
prompt
keys 'show /demo/things' Enter
wait_for '^\(2 rows\)$'
prompt
screen | grep -q '\^\[\[A' && fail "arrow keys printed as escape sequences"
screen | grep -Eq '^committed +1 +one$' || fail "first row"
keys 'quit' Enter
for _ in $(seq 100); do grep -q 'show' "$dir/.qxsr_history" 2>/dev/null && break; sleep 0.1; done
grep -q 'show' "$dir/.qxsr_history" || fail "no history file written"
tmux -L "$socket" kill-server 2>/dev/null

start 2
keys Up
wait_for '^qxsr> quit$'
keys Up
wait_for '^qxsr> show /demo/things$'
keys Enter
wait_for '^\(2 rows\)$'
echo "terminal line editing passes"
