#!/bin/sh
# Puts the node modules the interop control point needs (tests/interop/cp_node.js) into
# BUILD_DIR/interop-node, when they are not there yet. It needs the package registry, so it runs
# outside the private namespace (install-deps.sh calls it; make test then runs the tests inside);
# the tests themselves never install anything and skip that client when the modules are missing.
# A failed installation is reported, not fatal: only that one client is then skipped.
#   sh scripts/prepare-interop.sh [BUILD_DIR]   (default build)
set -eu
dir=${1:-build}/interop-node
if [ "${TW_IN_NETNS:-}" = 1 ]; then
  echo "prepare-interop: inside the private namespace there is no registry; run it outside" >&2
  exit 1
fi
if [ -f "$dir/node_modules/node-ssdp/package.json" ] &&
  [ -f "$dir/node_modules/upnp-device-client/package.json" ]; then
  exit 0
fi
if ! command -v npm > /dev/null 2>&1; then
  echo "prepare-interop: npm not found; the node control point will be skipped" >&2
  exit 0
fi
mkdir -p "$dir"
# Pinned: the control point relies on node-ssdp's socket set-up (it replaces it for loopback)
# and on upnp-device-client's callback API.
echo "prepare-interop: installing node-ssdp and upnp-device-client into $dir"
if ! (cd "$dir" && timeout 300 npm install --no-audit --no-fund --ignore-scripts --loglevel=error \
  node-ssdp@4.0.1 upnp-device-client@1.0.2 > npm.log 2>&1); then
  echo "prepare-interop: npm install failed (see $dir/npm.log); the node control point will be skipped" >&2
fi
exit 0
