#!/usr/bin/env bash
# Runs every fuzzer of a fuzz build for a bounded time each, as many at once as there are cores
# (FUZZ_JOBS), starting from the committed seed corpus. The corpus is copied to a scratch
# directory first, so what a run finds never lands in the repository. Crash inputs are kept
# under <build>/fuzz-artifacts/.
# Usage: fuzz/run-fuzzers.sh <build-dir> <seconds-per-target> [target...]
set -uo pipefail
build=${1:?build directory}
seconds=${2:?seconds per target}
shift 2
here=$(cd "$(dirname "$0")" && pwd)
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for dir in "$here"/corpus/*/; do targets+=("$(basename "$dir")"); done
fi

# On tmpfs when there is one: the fuzzers rewrite and flush files for every input.
scratch_base=${TMPDIR:-/tmp}
[ -w /dev/shm ] && scratch_base=/dev/shm
scratch=$(mktemp -d "$scratch_base/vntr-fuzz-run.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
# The fuzzers' own files go here too, so a crash leaves nothing behind.
mkdir -p "$scratch/files"
export VNTR_FUZZ_SCRATCH="$scratch/files"
artifacts="$build/fuzz-artifacts"
logs="$build/fuzz-logs"
mkdir -p "$artifacts" "$logs"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:symbolize=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

jobs=${FUZZ_JOBS:-$(nproc)}

# Runs one target; leaves its table row in <logs>/<target>.row and the fuzzer's exit status in
# <logs>/<target>.status.
run_one() {
  local target=$1
  local binary="$build/fuzz/${target}_fuzzer"
  local log="$logs/$target.log"
  if [ ! -x "$binary" ]; then
    echo "no fuzzer at $binary" >"$log"
    printf '%-16s %10s\n' "$target" missing >"$logs/$target.row"
    echo 1 >"$logs/$target.status"
    return
  fi
  local dict="$here/dict/json.dict"
  [ "$target" = site_id_plist ] && dict="$here/dict/plist.dict"
  local corpus="$scratch/$target"
  mkdir -p "$corpus" "$artifacts/$target"
  cp "$here/corpus/$target"/* "$corpus"/
  "$binary" "$corpus" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 \
    -dict="$dict" -print_final_stats=1 -artifact_prefix="$artifacts/$target/" >"$log" 2>&1
  local status=$?
  local done_line runs rate rss cov ft units
  done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$done_line")
  units=$(sed -n 's/.* corp: \([0-9]*\)\/.*/\1/p' <<<"$done_line")
  printf '%-16s %10s %9s %7s %7s %8s %8s\n' "$target" "${runs:--}" "${rate:--}" "${cov:--}" \
    "${ft:--}" "${units:--}" "${rss:--}" >"$logs/$target.row"
  echo "$status" >"$logs/$target.status"
}

# As many targets at once as there are cores: each fuzzer is one single-threaded process.
for target in "${targets[@]}"; do
  rm -f "$logs/$target.status"
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n; done
  run_one "$target" &
done
wait

failed=()
printf '%-16s %10s %9s %7s %7s %8s %8s\n' target runs exec/s cov ft corpus rss_mb
for target in "${targets[@]}"; do
  status=$(cat "$logs/$target.status" 2>/dev/null || echo 1)
  cat "$logs/$target.row" 2>/dev/null
  if [ $status -ne 0 ]; then
    failed+=("$target")
    echo "---- $target failed (exit $status); the end of $logs/$target.log:" >&2
    tail -n 40 "$logs/$target.log" >&2
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzzing failed: ${failed[*]} (inputs in $artifacts)" >&2
  exit 1
fi
