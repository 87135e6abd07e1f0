"""What every scenario stands on: a folder of its own, processes that end with it, the agent, and readers of its table."""

import ctypes
import json
import mmap
import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time

PATIENCE = 60  # seconds; what has not happened by then will not
PATHS = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"


class Failure(Exception):
    """What was to be is not."""


class Skip(Exception):
    """Something that the scenario needs is not installed."""


def check(truth, what):
    if not truth:
        raise Failure(what() if callable(what) else what)


def program(name):
    """The path of an installed program."""
    path = shutil.which(name, path=PATHS)
    if path is None:
        raise Skip(f"{name} is not installed")
    return path


def until(what, condition, patience=PATIENCE):
    """Waits for a condition, and returns what it gave."""
    deadline = time.monotonic() + patience
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > deadline:
            raise Failure(f"did not come about in {patience} s: {what}")
        time.sleep(0.01)


def end_with_parent():
    """What a child process does first: it ends with this one."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Rig:
    """The folder of a scenario and everything that runs in it."""

    def __init__(self, programs):
        self.programs = programs  # of the build: "agent", "vxlanctl", "memtab"
        self.folder = tempfile.mkdtemp(prefix="vxlan-live-")
        self.table = "/" + os.path.basename(self.folder)
        self.processes = []
        self.closing = []

    def path(self, name):
        return os.path.join(self.folder, name)

    def text(self, name):
        """What is in a file of the folder, nothing if it is not there."""
        try:
            with open(self.path(name), encoding="utf-8", errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def start(self, name, command, **more):
        """Starts a process; what it says is in NAME.log."""
        with open(self.path(name + ".log"), "ab") as log:
            more.setdefault("stdout", log)
            more.setdefault("stdin", subprocess.DEVNULL)
            process = subprocess.Popen(command, stderr=log, preexec_fn=end_with_parent, **more)
        self.processes.append(process)
        return process

    def run(self, command, **more):
        """Runs a process to its end and returns what it printed."""
        done = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE, check=False, **more)
        check(done.returncode == 0, f"{' '.join(command)}: {done.returncode} {done.stderr.strip()}")
        return done.stdout

    def disk(self, name, size):
        """A folder that holds so much and no more."""
        path = self.path(name)
        os.mkdir(path)
        done = subprocess.run([program("mount"), "-t", "tmpfs", "-o", f"size={size}", "vxlan-live", path],
                              capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise Skip(f"a small disk cannot be mounted: {done.stderr.strip()}")
        self.closing.append(lambda: subprocess.run([program("umount"), path], check=True))
        return path

    def logs(self):
        names = sorted(name for name in os.listdir(self.folder) if name.endswith(".log"))
        return "".join(f"--- {name}\n{self.text(name)[-4000:]}" for name in names)

    def close(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
            process.wait()
        for action in self.closing:
            action()
        for name in os.listdir("/dev/shm"):
            if name.startswith(self.table[1:]):
                os.unlink("/dev/shm/" + name)
        shutil.rmtree(self.folder, ignore_errors=True)


def kill(process):
    """As the power cut does it."""
    process.kill()
    process.wait()


class Lines:
    """A unix socket on which each line is a JSON document."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        try:
            self.socket.connect(path)  # waits where many wait to be let in; with a time limit it would not
        except OSError:
            self.socket.close()
            raise
        self.socket.settimeout(PATIENCE)
        self.file = self.socket.makefile("rwb")

    def say(self, request):
        self.file.write(json.dumps(request).encode() + b"\n")
        self.file.flush()

    def hear(self):
        return json.loads(self.file.readline())

    def ask(self, request):
        self.say(request)
        return self.hear()

    def close(self):
        self.file.close()
        self.socket.close()


