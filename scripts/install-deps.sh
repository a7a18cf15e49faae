#!/bin/sh
# Installs the Debian packages the build and the tests need, when they are missing. Needs root
# to install; without root it only reports what is missing.
set -eu
# gupnp-tools brings gssdp-discover for the SSDP check (scripts/gssdp-check.sh); gir1.2-gssdp-1.6
# and python3-gi keep its stand-in, scripts/gssdp_discover.py, runnable (TW_GSSDP_DISCOVER=python).
need="cmake g++ make pkgconf binutils python3 googletest libgtest-dev libgmock-dev libbenchmark-dev iproute2 util-linux gupnp-tools gir1.2-gssdp-1.6 python3-gi"
# Real HTTP servers the client is tested against (tests/httpclient/real_servers_test.cpp).
need="$need nginx-light nodejs"
if [ "${1:-}" = "--check" ]; then
  need="$need clang-14 clang-format-14 libclang-rt-14-dev g++-arm-linux-gnueabihf qemu-user android-liblog-dev"
fi
missing=""
for p in $need; do
  dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" != 0 ]; then
  echo "missing Debian packages:$missing (run as root to install them)" >&2
  exit 1
fi
echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq || true
apt-get install -y -qq --no-install-recommends $missing
