#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds COUNT keep-alive HTTP connections open to HOST:PORT, each after one full exchange,
so that a relay in between holds COUNT relayed connections. Writes READY_FILE once they are
all up, then waits for SIGTERM or 60 seconds, and closes them.

    hold_connections.py HOST PORT COUNT READY_FILE
"""
import signal
import socket
import sys
import time


def exchange(sock, host):
    sock.sendall(("GET / HTTP/1.1\r\nHost: %s\r\n\r\n" % host).encode())
    data = b""
    deadline = time.monotonic() + 10
    while b"\r\n\r\n" not in data and time.monotonic() < deadline:
        data += sock.recv(65536)
    head, _, body = data.partition(b"\r\n\r\n")
    length = 0
    for line in head.split(b"\r\n"):
        if line.lower().startswith(b"content-length:"):
            length = int(line.split(b":", 1)[1])
    while len(body) < length and time.monotonic() < deadline:
        body += sock.recv(65536)
    return head.startswith(b"HTTP/1.1 200") and len(body) >= length


def main():
    host, port, count, ready = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
    held = []
    for _ in range(count):
        sock = socket.create_connection((host, port), timeout=10)
        if not exchange(sock, host):
            print("exchange failed after %d connections" % len(held), file=sys.stderr)
            return 1
        held.append(sock)
    with open(ready, "w") as out:
        out.write("%d\n" % len(held))
    signal.sigtimedwait([signal.SIGTERM], 60)
    for sock in held:
        sock.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
