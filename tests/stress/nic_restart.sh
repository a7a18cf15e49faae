#!/bin/sh
# Network changes under load: tarnwick-mediaserver serves every local address of the private
# namespace while 16 clients keep requesting over kept-alive connections; every second for 30 s
# an address (127.0.0.2) comes or goes on lo and the server is told (SIGHUP), so it restarts its
# servers again and again. The clients open a new connection every 20 requests, so accepts meet
# the restarts too. Must hold: every answer that arrives is whole and right (a refused or
# reset connection during a restart is expected, a cut or wrong answer is not), no request
# hangs, the restarts happen, and afterwards the server answers, its threads and descriptors are
# back where they were and it stops cleanly. Prints the figures.
#
#   sh tests/stress/nic_restart.sh [BUILD_DIR]
#   exit 0 pass, 1 fail
set -eu
name=nic-restart
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib/common.sh"

head -c 20000 /dev/urandom > "$work/share/small.mp3"
start_server 19480  # every address of the namespace, so a new one restarts the servers

python3 - "$port" "$server" "$work/server.out" << 'PY' || { server_tail; exit 1; }
import os, re, signal, socket, subprocess, sys, threading, time

port, pid, log = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
CLIENTS, SECONDS, HANG_S = 16, 30, 5.0
PATH = b"/TMSDeviceDescription.xml"


def fail(message):
    raise SystemExit("nic-restart: " + message)


def threads():
    with open("/proc/%d/status" % pid) as status:
        return int(re.search(r"^Threads:\s+(\d+)", status.read(), re.M).group(1))


def descriptors():
    return len(os.listdir("/proc/%d/fd" % pid))


def rss_kib():
    with open("/proc/%d/status" % pid) as status:
        return int(re.search(r"^VmRSS:\s+(\d+)", status.read(), re.M).group(1))


def settled(read, limit_s=10):
    """A count once it has stopped changing for half a second."""
    deadline, last, since = time.monotonic() + limit_s, None, time.monotonic()
    while time.monotonic() < deadline:
        value = read()
        if value != last:
            last, since = value, time.monotonic()
        elif time.monotonic() - since >= 0.5:
            break
        time.sleep(0.05)
    return last


class Answer(Exception):
    pass


def read_answer(sock, reference):
    """One whole answer; raises Answer for a wrong or cut one, OSError for a lost connection."""
    buffer = b""
    while b"\r\n\r\n" not in buffer:
        chunk = sock.recv(65536)
        if not chunk:
            if buffer:
                raise Answer("cut inside the head: %r" % buffer[:60])
            raise ConnectionResetError("closed between requests")
        buffer += chunk
    head, body = buffer.split(b"\r\n\r\n", 1)
    if not head.startswith(b"HTTP/1.1 200"):
        raise Answer("status %r" % head[:40])
    length = int(re.search(rb"(?i)\r\ncontent-length: *(\d+)", head).group(1))
    while len(body) < length:
        chunk = sock.recv(65536)
        if not chunk:
            raise Answer("cut inside the body after %d of %d bytes" % (len(body), length))
        body += chunk
    if reference is not None and body != reference:
        raise Answer("a different body")
    return body


def one_request():
    with socket.create_connection(("127.0.0.1", port), timeout=HANG_S) as sock:
        sock.sendall(b"GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" % PATH)
        return read_answer(sock, None)


deadline = time.monotonic() + 10
while True:
    try:
        reference = one_request()
        break
    except OSError:
        if time.monotonic() > deadline:
            fail("the server did not come up")
        time.sleep(0.05)
time.sleep(1)
base_threads, base_fds, base_rss = settled(threads), settled(descriptors), rss_kib()

stop = threading.Event()
lock = threading.Lock()
counts = {"answers": 0, "refused": 0, "lost": 0, "wrong": 0, "hung": 0}
wrong = []


def count(kind, detail=None):
    with lock:
        counts[kind] += 1
        if detail is not None and len(wrong) < 5:
            wrong.append(detail)


def client():
    sock, served = None, 0
    while not stop.is_set():
        try:
            if sock is None:
                sock, served = socket.create_connection(("127.0.0.1", port), timeout=HANG_S), 0
            sock.sendall(b"GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" % PATH)
            read_answer(sock, reference)
            count("answers")
            served += 1
            if served < 20:
                continue
        except ConnectionRefusedError:
            count("refused")
            time.sleep(0.02)
        except socket.timeout:
            count("hung")
        except Answer as e:
            count("wrong", str(e))
        except OSError:
            count("lost")
        if sock is not None:
            sock.close()
            sock = None
    if sock is not None:
        sock.close()


workers = [threading.Thread(target=client) for _ in range(CLIENTS)]
for w in workers:
    w.start()
present, peak_threads = False, 0
started = time.monotonic()
for second in range(SECONDS):
    verb = "del" if present else "add"
    subprocess.run(["ip", "addr", verb, "127.0.0.2/32", "dev", "lo"], check=True)
    present = not present
    os.kill(pid, signal.SIGHUP)
    while time.monotonic() < started + second + 1:
        peak_threads = max(peak_threads, threads())
        time.sleep(0.1)
if present:
    subprocess.run(["ip", "addr", "del", "127.0.0.2/32", "dev", "lo"], check=True)
    os.kill(pid, signal.SIGHUP)
time.sleep(3)  # the last restart ends
stop.set()
for w in workers:
    w.join(HANG_S + 2)

with open(log, errors="replace") as f:
    restarts = sum(1 for line in f if "check_NIC_change Server restarting due to NIC changes" in
                   line and not line.startswith("kt-"))
try:
    one_request()
except OSError as e:
    fail("no answer after the restarts: %s" % e)
end_threads, end_fds = settled(threads), settled(descriptors)
print("%d restarts in %d s under %d clients: %d answers, %d refused connects, %d lost "
      "connections, %d wrong answers, %d hung requests" % (restarts, SECONDS, CLIENTS,
      counts["answers"], counts["refused"], counts["lost"], counts["wrong"], counts["hung"]))
print("threads %d before, %d at most, %d after; descriptors %d before, %d after; resident %d KiB "
      "before, %d KiB after" % (base_threads, peak_threads, end_threads, base_fds, end_fds,
                                base_rss, rss_kib()))
if counts["wrong"] or counts["hung"]:
    fail("wrong or hung answers: %s" % wrong)
if restarts < SECONDS // 3:
    fail("only %d restarts" % restarts)
if counts["answers"] < 1000:
    fail("only %d answers: no load" % counts["answers"])
if end_threads > base_threads or end_fds > base_fds:
    fail("threads or descriptors left over")
PY
kill -INT "$server"
rc=0
wait "$server" || rc=$?
server=
[ "$rc" = 0 ] || { echo "nic-restart: the server ended with $rc" >&2; exit 1; }
echo "nic-restart: pass"
