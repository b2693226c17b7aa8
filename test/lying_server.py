"""An HTTP server that lies: /WAY/FILE serves a file of the folder in one of the ways below.

Prints its port, then serves until it is ended. Each way is a function of a Request.
"""

import http.server
import os
import sys
import time

PIECE = 100000  # bytes after which some answers break off
WAYS = {}


def way(function):
    WAYS[function.__name__.rstrip("_")] = function
    return function


class Request:
    """A request for a file, and what is needed to answer it."""

    def __init__(self, handler, name, earlier):
        self.out = handler.wfile
        with open(name, "rb") as file:
            self.bytes = file.read()
        self.size = len(self.bytes)
        self.earlier = earlier  # requests for this path before
        self.if_range = handler.headers.get("If-Range")
        self.token = handler.headers.get("X-Token")
        wanted = handler.headers.get("Range", "bytes=0-")
        self.first = int(wanted.split("=")[1].split("-")[0])

    def head(self, status, **fields):
        lines = ["HTTP/1.1 " + status]
        lines += [name.replace("_", "-") + ": " + str(value) for name, value in fields.items() if value]
        self.out.write(("\r\n".join(lines) + "\r\n\r\n").encode("latin-1"))

    def part(self, total=None, last=None, length=True, sent=None, first=None, **fields):
        """A range from what was asked for on. sent: bytes of it that really come."""
        if self.first >= self.size:
            return self.head("416 Range Not Satisfiable", Content_Range="bytes */%s" % (total or self.size))
        first = self.first if first is None else first
        last = self.size - 1 if last is None else min(last, self.size - 1)
        fields.setdefault("ETag", '"x"')
        self.head("206 Partial Content", Content_Range="bytes %d-%d/%s" % (first, last, total or self.size),
                  Content_Length=last + 1 - first if length else None, **fields)
        self.out.write(self.bytes[first:last + 1][:sent])

    def whole(self, **fields):
        self.head("200 OK", Content_Length=self.size, **fields)
        self.out.write(self.bytes)


@way
def cut(request):
    """Every answer breaks off."""
    request.part(sent=PIECE)


@way
def gone(request):
    """There is no answer but the first."""
    if not request.earlier:
        request.part(sent=PIECE)


@way
def chunks(request):
    """Neither ranges nor a size."""
    request.head("200 OK", Transfer_Encoding="chunked")
    for at in range(0, request.size, 50000):
        piece = request.bytes[at:at + 50000]
        request.out.write(b"%x\r\n%s\r\n" % (len(piece), piece))
    request.out.write(b"0\r\n\r\n")


@way
def unknown(request):
    """Pieces of a file whose size isn't known."""
    request.part(total="*", last=request.first + PIECE - 1)


@way
def unknown_silent(request):
    """The same, without a word at the end."""
    if request.first < request.size:
        request.part(total="*", last=request.first + PIECE - 1)


@way
def unknown_empty(request):
    """The same, and an empty file at the end."""
    if request.first < request.size:
        request.part(total="*", last=request.first + PIECE - 1)
    else:
        request.head("200 OK", Content_Length="0", ETag='"x"')


@way
def unknown_once(request):
    """The size comes with the first answer alone, and the second breaks off without a length."""
    if request.earlier:
        request.part(total="*", length=False, sent=PIECE)
    else:
        request.part(sent=PIECE)


@way
def announced(request):
    """Ranges that break off, and no length that would show it."""
    request.part(length=False, sent=PIECE)


@way
def nibbles(request):
    """No more than a few bytes of what each answer announces, after the first one."""
    request.part(length=False, sent=100 if request.earlier else PIECE)


@way
def longer(request):
    """More than was announced."""
    request.part(last=request.first + PIECE - 1, length=False)
    request.out.write(request.bytes[request.first + PIECE:])


@way
def end(request):
    """Twice as much is announced as there is."""
    request.part(total=2 * request.size)


@way
def shrinks(request):
    """The second answer states another size."""
    size = request.size - request.earlier
    request.part(total=size, last=size - 1, sent=PIECE)


@way
def changes(request):
    """Each answer is of another version."""
    request.part(ETag='"%d"' % request.earlier, sent=PIECE)


@way
def nameless(request):
    """No version at all."""
    request.part(ETag=None)


@way
def vanishes(request):
    """The version isn't sent again."""
    request.part(ETag=None if request.earlier else '"x"', sent=PIECE)


@way
def replaced(request):
    """Another version by the second request, which asks for the first."""
    if request.if_range == '"x"':
        request.whole(ETag='"y"')
    else:
        request.part(sent=PIECE)


@way
def gzip(request):
    """Encoded in the middle."""
    request.part(sent=PIECE, Content_Encoding="gzip" if request.earlier else None)


@way
def other(request):
    """Another range than was asked for."""
    request.part(first=request.first // 2, sent=PIECE)


@way
def endless(request):
    """An answer that ends with the connection."""
    request.head("200 OK")
    request.out.write(request.bytes)


@way
def halved(request):
    """The same, and it ends too early."""
    request.head("200 OK")
    request.out.write(request.bytes[:request.size // 2])


@way
def drips(request):
    """A byte with each request, and not at once."""
    if request.earlier:
        time.sleep(0.2)
    # Or else libcurl finds the connection broken, at times.
    request.part(last=request.first + (0 if request.earlier else PIECE), Connection="close")


@way
def escapes(request):
    """A status line that colours the terminal."""
    request.head("404 \x1b[31mred\x9b0m")


@way
def token(request):
    """For those alone who have the word."""
    request.part() if request.token == "secret" else request.head("403 Forbidden")


class Handler(http.server.BaseHTTPRequestHandler):
    answers = {}

    def do_GET(self):
        _, name_of_way, name = self.path.split("?")[0].split("/")
        earlier = Handler.answers.get(self.path, 0)
        Handler.answers[self.path] = earlier + 1
        try:
            WAYS[name_of_way](Request(self, os.path.basename(name), earlier))
        except (BrokenPipeError, ConnectionResetError):
            pass

    def log_message(self, *_):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
server.daemon_threads = True
print(server.server_port, flush=True)
server.serve_forever()
