#!/usr/bin/env python3
"""Standalone executables end to end: CREATEEXE in a headless session, then the
new executable run on its own with arguments; the GM bank chosen as it should
be; an executable built from one that carries a payload itself; malformed
payloads. --runner wine runs the Windows build the same way."""
import argparse
import os
import shlex
import shutil
import struct
import subprocess
import sys
import tempfile

TRAILER = b"TAMBRIL2-PACKED!"
failures = []


def check(cond, what, detail=""):
    if not cond:
        failures.append(what + ("\n    " + detail if detail else ""))


class Runner:
    def __init__(self, runner, workdir):
        self.prefix = shlex.split(runner) if runner else []
        self.workdir = workdir

    def run(self, exe, args, stdin="", timeout=120):
        p = subprocess.run(self.prefix + [exe] + args, input=stdin.encode(), cwd=self.workdir,
                           capture_output=True, timeout=timeout)
        return p.returncode, p.stdout.decode("utf-8", "replace").replace("\r\n", "\n")


def parse_image(data):
    """(interpreter bytes, {tag: block bytes}) of a packed file, or None."""
    if len(data) < 24 or data[-24:-8] != TRAILER:
        return None
    (length,) = struct.unpack("<Q", data[-8:])
    start = len(data) - 24 - length
    payload = data[start:len(data) - 24]
    assert payload[:4] == b"QZP3", payload[:8]
    (count,) = struct.unpack("<I", payload[4:8])
    blocks = {}
    for i in range(count):
        tag, _, off, n = struct.unpack("<4sIQQ", payload[8 + 24 * i:32 + 24 * i])
        blocks[tag.decode()] = payload[off:off + n]
    return data[:start], blocks


def container(entries):
    """A payload of (tag, bytes) blocks behind the header, then the trailer."""
    head = b"QZP3" + struct.pack("<I", len(entries))
    offset = 8 + 24 * len(entries)
    body = b""
    for tag, block in entries:
        head += tag + struct.pack("<IQQ", 0, offset + len(body), len(block))
        body += block
    payload = head + body
    return payload + TRAILER + struct.pack("<Q", len(payload))


