#!/usr/bin/env bash
# Builds corvex-pe (installing what a fresh Debian machine lacks) and runs
# it with the arguments given; with none, on the shipped sample capture,
# writing one capture per port to build/run/out and then showing the heaps
# and the packet pools the traffic used.
# Usage: tools/run.sh [corvex-pe options]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/run
# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages cmake ninja-build g++ python3 libreadline-dev libpcap-dev

mkdir -p "$build"
cmake -S "$root" -B "$build" -G Ninja -DCORVEX_TESTS=OFF >"$build.log" 2>&1 &&
  cmake --build "$build" --target corvex-pe corvex-shell >>"$build.log" 2>&1 ||
  { cat "$build.log"; exit 1; }
if [ $# -eq 0 ]; then
  set -- --out "$build/out" -c "show heap" -c "show heap 0 accounting pc" \
    -c "show packet statistics" -c "show packet sheaf 3"
fi
exec "$build/apps/corvex-pe/corvex-pe" "$@"
