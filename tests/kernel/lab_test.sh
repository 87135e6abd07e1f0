#!/usr/bin/env bash
# The test bed comes up without agents, is what it says, refuses to come up twice, and leaves nothing behind.
#
#   lab_test.sh LAB    LAB is the path of scripts/lab; ends with 77 when namespaces cannot be made

set -euo pipefail
lab=$1
export VCC_LAB_NAME=vxlabtest$$
VCC_LAB_DIR=$(mktemp -d)/lab
export VCC_LAB_DIR
unset VXLAN_AGENT

fail() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }
# has WORD COMMAND...: the command's output has the word in it.
has() {
  local word=$1 out
  shift
  out=$("$@" 2>&1) || true
  [[ $out == *"$word"* ]] || fail "'$*' does not say '$word' but: $out"
}

code=0
"$lab" up || code=$?
[ "$code" -ne 77 ] || exit 77
[ "$code" -eq 0 ] || fail "up ends with $code"
trap '"$lab" down' EXIT

has "16640, running" "$lab" status
has "leaf3      10.0.0.3, no agent" "$lab" status
has "10.0.0.254/24" "$lab" shell underlay ip addr show wire
has "mtu 1600" "$lab" shell leaf2 ip link show wire0
has "192.168.20.3/24" "$lab" shell h3b ip addr show eth0
has "ls20" "$lab" db list-ls
has "10.0.0.2" "$lab" db list-remote-macs ls10
has "runs already" "$lab" database start
"$lab" database kill
has "not running" "$lab" status
"$lab" database start
has "10.0.0.2" "$lab" db list-remote-macs ls10
has "start, stop or kill" "$lab" database
has "hardware_vtep" "$lab" shell leaf1 ovsdb-client list-dbs tcp:10.0.0.254:16640
has "is there already" "$lab" up
has "name one of" "$lab" shell nowhere

# As an agent leaves it.
table=/dev/shm/$VCC_LAB_NAME-leaf2
: >"$table"
trap - EXIT
"$lab" down
[ ! -e "$table" ] || fail "the host table $table is still there"
[ ! -d "$VCC_LAB_DIR" ] || fail "$VCC_LAB_DIR is still there"
[[ $(ip netns list) != *"$VCC_LAB_NAME"* ]] || fail "namespaces are still there"
