# Helpers for the tmux end-to-end scripts: set $session, source this file,
# build the program with `tmux_build TARGET`, start it with tmux new-session,
# then type with `keys` and read the screen. BUILD_DIR picks the build folder
# (default: build).
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=${BUILD_DIR:-$root/build}
bash "$root/scripts/deps.sh" tmux
tmux_build() {
  cmake -S "$root" -B "$build" -G Ninja >/dev/null
  cmake --build "$build" --target "$1" >/dev/null
}
trap 'tmux kill-session -t "$session" 2>/dev/null || true' EXIT

screen() { tmux capture-pane -p -t "$session"; }
fail() { echo "FAIL: $1"; screen; exit 1; }
# Waits until the screen matches the extended regular expression $1.
wait_for() {
  for _ in $(seq 200); do
    screen | grep -Eq "$1" && return 0
    sleep 0.05
  done
  fail "$2"
}
keys() { tmux send-keys -t "$session" "$@"; }
# Waits until the session has ended (its program and the shell after it).
wait_gone() {
  for _ in $(seq 200); do tmux has-session -t "$session" 2>/dev/null || return 0; sleep 0.05; done
  fail "$1"
}
# Sends $1 (with \n escapes) to the TCP port the program showed as "tcp port
# N" (or to $TCP_PORT when set) and prints all that came back until the
# server closed.
tcp_session() {
  local port=${TCP_PORT:-}
  [ -n "$port" ] || port=$(sed -n 's/^tcp port \([0-9]*\).*/\1/p;T;q' <<<"$(screen)")
  [ -n "$port" ] || fail "the TCP port is shown"
  TCP_LINES="$1" timeout 10 bash -c \
    "exec 3<>/dev/tcp/127.0.0.1/$port; printf '%b' \"\$TCP_LINES\" >&3; cat <&3" || true
}
