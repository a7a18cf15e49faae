#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Control points this project did not write against a media server on loopback: GUPnP's (through
# Python, tests/interop/cp_gupnp.py) and node-ssdp with upnp-device-client (cp_node.js). Each
# discovers the server, browses down to a generated track whose name needs escaping, fetches its
# first bytes with a Range request and compares them with the file. Against tarnwick, GUPnP then
# finds the same track as an entry of a playlist container (a .m3u8 file at the top of the share)
# and fetches and compares it again.
#
#   sh tests/interop/control_points.sh tarnwick|minidlna BUILD_DIR
#
# tarnwick starts BUILD_DIR/tarnwick-mediaserver; minidlna starts Debian's minidlnad, the
# reference the clients were first proven against. Runs inside the loopback-only namespace (it
# re-enters it through scripts/netns-run.sh when called outside). A client whose toolkit is
# missing is skipped; exit 77 when no client could run, else 1 if any failed, else 0.
# The node modules are looked for in BUILD_DIR/interop-node (scripts/prepare-interop.sh puts
# them there; nothing is installed from inside the namespace). TW_INTEROP_CLIENTS picks the
# clients (default "gupnp node").
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
kind=${1:-}
build=$(cd "${2:-build}" && pwd)
case "$kind" in
  tarnwick | minidlna) ;;
  *)
    echo "usage: control_points.sh tarnwick|minidlna BUILD_DIR" >&2
    exit 2
    ;;
esac
if [ "${TW_IN_NETNS:-}" != 1 ]; then
  exec sh "$root/scripts/netns-run.sh" sh "$0" "$kind" "$build"
fi

work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2> /dev/null || true
  wait 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
fail_start() {
  echo "FAIL: $*"
  echo "---- server output"
  tail -n 40 "$work/server.out"
  exit 1
}

# The shared folder: a sub-folder whose name and files need escaping in URLs, in XML and again
# in the SOAP answer around the DIDL-Lite.
share=$work/share
folder="Live & Loud"
track="Track 1 & more.mp3"
mkdir -p "$share/$folder" "$work/data" "$work/db"
sh "$here/make_media.sh" "$share/$folder" > "$work/media.out" 2>&1 ||
  fail_start "could not write the media files: $(cat "$work/media.out")"
track=$(cat "$work/media.out")
expect="$folder/$track"
# A playlist beside the folder: one entry that cannot be found, then the track.
printf '#EXTM3U\n#EXTINF:-1,gone\nnowhere.mp3\n%s\n' "$expect" > "$share/Favourites.m3u8"
playlist_arg=""
[ "$kind" = tarnwick ] && playlist_arg="--playlist Favourites"
echo "shared folder:"
(cd "$share" && find . -type f -exec ls -l {} + | awk '{ $1=$2=$3=$4=$6=$7=$8=""; print }' | sed 's/^ *//')

case "$kind" in
  tarnwick)
    bin=$build/tarnwick-mediaserver
    # Standard error repeats every log line of standard output (the Android log sink).
    [ -x "$bin" ] || fail_start "$bin not built"
    # A friendly name of its own gives a UDN of its own, told apart from other tests' servers.
    "$bin" -ip 127.0.0.1 -httpport 19420 -folder "$share" -appdata "$work/data" \
      -friendlyname "Tarnwick interop" > "$work/server.out" 2> /dev/null &
    server=$!
    i=0
    until grep -q "mediaserver: status page http://" "$work/server.out"; do
      i=$((i + 1))
      [ $i -le 50 ] || fail_start "tarnwick-mediaserver did not come up"
      sleep 0.1
    done
    location=$(sed -n 's/.*(description: \(http:[^)]*\)).*/\1/p' "$work/server.out" | head -n 1)
    udn=$(sed -n 's/.*(\(uuid:[0-9a-f-]*\)) sharing.*/\1/p' "$work/server.out" | head -n 1)
    ;;
  minidlna)
    daemon=$(command -v minidlnad || true)
    [ -z "$daemon" ] && [ -x /usr/sbin/minidlnad ] && daemon=/usr/sbin/minidlnad
    if [ -z "$daemon" ]; then
      echo "SKIP: minidlnad is not installed"
      exit 77
    fi
    port=8203
    udn=uuid:4d696e69-444c-4e41-0000-1e7e0face001
    cat > "$work/minidlna.conf" << CONF
