#!/usr/bin/env python3
"""A misbehaving HTTP server for the network tests (standard library only).

  fault_server.py SCENARIO LOGFILE --portfile F [--upstream PORT] [--detach]
  fault_server.py --stop F

Writes "port pid" to F, then serves until SIGTERM or, unless detached, until the program
that started it is gone; --stop ends a detached one. Every request head is appended raw to
LOGFILE, a connection's first after a line "CONNECT". SCENARIOS is the table of
misbehaviours, one per process.
"""
import os, socket, socketserver, sys, threading, time

SIZE = 300000
OLD, NEW = "Sun, 06 Nov 1994 08:49:37 GMT", "Mon, 07 Nov 1994 08:49:37 GMT"


def pattern(n, seed=0):
    """keelnet::Pattern(n, seed): other seeds stand for another version of a resource."""
    return bytes((((i + seed) * 2654435761) >> 13) & 0xFF for i in range(n))


BODY = pattern(SIZE)
state = {"requests": 0, "changed": False, "cut": False}
lock = threading.Lock()


def reply(status, headers=(), body=b"", sent=None):
    """A response that announces len(body) bytes and sends the first `sent` of them."""
    head = "HTTP/1.1 %s\r\n%sContent-Length: %d\r\n\r\n" % (status, "".join(h + "\r\n" for h in headers), len(body))
    return head.encode() + body[:sent]


def ranged_from(head):
    return int(head.split("Range: bytes=")[1].split("-")[0]) if "Range: bytes=" in head else -1


def midclose(head, first, port):
    """SIZE bytes broken off after a third, a resume (Range and the matching If-Range) after
    two thirds, a later one sent whole; a Range without the matching If-Range gets other bytes."""
    start = max(ranged_from(head), 0)
    if start and "If-Range: " + OLD not in head:
        return reply("200 OK", [], pattern(SIZE, 7)), False
    stop = SIZE // 3 if not start else 2 * SIZE // 3 if start < SIZE // 2 else SIZE
    ranged = ["Content-Range: bytes %d-%d/%d" % (start, SIZE - 1, SIZE)] if start else []
    status = "206 Partial Content" if start else "200 OK"
    return reply(status, ranged + ["Last-Modified: " + OLD], BODY[start:], stop - start), stop == SIZE


def changed(head, first, port):
    """800 bytes that break off after 500; from then on the resource is 300 other bytes."""
    old = not state["changed"]
    if head.startswith("GET") and ranged_from(head) < 0 and old:
        state["changed"] = True
        return reply("200 OK", ["Last-Modified: " + OLD], BODY[:800], 500), False
    body = BODY[:800] if old else pattern(300, 7)
    return reply("200 OK", ["Last-Modified: " + (OLD if old else NEW)], body, 0 if head.startswith("HEAD") else None), True


def stuck(head, first, port, honour_range=True):
    """1000 bytes announced; every answer breaks off at byte 400 of the resource."""
    start = max(ranged_from(head), 0) if honour_range else 0
    status, sent = "206 Partial Content" if start else "200 OK", 0 if head.startswith("HEAD") else 400 - start
    return reply(status, ["Last-Modified: " + OLD], BODY[start:1000], sent), head.startswith("HEAD")


def leftovers(head, first, port):
    """Bytes left on a kept-alive connection: a second response after the first, a body
    without a length, a body on a HEAD answer."""
    hello = reply("200 OK", [], b"hello")
    if head.startswith("GET /more "):
        return hello + b"HTTP/1.1 400 Stale\r\nContent-Length: 0\r\n\r\n", True
    return (b"HTTP/1.1 200 OK\r\n\r\nhello" if head.startswith("GET /nolength ") else hello), True


def relative(head, first, port):
    hops = {"/a/b/start": "next.txt", "/a/b/next.txt": "../c/./hop#fragment",
            "/a/c/hop": "//127.0.0.1:%d/final?x=1" % port}
    path = head.split(" ")[1]
    if path in hops:
        return reply("301 Moved Permanently", ["Location: " + hops[path]]), True
    return (reply("200 OK", [], b"hello") if path == "/final?x=1" else reply("404 Not Found")), True


def cutproxy(head, first, port):
    """Forwards to the upstream port, one connection per request, and cuts the first answer
    with a body of more than 1000 bytes off halfway."""
    with socket.create_connection(("127.0.0.1", state["upstream"])) as up:
        up.sendall(head.replace("Connection: Keep-Alive", "Connection: close").encode("latin-1"))
        out = b"".join(iter(lambda: up.recv(65536), b""))
    body_at = out.find(b"\r\n\r\n") + 4
    if not state["cut"] and len(out) - body_at > 1000:
        state["cut"] = True
        return out[:body_at + (len(out) - body_at) // 2], False
    return out, True


def basic(head, first, port):
    return reply("200 OK", ["Last-Modified: " + OLD, "Date: " + OLD], b"hello"), True


# name -> (request head, whether it is the server's first request, port)
#      -> (bytes to send, whether the connection stays open)
SCENARIOS = {
    "basic": basic,
    "midclose": midclose,
    "silentonce": lambda h, f, p: (time.sleep(3) or b"", False) if f else basic(h, f, p),  # 3 s of silence first
    "overrange": lambda h, f, p: (reply("206 Partial Content", [], b"x" * 5000), True),  # 5000 whatever the range
    "longheader": lambda h, f, p: (reply("200 OK", ["X-Filler: " + "a" * 10000], b"hello"), True),
    "longlocation": lambda h, f, p: (reply("301 Moved", ["Location: http://127.0.0.1:%d/%s" % (p, "x" * 2000)]), True),
    "garbage": lambda h, f, p: (b"GARBAGE STATUS\r\nContent-Length: 5\r\n\r\nhello", False),
    "dropbody": lambda h, f, p: (reply("200 OK", [], BODY[:1000], 0), False),  # announced, never sent
    "changed": changed,
    "stuck": stuck,
    "norange": lambda h, f, p: stuck(h, f, p, honour_range=False),
    "leftovers": leftovers,
    "relative": relative,
    "cutproxy": cutproxy,
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
            with lock:  # counted per request: the tests' start-up probe connects and sends nothing
                state["requests"] += 1
                first = state["requests"] == 1
                with open(self.server.log, "a", encoding="latin-1") as log:
                    log.write(("CONNECT\n" if fresh else "") + head)
            fresh = False
            out, keep = SCENARIOS[self.server.scenario](head, first, self.server.server_address[1])
            self.request.sendall(out)
            if not keep:
                return


def orphaned(parent):
    while os.getppid() == parent:
        time.sleep(0.2)
    os._exit(0)


def main():
    args = sys.argv
    if args[1] == "--stop":
        os.kill(int(open(args[2]).read().split()[1]), 15)
        return
    socketserver.ThreadingTCPServer.daemon_threads = True
    server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
    server.scenario, server.log = args[1], args[2]
    state["upstream"] = int(args[args.index("--upstream") + 1]) if "--upstream" in args else 0
    portfile = args[args.index("--portfile") + 1]
    if "--detach" in args:  # under wine: out of the starter's session, its output let go
        if os.fork():
            os._exit(0)
        os.setsid()
        quiet = os.open(os.devnull, os.O_RDWR)
        for fd in (0, 1, 2):
            os.dup2(quiet, fd)
    else:
        threading.Thread(target=orphaned, args=(os.getppid(),), daemon=True).start()
    with open(portfile + ".tmp", "w") as f:
        f.write("%d %d\n" % (server.server_address[1], os.getpid()))
    os.replace(portfile + ".tmp", portfile)
    server.serve_forever()


if __name__ == "__main__":
    main()
