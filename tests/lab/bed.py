"""The test bed of scripts/lab: three leaves with an agent each, two hosts behind each leaf, and a controller's database that
a scenario writes into. What the kernel does with packets is seen from the hosts and from the underlay."""

import contextlib
import ctypes
import itertools
import json
import os
import re
import signal
import socket
import struct
import subprocess
import threading

from database import Session
from rig import PATIENCE, Agent, Failure, Skip, check, program, until

LAB = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../scripts/lab")
CONFIG = LAB + ".d/agent.conf.in"
FLOOD = "00:00:00:00:00:00"
PORT = 7777
VLANS = {"a": 10, "b": 20}  # by the last letter of a host's name


def address(host):
    """The IP address of a host, such as h2a."""
    return f"192.168.{VLANS[host[2]]}.{host[1]}"


def mac(host):
    return f"02:00:00:00:{VLANS[host[2]]}:0{host[1]}"


def vtep(leaf):
    return f"10.0.0.{leaf}"


class Bed:
    """The bed, with everything in it running and settled."""

    def __init__(self, rig, environment=(), settled=True, leaves=3):
        self.rig = rig
        self.name = f"vxl{os.getpid()}"
        self.folder = rig.path("bed")
        self.environment = {**os.environ, **dict(environment), "VCC_LAB_NAME": self.name, "VCC_LAB_DIR": self.folder,
                            "VCC_LAB_LEAVES": str(leaves), "VXLAN_AGENT": rig.programs["agent"]}
        for name in ("ping", "tcpdump"):
            program(name)
        done = subprocess.run([LAB, "up"], env=self.environment, capture_output=True, text=True, check=False)
        if done.returncode == 77:
            raise Skip(done.stderr.strip())
        check(done.returncode == 0, lambda: f"lab up: {done.stdout} {done.stderr}")
        rig.closing.append(lambda: self.lab("down"))
        self.leaves = {number: Leaf(self, number) for number in range(1, leaves + 1)}
        for number in self.leaves:
            os.symlink(os.path.join(self.folder, f"leaf{number}/log"), rig.path(f"leaf{number}.log"))
        os.symlink(os.path.join(self.folder, "ovsdb.log"), rig.path("ovsdb.log"))
        self.controller = Controller(self)
        if settled:
            self.settle()

    def lab(self, *words, **environment):
        return self.rig.run([LAB, *words], env={**self.environment, **environment})

    def within(self, where):
        """What begins a command that runs in this namespace."""
        return [program("ip"), "netns", "exec", f"{self.name}-{where}"]

    def run(self, where, command):
        return self.rig.run([*self.within(where), *command.split()])

    @contextlib.contextmanager
    def inside(self, where):
        """The sockets that are made meanwhile are in this namespace."""
        libc = ctypes.CDLL(None, use_errno=True)
        with open("/proc/thread-self/ns/net", "rb") as home, open(f"/run/netns/{self.name}-{where}", "rb") as there:
            check(libc.setns(there.fileno(), 0) == 0, f"the namespace of {where} cannot be entered")
            try:
                yield
            finally:
                check(libc.setns(home.fileno(), 0) == 0, "there is no way back")

    def settle(self):
        """Everything that the controller has said so far is in the kernels."""
        for leaf in self.leaves.values():
            until(f"leaf {leaf.number} has settled", leaf.settled)

    def reaches(self, source, destination):
        """Whether one ping in three comes back."""
        done = subprocess.run([*self.within(source), "ping", "-n", "-c", "3", "-i", "0.2", "-W", "1", address(destination)],
                              capture_output=True, check=False, timeout=PATIENCE)
        return done.returncode == 0


