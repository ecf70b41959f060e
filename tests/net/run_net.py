#!/usr/bin/env python3
"""Network tests: every transcript in tests/net against loopback servers
this script starts (tests/net/servers.py), and, with --window, closing the
real window while a program waits on the network.

The transcripts use the format of tests/basic/run_transcript.py, plus:
  {http} {httpport} {echo} {refused}  the servers' URL and ports, and a port
                                      where nothing listens
  {pause N}                           in input: the bytes after it are typed N ms later
  {await TEXT}                        in input: the bytes after it are typed once the
                                      output shows TEXT (after the last TEXT awaited)
  --- within S                        the run must end within S seconds
"""
import argparse
import glob
import os
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "basic"))
import run_transcript  # noqa: E402
import servers  # noqa: E402


def substitute(text, places):
    for k, v in places.items():
        text = text.replace("{%s}" % k, v)
    return text


class Output:
    """stdout as it arrives, so that the input can wait for it."""

    def __init__(self, stream):
        self.data = b""
        self.seen = 0
        self.cond = threading.Condition()
        self.stream = stream

    def read(self):
        while True:
            chunk = os.read(self.stream.fileno(), 65536)
            with self.cond:
                if chunk:
                    self.data += chunk
                self.cond.notify_all()
            if not chunk:
                return

    def await_text(self, text, timeout=60):
        with self.cond:
            end = time.time() + timeout
            while True:
                i = self.data.find(text, self.seen)
                if i >= 0:
                    self.seen = i + len(text)
                    return
                if time.time() > end:
                    return
                self.cond.wait(0.1)


def feed(proc, pieces, output):
    """Type the input piece by piece, waiting where the transcript says."""
    try:
        for delay, awaited, data in pieces:
            if awaited:
                output.await_text(awaited)
            if delay:
                time.sleep(delay / 1000.0)
            proc.stdin.write(data)
            proc.stdin.flush()
        proc.stdin.close()
    except OSError:
        pass


def run_one(path, exe, runner, places):
    sections = run_transcript.parse(path)
    args, stdin, expected, code, within = [], "", None, 0, None
    env = dict(os.environ)
    env["LSAN_OPTIONS"] = "suppressions=" + os.path.join(HERE, "lsan.supp")
    with tempfile.TemporaryDirectory(prefix="tambril-net-") as scratch:
        for kind, body in sections:
            body = [substitute(b, places) for b in body]
            if kind == "args":
                args += shlex.split(run_transcript.expand(" ".join(body)).replace("{dir}", scratch))
            elif kind.startswith("file "):
                with open(os.path.join(scratch, kind[5:].strip()), "w", encoding="latin-1", newline="") as f:
                    f.write("\r\n".join(body) + ("\r\n" if body else ""))
            elif kind == "input":
                stdin += run_transcript.expand("\n".join(body) + "\n") if body else ""
            elif kind == "output":
                expected = body
            elif kind.startswith("exit"):
                code = int(kind.split()[1])
            elif kind.startswith("within"):
                within = float(kind.split()[1])
            elif kind.startswith("env "):
                k, _, v = kind[4:].partition("=")
                env[k.strip()] = v.strip()
            else:
                return ["unknown section: " + kind]
        pieces = []
        delay, awaited = 0, None
        for part in re.split(r"(\{pause \d+\}|\{await [^}]*\})", stdin):
            m = re.fullmatch(r"\{(pause|await) ([^}]*)\}", part)
            if m and m.group(1) == "pause":
                delay += int(m.group(2))
            elif m:
                awaited = m.group(2).encode("utf-8")
            elif part:
                pieces.append((delay, awaited, part.encode("utf-8")))
                delay, awaited = 0, None
        cmd = shlex.split(runner) + [exe, "--headless"] + args
        start = time.time()
        proc = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                cwd=scratch, env=env)
        output = Output(proc.stdout)
        threading.Thread(target=feed, args=(proc, pieces, output), daemon=True).start()
        got = {}
        readers = [threading.Thread(target=output.read, daemon=True),
                   threading.Thread(target=lambda: got.__setitem__("err", proc.stderr.read()), daemon=True)]
        for r in readers:
            r.start()
        try:
            proc.wait(timeout=90)
        except subprocess.TimeoutExpired:
            proc.kill()
            return ["TIMEOUT after 90 s"]
        for r in readers:
            r.join()
        out, err = output.data, got["err"]
        elapsed = time.time() - start
    failures = []
    actual = out.decode("utf-8", errors="replace").replace("\r\n", "\n").split("\n")
    if actual and actual[-1] == "":
        actual.pop()
    if expected is not None and (len(actual) != len(expected) or
                                 not all(run_transcript.line_matches(e, g) for e, g in zip(expected, actual))):
        failures.append("output mismatch")
        for i in range(max(len(expected), len(actual))):
            e = expected[i] if i < len(expected) else "<none>"
            g = actual[i] if i < len(actual) else "<none>"
            ok = i < len(expected) and i < len(actual) and run_transcript.line_matches(e, g)
            failures.append("%s %3d expected %r" % ("  " if ok else "!!", i + 1, e))
            if not ok:
                failures.append("!! %3d got      %r" % (i + 1, g))
    if proc.returncode != code:
        failures.append("exit code %d, expected %d" % (proc.returncode, code))
    if within is not None and elapsed > within:
        failures.append("took %.1f s, more than %.1f s" % (elapsed, within))
    if failures and err:
        failures.append("stderr:\n" + err.decode("utf-8", errors="replace")[-3000:])
    return failures


