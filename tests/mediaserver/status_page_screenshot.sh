#!/bin/sh
# Shows that a browser renders the example server's status page: tarnwick-mediaserver serves a
# small folder inside the private namespace, headless Chromium takes a 1024x768 screenshot of
# "/", and the PNG must hold the page's background and a fair amount of dark text on it (a blank
# or unstyled page fails). The picture stays as BUILD_DIR/mediaserver-status.png.
#
#   sh tests/mediaserver/status_page_screenshot.sh [BUILD_DIR]
#   exit 0 pass, 1 fail, 77 skipped (no chromium)
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
dir=$(cd "${1:-build}" && pwd)
if [ "${TW_IN_NETNS:-}" != 1 ]; then
  exec sh "$root/scripts/netns-run.sh" sh "$0" "$dir"
fi

browser=
for candidate in chromium chromium-browser; do
  if command -v "$candidate" > /dev/null 2>&1; then
    browser=$candidate
    break
  fi
done
if [ -z "$browser" ]; then
  echo "SKIP: no chromium installed"
  exit 77
fi
bin=$dir/tarnwick-mediaserver
[ -x "$bin" ] || { echo "status-page-screenshot: $bin not built" >&2; exit 1; }

port=19420
url=http://127.0.0.1:$port/
picture=$dir/mediaserver-status.png
work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill -INT "$server" 2> /dev/null || true
  wait 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
fail() {
  echo "FAIL: $*"
  echo "---- server output"
  cat "$work/server.out"
  exit 1
}

mkdir -p "$work/share/Music/Live" "$work/share/Pictures" "$work/data" "$work/home"
head -c 4000 /dev/zero > "$work/share/Music/Opening & Close.mp3"
head -c 120000 /dev/zero > "$work/share/Pictures/Harbour <dawn>.jpg"
head -c 2500000 /dev/zero > "$work/share/Holiday 2025.mp4"
# One client device met earlier: 13 fields, each a three-digit length, the text and a line feed.
printf '%s\n' "011Living room" "01702:00:00:00:00:09" "00910.0.0.21" "000" "000" "000" "000" \
  "000" "003003" "0011" "003001" "000" "0010" > "$work/data/clients.data"

rm -f "$picture"
"$bin" -ip 127.0.0.1 -httpport $port -folder "$work/share" -appdata "$work/data" \
  -friendlyname "Tarnwick Media Server" > "$work/server.out" 2>&1 &
server=$!

# Up when "/" answers (5 s at most).
fetch() {
  python3 -c 'import sys, urllib.request; urllib.request.urlopen(sys.argv[1], timeout=2).read()' \
    "$1" > /dev/null 2>&1
}
i=0
until fetch "$url"; do
  i=$((i + 1))
  [ $i -le 50 ] || fail "the server did not answer $url"
  sleep 0.1
done

# The browser's profile and caches go to the work directory, not the user's home.
HOME=$work/home timeout 60 "$browser" --headless --no-sandbox --disable-gpu \
  --user-data-dir="$work/home/profile" --hide-scrollbars --screenshot="$picture" \
  --window-size=1024,768 "$url" > "$work/browser.out" 2>&1 || {
  cat "$work/browser.out"
  fail "chromium did not take the screenshot"
}
[ -s "$picture" ] || fail "no screenshot at $picture"

python3 - "$picture" << 'PY' || fail "the screenshot does not show the page"
import struct, sys, zlib

data = open(sys.argv[1], "rb").read()
assert data[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG"
at, chunks = 8, {}
while at < len(data):
    length, kind = struct.unpack(">I4s", data[at:at + 8])
    chunks.setdefault(kind, []).append(data[at + 8:at + 8 + length])
    at += 12 + length
width, height, depth, colour = struct.unpack(">IIBB", chunks[b"IHDR"][0][:10])
print("screenshot: %dx%d, depth %d, colour type %d" % (width, height, depth, colour))
assert (width, height) == (1024, 768), "size"
assert depth == 8 and colour in (2, 6), "unexpected pixel format"
step = 3 if colour == 2 else 4
raw = zlib.decompress(b"".join(chunks[b"IDAT"]))
stride = width * step
rows, previous, at = [], bytearray(stride), 0
for _ in range(height):
    kind, line = raw[at], bytearray(raw[at + 1:at + 1 + stride])
    at += 1 + stride
    for i in range(stride):
        left = line[i - step] if i >= step else 0
        up = previous[i]
        corner = previous[i - step] if i >= step else 0
        if kind == 1:
            line[i] = (line[i] + left) & 255
        elif kind == 2:
            line[i] = (line[i] + up) & 255
        elif kind == 3:
            line[i] = (line[i] + ((left + up) >> 1)) & 255
        elif kind == 4:
            p = left + up - corner
            pa, pb, pc = abs(p - left), abs(p - up), abs(p - corner)
            best = left if pa <= pb and pa <= pc else up if pb <= pc else corner
            line[i] = (line[i] + best) & 255
    rows.append(line)
    previous = line
background = header = dark = 0
for line in rows:
    for i in range(0, stride, step):
        r, g, b = line[i], line[i + 1], line[i + 2]
        if (r, g, b) == (0xF4, 0xF6, 0xF8):
            background += 1
        elif (r, g, b) == (0x1F, 0x4E, 0x79):
            header += 1
        elif max(r, g, b) < 90:
            dark += 1
total = width * height
print("page background %d, header %d, dark text %d of %d pixels" % (background, header, dark, total))
assert background > total // 5, "the page background is missing"
assert header > total // 100, "the styled header is missing"
assert dark > 500, "too little text"
PY
echo "PASS: $picture shows the status page"
