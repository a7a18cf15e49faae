#!/bin/sh
# Installs the Debian packages the build and the tests need, when they are missing. Needs root
# to install; without root it only reports what is missing.
set -eu
# gupnp-tools brings gssdp-discover for the SSDP check (scripts/gssdp-check.sh); gir1.2-gssdp-1.6
# and python3-gi keep its stand-in, scripts/gssdp_discover.py, runnable (TW_GSSDP_DISCOVER=python).
need="cmake g++ make pkgconf binutils python3 googletest libgtest-dev libgmock-dev libbenchmark-dev iproute2 util-linux gupnp-tools gir1.2-gssdp-1.6 python3-gi"
# Real servers the client is tested against (tests/httpclient/exchange_test.cpp and
# tests/interop/minidlna_test.cpp); the tests start them themselves inside the private namespace.
need="$need nginx nodejs minidlna"
# Control points and media for tests/interop/control_points.sh (GUPnP through Python, test files
# written by ffmpeg) and a real browser for the status page.
need="$need gir1.2-gupnp-1.6 gir1.2-gupnp-av-1.0 ffmpeg chromium"
# strace counts the system calls of a request (tests/mediaserver/system_calls.sh).
need="$need strace"
# The libraries the XML benchmark compares against (make bench).
if [ "${1:-}" = "--bench" ]; then
  need="$need libxml2-dev libexpat1-dev libpugixml-dev"
fi
if [ "${1:-}" = "--check" ]; then
  need="$need clang-14 clang-format-14 libclang-rt-14-dev g++-arm-linux-gnueabihf qemu-user android-liblog-dev"
fi
missing=""
for p in $need; do
  dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"
done
# The node control point's modules come from npm's registry, so they are fetched here, outside
# the namespace the tests run in (only for the plain build that make test uses).
prepare_interop() {
  if [ -z "${1:-}" ]; then
    sh "$(dirname "$0")/prepare-interop.sh" "${TW_BUILD_DIR:-build}"
  fi
}
if [ -z "$missing" ]; then
  prepare_interop "${1:-}"
  exit 0
fi
if [ "$(id -u)" != 0 ]; then
  echo "missing Debian packages:$missing (run as root to install them)" >&2
  exit 1
fi
echo "installing:$missing"
# Servers must never start on the real network while they are installed: without a policy of the
# machine's own, one that refuses every service start is in place for the installation.
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d
  chmod 755 /usr/sbin/policy-rc.d
  trap 'rm -f /usr/sbin/policy-rc.d' EXIT
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq || true
apt-get install -y -qq --no-install-recommends $missing
prepare_interop "${1:-}"
