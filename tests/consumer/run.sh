#!/usr/bin/env bash
# The samples in examples/ built as users build them: with CMake against the installed package
# and against the build tree, and the C sample through pkg-config with -Wall -Wextra -Werror.
# Each runs without LD_LIBRARY_PATH (its rpath finds the library) against port 9 on loopback,
# which refuses, so the event stays queued in the scratch directory.
set -euo pipefail
build_dir=$(cd "$1" && pwd)
examples=$(cd "$(dirname "$0")/../../examples" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
server=http://127.0.0.1:9/tags
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null

# Runs a sample and checks it stored its event. Its whole output is read first: `grep -q` in a
# pipe would stop reading at the match, and a statistic line printed after it would then end
# the sample with SIGPIPE.
stored() {
  local out
  out=$("$1" "$server" 2>/dev/null)
  grep -q "event stored" <<<"$out"
}

for from in installed build-tree; do
  if [ "$from" = installed ]; then where=(-DCMAKE_PREFIX_PATH="$work/prefix")
  else where=(-DVNTRTagManager_DIR="$build_dir"); fi
  cmake -S "$examples" -B "$work/$from" -G Ninja -DCMAKE_COMPILE_WARNING_AS_ERROR=ON \
    "${where[@]}" >/dev/null
  cmake --build "$work/$from" >/dev/null
  stored "$work/$from/hello_cpp"
  stored "$work/$from/hello_c"
  # The build-tree package must link the build tree's library, never an installed one.
  if [ "$from" = build-tree ]; then
    ldd "$work/$from/hello_c" | grep -q "$build_dir/libVNTRTagManager.so"
  fi
done

# pkg-config from an installed tree moved elsewhere: the .pc file finds its own prefix.
mv "$work/prefix" "$work/moved"
PKG_CONFIG_PATH=$(dirname "$(find "$work/moved" -name VNTRTagManager.pc | head -1)")
export PKG_CONFIG_PATH
cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$examples/hello.c" -o "$work/hello_pc" \
  $(pkg-config --cflags --libs VNTRTagManager) \
  -Wl,-rpath,"$(pkg-config --variable=libdir VNTRTagManager)"
stored "$work/hello_pc"
echo "examples built and run: CMake (installed, build tree), pkg-config (moved prefix)"
