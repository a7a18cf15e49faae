# Sourced by the scripts of tests/stress after they set `name` and `here`; takes the build
# directory from their first argument. Enters the loopback-only namespace (and, with
# stress_mount_ns=1, a private mount namespace), checks the example host is built, makes the
# work folder ($work/share, $work/data) and removes it on the way out, stopping the server
# started by start_server first. A script may define cleanup_extra to undo more.
root=$(cd "$here/../.." && pwd)
dir=$(cd "${1:-build}" && pwd)
if [ "${TW_IN_NETNS:-}" != 1 ]; then
  exec sh "$root/scripts/netns-run.sh" sh "$0" "$dir"
fi
if [ "${stress_mount_ns:-0}" = 1 ] && [ "${TW_IN_MOUNTNS:-}" != 1 ]; then
  TW_IN_MOUNTNS=1 exec unshare --mount --propagation private sh "$0" "$dir"
fi
bin=$dir/tarnwick-mediaserver
[ -x "$bin" ] || { echo "$name: $bin not built" >&2; exit 1; }

work=$(mktemp -d)
server=
cleanup_extra() { :; }
cleanup() {
  [ -n "$server" ] && kill -INT "$server" 2> /dev/null || true
  wait 2> /dev/null || true
  cleanup_extra
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
mkdir -p "$work/share" "$work/data"

# start_server PORT [OPTION...]: the example host on the work folder, its output in
# $work/server.out, its process in $server.
start_server() {
  port=$1
  shift
  "$bin" -httpport "$port" -folder "$work/share" -appdata "$work/data" "$@" \
    > "$work/server.out" 2>&1 &
  server=$!
}

# The server's last lines, for a failure (the Android log copies are left out).
server_tail() {
  echo "---- server output" >&2
  grep -v '^kt-' "$work/server.out" | tail -20 >&2
}
