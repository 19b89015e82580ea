#!/usr/bin/env bash
# Fuzzes the configuration parser: scripts/fuzz-config.sh [SECONDS] (default 30).
exec bash "$(dirname "$0")/fuzz.sh" config "${1:-30}"
