#!/bin/sh
# Shows that an SSDP client this project did not write (GSSDP's) finds tarnwick-mediaserver on
# the loopback interface of the private namespace, with its UDN and description location, and
# sees its byebye when it stops.
#
#   sh scripts/gssdp-check.sh [BUILD_DIR]   run the check (default build); exit 0 pass, 1 fail,
#                                           77 skipped (no discoverer could be found)
#   sh scripts/gssdp-check.sh --install     only install the discoverer (as root; needs network,
#                                           so it must run outside the namespace)
#
# The discoverer is gssdp-discover when installed. Debian 12's gssdp-tools ships no
# gssdp-discover, so the fallback is scripts/gssdp_discover.py, the same command line over the
# GSSDP library through GObject introspection (gir1.2-gssdp-1.6, python3-gi).
set -eu
here=$(cd "$(dirname "$0")" && pwd)

discoverer() {
  if command -v gssdp-discover > /dev/null 2>&1; then
    echo gssdp-discover
    return 0
  fi
  for py in /usr/bin/python3 python3; do
    if "$py" -c 'import gi; gi.require_version("GSSDP", "1.6")' > /dev/null 2>&1; then
      echo "$py $here/gssdp_discover.py"
      return 0
    fi
  done
  return 1
}

install_discoverer() {
  discoverer > /dev/null && return 0
  if [ "$(id -u)" != 0 ]; then
    echo "gssdp-check: no SSDP discoverer; as root: apt-get install gssdp-tools gir1.2-gssdp-1.6 python3-gi" >&2
    return 0
  fi
  echo "gssdp-check: installing gssdp-tools gir1.2-gssdp-1.6 python3-gi"
  export DEBIAN_FRONTEND=noninteractive
  apt-get install -y -q --no-install-recommends gssdp-tools gir1.2-gssdp-1.6 python3-gi \
    > /dev/null 2>&1 || {
    apt-get update -qq > /dev/null 2>&1 || true
    apt-get install -y -q --no-install-recommends gssdp-tools gir1.2-gssdp-1.6 python3-gi \
      > /dev/null 2>&1 || echo "gssdp-check: installation failed" >&2
  }
}

if [ "${1:-}" = "--install" ]; then
  install_discoverer
  exit 0
fi
dir=$(cd "${1:-build}" && pwd)
bin=$dir/tarnwick-mediaserver
if [ "${TW_IN_NETNS:-}" != 1 ]; then
  install_discoverer
  exec sh "$here/netns-run.sh" sh "$0" "$dir"
fi

if ! discover=$(discoverer); then
  echo "SKIP: no SSDP discoverer (gssdp-discover, or GSSDP for python3) is installed;"
  echo "      run 'sh scripts/gssdp-check.sh --install' as root outside the namespace"
  exit 77
fi
[ -x "$bin" ] || { echo "gssdp-check: $bin not built" >&2; exit 1; }

work=$(mktemp -d)
server=
finder=
cleanup() {
  [ -n "$finder" ] && kill "$finder" 2> /dev/null || true
  [ -n "$server" ] && kill "$server" 2> /dev/null || true
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

mkdir -p "$work/share" "$work/data"
echo "hello" > "$work/share/hello.txt"
# A name of its own gives a UDN of its own (its check byte), so announcements of other tests
# running beside this one in the namespace cannot be mistaken for this server's.
"$bin" -ip 127.0.0.1 -httpport 19400 -folder "$work/share" -appdata "$work/data" \
  -friendlyname "Tarnwick gssdp check" > "$work/server.out" 2>&1 &
server=$!
# Up when it prints where to open it (5 s at most).
i=0
until grep -q "mediaserver: open http://" "$work/server.out"; do
  i=$((i + 1))
  [ $i -le 50 ] || fail "server did not come up"
  sleep 0.1
done
location=$(sed -n 's/.*(description: \(http:[^)]*\)).*/\1/p' "$work/server.out" | head -n 1)
udn=$(sed -n 's/.*(\(uuid:[0-9a-f-]*\)) sharing.*/\1/p' "$work/server.out" | head -n 1)
echo "server: $udn at $location"
echo "discoverer: $discover"

echo "---- searching for MediaServer:1 on lo (3 s)"
$discover -i lo -t urn:schemas-upnp-org:device:MediaServer:1 -n 3 > "$work/found.out" 2>&1 || true
cat "$work/found.out"
grep -q "USN: *$udn::urn:schemas-upnp-org:device:MediaServer:1" "$work/found.out" ||
  fail "the discoverer did not report the server's UDN"
grep -q "Location: *$location" "$work/found.out" || fail "the discoverer did not report $location"
echo "PASS: found $udn at $location"

echo "---- watching upnp:rootdevice while the server stops"
$discover -i lo -t upnp:rootdevice -n 6 > "$work/watch.out" 2>&1 &
finder=$!
i=0
until grep -q "resource available" "$work/watch.out"; do
  i=$((i + 1))
  [ $i -le 40 ] || fail "the discoverer did not see the root device"
  sleep 0.1
done
kill -TERM "$server"
wait "$server" || true
server=
wait "$finder" || true
finder=
cat "$work/watch.out"
grep -A1 "resource unavailable" "$work/watch.out" | grep -q "USN: *$udn::upnp:rootdevice" ||
  fail "the discoverer did not see the byebye"
grep -q "mediaserver: stopped" "$work/server.out" || fail "the server did not stop cleanly"
echo "PASS: byebye of $udn seen after SIGTERM"
