#!/usr/bin/env bash
# Instructions spent per event, from fireEvents to the deletion after its answer, counted by
# callgrind in vntr-bench's own process: the library's threads and the bench's callers. The
# sandbox server runs as a program of its own (traced too), with a count reported apart.
#
# Two runs, N events and a smaller baseline B: total/N includes the fixed costs (start-up, TLS
# and SQLite set-up, idle timers); (Ir(N) - Ir(B)) / (N - B) is the cost of one more event.
#
#   bench/callgrind.sh <path to vntr-bench> [N=2000] [B=200]
# Prints one JSON line.
set -euo pipefail

bench=${1:?usage: bench/callgrind.sh <path to vntr-bench> [events] [baseline events]}
events=${2:-2000}
baseline=${3:-200}
command -v valgrind >/dev/null || { echo "callgrind.sh: valgrind is not installed" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

total_ir() {  # <callgrind output file>: its total instruction count
  awk '/^(summary|totals):/ { print $2; exit }' "$1"
}

# Runs vntr-bench under callgrind; sets ir (this process) and server_ir (its child).
measure() {
  local n=$1 dir=$work/$1
  mkdir -p "$dir"
  valgrind --tool=callgrind --trace-children=yes --callgrind-out-file="$dir/callgrind.out.%p" \
    "$bench" --events "$n" --no-memory-sampling >"$dir/result.json" 2>"$dir/valgrind.log" &
  local pid=$!
  if ! wait "$pid"; then
    echo "callgrind.sh: vntr-bench --events $n failed:" >&2
    cat "$dir/result.json" "$dir/valgrind.log" >&2
    exit 1
  fi
  ir=$(total_ir "$dir/callgrind.out.$pid")
  server_ir=0
  for f in "$dir"/callgrind.out.*; do
    [ "$f" = "$dir/callgrind.out.$pid" ] || server_ir=$(total_ir "$f")
  done
}

measure "$events"
ir_n=$ir server_n=$server_ir
measure "$baseline"
ir_b=$ir server_b=$server_ir

awk -v n="$events" -v b="$baseline" -v irn="$ir_n" -v irb="$ir_b" -v sn="$server_n" \
  -v sb="$server_b" 'BEGIN {
  printf "{\"mode\":\"callgrind\",\"events\":%.0f,\"ir\":%.0f,\"ir_per_event\":%.0f,", n, irn, irn / n
  printf "\"baseline_events\":%.0f,\"baseline_ir\":%.0f,\"ir_per_extra_event\":%.0f,", b, irb, (irn - irb) / (n - b)
  printf "\"server_ir_per_event\":%.0f,\"server_ir_per_extra_event\":%.0f}\n", sn / n, (sn - sb) / (n - b)
}'
