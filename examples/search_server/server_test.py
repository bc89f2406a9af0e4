#!/usr/bin/env python3
"""Drives tern_search_server from the Linux side and checks every answer against a reference
search in Python: links out of a served folder, 8 clients with 200 requests each (valid ones,
and refused ones after which the connection must stay usable), hostile frame headers that must
be answered and closed, then a STOP after which the server must exit cleanly within 5 seconds.

usage: server_test.py WINE_RUN SERVER_EXE TREE VERSION
"""
import os
import random
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from client import Client, find_request  # noqa: E402

TERMS = [b"fox", b"Fox", b"FOX", b"the", b"a", b"aa", b"a a", b"caf\xc3\xa9", b"x", b"quick",
         b"word", b"dog", b"ba", b"zzz", b"e", b"\xc3\xa9", b"fox\xc3\xa9", b"ary", b"\t"]
FLAGS = ["-", "i", "w", "iw", "wi"]
# (request, the reason of its ERR reply)
REFUSED = [
    (b"FIND - tree/../server_tree/alpha.txt\nfox", b"path refused"),
    (b"FIND - tree/sub/..\nfox", b"path refused"),
    (b"FIND - tree/./alpha.txt\nfox", b"path refused"),
    (b"FIND - deep/..\nfox", b"path refused"),
    (b"FIND - tree/sub\\..\\..\\x\nfox", b"path refused"),
    (b"FIND - tree/alpha.txt:stream\nfox", b"path refused"),
    (b"FIND - tree/CON\nfox", b"path refused"),
    (b"FIND - tree/nul.txt\nfox", b"path refused"),
    (b"FIND - tree/COM1.log\nfox", b"path refused"),
    (b"FIND - tree/alpha.txt.\nfox", b"path refused"),
    (b"FIND - tree/alpha.txt \nfox", b"path refused"),
    (b"FIND - tree//alpha.txt\nfox", b"path refused"),
    (b"FIND - tree/\nfox", b"path refused"),
    (b"FIND - tree/a*.txt\nfox", b"path refused"),
    (b"FIND - tree/\xff\xfe\nfox", b"path refused"),
    (b"FIND - ../tree\nfox", b"unknown folder"),
    (b"FIND - /etc\nfox", b"unknown folder"),
    (b"FIND - Z:/etc/passwd\nroot", b"unknown folder"),
    (b"FIND - tree\\..\\..\nfox", b"unknown folder"),
    (b"FIND - TREE\nfox", b"unknown folder"),
    (b"FIND - tree/missing.txt\nfox", b"not found"),
    (b"FIND - tree/alpha.txt/x\nfox", b"not found"),
    (b"", b"malformed request"),
    (b"FIND", b"malformed request"),
    (b"FIND - tree", b"malformed request"),
    (b"FIND - tree\n", b"malformed request"),
    (b"FIND -\nfox", b"malformed request"),
    (b"FIND - \nfox", b"malformed request"),
    (b"FIND  tree\nfox", b"malformed request"),
    (b"FIND x tree\nfox", b"malformed request"),
    (b"FIND ii tree\nfox", b"malformed request"),
    (b"FIND - tree\nfox\r", b"malformed request"),
    (b"FIND - tree\nf\nox", b"malformed request"),
    (b"FIND - tree\nf\x00x", b"malformed request"),
    (b"find - tree\nfox", b"malformed request"),
    (b"STOP\n", b"malformed request"),
]
CLIENTS, REQUESTS = 8, 200
MAX_REQUEST = 8192


def reference_rows(data, term, flags, shown):
    """The rows of one file: occurrences left to right, the next looked for behind the last one
    (also behind one refused as no whole word); ASCII-only case folding; words of ASCII letters
    and digits; a row per line, its text up to the first CR, LF or zero byte."""
    hay, needle = (data.lower(), term.lower()) if "i" in flags else (data, term)
    word, line_text = re.compile(rb"[0-9A-Za-z]"), re.compile(rb"[^\r\n\x00]*")
    rows, pos, last = [], 0, 0
    while (at := hay.find(needle, pos)) >= 0:
        pos = at + len(term)
        if "w" in flags and ((at > 0 and word.match(data, at - 1)) or word.match(data, pos)):
            continue
        line = data.count(b"\n", 0, at) + 1
        if line != last:
            start = data.rfind(b"\n", 0, at) + 1
            text = line_text.match(data, start).group()
            rows.append(b"%s:%d:%s" % (shown.encode(), line, text))
            last = line
    return rows


