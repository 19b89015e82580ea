#!/usr/bin/env bash
# End-to-end check of the command interpreter as a person uses it: runs
# examples/cliserver in a tmux pane, types into it with send-keys and reads
# the screen with capture-pane. Checks a command and its answer, cursor-up
# (which from an empty line shows the second-newest entry), Tab completion,
# Ctrl-L redrawing the prompt and line, a TCP client with its own session,
# and exit ending the program.
set -euo pipefail
session="zqcli-$$"
source "$(dirname "$0")/tmux-lib.sh"
tmux_build cliserver

tmux new-session -d -s "$session" -x 120 -y 40 "$build/examples/cliserver 0; sleep 2"

wait_for 'station:/[#>] ?$' "first prompt"
keys 'add 2 40' Enter
wait_for '^42' "add answers 42"
keys 'echo hello tmux' Enter
wait_for '^hello tmux' "echo"
keys Up
wait_for 'station:/[#>] add 2 40$' "cursor-up shows the second-newest entry"
keys Enter
[ "$(screen | grep -c '^42')" -ge 2 ] || fail "the recalled command ran again"
keys 'hist' Tab
wait_for 'station:/[#>] history$' "Tab completes hist to history"
keys Enter
wait_for '^001: add 2 40' "history lists the commands"
keys 'echo abc'
keys C-l
[ "$(screen | grep -c 'station:/[#>] echo abc')" -ge 2 ] || wait_for 'x^' "Ctrl-L redraws prompt and line"
keys C-u Enter

reply=$(tcp_session 'add 1 2\nclients\nexit\n')
grep -q '^3' <<<"$reply" || fail "a TCP client gets its own answers: $reply"
grep -q '1 client(s)' <<<"$reply" || fail "the TCP client is counted: $reply"

keys 'exit' Enter
for _ in $(seq 60); do tmux has-session -t "$session" 2>/dev/null || break; sleep 0.05; done
! grep -q 'station:/' <<<"$(screen 2>/dev/null)" || fail "exit ends the program"
echo "cli-tmux: 8 checks passed"
