#!/usr/bin/env python3
"""The network tests' HTTP server: server.py DIR

Serves the files under DIR/www (GET, HEAD, byte ranges, PUT; /chain/0 .. /chain/9 answer
301 to the next, /chain/10 and /old 301 to /chain.txt and /data.bin, /found 302 to
/chain.txt) and, below /<fault>/, the misbehaviour FAULTS names. Every request head goes
raw to DIR/requests.log, a connection's first after a line "CONNECT". It writes its port
to DIR/port, runs detached, and ends once DIR is gone or after 120 s without a request.
"""
import os, socketserver, sys, threading, time
from types import SimpleNamespace
from email.utils import formatdate

DIR = sys.argv[1]
SIZE = 300000
OLD, NEW = "Sun, 06 Nov 1994 08:49:37 GMT", "Mon, 07 Nov 1994 08:49:37 GMT"
seen = set()  # faults that have answered once
lock = threading.Lock()
last_request = [time.time()]


def pattern(n, seed=0):
    """keelnet::Pattern(n, seed): other seeds stand for another version of a resource."""
    return bytes((((i + seed) * 2654435761) >> 13) & 0xFF for i in range(n))


BODY = pattern(SIZE)


def reply(status, headers=(), body=b"", sent=None):
    """A response that announces len(body) bytes and sends the first `sent` of them."""
    head = "HTTP/1.1 %s\r\n%sContent-Length: %d\r\n\r\n" % (status, "".join(h + "\r\n" for h in headers), len(body))
    return head.encode() + body[:sent]


def ranged(head, size):
    """The first and last byte a "Range: bytes=a-[b]" line asks for (0, -1: none)."""
    if "Range: bytes=" not in head:
        return 0, -1
    first, last = head.split("Range: bytes=")[1].split("\n")[0].strip().split("-")
    return int(first), int(last) if last else size - 1


def once(name):
    """True the first time a fault answers."""
    with lock:
        first = name not in seen
        seen.add(name)
    return first


MOVES = {"/found": ("302 Found", "/chain.txt"), "/old": ("301 Moved", "/data.bin")}
MOVES.update({"/chain/%d" % i: ("301 Moved", "/chain/%d" % (i + 1) if i < 10 else "/chain.txt") for i in range(11)})


def files(q):
    if q.path in MOVES:
        return reply(MOVES[q.path][0], ["Location: " + MOVES[q.path][1]]), True
    name = os.path.join(DIR, "www", q.path.lstrip("/") or "index.html")
    if q.method == "PUT":
        os.makedirs(os.path.dirname(name), exist_ok=True)
        with open(name, "wb") as f:
            f.write(q.body)
        return reply("201 Created"), True
    if not os.path.isfile(name):
        return reply("404 Not Found"), True
    data = open(name, "rb").read()
    first, last = ranged(q.head, len(data))
    status = "206 Partial" if last >= 0 else "200 OK"
    headers = ["Last-Modified: " + formatdate(os.path.getmtime(name), usegmt=True), "Date: " + formatdate(usegmt=True)]
    if last >= 0:
        headers.append("Content-Range: bytes %d-%d/%d" % (first, last, len(data)))
        data = data[first:last + 1]
    return reply(status, headers, data, 0 if q.method == "HEAD" else None), True


def midclose(q):
    """SIZE bytes broken off after a third, a resume (Range and the matching If-Range) after
    two thirds, a later one sent whole; a Range without the matching If-Range gets other bytes."""
    start = ranged(q.head, SIZE)[0]
    if start and "If-Range: " + OLD not in q.head:
        return reply("200 OK", [], pattern(SIZE, 7)), False
    stop = SIZE // 3 if not start else 2 * SIZE // 3 if start < SIZE // 2 else SIZE
    ranges = ["Content-Range: bytes %d-%d/%d" % (start, SIZE - 1, SIZE)] if start else []
    status = "206 Partial Content" if start else "200 OK"
    return reply(status, ranges + ["Last-Modified: " + OLD], BODY[start:], stop - start), stop == SIZE


def changed(q):
    """800 bytes that break off after 500; from then on the resource is 300 other bytes."""
    if q.method == "GET" and "Range:" not in q.head and once("changed"):
        return reply("200 OK", ["Last-Modified: " + OLD], BODY[:800], 500), False
    new = "changed" in seen
    body = pattern(300, 7) if new else BODY[:800]
    return reply("200 OK", ["Last-Modified: " + (NEW if new else OLD)], body, 0 if q.method == "HEAD" else None), True


