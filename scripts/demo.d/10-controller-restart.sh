#!/usr/bin/env bash
# The main story: a controller restarts, 1,000 hosts are withdrawn and published again, and no packet is lost.
set -euo pipefail
agent=$VCC_BUILD/agent/main/vxlan-agent
journal=$VCC_TOP/examples/controller-restart.jsonl

python3 - "$journal" >"$VCC_SCRATCH/journal.jsonl" <<'PY'
import json, sys
# The example itself, with a look at the state after each of its steps.
looks = [{"dump": "/client/perVni"}, {"dump": "/receivedHosts"}, {"dump": "/l2Rib/hosts"}, {"dump": "/clientView"}]
for line in open(sys.argv[1], encoding="utf-8"):
    if line.startswith("#"):
        continue
    step = json.loads(line)
    print(line, end="")
    if "patch" in step or step.get("turns") or "convergenceStatus" in step.get("expect", {}):
        for look in looks:
            print(json.dumps({"turns": 0, **look}))
PY
"$agent" replay "$VCC_SCRATCH/journal.jsonl" >"$VCC_SCRATCH/states" 2>"$VCC_SCRATCH/summary"

python3 - "$VCC_SCRATCH/states" <<'PY'
import json, sys
# One row for each look: four lines of output.
lines = [json.loads(line) for line in open(sys.argv[1], encoding="utf-8")]
told = ["the switch becomes a client, its VLANs are mapped", "the controller is not converging",
        "the controller publishes 1,000 hosts", "it has restarted, and converges", "its old VNIs are withdrawn",
        "it publishes again: the first third", "the second third", "all but the ten that are gone for good",
        "the convergence ends; both jobs are due", "the next turn: the paced job runs a slice",
        "the job has come to its end"]
print(f"   {'what happens':<50} {'VNIs':>4} {'published':>9} {'marked':>6} {'exported':>8} {'deleted':>7}  converging")
most = 0
for row, text in enumerate(told):
    vnis, received, exported, view = lines[4 * row:4 * row + 4]
    entries = [host for vlan in received.values() for host in vlan.values()]
    marked = sum(host["markedForDel"] for host in entries)
    hosts = sum(len(vlan) for vlan in exported.values())
    most = max(most, hosts)
    print(f"   {text:<50} {len(vnis):>4} {len(entries) - marked:>9} {marked:>6} {hosts:>8} {most - hosts:>7}  "
          f"{'yes' if view['convergenceInProgress'] else 'no'}")
PY
echo "   $(cat "$VCC_SCRATCH/summary")"
echo "   Every host that came back forwarded all the time. Look next: examples/*.jsonl, each with its expectations."
