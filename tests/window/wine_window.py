#!/usr/bin/env python3
"""The Windows build's real window under Wine on a virtual X server.

Starts Xvfb on a free display, runs tambril.exe windowed under Wine, waits for
the top-level window titled "Tambril BASIC 3.4.1", and checks its 1024x768
client area pixel for pixel: each banner line (taken from the same executable
run headless) drawn as white 8x16 glyphs on black, the insert cursor under
"Ready.", black everywhere else. Typed keys must reach the line editor and
Enter the Ready loop; F11 must switch to a letterboxed full screen and back.
Then Alt+F4 must close the window and end the process
with exit code 0.

Needs Xvfb, xwininfo (x11-utils), xwd (x11-apps) and, for the close check,
xdotool. The screenshot is read from xwd's format directly (no imaging library).
"""
import argparse
import os
import re
import shlex
import struct
import subprocess
import sys
import tempfile
import time

TITLE = "Tambril BASIC 3.4.1"
WIDTH, HEIGHT = 1024, 768
WHITE, BLACK = 0xFFFFFF, 0x000000
SCREEN = (1280, 1024)  # the virtual X server's size


def load_font(path):
    """The 256 glyphs of screen/font8x16.cpp: 16 row bytes each, bit 7 leftmost."""
    glyphs = {}
    with open(path, encoding="utf-8") as f:
        for line in f:
            m = re.match(r"\s*((?:0x[0-9A-Fa-f]{2},\s*){16})\s*//\s*(\d+)", line)
            if m:
                glyphs[int(m.group(2))] = [int(b, 16) for b in re.findall(r"0x([0-9A-Fa-f]{2})", m.group(1))]
    if len(glyphs) != 256:
        sys.exit("font: found %d glyphs in %s" % (len(glyphs), path))
    return glyphs


class Xwd:
    """A ZPixmap xwd dump of 24/32-bit TrueColor, as Xvfb gives it."""

    def __init__(self, data):
        h = struct.unpack(">25I", data[:100])
        header_size, version, fmt = h[0], h[1], h[2]
        self.width, self.height = h[4], h[5]
        byte_order, bits_per_pixel, self.bytes_per_line = h[7], h[11], h[12]
        self.masks = h[14:17]
        ncolors = h[19]
        # Rows may be padded well beyond the pixels (xwd writes depth-24 dumps
        # as packed 3-byte pixels in 4-byte-per-pixel rows).
        self.step = bits_per_pixel // 8
        if version != 7 or fmt != 2 or self.step not in (3, 4) or self.bytes_per_line < self.width * self.step:
            sys.exit("xwd: unsupported dump (version %d, format %d, %d bpp)" % (version, fmt, bits_per_pixel))
        self.order = "<" if byte_order == 0 else ">"
        self.data = data
        self.offset = header_size + ncolors * 12
        self.shifts = [(m & -m).bit_length() - 1 for m in self.masks]

    def pixel(self, x, y):
        at = self.offset + y * self.bytes_per_line + x * self.step
        v = int.from_bytes(self.data[at:at + self.step], "little" if self.order == "<" else "big")
        r, g, b = ((v & m) >> s for m, s in zip(self.masks, self.shifts))
        return (r << 16) | (g << 8) | b


def expected_frame(lines, font):
    """The client area as the console draws it: a dict of white pixels."""
    white = set()
    for row, text in enumerate(lines):
        for col, ch in enumerate(text.encode("cp437")):
            for gy, bits in enumerate(font[ch]):
                for gx in range(8):
                    if bits & (0x80 >> gx):
                        white.add((col * 8 + gx, row * 16 + gy))
    # The line editor's insert cursor: a two-pixel bar over the cell at the
    # start of the line after "Ready.".
    row = len(lines)
    for gy in range(16):
        white.update({(0, row * 16 + gy), (1, row * 16 + gy)})
    return white


def compare(shot, ox, oy, white):
    """Mismatches between the screenshot at client origin (ox, oy) and the frame."""
    bad = []
    for y in range(HEIGHT):
        for x in range(WIDTH):
            want = WHITE if (x, y) in white else BLACK
            got = shot.pixel(ox + x, oy + y)
            if got != want:
                bad.append((x, y, got, want))
                if len(bad) >= 20:
                    return bad
    return bad


