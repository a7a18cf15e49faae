#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Browse speed: BrowseDirectChildren of one folder of 1000 small tracks, answered by the example
# server (tarnwick-mediaserver) and by MiniDLNA sharing the same folder, both on loopback inside
# the private namespace. Median over BENCH_RUNS runs (default 100) of the whole folder: our
# server is asked for everything at once (RequestedCount 0); where a server caps its answers,
# the run pages on from the next StartingIndex and the line says how many requests it took.
# Usage: sh bench/browse_bench.sh [BUILD_DIR]   (default build-bench; make bench runs it)
# Environment: BENCH_RUNS (default 100), BENCH_FILES (default 1000).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
dir=$(cd "${1:-build-bench}" && pwd)
runs=${BENCH_RUNS:-100}
files=${BENCH_FILES:-1000}
if [ "${TW_IN_NETNS:-}" != 1 ]; then
  exec sh "$root/scripts/netns-run.sh" sh "$0" "$dir"
fi

tmp=$(mktemp -d)
tw_pid=
dlna_pid=
cleanup() {
  [ -n "$tw_pid" ] && kill "$tw_pid" 2> /dev/null || true
  [ -n "$dlna_pid" ] && kill "$dlna_pid" 2> /dev/null || true
  wait 2> /dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT INT TERM

# One tiny track copied: the servers' work per entry, not the scanner's, is what is timed.
mkdir -p "$tmp/share/Bench" "$tmp/data" "$tmp/db"
if command -v ffmpeg > /dev/null 2>&1; then
  ffmpeg -hide_banner -loglevel error -nostdin -f lavfi -i sine=frequency=440:duration=0.2 \
    "$tmp/one.mp3"
  ext=mp3
else
  python3 -c 'import sys, wave; w = wave.open(sys.argv[1], "wb"); w.setnchannels(1); w.setsampwidth(2); w.setframerate(8000); w.writeframes(bytes(3200)); w.close()' "$tmp/one.wav"
  ext=wav
fi
i=0
while [ $i -lt "$files" ]; do
  cp "$tmp/one.$ext" "$tmp/share/Bench/track $(printf %04d $i).$ext"
  i=$((i + 1))
done

bench() { python3 "$here/browse_bench.py" --folder Bench --expect "$files" --runs "$runs" "$@"; }
echo "Browse of a folder of $files tracks (BrowseDirectChildren, RequestedCount 0), median of $runs runs"

tw_line=""
if [ -x "$dir/tarnwick-mediaserver" ]; then
  # Standard error repeats every log line of standard output (the Android log sink).
  "$dir/tarnwick-mediaserver" -ip 127.0.0.1 -httpport 19440 -folder "$tmp/share" \
    -appdata "$tmp/data" -friendlyname "Tarnwick browse bench" > "$tmp/tw.out" 2> /dev/null &
  tw_pid=$!
  i=0
  until grep -q "mediaserver: status page http://" "$tmp/tw.out"; do
    i=$((i + 1))
    [ $i -le 50 ] || { echo "  tarnwick: the server did not come up"; break; }
    sleep 0.1
  done
  tw_line=$(bench --name tarnwick --wait 20 \
    --description http://127.0.0.1:19440/TMSDeviceDescription.xml) || true
  kill "$tw_pid" 2> /dev/null || true
  wait "$tw_pid" 2> /dev/null || true
  tw_pid=
else
  tw_line="tarnwick FAILED $dir/tarnwick-mediaserver not built"
fi

dlna_line=""
daemon=$(command -v minidlnad || true)
[ -z "$daemon" ] && [ -x /usr/sbin/minidlnad ] && daemon=/usr/sbin/minidlnad
if [ -n "$daemon" ]; then
  cat > "$tmp/minidlna.conf" << CONF
port=8204
network_interface=lo
media_dir=A,$tmp/share
db_dir=$tmp/db
log_dir=$tmp
friendly_name=Browse bench reference
inotify=no
CONF
  "$daemon" -S -R -f "$tmp/minidlna.conf" -P "$tmp/minidlna.pid" > "$tmp/dlna.out" 2>&1 &
  dlna_pid=$!
  # Its scan runs after start-up; the client waits (60 s at most) until the folder is complete.
  dlna_line=$(bench --name minidlna --wait 60 --description http://127.0.0.1:8204/rootDesc.xml) ||
    true
else
  dlna_line="minidlna FAILED minidlnad not installed"
fi

python3 - "$tw_line" "$dlna_line" << 'PY'
import sys
def fields(line):
    name, _, rest = line.partition(" ")
    if rest.startswith("FAILED"):
        return name, None, rest[len("FAILED "):]
    return name, dict(f.split("=") for f in rest.split()), None
rows = [fields(line) for line in sys.argv[1:] if line]
for name, f, why in rows:
    if f is None:
        print(f"  {name:9s} not measured: {why}")
        continue
    paging = (f" in {f['requests_per_run']} requests of at most {f['per_request']} (it caps each answer)"
              if int(f["requests_per_run"]) > 1 else " in one request")
    print(f"  {name:9s} median {float(f['median_ms']):8.2f} ms  (min {float(f['min_ms']):.2f}, "
          f"max {float(f['max_ms']):.2f}; {f['items']} items{paging}, "
          f"{int(f['bytes_per_run']) // 1024} KiB of SOAP per run)")
got = {name: f for name, f, _ in rows if f is not None}
if "tarnwick" in got and "minidlna" in got:
    ratio = float(got["minidlna"]["median_ms"]) / float(got["tarnwick"]["median_ms"])
    print(f"  ratio minidlna/tarnwick {ratio:.2f} (above 1: tarnwick answers faster)")
PY
