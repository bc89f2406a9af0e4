#!/usr/bin/env python3
"""The search table in both ABIs: the MinGW build's tern_search_timing against the MSVC-ABI
build's, on the same text with the same rows, in one run. Both programs start side by side and
keep their texts; then each row is timed by turns, MinGW, MSVC, MinGW, MSVC, ... so that a change
in the machine's load falls on both builds alike, and each build's figure for the row is its
fastest search over its turns. Prints per row both times and the ratio MSVC / MinGW (above 1: the
MSVC-ABI build is slower), and which rare-term rows are more than 10% slower.

  abi_compare.py RUN MINGW_EXE MSVC_EXE [TURNS] [MIN_SECONDS_PER_TURN]
RUN is scripts/wine-run.sh. Exits 1 if the builds searched different texts or counted different
occurrences, which would make the times incomparable.
"""

import os
import subprocess
import sys
import tempfile
import time

LIMIT = 1.10
ROWS = [f"{width}/{kind}{length}/flags{flags}" for width in ("narrow", "wide")
        for length in (3, 8, 16, 32) for kind in ("rare", "common") for flags in (0, 1, 2)]


class Timer:
    """One timing program, fed row names on its standard input. Its output goes to a file that is
    read as it grows: the Wine wrapper holds back output that goes to a pipe until the end."""

    def __init__(self, name, wine_run, exe, min_seconds, folder):
        self.out_path = os.path.join(folder, name + ".out")
        self.out = open(self.out_path, "w")
        env = dict(os.environ, TERN_HEAP_CHECK="0")  # No heap checks: they cost time.
        self.process = subprocess.Popen([wine_run, exe, str(min_seconds), "-"], env=env,
                                        stdin=subprocess.PIPE, stdout=self.out,
                                        stderr=subprocess.STDOUT, text=True)
        self.reader = open(self.out_path)
        self.pending = ""

    def line(self):
        while "\n" not in self.pending:
            more = self.reader.read()
            if more:
                self.pending += more
                continue
            if self.process.poll() is not None:
                sys.exit(f"the timing program ended: {self.pending}")
            time.sleep(0.01)
        line, self.pending = self.pending.split("\n", 1)
        return line

    def header(self):
        return [self.line(), self.line()]  # The texts' checksum and the vector set.

    def time(self, row):
        self.process.stdin.write(row + "\n")
        self.process.stdin.flush()
        parts = self.line().split()
        if len(parts) != 3 or parts[0] != "BM_Search/" + row:
            sys.exit(f"unexpected answer for {row}: {' '.join(parts)}")
        return float(parts[1]), int(parts[2])

    def close(self):
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        self.process.wait(timeout=60)
        self.out.close()
        self.reader.close()


def main():
    wine_run, mingw, msvc = sys.argv[1:4]
    turns = int(sys.argv[4]) if len(sys.argv) > 4 else 6
    min_seconds = float(sys.argv[5]) if len(sys.argv) > 5 else 0.15
    with tempfile.TemporaryDirectory() as folder:
        timers = {name: Timer(name, wine_run, exe, min_seconds, folder)
                  for name, exe in (("MinGW", mingw), ("MSVC", msvc))}
        headers = {name: timer.header() for name, timer in timers.items()}
        if headers["MinGW"] != headers["MSVC"]:
            sys.exit(f"the builds differ before the table: {headers}")
        print(f"{headers['MinGW'][1]}; {turns} turns of at least {min_seconds} s per build and "
              "row, by turns; the fastest search of each build")
        print(f"{'row':24} {'MinGW ms':>9} {'MSVC ms':>9} {'MSVC/MinGW':>11}")
        failed = False
        rare = []
        for row in ROWS:
            best = {}
            for _ in range(turns):
                for name, timer in timers.items():
                    ns, found = timer.time(row)
                    fastest, counted = best.get(name, (ns, found))
                    if counted != found:
                        failed = True
                    best[name] = (min(ns, fastest), found)
            ratio = best["MSVC"][0] / best["MinGW"][0]
            mark = ""
            if best["MSVC"][1] != best["MinGW"][1]:
                mark = f"  !! found {best['MinGW'][1]} and {best['MSVC'][1]}"
                failed = True
            elif "/rare" in row:
                rare.append(ratio)
                if ratio > LIMIT:
                    mark = "  more than 10% slower"
            print(f"{row:24} {best['MinGW'][0] / 1e6:9.2f} {best['MSVC'][0] / 1e6:9.2f} "
                  f"{ratio:11.2f}{mark}", flush=True)
        for timer in timers.values():
            timer.close()
    print(f"rare-term rows: MSVC/MinGW from {min(rare):.2f} to {max(rare):.2f}, "
          f"{sum(r > LIMIT for r in rare)} of {len(rare)} more than 10% slower")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
