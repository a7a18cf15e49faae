#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Writes small media files into DIR for the interop tests and prints the name of the track the
# control points look for. Real MP3 and JPEG from ffmpeg when it is installed; otherwise WAV and
# PNG written by Python. The tracks differ in length, so in size too: a client matching by size
# cannot take one for the other.
#   sh tests/interop/make_media.sh DIR
set -eu
dir=$1
if command -v ffmpeg > /dev/null 2>&1; then
  ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
  ff -f lavfi -i sine=frequency=440:duration=2 "$dir/Track 1 & more.mp3"
  ff -f lavfi -i sine=frequency=660:duration=3 "$dir/Track 2 <live> 'quoted'.mp3"
  ff -f lavfi -i testsrc=size=160x120 -frames:v 1 "$dir/Cover.jpg"
  echo "Track 1 & more.mp3"
  exit 0
fi
python3 - "$dir" << 'PY'
import math, os, struct, sys, wave, zlib
d = sys.argv[1]
for name, hz, seconds in (("Track 1 & more.wav", 440, 2), ("Track 2 <live> 'quoted'.wav", 660, 3)):
    with wave.open(os.path.join(d, name), "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(8000)
        w.writeframes(b"".join(struct.pack("<h", int(8000 * math.sin(2 * math.pi * hz * i / 8000)))
                               for i in range(8000 * seconds)))
def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
width, height = 80, 60
raw = b"".join(b"\0" + b"".join(bytes((x * 3, y * 4, 128)) for x in range(width)) for y in range(height))
with open(os.path.join(d, "Cover.png"), "wb") as f:
    f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(raw)) + chunk(b"IEND", b""))
PY
echo "Track 1 & more.wav"