def reference(folders, flags, path, term):
    name, _, rest = path.partition("/")
    real = os.path.join(folders[name], *rest.split("/")) if rest else folders[name]
    if os.path.isfile(real):
        return reference_rows(open(real, "rb").read(), term, flags, path)
    rows = []
    for entry in sorted(os.listdir(real)):
        rows += reference(folders, flags, path + "/" + entry, term)
    return rows


def valid_paths(folders):
    paths = []
    for name, root in folders.items():
        for top, _, files in os.walk(root):
            rel = os.path.relpath(top, root).replace(os.sep, "/")
            shown = name if rel == "." else name + "/" + rel
            paths += [shown] + [shown + "/" + f for f in files]
    return sorted(paths)


def run_client(number, address, folders, failures):
    rng = random.Random(1000 + number)
    paths = valid_paths(folders)
    try:
        with Client(*address) as client:
            done = 0
            while done < REQUESTS:
                batch = []  # Pipelined: the answers must come in the order of the requests.
                for _ in range(min(rng.randint(1, 5), REQUESTS - done)):
                    if rng.random() < 0.15:
                        request, reason = rng.choice(REFUSED)
                        batch.append((request, [], b"ERR " + reason))
                    else:
                        flags, path, term = rng.choice(FLAGS), rng.choice(paths), rng.choice(TERMS)
                        rows = reference(folders, flags, path, term)
                        batch.append((find_request(flags, path, term), rows, b"END %d" % len(rows)))
                if rng.random() < 0.1:  # One request cut into pieces, the header split too.
                    data = struct.pack("<I", len(batch[0][0])) + batch[0][0]
                    for piece in (data[:2], data[2:7], data[7:]):
                        client.sock.sendall(piece)
                        time.sleep(0.01)
                    client.send(*[b[0] for b in batch[1:]])
                else:
                    client.send(*[b[0] for b in batch])
                for request, rows, last in batch:
                    got = client.answer()
                    if got != (rows, last):
                        failures.append("client %d: %r gave %r, expected %r" %
                                        (number, request, got, (rows, last)))
                        return
                done += len(batch)
    except OSError as error:
        failures.append("client %d: %s" % (number, error))


def run_hostile(address, failures):
    """Headers beyond the limit get "ERR request too large" and then the end of the stream;
    a request of exactly the limit is answered."""
    for length in (0xFFFFFFFF, 0x80000000, 0x7FFFFFFF, MAX_REQUEST + 1):
        with Client(*address, timeout=10) as client:
            try:
                client.sock.sendall(struct.pack("<I", length) + b"FIND - tree\nfox")
                first, after = client.read_frame(), client.read_frame()
            except OSError as error:
                first, after = error, b"?"
            if first != b"ERR request too large" or after is not None:
                failures.append("header %#x: got %r, then %r" % (length, first, after))
    with Client(*address) as client:
        request = b"FIND - tree\n" + b"q" * (MAX_REQUEST - 12)
        if client.find("-", "tree", request[12:]) != ([], b"END 0"):
            failures.append("a request of %d bytes was not answered" % MAX_REQUEST)


# Links made at run time in a folder "links", to files and folders outside it: absolute and
# relative, chains of two, into a folder "Links" beside it (inside only if names were compared
# without regard to case) and to a file "links.txt" (whose path begins with the folder's), and one
# link to a file inside. Each path with the rows of "line" in it, or None where the answer is
# "path refused"; no outside byte may come back.
LINKS = [("file_abs", "$TOP/Links/secret.txt"), ("chain", "file_abs"), ("dir_abs", "$TOP/Links"),
         ("sub/file_rel", "../../links.txt"), ("sub/dir_rel", "../../Links"),
         ("sub/dir_chain", "../dir_abs"), ("sub/same", "../inside.txt")]
