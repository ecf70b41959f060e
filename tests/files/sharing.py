#!/usr/bin/env python3
"""OPEN's sharing clauses and LOCK between two running programs.

A holder program opens a file and signals that it is ready; a second program
then tries to open and lock the same file:
1. LOCK READ WRITE in the holder refuses the other's OPEN ("Permission denied").
2. SHARED in both lets both open it; the holder's LOCK of record 2 refuses
   the other's LOCK of record 2 and of the whole file, record 3 is free.
3. Once the holder is gone, everything is free again.
"""
import argparse
import os
import subprocess
import sys
import tempfile
import time


def holder(exe, cwd, clause, lock):
    for name in ("READY",):
        if os.path.exists(os.path.join(cwd, name)):
            os.unlink(os.path.join(cwd, name))
    prog = ('10 OPEN "S.DAT" FOR RANDOM %s AS #1 LEN = 16\n20 %s\n'
            '30 OPEN "O", #2, "READY": CLOSE #2\n40 GOTO 40\n') % (clause, lock or "REM")
    with open(os.path.join(cwd, "HOLD.BAS"), "w") as f:
        f.write(prog)
    p = subprocess.Popen([exe, "--headless", "--no-banner", "--batch", "HOLD.BAS"], cwd=cwd,
                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    end = time.time() + 30
    while not os.path.exists(os.path.join(cwd, "READY")) and time.time() < end:
        time.sleep(0.02)
    return p


def other(exe, cwd, lines):
    p = subprocess.run([exe, "--headless", "--no-banner"], cwd=cwd, input=("\n".join(lines) + "\n").encode(),
                       capture_output=True, timeout=30)
    return [l for l in p.stdout.decode().splitlines() if l != "Ready."]


def expect(what, got, want, failures):
    if got != want:
        failures.append("%s: expected %r, got %r" % (what, want, got))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    a = ap.parse_args()
    exe = os.path.abspath(a.exe)
    failures = []
    with tempfile.TemporaryDirectory(prefix="tambril-share-") as cwd:
        h = holder(exe, cwd, "LOCK READ WRITE", None)
        try:
            expect("LOCK READ WRITE", other(exe, cwd, ['OPEN "S.DAT" FOR RANDOM SHARED AS #1']),
                   ["Permission denied"], failures)
        finally:
            h.kill()
            h.wait()
        h = holder(exe, cwd, "SHARED", "LOCK #1, 2")
        try:
            expect("SHARED with a record lock",
                   other(exe, cwd, ['OPEN "S.DAT" FOR RANDOM SHARED AS #1 LEN = 16: PRINT "opened"', "LOCK #1, 2",
                                    "LOCK #1", 'LOCK #1, 3: PRINT "three"']),
                   ["opened", "Permission denied", "Permission denied", "three"], failures)
        finally:
            h.kill()
            h.wait()
        expect("after the holder", other(exe, cwd, ['OPEN "S.DAT" FOR RANDOM LOCK READ WRITE AS #1: LOCK #1, 2: PRINT "free"']),
               ["free"], failures)
    for f in failures:
        print("FAIL:", f)
    if not failures:
        print("sharing clauses and record locks hold between programs")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