def wait_for_frame(env, x, y, white, what):
    """Screenshots until the client area at (x, y) shows the frame; the failures."""
    bad = ["not compared"]
    deadline = time.time() + 30
    while bad and time.time() < deadline:
        dump = subprocess.run(["xwd", "-root", "-silent"], env=env, capture_output=True, timeout=30).stdout
        bad = compare(Xwd(dump), x, y, white)
        if bad:
            time.sleep(0.5)
    return ["%s: pixel (%d,%d) text row %d: 0x%06X, expected 0x%06X" % (what, bx, by, by // 16, got, want)
            for bx, by, got, want in bad]


def check_fullscreen(env):
    deadline = time.time() + 15
    win = None
    while time.time() < deadline:
        win = find_window(env)
        if win and win[1:] == (0, 0, SCREEN[0], SCREEN[1]):
            break
        time.sleep(0.5)
    else:
        return ["F11 did not cover the screen: %r" % (win,)]
    failures = []
    deadline = time.time() + 15
    while True:
        shot = Xwd(subprocess.run(["xwd", "-root", "-silent"], env=env, capture_output=True, timeout=30).stdout)
        bars = [(px, py) for py in list(range(32)) + list(range(992, 1024)) for px in range(0, SCREEN[0], 4)
                if shot.pixel(px, py) != BLACK]
        text = sum(1 for py in range(32, 992, 2) for px in range(0, SCREEN[0], 2) if shot.pixel(px, py) == WHITE)
        if (not bars and text) or time.time() > deadline:
            break
        time.sleep(0.5)
    if bars:
        failures.append("full screen: letterbox bars not black at %r" % bars[:5])
    if not text:
        failures.append("full screen: no text in the picture")
    return failures


def find_window(env):
    """(x, y, w, h) of the titled top-level window, or None."""
    try:
        tree = subprocess.run(["xwininfo", "-root", "-tree"], env=env, capture_output=True, text=True,
                              timeout=10).stdout
    except subprocess.TimeoutExpired:
        return None
    for line in tree.splitlines():
        m = re.search(r'^\s*(0x[0-9a-f]+) "(.*)": .*?\s(\d+)x(\d+)\+-?\d+\+-?\d+\s+\+(-?\d+)\+(-?\d+)\s*$', line)
        if m and m.group(2) == TITLE:
            return m.group(1), int(m.group(5)), int(m.group(6)), int(m.group(3)), int(m.group(4))
    return None


def start_xvfb():
    r, w = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(w), "-screen", "0", "%dx%dx24" % SCREEN, "-nolisten", "tcp"],
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
    ap.add_argument("--runner", default="wine")
    ap.add_argument("--font", required=True, help="screen/font8x16.cpp")
    ap.add_argument("--timeout", type=float, default=90)
    ap.add_argument("--wine-server", default="", help="script that restarts the Wine prefix's server")
    a = ap.parse_args()
    runner = shlex.split(a.runner)
    a.exe = os.path.abspath(a.exe)
    font = load_font(a.font)
    env = dict(os.environ)
    env.setdefault("WINEDEBUG", "-all")

    # The banner as this executable prints it: the window must show the same.
    head = subprocess.run(runner + [a.exe, "--headless"], input=b"", capture_output=True, env=env,
                          timeout=a.timeout)
    lines = head.stdout.decode("utf-8").replace("\r\n", "\n").split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    if not lines or lines[-1] != "Ready.":
        print("headless run did not end with Ready.: %r" % lines[-3:])
        return 1
    white = expected_frame(lines, font)

    xvfb, display = start_xvfb()
    env["DISPLAY"] = display
    if a.wine_server:
        subprocess.run([a.wine_server], env=env, timeout=120)
    app = None
    failures = []
    try:
        with tempfile.TemporaryDirectory(prefix="tambril-win-") as scratch:
            app = subprocess.Popen(runner + [a.exe], env=env, cwd=scratch, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
            deadline = time.time() + a.timeout
            win = None
            while time.time() < deadline and app.poll() is None:
                win = find_window(env)
                if win:
                    break
                time.sleep(0.5)
            if not win:
                print("no window titled %r appeared (process %s)" % (TITLE, app.poll()))
                return 1
            wid, x, y, w, h = win
            if (w, h) != (WIDTH, HEIGHT):
                failures.append("client area is %dx%d, not %dx%d" % (w, h, WIDTH, HEIGHT))
            # The banner takes a moment to be drawn; poll until it matches.
            failures += wait_for_frame(env, x, y, expected_frame(lines, font), "banner")
            # Typing goes through the key pre-filter into the line editor, which
            # draws the line; Enter runs it (a REM: nothing to print) and the
            # Ready loop answers.
            focus = ["xdotool", "windowfocus", "--sync", str(int(wid, 16))]
            subprocess.run(focus + ["type", "--delay", "60", "REM hix"], env=env, capture_output=True, timeout=30)
            subprocess.run(focus + ["key", "--delay", "60", "BackSpace", "Return"], env=env, capture_output=True,
                           timeout=30)
            failures += wait_for_frame(env, x, y, expected_frame(lines + ["REM hi", "Ready."], font), "typed line")
            # F11: full screen with the picture letterboxed (1024x768 in 1280x1024
            # is 1280x960 with 32-pixel black bars); F11 again: back to the window.
            subprocess.run(focus + ["key", "F11"], env=env, capture_output=True, timeout=30)
            failures += check_fullscreen(env)
            subprocess.run(focus + ["key", "F11"], env=env, capture_output=True, timeout=30)
            deadline = time.time() + 15
            back = None
            while time.time() < deadline:
                back = find_window(env)
                if back and back[1:] == (x, y, WIDTH, HEIGHT):
                    break
                time.sleep(0.5)
            else:
                failures.append("after leaving full screen the window is %r, not %dx%d at +%d+%d"
                                % (back, WIDTH, HEIGHT, x, y))
            failures += wait_for_frame(env, x, y, expected_frame(lines + ["REM hi", "Ready."], font), "windowed again")
            # Alt+F4 goes to the system, which closes the window; the process ends.
            if subprocess.run(focus + ["key", "--clearmodifiers", "alt+F4"], env=env, capture_output=True,
                              timeout=30).returncode != 0:
                failures.append("xdotool could not send Alt+F4")
            try:
                code = app.wait(timeout=15)
                if code != 0:
                    failures.append("exit code %d after Alt+F4" % code)
            except subprocess.TimeoutExpired:
                failures.append("the process did not end within 15 s of Alt+F4")
    finally:
        if app and app.poll() is None:
            app.kill()
            app.wait()
        xvfb.terminate()
        xvfb.wait()
        if a.wine_server:
            subprocess.run([a.wine_server], env=dict(env, DISPLAY=""), timeout=120)
    for f in failures:
        print(f)
    if not failures:
        print("window %r shows the %d banner lines, takes a typed line and closes cleanly" % (TITLE, len(lines)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
