#!/bin/sh
# tarnwick-config clients against a private appdata directory: the client table file a host
# would read is written, listed, edited and emptied, and the client types come from the shipped
# resource beside the tool.
#
#   sh tests/tools/config_clients.sh TOOL CLIENTS_DB     exit 0 pass, 1 fail
set -eu
tool=$1
types_file=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/tw-config-clients.XXXXXX")
trap 'rm -rf "$work"' EXIT
data=$work/clients.data
failures=0

fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# run EXPECTED_EXIT ARGS...: runs the tool with the private configuration; output in $out.
run() {
  want=$1
  shift
  status=0
  out=$("$tool" clients "$@" -appdata "$work" -inifile "$work/tarnwick.ini" \
    < /dev/null 2>&1) || status=$?
  [ "$status" -eq "$want" ] || fail "clients $*: exit $status, expected $want; output: $out"
}
expect() { # expect TEXT: $out holds TEXT
  case $out in *"$1"*) ;; *) fail "expected \"$1\" in: $out" ;; esac
}
expect_not() {
  case $out in *"$1"*) fail "did not expect \"$1\" in: $out" ;; esac
}
# list_row MAC: the list line of that client, or nothing.
list_row() {
  run 0 list
  printf '%s\n' "$out" | grep -F "$1" || true
}

mac=00:11:22:33:44:55
other=AA:BB:CC:DD:EE:FF

# ---- types: every named entry of the shipped file, numbered in file order -----------------------
run 0 types
expect "001  Unknown device"
expect "002  DLNA device"
shipped=$(grep -c '^NA:' "$types_file")
listed=$(printf '%s\n' "$out" | grep -cE '^[0-9]{3}  ')
[ "$listed" -eq "$shipped" ] || fail "types lists $listed types, the shipped file names $shipped"

# ---- an empty table ----------------------------------------------------------------------------
run 0 list
expect "no clients"
[ ! -e "$data" ] || fail "clients.data exists before any client was added"

# ---- add, list, the file ---------------------------------------------------------------------
run 0 add "$mac" 2
expect "$mac"
[ -s "$data" ] || fail "clients.data missing or empty after add"
grep -qF "$mac" "$data" || fail "clients.data does not hold $mac"
row=$(list_row "$mac")
case $row in
  "002 "*"DLNA device "*" $mac "*" yes "*"(default)"*) ;;
  *) fail "list row after add: '$row'" ;;
esac

# A second client with a view, given at once.
run 0 add "$other" 1 kids
row=$(list_row "$other")
case $row in
  "001 "*"Unknown device "*" $other "*" yes "*" kids "*) ;;
  *) fail "view not kept for a new client: '$row'" ;;
esac

# ---- rejected input: table of args, expected exit, expected text -------------------------------
before=$(od -An -tx1 "$data")
while IFS='|' read -r args want text; do
  # shellcheck disable=SC2086 # the args are words
  run "$want" $args
  [ -z "$text" ] || expect "$text"
done << 'CASES'
add 00:11:22 2|1|invalid MAC address
add 00-11-22-33-44-55 2|1|invalid MAC address
add 00:11:22:33:44:66 abc|2|TYPE must be a number
add 00:11:22:33:44:66 149|2|TYPE must be a number
add 00:11:22:33:44:66|2|usage
enable 00:11:22:33:44:66|1|not found!
delete 00:11:22:33:44:66|1|not found!
remove 00:11:22:33:44:55|2|usage
CASES
[ "$(od -An -tx1 "$data")" = "$before" ] || fail "a rejected request changed clients.data"

# ---- disable, enable, delete -------------------------------------------------------------------
run 0 disable "$mac"
expect "$mac"
row=$(list_row "$mac")
case $row in *" $mac "*" no "*) ;; *) fail "list row after disable: '$row'" ;; esac
run 0 disable "$mac"
expect "already disabled"
run 0 enable "$mac"
row=$(list_row "$mac")
case $row in *" $mac "*" yes "*) ;; *) fail "list row after enable: '$row'" ;; esac

run 0 delete "$mac"
expect "deleted!"
run 0 list
expect_not "$mac"
expect "$other"
grep -qF "$mac" "$data" && fail "clients.data still holds $mac after delete"
run 1 delete "$mac"
expect "not found!"

if [ "$failures" -ne 0 ]; then
  echo "$failures failure(s)" >&2
  exit 1
fi
echo "tarnwick-config clients: ok"
