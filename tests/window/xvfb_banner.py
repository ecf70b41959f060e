#!/usr/bin/env python3
"""Start the real window under a virtual X server and check what it shows.

The window titled "Tambril BASIC 3.4.1" must appear with a 1024x768 client
area whose text rows show the banner and "Ready." drawn with the built-in
font, pixel for pixel. Typed keys edit and run lines; Pause and Ctrl+Break
break a running program. SIGTERM closes it like the close button, and the
--screenshot file is written at exit.
"""
import argparse
import os
import re
import signal
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
FONT_SOURCE = os.path.join(HERE, "..", "..", "screen", "font8x16.cpp")


def load_font():
    text = open(FONT_SOURCE).read()
    body = text[text.index("kFont8x16"):]
    values = [int(v, 16) for v in re.findall(r"0x([0-9A-F]{2})", body)]
    assert len(values) == 4096, len(values)
    return values


def free_display():
    for n in range(90, 140):
        if not os.path.exists("/tmp/.X%d-lock" % n) and not os.path.exists("/tmp/.X11-unix/X%d" % n):
            return n
    sys.exit("no free X display")


def read_xwd(data):
    fields = struct.unpack(">25I", data[:100])
    header_size, bpp, bpl = fields[0], fields[11], fields[12]
    width, height, byte_order, ncolors = fields[4], fields[5], fields[7], fields[19]
    # Xvfb's depth-24 dumps hold packed 3-byte pixels in rows padded to 4 bytes a pixel.
    step = bpp // 8
    assert bpp in (24, 32), "unexpected screen format %r" % (fields,)
    start = header_size + ncolors * 12

    def pixel(x, y):
        at = start + y * bpl + x * step
        b = data[at:at + 3]
        return (b[2] << 16 | b[1] << 8 | b[0]) if byte_order == 0 else (b[-3] << 16 | b[-2] << 8 | b[-1])
    return width, height, pixel


