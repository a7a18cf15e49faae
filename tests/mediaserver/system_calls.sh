#!/bin/sh
# Counts the system calls one kept-alive connection costs the example server per small request,
# so the request road cannot grow again unnoticed: tarnwick-mediaserver runs under strace inside
# the private namespace, one client connection asks for a 1 KiB item 300 times (whole and
# ranged), and the connection's worker thread must stay within LIMIT calls per request.
#
#   sh tests/mediaserver/system_calls.sh [BUILD_DIR]
#   exit 0 pass, 1 fail, 77 skipped (no strace)
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
dir=$(cd "${1:-build}" && pwd)
if [ "${TW_IN_NETNS:-}" != 1 ]; then
  exec sh "$root/scripts/netns-run.sh" sh "$0" "$dir"
fi
command -v strace > /dev/null 2>&1 || { echo "SKIP: no strace installed"; exit 77; }
bin=$dir/tarnwick-mediaserver
[ -x "$bin" ] || { echo "system-calls: $bin not built" >&2; exit 1; }

limit=7
port=19430
work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2> /dev/null || true
  wait 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

mkdir -p "$work/share" "$work/data"
head -c 1024 /dev/urandom > "$work/share/small.mp3"
strace -f -qq -o "$work/trace" "$bin" -ip 127.0.0.1 -httpport $port -folder "$work/share" \
  -appdata "$work/data" > "$work/out" 2>&1 &
server=$!

python3 - "$port" "$work/share/small.mp3" "$work/requests" << 'PY' || { echo "system-calls: the client failed" >&2; cat "$work/out" >&2; exit 1; }
import re, socket, sys, time
port, path, out = int(sys.argv[1]), sys.argv[2], sys.argv[3]
data = open(path, "rb").read()

def exchange(sock, request):
    sock.sendall(request)
    buffer = b""
    while b"\r\n\r\n" not in buffer:
        chunk = sock.recv(65536)
        if not chunk:
            raise SystemExit("system-calls: connection closed early")
        buffer += chunk
    head, body = buffer.split(b"\r\n\r\n", 1)
    length = int(re.search(rb"(?i)\r\ncontent-length: *(\d+)", head).group(1))
    while len(body) < length:
        body += sock.recv(65536)
    return head, body

deadline = time.time() + 20  # strace slows the start
while True:
    try:
        sock = socket.create_connection(("127.0.0.1", port), timeout=5)
        break
    except OSError:
        if time.time() > deadline:
            raise SystemExit("system-calls: the server did not come up")
        time.sleep(0.2)
envelope = ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/">'
            '<s:Body><u:Browse xmlns:u="urn:schemas-upnp-org:service:ContentDirectory:1">'
            '<ObjectID>0</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter>'
            '<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria>'
            '</SortCriteria></u:Browse></s:Body></s:Envelope>').encode()
head, body = exchange(sock, b"POST /ContentDirectory/Control HTTP/1.1\r\nHOST: x\r\n"
                      b'SOAPACTION: "urn:schemas-upnp-org:service:ContentDirectory:1#Browse"\r\n'
                      b"CONTENT-LENGTH: %d\r\n\r\n%s" % (len(envelope), envelope))
sock.close()
url = re.search(rb"http://127\.0\.0\.1:\d+(/media/[^&<]*)", body).group(1)
sock = socket.create_connection(("127.0.0.1", port), timeout=5)
requests = 300
for i in range(requests):
    ranged = i % 2 == 1
    head, body = exchange(sock, b"GET %s HTTP/1.1\r\nHOST: x\r\n%s\r\n" %
                          (url, b"Range: bytes=100-611\r\n" if ranged else b""))
    if body != (data[100:612] if ranged else data):
        raise SystemExit("system-calls: wrong bytes in answer %d" % i)
sock.close()
open(out, "w").write(str(requests))
PY
# The server itself (strace's child) is asked to stop; strace ends with it.
kill -INT $(pgrep -P "$server") 2> /dev/null || true
wait "$server" 2> /dev/null || true
server=

# The worker thread of the connection is the one that received the most; its calls, all of
# them (start and end of the thread included), are divided by the requests it served.
python3 - "$work/trace" "$(cat "$work/requests")" "$limit" << 'PY'
import collections, sys
trace, requests, limit = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
calls = collections.defaultdict(collections.Counter)
for line in open(trace, errors="replace"):
    parts = line.split(None, 1)
    if len(parts) == 2 and parts[0].isdigit() and "(" in parts[1]:
        name = parts[1].split("(", 1)[0]
        if name.isidentifier():
            calls[parts[0]][name] += 1
worker = max(calls, key=lambda tid: calls[tid]["recvfrom"])
total = sum(calls[worker].values())
per = total / requests
print("system calls per request: %.2f (limit %d); %s" %
      (per, limit, ", ".join("%s %d" % kv for kv in calls[worker].most_common(8))))
sys.exit(0 if per <= limit else 1)
PY
