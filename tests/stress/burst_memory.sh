#!/bin/sh
# A burst of 1000 kept-alive connections against tarnwick-mediaserver for 10 s, then two more of
# 3 s: every request must be answered whole and right, and once the connections are gone the
# server's resident memory must be back within 2 MiB of what it was idle, after each burst (so
# nothing grows from burst to burst) and with its threads back to the idle count. Requests
# alternate between a shared file (found through a Browse) and the device description. Prints
# the figures.
#
#   sh tests/stress/burst_memory.sh [BUILD_DIR]
#   exit 0 pass, 1 fail
set -eu
name=burst-memory
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib/common.sh"

ulimit -n 4096  # a thousand connections on each side
head -c 1024 /dev/urandom > "$work/share/small.mp3"
start_server 19490 -ip 127.0.0.1

python3 - "$port" "$server" "$work/share/small.mp3" << 'PY' || { server_tail; exit 1; }
import re, selectors, socket, sys, time

port, pid, media_file = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
CONNECTIONS, LIMIT_KIB = 1000, 2048
BROWSE = (b'<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/">'
          b'<s:Body><u:Browse xmlns:u="urn:schemas-upnp-org:service:ContentDirectory:1">'
          b"<ObjectID>0</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter>"
          b"<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria>"
          b"</SortCriteria></u:Browse></s:Body></s:Envelope>")


def fail(message):
    raise SystemExit("burst-memory: " + message)


def status(field):
    with open("/proc/%d/status" % pid) as f:
        return int(re.search(r"^%s:\s+(\d+)" % field, f.read(), re.M).group(1))


def settled(field, limit_s=10):
    """The value once it has not changed for a second."""
    deadline, last, since = time.monotonic() + limit_s, None, time.monotonic()
    while time.monotonic() < deadline:
        value = status(field)
        if value != last:
            last, since = value, time.monotonic()
        elif time.monotonic() - since >= 1.0:
            break
        time.sleep(0.1)
    return last


def exchange(request):
    with socket.create_connection(("127.0.0.1", port), timeout=5) as sock:
        sock.sendall(request)
        data = b""
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                return data
            data += chunk


deadline = time.monotonic() + 10
while True:
    try:
        socket.create_connection(("127.0.0.1", port), timeout=1).close()
        break
    except OSError:
        if time.monotonic() > deadline:
            fail("the server did not come up")
        time.sleep(0.05)
answer = exchange(b"POST /ContentDirectory/Control HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                  b'SOAPACTION: "urn:schemas-upnp-org:service:ContentDirectory:1#Browse"\r\n'
                  b"Content-Type: text/xml\r\nConnection: close\r\nContent-Length: %d\r\n\r\n"
                  % len(BROWSE) + BROWSE)
match = re.search(rb"http://127\.0\.0\.1:%d(/media/[^&<\"]+)" % port, answer)
if match is None:
    fail("no media URL in the Browse answer")
with open(media_file, "rb") as f:
    media = f.read()
description = exchange(b"GET /TMSDeviceDescription.xml HTTP/1.1\r\nHost: x\r\n"
                       b"Connection: close\r\n\r\n").split(b"\r\n\r\n", 1)[1]
targets = [(b"GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" % match.group(1), media),
           (b"GET /TMSDeviceDescription.xml HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", description)]


class Connection:
    def __init__(self, index):
        self.sock = socket.socket()
        self.sock.setblocking(False)
        self.sock.connect_ex(("127.0.0.1", port))
        self.turn, self.buffer, self.sent = index, b"", False

    def request(self):
        return targets[self.turn % 2]


def burst(seconds):
    """CONNECTIONS kept-alive connections, each with one request in flight at all times."""
    selector = selectors.DefaultSelector()
    connections = [Connection(i) for i in range(CONNECTIONS)]
    for c in connections:
        selector.register(c.sock, selectors.EVENT_WRITE, c)
    answers, errors, peak = 0, [], 0
    end = time.monotonic() + seconds
    while time.monotonic() < end and len(errors) < 10:
        for key, events in selector.select(timeout=0.5):
            c = key.data
            try:
                if not c.sent:
                    c.sock.sendall(c.request()[0])  # small: fits the empty send buffer
                    c.sent = True
                    selector.modify(c.sock, selectors.EVENT_READ, c)
                    continue
                chunk = c.sock.recv(65536)
            except OSError as e:
                errors.append("connection %s" % e)
                selector.unregister(c.sock)
                continue
            if not chunk:
                errors.append("closed by the server")
                selector.unregister(c.sock)
                continue
            c.buffer += chunk
            if b"\r\n\r\n" not in c.buffer:
                continue
            head, body = c.buffer.split(b"\r\n\r\n", 1)
            length = re.search(rb"(?i)\r\ncontent-length: *(\d+)", head)
            if length is None or len(body) < int(length.group(1)):
                continue
            if not head.startswith(b"HTTP/1.1 200") or body != c.request()[1]:
                errors.append("wrong answer %r" % head[:40])
            answers += 1
            c.turn, c.buffer, c.sent = c.turn + 1, b"", False
            selector.modify(c.sock, selectors.EVENT_WRITE, c)
        peak = max(peak, status("VmRSS"))
    for c in connections:
        c.sock.close()
    selector.close()
    if errors:
        fail("%d errors, first: %s" % (len(errors), errors[:3]))
    return answers, peak


time.sleep(1)
idle_rss, idle_threads = settled("VmRSS"), settled("Threads")
print("idle: %d KiB resident, %d threads" % (idle_rss, idle_threads))
worst = 0
for round_no, seconds in enumerate((10, 3, 3), 1):
    answers, peak = burst(seconds)
    threads = settled("Threads")
    time.sleep(1)
    after = settled("VmRSS")
    worst = max(worst, after - idle_rss)
    print("burst %d: %d connections for %d s, %d answers, no error; %d KiB at the peak, %d KiB "
          "after (%+d KiB), %d threads" % (round_no, CONNECTIONS, seconds, answers, peak, after,
                                           after - idle_rss, threads))
    if threads > idle_threads:
        fail("%d threads after the burst, %d idle" % (threads, idle_threads))
if worst > LIMIT_KIB:
    fail("resident memory %d KiB above idle after a burst (limit %d)" % (worst, LIMIT_KIB))
PY
# The library's complaint about a null free is a host or library bug even when nothing breaks.
if grep -q "NULL pointer" "$work/server.out"; then
  echo "burst-memory: the server freed null pointers:" >&2
  grep -m 3 "NULL pointer" "$work/server.out" >&2
  exit 1
fi
echo "burst-memory: pass"
