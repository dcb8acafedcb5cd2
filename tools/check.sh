#!/usr/bin/env bash
# Builds everything and runs every test, on a fresh Debian machine too:
#   native x86-64, 32-bit (-m32), both again under AddressSanitizer +
#   UndefinedBehaviorSanitizer, the concurrent tests under ThreadSanitizer,
#   and the fuzz targets for a short bounded time, native and -m32; every configuration
#   asserts the heaps' and sheaves' internal invariants (CORVEX_INVARIANTS)
#   and treats compiler warnings as errors (CORVEX_WERROR).
#   First of all, the tests must stay a modest share of the code
#   (tools/test_share.sh).
# Usage: tools/check.sh [build-root]      (default: ./build)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
builds=${1:-$root/build}
jobs=$(nproc)

echo "== test share"
bash "$root/tools/test_share.sh"

# ---- what the machine needs ------------------------------------------------
# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages "${corvex_packages_all[@]}"

ASAN_OPTIONS_ALL=detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=1
export ASAN_OPTIONS=$ASAN_OPTIONS_ALL

# ---- 32-bit programs ----------------------------------------------------------
# The -m32 builds run their tests here. Kernels built without IA-32 emulation
# cannot start i386 programs; there qemu's user-mode emulator runs them,
# registered with binfmt_misc so that every way of starting one works.
probe=$builds/i386-probe
mkdir -p "$builds"
# The probe prints the machine the kernel reports to it: "x86_64" when the
# kernel runs it natively, the emulated CPU ("i686") under qemu's user mode.
printf '%s\n' '#include <stdio.h>' '#include <sys/utsname.h>' \
  'int main(void) { struct utsname u; uname(&u); puts(u.machine); return 0; }' \
  | gcc -m32 -x c - -o "$probe"
if ! "$probe" >/dev/null 2>&1; then
  echo "== this kernel does not run i386 programs: registering qemu-i386"
  install_missing_packages qemu-user-static
  sudo=""; [ "$(id -u)" = 0 ] || sudo=sudo
  mountpoint -q /proc/sys/fs/binfmt_misc \
    || $sudo mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
  if [ ! -e /proc/sys/fs/binfmt_misc/qemu-i386 ]; then
    # ELF, 32-bit, little-endian, executable or shared object, machine 3 (i386).
    magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00'
    mask='\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    echo ":qemu-i386:M::$magic:$mask:/usr/bin/qemu-i386-static:F" | $sudo tee /proc/sys/fs/binfmt_misc/register >/dev/null
  fi
  "$probe" >/dev/null || { echo "error: cannot run 32-bit programs on this machine" >&2; exit 1; }
fi
i386_asan_options=$ASAN_OPTIONS_ALL
if [ "$("$probe")" != x86_64 ]; then
  # Emulated (registered here or by anyone before): LeakSanitizer stops the
  # world with ptrace, which qemu's user mode does not offer, so its leak
  # check never ends. The x86-64 build still checks for leaks.
  echo "== i386 programs run under emulation: no leak check in the 32-bit sanitizer build"
  i386_asan_options=${ASAN_OPTIONS_ALL/detect_leaks=1/detect_leaks=0}
fi

# ---- one configuration: configure, build, test -------------------------------
# A test that hangs fails after this many seconds instead of stalling the run.
test_timeout=900
# [GENERATOR=...] run NAME CTEST_ARGS -- CMAKE_ARGS...     (default generator: Ninja)
run() {
  local name=$1 ctest_args=$2; shift 3
  local dir=$builds/$name generator=${GENERATOR:-Ninja}
  echo "== $name: build ($generator)"
  cmake -S "$root" -B "$dir" -G "$generator" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVEX_INVARIANTS=ON \
    -DCORVEX_WERROR=ON "$@" >"$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j "$jobs"
  echo "== $name: test"
  # shellcheck disable=SC2086
  (cd "$dir" && ctest --output-on-failure --timeout "$test_timeout" -j "$jobs" $ctest_args)
}

m32=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-m32.cmake")
asan=(-DCORVEX_SANITIZE=address,undefined)

export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# The option combinations the README names that no build below makes
# configure as well (the fuzz targets beside the tests, benchmarks alone).
for combo in "-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCORVEX_FUZZ=ON" \
             "-DCORVEX_BENCH=ON -DCORVEX_TESTS=OFF"; do
  echo "== configures: $combo"
  # shellcheck disable=SC2086
  cmake -S "$root" -B "$builds/combination" $combo >"$builds/combination.log" 2>&1 \
    || { cat "$builds/combination.log"; exit 1; }
  rm -rf "$builds/combination"
done

run x86_64        ""                 -- -DCORVEX_BENCH=ON
# CMake's own default generator, as most people and packagers build.
GENERATOR="Unix Makefiles" \
run i386          ""                 -- "${m32[@]}" -DCORVEX_BENCH=ON
run x86_64-asan   ""                 -- "${asan[@]}"
ASAN_OPTIONS=$i386_asan_options \
run i386-asan     ""                 -- "${m32[@]}" "${asan[@]}"
# ThreadSanitizer exists for 64-bit processes only.
run x86_64-tsan   "-L concurrency"   -- -DCORVEX_SANITIZE=thread
if [ -d "$root/tests/fuzz" ]; then
  run fuzz        "-L fuzz"          -- -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
                                        -DCORVEX_FUZZ=ON -DCORVEX_TESTS=OFF
  # The target's own word size: clang -m32 with libFuzzer's i386 runtime.
  ASAN_OPTIONS=$i386_asan_options \
  run fuzz-i386   "-L fuzz"          -- "${m32[@]}" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
                                        -DCORVEX_FUZZ=ON -DCORVEX_TESTS=OFF
fi
echo "== all configurations passed"
