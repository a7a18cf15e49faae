#!/bin/sh
# The main job (make run): the example media server, tarnwick-mediaserver, on 127.0.0.1:9000
# sharing the sample folder the build writes (build/sample).
#
# It runs inside a private network namespace whose only interface is loopback, so its SSDP
# announcements can never reach a real network. Ctrl-C stops it (with its byebyes).
# Environment: BUILD_DIR (default build), TW_RUN_SECONDS (stop by itself after that many
# seconds; default: run until Ctrl-C).
set -eu
dir=${BUILD_DIR:-build}
bin=$dir/tarnwick-mediaserver
url=http://127.0.0.1:9000/

if [ "${TW_IN_NETNS:-}" != 1 ]; then
  if [ ! -x "$bin" ]; then
    echo "run-main: $bin is not built (make build)" >&2
    exit 1
  fi
  cat <<TXT
Tarnwick UPnP SDK - example media server

Starting tarnwick-mediaserver inside a private, loopback-only network namespace: it announces a
UPnP MediaServer over SSDP and serves the folder $dir/sample, but nothing it sends can leave
this machine's private namespace.

  Status page: $url   (device description: ${url}TMSDeviceDescription.xml)

The URL answers inside that namespace; the requests below show what a control point sees: a
Browse of the shared folder and a ranged fetch of one item. To open it in a browser on
this machine, or to serve a real network, run the binary yourself (see README.md, "The example
media server"):  $bin -ip 127.0.0.1 -folder $dir/sample

Press Ctrl-C to stop.
TXT
  exec sh scripts/netns-run.sh sh "$0" "$@"
fi

data=$(mktemp -d)
# Standard error repeats every log line (the Android log sink); standard output has them all.
"$bin" -ip 127.0.0.1 -httpport 9000 -folder "$dir/sample" -appdata "$data" 2> /dev/null &
server=$!
stop() {
  kill -INT "$server" 2> /dev/null || true
}
trap stop INT TERM

if command -v curl > /dev/null 2>&1; then
  i=0
  until curl -s -o /dev/null "${url}"; do
    i=$((i + 1))
    if [ $i -gt 50 ]; then echo "run-main: the server did not answer" >&2; break; fi
    sleep 0.1
  done
  python3 scripts/browse-demo.py "$url" || echo "run-main: the demonstration requests failed" >&2
  echo
  echo "---- the server answers; its log follows. Ctrl-C to stop."
fi

if [ -n "${TW_RUN_SECONDS:-}" ]; then
  (sleep "$TW_RUN_SECONDS" && kill -INT "$server" 2> /dev/null) &
fi
# wait returns early when a trapped signal arrives; then wait for the server's clean stop.
wait "$server" || wait "$server" || true
rm -rf "$data"