def program_block(lines):
    b = b"BAS2" + struct.pack("<I", len(lines))
    for n, body in lines:
        b += struct.pack("<II", n, len(body)) + body
    return b


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--runner", default="")
    a = ap.parse_args()
    a.exe = os.path.abspath(a.exe)
    windows = a.exe.lower().endswith(".exe")
    ext = ".exe" if windows else ""
    original = open(a.exe, "rb").read()
    work = tempfile.mkdtemp(prefix="tambril-exe-")
    r = Runner(a.runner, work)

    def session(text, exe=a.exe):
        return r.run(exe, ["--headless", "--no-banner"], text)

    def path(name):
        return os.path.join(work, name)

    try:
        program = ('10 PRINT "hello from"; COMMANDLINECOUNT\n'
                   '20 FOR I = 1 TO COMMANDLINECOUNT: PRINT "["; COMMANDLINEARG$(I); "]": NEXT\n')
        # A new user's first executable: no extension given, no bank around.
        code, out = session(program + 'CREATEEXE "hello"\n')
        check(f"Created hello{ext} (no GM bank embedded)" in out, "CREATEEXE message", out)
        check(os.path.exists(path("hello" + ext)), "hello written")
        if not windows:
            check(os.access(path("hello"), os.X_OK), "hello is executable")
        code, out = r.run(path("hello" + ext), ["--headless", "one", "two words", "--help"])
        check(out == "hello from 3 \n[one]\n[two words]\n[--help]\n" and code == 0,
              "packed program runs with its arguments, no banner, no Ready", repr(out))
        image = parse_image(open(path("hello" + ext), "rb").read())
        check(image is not None and image[0] == original and set(image[1]) == {"BAS2"},
              "hello is the interpreter, one BAS2 block and the trailer")

        # The bank: TAMBRIL_GM.QZGM in the current directory goes in unless NOGM.
        bank = b"QZGM fake bank " * 100
        open(path("TAMBRIL_GM.QZGM"), "wb").write(bank)
        code, out = session(program + 'CREATEEXE "withgm.bin"\nCREATEEXE "nogm" NOGM\n')
        check("Created withgm.bin (Tambril GM bank embedded)" in out, "bank message", out)
        check(f"Created nogm{ext} (no GM bank embedded)" in out, "NOGM message", out)
        image = parse_image(open(path("withgm.bin"), "rb").read())
        check(image and image[1].get("QZGM") == bank and image[0] == original, "bank bytes embedded")
        image = parse_image(open(path("nogm" + ext), "rb").read())
        check(image and "QZGM" not in image[1], "NOGM leaves the bank out")
        open(path("TAMBRIL_GM.QZGM"), "wb").close()
        code, out = session(program + 'CREATEEXE "emptybank"\n')
        check(f"Created emptybank{ext} (no GM bank embedded)" in out, "an empty bank file is no bank", out)
        os.remove(path("TAMBRIL_GM.QZGM"))

        # An interpreter carrying only a bank is not packed: it starts as usual,
        # and what it builds copies its interpreter part and its bank, never
        # its old payload.
        carrier = path("carrier" + ext)
        open(carrier, "wb").write(original + container([(b"QZGM", bank)]))
        os.chmod(carrier, 0o755)
        code, out = session('10 PRINT "again"; COMMANDLINEARG$(1)\n20 PRINT SYSTEMINFO$(13)\n'
                            'PRINT SYSTEMINFO$(13)\nCREATEEXE "again"\nPRINT "still here"\n', carrier)
        check("Executable: interpreter\n" in out, "a bank alone does not make a standalone program", out)
        check(f"Created again{ext} (Tambril GM bank embedded)" in out and "still here" in out,
              "an executable with only a bank runs the Ready loop and passes its bank on", out)
        image = parse_image(open(path("again" + ext), "rb").read())
        check(image and image[0] == original and image[1].get("QZGM") == bank and len(image[1]) == 2,
              "packed from packed: the interpreter part only, then the new payload")
        code, out = r.run(path("again" + ext), ["--headless", "X"])
        check(out == "againX\nExecutable: standalone program, GM bank embedded (1.5 KB)\n",
              "the rebuilt executable runs and knows what it carries", repr(out))

        # Malformed payloads: a bad trailer is no program (the interpreter
        # starts as usual); a bad program block after good detection ends the
        # process without a word (and --batch says it failed).
        seven = path("seven" + ext)
        open(seven, "wb").write(original + b"BAS2\0\0\0\0" + TRAILER + struct.pack("<Q", 7))
        os.chmod(seven, 0o755)
        code, out = session('PRINT "interpreter"\n', seven)
        check("interpreter" in out and "Ready." in out, "7-byte payload: an ordinary interpreter", out)
        leftover = path("leftover" + ext)
        open(leftover, "wb").write(original + container([(b"BAS2", program_block([(10, b'PRINT "X"')]) + b"!")]))
        os.chmod(leftover, 0o755)
        code, out = r.run(leftover, ["--headless"], 'PRINT "typed"\n')
        check(out == "" and code == 0, "a block with a byte left over: silent exit", f"{code} {out!r}")
        code, out = r.run(leftover, ["--headless", "--batch"])
        check(out == "" and code == 1, "... with --batch exit code 1", f"{code} {out!r}")
        code, out = r.run(path("hello" + ext), ["--headless", "--batch"])
        check(code == 0 and out.startswith("hello from 0"), "a good packed program under --batch exits 0")
        bare = path("bare" + ext)
        open(bare, "wb").write(original + program_block([(10, b'PRINT "old form"')]) + TRAILER +
                               struct.pack("<Q", len(program_block([(10, b'PRINT "old form"')]))))
        os.chmod(bare, 0o755)
        code, out = r.run(bare, ["--headless"])
        check(out == "old form\n", "a bare program block runs (the older form)", repr(out))

        # The messages of CREATEEXE itself.
        code, out = session('CREATEEXE "x"\n10 CREATEEXE "y"\nRUN\n'
                            'CREATEEXE 1\nCREATEEXE "a" EXTRA\nCREATEEXE "a",\nCREATEEXE "a*b"\n'
                            'CREATEEXE STRING$(4096, "p")\nCREATEEXE ""\n'
                            'CREATEEXE "no-such-dir/x"\n')
        expected = ["No program", "Illegal direct in 10", "Type mismatch", "Syntax Error", "Syntax Error",
                    "Illegal filename", "Path too long", "Bad file name", "Bad file name"]
        got = [l for l in out.split("\n") if l and l != "Ready."]
        check(got == expected, "CREATEEXE messages", f"{got}")
    finally:
        shutil.rmtree(work, ignore_errors=True)

    for f in failures:
        print("FAIL:", f)
    if failures:
        sys.exit(1)
    print("standalone executables: all checks passed")


if __name__ == "__main__":
    main()
