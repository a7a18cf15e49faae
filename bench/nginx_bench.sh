#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The example server (tarnwick-mediaserver) against nginx serving the same folder, both on
# loopback inside the private namespace: 1 KiB GETs over kept-alive connections (wrk, c1 to c256),
# a 256 MiB file streamed whole and from its middle over one connection, and the example's
# M-SEARCH answer time. Rounds are interleaved, each server going first in every other round, so
# drift on a shared machine falls on both; the table gives medians and the spread of the ratios.
# Usage: sh bench/nginx_bench.sh [BUILD_DIR]   (default build-bench; make bench runs it)
# Environment: ROUNDS (default 3), BENCH_SECONDS (default 5), SSDP_RUNS (default 50),
# BENCH_JSON (default BUILD_DIR/nginx_bench.json).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
dir=$(cd "${1:-build-bench}" && pwd)
rounds=${ROUNDS:-3}
seconds=${BENCH_SECONDS:-5}
ssdp_runs=${SSDP_RUNS:-50}
json=${BENCH_JSON:-$dir/nginx_bench.json}
if [ "${TW_IN_NETNS:-}" != 1 ]; then
  if [ ! -x "$dir/tarnwick-mediaserver" ]; then
    echo "nginx-bench: $dir/tarnwick-mediaserver not built" >&2
    exit 1
  fi
  if ! command -v wrk > /dev/null || ! command -v nginx > /dev/null; then
    # Installed outside the namespace: inside it there is no network.
    if [ "$(id -u)" = 0 ]; then
      DEBIAN_FRONTEND=noninteractive apt-get install -y -q wrk nginx > /dev/null
    else
      echo "nginx-bench: wrk and nginx are needed (apt-get install wrk nginx as root)" >&2
      exit 1
    fi
  fi
  exec sh "$root/scripts/netns-run.sh" sh "$0" "$dir"
fi

