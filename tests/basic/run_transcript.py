#!/usr/bin/env python3
"""Run one BASIC transcript test (.tt) through the headless front end.

A transcript is a set of sections, each opened by a line "--- <kind> [arg]":

  --- args            extra command-line words after --headless (one line, shell quoting);
                      {dir} is the scratch directory the test runs in
  --- file NAME       a file written into the scratch directory before the run
  --- input           the bytes typed on stdin ({esc} is Esc, {cr} a bare CR,
                      {X*N} the character X repeated N times, {xHH} the raw byte
                      HH, which need not be valid UTF-8; also in args)
  --- output          the expected stdout; a line may hold {{regex}} parts
  --- exit N          the expected exit code (0 when absent)
  --- env NAME=VALUE  an environment variable for the run

Each transcript runs twice, with TAMBRIL_JIT=ON and =OFF (unless it sets
TAMBRIL_JIT itself), and must pass both times.

Lines before the first section and lines starting with "#" before a section are comments.
"""
import argparse
import os
import re
import shlex
import subprocess
import sys
import tempfile


def parse(path):
    sections = []
    kind = None
    body = []
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    for line in lines:
        if line.startswith("--- "):
            if kind is not None:
                sections.append((kind, body))
            kind = line[4:].strip()
            body = []
        elif kind is not None:
            body.append(line)
    if kind is not None:
        sections.append((kind, body))
    return sections


def expand(text):
    """{esc} is Esc, {cr} a bare CR, {X*N} the character X repeated N times,
    {xHH} the raw byte HH (kept through encoding as a surrogate escape)."""
    text = re.sub(r"\{(.)\*(\d+)\}", lambda m: m.group(1) * int(m.group(2)), text)
    text = re.sub(r"\{x([0-9A-Fa-f]{2})\}",
                  lambda m: chr(int(m.group(1), 16)) if int(m.group(1), 16) < 0x80 else chr(0xDC00 + int(m.group(1), 16)),
                  text)
    return text.replace("{esc}", "\x1b").replace("{cr}", "\r")


def line_matches(expected, actual):
    if "{{" not in expected:
        return expected == actual
    pattern = ""
    pos = 0
    for m in re.finditer(r"\{\{(.*?)\}\}", expected):
        pattern += re.escape(expected[pos:m.start()]) + m.group(1)
        pos = m.end()
    pattern += re.escape(expected[pos:])
    return re.fullmatch(pattern, actual) is not None


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--runner", default="")
    ap.add_argument("--timeout", type=float, default=60)
    ap.add_argument("test")
    a = ap.parse_args()

    sections = parse(a.test)
    # Compiled code is invisible: every transcript must give the same output
    # with the JIT on (the default) and off.
    modes = ["ON", "OFF"]
    for kind, _ in sections:
        if kind.startswith("env TAMBRIL_JIT="):
            modes = [None]
    for mode in modes:
        if run_once(a, sections, mode) != 0:
            return 1
    return 0


def run_once(a, sections, jit_mode):
    args, stdin, expected, code, env = [], "", None, 0, dict(os.environ)
    if jit_mode is not None:
        env["TAMBRIL_JIT"] = jit_mode
    with tempfile.TemporaryDirectory(prefix="tambril-tt-") as scratch:
        for kind, body in sections:
            if kind == "args":
                args += shlex.split(expand(" ".join(body)).replace("{dir}", scratch))
            elif kind.startswith("file "):
                name = kind[5:].strip()
                with open(os.path.join(scratch, name), "w", encoding="latin-1", newline="") as f:
                    f.write("\r\n".join(body) + ("\r\n" if body else ""))
            elif kind == "input":
                stdin += expand("\n".join(body) + "\n") if body else ""
            elif kind == "output":
                expected = body
            elif kind.startswith("exit"):
                code = int(kind.split()[1])
            elif kind.startswith("env "):
                k, _, v = kind[4:].partition("=")
                env[k.strip()] = v.strip()
            else:
                sys.exit("unknown section: " + kind)
        cmd = shlex.split(a.runner) + [a.exe, "--headless"] + args
        # Output goes to files, not pipes: under Wine a background process the
        # run happens to start (a service, the desktop) inherits the handles and
        # would hold a pipe open long after this process ended.
        with tempfile.TemporaryFile() as out_f, tempfile.TemporaryFile() as err_f:
            p = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=out_f, stderr=err_f, cwd=scratch, env=env)
            try:
                # The typed input is far smaller than a pipe's buffer.
                p.stdin.write(stdin.encode("utf-8", "surrogateescape"))
                p.stdin.close()
            except BrokenPipeError:
                pass
            try:
                p.wait(timeout=a.timeout)
            except subprocess.TimeoutExpired:
                print("TIMEOUT after %ss (JIT %s): %s" % (a.timeout, jit_mode, " ".join(cmd)))
                out_f.seek(0)
                print("output so far:\n" + out_f.read().decode("utf-8", errors="replace"))
                # What was still running, for the next person to look at this.
                subprocess.run(["ps", "-eo", "pid,ppid,stat,etime,args"], timeout=10)
                p.kill()
                p.wait()
                return 1
            out_f.seek(0)
            err_f.seek(0)
            out_bytes, err_bytes = out_f.read(), err_f.read()
    out = out_bytes.decode("utf-8", errors="replace").replace("\r\n", "\n")
    actual = out.split("\n")
    if actual and actual[-1] == "":
        actual.pop()
    ok = True
    if expected is not None:
        if len(actual) != len(expected) or not all(line_matches(e, g) for e, g in zip(expected, actual)):
            ok = False
            print("OUTPUT MISMATCH in %s (JIT %s)" % (a.test, jit_mode))
            n = max(len(expected), len(actual))
            for i in range(n):
                e = expected[i] if i < len(expected) else "<none>"
                g = actual[i] if i < len(actual) else "<none>"
                mark = "  " if i < len(expected) and i < len(actual) and line_matches(e, g) else "!!"
                print("%s %3d expected %r" % (mark, i + 1, e))
                if mark == "!!":
                    print("%s %3d got      %r" % (mark, i + 1, g))
    if p.returncode != code:
        ok = False
        print("EXIT CODE %d, expected %d (JIT %s)" % (p.returncode, code, jit_mode))
    if not ok and err_bytes:
        print("stderr:\n" + err_bytes.decode("utf-8", errors="replace"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
