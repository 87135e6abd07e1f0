"""The host table in shared memory, and what happens to it behind the agent's back."""

import os
import signal
import struct
import subprocess

from database import Published, Server, behind, mac
from rig import PATIENCE, Agent, Reader, Skip, check, until

MANY = [mac(number) for number in range(1, 301)]
STRANGER = 65533


def _shared(name):
    return "/dev/shm/" + name.lstrip("/")


def _damage(name):
    """All bucket heads of a table lead outside of it."""
    with open(_shared(name), "r+b") as file:
        description = file.read(1280)
        buckets, heads_at = struct.unpack_from("<I", description, 40)[0], struct.unpack_from("<Q", description, 72)[0]
        file.seek(heads_at)
        file.write(b"\x11" * 4 * min(buckets, 4096))


def _following(rig):
    database = Server(rig).start()
    controller = Published(database.session())
    controller.hosts(10, behind(MANY, ["10.0.0.2"]))
    agent = Agent(rig).follows(database.remote).start()
    until("the agent follows", agent.following)
    return database, controller, agent


def _sees_all(reader, count):
    until(f"the reader sees {count}", lambda: len(reader.vteps()) == count)


def _set_aside(rig, agent):
    until("the damaged table is set aside", lambda: os.path.exists(_shared(rig.table) + ".damaged"))
    check(not os.path.exists(_shared(rig.table) + ".new"), "the new table has its name")
    check("table-damaged" in agent.problems(), f"it is told: {agent.problems()}")


def scenario_a_damaged_table_is_set_aside_at_the_start(rig):
    database, controller, agent = _following(rig)
    reader = Reader(rig)
    _sees_all(reader, len(MANY))
    agent.stop()
    database.kill()
    _damage(rig.table)

    agent.start()
    until("the damage is told", lambda: "table-damaged" in agent.problems())
    check(len(reader.vteps()) == len(MANY), "the reader keeps what it has while no database answers")
    check(not os.path.exists(_shared(rig.table) + ".damaged"), "and so does the name")

    database.start()
    until("the agent follows", agent.following)
    _set_aside(rig, agent)
    _sees_all(reader, len(MANY))
    agent.stop()
    agent.start()
    until("the agent follows", agent.following)
    check(agent.problems().find("table-damaged") < 0, "the next start finds a whole one")


def scenario_a_table_damaged_under_a_running_agent_is_replaced(rig):
    _, controller, agent = _following(rig)
    reader = Reader(rig)
    _sees_all(reader, len(MANY))
    _damage(rig.table)
    controller.hosts(10, behind([mac(1000)], ["10.0.0.3"]))
    _set_aside(rig, agent)
    _sees_all(reader, len(MANY) + 1)
    check(reader.vteps()[(10, mac(1000))] == "10.0.0.3", "what was written when the damage was met is there")


def scenario_a_truncated_table_ends_the_agent_with_a_message(rig):
    _, controller, agent = _following(rig)
    os.truncate(_shared(rig.table), 0)
    controller.hosts(10, behind([mac(1000)], ["10.0.0.3"]))
    agent.hang_up()
    check(agent.process.wait(PATIENCE) == 2, f"it ends with 2: {agent.process.returncode}")
    check("was truncated while it was in use" in agent.log(), f"and says why: {agent.log()[-500:]}")
    agent.start()
    until("the agent follows", agent.following)
    reader = Reader(rig)
    _sees_all(reader, len(MANY) + 1)


def scenario_a_strangers_table_is_refused_by_name(rig):
    if os.geteuid() != 0:
        raise Skip("only root can play another user")
    with open(_shared(rig.table), "wb"):
        pass
    os.chown(_shared(rig.table), STRANGER, STRANGER)
    agent = Agent(rig)
    agent.begin()
    check(agent.process.wait(PATIENCE) == 2, "it does not start")
    check(f"memtab {rig.table}: not to be trusted: it belongs to" in agent.log(), f"it says whose: {agent.log()}")
    for command in (["memtab", "info", rig.table], ["vxlanctl", "--table", rig.table, "show", "hosts"]):
        done = subprocess.run([rig.programs[command[0]], *command[1:]], capture_output=True, text=True, check=False)
        check(done.returncode != 0 and "not to be trusted" in done.stderr, f"{command}: {done}")
    # Named as the owner's it is as good as one's own.
    agent = Agent(rig, "--table-owner", str(STRANGER)).start()
    rig.run([rig.programs["memtab"], "info", rig.table])
    agent.stop()


def scenario_no_strangers_lock_keeps_the_agent_from_starting(rig):
    if os.geteuid() != 0:
        raise Skip("only root can play another user")
    os.chmod(rig.folder, 0o755)
    agent = Agent(rig).start()
    agent.stop()
    program = ("import fcntl, os, sys, time\n"
               "os.setgid(65533); os.setuid(65533)\n"
               "held = [open(sys.argv[1], 'rb'), os.open(sys.argv[2], os.O_RDONLY)]\n"
               "[fcntl.flock(file, fcntl.LOCK_EX) for file in held]\n"
               "fcntl.lockf(held[0], fcntl.LOCK_SH)\n"
               "print('held', flush=True)\n"
               "time.sleep(1000)\n")
    stranger = rig.start("stranger", ["python3", "-c", program, _shared(rig.table), rig.folder], stdout=subprocess.PIPE)
    check(stranger.stdout.readline() == b"held\n", lambda: rig.logs())
    agent.start()
    second = Agent(rig, name="second")
    second.begin()
    check(second.process.wait(PATIENCE) == 2, "a second agent does not start")
    check(f"another writer has it: process {agent.process.pid} (vxlan-agent)" in second.log(),
          f"and is told of the first: {second.log()}")
    agent.stop()


def _replays():
    return {name for name in os.listdir("/dev/shm") if name.startswith("vxlan-agent-replay-")}


def _replay(rig, name):
    """A replay that waits for its second line, and the name of its table."""
    process = rig.start(name, [rig.programs["agent"], "replay", "-"], stdin=subprocess.PIPE)
    return process, until("it has a table", lambda: next(
        (table for table in _replays() if table.startswith(f"vxlan-agent-replay-{process.pid}-") and "." not in table), None))


def scenario_tables_of_dead_replays_go_and_those_of_living_ones_stay(rig):
    living, kept = _replay(rig, "living")
    for cleaner in ("replay", "run"):
        dead, left = _replay(rig, "dead")
        dead.send_signal(signal.SIGKILL)
        dead.wait()
        # Of a process with a number that is in use again.
        again = f"vxlan-agent-replay-{os.getpid()}-1"
        with open(_shared(again), "wb"):
            pass
        check({left, again} <= _replays(), "they are left")
        if cleaner == "replay":
            rig.run([rig.programs["agent"], "replay", "/dev/null"])
        else:
            Agent(rig).start().stop()
        gone = {left, left + ".lock", again} & _replays()
        check(not gone, f"{cleaner} removes what dead ones left: {gone}")
        check(kept in _replays(), "and nothing of a living one")
    living.stdin.close()
    check(living.wait(PATIENCE) == 0, "the living one ends well")
    check(kept not in _replays() and kept + ".lock" not in _replays(), "and takes its table along")
