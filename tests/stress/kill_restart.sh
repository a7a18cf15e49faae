#!/bin/sh
# kill -9 of the host and a restart, seen from the SSDP group inside the private namespace:
#  - a first run on an empty appdata folder announces without any byebye and leaves the marker
#    file "tmsbyebye" while it runs;
#  - after kill -9 the marker stays, and the next run sends the media server's byebye set twice
#    (five NTs, ten datagrams) before its first alive, so control points drop the dead
#    device's entries at once instead of after their max-age;
#  - a clean stop (SIGINT) sends the byebye set twice and removes the marker, and the run after
#    it again starts with an alive.
# The restarted server must also answer HTTP on the same port straight away.
#
#   sh tests/stress/kill_restart.sh [BUILD_DIR]
#   exit 0 pass, 1 fail
set -eu
name=kill-restart
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib/common.sh"

python3 - "$bin" "$work" << 'PY'
import os, re, signal, socket, struct, subprocess, sys, time

binary, work = sys.argv[1], sys.argv[2]
PORT = 19470
GROUP = "239.255.255.250"
MARKER = os.path.join(work, "data", "tmsbyebye")
BYEBYE_NTS = {"upnp:rootdevice", "urn:schemas-upnp-org:device:MediaServer:1",
              "urn:schemas-upnp-org:service:ContentDirectory:1",
              "urn:schemas-upnp-org:service:ConnectionManager:1"}  # and the UDN

listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM, socket.IPPROTO_UDP)
listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
listener.bind(("", 1900))
listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                    struct.pack("4s4s", socket.inet_aton(GROUP), socket.inet_aton("127.0.0.1")))
listener.settimeout(0.1)


def fail(message):
    raise SystemExit("kill-restart: " + message)


def notifies(until):
    """The NOTIFYs of the group as (NTS, NT) in arrival order until the deadline or until
    until(list) holds."""
    got, deadline = [], time.monotonic() + 10
    while time.monotonic() < deadline and not until(got):
        try:
            data = listener.recv(2048).decode("latin-1")
        except socket.timeout:
            continue
        if not data.startswith("NOTIFY"):
            continue
        fields = dict((k.upper(), v.strip()) for k, v in re.findall(r"\r\n([^:\r\n]+):([^\r\n]*)",
                                                                    data))
        got.append((fields.get("NTS"), fields.get("NT")))
    return got


def drain():
    """Drops what the group carried so far, so the next run is seen from its first datagram."""
    listener.settimeout(0.2)
    try:
        while True:
            listener.recv(2048)
    except socket.timeout:
        pass
    finally:
        listener.settimeout(0.1)


def first_alive(got):
    return any(nts == "ssdp:alive" for nts, _ in got)


def byebyes_before_alive(got):
    seen = []
    for nts, nt in got:
        if nts == "ssdp:alive":
            break
        if nts == "ssdp:byebye":
            seen.append(nt)
    return seen


def check_set_twice(nts_list, when):
    udns = [nt for nt in nts_list if nt.startswith("uuid:")]
    others = sorted(nt for nt in nts_list if not nt.startswith("uuid:"))
    if len(nts_list) != 10 or len(udns) != 2 or len(set(udns)) != 1 or \
            others != sorted(list(BYEBYE_NTS) * 2):
        fail("%s: byebyes %r, not the media server's set twice" % (when, nts_list))


def start():
    out = open(os.path.join(work, "server.out"), "a")
    return subprocess.Popen([binary, "-ip", "127.0.0.1", "-httpport", str(PORT), "-folder",
                             os.path.join(work, "share"), "-appdata", os.path.join(work, "data")],
                            stdout=out, stderr=subprocess.STDOUT)


def answers_http():
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline:
        try:
            with socket.create_connection(("127.0.0.1", PORT), timeout=1) as s:
                s.sendall(b"GET /TMSDeviceDescription.xml HTTP/1.1\r\nHost: x\r\n"
                          b"Connection: close\r\n\r\n")
                if s.recv(12) == b"HTTP/1.1 200":
                    return True
        except OSError:
            time.sleep(0.05)
    return False


server = start()
try:
    got = notifies(first_alive)
    if not first_alive(got):
        fail("the first run sent no alive")
    if byebyes_before_alive(got):
        fail("the first run sent byebyes before its alive: %r" % byebyes_before_alive(got))
    if not os.path.exists(MARKER):
        fail("no marker while the server runs")
    server.send_signal(signal.SIGKILL)
    server.wait(5)
    if not os.path.exists(MARKER):
        fail("the marker went with the killed process")
    drain()

    started = time.monotonic()
    server = start()
    got = notifies(first_alive)
    check_set_twice(byebyes_before_alive(got), "after kill -9")
    if not first_alive(got):
        fail("the restarted server sent no alive")
    if not answers_http():
        fail("the restarted server does not answer HTTP")
    print("after kill -9: 10 byebyes (the set twice) before the first alive, %.2f s after the "
          "restart; HTTP answers" % (time.monotonic() - started))

    server.send_signal(signal.SIGINT)
    got = notifies(lambda got: sum(1 for nts, _ in got if nts == "ssdp:byebye") >= 10)
    if server.wait(10) != 0:
        fail("the clean stop ended with %d" % server.returncode)
    check_set_twice([nt for nts, nt in got if nts == "ssdp:byebye"], "clean stop")
    if os.path.exists(MARKER):
        fail("the marker outlived a clean stop")
    drain()

    server = start()
    got = notifies(first_alive)
    if byebyes_before_alive(got):
        fail("after a clean stop the next run still sent byebyes first")
    print("clean stop: the set twice, marker removed; the next run starts with an alive")
finally:
    if server.poll() is None:
        server.send_signal(signal.SIGINT)
        try:
            server.wait(10)
        except subprocess.TimeoutExpired:
            server.kill()
PY
echo "kill-restart: pass"
