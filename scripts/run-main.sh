#!/bin/sh
# The main job. The example media-server host is not built yet; until it is, say what this
# command will do and show the configuration tool that already works.
set -eu
cat <<'TXT'
Tarnwick UPnP SDK - main job

The example host (tarnwick-mediaserver) is not part of the build yet. When it lands, this command
will start it inside a private loopback-only network namespace on http://127.0.0.1:9000/,
announce a MediaServer over SSDP and share a small sample folder that the build makes.

What exists now: the library itself (build/libtarnwick_upnp.so) and its tests (make test).
TXT
