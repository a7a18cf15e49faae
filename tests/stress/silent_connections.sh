#!/bin/sh
# What silent connections cost without the idle limit: 2000 connections that never send a byte
# are opened to tarnwick-mediaserver inside the private namespace. Each one holds a worker thread
# (the design: a thread per connection, no server-side time-out by default). Prints the server's
# threads and resident memory per connection, checks that a new client is still served while
# they are open, and that the threads are gone once the peers close.
#
#   sh tests/stress/silent_connections.sh [BUILD_DIR]
#   exit 0 pass, 1 fail
set -eu
name=silent-connections
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib/common.sh"
ulimit -n 8192

head -c 1024 /dev/urandom > "$work/share/small.mp3"
start_server 19460 -ip 127.0.0.1

python3 - "$port" "$server" << 'PY' || { server_tail; exit 1; }
import re, socket, sys, time

port, pid = int(sys.argv[1]), int(sys.argv[2])
COUNT = 2000
REQUEST = b"GET /TMSDeviceDescription.xml HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n"


def status(field):
    with open("/proc/%d/status" % pid) as text:
        return int(re.search(r"^%s:\s+(\d+)" % field, text.read(), re.M).group(1))


def served_in_ms():
    started = time.monotonic()
    with socket.create_connection(("127.0.0.1", port), timeout=5) as sock:
        sock.sendall(REQUEST)
        answer = b""
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                break
            answer += chunk
    if not answer.startswith(b"HTTP/1.1 200"):
        raise SystemExit("silent-connections: a new client was not served")
    return (time.monotonic() - started) * 1000


deadline = time.monotonic() + 20
while True:
    try:
        served_in_ms()
        break
    except OSError:
        if time.monotonic() > deadline:
            raise SystemExit("silent-connections: the server did not come up")
        time.sleep(0.1)
time.sleep(0.5)
threads_before, rss_before = status("Threads"), status("VmRSS")
silent = []
started = time.monotonic()
for _ in range(COUNT):
    silent.append(socket.create_connection(("127.0.0.1", port), timeout=10))
opened = time.monotonic() - started
deadline = time.monotonic() + 30
while status("Threads") < threads_before + COUNT and time.monotonic() < deadline:
    time.sleep(0.2)
threads_held, rss_held = status("Threads"), status("VmRSS")
latency = max(served_in_ms() for _ in range(10))
for sock in silent:
    sock.close()
deadline = time.monotonic() + 30
while status("Threads") > threads_before + 5 and time.monotonic() < deadline:
    time.sleep(0.2)
time.sleep(1)
threads_after, rss_after = status("Threads"), status("VmRSS")
print("silent-connections: %d opened in %.2f s; threads %d before, %d held, %d after"
      % (COUNT, opened, threads_before, threads_held, threads_after))
print("resident memory: %d KiB before, %d KiB held (%.1f KiB per connection), %d KiB after"
      % (rss_before, rss_held, (rss_held - rss_before) / COUNT, rss_after))
print("a new client meanwhile: served in %.2f ms at most (10 requests)" % latency)
if threads_held < threads_before + COUNT:
    raise SystemExit("silent-connections: only %d threads for %d connections"
                     % (threads_held - threads_before, COUNT))
if threads_after > threads_before + 5:
    raise SystemExit("silent-connections: %d threads still there" % threads_after)
PY
echo "silent-connections: ok"
