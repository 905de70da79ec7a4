#!/usr/bin/env python3
"""A misbehaving HTTP server for the network tests (standard library only).

  fault_server.py SCENARIO [LOGFILE]             prints its port, serves until stdin closes
  fault_server.py SCENARIO LOGFILE --portfile F  detaches, writes "port pid" to F
  fault_server.py --stop F                       ends the detached one

Every request head is appended raw to LOGFILE. Scenarios: see SCENARIOS below; "midclose"
serves BODY_SIZE bytes of pattern() and breaks the first answer off after a third, a
resumed one (Range + matching If-Range) after two thirds, then sends the rest; a Range
without the matching If-Range gets a different body.
"""
import os, socketserver, sys, threading, time

BODY_SIZE = 300000
LAST_MODIFIED = "Sun, 06 Nov 1994 08:49:37 GMT"
BODY = bytes(((i * 2654435761) >> 13) & 0xFF for i in range(BODY_SIZE))
state = {"requests": 0}
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
}


class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        data = b""
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
                        log.write(head)
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
    server.log = sys.argv[2] if len(sys.argv) > 2 else None
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
