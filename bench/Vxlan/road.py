#!/usr/bin/env python3
"""What a host costs on its road from the controller's table to shared memory, beside a fair minimum.

    bench/Vxlan/road.py build/release/bench/Vxlan/road_count

Prints the tables of docs/performance.md: instructions and cache lines missed a host (by callgrind, with a last
level of 1 MiB), and processor time as a ratio of the fused minimum (the least of some runs). Without valgrind the
counts are left out, with a message.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

FORMS = ("fused", "staged", "parts", "road")
PHASES = ("add", "update", "withdraw", "unchanged")
NAMES = {"unchanged": "publish again, unchanged"}


def forms_of(phase):
    """Only publishing is staged; everything else is the same in both forms of the minimum."""
    return [form for form in FORMS if form != "staged" or phase in ("add", "update")]


def counted(program, form, phase, hosts, vnis):
    """Instructions and cache lines missed, a host."""
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "out")
        subprocess.run(
            ["valgrind", "--tool=callgrind", "--toggle-collect=*counted*", "--cache-sim=yes", "--LL=1048576,16,64",
             "--callgrind-out-file=" + out, program, form, phase, str(hosts), str(vnis)],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with open(out, encoding="utf-8") as file:
            text = file.read()
    events = re.search(r"^events: (.*)$", text, re.M).group(1).split()
    totals = dict(zip(events, map(int, re.search(r"^(?:summary|totals): (.*)$", text, re.M).group(1).split())))
    return totals["Ir"] / hosts, (totals.get("DLmr", 0) + totals.get("DLmw", 0)) / hosts


def timed(program, form, phase, hosts, vnis, runs):
    """Nanoseconds of processor time a host, the least of the runs."""
    return min(float(subprocess.run([program, form, phase, str(hosts), str(vnis)], check=True,
                                    stdout=subprocess.PIPE).stdout) for _ in range(runs))


def table(title, sizes, value, text):
    """One row for each phase and size; the road's ratio to each other form behind it."""
    print("| %s | hosts | VNIs | fused | staged | parts | road | to fused | to staged | to parts |" % title)
    print("|---|---|---|---|---|---|---|---|---|---|")
    for phase in PHASES:
        for hosts, vnis in sizes:
            found = {form: value(form, phase, hosts, vnis) for form in forms_of(phase)}
            cells = [text % found[form] if form in found else "" for form in FORMS]
            ratios = ["%.2f" % (found["road"] / found[form]) if found.get(form) else "" for form in FORMS[:3]]
            print("| %s | %s | %s | %s |" % (NAMES.get(phase, phase), format(hosts, ","), format(vnis, ","),
                                             " | ".join(cells + ratios)), flush=True)
    print()


def main():
    """The whole comparison, or a small one where asked."""
    asked = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    asked.add_argument("program", help="road_count")
    asked.add_argument("--tiny", action="store_true", help="few hosts: whether it runs")
    asked.add_argument("--runs", type=int, default=5, help="runs of which the fastest counts")
    asked.add_argument("--no-time", action="store_true", help="the counts alone")
    asked = asked.parse_args()
    few, many = (500, 2000) if asked.tiny else (100_000, 1_000_000)
    vnis = 20 if asked.tiny else 1000
    if shutil.which("valgrind") is None:
        print("road.py: there is no valgrind; no instructions are counted", file=sys.stderr)
    else:
        known = {}

        def count(form, phase, hosts, in_vnis):
            key = (form, phase, hosts, in_vnis)
            if key not in known:
                known[key] = counted(asked.program, *key)
            return known[key]

        sizes = [(few, vnis), (few, 1)]
        table("instructions a host", sizes, lambda *key: count(*key)[0], "%.0f")
        table("cache lines missed a host", sizes, lambda *key: count(*key)[1], "%.1f")
    if not asked.no_time:
        runs = 1 if asked.tiny else asked.runs
        table("processor time, ns a host", [(few, vnis), (many, vnis), (many, 1)],
              lambda *key: timed(asked.program, *key, runs), "%.0f")


if __name__ == "__main__":
    main()
