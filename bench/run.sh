#!/usr/bin/env bash
# Runs every benchmark of a release build and writes the figures to <results>/latest.txt (all
# output, with the commands) and <results>/latest.json (the same figures as one JSON object).
# `make bench` builds the release preset and runs this.
#
#   bench/run.sh <release build directory> [results directory = bench/results]
set -euo pipefail

build=${1:?usage: bench/run.sh <release build directory> [results directory]}
results=${2:-bench/results}
mkdir -p "$results"
txt=$results/latest.txt
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

store_bench=$build/bench/vntr_store_bench
micro_bench=$build/bench/vntr_micro_bench
vntr_bench=$build/tools/vntr-bench/vntr-bench
for program in "$store_bench" "$micro_bench" "$vntr_bench"; do
  [ -x "$program" ] || { echo "bench/run.sh: $program is missing; build the release preset" >&2; exit 1; }
done

commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)
git diff --quiet HEAD 2>/dev/null || commit="$commit+uncommitted"
started=$(date -u +%Y-%m-%dT%H:%M:%SZ)
cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')
load=$(cut -d' ' -f1-3 /proc/loadavg)

{
  echo "VNTRTagManager benchmarks"
  echo "started:  $started"
  echo "commit:   $commit"
  echo "machine:  $(nproc) cores, $cpu"
  echo "load average at start: $load"
} >"$txt"

section() { printf '\n== %s\n$ %s\n' "$1" "$2" | tee -a "$txt"; }

# Google Benchmark programs: console table into the text, JSON beside it.
gbench() {  # <title> <program> <json name>
  section "$1" "$2"
  # Debian's Google Benchmark library calls itself a debug build; that is the framework, not us.
  "$2" --benchmark_color=false --benchmark_out="$work/$3.json" --benchmark_out_format=json 2>&1 |
    sed 's/^\*\*\*WARNING\*\*\* Library was built as DEBUG.*/(Google Benchmark: "Library was built as DEBUG" is about the distribution'"'"'s benchmark library itself)/' |
    tee -a "$txt"
}

gbench "Event store: lookups, dequeue, start-up, events stored per second" "$store_bench" store
gbench "Caller cost, one request, the batch answer, the requester's batch" "$micro_bench" micro

# vntr-bench: one JSON line per run.
: >"$work/end_to_end.jsonl"
e2e() {  # <title> <arguments...>
  local title=$1
  shift
  section "$title" "vntr-bench $*"
  local line
  if ! line=$("$vntr_bench" "$@"); then
    echo "(the run did not complete)" | tee -a "$txt"
  fi
  [ -n "$line" ] && echo "$line" | tee -a "$txt" >>"$work/end_to_end.jsonl"
  return 0
}

e2e "10,000 events from one thread, until all are delivered" --events 10000 --threads 1
e2e "10,000 events from four threads, until all are delivered" --events 10000 --threads 4
e2e "Drain of a 10,000-request backlog, server batch interval 100 ms" --backlog 10000
e2e "100,000 requests queued in one burst, then 25 batches" --queued 100000
e2e "100,000 requests queued at a sustainable rate (at most 1,000 ahead of the store)" \
  --queued 100000 --paced 1000

callgrind='null'
section "Instructions per event, fireEvents to deletion (callgrind)" \
  "bench/callgrind.sh vntr-bench 2000 200"
if command -v valgrind >/dev/null; then
  if callgrind=$(bench/callgrind.sh "$vntr_bench" 2000 200); then
    echo "$callgrind" | tee -a "$txt"
  else
    callgrind='null'
    echo "(callgrind run failed)" | tee -a "$txt"
  fi
else
  echo "(valgrind is not installed)" | tee -a "$txt"
fi

syncs='null'
section "Syncs to stable storage while 10,000 calls are stored (strace)" \
  "bench/syncs.sh vntr-bench 10000"
if command -v strace >/dev/null && syncs=$(bench/syncs.sh "$vntr_bench" 10000); then
  echo "$syncs" | tee -a "$txt"
else
  syncs='null'
  echo "(strace is not installed, or the run failed)" | tee -a "$txt"
fi

finished=$(date -u +%Y-%m-%dT%H:%M:%SZ)
printf '\nfinished: %s; load average at the end: %s\n' "$finished" "$(cut -d' ' -f1-3 /proc/loadavg)" \
  | tee -a "$txt"

{
  printf '{"started":"%s","finished":"%s","commit":"%s","cores":%s,"cpu":"%s",' \
    "$started" "$finished" "$commit" "$(nproc)" "$cpu"
  printf '"load_average_at_start":"%s",\n"end_to_end":[' "$load"
  paste -sd, "$work/end_to_end.jsonl"
  printf '],\n"callgrind":%s,\n"syncs":%s,\n"store_bench":' "$callgrind" "$syncs"
  cat "$work/store.json"
  printf ',\n"micro_bench":'
  cat "$work/micro.json"
  printf '}\n'
} >"$results/latest.json"
echo "figures written to $txt and $results/latest.json"
