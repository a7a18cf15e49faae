#!/bin/sh
# Copies a build's shared library into BUILD_DIR/dist/ without its symbol table and debug
# sections (the exported dynamic symbols stay) and reports both sizes.
# Usage: sh scripts/strip-release.sh BUILD_DIR [TOOL_PREFIX]   (e.g. arm-linux-gnueabihf-)
set -eu
dir=$1
prefix=${2:-}
library=$(readlink -f "$dir/libtarnwick_upnp.so")
mkdir -p "$dir/dist"
out="$dir/dist/libtarnwick_upnp.so"
"${prefix}strip" --strip-unneeded -o "$out" "$library"
before=$(wc -c < "$library")
after=$(wc -c < "$out")
echo "libtarnwick_upnp.so: $before bytes as built, $after bytes stripped ($out)"
"${prefix}size" "$out"
# The stripped object must still export the whole API.
exported=$("${prefix}nm" -D --defined-only "$out" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sort -u | wc -l)
listed=$(grep -v '^#' scripts/exports.txt | grep -c .)
echo "exported symbols: $exported (scripts/exports.txt lists $listed)"
[ "$exported" -ge "$listed" ]
