#!/usr/bin/env bash
# Runs every test program of the suite under valgrind memcheck, in a native
# x86-64 build without sanitizers. Any memory error or definite or indirect
# leak fails the run; nothing of the library's is suppressed (the one entry
# of valgrind.supp is a test's own system call). Death tests re-run
# their binary in a child that dies on purpose: those children run without
# valgrind, their parents under it.
# Usage: tools/valgrind.sh [build-dir]      (default: ./build/valgrind)
# CORVEX_STRESS_SCALE lengthens the stress tests here as in any run.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
dir=$(realpath -m "${1:-$root/build/valgrind}")

# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages "${corvex_packages_tests[@]}" valgrind

mkdir -p "$(dirname "$dir")"
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$dir.configure.log" 2>&1 \
  || { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j "$(nproc)"

# The test programs ctest knows (scripts aside): name, directory, command.
mapfile -t tests < <(cd "$dir" && ctest --show-only=json-v1 | python3 -c '
import json, sys
for test in json.load(sys.stdin)["tests"]:
    command = test.get("command") or []
    if command and command[0].startswith(sys.argv[1] + "/tests/") and not command[0].endswith(".sh"):
        workdir = next((p["value"] for p in test.get("properties", []) if p["name"] == "WORKING_DIRECTORY"),
                       sys.argv[1])
        print("\t".join([test["name"], workdir, " ".join(command)]))
' "$dir")

# Requests of impossible sizes are refused by glibc but reported by valgrind
# as fishy arguments, as by the sanitizers: that one test is left out.
export GTEST_FILTER=-AllocationWrappers.FailureIsANullResult

failed=()
for entry in "${tests[@]}"; do
  IFS=$'\t' read -r name workdir command <<<"$entry"
  echo "== valgrind: $name"
  # shellcheck disable=SC2086
  if ! (cd "$workdir" && valgrind --quiet --error-exitcode=99 --leak-check=full \
          --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
          --track-origins=yes --suppressions="$root/tools/valgrind.supp" $command >"$dir/$name.valgrind.log" 2>&1); then
    tail -n 60 "$dir/$name.valgrind.log"
    failed+=("$name")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "valgrind found errors in: ${failed[*]} (logs in $dir/*.valgrind.log)" >&2
  exit 1
fi
echo "== valgrind: ${#tests[@]} test binaries clean"
