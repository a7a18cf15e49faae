#!/bin/sh
# The shared library exports exactly the names in scripts/exports.txt, and every TW_API name
# declared in the public headers is in that list.
set -eu
lib=$1
root=$2
list=$root/scripts/exports.txt
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
grep -E '^[A-Za-z_][A-Za-z0-9_]*$' "$list" | sort -u > "$tmp/expected"
nm -D --defined-only "$lib" | awk '{print $NF}' | grep -v '^_init$\|^_fini$' | sed 's/@.*//' | sort -u > "$tmp/actual"
# Names declared with TW_API: the identifier just before the first '(' or the declared global.
sed -n '/TW_API/,/;/p' "$root"/include/tarnwick/*.h | tr '\n' ' ' | tr ';' '\n' |
  grep 'TW_API' | sed -E 's/\(.*//; s/\[.*//; s/[[:space:]]+$//; s/.*[^A-Za-z0-9_]//' |
  grep -E '^[A-Za-z_]' | sort -u > "$tmp/declared"
status=0
if ! diff -u "$tmp/expected" "$tmp/actual" > "$tmp/diff1"; then
  echo "exported symbols differ from scripts/exports.txt (- listed only, + exported only):"
  cat "$tmp/diff1"
  status=1
fi
missing=$(comm -23 "$tmp/declared" "$tmp/expected")
if [ -n "$missing" ]; then
  echo "declared with TW_API but missing from scripts/exports.txt:"
  echo "$missing"
  status=1
fi
[ $status -eq 0 ] && echo "exports: $(wc -l < "$tmp/actual") names match"
exit $status
