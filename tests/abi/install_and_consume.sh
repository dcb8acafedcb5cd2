#!/usr/bin/env bash
# Installs a build into a scratch root and uses it as its users would:
#   install  cmake --install (the host stand-ins must stay out by default),
#            then their component on top
#   deb      the Debian packages cpack makes, unpacked with dpkg -x
# Then the programs run from there on their installed data (corvex-pe only
# where it was built), and a consumer is built against the root twice: with
# pkg-config and with find_package(corvex).
set -euo pipefail
mode=$1 build=$2 consumer=$3 cc=$4 cflags=$5 toolchain=${6:-}
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() { echo "FAILED: $*"; exit 1; }

if [ "$mode" = install ]; then
  cmake --install "$build" --prefix "$root/usr" >/dev/null
  [ -z "$(find "$root" -name 'libcorvex_cli*')" ] || fail "the host stand-ins were installed by default"
  cmake --install "$build" --prefix "$root/usr" --component host >/dev/null
else
  (cd "$build" && cpack -G DEB -B "$root/debs" >"$root/cpack.log" 2>&1) || { cat "$root/cpack.log"; fail cpack; }
  for deb in "$root"/debs/*.deb; do dpkg -x "$deb" "$root"; done
fi

out=$("$root/usr/bin/corvex-shell" -c "show heap") || fail "corvex-shell: $out"
[[ $out == *packet_buffers* ]] || fail "corvex-shell printed no heap table: $out"
if [ -e "$root/usr/bin/corvex-pe" ]; then
  "$root/usr/bin/corvex-pe" --help | grep -qF "$root/usr/share/corvex-pe/corvex-pe.conf" \
    || fail "corvex-pe does not take its configuration from $root/usr/share/corvex-pe"
  out=$("$root/usr/bin/corvex-pe" -q --out "$root/out" -c "show packet statistics" 2>&1) || fail "corvex-pe: $out"
  [[ $out == *"Heaps at exit: 4 walk clean"* ]] && [ -s "$root/out/upstream.pcap" ] \
    || fail "corvex-pe on its installed sample: $out"
fi

libdir=$(dirname "$(dirname "$(find "$root" -name corvex.pc -print -quit)")")
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2086,SC2046
"$cc" $cflags -std=c99 -Wall -Wextra -Werror -o "$root/consumer-pc" "$consumer/c_consumer.c" \
  $(pkg-config --cflags --libs corvex-host corvex)
LD_LIBRARY_PATH=$libdir "$root/consumer-pc"

args=(-S "$consumer" -B "$root/consumer-build" -DCMAKE_PREFIX_PATH="$root/usr" -DCMAKE_C_COMPILER="$cc")
[ -n "$toolchain" ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
cmake "${args[@]}" >/dev/null
cmake --build "$root/consumer-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$root/consumer-build/consumer"
