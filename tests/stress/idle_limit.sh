#!/bin/sh
# Stress for the server's idle limit: tarnwick-mediaserver runs with -idletimeout 2 inside the
# private namespace; 300 connections that never send a byte and 50 kept-alive ones that make one
# request and go quiet must all be closed by the server within 5 s of going quiet, the server's
# thread count must climb with them and fall back afterwards, and a new client's request must be
# answered in under 5 ms all along. Prints the figures.
#
#   sh tests/stress/idle_limit.sh [BUILD_DIR]
#   exit 0 pass, 1 fail
set -eu
name=idle-limit
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib/common.sh"

head -c 1024 /dev/urandom > "$work/share/small.mp3"
start_server 19450 -ip 127.0.0.1 -idletimeout 2

python3 - "$port" "$server" << 'PY' || { server_tail; exit 1; }
import re, select, socket, statistics, sys, time

port, pid = int(sys.argv[1]), int(sys.argv[2])
SILENT, QUIET = 300, 50
LIMIT_S, CLOSE_WITHIN_S, LATENCY_MS = 2.0, 5.0, 5.0
REQUEST = b"GET /TMSDeviceDescription.xml HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"


def threads():
    with open("/proc/%d/status" % pid) as status:
        return int(re.search(r"^Threads:\s+(\d+)", status.read(), re.M).group(1))


def read_answer(sock):
    buffer = b""
    while b"\r\n\r\n" not in buffer:
        chunk = sock.recv(65536)
        if not chunk:
            raise SystemExit("idle-limit: connection closed before the answer")
        buffer += chunk
    head, body = buffer.split(b"\r\n\r\n", 1)
    if not head.startswith(b"HTTP/1.1 200"):
        raise SystemExit("idle-limit: unexpected answer %r" % head[:40])
    length = int(re.search(rb"(?i)\r\ncontent-length: *(\d+)", head).group(1))
    while len(body) < length:
        chunk = sock.recv(65536)
        if not chunk:
            raise SystemExit("idle-limit: connection closed inside the body")
        body += chunk


def latency_ms():
    """A new client: connect, one request, the whole answer."""
    started = time.perf_counter()
    with socket.create_connection(("127.0.0.1", port), timeout=2) as sock:
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        sock.sendall(REQUEST)
        read_answer(sock)
    return (time.perf_counter() - started) * 1000


def settled_threads(limit_s):
    """The thread count once it has stopped changing (probe workers gone), within limit_s."""
    deadline, last = time.time() + limit_s, threads()
    while time.time() < deadline:
        time.sleep(0.1)
        now = threads()
        if now == last:
            return now
        last = now
    return last


deadline = time.time() + 10
while True:
    try:
        latency_ms()
        break
    except OSError:
        if time.time() > deadline:
            raise SystemExit("idle-limit: the server did not come up")
        time.sleep(0.1)

idle_latencies = [latency_ms() for _ in range(20)]
before = settled_threads(2)

# sock -> [kind, time it went quiet, seconds until the server closed it or None]
held = {}
opening = time.time()
for _ in range(SILENT):
    sock = socket.create_connection(("127.0.0.1", port), timeout=2)
    held[sock] = ["silent", time.time(), None]
for _ in range(QUIET):
    sock = socket.create_connection(("127.0.0.1", port), timeout=2)
    sock.sendall(REQUEST)
    read_answer(sock)
    held[sock] = ["quiet", time.time(), None]
opened_s = time.time() - opening

poller = select.poll()
by_fd = {}
for sock in held:
    sock.setblocking(False)
    poller.register(sock, select.POLLIN)
    by_fd[sock.fileno()] = sock
peak = threads()
latencies, unexpected = [], 0
last_probe = 0.0
open_count = len(held)
give_up = time.time() + LIMIT_S + CLOSE_WITHIN_S + 3
while open_count > 0 and time.time() < give_up:
    for fd, _ in poller.poll(10):
        sock = by_fd[fd]
        try:
            data = sock.recv(4096)
        except BlockingIOError:
            continue
        except ConnectionError:
            data = b""
        if data:
            unexpected += 1
            continue
        held[sock][2] = time.time() - held[sock][1]
        poller.unregister(fd)
        open_count -= 1
    peak = max(peak, threads())
    if time.time() - last_probe >= 0.05:
        latencies.append(latency_ms())
        last_probe = time.time()

after = settled_threads(3)
for sock in held:
    sock.close()

closed = [entry[2] for entry in held.values() if entry[2] is not None]
failures = []
print("idle-limit: %d silent + %d kept-alive-then-quiet connections opened in %.2f s, "
      "server limit %.0f s" % (SILENT, QUIET, opened_s, LIMIT_S))
print("server threads: before %d, peak %d, after %d" % (before, peak, after))
for kind in ("silent", "quiet"):
    times = sorted(e[2] for e in held.values() if e[0] == kind and e[2] is not None)
    count = sum(1 for e in held.values() if e[0] == kind)
    if times:
        print("closed by the server (%s): %d of %d, after min %.3f / median %.3f / max %.3f s" %
              (kind, len(times), count, times[0], statistics.median(times), times[-1]))
    else:
        print("closed by the server (%s): 0 of %d" % (kind, count))
print("new client's request latency while idle: median %.2f ms, max %.2f ms (%d requests)" %
      (statistics.median(idle_latencies), max(idle_latencies), len(idle_latencies)))
if latencies:
    print("new client's request latency under load: median %.2f ms, max %.2f ms (%d requests)" %
          (statistics.median(latencies), max(latencies), len(latencies)))
if len(closed) != len(held):
    failures.append("%d connections still open" % (len(held) - len(closed)))
if closed and max(closed) > CLOSE_WITHIN_S:
    failures.append("a connection closed only after %.2f s" % max(closed))
if closed and min(closed) < LIMIT_S - 0.1:
    failures.append("a connection closed early, after %.2f s" % min(closed))
if unexpected:
    failures.append("%d held connections received bytes" % unexpected)
if not latencies or max(latencies) >= LATENCY_MS:
    failures.append("request latency reached %.2f ms" % max(latencies or [float("inf")]))
# The server runs a short-lived thread of its own now and then: the lower of the two settled
# counts is its base.
if peak < min(before, after) + SILENT + QUIET:
    failures.append("peak of %d threads: the held connections did not each get one" % peak)
if after > before:
    failures.append("%d threads left behind" % (after - before))
for failure in failures:
    print("FAIL: " + failure)
sys.exit(1 if failures else 0)
PY
echo "idle-limit: ok"
