"""golt serve under load, on this machine: what it answers in a second, what it costs, and what its memory is.

serve_load.py GOLT DOCS [--short]: GOLT is the program, DOCS its page serving.md, from which the settings of nginx are
taken. Prints a table; fails where a client sees an error or wrong bytes, or where the memory exceeds its bound.
"""

import argparse
import asyncio
import hashlib
import json
import os
import random
import re
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request
from pathlib import Path

MEMORY_BOUND = 64 * 1024 * 1024  # of all processes, beside the cache
CLIENT_RATE = 250000  # bytes in a second: 2 Mbit/s
TICK = os.sysconf("SC_CLK_TCK")


def make_films(folder, seconds):
    """Films of about 2 Mbit/s, the last one short."""
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-f", "lavfi", "-i", "testsrc2=s=640x360:r=25,noise=alls=12",
                    "-f", "lavfi", "-i", "sine=sample_rate=48000", "-t", "24", "-c:v", "libx264", "-preset",
                    "ultrafast", "-b:v", "1850k", "-maxrate", "1850k", "-bufsize", "1850k", "-g", "50", "-c:a", "aac",
                    "base.mp4"], cwd=folder, check=True)
    for name, length in (("one.mp4", seconds), ("two.mkv", seconds), ("short.mp4", 60)):
        subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-stream_loop", "-1", "-i", "base.mp4", "-t",
                        str(length), "-c", "copy", name], cwd=folder, check=True)
    (folder / "base.mp4").unlink()


class Server:
    def __init__(self, golt, folder, *options, before=()):
        """before: what the program is run by."""
        self.process = subprocess.Popen([*before, golt, "serve", "--port", "0", *options, str(folder)],
                                        stderr=subprocess.PIPE, text=True, start_new_session=True)
        for line in self.process.stderr:
            if "http:" in line:
                self.base = line.split()[-1].rstrip("/")
                break
        else:
            sys.exit("golt serve doesn't start")
        self.port = int(self.base.rsplit(":", 1)[1])

    def get(self, path):
        with urllib.request.urlopen(self.base + path, timeout=60) as answer:
            return answer.read()

    def segments(self, film):
        media = [line for line in self.get("/%s/index.m3u8" % film).decode().split() if "media" in line][0]
        lines = self.get("/%s/%s" % (film, media)).decode().split("\n")
        return ["/%s/%s/%s" % (film, media.split("/")[0], line) for line in lines if line.endswith(".ts")]

    def status(self):
        return json.loads(self.get("/status"))

    def processes(self):
        children = Path("/proc/%d/task/%d/children" % (self.process.pid, self.process.pid)).read_text().split()
        return [self.process.pid] + [int(child) for child in children]

    def cpu_seconds(self):
        total = 0
        for pid in self.processes():
            fields = Path("/proc/%d/stat" % pid).read_text().rsplit(")", 1)[1].split()
            total += int(fields[11]) + int(fields[12])
        return total / TICK

    def memory(self):
        """Bytes of all processes, each shared page once, without the pages of the cache."""
        total = 0
        for pid in self.processes():
            fields = dict(re.findall(r"(\w+): +(\d+) kB", Path("/proc/%d/smaps_rollup" % pid).read_text()))
            total += (int(fields["Pss"]) - int(fields.get("Pss_Shmem", 0))) * 1024
        return total

    def stop(self):
        self.process.terminate()
        self.process.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def row(what, figure):
    print("| %s | %s |" % (what, figure), flush=True)


def wrk(server, paths, seconds, clients):
    """Requests a second, and the 99th percentile of their times."""
    with tempfile.NamedTemporaryFile("w", suffix=".lua") as script:
        script.write("local paths = {%s}\nlocal at = 0\nfunction request()\n at = at %% #paths + 1\n"
                     " return wrk.format('GET', paths[at])\nend\n" % ",".join("'%s'" % path for path in paths))
        script.flush()
        said = subprocess.run(["wrk", "-t", "1", "-c", str(clients), "-d", "%ds" % seconds, "--latency", "-s", script.name,
                               server.base], capture_output=True, text=True, check=True).stdout
    if "Non-2xx" in said or re.search(r"Socket errors: .*[1-9]", said):
        sys.exit("wrk reports errors:\n" + said)
    return float(re.search(r"Requests/sec: +([\d.]+)", said).group(1)), re.search(r"99% +(\S+)", said).group(1)


async def read_answer(reader):
    head = (await reader.readuntil(b"\r\n\r\n")).decode("latin-1")
    return int(head.split()[1]), int(re.search(r"(?i)content-length: (\d+)", head).group(1))


async def ask(reader, writer, path):
    writer.write(("GET %s HTTP/1.1\r\nHost: films\r\n\r\n" % path).encode())
    return await read_answer(reader)


