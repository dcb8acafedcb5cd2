#!/usr/bin/env bash
# The long run: the heap and packet stress tests at a large scale (native
# x86-64, the internal invariants asserted) and every fuzz target for
# longer than the test command gives it (clang, AddressSanitizer +
# UndefinedBehaviorSanitizer). Prints what each ran and how long it took;
# fails when anything fails. New fuzz inputs stay in the build tree.
# Usage: tools/long_run.sh [SCALE [FUZZ_SECONDS]]   (defaults: 100 and 60:
#   6,000,000 heap and 8,000,000 packet operations, a minute per fuzzer)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
scale=${1:-100}
seconds=${2:-60}
# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages "${corvex_packages_tests[@]}" clang libclang-rt-14-dev

native=$root/build/long-x86_64
fuzz=$root/build/long-fuzz
mkdir -p "$root/build"
echo "== build"
cmake -S "$root" -B "$native" -G Ninja -DCORVEX_INVARIANTS=ON >"$native.configure.log" 2>&1 \
  || { cat "$native.configure.log"; exit 1; }
cmake --build "$native" --target test_heap_stress test_packet_stress
cmake -S "$root" -B "$fuzz" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVEX_INVARIANTS=ON \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCORVEX_FUZZ=ON -DCORVEX_TESTS=OFF \
  -DCORVEX_FUZZ_SECONDS="$seconds" >"$fuzz.configure.log" 2>&1 || { cat "$fuzz.configure.log"; exit 1; }
cmake --build "$fuzz"

timed() {
  local what=$1 start=$SECONDS; shift
  "$@" >"$native/long_run.$what.log" 2>&1 || { cat "$native/long_run.$what.log"; echo "== $what FAILED"; exit 1; }
  echo "== $what: passed in $((SECONDS - start)) s"
}
echo "== stress, scale $scale"
export CORVEX_STRESS_SCALE=$scale
timed heap_stress "$native/tests/heap/test_heap_stress"
timed packet_stress "$native/tests/packet/test_packet_stress"

echo "== fuzz targets, $seconds s each"
start=$SECONDS
(cd "$fuzz" && ctest -L fuzz -V --timeout $((seconds + 280))) >"$fuzz/long_run.log" 2>&1 \
  || { cat "$fuzz/long_run.log"; echo "== fuzz FAILED"; exit 1; }
# libFuzzer's closing line of each target, after ctest's test-number prefix.
sed -n 's/^[0-9]*: Test command: .*\/\(fuzz_[a-z0-9_]*\) .*/\1/p; s/^[0-9]*: \(Done [0-9]* runs in [0-9]* second(s)\)/  \1/p' \
  "$fuzz/long_run.log"
echo "== fuzz targets: passed in $((SECONDS - start)) s"
