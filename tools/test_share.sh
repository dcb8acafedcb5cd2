#!/usr/bin/env bash
# Prints how many lines the tests take against the rest of the code, and
# fails when the tests exceed 40% of it. Counted over the files git lists
# with the extensions .c .cc .cpp .h .hpp .py .sh .cmake and the files
# named CMakeLists.txt; test lines are those under a tests/ folder.
# Usage: tools/test_share.sh [limit-percent]      (default: 40)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
limit=${1:-40}

cd "$root"
git ls-files -z | xargs -0 -r wc -l 2>/dev/null | awk -v limit="$limit" '
  $2 == "total" { next }
  $2 ~ /\.(c|cc|cpp|h|hpp|py|sh|cmake)$/ || $2 ~ /(^|\/)CMakeLists\.txt$/ {
    if ($2 ~ /(^|\/)tests\//) tests += $1; else code += $1
  }
  END {
    share = code > 0 ? 100 * tests / code : 0
    printf "test lines: %d, other lines: %d, share: %.1f%% (limit %d%%)\n", tests, code, share, limit
    exit share > limit ? 1 : 0
  }'