class Leaf(Agent):
    """A leaf: its agent, and what its kernel has."""

    def __init__(self, bed, number):
        super().__init__(bed.rig, name=f"leaf{number}")
        self.bed = bed
        self.number = number
        self.socket = os.path.join(bed.folder, self.name, "control.sock")
        self.changes = {}  # of the environment that it is started in

    def follows_instead(self, remote):
        """From its next start on it follows another database."""
        with open(CONFIG, encoding="utf-8") as file:
            text = file.read().replace("@DATABASE@", remote)
        self.changes["VCC_LAB_CONFIG"] = self.rig.path(f"{self.name}.conf.in")
        with open(self.changes["VCC_LAB_CONFIG"], "w", encoding="utf-8") as file:
            file.write(text)

    def begin(self):
        self.bed.lab("agent", "start", str(self.number), **self.changes)

    def pid(self):
        with open(os.path.join(self.bed.folder, self.name, "pid"), encoding="utf-8") as file:
            return int(file.read())

    def answers(self):
        try:
            return "value" in self.ask({"get": "/agent/uptime"})
        except OSError:
            return False

    def kill(self):
        self.hang_up()
        self.bed.lab("agent", "kill", str(self.number))

    def stop(self):
        self.hang_up()
        self.bed.lab("agent", "stop", str(self.number))

    def settled(self):
        """What the controller has said is carried out, and the kernel has it."""
        if not self.answers() or not self.following():
            return False
        kinds = self.get("/agent/kernel", {})
        return kinds["devices"]["wanted"] > 0 and all(kind["differing"] == 0 for kind in kinds.values())

    def kernel(self, command):
        """What `ip` or `bridge` lists in this leaf."""
        tool, *words = command.split()
        return json.loads(self.bed.run(self.name, f"{tool} -j {' '.join(words)}") or "[]")

    def change(self, command):
        """Changes the kernel behind the agent's back."""
        return self.bed.run(self.name, command)

    def devices(self):
        return {link["ifname"] for link in self.kernel("ip link show") if link["ifname"].startswith("vx")}

    def rows(self, device):
        """MAC to the VTEPs that the kernel's rows in the device lead to."""
        try:
            rows = self.kernel(f"bridge fdb show dev {device}")
        except Failure:
            return {}
        objects = {one["id"]: one for one in self.kernel("ip nexthop show")}
        found = {}
        for row in rows:
            if "dst" in row:
                found.setdefault(row["mac"], set()).add(row["dst"])
            for member in objects.get(row.get("nhid"), {}).get("group", []):
                found.setdefault(row["mac"], set()).add(objects[member["id"]]["gateway"])
        return found

    def leads(self, host, *leaves, vni=5010):
        """Whether packets for the host, or for FLOOD, leave for these leaves, and for no other."""
        key = host if host == FLOOD else mac(host)
        return self.rows(f"vx{vni}").get(key, set()) == {vtep(leaf) for leaf in leaves}

    def at_port(self, host):
        """Whether the bridge has the host at a local port."""
        return any(row["mac"] == mac(host) and row["ifname"].startswith("t")
                   for row in self.kernel(f"bridge fdb show br vxb{VLANS[host[2]]}"))


class Controller:
    """Who writes into the database what the agents follow."""

    def __init__(self, bed):
        self.bed = bed
        self.session = Session(os.path.join(bed.folder, "db.sock"))

    def again(self):
        """After the server was started again."""
        self.session.close()
        self.session = Session(os.path.join(self.bed.folder, "db.sock"))

    def switch(self, vlan):
        """The row of the VLAN's logical switch."""
        return self.session.select("Logical_Switch", "_uuid", where=[["name", "==", f"ls{vlan}"]])[0]["_uuid"]

    def place(self, leaf):
        """The row of the leaf's locator, and what makes one if there is none."""
        rows = self.session.select("Physical_Locator", "_uuid", where=[["dst_ip", "==", vtep(leaf)]])
        if rows:
            return rows[0]["_uuid"], []
        return ["named-uuid", "place"], [{"op": "insert", "table": "Physical_Locator", "uuid-name": "place",
                                          "row": {"dst_ip": vtep(leaf), "encapsulation_type": "vxlan_over_ipv4"}}]

    def host(self, name):
        """What finds the host's row."""
        return [["MAC", "==", mac(name)], ["logical_switch", "==", self.switch(VLANS[name[2]])]]

    def withdraw(self, host):
        self.session.transact({"op": "delete", "table": "Ucast_Macs_Remote", "where": self.host(host)})

    def publish(self, host, leaf):
        place, make = self.place(leaf)
        self.session.transact(*make, {"op": "insert", "table": "Ucast_Macs_Remote", "row": {
            "MAC": mac(host), "logical_switch": self.switch(VLANS[host[2]]), "locator": place}})

    def move(self, host, leaf):
        place, make = self.place(leaf)
        self.session.transact(*make, {"op": "update", "table": "Ucast_Macs_Remote", "where": self.host(host),
                                      "row": {"locator": place}})

    def change(self, vlan, **columns):
        """Changes columns of the VLAN's logical switch."""
        self.session.transact({"op": "update", "table": "Logical_Switch", "where": [["name", "==", f"ls{vlan}"]],
                               "row": columns})


