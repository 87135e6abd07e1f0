"""What SIGHUP takes up from the configuration file while the agent runs."""

import os
import signal
import stat

from database import Published, Server, mac
from rig import Agent, Reader, check, until


class Configured(Agent):
    """An agent with a configuration file."""

    def configure(self, **options):
        with open(self.rig.path("agent.conf"), "w", encoding="utf-8") as file:
            file.write("[run]\n" + "".join(f"{name.replace('_', '-')} = {value}\n" for name, value in options.items()))
        return self

    def start(self):
        self.options += ["--config", self.rig.path("agent.conf")]
        return super().start()

    def reload(self, *words):
        before = len(self.log())
        self.process.send_signal(signal.SIGHUP)
        until(f"the log says {words}", lambda: all(word in self.log()[before:] for word in words))


def scenario_another_database(rig):
    """The session moves over, and no host that both publish is ever missing."""
    databases = [Server(rig, name).start() for name in ("one", "two")]
    for database, vtep in zip(databases, ("10.0.0.2", "10.0.0.3")):
        Published(database.session()).hosts(10, {mac(number): vtep for number in range(50)})
    agent = Configured(rig).configure(ovsdb=f'["{databases[0].remote}"]', switch='"leaf1"', converge_quiet=0.2).start()
    until("the agent follows", agent.following)
    reader = Reader(rig)
    until("the hosts are there", lambda: set(reader.vteps().values()) == {"10.0.0.2"} and len(reader.vteps()) == 50)
    reader.marks()
    agent.configure(ovsdb=f'["{databases[1].remote}"]', switch='"leaf1"', converge_quiet=0.2)
    agent.reload("in effect now: ovsdb")
    until("the hosts are where the other one says", lambda: set(reader.vteps().values()) == {"10.0.0.3"})
    reader.never_missed({(10, mac(number)) for number in range(50)})
    check(agent.database()["remote"] == databases[1].remote, "the agent follows the other one")


def scenario_how_long_a_convergence_waits(rig):
    database = Server(rig).start()
    Published(database.session())
    agent = Configured(rig).configure(ovsdb=f'["{database.remote}"]', switch='"leaf1"', converge_quiet=1000).start()
    until("the rows are in", lambda: agent.get("/input/vlanVniMap/Vxlan1/10"))
    check(agent.database()["converging"], "the agent waits for quiet")
    agent.configure(ovsdb=f'["{database.remote}"]', switch='"leaf1"', converge_quiet=0.1, vti='"Vxlan2"')
    agent.reload("in effect now: converge-quiet", "in effect at the next start", "vti")
    until("the convergence has ended", agent.following)


def scenario_who_may_read(rig):
    agent = Configured(rig).configure(socket_read_all="false").start()
    check(stat.S_IMODE(os.stat(agent.socket).st_mode) == 0o600, "nobody else may read")
    agent.configure(socket_read_all="true")
    agent.reload("in effect now: socket-read-all")
    check(stat.S_IMODE(os.stat(agent.socket).st_mode) == 0o666, "everybody may read")
    agent.reload("the configuration is as it was")


def scenario_a_configuration_that_cannot_be(rig):
    """Nothing of it is taken up."""
    agent = Configured(rig).configure(socket_read_all="false").start()
    agent.configure(socket_read_all="true", socket_group='"no-such-group"')
    agent.reload("cannot be", "no-such-group", "goes on with the old one")
    agent.configure(socket_read_all="maybe")
    agent.reload("cannot be", "socket-read-all")
    check(stat.S_IMODE(os.stat(agent.socket).st_mode) == 0o600, "nobody else may read")
