#!/bin/sh
# Runs every fuzz target of a fuzz build for a few seconds each, with its seed corpus.
set -eu
dir=$1
secs=${2:-20}
found=0
for f in "$dir"/fuzz_*; do
  [ -x "$f" ] || continue
  found=1
  name=$(basename "$f")
  work="$dir/corpus/$name"
  mkdir -p "$work"
  seeds="fuzz/corpus/${name#fuzz_}"
  echo "== $name for ${secs}s"
  if [ -d "$seeds" ]; then
    "$f" -max_total_time="$secs" -max_len=4096 -timeout=10 "$work" "$seeds"
  else
    "$f" -max_total_time="$secs" -max_len=4096 -timeout=10 "$work"
  fi
done
[ $found -eq 1 ] || echo "no fuzz targets built"
