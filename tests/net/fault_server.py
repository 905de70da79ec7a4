#!/usr/bin/env python3
"""A misbehaving HTTP server for the network tests (standard library only).

  fault_server.py SCENARIO [LOGFILE] [--upstream PORT]  prints its port, serves until stdin closes
  fault_server.py SCENARIO LOGFILE --portfile F         detaches, writes "port pid" to F
  fault_server.py --stop F                              ends the detached one

Every request head is appended raw to LOGFILE, each connection's first one after a line
"CONNECT". Scenarios: see SCENARIOS below; "midclose" serves BODY_SIZE bytes of pattern()
and breaks the first answer off after a third, a resumed one (Range + matching If-Range)
after two thirds, then sends the rest; a Range without the matching If-Range gets a
different body. "cutproxy" forwards each request to 127.0.0.1:PORT and cuts the first
answer with a body off halfway.
"""
import os, socketserver, sys, threading, time

BODY_SIZE = 300000
LAST_MODIFIED = "Sun, 06 Nov 1994 08:49:37 GMT"
BODY = bytes(((i * 2654435761) >> 13) & 0xFF for i in range(BODY_SIZE))
NEWER = "Mon, 07 Nov 1994 08:49:37 GMT"
state = {"requests": 0, "changed": False, "cut": False}
lock = threading.Lock()


def reply(status, headers, body=b""):
    head = "HTTP/1.1 %s\r\n%sContent-Length: %d\r\n\r\n" % (status, "".join(h + "\r\n" for h in headers), len(body))
    return head.encode() + body


def midclose(head, first, port):
    start, stop, status = 0, BODY_SIZE // 3, "200 OK\r\n"
    if "Range: bytes=" in head:
        if "If-Range: " + LAST_MODIFIED not in head:
            return reply("200 OK", [], bytes(255 - b for b in BODY)), False
        start = int(head.split("Range: bytes=")[1].split("-")[0])
        stop = 2 * BODY_SIZE // 3 if start < BODY_SIZE // 2 else BODY_SIZE
        status = "206 Partial Content\r\nContent-Range: bytes %d-%d/%d\r\n" % (start, BODY_SIZE - 1, BODY_SIZE)
    head = "HTTP/1.1 %sLast-Modified: %s\r\nContent-Length: %d\r\n\r\n" % (status, LAST_MODIFIED, BODY_SIZE - start)
    return head.encode() + BODY[start:stop], stop == BODY_SIZE


def basic(head, first, port):
    return reply("200 OK", ["Last-Modified: " + LAST_MODIFIED, "Date: " + LAST_MODIFIED], b"hello"), True


def ranged_from(head):
    return int(head.split("Range: bytes=")[1].split("-")[0]) if "Range: bytes=" in head else -1


def changed(head, first, port):
    """800 bytes that break off after 500; from then on the resource is 300 other bytes."""
    old = not state["changed"]
    if head.startswith("GET") and ranged_from(head) < 0 and old:
        state["changed"] = True
        return b"HTTP/1.1 200 OK\r\nLast-Modified: %s\r\nContent-Length: 800\r\n\r\n" % LAST_MODIFIED.encode() + BODY[:500], False
    body = BODY[:800] if old else bytes(255 - b for b in BODY[:300])
    out = reply("200 OK", ["Last-Modified: " + (LAST_MODIFIED if old else NEWER)], body)
    return (out.split(b"\r\n\r\n")[0] + b"\r\n\r\n" if head.startswith("HEAD") else out), True


def stuck(head, first, port, honour_range=True):
    """1000 bytes announced; every answer breaks off at byte 400 of the resource."""
    start = max(ranged_from(head), 0) if honour_range else 0
    status = "206 Partial Content" if start else "200 OK"
    out = "HTTP/1.1 %s\r\nLast-Modified: %s\r\nContent-Length: %d\r\n\r\n" % (status, LAST_MODIFIED, 1000 - start)
    if head.startswith("HEAD"):
        return out.encode(), True
    return out.encode() + BODY[start:400], False


def leftovers(head, first, port):
    """Answers that leave bytes on a kept-alive connection, by request; others get hello."""
    if head.startswith("HEAD"):
        return reply("200 OK", [], b"hello"), True  # a body on a HEAD answer
    if head.startswith("GET /more "):
        return reply("200 OK", [], b"hello") + b"HTTP/1.1 400 Stale\r\nContent-Length: 0\r\n\r\n", True
    if head.startswith("GET /nolength "):
        return b"HTTP/1.1 200 OK\r\n\r\nhello", True
    return reply("200 OK", [], b"hello"), True


