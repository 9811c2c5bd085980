#!/usr/bin/env bash
# Starts vntr-sandbox on a free port, sends it four sample batches (two answered normally, one
# with error entries, one with a malformed answer), and takes a screenshot of its page with
# headless Chromium (Debian package "chromium").
#
#   scripts/sandbox-screenshot.sh [path/to/vntr-sandbox] [output.png]
set -euo pipefail

sandbox=${1:-build/debug/tools/vntr-sandbox/vntr-sandbox}
output=${2:-/tmp/sandbox.png}
chromium=$(command -v chromium || command -v chromium-browser || true)
[[ -x $sandbox ]] || { echo "sandbox-screenshot: no program at $sandbox (build it first)" >&2; exit 2; }
[[ -n $chromium ]] || { echo "sandbox-screenshot: chromium is not installed" >&2; exit 2; }

work=$(mktemp -d)
pid=
cleanup() {
  [[ -n $pid ]] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

"$sandbox" --port 0 --quiet \
  --qualified-events '[{"eventName":"purchase","ignoreBatch":true},{"eventName":"open"}]' \
  >"$work/out" 2>&1 &
pid=$!
url=
for _ in $(seq 100); do
  url=$(grep -o 'http://[^ ]*' "$work/out" | head -n1 || true)
  [[ -n $url ]] && break
  kill -0 "$pid" 2>/dev/null || break
  sleep 0.1
done
[[ -n $url ]] || { echo "sandbox-screenshot: the sandbox did not start:" >&2; cat "$work/out" >&2; exit 1; }

event() {  # id, event name, group, data
  printf '{"jsonrpc":"2.0","method":"syncEvent","id":"%s","params":{"siteId":"12345",' "$1"
  printf '"appId":"com.example.app","events":["%s"],"eventGroup":"%s","eventData":%s,' "$2" "$3" "$4"
  printf '"eventTime":"%s","version":"1.0"}}' "$(date -u +%Y%m%d%H%M%S)"
}
getevents='{"jsonrpc":"2.0","method":"getEvents","id":"0C5E2B1A-77D4-4F0E-8B4B-2C9A4E1D3F55","params":{}}'
post() { curl -fsS -o /dev/null -H 'Content-Type: application/json' --data-binary "$1" "$url/tags"; }
post "[$(event 6F1C2A9E-0C1B-4E43-9A57-0B3D5E1E2F10 open app '{}'),$getevents]"
post "[$(event 6F1C2A9E-0C1B-4E43-9A57-0B3D5E1E2F10 open app '{}'),$(event \
  9B2D7C11-5A4E-4F21-8C3B-7E6F5D4C3B2A purchase shop '{"price":9.99,"note":"<b>not bold</b>"}'),$getevents]"
faults() { curl -fsS -o /dev/null -H 'Content-Type: application/json' --data-binary "$1" "$url/api/faults"; }
faults '{"errorEntries":true}'
post "[$(event 3A4B5C6D-7E8F-4A1B-9C2D-3E4F5A6B7C8D checkout shop '{"items":2}'),$getevents]"
faults '{"errorEntries":false,"malformedBody":true}'
post "[$(event 3A4B5C6D-7E8F-4A1B-9C2D-3E4F5A6B7C8D checkout shop '{"items":2}'),$getevents]"

"$chromium" --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
  --disable-background-networking --disable-component-update --disable-sync \
  --user-data-dir="$work/profile" --screenshot="$output" --window-size=1400,1000 "$url/" \
  >"$work/chromium.log" 2>&1 || { cat "$work/chromium.log" >&2; exit 1; }
[[ -s $output ]] || { echo "sandbox-screenshot: no screenshot written" >&2; exit 1; }
echo "screenshot of $url/ written to $output"
