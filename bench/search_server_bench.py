#!/usr/bin/env python3
"""Requests per second of the search server, with the echo server measured in the same run as
its peer: the same clients send the same frames to both, one request at a time each, so the
echo server's rate is the floor that Wine's sockets and the framing set, and the ratio says what
the search adds to it.

usage: search_server_bench.py WINE_RUN SEARCH_SERVER_EXE ECHO_SERVER_EXE TREE
           [--clients 8] [--requests 200] [--runs 5]

Measure the x86_64 build: i686 programs run through an emulator on some machines.
"""
import argparse
import multiprocessing
import os
import random
import socket
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples",
                                "search_server"))
from client import Client, find_request  # noqa: E402

TERMS = [b"fox", b"Fox", b"the", b"a", b"quick", b"word", b"dog", b"zzz", b"caf\xc3\xa9"]
PATHS = ["tree", "tree/alpha.txt", "tree/beta.md", "tree/sub", "tree/sub/notes.txt"]


def requests(seed, count):
    rng = random.Random(seed)
    return [find_request(rng.choice(["-", "i", "w", "iw"]), rng.choice(PATHS), rng.choice(TERMS))
            for _ in range(count)]


def client_loop(port, echo, batch, start, done):
    with Client("127.0.0.1", port) as client:
        start.wait()
        for request in batch:
            client.send(request)
            if echo:
                client.read_frame()
            else:
                client.answer()
    done.put(time.perf_counter())


def measure(port, echo, clients, count):
    """Requests per second of `clients` processes with `count` requests each."""
    start = multiprocessing.Barrier(clients + 1)
    done = multiprocessing.Queue()
    workers = [multiprocessing.Process(target=client_loop,
                                       args=(port, echo, requests(n, count), start, done))
               for n in range(clients)]
    for worker in workers:
        worker.start()
    start.wait(timeout=60)
    began = time.perf_counter()
    ended = max(done.get(timeout=300) for _ in workers)
    for worker in workers:
        worker.join(timeout=60)
    return clients * count / (ended - began)


def wait_for(port, process):
    deadline = time.time() + 60
    while time.time() < deadline and process.poll() is None:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=5).close()
            return
        except OSError:
            time.sleep(0.2)
    raise SystemExit("a server did not come up")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def main():
    parser = argparse.ArgumentParser()
    for name in ("wine_run", "search_server", "echo_server", "tree"):
        parser.add_argument(name)
    parser.add_argument("--clients", type=int, default=8)
    parser.add_argument("--requests", type=int, default=200)
    parser.add_argument("--runs", type=int, default=5)
    args = parser.parse_args()

    search_port, echo_port = free_port(), free_port()
    os.environ["TERN_HEAP_CHECK"] = "0"  # The wrapper's heap checks cost time on every heap call.
    with tempfile.TemporaryDirectory() as workdir:
        config = os.path.join(workdir, "config.xml")
        with open(config, "w") as f:
            f.write('<SearchServer><Listen port="%d"/><Workers count="%d"/>'
                    '<Folder name="tree" path="Z:%s"/></SearchServer>'
                    % (search_port, args.clients,
                       os.path.abspath(args.tree).replace("/", "\\")))
        servers = [subprocess.Popen([args.wine_run, args.search_server,
                                     "Z:" + config.replace("/", "\\")], stdout=subprocess.DEVNULL),
                   subprocess.Popen([args.wine_run, args.echo_server, str(echo_port)],
                                    stdout=subprocess.DEVNULL)]
        try:
            wait_for(search_port, servers[0])
            wait_for(echo_port, servers[1])
            search, echo = [], []
            for _ in range(args.runs):
                search.append(measure(search_port, False, args.clients, args.requests))
                echo.append(measure(echo_port, True, args.clients, args.requests))
            load = os.getloadavg()[0]
            print("%d clients x %d requests, median of %d runs (load average %.2f)"
                  % (args.clients, args.requests, args.runs, load))
            print("  search server  %8.0f requests/s" % statistics.median(search))
            print("  echo server    %8.0f requests/s (peer: the same frames echoed)"
                  % statistics.median(echo))
            print("  ratio          %8.2f" % (statistics.median(search) / statistics.median(echo)))
        finally:
            with Client("127.0.0.1", search_port) as client:
                client.send(b"STOP")
            with Client("127.0.0.1", echo_port) as client:
                client.send(b"quit")
            for server in servers:
                try:
                    server.wait(timeout=30)
                except subprocess.TimeoutExpired:
                    server.kill()


if __name__ == "__main__":
    main()
