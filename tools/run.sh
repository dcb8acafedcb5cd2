#!/usr/bin/env bash
# Builds corvex-pe (installing what a fresh Debian machine lacks) and runs
# it on the shipped sample capture, writing one capture per port to
# build/run/out, then showing the heaps and the packet pools the traffic
# used. Arguments are corvex-pe options, added to those defaults; an option
# replaces the defaults it conflicts with: --out the default --out, --port
# (live interfaces) the default --out too, -c the default commands.
# Usage: tools/run.sh [corvex-pe options]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/run
# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages "${corvex_packages_build[@]}"

mkdir -p "$build"
cmake -S "$root" -B "$build" -G Ninja -DCORVEX_TESTS=OFF >"$build.log" 2>&1 &&
  cmake --build "$build" --target corvex-pe corvex-shell >>"$build.log" 2>&1 ||
  { cat "$build.log"; exit 1; }

out=(--out "$build/out")
commands=(-c "show heap" -c "show heap 0 accounting pc" -c "show packet statistics" -c "show packet sheaf 3")
# Whether word names the long option, as getopt_long reads it: any prefix
# at least as long as the shortest that no other option shares.
names() { local word=${1%%=*}; [[ ${#word} -ge $3 && $2 == "$word"* ]]; }
value_next=0
for arg in "$@"; do
  if [ $value_next = 1 ]; then value_next=0; continue; fi
  [ "$arg" = -- ] && break
  if names "$arg" --out 3 || names "$arg" --port 3; then
    out=()
  elif names "$arg" --command 5; then
    commands=()
  elif [[ $arg =~ ^-[qh]*c(.*)$ ]]; then
    commands=()
    [ -z "${BASH_REMATCH[1]}" ] && value_next=1
    continue
  fi
  # A long option given its value as the next word.
  for option in --config:3 --in:4 --out:3 --port:3 --duration:3 --command:5 --heap-map:5 --trace:3 --drops:4 \
    --counters:5; do
    [[ $arg != *=* ]] && names "$arg" "${option%:*}" "${option#*:}" && value_next=1
  done
done
exec "$build/bin/corvex-pe" "${out[@]}" "${commands[@]}" "$@"
