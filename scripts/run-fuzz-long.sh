#!/bin/sh
# A longer fuzzing campaign: runs each fuzz target of a fuzz build for a given time (default
# 600 s), then merges what it found into the target's seed corpus fuzz/corpus/<name without
# fuzz_>, keeping only inputs that add coverage (libFuzzer's -merge=1). Prints per target the
# executions, the final coverage (cov: edges, ft: features), the seeds added and the findings
# (crash-, leak-, timeout-, oom- files, kept in <build>/fuzz-findings/<target>/).
#   sh scripts/run-fuzz-long.sh <build dir> [seconds] [target...]
# With no targets every fuzz_* program of the build runs. Exits 1 when any target found something.
# Run from the source root. The seed corpora change: review and commit the new files.
set -eu
dir=$1
secs=${2:-600}
if [ $# -ge 2 ]; then shift 2; else shift $#; fi
targets=""
if [ $# -gt 0 ]; then
  for t in "$@"; do targets="$targets $dir/$t"; done
else
  targets=$(ls -d "$dir"/fuzz_* 2>/dev/null || true)
fi

summary=""
failed=0
found=0
for f in $targets; do
  if [ ! -f "$f" ] || [ ! -x "$f" ]; then
    echo "no fuzz target $f"
    failed=1
    continue
  fi
  found=1
  name=$(basename "$f")
  work="$dir/corpus/$name"
  seeds="fuzz/corpus/${name#fuzz_}"
  findings="$dir/fuzz-findings/$name"
  logs="$dir/fuzz-logs"
  mkdir -p "$work" "$seeds" "$findings" "$logs"
  stamp="$logs/$name.start"
  : >"$stamp"
  before=$(find "$seeds" -type f | wc -l)

  echo "== $name for ${secs}s (log: $logs/$name.log)"
  rc=0
  "$f" -max_total_time="$secs" -max_len=4096 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$findings/" "$work" "$seeds" >"$logs/$name.log" 2>&1 || rc=$?

  # The executions from the final statistics (the last status line when the run was cut short);
  # cov and ft from the last status line.
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$logs/$name.log" | tail -n 1)
  last=$(grep -E '^#[0-9]+' "$logs/$name.log" | tail -n 1 || true)
  [ -n "$execs" ] || execs=$(printf '%s\n' "$last" | sed -n 's/^#\([0-9]*\).*/\1/p')
  cov=$(printf '%s\n' "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
  ft=$(printf '%s\n' "$last" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
  hits=$(find "$findings" -type f -newer "$stamp" \
    \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \) | sort)

  echo "== $name: merging new inputs into $seeds"
  "$f" -merge=1 -max_len=4096 -timeout=10 "$seeds" "$work" >"$logs/$name.merge.log" 2>&1 ||
    echo "   merge failed, see $logs/$name.merge.log"
  added=$(($(find "$seeds" -type f | wc -l) - before))
  # "MERGE-OUTER: 3 new files with 9 new features added; 2 new coverage edges"
  gained=$(sed -n 's/^MERGE-OUTER: .* with \([0-9]*\) new features added; \([0-9]*\) new coverage.*/+\1 ft +\2 cov/p' \
    "$logs/$name.merge.log" | tail -n 1)

  nhits=0
  [ -z "$hits" ] || nhits=$(printf '%s\n' "$hits" | wc -l)
  line=$(printf '%-20s execs %-10s cov %-6s ft %-7s new seeds %-5s (%s) findings %s' "$name" \
    "${execs:-?}" "${cov:-?}" "${ft:-?}" "$added" "${gained:-+0 ft +0 cov}" "$nhits")
  summary="$summary$line
"
  if [ "$nhits" -gt 0 ] || [ "$rc" -ne 0 ]; then
    failed=1
    printf '%s\n' "$hits" | sed '/^$/d; s/^/   finding: /'
    [ "$nhits" -gt 0 ] || echo "   $name ended with status $rc, see $logs/$name.log"
  fi
  rm -f "$stamp"
done

[ $found -eq 1 ] || echo "no fuzz targets built"
echo "== summary (${secs}s per target)"
printf '%s' "$summary"
exit $failed
