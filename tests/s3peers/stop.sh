#!/usr/bin/env bash
# Stops the servers that start.sh OUTDIR started, by their pid files. Safe to
# run twice, after a failed start, or on a directory that never had servers.
set -uo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 OUTDIR" >&2
  exit 2
fi
[ -d "$1" ] || exit 0
here=$(cd "$(dirname "$0")" && pwd -P)
out=$(cd "$1" && pwd -P)

alive() { # PID; a zombie counts as gone
  local state
  state=$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null) || return 1
  [ -n "$state" ] && [ "$state" != Z ]
}

# A pid file can outlive its process and the pid be reused: only signal a
# process that is this server of this OUTDIR.
ours() { # PID NAME
  alive "$1" || return 1
  local cmd
  cmd=$(tr '\0' '\n' <"/proc/$1/cmdline" 2>/dev/null) || return 1
  grep -qxF "$here/server.js" <<<"$cmd" && grep -qxF "$out/data/$2" <<<"$cmd"
}

declare -A pids
for n in http https wrongname; do
  f="$out/$n.pid"
  [ -f "$f" ] || continue
  pid=$(cat "$f" 2>/dev/null)
  if [[ "$pid" =~ ^[0-9]+$ ]] && ours "$pid" "$n"; then
    kill -TERM "$pid" 2>/dev/null && pids[$n]=$pid
  fi
done

deadline=$((SECONDS + 5))
for n in "${!pids[@]}"; do
  pid=${pids[$n]}
  while alive "$pid" && [ $SECONDS -lt $deadline ]; do sleep 0.05; done
  if ours "$pid" "$n"; then
    echo "s3peers: the $n server ($pid) ignored SIGTERM; killing it" >&2
    kill -KILL "$pid" 2>/dev/null
  fi
done
for n in http https wrongname; do rm -f "$out/$n.pid"; done
rm -f "$out/peers.env"
exit 0
