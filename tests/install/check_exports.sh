#!/usr/bin/env bash
# The shared library exports exactly the functions declared with XKL_API in
# the public headers: nothing missing, nothing extra.
# usage: check_exports.sh <include dir> <shared library>
set -euo pipefail
include_dir=$1
library=$2

declared=$(mktemp); exported=$(mktemp)
trap 'rm -f "$declared" "$exported"' EXIT

# Declarations may span lines; join each file and cut it at semicolons so that
# every declaration is on one line, then take the name before the "(".
# Comments are removed first; the export header only defines the macro.
for header in $(find "$include_dir" -name '*.h' ! -name 'xkl_export.h'); do
  tr '\n' ' ' < "$header" | sed -E 's:/\*([^*]|\*+[^*/])*\*+/: :g' | tr ';' '\n' \
    | { grep -E '(^|[^A-Za-z_])XKL_API[[:space:]]' || true; } \
    | sed -E 's/^.*XKL_API[[:space:]]+//' \
    | sed -E 's/^([^(]*[^A-Za-z0-9_(])?([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*\(.*$/\2/'
done | sort -u > "$declared"

nm -D --defined-only "$library" | awk 'NF == 3 && $2 ~ /^[TWiDBRV]$/ { print $3 }' \
  | sed -E 's/@.*$//' | grep -v -E '^(_init|_fini|_edata|_end|__bss_start)$' | sort -u > "$exported"

status=0
missing=$(comm -23 "$declared" "$exported")
extra=$(comm -13 "$declared" "$exported")
if [ -n "$missing" ]; then
  echo "declared but not exported:"; echo "$missing" | sed 's/^/  /'; status=1
fi
if [ -n "$extra" ]; then
  echo "exported but not declared:"; echo "$extra" | sed 's/^/  /'; status=1
fi
echo "$(wc -l < "$declared") functions declared, $(wc -l < "$exported") exported"
exit $status
