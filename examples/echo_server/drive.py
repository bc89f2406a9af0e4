#!/usr/bin/env python3
"""Drives the echo server from the Linux side: starts it under Wine on a free loopback port,
sends framed messages, checks the answers and that a client whose header declares too much is
closed, and ends the server with "quit".

usage: drive.py WINE_RUN ECHO_SERVER_EXE
"""
import socket
import struct
import subprocess
import sys
import time


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def frame(data):
    return struct.pack("<I", len(data)) + data


def read_frame(conn):
    length = struct.unpack("<I", conn.recv(4, socket.MSG_WAITALL))[0]
    return conn.recv(length, socket.MSG_WAITALL)


def main():
    wine_run, exe = sys.argv[1], sys.argv[2]
    port = free_port()
    server = subprocess.Popen([wine_run, exe, str(port)])
    try:
        deadline = time.time() + 60
        while True:
            try:
                conn = socket.create_connection(("127.0.0.1", port), timeout=30)
                break
            except OSError:
                if time.time() > deadline or server.poll() is not None:
                    print("the server did not come up")
                    return 1
                time.sleep(0.2)
        with conn:
            # Two messages in one send, and one split in the middle of its header.
            conn.sendall(frame(b"hello") + frame(b"world"))
            assert read_frame(conn) == b"echo: hello"
            assert read_frame(conn) == b"echo: world"
            split = frame(b"x" * 10000)
            conn.sendall(split[:2])
            time.sleep(0.1)
            conn.sendall(split[2:])
            assert read_frame(conn) == b"echo: " + b"x" * 10000
            # A client whose header declares too much is closed: it sees the end of the stream
            # within 2 s, while the first client is still served.
            for declared in (0xFFFFFFFF, 0x7FFFFFFF, 0x80000000, (1 << 20) + 1):
                with socket.create_connection(("127.0.0.1", port), timeout=30) as refused:
                    refused.sendall(struct.pack("<I", declared))
                    refused.settimeout(2)
                    assert refused.recv(1) == b"", hex(declared)
                conn.sendall(frame(b"still here"))
                assert read_frame(conn) == b"echo: still here"
            conn.sendall(frame(b"quit"))
            assert read_frame(conn) == b"echo: quit"
        return server.wait(timeout=60)
    finally:
        if server.poll() is None:
            server.kill()


if __name__ == "__main__":
    sys.exit(main())