def stuck(q, honour_range=True):
    """1000 bytes announced; every answer breaks off at byte 400 of the resource."""
    start = ranged(q.head, 1000)[0] if honour_range else 0
    status, sent = "206 Partial Content" if start else "200 OK", 0 if q.method == "HEAD" else 400 - start
    return reply(status, ["Last-Modified: " + OLD], BODY[start:1000], sent), q.method == "HEAD"


def relative(q):
    hops = {"/relative/b/start": "next.txt", "/relative/b/next.txt": "../c/./hop#fragment",
            "/relative/c/hop": "//127.0.0.1:%d/relative/final?x=1" % q.port}
    if q.path in hops:
        return reply("301 Moved Permanently", ["Location: " + hops[q.path]]), True
    return reply("200 OK", [], b"hello"), True


HELLO = reply("200 OK", ["Last-Modified: " + OLD, "Date: " + OLD], b"hello")
# fault -> request (method, path, head, body, port) -> (bytes to send, whether the connection stays open)
FAULTS = {
    "basic": lambda q: (HELLO, True),
    "midclose": midclose,
    "silentonce": lambda q: (time.sleep(3) or b"", False) if once("silentonce") else (HELLO, True),
    "overrange": lambda q: (reply("206 Partial Content", [], b"x" * 5000), True),  # whatever the range
    "longheader": lambda q: (reply("200 OK", ["X-Filler: " + "a" * 10000], b"hello"), True),
    "longlocation": lambda q: (reply("301 Moved", ["Location: http://127.0.0.1:%d/%s" % (q.port, "x" * 2000)]), True),
    "garbage": lambda q: (b"GARBAGE STATUS\r\nContent-Length: 5\r\n\r\nhello", False),
    "dropbody": lambda q: (reply("200 OK", [], BODY[:1000], 0), False),  # announced, never sent
    "changed": changed,
    "stuck": stuck,
    "norange": lambda q: stuck(q, honour_range=False),
    # Bytes left on a kept-alive connection: a second response, a body without a length.
    "more": lambda q: (HELLO + b"HTTP/1.1 400 Stale\r\nContent-Length: 0\r\n\r\n", True),
    "nolength": lambda q: (b"HTTP/1.1 200 OK\r\n\r\nhello", True),
    "relative": relative,
}


class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        data, fresh = b"", True
        while True:
            while b"\n\n" not in data.replace(b"\r\n", b"\n"):
                chunk = self.request.recv(65536)
                if not chunk:
                    return
                data += chunk
            end = data.find(b"\n\n") + 2 if b"\n\n" in data else data.find(b"\r\n\r\n") + 4
            head, data = data[:end].decode("latin-1"), data[end:]
            length = int(head.split("Content-Length: ")[1].split("\n")[0]) if "Content-Length: " in head else 0
            while len(data) < length:
                data += self.request.recv(65536)
            body, data = data[:length], data[length:]
            with lock:
                last_request[0] = time.time()
                with open(os.path.join(DIR, "requests.log"), "a", encoding="latin-1") as log:
                    log.write(("CONNECT\n" if fresh else "") + head)
            fresh = False
            method, path = head.split(" ")[:2]
            q = SimpleNamespace(method=method, path=path, head=head, body=body, port=self.server.server_address[1])
            out, keep = FAULTS.get(path.split("/")[1], files)(q)
            self.request.sendall(out)
            if not keep:
                return


def main():
    socketserver.ThreadingTCPServer.daemon_threads = True
    server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
    if os.fork():  # detached: out of the starter's session, its output let go
        os._exit(0)
    os.setsid()
    quiet = os.open(os.devnull, os.O_RDWR)
    for fd in (0, 1, 2):
        os.dup2(quiet, fd)
    with open(os.path.join(DIR, "port.tmp"), "w") as f:
        f.write("%d\n" % server.server_address[1])
    os.replace(os.path.join(DIR, "port.tmp"), os.path.join(DIR, "port"))
    threading.Thread(target=server.serve_forever, daemon=True).start()
    while os.path.isdir(DIR) and time.time() - last_request[0] < 120:
        time.sleep(0.1)


if __name__ == "__main__":
    main()
