#!/usr/bin/env bash
# stationctl at a terminal: an interactive session in a tmux pane (the
# password asked without echo, Tab completion from the station's help after
# the login, the history kept), then `watch`, whose screen must be redrawn in
# place with a trend line, ended with Ctrl-C.
set -euo pipefail
session="zqstationctl-$$"
source "$(dirname "$0")/tmux-lib.sh"
tmux_build station
tmux_build stationctl

work=$(mktemp -d)
station_pid=
cleanup() {
  tmux kill-session -t "$session" 2>/dev/null || true
  [ -z "$station_pid" ] || kill "$station_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
cp "$root/apps/station/station.cfg" "$work"
printf '[hosts]\nallow = 127.0.0.0/8\n' >"$work/open.acl"
cd "$work"
printf 'otto#pw\n' | "$build/apps/station/station" --passwd otto operator >/dev/null
"$build/apps/station/station" -f station.cfg Server.ListenPort=0 Server.ACL=open.acl </dev/null >out.txt 2>&1 &
station_pid=$!
for _ in $(seq 200); do grep -q '^tcp port' out.txt && break; sleep 0.05; done
port=$(sed -n 's/^tcp port \([0-9]*\).*/\1/p' out.txt)
[ -n "$port" ] || { cat out.txt; echo "FAIL: the station starts"; exit 1; }
ctl="env HOME=$work $build/apps/stationctl/stationctl --port $port --ca tls/ca.pem"

tmux new-session -d -s "$session" -x 120 -y 30 -c "$work" "$ctl; echo \"exit status \$?\"; sleep 30"
wait_for 'not logged in' "the session starts"
keys 'login otto' Enter
wait_for '^password:' "the password is asked"
keys 'otto#pw' Enter
wait_for 'logged in as otto \(operator\)' "the login"
screen | grep -q 'otto#pw' && fail "the password is not echoed"
keys 'sta' Tab
wait_for 'stationctl:/[#>] status$' "Tab completes sta to status (starttls is stationctl's own)"
keys Enter
wait_for '^cycles [0-9]+, period 1000 us' "status answers"
keys 'exit' Enter
wait_for '^exit status 0' "exit ends the session with 0"
grep -qx 'status' "$work/.config/stationctl/history" || fail "the history file keeps the commands"
grep -q 'otto#pw' "$work/.config/stationctl/history" && fail "the password stays out of the history"
tmux kill-session -t "$session"

tmux new-session -d -s "$session" -x 120 -y 30 -c "$work" \
  "STATIONCTL_PASSWORD=otto#pw $ctl --user otto watch --every 0.2; echo \"exit status \$?\"; sleep 30"
wait_for '^reading +[0-9.]+ +NONE +.*[▁▂▃▄▅▆▇█].*[▁▂▃▄▅▆▇█]' "watch draws the reading and its trend"
wait_for '^cycle_avg +[0-9.]+ us +NONE' "and the mean cycle length"
[ "$(screen | grep -c '^stationctl watch')" -eq 1 ] || fail "the screen is redrawn in place"
keys C-c
wait_for 'exit status 0' "Ctrl-C ends watch with 0"
echo "stationctl tmux: passed"
