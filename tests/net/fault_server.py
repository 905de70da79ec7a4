#!/usr/bin/env python3
"""A misbehaving HTTP server for the network tests (standard library only).

  fault_server.py SCENARIO [LOGFILE]           prints its port, serves until stdin closes
  fault_server.py SCENARIO LOGFILE --portfile F  detaches, writes "port pid" to F
  fault_server.py --stop F                       ends the detached one

Scenarios (every request head is appended raw to LOGFILE):
  basic         200 "hello", kept alive
  midclose      BODY_SIZE bytes of Pattern(); the first answer breaks off after a third,
                a resumed one (Range + matching If-Range) after two thirds, then the rest;
                a Range without the matching If-Range gets a different body
  overrange     206 announcing 5000 bytes whatever the range
  silentonce    the first request gets silence for 3 s; then as basic
  longheader    a 10,000-byte header line before Content-Length
  longlocation  301 to a 2,000-character Location
  garbage       a status line that is no status line
  dropbody      announces 1000 bytes, sends none
"""
import os, socket, socketserver, sys, threading, time

BODY_SIZE = 300000
LAST_MODIFIED = "Sun, 06 Nov 1994 08:49:37 GMT"
state = {"requests": 0}
lock = threading.Lock()


def pattern(n):
    return bytes(((i * 2654435761) >> 13) & 0xFF for i in range(n))


BODY = pattern(BODY_SIZE)


def reply(status, headers, body=b""):
    head = "HTTP/1.1 %s\r\n%sContent-Length: %d\r\n\r\n" % (status, "".join(h + "\r\n" for h in headers), len(body))
    return head.encode() + body


def midclose(head):
    start = 0
    if "Range: bytes=" in head:
        if "If-Range: " + LAST_MODIFIED not in head:
            return reply("200 OK", [], bytes(255 - b for b in BODY)), False
        start = int(head.split("Range: bytes=")[1].split("-")[0])
        stop = 2 * BODY_SIZE // 3 if start < BODY_SIZE // 2 else BODY_SIZE
        head = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes %d-%d/%d\r\n" % (start, BODY_SIZE - 1, BODY_SIZE)
    else:
        stop = BODY_SIZE // 3
        head = "HTTP/1.1 200 OK\r\n"
    head += "Last-Modified: %s\r\nContent-Length: %d\r\n\r\n" % (LAST_MODIFIED, BODY_SIZE - start)
    return head.encode() + BODY[start:stop], stop == BODY_SIZE


def answer(scenario, head, first, port):
    """The bytes to send and whether the connection stays open."""
    if scenario == "midclose":
        return midclose(head)
    if scenario == "overrange":
        return reply("206 Partial Content", [], b"x" * 5000), True
    if scenario == "silentonce" and first:
        time.sleep(3)
        return b"", False
    if scenario == "longheader":
        return reply("200 OK", ["X-Filler: " + "a" * 10000], b"hello"), True
    if scenario == "longlocation":
        return reply("301 Moved", ["Location: http://127.0.0.1:%d/%s" % (port, "x" * 2000)]), True
    if scenario == "garbage":
        return b"GARBAGE STATUS\r\nContent-Length: 5\r\n\r\nhello", False
    if scenario == "dropbody":
        return b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n", False
    return reply("200 OK", ["Last-Modified: " + LAST_MODIFIED, "Date: " + LAST_MODIFIED], b"hello"), True


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
                with lock, open(self.server.log, "a", encoding="latin-1") as log:
                    log.write(head)
            out, keep = answer(self.server.scenario, head, first, self.server.server_address[1])
            self.request.sendall(out)
            if not keep:
                return


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
        portfile = sys.argv[sys.argv.index("--portfile") + 1]
        if os.path.exists(portfile):
            os.remove(portfile)
        if os.fork():  # the parent returns once the child has announced itself
            for _ in range(100):
                if os.path.exists(portfile):
                    return
                time.sleep(0.1)
            sys.exit(1)
        os.setsid()
        quiet = os.open(os.devnull, os.O_RDWR)
        for fd in (0, 1, 2):
            os.dup2(quiet, fd)
        with open(portfile + ".tmp", "w") as f:
            f.write("%d %d\n" % (port, os.getpid()))
        os.replace(portfile + ".tmp", portfile)
    else:
        os.write(1, b"%d\n" % port)  # one write: the reader stops at the line feed
        # The test that started us holds our stdin; when it ends, so do we.
        threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    server.serve_forever()


if __name__ == "__main__":
    main()
