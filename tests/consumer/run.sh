#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds two consumers against it: a CMake
# project through find_package, and a C program through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
cmake -S "$source_dir/project" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib/x86_64-linux-gnu" "$work/consumer/consumer"
pcdir=$(dirname "$(find "$work/prefix" -name VNTRTagManager.pc | head -1)")
export PKG_CONFIG_PATH="$pcdir"
sed -i "s|^prefix=.*|prefix=$work/prefix|" "$pcdir/VNTRTagManager.pc"
cc -std=c11 "$source_dir/project/pkgconfig_main.c" -o "$work/pc_consumer" \
  $(pkg-config --cflags --libs VNTRTagManager)
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib/x86_64-linux-gnu" "$work/pc_consumer"