def window_close(exe, places):
    """The real window (SDL under Xvfb) closed while a program waits on the
    network: the process must end within 1.5 s for each kind of wait. The
    shell gives up on a stuck interpreter thread after 2 s and exits anyway,
    so only a time below that shows that the wait itself ended."""
    failures = []
    n = next(i for i in range(90, 200) if not os.path.exists("/tmp/.X11-unix/X%d" % i)
             and not os.path.exists("/tmp/.X%d-lock" % i))
    env = dict(os.environ, DISPLAY=":%d" % n, SDL_VIDEODRIVER="x11", SDL_AUDIODRIVER="dummy",
               ASAN_OPTIONS="detect_leaks=0")
    xvfb = subprocess.Popen(["Xvfb", ":%d" % n, "-screen", "0", "1280x1024x24", "-nolisten", "tcp"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    waits = {
        "HTTPGET$": 'A$ = HTTPGET$("%s/slow", 100000)' % places["http"],
        "TCPRECV$": 'TCP OPEN 1, "127.0.0.1", %s: A$ = TCPRECV$(1, 10, 100000)' % places["echo"],
    }
    try:
        for _ in range(100):
            if subprocess.run(["xwininfo", "-root"], env=env, capture_output=True).returncode == 0:
                break
            time.sleep(0.05)
        with tempfile.TemporaryDirectory(prefix="tambril-net-") as scratch:
            for what, line in waits.items():
                prog = os.path.join(scratch, "wait.bas")
                with open(prog, "w") as f:
                    f.write("10 %s\r\n20 PRINT \"done\"\r\n" % line)
                app = subprocess.Popen([exe, prog], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
                time.sleep(2.0)  # the window is up and the program waits
                if app.poll() is not None:
                    failures.append("%s: the program ended by itself (exit %d)" % (what, app.returncode))
                    continue
                closed_at = time.time()
                app.send_signal(signal.SIGTERM)  # SDL turns it into the window's close request
                try:
                    app.wait(timeout=10)
                    took = time.time() - closed_at
                    print("%s: ended %.2f s after the close" % (what, took))
                    if took > 1.5:
                        failures.append("%s: took %.1f s to end after the close" % (what, took))
                except subprocess.TimeoutExpired:
                    app.kill()
                    failures.append("%s: still waiting 10 s after the window closed" % what)
    finally:
        xvfb.terminate()
        xvfb.wait()
    return failures


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--runner", default="")
    ap.add_argument("--window", action="store_true", help="run the window-closing test instead")
    ap.add_argument("tests", nargs="*", help="transcripts (default: every tests/net/*.tt)")
    a = ap.parse_args()
    places = servers.start()
    if a.window:
        failures = window_close(os.path.abspath(a.exe), places)
        for f in failures:
            print("FAIL:", f)
        print("%d passed, %d failed" % (0 if failures else 1, 1 if failures else 0))
        return 1 if failures else 0
    paths = a.tests or sorted(glob.glob(os.path.join(HERE, "*.tt")))
    failed = 0
    for p in paths:
        failures = run_one(p, os.path.abspath(a.exe), a.runner, places)
        name = os.path.basename(p)
        if failures:
            failed += 1
            print("FAIL %s" % name)
            for f in failures:
                print("   " + f)
        else:
            print("ok   %s" % name)
    print("%d passed, %d failed" % (len(paths) - failed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
