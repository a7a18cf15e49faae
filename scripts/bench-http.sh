#!/bin/sh
# HTTP load test: the library's connection layer (bench/tw_http_bench, one handler answering a
# 1 KiB body) against nginx serving the same 1 KiB file, both on loopback inside the private
# namespace, measured with wrk over kept-alive connections.
# Usage: sh scripts/bench-http.sh [build-dir]   (default build-bench; make bench builds it)
# Environment: BENCH_SECONDS (default 10), BENCH_CONNECTIONS (default "16 64").
set -eu
dir=${1:-build-bench}
bin=$dir/bench/tw_http_bench
seconds=${BENCH_SECONDS:-10}
connections=${BENCH_CONNECTIONS:-16 64}

if [ "${TW_IN_NETNS:-}" != 1 ]; then
  if [ ! -x "$bin" ]; then
    echo "bench-http: $bin not found (build with -DTW_BUILD_BENCH=ON)" >&2
    exit 1
  fi
  if ! command -v wrk > /dev/null || ! command -v nginx > /dev/null; then
    # Installed outside the namespace: inside it there is no network.
    if [ "$(id -u)" = 0 ]; then
      DEBIAN_FRONTEND=noninteractive apt-get install -y -q wrk nginx > /dev/null
    else
      echo "bench-http: wrk and nginx are needed (apt-get install wrk nginx as root)" >&2
      exit 1
    fi
  fi
  exec sh scripts/netns-run.sh sh "$0" "$@"
fi

tmp=$(mktemp -d)
tw_pid=
id_pid=
nginx_pid=
cleanup() {
  [ -n "$tw_pid" ] && kill "$tw_pid" 2> /dev/null || true
  [ -n "$id_pid" ] && kill "$id_pid" 2> /dev/null || true
  [ -n "$nginx_pid" ] && kill "$nginx_pid" 2> /dev/null || true
  wait 2> /dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT INT TERM

tw_port=18080
nginx_port=18081
id_port=18082
mkdir -p "$tmp/www" "$tmp/logs"
head -c 1024 /dev/zero | tr '\0' 'x' > "$tmp/www/bench"
cat > "$tmp/nginx.conf" <<CONF
daemon off;
master_process on;
worker_processes auto;
user root root;
pid $tmp/nginx.pid;
error_log $tmp/logs/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  keepalive_requests 100000000;
  keepalive_timeout 60s;
  client_body_temp_path $tmp/body;
  proxy_temp_path $tmp/proxy;
  fastcgi_temp_path $tmp/fastcgi;
  uwsgi_temp_path $tmp/uwsgi;
  scgi_temp_path $tmp/scgi;
  default_type application/octet-stream;
  server {
    listen 127.0.0.1:$nginx_port;
    root $tmp/www;
  }
}
CONF
nginx -p "$tmp" -c "$tmp/nginx.conf" &
nginx_pid=$!
"$bin" serve $tw_port > "$tmp/tw.out" &
tw_pid=$!
# The same server with the shipped client-type table: every request is identified.
"$bin" serve $id_port resources/clients.db > "$tmp/tw_id.out" &
id_pid=$!

# Both must answer before measuring (bounded: 5 s).
ready() { wrk -t1 -c1 -d1s "$1" 2> /dev/null | grep -q 'Requests/sec'; }
i=0
until ready "http://127.0.0.1:$tw_port/bench" && ready "http://127.0.0.1:$nginx_port/bench" &&
  ready "http://127.0.0.1:$id_port/bench"; do
  i=$((i + 1))
  if [ $i -gt 5 ]; then echo "bench-http: servers did not come up" >&2; cat "$tmp/logs/error.log" >&2; exit 1; fi
done

rps() { wrk -t2 -c"$1" -d"${seconds}s" "$2" | awk '/Requests\/sec/ {print $2}'; }
echo "HTTP 1 KiB GET over kept-alive connections, wrk -t2 -d${seconds}s"
echo "  raw: handler sends a prebuilt response; send: handler answers through HTTP_send"
for c in $connections; do
  ng=$(rps "$c" "http://127.0.0.1:$nginx_port/bench")
  raw=$(rps "$c" "http://127.0.0.1:$tw_port/bench")
  full=$(rps "$c" "http://127.0.0.1:$tw_port/send")
  awk -v c="$c" -v raw="$raw" -v full="$full" -v ng="$ng" \
    'BEGIN { printf "  -c%-3d nginx %9.0f req/s   tarnwick raw %9.0f (%.2f)   tarnwick send %9.0f (%.2f)\n", c, ng, raw, raw / ng, full, full / ng }'
done
# Identification: the same small response with and without it, from a renderer-like client
# whose head carries a User-Agent and DLNA headers (the patterns are searched in all of them).
ua="User-Agent: Linux/3.10 DLNADOC/1.50 UPnP/1.0 ExampleRenderer/2.1"
for c in $connections; do
  plain=$(wrk -t2 -c"$c" -d"${seconds}s" -H "$ua" -H "getcontentFeatures.dlna.org: 1" \
    "http://127.0.0.1:$tw_port/send" | awk '/Requests\/sec/ {print $2}')
  ident=$(wrk -t2 -c"$c" -d"${seconds}s" -H "$ua" -H "getcontentFeatures.dlna.org: 1" \
    "http://127.0.0.1:$id_port/send" | awk '/Requests\/sec/ {print $2}')
  awk -v c="$c" -v a="$plain" -v b="$ident" \
    'BEGIN { printf "  -c%-3d identification: without %9.0f req/s   with %9.0f req/s   cost %.1f %%\n", c, a, b, 100 * (a - b) / a }'
done
kill -TERM "$tw_pid" "$id_pid"
wait "$tw_pid" || true
wait "$id_pid" || true
tw_pid=
id_pid=
echo "  tarnwick: $(tail -n 1 "$tmp/tw.out")"
echo "  tarnwick: $("$bin" idle 64)"
