#!/bin/sh
# Runs a command inside a private network namespace whose only interface is loopback, with
# multicast routed over lo, so tests and demos can never reach a real network.
set -eu
if [ "${TW_IN_NETNS:-}" != 1 ]; then
  TW_IN_NETNS=1 exec unshare --net --map-root-user /bin/sh "$0" "$@"
fi
ip link set lo up
ip link set lo multicast on
ip route add 239.0.0.0/8 dev lo src 127.0.0.1
exec "$@"
