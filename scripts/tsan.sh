#!/usr/bin/env bash
# Builds the library and its tests with ThreadSanitizer and runs them; any
# report fails the run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
export BUILD_DIR=${BUILD_DIR:-$root/build-tsan}
export ZQ_SANITIZE=thread
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
exec bash "$root/scripts/test.sh"
