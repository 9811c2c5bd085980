#!/usr/bin/env bash
# Installs the Debian packages from `make package` on this machine, as a user would, and builds
# and runs the samples against the installed files only: the C sample through pkg-config, the
# CMake project through find_package, the Python package in a fresh virtual environment. The
# packages are removed again at the end. Run by .ci/run after `make package`.
set -euo pipefail
cd "$(dirname "$0")/../.."
repo=$PWD
debs=("$repo"/build/release/packages/*.deb)
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
work=$(mktemp -d)
cleanup() {
  $sudo apt-get remove -y -qq libvntrtagmanager0 libvntrtagmanager-dev vntr-tools >/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${debs[@]}" >/dev/null
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
server=http://127.0.0.1:9/tags  # refuses: the events stay queued
# Checks that a sample's output (read whole: `grep -q` in a pipe could end the sample with
# SIGPIPE before a later statistic line) says it stored its event.
stored() { grep -q "event stored" <<<"$1"; }

cc -std=c11 -Wall -Wextra -Wpedantic -Werror examples/hello.c -o "$work/hello_c" \
  $(pkg-config --cflags --libs VNTRTagManager)
stored "$("$work/hello_c" "$server")"

cmake -S examples -B "$work/examples" -G Ninja -DCMAKE_COMPILE_WARNING_AS_ERROR=ON >/dev/null
cmake --build "$work/examples" >/dev/null
stored "$("$work/examples/hello_cpp" "$server")"

python3 -m venv "$work/venv"
(cd "$work" && "$work/venv/bin/pip" install -q --no-build-isolation "$repo/python")
stored "$(cd "$work" && env -u VNTR_LIBRARY "$work/venv/bin/python" "$repo/examples/hello.py" "$server")"

vntr queue --dir "$XDG_DATA_HOME/hello_c" >/dev/null  # the sample made its queue
vntr-sandbox --help >/dev/null
echo "Debian packages: $(basename -a "${debs[@]}" | tr '\n' ' ')installed; C, CMake and Python samples ran against them"
