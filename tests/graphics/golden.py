#!/usr/bin/env python3
"""Golden screenshots: run a BASIC program headless with --screenshot and
compare the picture with the stored PNG, pixel for pixel.

    golden.py --exe build/tambril [--runner wine] prog.bas        compare
    golden.py --exe build/tambril --update prog.bas               store anew

The golden file is prog.png beside the program. A mismatch leaves the actual
picture as prog.actual.png in the current directory and names the first
differing pixels. Any file the program writes goes to a scratch directory.
"""
import argparse
import os
import shlex
import shutil
import struct
import subprocess
import sys
import tempfile
import zlib


def read_png(path):
    """Width, height and RGB bytes of an 8-bit RGB PNG (any filter)."""
    data = open(path, "rb").read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("%s: not a PNG" % path)
    at, idat, w, h = 8, b"", 0, 0
    while at < len(data):
        n, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + n]
        if kind == b"IHDR":
            w, h, depth, colour = struct.unpack(">IIBB", body[:10])
            if depth != 8 or colour != 2:
                raise ValueError("%s: not 8-bit RGB" % path)
        elif kind == b"IDAT":
            idat += body
        at += 12 + n
    raw = zlib.decompress(idat)
    stride = w * 3
    out = bytearray(stride * h)
    prev = bytearray(stride)
    for y in range(h):
        f = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - 3] if i >= 3 else 0
            b = prev[i]
            c = prev[i - 3] if i >= 3 else 0
            if f == 1:
                line[i] = (line[i] + a) & 255
            elif f == 2:
                line[i] = (line[i] + b) & 255
            elif f == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif f == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        out[y * stride:(y + 1) * stride] = line
        prev = line
    return w, h, bytes(out)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--runner", default="")
    ap.add_argument("--update", action="store_true")
    ap.add_argument("--timeout", type=float, default=120)
    ap.add_argument("program")
    a = ap.parse_args()

    program = os.path.abspath(a.program)
    golden = os.path.splitext(program)[0] + ".png"
    with tempfile.TemporaryDirectory(prefix="tambril-golden-") as scratch:
        shot = os.path.join(scratch, "shot.png")
        cmd = shlex.split(a.runner) + [a.exe, "--headless", "--batch", "--screenshot", shot, program]
        p = subprocess.run(cmd, capture_output=True, cwd=scratch, timeout=a.timeout)
        if p.returncode != 0 or not os.path.exists(shot):
            print("the program failed (exit %d):" % p.returncode)
            print(p.stdout.decode("utf-8", "replace") + p.stderr.decode("utf-8", "replace"))
            return 1
        if a.update:
            shutil.copyfile(shot, golden)
            print("stored", golden)
            return 0
        gw, gh, want = read_png(golden)
        w, h, got = read_png(shot)
        if (w, h) != (gw, gh):
            print("size %dx%d, golden %dx%d" % (w, h, gw, gh))
            shutil.copyfile(shot, os.path.basename(os.path.splitext(program)[0]) + ".actual.png")
            return 1
        if got == want:
            return 0
        diffs = [i // 3 for i in range(0, len(got), 3) if got[i:i + 3] != want[i:i + 3]]
        print("%d pixels differ from %s" % (len(diffs), golden))
        for d in diffs[:10]:
            x, y = d % w, d // w
            print("  (%d, %d): got %s, golden %s" % (x, y, got[3 * d:3 * d + 3].hex(), want[3 * d:3 * d + 3].hex()))
        shutil.copyfile(shot, os.path.basename(os.path.splitext(program)[0]) + ".actual.png")
        return 1


if __name__ == "__main__":
    sys.exit(main())
