#!/bin/sh
# Runs a command while MiniDLNA serves a generated folder on 127.0.0.1 (call it inside the
# loopback-only namespace: scripts/netns-run.sh). The command gets the server's description URL
# in TW_MINIDLNA_URL. Exits 77 (a skip for ctest) when minidlnad is not installed.
# usage: with-minidlna.sh COMMAND [ARGS...]
set -eu
daemon=$(command -v minidlnad || true)
if [ -z "$daemon" ] && [ -x /usr/sbin/minidlnad ]; then daemon=/usr/sbin/minidlnad; fi
if [ -z "$daemon" ]; then
  echo "minidlnad not installed: skipped"
  exit 77
fi
dir=$(mktemp -d)
pid=""
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT INT TERM
port=${TW_MINIDLNA_PORT:-8201}
mkdir -p "$dir/media/Live & Loud" "$dir/db"
# Names that must survive two rounds of escaping (SOAP around DIDL-Lite).
for name in "Track 1 & more" "Track 2 <live>" "Track 3 'quoted'"; do
  head -c 4096 /dev/zero > "$dir/media/Live & Loud/$name.mp3"
done
cat > "$dir/minidlna.conf" <<CONF
port=$port
network_interface=lo
media_dir=A,$dir/media
db_dir=$dir/db
log_dir=$dir
friendly_name=Interop Server
inotify=no
notify_interval=900
CONF
"$daemon" -S -R -f "$dir/minidlna.conf" -P "$dir/minidlna.pid" >"$dir/out.log" 2>&1 &
pid=$!
# Ready once the description is served; at most 10 s.
i=0
until python3 -c "import urllib.request,sys; urllib.request.urlopen('http://127.0.0.1:$port/rootDesc.xml', timeout=1)" 2>/dev/null; do
  i=$((i + 1))
  if [ $i -ge 50 ]; then
    echo "minidlnad did not come up"; cat "$dir/out.log"; exit 1
  fi
  sleep 0.2
done
TW_MINIDLNA_URL="http://127.0.0.1:$port/rootDesc.xml" "$@"
