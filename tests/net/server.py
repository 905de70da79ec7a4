#!/usr/bin/env python3
"""The network tests' HTTP server: server.py DIR serves DIR/www (GET, HEAD, ranges, PUT,
the redirects of MOVES) and below /<fault>/ the misbehaviours of FAULTS. It writes its port
to DIR/port and each request head to DIR/requests.log (a connection's first after a line
"CONNECT"), and ends once DIR is gone or after 120 s without a request."""
import os, socketserver, sys, threading, time
from email.utils import formatdate
from types import SimpleNamespace

DIR = sys.argv[1]
OLD, NEW = "Sun, 06 Nov 1994 08:49:37 GMT", "Mon, 07 Nov 1994 08:49:37 GMT"
MOVES = {"/found": ("302 Found", "/chain.txt"), "/old": ("301 Moved", "/data.bin"),
         "/relative/b/start": ("301 Moved", "../c/./hop#fragment"),
         "/relative/c/hop": ("301 Moved", "//127.0.0.1:{port}/basic/end?x=1")}
MOVES.update({"/chain/%d" % i: ("301 Moved", "/chain/%d" % (i + 1) if i < 10 else "/chain.txt") for i in range(11)})
seen, last_request = set(), [time.time()]


def pattern(n, seed=0):
    """keelnet::Pattern(n, seed): other seeds stand for another version of a resource."""
    return bytes((((i + seed) * 2654435761) >> 13) & 0xFF for i in range(n))


BODY = pattern(300000)


def reply(status, headers=(), body=b"", sent=None):
    """A response that announces len(body) bytes and sends the first `sent` of them."""
    head = "HTTP/1.1 %s\r\n%sContent-Length: %d\r\n\r\n" % (status, "".join(h + "\r\n" for h in headers), len(body))
    return head.encode() + body[:sent]


def ranged(q, size):
    """The first and last byte of the request's "Range: bytes=a-[b]" (0, -1: none)."""
    if "Range: bytes=" not in q.head:
        return 0, -1
    first, last = q.head.split("Range: bytes=")[1].split("\n")[0].strip().split("-")
    return int(first), int(last) if last else size - 1


def once(name):
    first = name not in seen
    seen.add(name)
    return first


def files(q):
    if q.path in MOVES:
        return reply(MOVES[q.path][0], ["Location: " + MOVES[q.path][1].format(port=q.port)]), True
    name = os.path.join(DIR, "www", q.path.lstrip("/") or "index.html")
    if q.method == "PUT":
        os.makedirs(os.path.dirname(name), exist_ok=True)
        with open(name, "wb") as f:
            f.write(q.body)
        return reply("201 Created"), True
    if not os.path.isfile(name):
        return reply("404 Not Found"), True
    data = open(name, "rb").read()
    first, last = ranged(q, len(data))
    headers = ["Last-Modified: " + formatdate(os.path.getmtime(name), usegmt=True), "Date: " + formatdate(usegmt=True)]
    if last < 0:
        return reply("200 OK", headers, data), True
    headers.append("Content-Range: bytes %d-%d/%d" % (first, last, len(data)))
    return reply("206 Partial", headers, data[first:last + 1]), True


def midclose(q):
    """BODY broken off after a third, a resume after two thirds, a later one sent whole."""
    start, size = ranged(q, len(BODY))[0], len(BODY)
    stop = size // 3 if not start else 2 * size // 3 if start < size // 2 else size
    ranges = ["Content-Range: bytes %d-%d/%d" % (start, size - 1, size)] if start else []
    return reply("206 Partial" if start else "200 OK", ranges + ["Last-Modified: " + OLD], BODY[start:], stop - start), stop == size


def changed(q):
    """800 bytes that break off after 500; from then on the resource is 300 other bytes."""
    if q.method == "GET" and "Range:" not in q.head and once("changed"):
        return reply("200 OK", ["Last-Modified: " + OLD], BODY[:800], 500), False
    new = "changed" in seen
    return reply("200 OK", ["Last-Modified: " + (NEW if new else OLD)], pattern(300, 7) if new else BODY[:800]), True


def stuck(q, honour_range=True):
    """1000 bytes announced; every answer breaks off at byte 400 of the resource."""
    start = ranged(q, 1000)[0] if honour_range else 0
    return reply("206 Partial" if start else "200 OK", ["Last-Modified: " + OLD], BODY[start:1000], 400 - start), q.method == "HEAD"


HELLO = reply("200 OK", ["Last-Modified: " + OLD, "Date: " + OLD], b"hello")
# fault -> request (method, path, head, body, port) -> (bytes to send, whether the connection stays open)
FAULTS = {
    "basic": lambda q: (HELLO, True),
    "midclose": midclose,
    "silentonce": lambda q: (time.sleep(3) or b"", False) if once("silentonce") else (HELLO, True),
    "overrange": lambda q: (reply("206 Partial", [], b"x" * 5000), True),  # whatever the range
    "longlocation": lambda q: (reply("301 Moved", ["Location: http://127.0.0.1:%d/%s" % (q.port, "x" * 2000)]), True),
    "garbage": lambda q: (b"GARBAGE STATUS\r\nContent-Length: 5\r\n\r\nhello", False),
    "changed": changed,
    "stuck": stuck,
    "norange": lambda q: stuck(q, honour_range=False),
    "more": lambda q: (HELLO + reply("400 Stale"), True),  # a second response left on the connection
}


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        fresh = True
        while (head := self.rfile.readline()).strip():
            while (line := self.rfile.readline()).strip():
                head += line
            head = (head + line).decode("latin-1")
            length = int(head.split("Content-Length: ")[1].split("\n")[0]) if "Content-Length: " in head else 0
            q = SimpleNamespace(method=head.split(" ")[0], path=head.split(" ")[1], head=head,
                                body=self.rfile.read(length), port=self.server.server_address[1])
            last_request[0] = time.time()
            with open(os.path.join(DIR, "requests.log"), "a", encoding="latin-1") as log:  # one write: whole heads
                log.write(("CONNECT\n" if fresh else "") + head)
            fresh = False
            out, keep = FAULTS.get(q.path.split("/")[1], files)(q)
            self.wfile.write(out[:out.find(b"\r\n\r\n") + 4] if q.method == "HEAD" else out)
            if not keep:
                return


socketserver.ThreadingTCPServer.daemon_threads = True
server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
quiet = os.open(os.devnull, os.O_RDWR)  # the starter's output let go, so that nothing waits on it
for fd in (0, 1, 2):
    os.dup2(quiet, fd)
with open(os.path.join(DIR, "port"), "w") as f:
    f.write("%d\n" % server.server_address[1])
threading.Thread(target=server.serve_forever, daemon=True).start()
while os.path.isdir(DIR) and time.time() - last_request[0] < 120:
    time.sleep(0.1)