class Ping:
    """A host that pings another every 5 ms, until it is told to stop. It sleeps in between, which the program ping does not do
    at such a rate."""

    numbers = itertools.count(1)

    def __init__(self, bed, source, destination):
        self.what = f"pings from {source} to {destination}"
        self.number = (os.getpid() + next(self.numbers)) & 0xffff
        self.sent = 0
        self.answers = {}  # sequence number to how often it was answered
        self.ending = threading.Event()
        with bed.inside(source):
            self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
        self.socket.connect((address(destination), 0))
        self.socket.settimeout(0.1)
        self.threads = [threading.Thread(target=work, daemon=True) for work in (self._send, self._read)]
        for thread in self.threads:
            thread.start()
        bed.rig.closing.append(self._end)
        self.goes_through()

    def _send(self):
        while not self.ending.wait(0.005):
            self.sent += 1
            self.socket.send(echo_request(self.number, self.sent))

    def _read(self):
        while not self.ending.is_set():
            try:
                kind, _, _, number, sequence = struct.unpack("!BBHHH", self.socket.recv(2048)[20:28])
            except TimeoutError:
                continue
            if (kind, number) == (0, self.number):
                self.answers[sequence] = self.answers.get(sequence, 0) + 1

    def _end(self):
        self.ending.set()
        for thread in self.threads:
            thread.join()
        self.socket.close()

    def last(self):
        return max(tuple(self.answers), default=0)

    def goes_through(self, more=5):
        """So many more are answered."""
        enough = self.last() + more
        until(f"{self.what} are answered", lambda: self.last() >= enough)

    def stop(self):
        """Ends it; what was lost on the way, and what was answered twice, is in `lost` and `doubled`."""
        self.goes_through()
        self._end()
        self.lost = sorted(set(range(1, self.last())) - self.answers.keys())
        self.doubled = sorted(number for number, count in self.answers.items() if count > 1)
        print(f"{self.what}: {self.sent} sent, {len(self.lost)} lost, {len(self.doubled)} doubled")
        return self

    def lost_nothing(self):
        self.stop()
        check(not self.lost, lambda: f"{self.what}: lost {len(self.lost)} of {self.sent}: {self.lost[:20]}")
        check(not self.doubled, lambda: f"{self.what}: doubled {len(self.doubled)}: {self.doubled[:20]}")


def echo_request(number, sequence):
    total = 0x0800 + number + sequence
    while total >> 16:
        total = (total & 0xffff) + (total >> 16)
    return struct.pack("!BBHHH", 8, 0, total ^ 0xffff, number, sequence)


class Wire:
    """What a leaf sends into the underlay: time, VTEP, VNI and the packet inside, as text."""

    HEAD = re.compile(r"^([\d.]+) IP [\d.]+ > (\d+\.\d+\.\d+\.\d+)\.\d+: VXLAN.*vni (\d+)")

    def __init__(self, bed, leaf):
        self.packets = []
        name = f"wire{leaf}"
        self.process = bed.rig.start(name, [
            *bed.within("underlay"), "tcpdump", "-n", "-l", "-tt", "--immediate-mode", "-s", "256", "-B", "8192",
            "-Q", "in", "-i", f"leaf{leaf}", "udp", "port", "4789"], stdout=subprocess.PIPE, text=True)
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()
        until("tcpdump listens", lambda: "listening on" in bed.rig.text(name + ".log"))

    def _read(self):
        head = None
        for line in self.process.stdout:
            found = self.HEAD.match(line)
            if found:
                head = (float(found[1]), found[2], int(found[3]))
            elif head:
                self.packets.append((*head, line.strip()))
                head = None

    def carried(self, text):
        """The packets that have this in them: (VTEP, VNI) of each."""
        return [(where, vni) for _, where, vni, inside in tuple(self.packets) if text in inside]

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.process.wait(PATIENCE)
        self.thread.join()
        return self


class Mailbox:
    """A UDP socket of a host. Only those with the usual port hear what is shouted."""

    def __init__(self, bed, host, port=PORT):
        with bed.inside(host):
            self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        self.socket.bind(("0.0.0.0", port))
        self.socket.settimeout(PATIENCE)
        self.everybody = address(host).rsplit(".", 1)[0] + ".255"
        bed.rig.closing.append(self.socket.close)

    def shout(self, text):
        """To everybody in the host's VLAN."""
        self.socket.sendto(text.encode(), (self.everybody, PORT))

    def tell(self, host, text):
        self.socket.sendto(text.encode(), (address(host), PORT))

    def until(self, text):
        """All that has arrived before this one."""
        heard = []
        while True:
            heard.append(self.socket.recv(2048).decode())
            if heard[-1] == text:
                return heard[:-1]


class Twin:
    """A second place for a host that moves: the other host takes its name and address, and is the one that answers there."""

    def __init__(self, bed, host, other):
        self.sockets = {}
        bed.run(other, f"ip link set eth0 address {mac(host)}")
        bed.run(other, "ip addr flush dev eth0")
        bed.run(other, f"ip addr add {address(host)}/24 dev eth0")
        for where in (host, other):
            with bed.inside(where):
                self.sockets[int(where[1])] = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
            self.sockets[int(where[1])].bind(("eth0", 0))
        source = bytes.fromhex(mac(host).replace(":", ""))
        self.frame = b"\xff" * 6 + source + b"\x88\xb5" + bytes(46)  # an experimental protocol that nobody answers

    def appears(self, leaf):
        """As a host does that has moved: the first frame is its own."""
        self.sockets[leaf].send(self.frame)


