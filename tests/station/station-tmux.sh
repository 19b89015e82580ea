#!/usr/bin/env bash
# End-to-end check of the station's terminal side: runs it in a tmux pane on
# the shipped configuration, types commands as an operator would (line
# editing in the middle of a line, Home/End, Ctrl-W, Ctrl-R, UTF-8, Tab
# completion of commands and arguments, help with each level's row), serves
# a TCP client at the same time
# while an asynchronous line appears above a half-typed command, narrows the
# window below the line's width, ends it with "exit" and checks the terminal
# was restored, then starts it again, finds the kept history and stops it
# with SIGINT.
set -euo pipefail
session="zqstation-$$"
source "$(dirname "$0")/tmux-lib.sh"
tmux_build station

work=$(mktemp -d)
trap 'tmux kill-session -t "$session" 2>/dev/null || true; rm -rf "$work"' EXIT
cp "$root/apps/station/station.cfg" "$root/apps/station/station.acl" "$work"
# After the station: its exit status and the terminal's line discipline.
start() {
  tmux new-session -d -s "$session" -x 120 -y 50 -c "$work" \
    "$build/apps/station/station Server.ListenPort=0 Station.UsersFile=none Server.RequireTLS=0; echo \"exit status \$?\";
     stty -a | tr ' ;' '\n\n' | grep -E '^-?(icanon|echo)\$' | tr '\n' ' '; echo; sleep 30"
}
prompt='station:/[#>] '

start
wait_for "station:/[#>] ?$" "first prompt"
keys 'status' Enter
wait_for '^cycles [0-9]+, period 1000 us' "status shows the cycle statistics"
keys 'io set 2' Enter
wait_for '^bit 2 = 1' "io set"
keys Up Up
wait_for "${prompt}status\$" "cursor-up twice recalls the second-newest entry"
keys Enter
[ "$(screen | grep -c '^cycles ')" -ge 2 ] || wait_for 'x^' "the recalled command ran again"
keys 'fi' Tab
wait_for "${prompt}fit\$" "Tab completes fi to fit"
keys Enter
wait_for 'points' "fit answers"
keys 'help io' Enter
wait_for '^  operator +all of it$' "help io shows what each level may do with it"
screen | grep -Eq '^  viewer +all but io clear, io set, io toggle$' || fail "the viewer's row follows the rules"
keys 'starttls' Enter
wait_for '^starttls: only for network clients' "starttls is for network clients"
TCP_PORT=$(sed -n 's/^tcp port \([0-9]*\).*/\1/p;T;q' <<<"$(screen)")
keys 'io set 0' Enter
wait_for '^io: bit 0 \(heater.*cannot be changed by hand' "io refuses a bit the task drives"

keys C-l 'echo helo' Left 'l' Enter
wait_for '^hello$' "a letter typed in the middle of the line"
keys 'cho mid' Home 'e' End ' end' Enter
wait_for '^mid end$' "Home and End"
keys 'echo wrong words' C-w C-w 'fine' Enter
wait_for '^fine$' "Ctrl-W deletes words"
keys C-r 'hel'
wait_for "\\(reverse-i-search\\)\`hel': echo hello\$" "Ctrl-R finds an earlier command"
keys Enter
[ "$(screen | grep -c '^hello$')" -ge 2 ] || wait_for 'x^' "the found command ran again"
keys 'config set St' Tab
wait_for "${prompt}config set Station\\.\$" "config set St<Tab> completes the section"
keys C-c 'echo grüße' Left Left BSpace Enter
wait_for '^grße$' "a UTF-8 word edited with Left and Backspace"

keys C-l 'config sh'
reply=$(tcp_session 'echo via tcp\nio get 2\nhelp nosuch\nset\nexit\n')
grep -q '> via tcp' <<<"$reply" || fail "a TCP client is served beside the terminal: $reply"
grep -q 'Unknown command: nosuch' <<<"$reply" || fail "the client gets its own help errors: $reply"
! screen | grep -Eq 'nosuch|^cmdline=' || fail "a client's help and set texts stay off the terminal"
grep -q '> bit 2 = 1' <<<"$reply" || fail "the TCP client sees the terminal's bit: $reply"
wait_for '^127\.0\.0\.1 connected$' "a client's connect is shown above the prompt"
wait_for "${prompt}config sh\$" "the half-typed command stays below it"
keys 'ow' Enter
wait_for '^[A-Z][A-Za-z]*\.[A-Za-z]+ = ' "and runs when finished"

keys C-l "echo $(printf 'a%.0s' $(seq 50))Z" Left
tmux resize-window -t "$session" -x 30
keys 'Y'
joined() { tmux capture-pane -p -J -t "$session"; }
for _ in $(seq 100); do joined | grep -Eq "${prompt}echo a{50}YZ\$" && break; sleep 0.05; done
joined | grep -Eq "${prompt}echo a{50}YZ\$" || fail "a line wider than a narrowed window is redrawn whole"
keys Enter
tmux resize-window -t "$session" -x 120
wait_for '^a{50}YZ$' "and runs whole"

keys 'exit' Enter
wait_for '^exit status 0' "exit ends the station with status 0"
wait_for '^icanon echo' "the terminal is restored"
tmux kill-session -t "$session"

start
wait_for "station:/[#>] ?$" "prompt of the second run"
[ "$(stat -c %a "$work/station.history")" = 600 ] || fail "the history file is private"
keys C-r 'fin'
wait_for "\\(reverse-i-search\\)\`fin': echo fine\$" "the history of the first run is back"
keys C-c
wait_for "station:/[#>] ?\$" "Ctrl-C clears the line and leaves the station running"
kill -INT "$(pgrep -P "$(tmux display -p -t "$session" '#{pane_pid}')" station)"
wait_for '^exit status 0' "SIGINT stops the station cleanly"
grep -Eq 'stopped: ([0-9]+) thread\(s\) \(\1 at start\)' "$work"/station*.log || fail "the log records the clean stop"
echo "station-tmux: 35 checks passed"
