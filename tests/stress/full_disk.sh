#!/bin/sh
# A full disk under the client table and the log: a 256 KiB tmpfs in a private mount namespace
# (inside the loopback-only network namespace) that a filler file then fills to the last page.
#  1. Through the library's C interface (ctypes): client edits on the full disk leave the previous
#     "clients.data" whole and say so in a log line, the records stay in memory, the log goes on
#     on standard output, and once space is back the next edit writes the whole table again;
#     accounted memory returns to where it started.
#  2. tarnwick-mediaserver with its log file and appdata on the disk, every log category on:
#     every request is still answered while the disk is full, the lines go to standard output,
#     and the server stops cleanly.
#
#   sh tests/stress/full_disk.sh [BUILD_DIR]
#   exit 0 pass, 1 fail
set -eu
name=full-disk
here=$(cd "$(dirname "$0")" && pwd)
stress_mount_ns=1
. "$here/lib/common.sh"
lib=$dir/libtarnwick_upnp.so
[ -f "$lib" ] || { echo "full-disk: $lib not built" >&2; exit 1; }
cleanup_extra() { umount "$work/disk" 2> /dev/null || true; }

mkdir -p "$work/disk"
mount -t tmpfs -o size=256k tmpfs "$work/disk"

# Fills the disk to the last byte it takes: python3 "$work/fill.py" FILE
cat > "$work/fill.py" << 'PY'
import errno, sys
with open(sys.argv[1], "wb", buffering=0) as f:
    for size in (65536, 4096, 1):
        while True:
            try:
                f.write(b"\0" * size)
            except OSError as e:
                if e.errno != errno.ENOSPC:
                    raise
                break
PY

# ---- 1. the client table and the library's log through the C interface
mkdir -p "$work/disk/data"
python3 - "$lib" "$work/disk" "$work/fill.py" > "$work/ctypes.out" 2>&1 << 'PY' || { cat "$work/ctypes.out" >&2; exit 1; }
import ctypes, os, subprocess, sys

lib_path, disk, fill = sys.argv[1], sys.argv[2], sys.argv[3]
lib = ctypes.CDLL(lib_path)
lib.upnp_mem_used.restype = ctypes.c_uint32
lib.upnp_client_add.restype = ctypes.c_void_p
lib.upnp_client_add.argtypes = [ctypes.c_char_p, ctypes.c_int32, ctypes.c_int32, ctypes.c_char_p]
lib.upnp_get_connected_client_list.restype = ctypes.c_void_p
lib.upnp_string_free.argtypes = [ctypes.c_void_p]
lib.upnp_ini_file_setPropertyByKey.argtypes = [ctypes.c_uint32, ctypes.c_char_p]
lib.upnp_log_init.argtypes = [ctypes.c_char_p]


class UpnpString(ctypes.Structure):
    _fields_ = [("length", ctypes.c_uint32), ("capacity", ctypes.c_uint32),
                ("buffer", ctypes.c_char_p)]


table = os.path.join(disk, "data", "clients.data")


def fail(message):
    sys.stdout.flush()
    raise SystemExit("full-disk: " + message)


def add(i):
    mac = ("02:00:00:00:%02X:%02X" % (i // 256, i % 256)).encode()
    lib.upnp_string_free(lib.upnp_client_add(mac, 3, 1, None))


def records_in_memory():
    s = lib.upnp_get_connected_client_list()
    text = ctypes.cast(s, ctypes.POINTER(UpnpString)).contents.buffer or b""
    lib.upnp_string_free(s)
    return text.count(b"##########")


def read(path):
    with open(path, "rb") as f:
        return f.read()


lib.upnp_mem_init()
start = lib.upnp_mem_used()
if lib.upnp_log_init(os.path.join(disk, "log", "tarnwick.log").encode()) != 1:
    fail("the log did not open")
lib.upnp_log_set_mode(0xFFFFFFFF)
lib.upnp_ini_file_init()
lib.upnp_ini_file_setPropertyByKey(13, os.path.join(disk, "data").encode())
lib.upnp_client_db_init()
for i in range(20):
    add(i)
before = read(table)
if before.count(b"\n") != 20 * 13:
    fail("the table holds %d lines, not %d" % (before.count(b"\n"), 20 * 13))

filler = os.path.join(disk, "filler")
subprocess.run([sys.executable, fill, filler], check=True)
for i in range(20, 40):
    add(i)
if read(table) != before:
    fail("an edit on the full disk changed the table on disk")
if os.path.exists(table + ".new"):
    fail("a cut table was left behind")
if records_in_memory() != 40:
    fail("%d records in memory, not 40" % records_in_memory())

os.remove(filler)
add(40)
after = read(table)
if after.count(b"\n") != 41 * 13:
    fail("with space back the table holds %d lines, not %d" % (after.count(b"\n"), 41 * 13))
lib.client_table_read()
if records_in_memory() != 41:
    fail("the table read back %d records, not 41" % records_in_memory())
lib.upnp_client_db_exit()
lib.upnp_ini_file_release()
lib.upnp_log_exit()
if lib.upnp_mem_used() != start:
    fail("accounted memory %d after the run, %d before" % (lib.upnp_mem_used(), start))
print("client table: 20 edits on the full disk, table kept (%d bytes), 41 records after" %
      len(before))
PY
for line in "can't write log file" "client_table_write could not write"; do
  grep -q "$line" "$work/ctypes.out" || { echo "full-disk: no \"$line\" on standard output" >&2; cat "$work/ctypes.out" >&2; exit 1; }
done
grep "^client table" "$work/ctypes.out"
umount "$work/disk"
mount -t tmpfs -o size=256k tmpfs "$work/disk"

# ---- 2. the example host with its log and appdata on the disk
port=19460
mkdir -p "$work/disk/data"
head -c 4096 /dev/urandom > "$work/share/small.mp3"
"$bin" -ip 127.0.0.1 -httpport $port -folder "$work/share" -appdata "$work/disk/data" \
  -logfile "$work/disk/tarnwick.log" -v 4294967295 > "$work/server.out" 2>&1 &
server=$!
python3 "$work/fill.py" "$work/disk/filler"
python3 - "$port" << 'PY' || { server_tail; exit 1; }
import re, socket, sys, time

port = int(sys.argv[1])
deadline = time.monotonic() + 10
while True:
    try:
        socket.create_connection(("127.0.0.1", port), timeout=1).close()
        break
    except OSError:
        if time.monotonic() > deadline:
            raise SystemExit("full-disk: the server did not come up")
        time.sleep(0.05)
answered = 0
for i in range(200):
    path = "/TMSDeviceDescription.xml" if i % 2 else "/"
    with socket.create_connection(("127.0.0.1", port), timeout=5) as sock:
        sock.sendall(b"GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n" %
                     path.encode())
        data = b""
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                break
            data += chunk
    if not data.startswith(b"HTTP/1.1 200"):
        raise SystemExit("full-disk: request %d answered %r" % (i, data[:40]))
    answered += 1
print("example host: %d of 200 requests answered with the disk full" % answered)
PY
kill -INT "$server"
rc=0
wait "$server" || rc=$?
server=
[ "$rc" = 0 ] || { echo "full-disk: the server ended with $rc" >&2; tail -20 "$work/server.out" >&2; exit 1; }
grep -q "can't write log file" "$work/server.out" || { echo "full-disk: the server never ran out of log space" >&2; exit 1; }
echo "example host: log lines after the disk filled went to standard output" \
  "($(wc -l < "$work/server.out") lines), clean stop"
echo "full-disk: pass"
