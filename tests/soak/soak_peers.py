#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The peers of the soak run (tests/soak/soak.sh), one role per process:

    origin   HTTP on 198.18.0.20:80 and TLS on 198.18.0.21:443; the path picks the answer:
             /get/SIZE/SEED, /post/SIZE/SEED (answers the SHA-256 of the request body in
             X-Body-Sha256), /hold/MS/SIZE/SEED (answers after MS), /halfclose/SIZE/SEED
             (answers, then shuts down its sending side and waits for the client's end),
             /drip/SIZE/SEED (one byte every 5 ms), /reset/SIZE/SEED (half the body, then a
             reset), /stall (never reads the body, closes after 4 s), /silent (never answers,
             closes after 5 s)
    dns      a resolver on 127.0.0.1:53 that knows gateway.swg.test; silent while FLAG exists
    badgw    a gateway on 198.18.0.10:80 and :443 that is silent, resets or half-closes,
             holding its connections until SIGTERM
    load     the clients (in the laptop namespace), one JSON line per connection
    drive    runs load, injects the faults, samples the agent and judges (soak_drive.py)

Bodies are a pattern of the seed, so that either end can check them by their SHA-256.
"""
import hashlib
import json
import os
import random
import selectors
import signal
import socket
import ssl
import struct
import sys
import threading
import time

WWW = ("198.18.0.20", 80, "www.demo.test")
SECURE = ("198.18.0.21", 443, "secure.demo.test")
GATEWAY = "198.18.0.10"
CLIENT_LIMIT_S = 30  # a client still waiting after this long is a hang
SIZES = [0, 1, 100, 1500, 16383, 16384, 16385, 65536, 200000]
BIG = 1048576

_patterns = {}
_digests = {}
_cache_lock = threading.Lock()


def pattern(seed):
    with _cache_lock:
        if seed not in _patterns:
            _patterns[seed] = random.Random(seed).randbytes(4096)
        return _patterns[seed]


def body(size, seed):
    p = pattern(seed)
    return (p * (size // len(p) + 1))[:size]


def digest(size, seed):
    key = (size, seed)
    with _cache_lock:
        if key in _digests:
            return _digests[key]
    value = hashlib.sha256(body(size, seed)).hexdigest()
    with _cache_lock:
        _digests[key] = value
    return value


def read_head(sock, limit=65536):
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(65536)
        if not chunk:
            return None, data
        data += chunk
        if len(data) > limit:
            return None, data
    head, _, rest = data.partition(b"\r\n\r\n")
    return head.decode("latin-1"), rest


def header(head, name):
    for line in head.split("\r\n")[1:]:
        key, _, value = line.partition(":")
        if key.strip().lower() == name:
            return value.strip()
    return None


def reset(sock):
    try:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    except OSError:
        pass
    sock.close()


# ---- origin


def serve_origin(conn, tls_context):
    try:
        conn.settimeout(CLIENT_LIMIT_S)
        if tls_context is not None:
            conn = tls_context.wrap_socket(conn, server_side=True)
        head, rest = read_head(conn)
        if head is None:
            return
        parts = head.split(" ")[1].strip("/").split("/")
        what = parts[0]
        if what == "stall":
            time.sleep(4)
            reset(conn)
            return
        length = int(header(head, "content-length") or 0)
        received = hashlib.sha256()
        got = len(rest)
        received.update(rest)
        while got < length:
            chunk = conn.recv(min(65536, length - got))
            if not chunk:
                return
            received.update(chunk)
            got += len(chunk)
        if what == "silent":
            time.sleep(5)
            return
        if what == "hold":
            time.sleep(int(parts[1]) / 1000.0)
            parts = parts[1:]
        size, seed = int(parts[1]), int(parts[2])
        data = body(size, seed)
        reply = ("HTTP/1.1 200 OK\r\nContent-Length: %d\r\nX-Body-Sha256: %s\r\n"
                 "Connection: close\r\n\r\n" % (size, received.hexdigest())).encode()
        if what == "drip":
            conn.sendall(reply)
            for i in range(size):
                conn.sendall(data[i:i + 1])
                time.sleep(0.005)
        elif what == "reset":
            conn.sendall(reply + data[:size // 2])
            time.sleep(0.05)
            reset(conn)
            return
        else:
            conn.sendall(reply + data)
        if what == "halfclose":
            conn.shutdown(socket.SHUT_WR)
            while conn.recv(65536):
                pass
    except (OSError, ValueError, IndexError):
        pass
    finally:
        try:
            conn.close()
        except OSError:
            pass


def listen(host, port):
    sock = socket.socket()
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind((host, port))
    sock.listen(1024)
    return sock


def accept_loop(sock, handler, *args):
    while True:
        try:
            conn, _ = sock.accept()
        except OSError:
            return
        threading.Thread(target=handler, args=(conn, ) + args, daemon=True).start()


def origin(argv):
    cert, key = argv
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)
    threading.stack_size(256 * 1024)
    plain = listen(WWW[0], WWW[1])
    secure = listen(SECURE[0], SECURE[1])
    threading.Thread(target=accept_loop, args=(secure, serve_origin, context), daemon=True).start()
    print("ready", flush=True)
    accept_loop(plain, serve_origin, None)


# ---- resolver


def dns(argv):
    flag = argv[0]
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", 53))
    print("ready", flush=True)
    while True:
        query, peer = sock.recvfrom(512)
        if os.path.exists(flag) or len(query) < 17:
            continue
        labels, at = [], 12
        while at < len(query) and query[at] != 0:
            labels.append(query[at + 1:at + 1 + query[at]].decode("latin-1").lower())
            at += 1 + query[at]
        question = query[12:at + 5]
        qtype = struct.unpack("!H", query[at + 1:at + 3])[0]
        known = ".".join(labels) == "gateway.swg.test"
        answers = b""
        if known and qtype == 1:
            answers = b"\xc0\x0c" + struct.pack("!HHIH", 1, 1, 30, 4) + socket.inet_aton(GATEWAY)
        flags = 0x8180 if known else 0x8183
        sock.sendto(query[:2] + struct.pack("!HHHHH", flags, 1, 1 if answers else 0, 0, 0) +
                    question + answers, peer)


# ---- misbehaving gateway


def serve_badgw(conn, mode, held):
    try:
        conn.settimeout(60)
        if mode == "reset":
            conn.recv(4096)
            reset(conn)
            return
        held.append(conn)
        read_head(conn)
        if mode == "halfclose":
            conn.shutdown(socket.SHUT_WR)
        while conn.recv(65536):
            pass
    except OSError:
        pass


def badgw(argv):
    mode = argv[0]
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
    held = []
    for port in (80, 443):
        sock = listen(GATEWAY, port)
        threading.Thread(target=accept_loop, args=(sock, serve_badgw, mode, held), daemon=True).start()
    print("ready", flush=True)
    signal.sigwait([signal.SIGTERM])
    for conn in list(held):
        try:
            conn.close()
        except OSError:
            pass


# ---- clients

CONNECT_S = 10


class Outcome(Exception):
    pass


def open_client(target, tls):
    sock = socket.create_connection(target[:2], timeout=CONNECT_S)
    sock.settimeout(CLIENT_LIMIT_S)
    if tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        try:
            sock = context.wrap_socket(sock, server_hostname=target[2])
        except ssl.SSLEOFError:
            # Closed before a byte came back, as the pool closes a job it cannot keep; the
            # plain clients report the same as "no header block (0 bytes)".
            raise Outcome("closed in the TLS handshake (0 bytes)")
    return sock


def request(path, host, size=0, seed=0):
    head = "%s %s HTTP/1.1\r\nHost: %s\r\nConnection: close\r\n" % (
        "POST" if size else "GET", path, host)
    if size:
        head += "Content-Length: %d\r\n" % size
    return (head + "\r\n").encode() + body(size, seed)


def read_answer(sock, deadline):
    """Status line, headers and the body, which must end exactly at Content-Length."""
    head, rest = read_head(sock)
    if head is None:
        raise Outcome("no header block (%d bytes)" % len(rest))
    if not head.startswith("HTTP/1.1 200"):
        raise Outcome("status " + head.split("\r\n")[0][:40])
    length = int(header(head, "content-length"))
    hashed = hashlib.sha256(rest[:length])
    got = len(rest)
    while True:
        if time.time() > deadline:
            raise Outcome("hang")
        try:
            chunk = sock.recv(65536)
        except ssl.SSLError as e:
            if "EOF" in str(e):  # a TLS peer that closes without close_notify, after all bytes
                break
            raise
        if not chunk:
            break
        if got < length:
            hashed.update(chunk[:length - got])
        got += len(chunk)
    if got != length:
        raise Outcome("%d of %d bytes" % (got, length))
    return head, hashed.hexdigest()


def exchange(tls, what, size, seed, post=0):
    """A whole request; returns None when the client got exactly its bytes."""
    target = SECURE if tls else WWW
    deadline = time.time() + CLIENT_LIMIT_S
    sock = open_client(target, tls)
    try:
        sock.sendall(request("/%s/%d/%d" % (what, size, seed), target[2], post, seed + 1))
        head, got = read_answer(sock, deadline)
        if got != digest(size, seed):
            raise Outcome("body checksum")
        if header(head, "x-body-sha256") != digest(post, seed + 1):
            raise Outcome("request body checksum")
    finally:
        sock.close()


def until_end(sock, deadline):
    """Reads until the peer ends; a hang past the deadline is the only failure."""
    while time.time() < deadline:
        try:
            if not sock.recv(65536):
                return
        except (OSError, ssl.SSLError):
            return
    raise Outcome("hang")


def hostile(kind, rng):
    tls = rng.random() < 0.4
    target = SECURE if tls else WWW
    deadline = time.time() + CLIENT_LIMIT_S
    if kind == "silent-client":
        sock = socket.create_connection(target[:2], timeout=CONNECT_S)
        time.sleep(3)
        sock.close()
        return
    sock = open_client(target, tls)
    try:
        if kind == "reset-in-request":
            full = request("/post/100/1", target[2], 200000, 2)
            sock.sendall(full[:rng.randrange(10, 60000)])
            reset(sock)
        elif kind == "reset-in-response":
            sock.sendall(request("/get/%d/3" % BIG, target[2]))
            got = 0
            while got < 20000:
                chunk = sock.recv(65536)
                if not chunk:
                    break
                got += len(chunk)
            reset(sock)
        elif kind == "origin-reset":
            sock.sendall(request("/reset/200000/4", target[2]))
            until_end(sock, deadline)
        elif kind == "origin-stall":
            sock.sendall(request("/stall", target[2]))
            try:
                sock.sendall(body(BIG, 5))
            except (OSError, ssl.SSLError):
                pass
            until_end(sock, deadline)
        elif kind == "origin-silent":
            sock.sendall(request("/silent", target[2]))
            until_end(sock, deadline)
    finally:
        sock.close()


# kind: (weight, must it be answered, action)
def normal(tls, what):
    def run(rng):
        size = BIG if rng.random() < 0.02 else rng.choice(SIZES)
        post = rng.choice(SIZES) if what == "post" else 0
        if what == "drip":
            size = rng.randrange(1, 200)
        exchange(tls, what, size, rng.randrange(16), post)
    return run


KINDS = {
    "http-get": (20, True, normal(False, "get")),
    "http-post": (10, True, normal(False, "post")),
    "tls-get": (15, True, normal(True, "get")),
    "tls-post": (8, True, normal(True, "post")),
    "origin-halfclose": (4, True, normal(False, "halfclose")),
    "tls-halfclose": (2, True, normal(True, "halfclose")),
    "origin-drip": (3, True, normal(False, "drip")),
    "reset-in-request": (4, False, lambda rng: hostile("reset-in-request", rng)),
    "reset-in-response": (4, False, lambda rng: hostile("reset-in-response", rng)),
    "origin-reset": (3, False, lambda rng: hostile("origin-reset", rng)),
    "origin-stall": (2, False, lambda rng: hostile("origin-stall", rng)),
    "origin-silent": (2, False, lambda rng: hostile("origin-silent", rng)),
    "silent-client": (2, False, lambda rng: hostile("silent-client", rng)),
}


class Recorder:
    def __init__(self, path):
        self.out = open(path, "a", buffering=1)
        self.lock = threading.Lock()

    def add(self, kind, must, start, error):
        line = json.dumps({"k": kind, "m": must, "s": round(start, 3), "e": round(time.time(), 3),
                           "x": error})
        with self.lock:
            self.out.write(line + "\n")


def run_one(recorder, kind, must, action, rng):
    start = time.time()
    error = None
    try:
        action(rng)
    except Outcome as e:
        error = str(e)
    except TimeoutError:
        error = "hang"
    except (OSError, ssl.SSLError, ValueError, TypeError) as e:
        error = "%s: %s" % (type(e).__name__, str(e)[:60])
    if error is None and time.time() - start > CLIENT_LIMIT_S:
        error = "hang"
    recorder.add(kind, must, start, error)


def burst(recorder, count, hold_ms):
    """COUNT connections at once, each held by the origin for HOLD_MS before its answer."""
    start = time.time()
    deadline = start + CLIENT_LIMIT_S
    selector = selectors.DefaultSelector()
    for i in range(count):
        try:
            sock = socket.create_connection(WWW[:2], timeout=CONNECT_S)
            sock.sendall(request("/hold/%d/1500/%d" % (hold_ms, i % 16), WWW[2]))
            sock.setblocking(False)
            selector.register(sock, selectors.EVENT_READ, [i % 16, b""])
        except OSError as e:
            recorder.add("burst", True, start, "connect: %s" % e)
    while selector.get_map() and time.time() < deadline:
        for key, _ in selector.select(timeout=1):
            try:
                chunk = key.fileobj.recv(65536)
            except OSError:
                chunk = b""
            if chunk:
                key.data[1] += chunk
                continue
            selector.unregister(key.fileobj)
            key.fileobj.close()
            head, _, got = key.data[1].partition(b"\r\n\r\n")
            ok = head.startswith(b"HTTP/1.1 200") and hashlib.sha256(got).hexdigest() == digest(1500, key.data[0])
            recorder.add("burst", True, start, None if ok else "burst answer (%d bytes)" % len(key.data[1]))
    for key in list(selector.get_map().values()):
        key.fileobj.close()
        recorder.add("burst", True, start, "hang")


def load(argv):
    """load RESULTS SECONDS WORKERS BURST_SIZE BURST_EVERY_S SEED"""
    path, seconds, workers, burst_size, burst_every, seed = argv
    recorder = Recorder(path)
    end = time.time() + float(seconds)
    answered = sorted(n for n in KINDS if KINDS[n][1])
    others = sorted(n for n in KINDS if not KINDS[n][1])

    # The clients that must be answered keep their own workers, so that the slow hostile
    # ones (which hold for seconds on purpose) do not thin out the traffic.
    def worker(index, names):
        rng = random.Random(int(seed) * 1000 + index)
        weights = [KINDS[n][0] for n in names]
        while time.time() < end:
            name = rng.choices(names, weights)[0]
            run_one(recorder, name, KINDS[name][1], KINDS[name][2], rng)

    count = int(workers)
    threads = [threading.Thread(target=worker, args=(i, answered)) for i in range(count)]
    threads += [threading.Thread(target=worker, args=(count + i, others)) for i in range(max(2, count // 2))]
    for t in threads:
        t.start()
    next_burst = time.time() + 2
    while time.time() < end:
        if int(burst_size) > 0 and time.time() >= next_burst:
            burst(recorder, int(burst_size), 2000)
            next_burst = time.time() + float(burst_every)
        time.sleep(0.2)
    for t in threads:
        t.join()


if __name__ == "__main__":
    roles = {"origin": origin, "dns": dns, "badgw": badgw, "load": load}
    if len(sys.argv) < 2 or sys.argv[1] not in roles:
        sys.exit(__doc__)
    roles[sys.argv[1]](sys.argv[2:])
