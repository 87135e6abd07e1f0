#!/usr/bin/env python3
"""Makes the recording again that is kept among the tests, and what its replay prints.

    recorded.py --agent FILE --vxlanctl FILE --memtab FILE

It needs a database server. The journal ends with what the agent itself said at the end, as an expectation, and with a dump.
"""

import argparse
import json
import os
import subprocess
import sys

from database import Published, Server, behind, mac, published
from rig import Agent, Reader, Rig, check, until

HERE = os.path.dirname(os.path.realpath(__file__))
JOURNAL = os.path.join(HERE, "recorded.jsonl")
OUTPUT = os.path.join(HERE, "recorded.out")


def dump(agent):
    """The output document, as `vxlanctl dump` prints it."""
    return json.loads(agent.rig.run([agent.rig.programs["vxlanctl"], "--socket", agent.socket, "dump", "/output"]))


def timeless(document):
    """Without the times at which hosts were written, which are those of the switch or of virtual time."""
    if isinstance(document, dict):
        return {name: timeless(value) for name, value in document.items() if name != "lastUpdateTime"}
    return document


def record(rig):
    """Records an agent while a database is populated, killed, started again, and changed. Returns the journal and the
    output document at the end."""
    database = Server(rig).start()
    agent = Agent(rig, "--record", rig.path("journal")).follows(database.remote).start()
    reader = Reader(rig)
    controller = Published(database.session(), vlans=(10, 20, 30))
    macs = [mac(number) for number in range(1, 41)]
    controller.hosts(10, behind(macs, ["10.0.0.2", "10.0.0.3"]))
    controller.hosts(20, behind(macs[:20], ["10.0.0.3", "10.0.0.1"]))  # 10.0.0.1 is the switch's own
    controller.flood(10, "10.0.0.2")
    controller.flood(20, "10.0.0.3")
    until("the agent follows", agent.following)
    controller.withdraw(10, macs[0])
    controller.hosts(10, {macs[0]: "10.0.0.4"})  # moved
    until("the move is seen", lambda: reader.hosts.get((10, macs[0]), {}).get("vtep0") == "10.0.0.4")

    database.kill()
    aside = Server(rig, "aside", create=False)  # the same rows, where the agent does not see them change
    aside.file = database.file
    controller.session = aside.start().session()
    for address in macs[5:10]:
        controller.withdraw(10, address)
    controller.hosts(30, behind(macs[30:], ["10.0.0.4"]))
    aside.kill()
    until("the agent has lost the database", lambda: agent.database()["session"] != "following")
    database.start()
    remote = {key: vtep for key, vtep in published(database.session()).items() if vtep != "10.0.0.1"}
    until("the table is what the database publishes", lambda: reader.vteps() == remote)
    until("the agent follows again", agent.following)
    output = dump(agent)
    agent.stop()
    return rig.text("journal"), output


def main():
    parser = argparse.ArgumentParser(description="Makes the kept recording anew.")
    for name in ("agent", "vxlanctl", "memtab"):
        parser.add_argument("--" + name, required=True, metavar="FILE", help=f"the program {name}")
    options = parser.parse_args()
    rig = Rig({name: os.path.realpath(getattr(options, name)) for name in ("agent", "vxlanctl", "memtab")})
    try:
        journal, output = record(rig)
        with open(JOURNAL, "w", encoding="utf-8") as file:
            file.write("# An agent below a real database that was populated, killed, and started again with other rows.\n"
                       "# Made by tests/live/recorded.py; what the replay prints is in recorded.out.\n")
            file.write(journal)
            file.write("# What the agent itself said at the end.\n")
            file.write(json.dumps({"expect": timeless(output)}, sort_keys=True) + '\n{"dump":true}\n')
        done = subprocess.run([rig.programs["agent"], "replay", JOURNAL], capture_output=True, text=True, check=False)
        check(done.returncode == 0, done.stderr)
        with open(OUTPUT, "w", encoding="utf-8") as file:
            file.write(done.stdout)
        print(done.stderr.strip())
        return 0
    finally:
        rig.close()


if __name__ == "__main__":
    sys.exit(main())
