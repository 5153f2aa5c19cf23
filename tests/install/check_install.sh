#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, then builds and runs a small
# consumer against it twice: through find_package(morbase) and through
# pkg-config morbase.
set -eu
build=$1 consumer=$2 work=$3 cc=$4 abi=${5:-}
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libmorbase.so' | head -n 1)")
test -n "$libdir"

# 1. CMake package
cmake -S "$consumer" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$abi" -DCMAKE_EXE_LINKER_FLAGS="$abi" >/dev/null
cmake --build "$work/cmake" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake/consumer"

# 2. pkg-config
cflags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags morbase)
libs=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --libs morbase)
# shellcheck disable=SC2086
"$cc" $abi -std=c99 -Wall -Wextra -Werror $cflags "$consumer/consumer.c" $libs -o "$work/consumer-pc"
LD_LIBRARY_PATH=$libdir "$work/consumer-pc"
echo "installed tree consumed through CMake and pkg-config"