class Agent:
    """`vxlan-agent run`, with a control socket and a host table of its own."""

    def __init__(self, rig, *options, name="agent", prefix=()):
        self.rig = rig
        self.name = name
        self.prefix = prefix  # what the command line begins with
        self.socket = rig.path(name + ".ctl")
        self.options = [*options, "--socket", self.socket, "--table", rig.table]
        self.process = None
        self.lines = None

    def follows(self, *remotes, quiet=0.3):
        """Follows a database, and ends a convergence soon."""
        self.options += ["--ovsdb", ",".join(remotes), "--switch", "leaf1", "--converge-quiet", str(quiet)]
        return self

    def begin(self):
        """Starts it without waiting for anything."""
        self.process = self.rig.start(self.name, [*self.prefix, self.rig.programs["agent"], "run", *self.options])

    def start(self):
        self.begin()
        until("the agent answers", self.answers)
        return self

    def answers(self):
        check(self.process.poll() is None, lambda: f"the agent has ended: {self.log()[-2000:]}")
        try:
            return "value" in self.ask({"get": "/agent/uptime"})
        except OSError:
            return False

    def ask(self, request):
        if self.lines is None:
            self.lines = Lines(self.socket)
        try:
            return self.lines.ask(request)
        except (OSError, ValueError):
            self.lines.close()
            self.lines = None
            raise

    def get(self, pointer, absent=None):
        answer = self.ask({"get": pointer})
        return answer.get("value", absent)

    def database(self):
        """The agent's report on its session with the database."""
        return self.get("/agent/ovsdb", {})

    def following(self):
        """The database's state is in, settled, and carried out."""
        status = self.database()
        return (status["session"] == "following" and not status["converging"]
                and not self.get("/output/clientView/convergenceInProgress")
                and not self.get("/agent/waitingForController"))

    def problems(self):
        """`vxlanctl show problems`, as text."""
        done = subprocess.run([self.rig.programs["vxlanctl"], "--socket", self.socket, "show", "problems"],
                              capture_output=True, text=True, timeout=PATIENCE, check=False)
        check(done.returncode in (0, 1), f"vxlanctl show problems: {done.stderr}")
        return done.stdout

    def log(self):
        return self.rig.text(self.name + ".log")

    def hang_up(self):
        if self.lines is not None:
            self.lines.close()
            self.lines = None

    def kill(self):
        self.hang_up()
        kill(self.process)

    def stop(self):
        self.hang_up()
        self.process.terminate()
        check(self.process.wait(PATIENCE) == 0, lambda: f"the agent ended with {self.process.returncode}")


def births(table):
    """(VLAN, MAC) to the turn in which it was born, of the hosts in a table: see "Life of a slot" in docs/memtab.md."""
    with open("/dev/shm" + table, "rb") as file, mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ) as memory:
        slot_bytes, slots_at = struct.unpack_from("<I", memory, 24)[0], struct.unpack_from("<Q", memory, 80)[0]
        used = struct.unpack_from("<I", memory, 1280 + 68)[0]
        found = {}
        for at in range(slots_at, slots_at + used * slot_bytes, slot_bytes):
            life, mac, vlan = struct.unpack_from("<Q6sH", memory, at + 8)
            if life & 3 == 1:
                found[(vlan, mac.hex(":"))] = life >> 3
        return found


class Reader:
    """Another process that follows the table in shared memory, `memtab follow`, and what it has seen."""

    def __init__(self, rig, whole=lambda host: True):
        self.whole = whole  # says whether a host is one that somebody has written
        self.hosts = {}     # (VLAN, MAC) to the host, as it is now
        self.torn = []
        self.changes = 0
        self.table = rig.table
        self.births = {}    # what was there when it marked, and since which turn
        self.gone = set()   # everything that was away at a time
        self.shown = set()  # since the last line that completes a listing
        self.process = rig.start(
            "reader", [rig.programs["memtab"], "follow", rig.table, "--json", "--interval", "1"], stdout=subprocess.PIPE)
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        for line in self.process.stdout:
            event = json.loads(line)
            if event["event"] == "complete":
                for key in self.hosts.keys() - self.shown:
                    self._away(key)
                self.shown = set()
                continue
            self.changes += 1
            key = (event["vlan"], event["mac"])
            if event["event"] == "is":
                if not self.whole(event):
                    self.torn.append(event)
                self.hosts[key] = event
                self.shown.add(key)
            else:
                self._away(key)

    def _away(self, key):
        self.gone.add(key)
        self.hosts.pop(key, None)
        self.shown.discard(key)

    def sees(self, vlan, mac):
        return until(f"the reader sees {mac} in VLAN {vlan}", lambda: self.hosts.get((vlan, mac)))

    def vteps(self):
        """(VLAN, MAC) to VTEP."""
        return {key: host["vtep0"] for key, host in dict(self.hosts).items()}

    def marks(self):
        """From now on it would also find out what is away for less than a look takes."""
        self.births = births(self.table)

    def never_missed(self, keys):
        # A record that was away and came back is born in a later turn; one that was only replaced, or deleted and added
        # within one turn, is not.
        now = births(self.table)
        reborn = {key for key in self.births.keys() & set(keys) if now.get(key) not in (0, self.births[key])}
        missed = sorted(reborn | self.gone.intersection(keys))
        check(not missed, f"{len(missed)} hosts were away for a moment: {missed[:5]}")