tmp=$(mktemp -d)
tw_pid=
nginx_pid=
cleanup() {
  for pid in $tw_pid $nginx_pid; do kill "$pid" 2> /dev/null || true; done
  wait 2> /dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT INT TERM
helper() { python3 "$here/nginx_bench.py" "$@"; }

# The big file is 256 MiB of random bytes; both servers read it from the page cache.
free_kib=$(df -Pk "$tmp" | awk 'NR == 2 {print $4}')
if [ "$free_kib" -lt 307200 ]; then
  echo "nginx-bench: $tmp has $((free_kib / 1024)) MiB free, 300 MiB needed (set TMPDIR)" >&2
  exit 1
fi
share=$tmp/share
mkdir -p "$share" "$tmp/data" "$tmp/logs"
head -c 1024 /dev/urandom > "$share/small.mp3"
head -c 268435456 /dev/urandom > "$share/big.mp4"
# c256 plus both servers' own descriptors; dash and bash both know ulimit -n.
# shellcheck disable=SC3045
ulimit -n 4096 2> /dev/null || true

tw_port=19460
nginx_port=19461
types=""
[ -f /etc/nginx/mime.types ] && types="include /etc/nginx/mime.types;"
# As a packaged nginx ships (sendfile, tcp_nopush), without logging per request.
cat > "$tmp/nginx.conf" << CONF
daemon off;
master_process on;
worker_processes auto;
user root root;
pid $tmp/nginx.pid;
error_log $tmp/logs/error.log warn;
events { worker_connections 1024; }
http {
  $types
  default_type application/octet-stream;
  sendfile on;
  tcp_nopush on;
  access_log off;
  keepalive_requests 100000000;
  keepalive_timeout 60s;
  client_body_temp_path $tmp/body;
  proxy_temp_path $tmp/proxy;
  fastcgi_temp_path $tmp/fastcgi;
  uwsgi_temp_path $tmp/uwsgi;
  scgi_temp_path $tmp/scgi;
  server {
    listen 127.0.0.1:$nginx_port;
    root $share;
  }
}
CONF
nginx -p "$tmp" -c "$tmp/nginx.conf" &
nginx_pid=$!
"$dir/tarnwick-mediaserver" -ip 127.0.0.1 -httpport $tw_port -folder "$share" \
  -appdata "$tmp/data" -friendlyname "nginx bench" > "$tmp/tw.out" 2> /dev/null &
tw_pid=$!
i=0
until grep -q "mediaserver: status page http://" "$tmp/tw.out"; do
  i=$((i + 1))
  [ $i -le 100 ] || { echo "nginx-bench: the example server did not come up" >&2; exit 1; }
  sleep 0.1
done

# The example's URLs as a control point finds them; nginx's by file name.
helper urls $tw_port small big > "$tmp/urls"
tw_small=$(sed -n 1p "$tmp/urls")
tw_big=$(sed -n 2p "$tmp/urls")
ng_small=http://127.0.0.1:$nginx_port/small.mp3
ng_big=http://127.0.0.1:$nginx_port/big.mp4
half=134217728
i=0
until helper check "$ng_small" "$share/small.mp3" 2> /dev/null; do
  i=$((i + 1))
  [ $i -le 50 ] || { echo "nginx-bench: nginx did not come up" >&2; cat "$tmp/logs/error.log" >&2; exit 1; }
  sleep 0.1
done
for url in "$tw_small" "$ng_small"; do helper check "$url" "$share/small.mp3"; done
for url in "$tw_big" "$ng_big"; do
  helper check "$url" "$share/big.mp4"
  helper check "$url" "$share/big.mp4" $half
done

# wrk's own summary, exact: duration (us), requests, bytes, then the error counts.
cat > "$tmp/summary.lua" << 'LUA'
done = function(s)
  io.write(string.format("SUMMARY %.6f %d %d %d %d %d %d %d\n", s.duration / 1e6, s.requests,
    s.bytes, s.errors.connect, s.errors.read, s.errors.write, s.errors.status, s.errors.timeout))
end
LUA
# measure WORKLOAD SERVER ROUND URL WRK-ARGS...: one line of $tmp/results.
measure() {
  workload=$1 server=$2 round=$3 url=$4
  shift 4
  wrk "$@" -d"${seconds}s" -s "$tmp/summary.lua" "$url" > "$tmp/wrk.out" 2>&1 || true
  line=$(awk '$1 == "SUMMARY" {$1 = ""; print}' "$tmp/wrk.out")
  if [ -z "$line" ]; then
    echo "nginx-bench: wrk failed on $server $workload:" >&2
    cat "$tmp/wrk.out" >&2
    exit 1
  fi
  echo "$workload $server $round$line" >> "$tmp/results"
}
url_of() { # url_of SERVER small|big
  case $1$2 in
    nginxsmall) echo "$ng_small" ;; nginxbig) echo "$ng_big" ;;
    twsmall) echo "$tw_small" ;; twbig) echo "$tw_big" ;;
  esac
}

: > "$tmp/results"
round=1
while [ $round -le "$rounds" ]; do
  order="nginx tw"
  [ $((round % 2)) = 0 ] && order="tw nginx"
  echo "nginx-bench: round $round of $rounds" >&2
  for c in 1 16 64 256; do
    threads=2
    [ $c = 1 ] && threads=1
    for server in $order; do
      measure "1_KiB_GET_c$c" "$server" "$round" "$(url_of "$server" small)" -t$threads -c$c
    done
  done
  for server in $order; do
    measure 256_MiB_full "$server" "$round" "$(url_of "$server" big)" -t1 -c1 --timeout 30s
  done
  for server in $order; do
    measure "256_MiB_ranged_(2nd_half)" "$server" "$round" "$(url_of "$server" big)" -t1 -c1 \
      --timeout 30s -H "Range: bytes=$half-"
  done
  round=$((round + 1))
done
helper ssdp "$ssdp_runs" 3 > "$tmp/ssdp.json"

cpu=$(awk -F': ' '/^model name/ {print $2; exit}' /proc/cpuinfo)
nginx_version=$(nginx -v 2>&1 | sed 's/^nginx version: //')
machine="$(nproc) CPUs ($cpu), Linux $(uname -r), $nginx_version, $(wrk --version 2>&1 | head -n 1 | cut -d' ' -f1-2)"
echo "nginx comparison (example host vs $nginx_version, same files, one namespace, $rounds interleaved rounds of $seconds s; ratio = ours / nginx, medians, spread min-max of the per-round ratios)"
helper table "$tmp/results" "$tmp/ssdp.json" "$json" "$machine"
echo "SSDP: answers go out from the listener thread as soon as the M-SEARCH is handled (no random wait within MX; MX only bounds how long a queued answer stays valid), each sent 3 times."
echo "Machine: $machine"
