#!/usr/bin/env bash
# How many times the library syncs its files to stable storage while it stores a burst of calls:
# strace counts the fsync and fdatasync calls of vntr-bench's process (its library threads)
# while N calls are fired offline and stored, with no batch sent.
#
#   bench/syncs.sh <path to vntr-bench> [N=10000]
# Prints one JSON line: events, syncs and events per sync. Each commit of new requests syncs the
# write-ahead log once; SQLite's checkpoints (every 1,000 pages of log) sync the log and the
# database file. Timings under strace are not meaningful and are not printed.
set -euo pipefail

bench=${1:?usage: bench/syncs.sh <path to vntr-bench> [events]}
events=${2:-10000}
command -v strace >/dev/null || { echo "syncs.sh: strace is not installed (apt-get install strace)" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# -f follows the library's threads; the sandbox server's child is traced too, but it syncs
# nothing (it keeps what it receives in memory).
if ! strace -f -qq -e trace=fsync,fdatasync -o "$work/trace" \
  "$bench" --queued "$events" --drain-batches 0 --no-memory-sampling >"$work/result.json"; then
  echo "syncs.sh: vntr-bench --queued $events failed:" >&2
  cat "$work/result.json" >&2
  exit 1
fi
syncs=$(grep -cE '(fsync|fdatasync)\(' "$work/trace" || true)
awk -v n="$events" -v s="$syncs" 'BEGIN {
  printf "{\"mode\":\"syncs\",\"events\":%d,\"syncs\":%d,\"events_per_sync\":%.1f}\n", n, s, (s > 0 ? n / s : 0)
}'
