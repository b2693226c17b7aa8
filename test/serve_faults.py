"""golt serve when things go wrong: processes die, a file is hostile, clients are, makers can't start.

serve_faults.py [--short] [--films FOLDER] GOLT [PART...]: prints a table; fails where somebody notices who shouldn't, or where memory
or time exceed their bounds. The parts are the functions below that have a row in PARTS.
"""

import argparse
import asyncio
import hashlib
import json
import os
import random
import resource
import signal
import socket
import struct
import sys
import tempfile
import threading
import time
from pathlib import Path

from serve_load import MEMORY_BOUND, Server, make_films, row
from support.clients import Client, Readers, check, noting, wait_for

# Seconds by the clock, for a job; host/serve/maker.h. Of a processor's time it has fewer.
TIME_BOUND = 120
# In which clients of other films have their answer while a hostile file is read. Usually milliseconds; if they had to
# wait for it, the 30 seconds of a processor's time that a job has.
ANSWER_BOUND = 25
# For what comes at once where nothing else runs.
PATIENCE = 60
WORKERS = 2


def sums_of(server, films):
    return {path: hashlib.sha256(server.get(path)).hexdigest() for film in films for path in server.segments(film)}


def kill(pid, how):
    """Whether there was such a process: it may have ended since somebody named it."""
    try:
        os.kill(pid, how)
    except ProcessLookupError:
        return False
    return True


def kill_some(server, roles, seconds, pause):
    """Kills processes of these roles at random. Returns how many, and the memory seen at most."""
    end = time.monotonic() + seconds
    killed, memory = 0, 0
    while time.monotonic() < end:
        time.sleep(random.uniform(0.5, 1.5) * pause)
        victims = [process["pid"] for process in status(server)["processes"] if process["role"] in roles]
        if victims:
            killed += kill(random.choice(victims), signal.SIGKILL)
        try:
            memory = max(memory, server.memory())
        except (OSError, ValueError):
            pass  # one of them has just ended
    return killed, memory


def status(server):
    return json.loads(Client(server).get("/status")[2])


def kills(given, films):
    """Whoever is killed: makers unnoticed, servers but for the connections that they had."""
    seconds = 1.5 if given.short else 30
    # So small that segments have to be made.
    with Server(given.golt, films, "--workers", str(WORKERS), "--cache", "4M") as server:
        sums = sums_of(server, given.names)
        for roles in (["maker"], ["maker", "server"]):
            with Readers(server, sums, 8) as readers:
                killed, memory = kill_some(server, roles, seconds, 0.25)
            made = status(server)["segments"]["made"]
            row("%d processes killed within %.1f s (%s), 8 clients that read whole playlists" % (killed, seconds, ", ".join(roles)),
                "no error, %d connections reset, longest answer %.2f s, %d segments made in all, %.1f MB" % (
                    readers.resets(), readers.longest(), made, memory / 2**20))
            check("server" in roles or readers.resets() == 0, "clients notice that makers die")
            check(memory < given.memory_bound, "too much memory")
            wait_for(lambda: len(status(server)["processes"]) == 2 * WORKERS + 1, PATIENCE, "processes are missing")


def ebml(name, *parts):
    body = b"".join(parts)
    return bytes.fromhex(name) + struct.pack(">Q", len(body) | 1 << 56) + body


