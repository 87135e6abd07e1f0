#!/usr/bin/env python3
"""Shows the table of hosts that a VXLAN agent keeps in shared memory, in Python: all hosts, then the changes until
standard input ends, one look for each line of it.

    show-hosts.py NAME
"""

import sys

import vxlan_hosts


def main():
    if len(sys.argv) != 2:
        raise SystemExit("usage: show-hosts.py NAME")
    try:
        with vxlan_hosts.Hosts(sys.argv[1]) as hosts:
            print(f"{len(hosts)} hosts", flush=True)
            while True:
                for event, host in hosts.changes():
                    if event == vxlan_hosts.BEGIN:
                        print("= all hosts:")
                    elif event == vxlan_hosts.IS:
                        print(f"+ {host.mac}:{host.vlan} behind {host.vteps[0]}")
                    else:
                        print(f"- {host.mac}:{host.vlan}")
                print("told", flush=True)
                if not sys.stdin.readline():
                    return
    except vxlan_hosts.Error as error:
        raise SystemExit(f"show-hosts.py: {error}") from error


if __name__ == "__main__":
    main()
