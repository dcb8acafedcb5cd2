#!/usr/bin/env bash
# Builds the speed table (bench/speed) natively and for -m32, with the
# project's default build flags, and prints both tables. Run it while the
# machine is otherwise quiet (`uptime`): the ratios hold up under load, the
# nanoseconds do not.
# Usage: tools/speed_table.sh [build-root]      (default: ./build)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
builds=${1:-$root/build}
# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages "${corvex_packages_build[@]}" gcc-multilib g++-multilib

mkdir -p "$builds"
for arch in x86_64 i386; do
  dir=$builds/speed-$arch
  args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVEX_BENCH=ON -DCORVEX_TESTS=OFF)
  [ "$arch" = i386 ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-m32.cmake")
  cmake -S "$root" -B "$dir" -G Ninja "${args[@]}" >"$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
  cmake --build "$dir" --target speed_table >/dev/null
  echo
  # Where the kernel cannot start i386 programs, tools/check.sh has qemu run
  # them: such a table measures the emulator, not the processor.
  if [ "$arch" = i386 ] && grep -qs '^enabled' /proc/sys/fs/binfmt_misc/qemu-i386; then
    echo "(i386 programs run under qemu emulation here: the -m32 table is not a measurement)"
  fi
  "$dir/bench/speed/speed_table" || echo "($arch: $dir/bench/speed/speed_table could not run here)"
done