port=$port
network_interface=lo
media_dir=$share
db_dir=$work/db
log_dir=$work
friendly_name=Interop Reference
uuid=${udn#uuid:}
inotify=no
notify_interval=30
CONF
    "$daemon" -S -R -f "$work/minidlna.conf" -P "$work/minidlna.pid" > "$work/server.out" 2>&1 &
    server=$!
    location=http://127.0.0.1:$port/rootDesc.xml
    i=0
    until python3 -c "import urllib.request, sys; urllib.request.urlopen(sys.argv[1], timeout=1)" \
      "$location" 2> /dev/null; do
      i=$((i + 1))
      [ $i -le 50 ] || fail_start "minidlnad did not come up"
      sleep 0.2
    done
    ;;
esac
echo "server: $kind, $udn at $location"

# The same tree with one byte of the track changed: a client that passed must then report the
# difference, or its comparison proves nothing.
cp -R "$share" "$work/altered"
python3 -c 'import sys; b = bytearray(open(sys.argv[1], "rb").read()); b[1000] ^= 0xff; open(sys.argv[1], "wb").write(b)' \
  "$work/altered/$expect"

summary=$work/summary
: > "$summary"
ran=0
failed=0
# run_client NAME COMMAND... --folder: runs one client against the shared folder, then, when it
# passed, against the altered copy, and records its line for the summary.
run_client() {
  name=$1
  shift
  echo "---- $name"
  started=$(date +%s)
  if "$@" "$share"; then
    echo "---- $name against the altered copy (must fail)"
    "$@" "$work/altered" > "$work/altered.out" 2>&1 || true
    tail -n 2 "$work/altered.out"
    if grep -q "FAIL: the .* bytes fetched differ from the file" "$work/altered.out"; then
      echo "$name: PASS ($(($(date +%s) - started)) s, the altered copy was told apart)" >> "$summary"
    else
      echo "$name: FAIL (the altered copy was not told apart)" >> "$summary"
      failed=1
    fi
  else
    echo "$name: FAIL (exit $?, $(($(date +%s) - started)) s)" >> "$summary"
    failed=1
  fi
  ran=$((ran + 1))
}

clients=${TW_INTEROP_CLIENTS:-gupnp node}
wanted() { case " $clients " in *" $1 "*) return 0 ;; esac; return 1; }

if ! wanted gupnp; then
  echo "gupnp: not asked for (TW_INTEROP_CLIENTS)" >> "$summary"
elif /usr/bin/python3 -c 'import gi; gi.require_version("GUPnP", "1.6"); gi.require_version("GUPnPAV", "1.0")' \
  > /dev/null 2>&1; then
  # shellcheck disable=SC2086 # the playlist argument is two words or none
  run_client gupnp /usr/bin/python3 "$here/cp_gupnp.py" --udn "$udn" --expect "$expect" \
    --timeout 20 $playlist_arg --folder
else
  echo "gupnp: SKIP (no GUPnP 1.6 / GUPnP-AV for /usr/bin/python3)" >> "$summary"
fi

modules=$build/interop-node/node_modules
if ! wanted node; then
  echo "node: not asked for (TW_INTEROP_CLIENTS)" >> "$summary"
elif command -v node > /dev/null 2>&1 && [ -d "$modules/node-ssdp" ] &&
  [ -d "$modules/upnp-device-client" ]; then
  run_client node env NODE_PATH="$modules" node "$here/cp_node.js" --udn "$udn" \
    --expect "$expect" --timeout 20 --folder
else
  echo "node: SKIP (node or the modules in $modules missing; sh scripts/prepare-interop.sh $build)" \
    >> "$summary"
fi

if ! kill -0 "$server" 2> /dev/null; then
  echo "the server exited during the run" >> "$summary"
  failed=1
fi
echo "---- summary ($kind)"
cat "$summary"
if [ $failed = 1 ]; then
  echo "---- server output (last lines)"
  grep -v -e '^$' -e 'LOG_SYSTEM' "$work/server.out" | tail -n 30
  exit 1
fi
if [ $ran = 0 ]; then
  echo "SKIP: no control point could run"
  exit 77
fi
exit 0
