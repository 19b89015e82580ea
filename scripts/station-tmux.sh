#!/usr/bin/env bash
# End-to-end check of the station's terminal side: runs it in a tmux pane on
# the shipped configuration, types commands as an operator would (with
# cursor-up and Tab), serves a TCP client at the same time, ends it with
# "exit" and checks the terminal was restored, then starts it again and
# stops it with Ctrl-C.
set -euo pipefail
session="zqstation-$$"
source "$(dirname "$0")/tmux-lib.sh"
tmux_build station

work=$(mktemp -d)
trap 'tmux kill-session -t "$session" 2>/dev/null || true; rm -rf "$work"' EXIT
cp "$root/examples/station/station.cfg" "$root/examples/station/station.acl" "$work"
# After the station: its exit status and the terminal's line discipline.
start() {
  tmux new-session -d -s "$session" -x 120 -y 50 -c "$work" \
    "$build/examples/station/station Server.ListenPort=0 Station.UsersFile=none Server.RequireTLS=0; echo \"exit status \$?\";
     stty -a | tr ' ;' '\n\n' | grep -E '^-?(icanon|echo)\$' | tr '\n' ' '; echo; sleep 30"
}
prompt='station:/[#>] '

start
wait_for "station:/[#>] ?$" "first prompt"
keys 'status' Enter
wait_for '^cycles [0-9]+, period 1000 us' "status shows the cycle statistics"
keys 'io set 2' Enter
wait_for '^bit 2 = 1' "io set"
keys Up
wait_for "${prompt}status\$" "cursor-up recalls the second-newest entry"
keys Enter
[ "$(screen | grep -c '^cycles ')" -ge 2 ] || wait_for 'x^' "the recalled command ran again"
keys 'fi' Tab
wait_for "${prompt}fit\$" "Tab completes fi to fit"
keys Enter
wait_for 'points' "fit answers"
keys 'starttls' Enter
wait_for '^starttls: only for network clients' "starttls is for network clients"

reply=$(tcp_session 'echo via tcp\nio get 2\nhelp nosuch\nset\nexit\n')
grep -q '> via tcp' <<<"$reply" || fail "a TCP client is served beside the terminal: $reply"
grep -q 'Unknown command: nosuch' <<<"$reply" || fail "the client gets its own help errors: $reply"
! screen | grep -Eq 'nosuch|^cmdline=' || fail "a client's help and set texts stay off the terminal"
grep -q '> bit 2 = 1' <<<"$reply" || fail "the TCP client sees the terminal's bit: $reply"

keys 'exit' Enter
wait_for '^exit status 0' "exit ends the station with status 0"
wait_for '^icanon echo' "the terminal is restored"
tmux kill-session -t "$session"

start
wait_for "station:/[#>] ?$" "prompt of the second run"
keys C-c
wait_for '^exit status 0' "Ctrl-C stops the station cleanly"
grep -Eq 'stopped: ([0-9]+) thread\(s\) \(\1 at start\)' "$work"/station*.log || fail "the log records the clean stop"
echo "station-tmux: 15 checks passed"