async def idle_clients(server, count):
    """Keep-alive connections that have had an answer each; then one more that is answered all the same."""
    connections = []
    for _ in range(count):
        reader, writer = await asyncio.open_connection("127.0.0.1", server.port)
        status, size = await ask(reader, writer, "/.golt/page.css")
        await reader.readexactly(size)
        assert status == 200
        connections.append(writer)
    start = time.monotonic()
    await asyncio.to_thread(server.get, "/")
    late = time.monotonic() - start
    await asyncio.sleep(1.2)
    memory = server.memory()
    for writer in connections:
        writer.close()
    return memory, late


async def watch(server, paths, sums, seconds, waits):
    """A client that reads segments at its pace, one after another. Returns the bytes that it has read."""
    reader, writer = await asyncio.open_connection("127.0.0.1", server.port, limit=65536)
    end = time.monotonic() + seconds
    total = 0
    for path in paths:
        asked = time.monotonic()
        status, size = await ask(reader, writer, path)
        waits.append(time.monotonic() - asked)
        assert status == 200, (path, status)
        digest = hashlib.sha256()
        left = size
        while left > 0:
            piece = await reader.readexactly(min(left, 32768))
            digest.update(piece)
            left -= len(piece)
            total += len(piece)
            await asyncio.sleep(len(piece) / CLIENT_RATE)
        assert digest.hexdigest() == sums[path], "wrong bytes in " + path
        if time.monotonic() > end:
            break
    writer.close()
    return total


async def slow_clients(server, paths, sums, count, seconds):
    waits, most = [], [0]

    async def look():
        while True:
            most[0] = max(most[0], server.memory())
            await asyncio.sleep(1)

    looking = asyncio.create_task(look())
    start = [i * 7 % len(paths) for i in range(count)]
    cpu = server.cpu_seconds()
    begin = time.monotonic()
    totals = await asyncio.gather(*(watch(server, paths[at:] + paths[:at], sums, seconds, waits) for at in start))
    elapsed = time.monotonic() - begin
    looking.cancel()
    waits.sort()
    return (sum(totals) * 8 / elapsed / 1e6, waits[len(waits) * 99 // 100] * 1000, most[0],
            (server.cpu_seconds() - cpu) / elapsed)


def ffmpeg_cost(folder, film):
    """Processor seconds of ffmpeg's own segmenter, and the number of its segments."""
    with tempfile.TemporaryDirectory() as out:
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-i", str(folder / film), "-c", "copy", "-f", "hls",
                        "-hls_time", "6", "-hls_playlist_type", "vod", out + "/index.m3u8"], check=True)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime,
                len(list(Path(out).glob("*.ts"))))


def free_port():
    """One that the system doesn't give to a client meanwhile: it takes these from above."""
    for port in random.sample(range(12000, 22000), 100):
        with socket.socket() as taken:
            taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                taken.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass
    sys.exit("no port is free")