def hostile_film(path, mebibytes):
    """Matroska of which each block of seven bytes is a lace of 255 empty frames: 40 million frames a mebibyte."""
    lace = bytes.fromhex("A385 81 0000 04 FE")
    tracks = ebml("1654AE6B", ebml("AE", ebml("D7", b"\1"), ebml("83", b"\2"), ebml("86", b"A_MPEG/L3")))
    path.write_bytes(ebml("1A45DFA3", ebml("4282", b"matroska")) +
                     ebml("18538067", ebml("1549A966", ebml("2AD7B1", b"\x0f\x42\x40")), tracks,
                          ebml("1F43B675", ebml("E7", b"\0"), lace * (mebibytes * 2**20 // len(lace)))))


def insist(server, film, stop, answers):
    """Asks for the film again and again, in all ways."""
    while not stop.is_set():
        for part in ("index.m3u8", "details.json", "0123456789abcdef/0.ts"):
            begin = time.monotonic()
            code, headers, _ = Client(server).get("/%s/%s" % (film, part), timeout=200)
            answers.append((code, headers.get("Retry-After"), time.monotonic() - begin))
        time.sleep(0.5)


def hostile(given, films):
    """A file that takes all the time that it gets disturbs nobody, and it doesn't get it often."""
    hostile_film(films / "hostile.mkv", 50 if given.short else 150)
    for options in ([["--workers", "1"]] if given.short else [[], ["--workers", "1"]]):
        with Server(given.golt, films, "--cache", "4M", *options) as server:
            sums = sums_of(server, given.names)
            stop, heard, faults = threading.Event(), [[] for _ in range(4)], []
            threads = [threading.Thread(target=noting, args=(faults, insist, server, "hostile.mkv", stop, own), daemon=True)
                       for own in heard]
            for thread in threads:
                thread.start()
            begin = time.monotonic()
            with Readers(server, sums, 4) as readers:
                time.sleep(2)
                if not given.short:
                    # The machine may have other work: then the bound by the clock comes first.
                    wait_for(lambda: 500 in [answer[0] for own in heard for answer in own], TIME_BOUND + 10,
                             "the bound isn't kept")
                    time.sleep(30)
                    check(all(heard), "a client that asks for the file has had no answer")
            seconds = time.monotonic() - begin
            check(not faults, "a client that asks for the file has no answer: " + "; ".join(faults))
            check(not given.short or any(process.get("working") for process in status(server)["processes"]),
                  "the hostile file has been read")
            stop.set()
            answers = sum(heard, [])
            deaths = status(server)["deaths"]
            codes = sorted({code for code, _, _ in answers if code != 404})
            row("A hostile file for %.0f s%s: longest answer to 4 others" % (seconds, "".join(" " + option for option in options)),
                "%.2f s; %d makers ended by it, clients that ask for it get %s" % (readers.longest(), deaths, codes))
            check(readers.resets() == 0, "clients of other films are cut off")
            check(readers.longest() < ANSWER_BOUND, "clients of other films wait too long")
            # Of each server there may be one maker at it.
            check(deaths <= (1 if options else os.cpu_count()), "the file is tried too often")
            if not given.short:
                check(500 in codes and 503 in codes, "nobody hears that it takes too long")
                check(all(after for code, after, _ in answers if code == 503), "503 without Retry-After")
            # It would wait for those who ask for the file.
            os.killpg(server.process.pid, signal.SIGKILL)
    (films / "hostile.mkv").unlink()


def crash(given, films):
    """A file of which makers die is given to others twice, and then left alone. Returns after how many seconds."""
    with Server(given.golt, films, "--workers", "1") as server:
        client, answers, killed = Client(server), [], []
        thread = threading.Thread(target=lambda: answers.append(client.get("/hostile.mkv/index.m3u8")), daemon=True)
        thread.start()

        def has_crashed():
            for process in status(server)["processes"]:
                if process.get("working") and process["pid"] not in killed and kill(process["pid"], signal.SIGSEGV):
                    killed.append(process["pid"])
                    return True
        for _ in range(3):
            wait_for(has_crashed, PATIENCE, "no maker reads the file")
        thread.join(PATIENCE)
        check([code for code, _, _ in answers] == [503], "%s for a file that makers die of" % answers)
        check(Client(server).get("/hostile.mkv/details.json")[0] == 503, "the file is tried again")
        check(Client(server).get("/%s/index.m3u8" % given.names[0])[0] == 200, "another film isn't served")
        row("A file of which %d makers have died" % len(killed), "503 after %.1f s" % client.longest)
        return client.longest


def crashes(given, films):
    """Each death is announced to the server: it doesn't have to look for its job, which takes a second or two each time."""
    hostile_film(films / "hostile.mkv", 50)
    # A busy machine may be slow once or twice.
    check(any(crash(given, films) < 3 for _ in range(5)), "the file is given to other makers late")
    (films / "hostile.mkv").unlink()


async def open_one(server, source, text):
    try:
        reader, writer = await asyncio.open_connection("127.0.0.1", server.port, local_addr=(source, 0))
        writer.write(text)
        return reader, writer
    except OSError:
        return None


async def is_open(connection):
    """Whether the server hasn't closed it within a while: less than the 5 s that idle ones have when most are taken."""
    if connection is None:
        return False
    try:
        while await asyncio.wait_for(connection[0].read(4096), 3):
            pass
        return False
    except asyncio.TimeoutError:
        return True
    except OSError:
        return False


async def crowd_of(server, addresses, count, text):
    """count connections from each address. Returns those that stay, by their address."""
    wanted = [address for address in addresses for _ in range(count)]
    tried = []
    for at in range(0, len(wanted), 100):
        tried += await asyncio.gather(*(open_one(server, address, text) for address in wanted[at:at + 100]))
    stay = {address: [] for address in addresses}
    for address, connection, is_there in zip(wanted, tried, await asyncio.gather(*map(is_open, tried))):
        if is_there:
            stay[address].append(connection)
        elif connection:
            connection[1].close()
    return stay


def servers(server):
    return {process["pid"] for process in status(server)["processes"] if process["role"] == "server"}


def crowd_part(given, films, options, each, text, what):
    """From each address more connections than it may have; then one client more, and one afterwards."""
    connections, limit, addresses, attempts = options
    with Server(given.golt, films, "--connections", str(connections), "--per-address", str(limit), "--idle", "120") as server:
        playlist = "/%s/index.m3u8" % given.names[0]
        server.get(playlist)

        async def run():
            stay = await crowd_of(server, addresses, each, text)
            code, _, _ = await asyncio.to_thread(Client(server).get, playlist)
            check(code == 200, "an ordinary client isn't served")
            seen = status(server)
            memory = server.memory()
            counts = [len(connections) for connections in stay.values()]
            row(what % (attempts, len(addresses)), "%d stay, %d from each, %d refused; %.1f MB" % (
                sum(counts), max(counts), seen["connections_refused"], memory / 2**20))
            check(set(counts) == {min(limit, each)}, "the limit of an address isn't kept: %s" % counts)
            check(memory < given.memory_bound, "too much memory")
            for _, writer in (connection for connections in stay.values() for connection in connections):
                writer.close()
        asyncio.run(run())
        wait_for(lambda: status(server)["connections"] <= 2, PATIENCE, "connections are left")
        check(Client(server, addresses[0]).get(playlist)[0] == 200, "an address isn't let in again")


def crowd(given, films):
    """Thousands of connections: limits over all servers, memory, and the next client."""
    scale = 10 if given.short else 1
    some = ["127.0.1.%d" % i for i in range(1, 11)]
    whole = b"GET /.golt/page.css HTTP/1.1\r\nHost: x\r\n\r\n"
    # When most of a server's are taken, idle ones go soon; and one server may have more of them than the other.
    crowd_part(given, films, (2048 if given.short else 8192, 400 // scale, some, 10000 // scale), 1000 // scale, whole,
               "%d attempts from %d addresses, that then stay idle")
    if not given.short:
        half = b"GET / HTTP/1.1\r\nX: " + b"a" * 7000
        crowd_part(given, films, (4096, 100, some, 2000), 200, half,
                   "%d attempts from %d addresses, with heads as long as they may be and no end")
    # What a server that dies leaves behind isn't counted any more.
    with Server(given.golt, films, "--workers", "2", "--per-address", "20", "--idle", "120") as server:
        async def run():
            stay = await crowd_of(server, ["127.0.2.1"], 30, whole)
            check(len(stay["127.0.2.1"]) == 20, "the limit of an address isn't kept by two servers")
            before = servers(server)
            for pid in before:
                kill(pid, signal.SIGKILL)
            wait_for(lambda: len(servers(server) - before) == 2, PATIENCE, "servers aren't replaced")
            again = await crowd_of(server, ["127.0.2.1"], 30, whole)
            check(len(again["127.0.2.1"]) == 20, "connections of servers that died are still counted")
        asyncio.run(run())


def closed_after(server, text, drip):
    """Seconds after which the server closes a connection that says this, and then a byte now and then."""
    begin = time.monotonic()
    with socket.create_connection(("127.0.0.1", server.port)) as client:
        client.settimeout(0.3)
        try:
            client.sendall(text)
            while time.monotonic() - begin < 300:
                try:
                    if client.recv(65536) == b"":
                        break
                except socket.timeout:
                    if drip:
                        client.sendall(drip)
        except ConnectionError:
            pass
    return time.monotonic() - begin


def slow_body(server, path):
    """The same for one that reads two bytes a second. It would see the end only after all that is on its way."""
    before = status(server)["connections_dropped"]
    begin = time.monotonic()
    with socket.socket() as client:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        client.connect(("127.0.0.1", server.port))
        client.sendall(("GET %s HTTP/1.1\r\nHost: x\r\n\r\n" % path).encode())
        while status(server)["connections_dropped"] == before and time.monotonic() - begin < 300:
            time.sleep(0.5)
            client.recv(1)
    return time.monotonic() - begin


def limits(given, films):
    """Clients that do nothing, or too slowly, are closed: by the clock, whatever else goes on."""
    parts = [("2", 2)] if given.short else [("2", 2), (None, 30)]
    for option, idle in parts:
        with Server(given.golt, films, *(("--idle", option) if option else ())) as server:
            found = {}

            def measure(what, function, *arguments):
                found[what] = function(server, *arguments)
            rows = [("idle", closed_after, b"", b"", idle),
                    ("after an answer", closed_after, b"GET /status HTTP/1.1\r\nHost: x\r\n\r\n", b"", idle),
                    ("a head that drips", closed_after, b"GET / HTTP/1.1\r\nX: ", b"a", 2 * idle)]
            threads = [threading.Thread(target=measure, args=line[:-1]) for line in rows]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            path = server.segments(given.names[0])[0]
            rows.append(("a body that drips", slow_body, path, idle))
            measure(*rows[-1][:-1])
            row("Closed, with --idle %d" % idle, "; ".join("%s: %.1f s" % item for item in found.items()))
            for line in rows:
                # The server looks once a second; this machine may have other work.
                check(line[-1] - 1 <= found[line[0]] <= line[-1] + 20,
                      "%s: %.1f s and not %d" % (line[0], found[line[0]], line[-1]))


def makers(given, films):
    """Where no maker can be started, clients hear it soon; where none takes a job, a little later."""
    # The call that a maker resets a signal by: it dies before its first job.
    deny = (sys.executable, str(Path(__file__).with_name("deny.py")), "rt_sigaction:0=14")
    with Server(given.golt, films, before=deny) as server:
        client = Client(server)
        for path in (given.names[0] + "/index.m3u8", given.names[1] + "/details.json"):
            path = "/" + path
            code, headers, _ = client.get(path)
            check(code == 503 and headers["Retry-After"], "%d for %s" % (code, path))
        check(client.get("/status")[0] == 200, "no status without makers")
        row("Without makers: 503 after", "%.1f s" % client.longest)
        # A server that doesn't know that there are none would give up after 20 s.
        check(client.longest < 15, "without makers clients wait %.1f s" % client.longest)
    if given.short:
        return
    with Server(given.golt, films) as server:
        client = Client(server)
        check(client.get("/%s/index.m3u8" % given.names[0])[0] == 200, "no answer")
        os.kill(server.process.pid, signal.SIGSTOP)
        try:
            for process in status(server)["processes"]:
                if process["role"] == "maker":
                    kill(process["pid"], signal.SIGKILL)
            playlist = "/%s/index.m3u8" % given.names[1]
            code, headers, _ = client.get(playlist)
        finally:
            os.kill(server.process.pid, signal.SIGCONT)
        row("Makers dead and nobody to replace them: %d after" % code, "%.1f s" % client.longest)
        check(code == 503 and headers["Retry-After"] and client.longest < 55, "%d, %.1f s" % (code, client.longest))
        check(client.get(playlist)[0] == 200, "no answer when there are makers again")


PARTS = {"kills": kills, "hostile": hostile, "crashes": crashes, "crowd": crowd, "limits": limits, "makers": makers}


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("golt")
    arguments.add_argument("--short", action="store_true")
    arguments.add_argument("--films", type=Path, help="a folder with two films; else they are made")
    arguments.add_argument("parts", nargs="*", default=list(PARTS))
    given = arguments.parse_args()
    # Sanitizers take far more.
    given.memory_bound = sys.maxsize if b"__asan_init" in Path(given.golt).read_bytes() else MEMORY_BOUND
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(16384, hard), hard))
    random.seed(time.time_ns())
    with tempfile.TemporaryDirectory() as place:
        films = given.films or Path(place)
        if not given.films:
            make_films(films, 60 if given.short else 300)
        given.names = sorted(path.name for path in films.glob("*.m[pk][4v]"))
        for part in given.parts:
            PARTS[part](given, films)


main()
