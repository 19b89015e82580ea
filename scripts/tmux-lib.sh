# Helpers for the tmux end-to-end scripts: source it, set $session, start a
# program with tmux new-session, then type with `keys` and read the screen.
bash "$(dirname "${BASH_SOURCE[0]}")/deps.sh" tmux
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
