#!/usr/bin/env python3
"""The console side of the Windows executables, run under Wine.

Both tambril.exe (GUI subsystem) and tambril-con.exe (console subsystem) must
speak the headless protocol over pipes byte for byte: stdin and stdout in
binary mode (no CR LF rewriting, Ctrl+Z is just a key), the switches printing
to stdout or stderr with their exit codes.
"""
import argparse
import os
import shlex
import subprocess
import sys


def run(cmd, stdin=b""):
    return subprocess.run(cmd, input=stdin, capture_output=True, timeout=60)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--con", required=True)
    ap.add_argument("--runner", default="wine")
    a = ap.parse_args()
    runner = shlex.split(a.runner)
    failures = []

    def check(what, cond, detail):
        if not cond:
            failures.append("%s: %s" % (what, detail))

    for exe in (a.exe, a.con):
        name = os.path.basename(exe)
        # Ctrl+Z would end a text-mode stdin early; CR LF is one Enter, LF another.
        p = run(runner + [exe, "--headless", "--no-banner"], b"\x1a\r\n\n")
        check(name + " typed lines", p.stdout == b"Ready.\n" * 3 and p.returncode == 0,
              "stdout %r, exit %d" % (p.stdout, p.returncode))

        p = run(runner + [exe, "--headless"])
        check(name + " banner", p.stdout.startswith(b"In the beginning") and b"\r" not in p.stdout
              and b"\nKeyboard: Windows\n" in p.stdout, "stdout %r" % p.stdout[:200])

        p = run(runner + [exe, "--version"])
        check(name + " --version", p.stdout == b"Tambril BASIC 3.4.1\n" and p.returncode == 0,
              "stdout %r, exit %d" % (p.stdout, p.returncode))

        p = run(runner + [exe, "--frobnicate"])
        check(name + " unknown switch", p.returncode == 2 and p.stdout == b""
              and p.stderr.startswith(b"unknown option --frobnicate\nUsage: tambril"),
              "exit %d, stdout %r, stderr %r" % (p.returncode, p.stdout, p.stderr[:80]))

    for f in failures:
        print(f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
