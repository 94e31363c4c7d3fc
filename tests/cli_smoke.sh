#!/usr/bin/env bash
# The plinth tool answers --help, refuses unknown commands with exit code 2.
set -u
plinth="$1"
fail() { echo "cli_smoke: $*" >&2; exit 1; }

"$plinth" --help | grep -q "usage: plinth" || fail "--help prints no usage"
"$plinth" >/dev/null 2>&1; [ $? -eq 2 ] || fail "no command must exit 2"
"$plinth" frobnicate >/dev/null 2>&1; [ $? -eq 2 ] || fail "unknown command must exit 2"
echo "cli_smoke: ok"