INSIDE = [b"links/inside.txt:1:a line inside", b"links/sub/same:1:a line inside"]
LINK_CASES = [("links/" + name, None) for name, _ in LINKS[:-1]] + [
    ("links/dir_abs/secret.txt", None), ("links/sub/dir_rel/secret.txt", None),
    ("links", INSIDE), ("links/sub", INSIDE[1:]), ("links/sub/same", INSIDE[1:])]


def make_links(top):
    links = os.path.join(top, "links")
    os.makedirs(os.path.join(top, "Links"))
    os.makedirs(os.path.join(links, "sub"))
    for name, text in (("Links/secret.txt", b"SECRET line outside\n"),
                       ("links.txt", b"SECRET line beside\n"),
                       ("links/inside.txt", b"a line inside\n")):
        with open(os.path.join(top, name), "wb") as f:
            f.write(text)
    for name, target in LINKS:
        os.symlink(target.replace("$TOP", top), os.path.join(links, name))
    return links


def check_links(address, failures):
    with Client(*address) as client:
        for path, rows in LINK_CASES:
            for flags, term in (("-", b"line"), ("i", b"secret")):
                want = ([], b"ERR path refused") if rows is None else (
                    (rows, b"END %d" % len(rows)) if term == b"line" else ([], b"END 0"))
                got = client.find(flags, path, term)
                if got != want:
                    failures.append("%s %r: got %r, expected %r" % (path, term, got, want))


def start_server(wine_run, exe, config_text, workdir):
    config = os.path.join(workdir, "config.xml")
    with open(config, "w", encoding="utf-8") as f:
        f.write(config_text)
    return subprocess.Popen([wine_run, exe, "Z:" + config.replace("/", "\\")],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            start_new_session=True)


def stop_group(process):
    if process.poll() is None:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait(timeout=10)


def windows(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def main():
    wine_run, exe, tree, version = sys.argv[1:5]
    failures = []

    out = subprocess.run([wine_run, exe, "--version"], capture_output=True, timeout=60)
    if out.stdout.strip() != b"tern_search_server " + version.encode():
        failures.append("--version printed %r" % out.stdout)

    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    folders = {"tree": tree, "deep": os.path.join(tree, "sub", "deep")}
    with tempfile.TemporaryDirectory() as workdir:
        bad = start_server(wine_run, exe, '<SearchServer><Listen port="%d"/><Folder name="x" '
                           'path="%s"/></SearchServer>' % (port, windows(tree + "/missing")),
                           workdir)
        try:
            _, err = bad.communicate(timeout=60)
            if bad.returncode != 2 or b"no directory" not in err:
                failures.append("a missing folder gave %r: %r" % (bad.returncode, err))
        finally:
            stop_group(bad)

        config = ('<?xml version="1.0" encoding="UTF-8"?>\n<SearchServer>\n'
                  '  <Listen address="127.0.0.1" port="%d"/>\n  <Workers count="4"/>\n'
                  % port + "".join('  <Folder name="%s" path="%s"/>\n' % (name, windows(path))
                                   for name, path in dict(folders, links=make_links(workdir))
                                   .items()) + "</SearchServer>\n")
        server = start_server(wine_run, exe, config, workdir)
        try:
            address = ("127.0.0.1", port)
            deadline = time.time() + 60
            while True:
                try:
                    socket.create_connection(address, timeout=5).close()
                    break
                except OSError:
                    if time.time() > deadline or server.poll() is not None:
                        print("the server did not come up:", server.communicate(timeout=10))
                        return 1
                    time.sleep(0.2)
            check_links(address, failures)
            threads = [threading.Thread(target=run_client, args=(n, address, folders, failures))
                       for n in range(CLIENTS)]
            threads.append(threading.Thread(target=run_hostile, args=(address, failures)))
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(timeout=180)
                if thread.is_alive():
                    failures.append("a client did not finish within 180 s")
                    break
            with Client(*address) as client:
                client.send(b"STOP")
                if client.answer() != ([], b"END 0"):
                    failures.append("STOP was not answered")
            try:
                out, err = server.communicate(timeout=5)
                if server.returncode != 0:
                    failures.append("the server exited with %d: %r" % (server.returncode, err))
            except subprocess.TimeoutExpired:
                failures.append("the server did not exit within 5 s of STOP")
        finally:
            stop_group(server)
    for failure in failures[:20]:
        print(failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
