#!/usr/bin/env bash
# Builds corvex-shell (installing what a fresh Debian machine lacks) and
# runs it with the arguments given: -c "command" as often as wanted, or none
# for an interactive session.
# Usage: tools/run.sh [-c COMMAND]...
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/run
# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages cmake ninja-build g++ python3 libreadline-dev

mkdir -p "$build"
cmake -S "$root" -B "$build" -G Ninja -DCORVEX_TESTS=OFF >"$build.log" 2>&1 &&
  cmake --build "$build" --target corvex-shell >>"$build.log" 2>&1 ||
  { cat "$build.log"; exit 1; }
exec "$build/tools/corvex-shell" "$@"
