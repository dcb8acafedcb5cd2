#!/usr/bin/env bash
# Builds the speed table (bench/speed) natively and for -m32, with the
# project's default build flags, and prints both tables. Run it while the
# machine is otherwise quiet (`uptime`): the ratios hold up under load, the
# nanoseconds do not. The instruction counts (callgrind, about half a minute
# an architecture) do not depend on the load at all.
# Usage: tools/speed_table.sh [build-root [TEXT]]   (default: ./build; TEXT:
#        only the rows whose work contains it)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
builds=${1:-$root/build}
only=("${@:2}")

# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages "${corvex_packages_build[@]}" gcc-multilib g++-multilib valgrind

# Instructions per operation of every contender, as speed_table
# --instructions reads them: "contender<TAB>instructions<TAB>work". Each
# dump of a --count run under callgrind is labelled "<contender>
# <operations> <work>" and holds the count of those operations alone.
count_instructions() {
  local table=$1 out=$2 dumps=$2.callgrind f label total contender ops work
  rm -rf "$dumps" && mkdir -p "$dumps"
  : >"$out"
  valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$dumps/out" \
    "$table" --count "${only[@]}" >"$dumps/log" 2>&1 || return 1
  for f in "$dumps"/out.*; do
    label=$(sed -n 's/^desc: Trigger: Client Request: //p' "$f")
    total=$(sed -n 's/^summary: //p' "$f")
    read -r contender ops work <<<"$label"
    awk -v c="$contender" -v t="$total" -v n="$ops" -v w="$work" 'BEGIN { printf "%s\t%.1f\t%s\n", c, t / n, w }' >>"$out"
  done
}

mkdir -p "$builds"
for arch in x86_64 i386; do
  dir=$builds/speed-$arch
  args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVEX_BENCH=ON -DCORVEX_TESTS=OFF)
  [ "$arch" = i386 ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-m32.cmake")
  cmake -S "$root" -B "$dir" -G Ninja "${args[@]}" >"$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
  cmake --build "$dir" --target speed_table >/dev/null
  table=$dir/bench/speed/speed_table
  echo
  # Where the kernel cannot start i386 programs, tools/check.sh has qemu run
  # them: such a table measures the emulator, not the processor, and
  # valgrind cannot run there at all.
  counts=$dir/instructions.tsv
  if [ "$arch" = i386 ] && grep -qs '^enabled' /proc/sys/fs/binfmt_misc/qemu-i386; then
    echo "(i386 programs run under qemu emulation here: the -m32 table is not a measurement)"
    : >"$counts"
  elif ! count_instructions "$table" "$counts"; then
    echo "($arch: no instruction counts, callgrind failed: see $counts.callgrind/log)"
    : >"$counts"
  fi
  "$table" --instructions "$counts" "${only[@]}" || echo "($arch: $table could not run here)"
done
