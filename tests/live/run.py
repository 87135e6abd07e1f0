#!/usr/bin/env python3
"""Runs one scenario of `vxlan-agent run` as a whole.

    run.py --agent FILE --vxlanctl FILE --memtab FILE FILE.SCENARIO

Ends with 0 when it went well, 1 when it did not, 77 when something that it needs is not installed; then it says what.
"""

import argparse
import importlib
import os
import sys
import time
import traceback

from rig import Failure, Rig, Skip


def main():
    parser = argparse.ArgumentParser(description="Runs one scenario.")
    for name in ("agent", "vxlanctl", "memtab"):
        parser.add_argument("--" + name, required=True, metavar="FILE", help=f"the program {name}")
    parser.add_argument("scenario", help="such as follow.a_database_is_killed_and_started_again")
    options = parser.parse_args()
    module, name = options.scenario.split(".")
    scenario = getattr(importlib.import_module(module), "scenario_" + name)
    rig = Rig({name: os.path.realpath(getattr(options, name)) for name in ("agent", "vxlanctl", "memtab")})
    began = time.monotonic()
    try:
        scenario(rig)
        print(f"well, after {time.monotonic() - began:.1f} s")
        return 0
    except Skip as skip:
        print(f"skipped: {skip}")
        return 77
    except Exception as failure:  # whatever it is, with what the programs said
        print(rig.logs())
        if not isinstance(failure, Failure):
            traceback.print_exc(file=sys.stdout)
        print(f"FAILED after {time.monotonic() - began:.1f} s: {failure}")
        return 1
    finally:
        rig.close()


if __name__ == "__main__":
    sys.exit(main())
