#!/usr/bin/env bash
# Measures what the tests catch: plants each fault of tests/planted_faults/
# (one small patch to the library each) in a copy of this tree, one at a
# time, builds the copy natively and runs its tests, and prints which test
# programs failed. Exits non-zero when a fault goes unnoticed, or when a
# patch no longer applies or builds (the code moved: refresh the patch).
#
# Usage: tools/fault_check.sh [-v] [work-dir] [fault-name...]
#   -v          also name the failing test cases
#   work-dir    where the copy and its build live (default
#               /tmp/corvex-fault-check); kept between runs, so later runs
#               rebuild only what changed
#   fault-name  check only these faults (file names without .patch)
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
faults_dir=$root/tests/planted_faults
verbose=0
if [ "${1:-}" = "-v" ]; then verbose=1; shift; fi
work=${1:-/tmp/corvex-fault-check}
shift || true
src=$work/src
build=$work/build
logs=$work/logs
jobs=$(nproc)
mkdir -p "$src" "$build" "$logs"
# shellcheck source=tools/packages.sh
source "$root/tools/packages.sh"
install_missing_packages "${corvex_packages_tests[@]}" patch

# ---- the copy: every file git knows of (committed or not, ignored excluded) --
tree_files() { (cd "$root" && git ls-files -co --exclude-standard | while read -r f; do [ -f "$f" ] && echo "$f"; done); }

# Copies what differs and drops what is gone; unchanged files keep their
# times, so the build stays incremental.
sync_copy() {
  local files f
  files=$(tree_files)
  while read -r f; do
    if ! cmp -s "$root/$f" "$src/$f"; then
      mkdir -p "$src/$(dirname "$f")"
      cp "$root/$f" "$src/$f"
    fi
  done <<<"$files"
  (cd "$src" && find . -type f | sed 's|^\./||' | grep -vxF -f <(echo "$files") | xargs -r rm -f)
}

# The files a patch touches, as paths under the tree.
patched_files() { sed -n 's|^+++ b/\([^[:space:]]*\).*|\1|p' "$1"; }

restore() {
  local f
  for f in $(patched_files "$1"); do cp "$root/$f" "$src/$f"; done
}

build_copy() { cmake --build "$build" -j "$jobs" >"$1" 2>&1; }

# Runs the tests; prints the names of the failed ones (none: all passed).
# Installing and packaging are checks that no library fault can change.
failed_tests() {
  (cd "$build" && ctest -j "$jobs" --timeout 120 -E '^(install_and_consume|packages_unpacked)$' --output-on-failure) >"$1" 2>&1
  awk '/The following tests FAILED:/ { listed = 1; next } listed && $2 == "-" { print $3 }' "$1" | sort -u | tr '\n' ' '
}

failed_cases() { grep -o '\[  FAILED  \] [A-Za-z0-9_/.]*\.[A-Za-z0-9_/]*' "$1" | sed 's/.*\] //' | sort -u | tr '\n' ' '; }

sync_copy
echo "== configuring and building the unchanged tree in $work"
cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$logs/configure.log" 2>&1 \
  || { cat "$logs/configure.log"; exit 2; }
build_copy "$logs/baseline-build.log" || { tail -40 "$logs/baseline-build.log"; exit 2; }
baseline=$(failed_tests "$logs/baseline-test.log")
if [ -n "$baseline" ]; then
  echo "the unchanged tree fails: $baseline(see $logs/baseline-test.log)"
  exit 2
fi

if [ $# -gt 0 ]; then
  patches=()
  for name in "$@"; do patches+=("$faults_dir/$name.patch"); done
else
  patches=("$faults_dir"/*.patch)
fi

total=0 caught=0 survived=() stale=()
for patch in "${patches[@]}"; do
  name=$(basename "$patch" .patch)
  total=$((total + 1))
  if [ ! -f "$patch" ] || ! patch -d "$src" -p1 -F0 -N --dry-run -s <"$patch" >/dev/null 2>&1; then
    echo "$name: DOES NOT APPLY"
    stale+=("$name")
    continue
  fi
  patch -d "$src" -p1 -F0 -N -s <"$patch"
  if ! build_copy "$logs/$name-build.log"; then
    echo "$name: DOES NOT BUILD (see $logs/$name-build.log)"
    stale+=("$name")
  else
    failed=$(failed_tests "$logs/$name-test.log")
    if [ -z "$failed" ]; then
      echo "$name: NOT CAUGHT"
      survived+=("$name")
    else
      echo "$name: caught by $failed"
      [ $verbose = 1 ] && echo "    $(failed_cases "$logs/$name-test.log")"
      caught=$((caught + 1))
    fi
  fi
  restore "$patch"
done
# Leave the copy built as the tree is, for the next run.
build_copy "$logs/restore-build.log" || true

if [ ${#survived[@]} -eq 0 ] && [ ${#stale[@]} -eq 0 ]; then
  echo "fault check: all $total planted faults caught"
  exit 0
fi
echo "fault check: $caught of $total planted faults caught;" \
     "survived: ${survived[*]:-none}; to refresh: ${stale[*]:-none}"
exit 1
