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
# The discoverer is gssdp-discover (Debian's gupnp-tools) when installed, else
# scripts/gssdp_discover.py, the same command line and output over the GSSDP library through
# GObject introspection (gir1.2-gssdp-1.6, python3-gi). TW_GSSDP_DISCOVER=gssdp-discover or
# =python picks one (failing when it is missing); empty or unset picks the first available.
set -eu
here=$(cd "$(dirname "$0")" && pwd)

real_discoverer() {
  command -v gssdp-discover > /dev/null 2>&1 && echo gssdp-discover
}

python_discoverer() {
  for py in /usr/bin/python3 python3; do
    if "$py" -c 'import gi; gi.require_version("GSSDP", "1.6")' > /dev/null 2>&1; then
      echo "$py $here/gssdp_discover.py"
      return 0
    fi
  done
  return 1
}

discoverer() {
  case "${TW_GSSDP_DISCOVER:-}" in
    gssdp-discover) real_discoverer ;;
    python) python_discoverer ;;
    "") real_discoverer || python_discoverer ;;
    *)
      echo "gssdp-check: TW_GSSDP_DISCOVER must be gssdp-discover, python or empty" >&2
      return 1
      ;;
  esac
}

apt_install() {
  apt-get install -y -q --no-install-recommends "$@" > /dev/null 2>&1 || {
    apt-get update -qq > /dev/null 2>&1 || true
    apt-get install -y -q --no-install-recommends "$@" > /dev/null 2>&1
  }
}

install_discoverer() {
  discoverer > /dev/null && return 0
  if [ "$(id -u)" != 0 ]; then
    echo "gssdp-check: no SSDP discoverer; as root: apt-get install gupnp-tools" >&2
    return 0
  fi
  export DEBIAN_FRONTEND=noninteractive
  if [ "${TW_GSSDP_DISCOVER:-}" != python ]; then
    echo "gssdp-check: installing gupnp-tools"
    apt_install gupnp-tools && return 0
  fi
  echo "gssdp-check: installing GSSDP for python3" >&2
  apt_install gir1.2-gssdp-1.6 python3-gi || echo "gssdp-check: installation failed" >&2
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
  if [ -n "${TW_GSSDP_DISCOVER:-}" ]; then
    echo "FAIL: no discoverer installed for TW_GSSDP_DISCOVER=$TW_GSSDP_DISCOVER"
    exit 1
  fi
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
# Both discoverers print each event as a block:
#   resource available            resource unavailable
#     USN:      <usn>               USN:      <usn>
#     Location: <url>  (one or more)
# seen FILE EVENT USN [LOCATION]: whether FILE holds an EVENT block for USN (with LOCATION).
seen() {
  awk -v event="resource $2" -v usn="$3" -v location="${4:-}" '
    /^resource / { block = ($0 == event); got = 0; next }
    block && $1 == "USN:" { got = ($2 == usn); if (got && location == "") found = 1; next }
    block && got && $1 == "Location:" && $2 == location { found = 1 }
    END { exit !found }' "$1"
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
until grep -q "mediaserver: status page http://" "$work/server.out"; do
  i=$((i + 1))
  [ $i -le 50 ] || fail "server did not come up"
  sleep 0.1
done
location=$(sed -n 's/.*(description: \(http:[^)]*\)).*/\1/p' "$work/server.out" | head -n 1)
udn=$(sed -n 's/.*(\(uuid:[0-9a-f-]*\)) sharing.*/\1/p' "$work/server.out" | head -n 1)
echo "server: $udn at $location"
echo "discoverer: $discover"

echo "---- searching for MediaServer:1 on lo (3 s)"
$discover -i lo -t urn:schemas-upnp-org:device:MediaServer:1 -n 3 -m available \
  > "$work/found.out" 2>&1 || true
cat "$work/found.out"
seen "$work/found.out" available "$udn::urn:schemas-upnp-org:device:MediaServer:1" "$location" ||
  fail "the discoverer did not report the server's UDN at $location"
echo "PASS: found $udn at $location"

# gssdp-discover reports every resource still cached as unavailable when its -n time runs out,
# byebye or not. So the watcher gets far more time than the steps below can take (a bounded
# 4 + 10 + 5 s), the byebye counts only while the watcher still runs, and the watcher is then
# killed, which skips that report.
watch=30
echo "---- watching upnp:rootdevice while the server stops"
$discover -i lo -t upnp:rootdevice -n $watch -m all > "$work/watch.out" 2>&1 &
finder=$!
started=$(date +%s)
i=0
until seen "$work/watch.out" available "$udn::upnp:rootdevice"; do
  i=$((i + 1))
  [ $i -le 40 ] || fail "the discoverer did not see the root device"
  sleep 0.1
done
kill -TERM "$server"
i=0
while kill -0 "$server" 2> /dev/null; do
  i=$((i + 1))
  [ $i -le 100 ] || fail "the server did not stop within 10 s of SIGTERM"
  sleep 0.1
done
wait "$server" || true
server=
i=0
until seen "$work/watch.out" unavailable "$udn::upnp:rootdevice"; do
  i=$((i + 1))
  [ $i -le 50 ] || break
  sleep 0.1
done
elapsed=$(($(date +%s) - started))
kill -0 "$finder" 2> /dev/null || fail "the watcher exited early"
[ $elapsed -lt $((watch - 5)) ] ||
  fail "the watcher ran out of time (${elapsed} s) before the byebye could count"
kill -TERM "$finder" 2> /dev/null || true
wait "$finder" 2> /dev/null || true
finder=
cat "$work/watch.out"
seen "$work/watch.out" unavailable "$udn::upnp:rootdevice" ||
  fail "the discoverer did not see the byebye"
grep -q "mediaserver: stopped" "$work/server.out" || fail "the server did not stop cleanly"
echo "PASS: byebye of $udn seen after SIGTERM"
