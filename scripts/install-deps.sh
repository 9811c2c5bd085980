#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the tools need, only when missing.
# Idempotent and quiet when everything is present.
set -euo pipefail
packages=(
  build-essential cmake ninja-build pkg-config git
  nlohmann-json3-dev libsqlite3-dev sqlite3 libcurl4-openssl-dev libasio-dev
  libplist-dev libcli11-dev libcpp-httplib-dev libssl-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  iproute2 clang libclang-rt-14-dev lld valgrind gcovr
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
