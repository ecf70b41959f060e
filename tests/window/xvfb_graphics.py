#!/usr/bin/env python3
"""The real window under a virtual X server showing a drawing and a moving
sprite: the drawn shapes appear in the window's pixels, the sprite is seen
at several places while it moves, the scene shows again where it has been,
and it comes to rest where the program leaves it. With --runner wine the
same for the Windows build's window.
"""
import argparse
import os
import shlex
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from xvfb_banner import find_window, read_xwd  # noqa: E402

PROGRAM = """\
10 CLS 0
20 FOR X = 0 TO 1023 STEP 32: LINE (X, 300)-(X, 500), 8: NEXT
30 LINE (100, 100)-(199, 199), 4, BF
40 CIRCLE (400, 150), 50, 14: PAINT (400, 150), 2, 14
50 LINE (600, 100)-(700, 200), 9, B
60 LINE (0, 0)-(31, 31), 14, BF: SPRITE GET 1, (0, 0)-(31, 31), -1: LINE (0, 0)-(31, 31), 0, BF
70 FOR X = 50 TO 850 STEP 4: SPRITE 1, X, 384: WAITREL 20: NEXT
80 WAITREL 100: GOTO 80
"""

YELLOW, GREY, RED, GREEN, BLUE = 0xFFFF55, 0x555555, 0xAA0000, 0x00AA00, 0x5555FF


def start_xvfb():
    """A virtual X server on a display it picks itself (no race with other
    tests starting servers at the same time); the server and its display."""
    r, w = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(w), "-screen", "0", "1280x1024x24", "-nolisten", "tcp"],
                            pass_fds=(w,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(w)
    number = b""
    with os.fdopen(r, "rb") as f:
        while not number.endswith(b"\n"):
            c = f.read(1)
            if not c:
                xvfb.kill()
                sys.exit("Xvfb did not start")
            number += c
    return xvfb, ":" + number.decode().strip()


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--runner", default="")
    ap.add_argument("--timeout", type=float, default=90)
    ap.add_argument("--wine-server", default="", help="script that restarts the Wine prefix's server")
    a = ap.parse_args()
    xvfb, display = start_xvfb()
    env = dict(os.environ, DISPLAY=display, SDL_VIDEODRIVER="x11", SDL_AUDIODRIVER="dummy")
    env.setdefault("WINEDEBUG", "-all")
    if a.wine_server:
        subprocess.run([a.wine_server], env=env, timeout=120)
    app = None
    failures = []
    with tempfile.TemporaryDirectory(prefix="tambril-xvfb-") as scratch:
        prog = os.path.join(scratch, "moving.bas")
        with open(prog, "w") as f:
            f.write(PROGRAM.replace("\n", "\r\n"))
        try:
            for _ in range(100):
                if subprocess.run(["xwininfo", "-root"], env=env, capture_output=True).returncode == 0:
                    break
                time.sleep(0.05)
            # The window runs in the temporary directory, so the program goes by
            # its full name: under Wine the Unix path through drive Z:.
            name = prog if not a.runner else "Z:" + prog.replace("/", "\\")
            app = subprocess.Popen(shlex.split(a.runner) + [os.path.abspath(a.exe), name], env=env,
                                   cwd=scratch, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            geometry = None
            deadline = time.time() + a.timeout
            while time.time() < deadline and app.poll() is None:
                geometry = find_window(env, "Tambril BASIC 3.4.1")
                if geometry:
                    break
                time.sleep(0.1)
            if not geometry:
                failures.append('no window titled "Tambril BASIC 3.4.1"')
                return report(failures)
            x0, y0, w, h = geometry

            def grab():
                data = subprocess.run(["xwd", "-root", "-silent"], env=env, capture_output=True).stdout
                return read_xwd(data)[2]

            def sprite_x(pixel):
                # The sprite's left edge on its middle row (y 400), or None.
                for x in range(0, 1024):
                    if pixel(x0 + x, y0 + 400) == YELLOW:
                        return x
                return None

            # Watch the sprite travel: several different places, in order.
            seen = []
            deadline = time.time() + a.timeout
            pixel = None
            while time.time() < deadline:
                pixel = grab()
                sx = sprite_x(pixel)
                if sx is not None and (not seen or sx != seen[-1]):
                    seen.append(sx)
                if sx == 850:
                    break
                time.sleep(0.05)
            if len(seen) < 3:
                failures.append("the sprite was seen at %r only, not moving" % seen)
            elif seen != sorted(seen):
                failures.append("the sprite went back and forth: %r" % seen)
            if not seen or seen[-1] != 850:
                failures.append("the sprite did not come to rest at x 850 (seen %r)" % seen[-5:])
            # The resting sprite is whole, and the drawing is all there.
            pixel = grab()
            checks = [((850, 384), YELLOW, "the sprite's top-left corner"), ((881, 415), YELLOW, "its bottom-right"),
                      ((849, 400), 0, "left of the sprite"), ((882, 400), 0, "right of the sprite"),
                      ((150, 150), RED, "the filled box"), ((400, 150), GREEN, "the painted circle"),
                      ((600, 150), BLUE, "the box outline"), ((650, 150), 0, "inside the outline"),
                      ((64, 400), GREY, "a grid line the sprite crossed"),
                      ((832, 400), GREY, "a grid line it has just left")]
            for (x, y), want, what in checks:
                got = pixel(x0 + x, y0 + y)
                if got != want:
                    failures.append("%s at (%d, %d) is %06X, not %06X" % (what, x, y, got, want))
            app.send_signal(signal.SIGTERM)
            try:
                app.wait(timeout=5)
            except subprocess.TimeoutExpired:
                failures.append("did not end within 5 s of being closed")
        finally:
            if app and app.poll() is None:
                app.kill()
            xvfb.terminate()
            xvfb.wait()
            if a.wine_server:
                subprocess.run([a.wine_server], env=dict(env, DISPLAY=""), timeout=120)
    return report(failures)


def report(failures):
    for f in failures:
        print("FAIL:", f)
    if not failures:
        print("window shows the drawing and the moving sprite")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