def start_nginx(docs, folder, ports):
    """nginx with the settings that the documentation shows."""
    settings = re.search(r"```nginx\n(.*?)```", Path(docs).read_text(), re.S).group(1)
    listen = free_port()
    for old, new in (("/var/cache/nginx/films", str(folder / "cache")), ("127.0.0.1:8080", "127.0.0.1:%d" % ports[0]),
                     ("127.0.0.1:8081", "127.0.0.1:%d" % ports[1]), ("listen 80;", "listen 127.0.0.1:%d;" % listen)):
        assert old in settings, old
        settings = settings.replace(old, new)
    paths = "".join("%s_temp_path %s;\n" % (name, folder / name)
                    for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    (folder / "nginx.conf").write_text(
        "user root;\ndaemon off;\nworker_processes 1;\npid %s;\nevents { worker_connections 2048; }\n"
        "http {\naccess_log off;\n%s%s}\n" % (folder / "pid", paths, settings))
    nginx = subprocess.Popen(["/usr/sbin/nginx", "-c", str(folder / "nginx.conf"), "-e", str(folder / "error.log")])
    for _ in range(100):
        try:
            urllib.request.urlopen("http://127.0.0.1:%d/status" % listen, timeout=5).read()
            return nginx, listen
        except OSError:
            time.sleep(0.1)
    sys.exit((folder / "error.log").read_text())


async def read_playlist(port, paths, sums, tally):
    """All of a playlist, as fast as it comes."""
    reader, writer = await asyncio.open_connection("127.0.0.1", port, limit=1 << 20)
    for path in paths:
        writer.write(("GET %s HTTP/1.1\r\nHost: films\r\n\r\n" % path).encode())
        head = (await reader.readuntil(b"\r\n\r\n")).decode("latin-1")
        body = await reader.readexactly(int(re.search(r"(?i)content-length: (\d+)", head).group(1)))
        assert " 200 " in head.split("\r\n")[0], head
        assert hashlib.sha256(body).hexdigest() == sums[path], "wrong bytes in " + path
        tally["hits" if "X-Cache: HIT" in head else "others"] += 1
    writer.close()


async def behind_nginx(golt, films, docs, folder, paths, sums, count):
    servers = [Server(golt, films, "--per-address", "1024") for _ in range(2)]
    nginx, port = start_nginx(docs, folder, [server.port for server in servers])
    tally = {"hits": 0, "others": 0}
    try:
        reading = [asyncio.create_task(read_playlist(port, paths, sums, tally)) for _ in range(count)]
        while tally["hits"] + tally["others"] < count * len(paths) // 20:
            await asyncio.sleep(0.05)
        # All of its processes at once.
        os.killpg(servers[0].process.pid, signal.SIGKILL)
        servers[0].process.wait()
        await asyncio.gather(*reading)
    finally:
        nginx.terminate()
        nginx.wait()
        servers[1].stop()
    return tally["hits"] / (tally["hits"] + tally["others"]), tally["hits"] + tally["others"]


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("golt")
    arguments.add_argument("docs")
    arguments.add_argument("--short", action="store_true")
    given = arguments.parse_args()
    seconds, idle, clients = (1, 100, 20) if given.short else (8, 1000, 200)
    resource.setrlimit(resource.RLIMIT_NOFILE, (4096, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))
    with tempfile.TemporaryDirectory() as place:
        folder = Path(place)
        films = folder / "films"
        films.mkdir()
        make_films(films, 60 if given.short else 600)
        measure(given, folder, films, seconds, idle, clients)


def watch_all(server, paths, sums, clients, seconds, cache):
    """Many clients at different places. Returns the memory."""
    made = server.status()["segments"]["made"]
    megabits, wait, memory, load = asyncio.run(slow_clients(server, paths, sums, clients, seconds))
    row("%d clients of 2 Mbit/s, %d MiB of cache" % (clients, cache),
        "%.0f Mbit/s in all, first byte p99 %.0f ms, %d segments made, %.2f processors, %.1f MB" % (
            megabits, wait, server.status()["segments"]["made"] - made, load, memory / 2**20))
    return memory


def measure_usual(given, films, seconds, idle, clients):
    """With the usual cache. Returns the addresses of all segments, their sums, and the memory seen."""
    with Server(given.golt, films, "--connections", "2048", "--per-address", "2048") as server:
        paths = server.segments("one.mp4") + server.segments("two.mkv")
        sums, size = {}, 0
        cpu = server.cpu_seconds()
        for path in paths:
            body = server.get(path)
            size += len(body)
            sums[path] = hashlib.sha256(body).hexdigest()
        fresh = (server.cpu_seconds() - cpu) / len(paths) * 1000
        status = server.status()
        assert status["segments"]["made"] == len(paths), status
        row("Segments, and their mean size", "%d, %.2f MB" % (len(paths), size / len(paths) / 1e6))
        row("A segment made: mean time in a maker", "%.2f ms" % status["segments"]["mean_ms"])
        row("A segment asked for, made and sent: processor time", "%.2f ms" % fresh)
        cost, count = ffmpeg_cost(films, "one.mp4")
        row("ffmpeg -f hls to files: processor time for a segment", "%.2f ms" % (cost / count * 1000))

        recent = paths[-4:]
        for path in recent:
            server.get(path)
        row("Segments from the cache, 16 clients", "%.0f requests/s, p99 %s" % wrk(server, recent, seconds, 16))
        row("Playlists from the cache, 16 clients",
            "%.0f requests/s, p99 %s" % wrk(server, [os.path.dirname(paths[0]) + "/media.m3u8"], seconds, 16))
        memory, late = asyncio.run(idle_clients(server, idle))
        row("%d idle connections: memory; a page then" % idle, "%.1f MB; %.1f ms" % (memory / 2**20, late * 1000))
        return paths, sums, [memory, watch_all(server, paths, sums, clients, seconds, 32)]


def measure(given, folder, films, seconds, idle, clients):
    paths, sums, memories = measure_usual(given, films, seconds, idle, clients)
    with Server(given.golt, films, "--cache", "8M", "--per-address", "2048") as server:
        assert server.segments("one.mp4") + server.segments("two.mkv") == paths
        row("Segments that have to be made, 16 clients", "%.0f requests/s, p99 %s" % wrk(server, paths, seconds, 16))
        memories.append(watch_all(server, paths, sums, clients, seconds, 8))

    with Server(given.golt, films) as server:
        whole = server.segments("short.mp4")
        sums = {path: hashlib.sha256(server.get(path)).hexdigest() for path in whole}
    rate, requests = asyncio.run(behind_nginx(given.golt, films, given.docs, folder, whole, sums, clients))
    row("Behind nginx, %d clients that read a whole playlist, one of two instances killed" % clients,
        "%d requests, no error, %.1f %% from nginx's cache" % (requests, rate * 100))
    if max(memories) > MEMORY_BOUND:
        sys.exit("the processes take %.1f MB beside the cache" % (max(memories) / 2**20))


if __name__ == "__main__":
    main()
