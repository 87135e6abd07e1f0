"""What the measurements of a running agent have in common: their options, and the folder and processes around each."""

import argparse
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../tests/live"))

from rig import Rig, Skip  # noqa: E402

PROGRAMS = ("agent", "vxlanctl", "memtab")


def options_of(description, tiny, only=(), **numbers):
    """The options of a measurement: its numbers with their defaults, and in `tiny` those of a run that only shows that it runs."""
    parser = argparse.ArgumentParser(description=description)
    for name in PROGRAMS:
        parser.add_argument("--" + name, required=True, metavar="FILE", help=f"the program {name}")
    for name, default in numbers.items():
        parser.add_argument("--" + name, type=int, default=default, help=f"{default:,} by default")
    parser.add_argument("--tiny", action="store_true", help="a run that says nothing but that it runs")
    if only:
        parser.add_argument("--only", choices=only, help="one part")
    options = parser.parse_args()
    if options.tiny:
        vars(options).update(tiny)
    return options


def measure(options, *parts):
    """Carries out each part, a function of a rig, in a rig of its own. Returns the exit code: 77 where one cannot be here."""
    for part in parts:
        rig = Rig({name: os.path.realpath(getattr(options, name)) for name in PROGRAMS})
        try:
            part(rig)
        except Skip as skip:
            print(f"skipped: {skip}")
            return 77
        finally:
            rig.close()
    return 0
