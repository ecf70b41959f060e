#!/usr/bin/env python3
"""SAVE and BSAVE never destroy the file they replace.

1. A program SAVEs itself (a 2 MB program over a 540 KB older file) in a
   loop and is killed with SIGKILL at random moments; after every kill the
   file must be exactly the old text or exactly the new one.
2. The same for BSAVE of a 4 MB memory image over an older image.
3. On a full disk (a 1 MiB tmpfs; only when run as root, else skipped) SAVE
   and BSAVE report "Disk I/O error" and leave the old file byte for byte.
"""
import argparse
import os
import random
import signal
import subprocess
import sys
import tempfile
import time


def program_text(lines, tag):
    return "".join('%d PRINT "%s %d %s"\r\n' % (n, tag, n, "x" * 30) for n in lines)


def wait_for(path, timeout=30):
    end = time.time() + timeout
    while not os.path.exists(path) and time.time() < end:
        time.sleep(0.01)


def kill_loop(exe, cwd, target, old, new, kills, what, same=lambda a, b: a == b):
    for i in range(kills):
        with open(os.path.join(cwd, target), "wb") as f:
            f.write(old)
        p = subprocess.Popen([exe, "--headless", "--no-banner", "--batch", "RUNME.BAS"], cwd=cwd,
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(random.uniform(0.05, 0.8))
        p.send_signal(signal.SIGKILL)
        p.wait()
        got = open(os.path.join(cwd, target), "rb").read()
        if got != old and not same(got, new):
            raise SystemExit("%s: after kill %d the file is neither the old nor the new one (%d bytes)"
                             % (what, i, len(got)))
    print("%s: %d kills, the file always whole" % (what, kills))


def full_disk(exe, work):
    if os.geteuid() != 0:
        print("full disk: skipped (needs root to mount a tmpfs)")
        return
    mnt = os.path.join(work, "small")
    os.mkdir(mnt)
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", mnt]).returncode != 0:
        print("full disk: skipped (mount refused)")
        return
    try:
        old = program_text(range(1, 3001), "old").encode()  # about 130 KB
        with open(os.path.join(mnt, "P.BAS"), "wb") as f:
            f.write(old)
        image = b"\xfd" + b"\x00" * 16 + b"old image" * 1000
        with open(os.path.join(mnt, "I.BIN"), "wb") as f:
            f.write(image)
        # Most of the rest of the disk is taken: the new text cannot fit beside the old.
        with open(os.path.join(mnt, "FILLER"), "wb") as f:
            f.write(b"\0" * (1024 * 1024 - len(old) - len(image) - 200 * 1024))
        big = os.path.join(work, "BIG.BAS")
        with open(big, "w") as f:
            f.write(program_text(range(1, 20001), "new"))
        script = 'LOAD "%s"\nSAVE "%s/P.BAS"\nBSAVE "%s/I.BIN", LOMEM, 1000000\nFILES "%s/*.TMP"\n' % (big, mnt, mnt, mnt)
        p = subprocess.run([exe, "--headless", "--no-banner"], input=script.encode(), capture_output=True,
                           timeout=60, cwd=work)
        out = p.stdout.decode("utf-8", "replace").splitlines()
        want = ["Ready.", "Ready.", "Disk I/O error", "Ready.", "Disk I/O error", "Ready.", "File not found",
                "Ready."]
        if out != want:
            raise SystemExit("full disk: expected %r, got %r" % (want, out))
        if open(os.path.join(mnt, "P.BAS"), "rb").read() != old:
            raise SystemExit("full disk: SAVE changed the old file")
        if open(os.path.join(mnt, "I.BIN"), "rb").read() != image:
            raise SystemExit("full disk: BSAVE changed the old image")
        print("full disk: SAVE and BSAVE fail cleanly, old files intact, no temporary left")
    finally:
        subprocess.run(["umount", mnt])


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--kills", type=int, default=20)
    a = ap.parse_args()
    exe = os.path.abspath(a.exe)
    with tempfile.TemporaryDirectory(prefix="tambril-save-") as work:
        # SAVE: the running program writes itself again and again.
        lines = list(range(100, 100 + 45000))
        body = '10 SAVE "P.BAS": GOTO 10\r\n' + program_text(lines, "new")
        with open(os.path.join(work, "RUNME.BAS"), "w", newline="") as f:
            f.write(body)
        new = body.encode()
        old = program_text(range(100, 100 + 12000), "old").encode()
        kill_loop(exe, work, "P.BAS", old, new, a.kills, "SAVE")
        # BSAVE: a 4 MB array image that does not change while the loop runs.
        fill = "DIM A#(499999): FOR I = 0 TO 499999: A#(I) = I / 7: NEXT"
        with open(os.path.join(work, "RUNME.BAS"), "w") as f:
            f.write('10 %s\n20 BSAVE "I.BIN", VARPTR(A#(0)), 4000000: GOTO 20\n' % fill)
        subprocess.run([exe, "--headless", "--no-banner"], cwd=work, timeout=60, capture_output=True,
                       input=('%s: BSAVE "REF.BIN", VARPTR(A#(0)), 4000000\n' % fill).encode())
        ref = open(os.path.join(work, "REF.BIN"), "rb").read()
        # The header holds the address, which differs from process to process.
        same_image = lambda a, b: len(a) == len(b) and a[0] == b[0] and a[9:] == b[9:]
        kill_loop(exe, work, "I.BIN", b"\xfd" + b"\x01" * 600000, ref, a.kills, "BSAVE", same_image)
        full_disk(exe, work)
    return 0


if __name__ == "__main__":
    sys.exit(main())
