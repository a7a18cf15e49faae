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
# Names declared with TW_API: comments stripped, then per declaration (up to ';') the identifier
# before the first '(' (functions) or the last identifier before '[' / ';' (globals).
python3 - "$root"/include/tarnwick/*.h > "$tmp/declared" <<'PY'
import re, sys
names = set()
for path in sys.argv[1:]:
    text = open(path).read()
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"//[^\n]*", " ", text)
    text = re.sub(r"^\s*#[^\n]*", " ", text, flags=re.M)
    for decl in text.split(";"):
        if "TW_API" not in decl:
            continue
        decl = decl[decl.index("TW_API"):]
        m = re.search(r"\(\s*\*\s*([A-Za-z_]\w*)\s*\)", decl)  # function-pointer global
        if m and decl.find("(") == m.start():
            names.add(m.group(1)); continue
        head = decl.split("(")[0] if "(" in decl else decl.split("[")[0].split("=")[0]
        ids = re.findall(r"[A-Za-z_]\w*", head)
        if ids:
            names.add(ids[-1])
for n in sorted(names):
    print(n)
PY
sort -u -o "$tmp/declared" "$tmp/declared"
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
