#!/usr/bin/env bash
# Compares the dynamic symbols that a library defines with the allowed list
# (every *.txt under the exports folder, one name a line, # comments).
set -euo pipefail
lib=$1 lists=$2
allowed=$(cat "$lists"/*.txt | sed 's/#.*//' | awk 'NF {print $1}' | sort -u)
# Linker-made markers and AddressSanitizer's ODR markers are not part of the interface.
defined=$(nm -D --defined-only "$lib" | awk '{print $3}' \
  | grep -vxE '_init|_fini|_edata|_end|__bss_start|__odr_asan\..*' | sed 's/@.*//' | sort -u)
extra=$(comm -13 <(echo "$allowed") <(echo "$defined"))
missing=$(comm -23 <(echo "$allowed") <(echo "$defined"))
status=0
if [ -n "$extra" ]; then
  echo "exported but not part of the interface:"; echo "$extra"; status=1
fi
if [ -n "$missing" ]; then
  echo "part of the interface but not exported:"; echo "$missing"; status=1
fi
[ $status = 0 ] && echo "$(echo "$defined" | wc -l) exported names, all of them the interface"
exit $status
