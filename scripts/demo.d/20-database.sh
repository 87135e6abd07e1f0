#!/usr/bin/env bash
# The real thing: a controller database, the agent following it, and the database killed and started again.
set -euo pipefail
for program in ovsdb-server ovsdb-tool vtep-ctl; do
  command -v "$program" >/dev/null || {
    echo "   left out: $program is not there (packages openvswitch-vtep and openvswitch-common)"
    exit 77
  }
done
dir=$VCC_SCRATCH
agent=$VCC_BUILD/agent/main/vxlan-agent
ctl=("$VCC_BUILD/tools/vxlanctl/vxlanctl" --socket "$dir/control.sock" --table "/vxlan-demo-$$")
database() {
  ovsdb-server --no-chdir --pidfile="$dir/s.pid" --log-file="$dir/s.log" --unixctl="$dir/s.ctl" \
    --remote="punix:$dir/db.sock" "$dir/vtep.db" >/dev/null 2>&1 &
  server=$!
}
vtep() { vtep-ctl --timeout=10 --db="unix:$dir/db.sock" "$@"; }
await() {  # await TEXT COMMAND...: until the command's output has the text
  local text=$1
  shift
  for _ in $(seq 200); do
    "$@" 2>/dev/null | grep -q "$text" && return 0
    sleep 0.05
  done
  echo "   \"$text\" did not appear in: $*"
  return 1
}
trap 'kill -9 ${server:-} ${agentPid:-} ${watch:-} 2>/dev/null || true; rm -f "/dev/shm/vxlan-demo-$$"' EXIT

ovsdb-tool create "$dir/vtep.db" /usr/share/openvswitch/vtep.ovsschema
database
for _ in $(seq 100); do [ -S "$dir/db.sock" ] && break; sleep 0.05; done
vtep add-ps leaf1 -- set Physical_Switch leaf1 tunnel_ips=10.0.0.1 -- add-port leaf1 t0 \
  -- add-ls ls10 -- set Logical_Switch ls10 tunnel_key=5010 -- bind-ls leaf1 t0 10 ls10
vtep set-replication-mode ls10 source_node -- add-mcast-remote ls10 unknown-dst 10.0.0.2 \
  -- add-ucast-remote ls10 02:00:00:00:00:01 10.0.0.2 -- add-ucast-remote ls10 02:00:00:00:00:02 10.0.0.3

"$agent" run --socket "$dir/control.sock" --table "/vxlan-demo-$$" --ovsdb "unix:$dir/db.sock" --switch leaf1 \
  --trace-dir "$dir" 2>"$dir/agent.log" &
agentPid=$!
await 02:00:00:00:00:02 "${ctl[@]}" show hosts
echo "   vxlanctl show hosts:"
"${ctl[@]}" show hosts | sed 's/^/      /'
echo "   vxlanctl show floods:"
"${ctl[@]}" show floods | sed 's/^/      /'
echo "   vxlanctl explain 02:00:00:00:00:01:"
"${ctl[@]}" explain 02:00:00:00:00:01 | cut -c1-110 | sed 's/^/      /'

# A second process reads the shared-memory table all the while.
(
  looks=0
  while [ ! -e "$dir/enough" ]; do
    hosts=$("${ctl[@]}" show hosts --json)
    for mac in 02:00:00:00:00:01 02:00:00:00:00:02; do
      grep -q "$mac" <<<"$hosts" || { echo "$mac was missing" >>"$dir/missing"; }
    done
    looks=$((looks + 1))
    echo "$looks" >"$dir/looks"
  done
) &
watch=$!
echo "   the database is killed (SIGKILL), and started again"
kill -9 "$server"
wait "$server" 2>/dev/null || true
rm -f "$dir/db.sock" "$dir/s.ctl"
database
for _ in $(seq 100); do [ -S "$dir/db.sock" ] && break; sleep 0.05; done
vtep add-ucast-remote ls10 02:00:00:00:00:03 10.0.0.3
await 02:00:00:00:00:03 "${ctl[@]}" show hosts
touch "$dir/enough"
wait "$watch" || true
echo "   a host that was published after the restart is there; the reader looked $(cat "$dir/looks") times meanwhile"
if [ -s "$dir/missing" ]; then
  sort "$dir/missing" | uniq -c
  exit 1
fi
echo "   and no host that was published before and after was ever missing."
kill "$agentPid"
wait "$agentPid"
