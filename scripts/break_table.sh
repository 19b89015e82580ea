#!/usr/bin/env bash
# Breaks the library on purpose, one line at a time, and shows which tests
# notice. Each row names a subsystem, a literal text in one source file, what
# replaces it, and the test programs that cover that subsystem. For each row
# the script applies the break, builds those programs, runs them whole,
# records the failing tests and puts the file back (also when interrupted).
#
#   scripts/break_table.sh [build-dir]      (default: build, configured already)
#
# Exit status 0 when every break was caught.
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
[ -d "$build" ] || { echo "no build directory $build" >&2; exit 2; }

# subsystem ~ file ~ text ~ replacement ~ what the break does ~ test programs
breaks=(
  "config parsing~src/config/lib_config.cpp~if (c == '\"' && (i == 0 || data[i - 1] != '\\\\'))~if (c == '\"')~an escaped quote opens a quoted value~zq_config_tests"
  "log~src/log/logretention.cpp~count > static_cast<size_t>(cfg_.max_files)~count >= static_cast<size_t>(cfg_.max_files)~one log file fewer kept than MaxFiles~zq_log_tests"
  "trace/error records~src/log/tracer.cpp~s.cduration < s.duration~s.cduration <= s.duration~a recording runs one cycle too long~zq_log_tests"
  "line server/connection~src/net/connection.cpp~if (crlf && s.empty()) write_raw~if (false) write_raw~an empty line is sent without its line end~zq_net_tests zq_security_tests"
  "interpreter~src/cli/cli.cpp~if (line[i + 1] == '\$') {~if (line[i + 1] == '#') {~'\$\$' no longer stands for a literal '\$'~zq_cli_tests zq_hardening_tests"
  "threads~src/threads/oothread.cpp~if (_status & 9u) return;~if (_status & 1u) return;~a thread cancelled for good starts again~zq_threads_tests"
  "rtm~src/rtm/cyclestats.cpp~std::lower_bound(kBoundNs.begin()~std::upper_bound(kBoundNs.begin()~a lateness on a bucket bound counts in the next bucket~zq_rtm_tests"
  "serial/io~src/io/iocontrol.cpp~if (pos + 1 >= size) return IOR_BOUNDARY;~if (pos >= size) return IOR_BOUNDARY;~the last input byte becomes readable~zq_io_tests"
  "crc/hash/cipher~src/security/crc32.cpp~(r >> 1) ^ 0xEDB88320u~(r >> 1) ^ 0xEDB88321u~CRC-32 polynomial off by one bit~zq_internal_tests zq_security_tests"
  "math~src/math/math_tools.cpp~for (long i = 2; i <= n; ++i) product~for (long i = 2; i < n; ++i) product~factorial stops one factor short~zq_math_tests"
)

backup=$(mktemp /tmp/zq-break-XXXXXX)
broken=""
restore() {
  if [ -n "$broken" ]; then
    cp "$backup" "$root/$broken"
    broken=""
  fi
}
trap 'restore; rm -f "$backup"' EXIT
trap 'restore; exit 130' INT TERM HUP

# Replaces the one occurrence of $2 by $3 in file $1; prints the line number.
apply() {
  /usr/bin/python3 - "$@" <<'EOF'
import sys
path, old, new = sys.argv[1:4]
text = open(path).read()
if text.count(old) != 1:
    sys.exit("expected one occurrence of %r in %s, found %d" % (old, path, text.count(old)))
at = text.index(old)
open(path, "w").write(text.replace(old, new))
print(text.count("\n", 0, at) + 1)
EOF
}

export LD_LIBRARY_PATH="$build/tests/plugins:$build"
log=$(mktemp /tmp/zq-break-log-XXXXXX)
rows=()
missed=0
for spec in "${breaks[@]}"; do
  IFS='~' read -r subsystem file old new what programs <<<"$spec"
  cp "$root/$file" "$backup"
  broken=$file
  if ! line=$(apply "$root/$file" "$old" "$new"); then
    restore
    rows+=("$subsystem|$file|$what|NOT APPLIED")
    missed=$((missed + 1))
    continue
  fi
  caught=""
  # shellcheck disable=SC2086
  if ! cmake --build "$build" --target $programs -j2 >"$log" 2>&1; then
    caught="build failed"
  else
    for p in $programs; do
      timeout 900 "$build/tests/$p" >"$log" 2>&1
      rc=$?
      names=$(sed -n 's/^\[  FAILED  \] \([A-Za-z0-9_/.]*\)\( (.*\)\?$/\1/p' "$log" | sort -u | paste -sd' ')
      if [ -n "$names" ]; then
        caught+="${caught:+ }$names"
      elif [ $rc -ne 0 ]; then
        caught+="${caught:+ }$p (exit $rc)"
      fi
    done
  fi
  restore
  [ -n "$caught" ] || { caught="MISSED"; missed=$((missed + 1)); }
  rows+=("$subsystem|$file:$line|$what|$caught")
  echo "done: $subsystem -> $caught" >&2
done
rm -f "$log"
# Leave the programs built from the unbroken sources.
cmake --build "$build" --target zq_config_tests zq_log_tests zq_net_tests zq_cli_tests zq_hardening_tests zq_io_tests zq_security_tests zq_threads_tests \
  zq_rtm_tests zq_internal_tests zq_math_tests -j2 >/dev/null 2>&1

printf '%-22s | %-30s | %-52s | %s\n' subsystem file:line break "caught by"
for r in "${rows[@]}"; do
  IFS='|' read -r a b c d <<<"$r"
  printf '%-22s | %-30s | %-52s | %s\n' "$a" "$b" "$c" "$d"
done
echo "$((${#rows[@]} - missed)) of ${#rows[@]} breaks caught"
[ $missed -eq 0 ]
