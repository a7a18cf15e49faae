#!/bin/sh
# Fails when a C or C++ file of the repository differs from what .clang-format makes of it.
# clang-format 14 is the pinned formatter: other versions break lines differently.
set -eu
cd "$(dirname "$0")/.."
fmt=$(command -v clang-format-14 || command -v clang-format || true)
if [ -z "$fmt" ]; then
  echo "check_format: clang-format-14 not found" >&2
  exit 1
fi
bad=$(git ls-files '*.c' '*.cpp' '*.h' | while read -r f; do
  "$fmt" --dry-run -Werror "$f" >/dev/null 2>&1 || echo "$f"
done)
if [ -n "$bad" ]; then
  echo "not formatted (run: make format):" >&2
  echo "$bad" >&2
  exit 1
fi
echo "check_format: every C and C++ file is formatted"
