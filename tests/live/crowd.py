#!/usr/bin/env python3
"""Many hostile clients of an agent's control socket, as one process.

    crowd.py --socket PATH --clients N --seed N [--user N] [--rounds N]

Each says random things in random pieces, most of them wrong, and reads or not. Without --rounds it goes on until it is
killed. Prints a line after the first round, and at the end how much was said and how often a client was turned away.
"""

import argparse
import os
import random
import select
import socket

POINTERS = ["", "/input", "/output", "/output/l2Rib", "/output/l2Rib/floodSets", "/output/receivedHosts", "/agent", "/nowhere",
            "/output/l2Rib/hosts/10", "/output/receivedHosts/10/02:00:00:00:00:05", "/input/controller/fdb", "no pointer"]


class Hostile:
    def __init__(self, path, seed):
        self.path, self.random = path, random.Random(seed)
        self.socket, self.unsent, self.reads, self.said, self.turned_away = None, b"", True, 0, 0

    def something(self):
        roll = self.random.randrange
        pointer = self.random.choice(POINTERS).encode()
        return self.random.choice([
            lambda: self.random.randbytes(roll(300)) + b"\n",
            lambda: b'{"get":',
            lambda: b'{"get":"' + b"x" * roll(200_000) + b'"}\n',
            lambda: b"[" * roll(60_000) + b"\n",
            lambda: b"".join(b'{"subscribe":"%b","id":%d}\n' % (self.random.choice(POINTERS).encode(), i)
                             for i in range(roll(60))),
            lambda: b"".join(b'{"subscribe":"/output/receivedHosts/10/02:00:00:00:00:%02x"}\n' % i for i in range(16)),
            lambda: b'{"call":"flush"}\n{"call":"explain","params":{"mac":7}}\n{"call":"problems"}\n',
            lambda: b'{"call":"explain","params":{"mac":"02:00:00:00:00:05"}}\n' * roll(50),
            lambda: b'{"patch":{"controller":null}}\n',
            lambda: b'{"get":""}\n' * roll(200),
            lambda: b'{"id":"' + b"i" * roll(1000) + b'","get":"' + pointer + b'"}\n',
            lambda: b'{"get":"' + pointer + b'"}\n',
            lambda: b'{"subscribe":"' + pointer + b'"}\n',
        ])()

    def begin(self):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.setblocking(False)
        self.reads, self.unsent = self.random.random() < 0.7, b""
        try:
            self.socket.connect(self.path)
        except OSError:
            self.end()

    def end(self):
        if self.socket is not None:
            self.socket.close()
        self.socket = None

    def act(self):
        if self.socket is None:
            self.begin()
            return
        try:
            if self.reads and select.select([self.socket], [], [], 0)[0]:
                heard = self.socket.recv(1 << 18)
                self.turned_away += heard.count(b'"kind":"denied"')
                if not heard:
                    self.end()
                    return
            if self.random.random() < 0.005:
                self.end()  # perhaps in the middle
                return
            self.unsent = self.unsent or self.something()
            piece = 1 if self.random.random() < 0.1 else 65536
            sent = self.socket.send(self.unsent[:piece])
            self.unsent = self.unsent[sent:]
            self.said += sent
        except BlockingIOError:
            pass
        except OSError:
            self.end()


def main():
    parser = argparse.ArgumentParser(description="Many hostile clients of a control socket.")
    parser.add_argument("--socket", required=True, metavar="PATH")
    parser.add_argument("--clients", type=int, default=50)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--user", type=int, help="becomes this user first")
    options = parser.parse_args()
    if options.user is not None:
        os.setgroups([])
        os.setresgid(options.user, options.user, options.user)
        os.setresuid(options.user, options.user, options.user)
    clients = [Hostile(options.socket, options.seed * 1000 + number) for number in range(options.clients)]
    done = 0
    while options.rounds is None or done < options.rounds:
        for client in clients:
            client.act()
        done += 1
        if done == 1:
            print("begun", flush=True)
    print(f"said {sum(client.said for client in clients)} bytes, "
          f"turned away {sum(client.turned_away for client in clients)} times", flush=True)


if __name__ == "__main__":
    main()
