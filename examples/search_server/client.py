#!/usr/bin/env python3
"""A client of tern_search_server.

usage: client.py HOST PORT find FLAGS PATH TERM    prints the rows; exit 0 rows, 1 none, 2 refused
       client.py HOST PORT stop

FLAGS is "-" or a mix of "i" (ignore case) and "w" (whole words). As a module, Client speaks the
protocol: every frame is a 4-byte little-endian length and that many bytes.
"""
import socket
import struct
import sys


def frame(data):
    return struct.pack("<I", len(data)) + data


def find_request(flags, path, term):
    """The request frame's text: FIND FLAGS PATH, a line feed, the term (bytes)."""
    return b"FIND %s %s\n" % (flags.encode(), path.encode()) + term


class Client:
    def __init__(self, host, port, timeout=30):
        self.sock = socket.create_connection((host, port), timeout=timeout)

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, *requests):
        self.sock.sendall(b"".join(frame(r) for r in requests))

    def _read(self, count):
        data = b""
        while len(data) < count:
            piece = self.sock.recv(count - len(data))
            if not piece:
                return None
            data += piece
        return data

    def read_frame(self):
        """The next frame, or None at the end of the stream."""
        header = self._read(4)
        if header is None:
            return None
        return self._read(struct.unpack("<I", header)[0])

    def answer(self):
        """The rows of one answer and its last frame, b"END n" or b"ERR reason"."""
        rows = []
        while True:
            data = self.read_frame()
            if data is None or data.startswith((b"END ", b"ERR ")):
                return rows, data
            rows.append(data)

    def find(self, flags, path, term):
        self.send(find_request(flags, path, term))
        return self.answer()


def main(argv):
    if len(argv) < 4 or argv[3] not in ("find", "stop") or (argv[3] == "find") != (len(argv) == 7):
        print("\n".join(__doc__.strip().splitlines()[2:4]), file=sys.stderr)
        return 2
    with Client(argv[1], int(argv[2])) as client:
        if argv[3] == "stop":
            client.send(b"STOP")
            rows, last = client.answer()
        else:
            rows, last = client.find(argv[4], argv[5], argv[6].encode())
    for row in rows:
        sys.stdout.buffer.write(row + b"\n")
    if last is None or last.startswith(b"ERR"):
        print(last.decode(errors="replace") if last else "connection closed", file=sys.stderr)
        return 2
    return 0 if rows or argv[3] == "stop" else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
