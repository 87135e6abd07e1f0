"""The agent above the kernel's bridges and VXLAN devices, in a network namespace of its own."""

import os
import re
import subprocess
import threading

from database import Published, Server, behind, mac
from rig import Agent, Skip, check, program, until

MACS = [mac(number) for number in range(1, 201)]


class Namespace:
    """A network namespace, for as long as its process lives."""

    def __init__(self, rig):
        unshare, self.nsenter, self.bridge = program("unshare"), program("nsenter"), program("bridge")
        self.holder = rig.start("namespace", [unshare, "--net", program("tail"), "-f", "/dev/null"])
        until("there is a namespace", self._entered)
        self.prefix = [self.nsenter, "--target", str(self.holder.pid), "--net", "--"]

    def _entered(self):
        if self.holder.poll() is not None:
            raise Skip("a network namespace cannot be made here")
        return os.readlink(f"/proc/{self.holder.pid}/ns/net") != os.readlink("/proc/self/ns/net")

    def rows(self, device):
        """The MACs that a VXLAN device sends to a VTEP; none where there is no such device."""
        done = subprocess.run([*self.prefix, self.bridge, "fdb", "show", "dev", device], capture_output=True, text=True,
                              check=False)
        return set(re.findall(r"^(\S+) .*(?:dst|nhid) .*self", done.stdout, re.MULTILINE))


class Monitor:
    """What the kernel says about rows that go."""

    def __init__(self, rig, namespace):
        self.gone = []
        self.process = rig.start("monitor", [*namespace.prefix, "stdbuf", "-oL", namespace.bridge, "monitor", "fdb"],
                                 stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self._read, daemon=True).start()

    def hears(self, namespace, device):
        """Waits until it is there, by a row that comes and goes."""
        row = ["06:00:00:00:00:01", "dev", device, "dst", "10.0.0.9", "self"]

        def heard():
            for action in ("replace", "del"):
                subprocess.run([*namespace.prefix, namespace.bridge, "fdb", action, *row], check=False)
            return any(row[0] in gone for gone in self.gone)
        until("the monitor hears the kernel", heard)

    def _read(self):
        for line in self.process.stdout:
            if line.startswith("Deleted"):
                self.gone.append(line.strip())


def scenario_the_agent_is_killed_and_started_again(rig):
    """No row of a host that is published before and after ever leaves the kernel."""
    namespace = Namespace(rig)
    database = Server(rig).start()
    controller = Published(database.session())
    controller.hosts(10, behind(MACS, ["10.0.0.2", "10.0.0.3"]))
    controller.flood(10, "10.0.0.2")
    agent = Agent(rig, "--kernel", prefix=namespace.prefix).follows(database.remote).start()
    published = set(MACS)
    until("the kernel has all hosts", lambda: published <= namespace.rows("vx5010"))
    until("the agent follows", agent.following)
    agent.kill()
    monitor = Monitor(rig, namespace)
    monitor.hears(namespace, "vx5010")
    for address in MACS[:10]:
        controller.withdraw(10, address)
    controller.hosts(10, {mac(1000): "10.0.0.3"})
    check(published <= namespace.rows("vx5010"), "the kernel forwards meanwhile")
    published = {*MACS[10:], mac(1000)}
    agent.start()
    until("the kernel has what is published", lambda: namespace.rows("vx5010") & {*MACS, mac(1000)} == published)
    until("and the monitor has seen it", lambda: all(any(address in row for row in monitor.gone) for address in MACS[:10]))
    lost = [row for row in monitor.gone if any(address in row for address in published)]
    check(not lost, f"{len(lost)} rows were away for a moment: {lost[:3]}")
