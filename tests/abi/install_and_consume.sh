#!/usr/bin/env bash
# Installs a build into a temporary prefix and builds a consumer against it
# twice: with pkg-config and with find_package(corvex).
set -euo pipefail
build=$1 consumer=$2 cc=$3 cflags=$4 toolchain=${5:-}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name corvex.pc -print -quit)")
libdir=$(dirname "$libdir")

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2086,SC2046
"$cc" $cflags -std=c99 -Wall -Wextra -Werror -o "$prefix/consumer-pc" "$consumer/c_consumer.c" \
  $(pkg-config --cflags --libs corvex corvex-host)
LD_LIBRARY_PATH=$libdir "$prefix/consumer-pc"

args=(-S "$consumer" -B "$prefix/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc")
[ -n "$toolchain" ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
cmake "${args[@]}" >/dev/null
cmake --build "$prefix/consumer-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$prefix/consumer-build/consumer"
