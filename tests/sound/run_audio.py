#!/usr/bin/env python3
"""Sound through --audio-out, end to end.

The test writes a small SoundFont 2 file (one looped 440 Hz sine on program 0
with root key 69 and a 0.5 s release, and a drum kit), converts it with our
converter to each bank form, runs BASIC programs headless with the WAV-file
device, and measures the WAV files: the fundamental of NOTE 0,69, the 60 dB
release time, the pan law, SOUNDCTL VOLUME, PCM24 output, and the SOUND INFO
report of a loaded bank.

usage: run_audio.py --exe build/tambril --conv build/tambril_bankconv [--runner wine]
"""
import argparse
import math
import os
import shlex
import struct
import subprocess
import sys
import tempfile

RATE = 44000          # 100 frames a period at 440 Hz
RELEASE = 0.5         # seconds, the zone's release time
RUNNER = []           # the command that runs our executables (wine for the Windows build)


def ours(exe, *args):
    """The command line that runs one of our executables."""
    return [*RUNNER, exe, *args]


def chunk(tag, body):
    pad = b"\0" if len(body) % 2 else b""
    return tag + struct.pack("<I", len(body)) + body + pad


def make_sf2(path, frames=RATE, click_frames=4800):
    pcm = b"".join(struct.pack("<h", round(16384 * math.sin(2 * math.pi * i / 100))) for i in range(frames))
    click = b"".join(struct.pack("<h", (i * 37) % 2000 - 1000) for i in range(click_frames))
    smpl = pcm + b"\0" * 92 + click + b"\0" * 92
    info = chunk(b"LIST", b"INFO" + chunk(b"ifil", struct.pack("<HH", 2, 1)) + chunk(b"INAM", b"test\0\0"))
    sdta = chunk(b"LIST", b"sdta" + chunk(b"smpl", smpl))

    def phdr(name, preset, bank, bag):
        return name.ljust(20, b"\0") + struct.pack("<HHHIII", preset, bank, bag, 0, 0, 0)

    phdrs = phdr(b"Sine", 0, 0, 0) + phdr(b"Kit", 0, 128, 1) + phdr(b"EOP", 0, 0, 2)
    pbag = struct.pack("<HH", 0, 0) + struct.pack("<HH", 1, 0) + struct.pack("<HH", 2, 0)
    pmod = b"\0" * 10
    pgen = struct.pack("<HH", 41, 0) + struct.pack("<HH", 41, 1) + struct.pack("<HH", 0, 0)
    inst = b"sine".ljust(20, b"\0") + struct.pack("<H", 0) + b"kit".ljust(20, b"\0") + struct.pack("<H", 1) + \
        b"EOI".ljust(20, b"\0") + struct.pack("<H", 2)
    ibag = struct.pack("<HH", 0, 0) + struct.pack("<HH", 4, 0) + struct.pack("<HH", 6, 0)
    imod = b"\0" * 10
    release_tc = round(1200 * math.log2(RELEASE)) & 0xFFFF
    igen = struct.pack("<HH", 43, 0x7F00) + struct.pack("<HH", 54, 1) + struct.pack("<HH", 38, release_tc) + \
        struct.pack("<HH", 53, 0) + struct.pack("<HH", 43, 0x7F00) + struct.pack("<HH", 53, 1) + struct.pack("<HH", 0, 0)

    def shdr(name, start, end, ls, le, pitch):
        return name.ljust(20, b"\0") + struct.pack("<IIIIIBbHH", start, end, ls, le, RATE, pitch, 0, 0, 1)

    c0 = frames + 92
    loop = (frames // 4400 * 100, frames * 43 // 4400 * 100)
    shdrs = shdr(b"sine", 0, frames, loop[0], loop[1], 69) + shdr(b"click", c0, c0 + click_frames, c0, c0, 60) + \
        shdr(b"EOS", 0, 0, 0, 0, 0)
    pdta = chunk(b"LIST", b"pdta" + chunk(b"phdr", phdrs) + chunk(b"pbag", pbag) + chunk(b"pmod", pmod) +
                 chunk(b"pgen", pgen) + chunk(b"inst", inst) + chunk(b"ibag", ibag) + chunk(b"imod", imod) +
                 chunk(b"igen", igen) + chunk(b"shdr", shdrs))
    body = b"sfbk" + info + sdta + pdta
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", len(body)) + body)


def read_wav(path):
    with open(path, "rb") as f:
        d = f.read()
    fmt, channels, rate = struct.unpack("<HHI", d[20:28])
    bits = struct.unpack("<H", d[34:36])[0]
    size = struct.unpack("<I", d[40:44])[0]
    data = d[44:44 + size]
    assert channels == 2 and rate == 48000, (channels, rate)
    if fmt == 3:
        v = struct.unpack("<%df" % (len(data) // 4), data)
    elif bits == 24:
        v = [int.from_bytes(data[i:i + 3], "little", signed=True) / 8388607 for i in range(0, len(data) - 2, 3)]
    else:
        v = [x / 32767 for x in struct.unpack("<%dh" % (len(data) // 2), data)]
    return fmt, bits, list(v[0::2]), list(v[1::2])


def rms(x, a, b):
    return math.sqrt(sum(s * s for s in x[a:b]) / max(1, b - a))


def onset(x):
    return next(i for i, s in enumerate(x) if abs(s) > 1e-4)


def frequency(x, a, b):
    zc = [i - 1 + x[i - 1] / (x[i - 1] - x[i]) for i in range(a + 1, b) if x[i - 1] < 0 <= x[i]]
    return (len(zc) - 1) * 48000 / (zc[-1] - zc[0])


def run(exe, bank, wav, program, extra=(), code=0):
    env = dict(os.environ, TAMBRIL_GM_BANK=bank)
    d = os.path.dirname(wav)
    src = os.path.join(d, "prog.bas")
    with open(src, "w") as f:
        f.write(program)
    r = subprocess.run(ours(exe, "--headless", "--batch", "--audio-out", wav, *extra, src), env=env,
                       capture_output=True, text=True, timeout=60)
    if r.returncode != code:
        raise AssertionError("program failed: %s %s" % (r.stdout, r.stderr))
    return r.stdout


failures = []


def check(ok, what):
    print(("ok   " if ok else "FAIL ") + what)
    if not ok:
        failures.append(what)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--conv", required=True)
    ap.add_argument("--runner", default="")
    a = ap.parse_args()
    RUNNER[:] = shlex.split(a.runner)
    d = tempfile.mkdtemp(prefix="tambril_audio_")
    sf2 = os.path.join(d, "test.sf2")
    make_sf2(sf2)
    banks = {}
    for form in ("raw", "lossless", "opus"):
        banks[form] = os.path.join(d, form + ".qzgm")
        subprocess.run(ours(a.conv, "--form", form, sf2, banks[form]), check=True, capture_output=True)
    wav = os.path.join(d, "out.wav")

    # Pitch: the converter's zone plays its sample's own pitch in every form.
    for form, bank in banks.items():
        run(a.exe, bank, wav, "10 SOUND PRELOAD: NOTE 0, 69, 127: WAITREL 700: NOTEOFF 0, 69: WAITREL 100\n")
        _, _, left, _ = read_wav(wav)
        on = onset(left)
        f = frequency(left, on + 2400, on + 24000)
        check(abs(f - 440) < 1, "%s bank: NOTE 0,69 sounds at %.3f Hz (440 within 1)" % (form, f))

    # Release: held, then NOTEOFF; the fall from -6 dB to -54 dB scaled to 60 dB.
    run(a.exe, banks["lossless"], wav, "10 SOUND PRELOAD: NOTE 0, 69, 127: WAITREL 500: NOTEOFF 0, 69: WAITREL 900\n")
    _, _, left, _ = read_wav(wav)
    on = onset(left)
    level = rms(left, on + 4800, on + 14400)
    win = 240
    levels = [rms(left, i, i + win) for i in range(on, len(left) - win, 48)]

    def crossing(db):
        limit = level * 10 ** (db / 20)
        return next(k for k, v in enumerate(levels) if k * 48 > 14400 and v < limit) * 48

    t = (crossing(-54) - crossing(-6)) / 48000 * 60 / 48
    check(abs(t - RELEASE) < RELEASE * 0.05, "NOTEOFF falls 60 dB in %.4f s (%.2f within 5%%)" % (t, RELEASE))

    # Pan -1, 0, 1 and VOLUME 0.5: each note alone, its level against the centre note.
    prog = ("10 SOUND PRELOAD\n"
            "20 FOR P = -1 TO 1: SOUNDCTL 0, \"PAN\", P: NOTE 0, 69, 127: WAITREL 300: NOTEOFF 0, 69: WAITREL 500: NEXT\n"
            "30 SOUNDCTL 0, 1, 0: SOUNDCTL 0, \"volume\", 0.5: NOTE 0, 69, 127: WAITREL 300: NOTEOFF 0, 69: WAITREL 300\n")
    run(a.exe, banks["raw"], wav, prog)
    _, _, left, right = read_wav(wav)
    segs = []
    i = 0
    while len(segs) < 4:
        # A note starts where the level jumps; the last one's release is 36 dB down by then.
        on = next(k for k in range(i, len(left)) if abs(left[k]) > 0.02 or abs(right[k]) > 0.02)
        segs.append((rms(left, on + 2400, on + 9600), rms(right, on + 2400, on + 9600)))
        i = on + 28800
    cl, cr = segs[1]
    check(abs(cl - 0.5 / math.sqrt(2) * 0.7071) < 0.003, "pan 0: left level %.4f is 0.7071 of the sample's" % cl)
    for p, (l, r) in zip((-1, 1), (segs[0], segs[2])):
        check(abs(l / cl - (1 - 0.78 * p)) < 0.01 and abs(r / cr - (1 + 0.78 * p)) < 0.01,
              "pan %d: gains %.3f / %.3f of the centre (want %.2f / %.2f)" % (p, l / cl, r / cr, 1 - 0.78 * p, 1 + 0.78 * p))
    check(abs(segs[3][0] / cl - 0.5) < 0.01, "SOUNDCTL VOLUME 0.5 gives %.3f of the level" % (segs[3][0] / cl))

    # A device that refuses float output: PCM24, and SOUND INFO says so.
    out = run(a.exe, banks["opus"], wav, "10 SOUND ON: SOUND PRELOAD 1: NOTE 0, 69: WAITREL 300: SOUND INFO\n",
              ("--audio-format", "pcm24"))
    fmt, bits, left, _ = read_wav(wav)
    check(fmt == 1 and bits == 24, "--audio-format pcm24 writes 24-bit PCM")
    check("Output       : 48 kHz stereo PCM24" in out, "SOUND INFO reports PCM24")
    check("GM sample bank: QZGM4 Opus (fully expanded PCM)," in out and "bytes stored," in out and
          "bytes decoded (" in out and "serial requested" in out, "SOUND INFO reports the bank's form and sizes")
    check("GM programs  : 0-127; drum kits 128-131" in out, "SOUND INFO's programs line")
    check("Queue starves: 0" in out, "no starvation while one note plays")
    f = frequency(left, onset(left) + 2400, onset(left) + 9600)
    check(abs(f - 440) < 1, "PCM24 output sounds at %.2f Hz" % f)

    # Missing instruments are listed as such; a kit plays.
    out = run(a.exe, banks["raw"], wav,
              "10 PRINT SOUNDAVAILABLE(0); SOUNDAVAILABLE(1); SOUNDAVAILABLE(128)\n20 SOUND LIST 0\n"
              "30 INSTRUMENT 9, 128: NOTE 9, 60: WAITREL 50: PRINT SOUNDACTIVE()\n"
              # The click lasts 0.1 s; a loaded machine (or Wine) may render late, so allow 3 s.
              "32 FOR I = 1 TO 60: WAITREL 50: IF SOUNDACTIVE() = 0 THEN 36\n34 NEXT\n36 PRINT SOUNDACTIVE()\n"
              "40 INSTRUMENT 1, 1: NOTE 1, 60\n", code=1)
    check(out.startswith("-1  0 -1"), "SOUNDAVAILABLE: %r" % out[:12])
    check("    1  Bright Acoustic Piano [not in loaded bank]" in out and
          "    0  Acoustic Grand Piano\n" in out, "SOUND LIST marks ids missing from the bank")
    check(" 1 \n 0 \n" in out, "a one-shot kit sound ends by itself")
    check("GM instrument unavailable in 40" in out, "a note on a missing instrument fails")
    if failures:
        print("%d failed" % len(failures))
        return 1
    print("all audio checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