def find_window(env, title):
    out = subprocess.run(["xwininfo", "-root", "-tree"], env=env, capture_output=True, text=True).stdout
    for line in out.splitlines():
        if '"%s"' % title in line:
            wid = line.split()[0]
            info = subprocess.run(["xwininfo", "-id", wid], env=env, capture_output=True, text=True).stdout
            get = lambda key: int(re.search(key + r":\s+(-?\d+)", info).group(1))
            return get("Absolute upper-left X"), get("Absolute upper-left Y"), get("Width"), get("Height")
    return None


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    a = ap.parse_args()
    font = load_font()
    n = free_display()
    env = dict(os.environ, DISPLAY=":%d" % n, SDL_VIDEODRIVER="x11", SDL_AUDIODRIVER="dummy")
    xvfb = subprocess.Popen(["Xvfb", ":%d" % n, "-screen", "0", "1280x1024x24", "-nolisten", "tcp"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    app = None
    failures = []
    try:
        for _ in range(100):
            if subprocess.run(["xwininfo", "-root"], env=env, capture_output=True).returncode == 0:
                break
            time.sleep(0.05)
        shot = tempfile.NamedTemporaryFile(suffix=".png", delete=False).name
        app = subprocess.Popen([os.path.abspath(a.exe), "--screenshot", shot], env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        app_stderr = []
        geometry = None
        for _ in range(100):
            geometry = find_window(env, "Tambril BASIC 3.4.1")
            if geometry:
                break
            time.sleep(0.05)
        if not geometry:
            failures.append('no window titled "Tambril BASIC 3.4.1"')
            return report(failures)
        x0, y0, w, h = geometry
        if (w, h) != (1024, 768):
            failures.append("client area is %dx%d, not 1024x768" % (w, h))
        def grab():
            data = subprocess.run(["xwd", "-root", "-silent"], env=env, capture_output=True).stdout
            return read_xwd(data)[2]

        def bad_pixels(pixel, row, text, cursor_at=None):
            bad = 0
            for i, ch in enumerate(text.encode("cp437")):
                if i == cursor_at:
                    continue  # the cursor overlay is drawn over this cell
                for gy in range(16):
                    bits = font[ch * 16 + gy]
                    for gx in range(8):
                        want = 0xFFFFFF if bits & (0x80 >> gx) else 0
                        if pixel(x0 + i * 8 + gx, y0 + row * 16 + gy) != want:
                            bad += 1
            return bad

        def expect_rows(rows, what, timeout=15.0):
            # The picture arrives with the next 16 ms presentation tick; on a
            # busy machine that can take a while, so look again until it shows.
            deadline = time.time() + timeout
            while True:
                pixel = grab()
                worst = [(r, t, bad_pixels(pixel, r, t, c)) for r, t, c in rows]
                if all(b == 0 for _, _, b in worst) or time.time() > deadline:
                    break
                time.sleep(0.2)
            for r, t, b in worst:
                if b:
                    failures.append("%s: row %d does not show %r (%d pixels differ)" % (what, r, t, b))
            return pixel

        pixel = expect_rows([(3, "Tambril BASIC v3.4.1", None), (5, "Keyboard: Windows", None),
                             (14, "Ready.", None)], "banner")
        # Nothing drawn beyond the banner: a row further down is black.
        if any(pixel(x0 + x, y0 + 30 * 16 + 8) for x in range(0, 1024, 7)):
            failures.append("row 30 is not black")

        # Typing goes through the real key path: text input, Backspace, arrows, Home.
        xdo = lambda *args: subprocess.run(["xdotool"] + list(args), env=env, capture_output=True)
        xdo("mousemove", str(x0 + 500), str(y0 + 400))
        xdo("type", "--delay", "20", "10 HELLO WORLDX")
        xdo("key", "--delay", "20", "BackSpace", "Home", "Delete", "End", "Left", "Left", "Left",
            "Left", "Left")
        xdo("type", "--delay", "20", "BIG ")
        expect_rows([(15, "0 HELLO BIG WORLD", 12)], "editing")
        xdo("key", "Return")
        xdo("type", "--delay", "20", "PRINT 6*7")
        xdo("key", "Return")
        expect_rows([(16, "PRINT 6*7", None), (17, " 42", None), (18, "Ready.", None)], "direct line")

        # Pause and Ctrl+Break break a running program as Esc does.
        xdo("type", "--delay", "20", "20 GOTO 20")
        xdo("key", "Return")
        xdo("type", "--delay", "20", "RUN 20")
        xdo("key", "Return")
        time.sleep(0.5)
        xdo("key", "Pause")
        expect_rows([(21, "Break in 20", None), (22, "Ready.", None)], "Pause")
        xdo("type", "--delay", "20", "RUN 20")
        xdo("key", "Return")
        time.sleep(0.5)
        xdo("key", "ctrl+Break")
        expect_rows([(24, "Break in 20", None), (25, "Ready.", None)], "Ctrl+Break")

        # Closing the window while a program runs ends the process promptly,
        # although the program itself never stops.
        xdo("type", "--delay", "20", "RUN 20")
        xdo("key", "Return")
        time.sleep(0.5)

        closed_at = time.time()
        app.send_signal(signal.SIGTERM)
        try:
            code = app.wait(timeout=5)
            if time.time() - closed_at > 2.5:
                failures.append("took %.1f s to end after the close" % (time.time() - closed_at))
            if code != 0:
                failures.append("exit code %d after close; stderr:\n%s" % (code, app.stderr.read().decode(errors="replace")[-3000:]))
        except subprocess.TimeoutExpired:
            failures.append("did not end within 5 s of being closed")
        if not os.path.exists(shot) or open(shot, "rb").read(4) != b"\x89PNG":
            failures.append("--screenshot did not write a PNG")
        else:
            os.unlink(shot)
    finally:
        if app and app.poll() is None:
            app.kill()
        xvfb.terminate()
        xvfb.wait()
    return report(failures)


def report(failures):
    for f in failures:
        print("FAIL:", f)
    if not failures:
        print("window shows the banner and Ready.")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
