"""Clients of golt serve that notice everything."""

import hashlib
import http.client
import random
import sys
import threading
import time
from pathlib import Path


def check(condition, what):
    if not condition:
        sys.exit("%s: %s" % (Path(sys.argv[0]).name, what))


def wait_for(condition, seconds, what):
    end = time.monotonic() + seconds
    while not condition():
        check(time.monotonic() < end, what)
        time.sleep(0.05)


class Client:
    """Asks for one thing after another on a connection; counts what a connection that breaks costs."""

    def __init__(self, server, source="127.0.0.1"):
        self.server, self.source = server, source
        self.connection = None
        self.resets, self.longest = 0, 0.0

    def get(self, path, timeout=60):
        """The status, the head's fields and the body. A connection that breaks is tried again at once."""
        begin = time.monotonic()
        while True:
            try:
                if self.connection is None:
                    self.connection = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=timeout,
                                                                 source_address=(self.source, 0))
                self.connection.request("GET", path)
                answer = self.connection.getresponse()
                body = answer.read()
                self.longest = max(self.longest, time.monotonic() - begin)
                return answer.status, answer.headers, body
            except (ConnectionError, http.client.IncompleteRead, http.client.BadStatusLine):
                self.connection.close()
                self.connection = None
                self.resets += 1
                check(time.monotonic() - begin < timeout, "no answer to " + path)


def noting(faults, function, *arguments):
    """Runs it in a thread: of what it raises there nobody else would hear."""
    try:
        function(*arguments)
    except BaseException as error:
        faults.append(repr(error))


def read_all(server, sums, stop, clients, faults):
    """Reads all of the sums' paths again and again, in an order of its own."""
    client = Client(server)
    clients.append(client)
    paths = list(sums)
    while not stop.is_set():
        random.shuffle(paths)
        for path in paths:
            status, _, body = client.get(path)
            if status != 200 or hashlib.sha256(body).hexdigest() != sums[path]:
                faults.append("%s: %d, %d bytes" % (path, status, len(body)))
                return
            if stop.is_set():
                break


class Readers:
    """Clients, each in a thread, that read whole playlists until the end of the block."""

    def __init__(self, server, sums, count):
        self.clients, self.faults, self.stop = [], [], threading.Event()
        self.threads = [threading.Thread(target=noting, args=(self.faults, read_all, server, sums, self.stop,
                                                              self.clients, self.faults))
                        for _ in range(count)]

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        for thread in self.threads:
            thread.join()
        check(not self.faults, "a client got something else: " + "; ".join(self.faults[:5]))

    def resets(self):
        return sum(client.resets for client in self.clients)

    def longest(self):
        return max(client.longest for client in self.clients)
