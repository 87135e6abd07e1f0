#!/usr/bin/env python3
"""The two journals of an MLAG pair belong together: what the hardware of the one reports, change by change, is what
the other receives the status of its peer.

pair.py AGENT LEFT RIGHT
"""
import ipaddress
import json
import subprocess
import sys


def lines(path):
    with open(path, encoding="utf-8") as journal:
        return [json.loads(line) for line in journal if line.strip() and not line.startswith("#")]


def merged(target, patch):
    """RFC 7396."""
    if not isinstance(patch, dict):
        return patch
    target = dict(target) if isinstance(target, dict) else {}
    for member, value in patch.items():
        if value is None:
            target.pop(member, None)
        else:
            target[member] = merged(target.get(member), value)
    return target


def steps(statuses):
    """Each status that differs from the one before."""
    different = []
    for status in statuses:
        if not different or different[-1] != status:
            different.append(status)
    return different


def reported(agent, journal):
    """The hardware's BUM status after each line."""
    text = "".join(json.dumps(line) + "\n" + '{"dump": "/hardware"}\n' for line in journal)
    run = subprocess.run([agent, "replay", "-"], input=text, capture_output=True, text=True, check=True)
    return [json.loads(dump) for dump in run.stdout.splitlines()]


def told(journal):
    """The peer's BUM status before the first line and after each, in the form in which hardware reports its own."""
    document = {}
    for line in [{}, *journal]:
        document = merged(document, line.get("patch", {}))
        status = document.get("mlag", {}).get("bumStatus", {})
        yield {"bumReplicationMode": status.get("bumReplicationMode", 0),
               "bumVtepList": {vlan: {mac: {"bumVtepIpListType": entry.get("bumVtepIpListType", 0),
                                            "remoteVtepAddr": sorted((ip for ip, there in entry["remoteVtepAddr"].items()
                                                                      if there), key=ipaddress.ip_address)}
                                      for mac, entry in macs.items()}
                               for vlan, macs in status.get("bumVtepList", {}).items()}}


def main():
    agent, left, right = sys.argv[1:]
    want, have = steps(reported(agent, lines(left))), steps(told(lines(right)))
    if len(want) < 3 or want != have:
        sys.exit(f"{right} is told\n{json.dumps(have, indent=1)}\nof what {left} reports\n{json.dumps(want, indent=1)}")


main()