def relative(head, first, port):
    hops = {"/a/b/start": "next.txt", "/a/b/next.txt": "../c/./hop#fragment",
            "/a/c/hop": "//127.0.0.1:%d/final?x=1" % port}
    path = head.split(" ")[1]
    if path in hops:
        return reply("301 Moved Permanently", ["Location: " + hops[path]]), True
    return (reply("200 OK", [], b"hello"), True) if path == "/final?x=1" else (reply("404 Not Found", []), True)


def read_response(sock, method):
    """One whole response from sock: head, and the body its Content-Length announces."""
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(65536)
        if not chunk:
            return data
        data += chunk
    head = data[:data.index(b"\r\n\r\n") + 4].decode("latin-1")
    length = 0 if method == "HEAD" else int(([l for l in head.split("\r\n") if l.lower().startswith("content-length:")] or ["x: 0"])[0].split(":")[1])
    while len(data) < len(head) + length:
        chunk = sock.recv(65536)
        if not chunk:
            break
        data += chunk
    return data


def cutproxy(head, first, port):
    import socket
    with socket.create_connection(("127.0.0.1", state["upstream"])) as up:
        up.sendall(head.encode("latin-1"))
        out = read_response(up, head.split(" ")[0])
    body_at = out.index(b"\r\n\r\n") + 4 if b"\r\n\r\n" in out else len(out)
    if not state["cut"] and len(out) - body_at > 1000:
        state["cut"] = True
        return out[:body_at + (len(out) - body_at) // 2], False
    return out, True


def silentonce(head, first, port):  # the first request gets 3 s of silence
    return (time.sleep(3) or b"", False) if first else basic(head, first, port)


# name -> (head, is first request, port) -> (bytes to send, whether the connection stays open)
SCENARIOS = {
    "basic": basic,
    "midclose": midclose,
    "silentonce": silentonce,
    "overrange": lambda h, f, p: (reply("206 Partial Content", [], b"x" * 5000), True),  # 5000 whatever the range
    "longheader": lambda h, f, p: (reply("200 OK", ["X-Filler: " + "a" * 10000], b"hello"), True),
    "longlocation": lambda h, f, p: (reply("301 Moved", ["Location: http://127.0.0.1:%d/%s" % (p, "x" * 2000)]), True),
    "garbage": lambda h, f, p: (b"GARBAGE STATUS\r\nContent-Length: 5\r\n\r\nhello", False),
    "dropbody": lambda h, f, p: (b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n", False),  # announced, never sent
    "changed": changed,
    "stuck": stuck,
    "norange": lambda h, f, p: stuck(h, f, p, honour_range=False),
    "leftovers": leftovers,
    "relative": relative,
    "cutproxy": cutproxy,
}


class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        data = b""
        fresh = True
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
                if self.server.log:
                    with open(self.server.log, "a", encoding="latin-1") as log:
                        log.write(("CONNECT\n" if fresh else "") + head)
            fresh = False
            out, keep = SCENARIOS[self.server.scenario](head, first, self.server.server_address[1])
            self.request.sendall(out)
            if not keep:
                return


def detach(portfile, port):
    """Returns in the child; the parent exits once the child has written the file."""
    if os.path.exists(portfile):
        os.remove(portfile)
    if os.fork():
        for _ in range(100):
            if os.path.exists(portfile):
                sys.exit(0)
            time.sleep(0.1)
        sys.exit(1)
    os.setsid()
    quiet = os.open(os.devnull, os.O_RDWR)
    for fd in (0, 1, 2):
        os.dup2(quiet, fd)
    with open(portfile + ".tmp", "w") as f:
        f.write("%d %d\n" % (port, os.getpid()))
    os.replace(portfile + ".tmp", portfile)


def main():
    if sys.argv[1] == "--stop":
        os.kill(int(open(sys.argv[2]).read().split()[1]), 15)
        return
    socketserver.ThreadingTCPServer.daemon_threads = True
    server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
    server.scenario = sys.argv[1]
    server.log = sys.argv[2] if len(sys.argv) > 2 and sys.argv[2] else None
    if "--upstream" in sys.argv:
        state["upstream"] = int(sys.argv[sys.argv.index("--upstream") + 1])
    port = server.server_address[1]
    if "--portfile" in sys.argv:
        detach(sys.argv[sys.argv.index("--portfile") + 1], port)
    else:
        os.write(1, b"%d\n" % port)  # one write: the reader stops at the line feed
        # The test that started us holds our stdin; when it ends, so do we.
        threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    server.serve_forever()


if __name__ == "__main__":
    main()
