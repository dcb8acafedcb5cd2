#!/usr/bin/env bash
# Builds everything and runs every test, on a fresh Debian machine too:
#   native x86-64, 32-bit (-m32), both again under AddressSanitizer +
#   UndefinedBehaviorSanitizer, the concurrent tests under ThreadSanitizer,
#   and the fuzz targets for a short bounded time. First of all, the tests
#   must stay a modest share of the code (tools/test_share.sh).
# Usage: tools/check.sh [build-root]      (default: ./build)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
builds=${1:-$root/build}
jobs=$(nproc)

echo "== test share"
bash "$root/tools/test_share.sh"

# ---- what the machine needs ------------------------------------------------
packages=(cmake ninja-build g++ gcc-multilib g++-multilib googletest libbenchmark-dev
          pkg-config clang libclang-rt-14-dev libreadline-dev zlib1g-dev libjudy-dev binutils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "== installing: ${missing[*]}"
  sudo=""; [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# ---- one configuration: configure, build, test -------------------------------
# run NAME CTEST_ARGS -- CMAKE_ARGS...
run() {
  local name=$1 ctest_args=$2; shift 3
  local dir=$builds/$name
  echo "== $name: build"
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >"$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j "$jobs"
  echo "== $name: test"
  # shellcheck disable=SC2086
  (cd "$dir" && ctest --output-on-failure -j "$jobs" $ctest_args)
}

mkdir -p "$builds"
m32=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-m32.cmake")
asan=(-DCORVEX_SANITIZE=address,undefined)
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

run x86_64        ""                 -- -DCORVEX_BENCH=ON
run i386          ""                 -- "${m32[@]}"
run x86_64-asan   ""                 -- "${asan[@]}"
run i386-asan     ""                 -- "${m32[@]}" "${asan[@]}"
# ThreadSanitizer exists for 64-bit processes only.
run x86_64-tsan   "-L concurrency"   -- -DCORVEX_SANITIZE=thread
if [ -d "$root/tests/fuzz" ]; then
  run fuzz        "-L fuzz"          -- -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
                                        -DCORVEX_FUZZ=ON -DCORVEX_TESTS=OFF
fi
echo "== all configurations passed"
