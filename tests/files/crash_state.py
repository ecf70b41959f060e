#!/usr/bin/env python3
"""Durability of the files subsystem across whole processes.

1. A program keeps calling STATEWRITE while it is killed with SIGKILL at
   random moments, many times over, each run resuming from the state the last
   one left; after every kill a fresh process must STATELOAD the state file
   and find one complete, consistent state, never older than the one seen
   before.
2. SESSIONLOCK held by one running process is refused to a second one, and
   free again once the holder is killed.
3. A session whose input ends with a file still open leaves that file complete.
"""
import argparse
import os
import random
import signal
import subprocess
import sys
import tempfile
import time

WRITER = """10 DIM A#(99): GETFILES "S.STA", F$(), N: K0 = 1
15 IF N THEN STATELOAD "S.STA": K0 = X + 1
20 FOR K = K0 TO 100000000
30 X = K: S$ = STRING$(K MOD 500, "k") + STR$(K)
40 FOR J = 0 TO 99: A#(J) = K * J: NEXT
50 STATEWRITE "S.STA"
60 NEXT
"""

CHECKER = """10 STATELOAD "S.STA"
20 OK = -1: IF S$ <> STRING$(X MOD 500, "k") + STR$(X) THEN OK = 0
30 FOR J = 0 TO 99: IF A#(J) <> X * J THEN OK = 0
40 NEXT
50 PRINT "STATE"; X; OK
"""

HOLDER = """10 SESSIONLOCK "JOB"
20 OPEN "O", 1, "HELD.TXT": CLOSE 1
30 GOTO 30
"""


def run(exe, args, cwd, stdin=b"", timeout=60):
    return subprocess.run([exe, "--headless", "--no-banner"] + args, cwd=cwd, input=stdin,
                          capture_output=True, timeout=timeout)


def check_state(exe, cwd):
    p = run(exe, ["--batch", "CHECK.BAS"], cwd)
    out = p.stdout.decode("latin-1").split()
    if len(out) != 3 or out[0] != "STATE" or out[2] != "-1":
        raise SystemExit("state not accepted: %r %r" % (p.stdout, p.stderr))
    return int(out[1])


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--kills", type=int, default=200)
    a = ap.parse_args()
    exe = os.path.abspath(a.exe)
    rng = random.Random(11)
    with tempfile.TemporaryDirectory(prefix="tambril-crash-") as d:
        for name, text in (("WRITER.BAS", WRITER), ("CHECK.BAS", CHECKER), ("HOLDER.BAS", HOLDER)):
            with open(os.path.join(d, name), "w", newline="") as f:
                f.write(text.replace("\n", "\r\n"))

        # 1. Kill the writer at random moments.
        last = 0
        for i in range(a.kills):
            p = subprocess.Popen([exe, "--headless", "--no-banner", "--batch", "WRITER.BAS"], cwd=d,
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            # The first run must get as far as one state (however slowly a
            # loaded machine starts it); the others die anywhere.
            if i == 0:
                for _ in range(1200):
                    if os.path.exists(os.path.join(d, "S.STA")):
                        break
                    time.sleep(0.05)
                time.sleep(0.1)
            else:
                time.sleep(rng.uniform(0.0, 0.25))
            p.send_signal(signal.SIGKILL)
            p.wait()
            x = check_state(exe, d)
            if x < last:
                raise SystemExit("state went back from %d to %d" % (last, x))
            last = x
        print("%d kills, last state %d" % (a.kills, last))

        # 2. SESSIONLOCK across processes.
        holder = subprocess.Popen([exe, "--headless", "--no-banner", "--batch", "HOLDER.BAS"], cwd=d,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        for _ in range(200):
            if os.path.exists(os.path.join(d, "HELD.TXT")):
                break
            time.sleep(0.05)
        else:
            raise SystemExit("the lock holder did not start")
        out = run(exe, [], d, b'SESSIONLOCK "JOB"\n').stdout.decode()
        if "Session locked by another program" not in out:
            raise SystemExit("second SESSIONLOCK was not refused: %r" % out)
        holder.send_signal(signal.SIGKILL)
        holder.wait()
        out = run(exe, [], d, b'SESSIONLOCK "JOB": PRINT "got it"\n').stdout.decode()
        if "got it" not in out:
            raise SystemExit("the lock was not free after its holder died: %r" % out)

        # 3. The end of the session closes what the program left open.
        run(exe, [], d, b'OPEN "O", 1, "E.TXT": PRINT #1, STRING$(100000, "e")\n')
        size = os.path.getsize(os.path.join(d, "E.TXT"))
        if size != 100002:
            raise SystemExit("file left open lost bytes: %d" % size)
    print("ok")


if __name__ == "__main__":
    sys.exit(main())
