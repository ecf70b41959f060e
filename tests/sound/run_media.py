#!/usr/bin/env python3
"""MIDI songs and WAV slots end to end, with files made at test time.

- FLAC: sox makes 8/16/24-bit mono and stereo sounds at several rates, flac
  encodes them, and our decoder (tambril_flacdec) must give exactly the
  samples of `flac -d`.
- The resampler through LOADWAV/PLAYWAV and --audio-out: a 1 kHz sine at
  44,100 and 96,000 Hz keeps its frequency and level.
- A looping WAV wraps without a click; STOPWAV fades out in 5 ms.
- MIDI files written here: two notes a second apart land a second apart in
  the rendered output (within one render block), a song plays on its parts.
- Load errors of LOADMID and LOADWAV as the user sees them (corrupt FLAC,
  chained Opus links with different channel counts, missing files, ...).

usage: run_media.py --exe build/tambril --flacdec build/tambril_flacdec --conv build/tambril_bankconv
                    [--runner wine]
"""
import argparse
import math
import os
import shlex
import shutil
import struct
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from run_audio import RUNNER, ours, make_sf2, read_wav, rms, onset, frequency  # noqa: E402

failures = []


def check(ok, what):
    print(("ok   " if ok else "FAIL ") + what)
    if not ok:
        failures.append(what)


def run(exe, d, program, bank=None, audio=True, code=0):
    env = dict(os.environ)
    if bank:
        env["TAMBRIL_GM_BANK"] = bank
    src = os.path.join(d, "prog.bas")
    with open(src, "w") as f:
        f.write(program)
    cmd = ours(exe, "--headless", "--batch")
    if audio:
        cmd += ["--audio-out", os.path.join(d, "out.wav")]
    r = subprocess.run(cmd + [src], env=env, capture_output=True, text=True, timeout=120, cwd=d)
    if r.returncode != code:
        raise AssertionError("program failed (%d): %s %s" % (r.returncode, r.stdout, r.stderr))
    return r.stdout


def wav_ints(path):
    """Integer samples of a PCM WAV file as flac -d writes it."""
    with open(path, "rb") as f:
        d = f.read()
    at, fmt, data = 12, None, None
    while at + 8 <= len(d):
        tag, n = d[at:at + 4], struct.unpack("<I", d[at + 4:at + 8])[0]
        if tag == b"fmt ":
            fmt = d[at + 8:at + 8 + n]
        elif tag == b"data":
            data = d[at + 8:at + 8 + n]
        at += 8 + n + (n & 1)
    bits = struct.unpack("<H", fmt[14:16])[0]
    w = bits // 8
    if bits == 8:
        return [b - 128 for b in data]
    return [int.from_bytes(data[i:i + w], "little", signed=True) for i in range(0, len(data), w)]


def flac_tests(d, flacdec):
    for bits in (8, 16, 24, 32):
        for channels in (1, 2):
            for rate in (8000, 44100, 96000) if bits < 32 else (44100,):
                name = os.path.join(d, "f%d_%d_%d" % (bits, channels, rate))
                # A sweep plus noise: every subframe kind gets used somewhere.
                subprocess.run(["sox", "-n", "-r", str(rate), "-c", str(channels), "-b", str(bits), name + ".wav",
                                "synth", "0.7", "sine", "200-3000", "whitenoise", "remix", "-", "gain", "-3"]
                               if channels == 1 else
                               ["sox", "-n", "-r", str(rate), "-c", str(channels), "-b", str(bits), name + ".wav",
                                "synth", "0.7", "sine", "200-3000", "sine", "500", "gain", "-3"],
                               check=True, capture_output=True)
                subprocess.run(["flac", "-s", "-f", "-8", name + ".wav", "-o", name + ".flac"], check=True,
                               capture_output=True)
                subprocess.run(["flac", "-s", "-f", "-d", name + ".flac", "-o", name + ".ref.wav"], check=True,
                               capture_output=True)
                r = subprocess.run(ours(flacdec, name + ".flac", name + ".raw"), capture_output=True, text=True)
                ref = wav_ints(name + ".ref.wav")
                decoded = []
                if r.returncode == 0:
                    with open(name + ".raw", "rb") as f:
                        raw = f.read()
                    decoded = list(struct.unpack("<%di" % (len(raw) // 4), raw))
                check(r.returncode == 0 and r.stdout.split() == [str(rate), str(channels), str(bits)] and decoded == ref,
                      "FLAC %d-bit %s %d Hz decodes exactly as flac -d (%d samples)" %
                      (bits, "mono" if channels == 1 else "stereo", rate, len(ref)))


def vlq(n):
    """A MIDI variable-length number."""
    b = [n & 0x7F]
    n >>= 7
    while n:
        b.insert(0, (n & 0x7F) | 0x80)
        n >>= 7
    return bytes(b)


def smf(events, fmt=0, division=96, tracks=None):
    """A Standard MIDI File of (delta, event bytes) tracks."""
    def trk(evs):
        body = b"".join(vlq(dt) + e for dt, e in evs) + b"\x00\xff\x2f\x00"
        return b"MTrk" + struct.pack(">I", len(body)) + body
    ts = tracks if tracks is not None else [events]
    return b"MThd" + struct.pack(">IHHH", 6, fmt, len(ts), division) + b"".join(trk(t) for t in ts)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--flacdec", required=True)
    ap.add_argument("--conv", required=True)
    ap.add_argument("--runner", default="")
    a = ap.parse_args()
    RUNNER[:] = shlex.split(a.runner)
    a.exe, a.flacdec, a.conv = (os.path.abspath(x) for x in (a.exe, a.flacdec, a.conv))
    for tool in ("sox", "flac", "opusenc"):
        if not shutil.which(tool):
            print("FAIL %s is missing (scripts/deps.sh test installs it)" % tool)
            return 1
    d = tempfile.mkdtemp(prefix="tambril_media_")
    sf2 = os.path.join(d, "test.sf2")
    make_sf2(sf2)
    bank = os.path.join(d, "bank.qzgm")
    subprocess.run(ours(a.conv, "--form", "raw", sf2, bank), check=True, capture_output=True)

    flac_tests(d, a.flacdec)

    # The resampler: a 1 kHz sine at 0.5 amplitude keeps its frequency and level.
    for rate in (44100, 96000):
        subprocess.run(["sox", "-n", "-r", str(rate), "-c", "1", "-b", "24", os.path.join(d, "k%d.wav" % rate),
                        "synth", "1", "sine", "1000", "vol", "0.5"], check=True, capture_output=True)
        run(a.exe, d, '10 LOADWAV 0, "k%d.wav": PLAYWAV 0, 0, 0, 1, 0: WAITWAV\n' % rate)
        _, _, left, _ = read_wav(os.path.join(d, "out.wav"))
        on = onset(left)
        f = frequency(left, on + 4800, on + 43200)
        level = rms(left, on + 4800, on + 43200)
        # Constant-power pan at the centre: sqrt(1/2) of the sine's RMS (0.5 / sqrt 2).
        want = 0.5 / math.sqrt(2) * math.sqrt(0.5)
        check(abs(f - 1000) < 0.05, "%d Hz sine resampled to 48 kHz sounds at %.4f Hz" % (rate, f))
        check(abs(20 * math.log10(level / want)) < 0.05, "%d Hz sine keeps its level (%.4f, want %.4f)" %
              (rate, level, want))

    # A loop of whole periods wraps without a click; STOPWAV fades out over 5 ms.
    with open(os.path.join(d, "loop.wav"), "wb") as f:
        frames = 4800  # 100 periods of 1 kHz at 48 kHz
        body = b"".join(struct.pack("<h", round(16000 * math.sin(2 * math.pi * i / 48))) for i in range(frames))
        f.write(b"RIFF" + struct.pack("<I", 36 + len(body)) + b"WAVEfmt " +
                struct.pack("<IHHIIHH", 16, 1, 1, 48000, 96000, 2, 16) + b"data" + struct.pack("<I", len(body)) + body)
    run(a.exe, d, '10 LOADWAV 1, "loop.wav": PLAYWAV 1, 3, 1: WAITREL 400: STOPWAV 3: WAITWAV\n')
    _, _, left, _ = read_wav(os.path.join(d, "out.wav"))
    on = onset(left)
    end = max(i for i, s in enumerate(left) if abs(s) > 1e-6)
    steps = [abs(left[i] - left[i - 1]) for i in range(on + 1, end)]
    slope = 16000 / 32768 * math.sqrt(0.5) * 2 * math.pi / 48
    check(end - on > 3 * 4800 and max(steps) < slope * 1.01,
          "a looping WAV wraps %d times with no step above the sine's own (%.5f <= %.5f)" %
          ((end - on) // 4800, max(steps), slope))
    tail = [abs(s) for s in left[end - 300:end + 1]]
    peak_before = max(abs(s) for s in left[end - 600:end - 300])
    check(max(tail[-48:]) < peak_before * 0.25, "STOPWAV fades out at the end")

    # MIDI: notes one second apart land one second apart (within one 128-frame block).
    song = smf([(0, b"\xc0\x00"), (0, b"\x90\x45\x7f"), (48, b"\x80\x45\x00"), (144, b"\x90\x45\x7f"),
                (48, b"\x80\x45\x00")])
    with open(os.path.join(d, "two.mid"), "wb") as f:
        f.write(song)
    out = run(a.exe, d, '10 LOADMID 0, "two.mid": PRINT MIDLENGTH(0): MIDFX OFF: PLAYMID 0: WAITMID: PRINT MIDSTATE()\n', bank)
    _, _, left, _ = read_wav(os.path.join(d, "out.wav"))
    first = onset(left)
    quiet = next(i for i in range(first + 12000, len(left)) if all(abs(s) < 1e-4 for s in left[i:i + 2400]))
    second = next(i for i in range(quiet, len(left)) if abs(left[i]) > 1e-4)
    check(abs((second - first) - 48000) <= 128, "second MIDI note lands %d frames after the first (48000)" %
          (second - first))
    check(out.split()[:2] == ["1.25", "0"], "MIDLENGTH and MIDSTATE after WAITMID: %r" % out.split()[:2])

    # A song on two parts with a drum kit: MIDCCINFO counts what was played.
    song = smf(None, fmt=1, tracks=[[(0, b"\xff\x51\x03\x07\xa1\x20")],
                                    [(0, b"\xb0\x07\x64"), (0, b"\x90\x45\x60"), (96, b"\x80\x45\x00")],
                                    [(0, b"\x99\x3c\x60"), (96, b"\x89\x3c\x00"), (0, b"\xb9\x5b\x00")]])
    with open(os.path.join(d, "parts.mid"), "wb") as f:
        f.write(song)
    out = run(a.exe, d, '10 LOADMID 5, "parts.mid": PLAYMID 5: WAITREL 200: MIDCCINFO: WAITMID: MIDINFO 5\n', bank)
    check("MIDI FXROUTE-20260926: score playing" in out, "MIDCCINFO while the score plays")
    check("   0    1    0" in out and "   9   10  128" in out, "MIDCCINFO shows part 1 on program 0 and part 10 on the kit")
    check("Tracks/events: 3 / 10" in out and "Last slot    : 5" in out and "[WAVETABLE PRESENT]" in out,
          "MIDINFO after playback")

    # Load errors as the statements report them.
    with open(os.path.join(d, "bad.mid"), "wb") as f:
        f.write(b"MThd" + struct.pack(">IHHH", 6, 2, 1, 96))
    with open(os.path.join(d, "s16.wav"), "wb") as f:
        pass
    subprocess.run(["sox", "-n", "-r", "22050", "-c", "2", "-b", "16", os.path.join(d, "st.wav"), "synth", "0.3",
                    "sine", "440"], check=True, capture_output=True)
    subprocess.run(["sox", "-n", "-r", "48000", "-c", "1", "-b", "16", os.path.join(d, "mo.wav"), "synth", "0.3",
                    "sine", "440"], check=True, capture_output=True)
    subprocess.run(["flac", "-s", "-f", os.path.join(d, "st.wav"), "-o", os.path.join(d, "st.flac")], check=True)
    flac = bytearray(open(os.path.join(d, "st.flac"), "rb").read())
    flac[len(flac) - 200] ^= 0x40  # inside the last frame (the middle may be PADDING)
    open(os.path.join(d, "broken.flac"), "wb").write(flac)
    # Links of a chain need serial numbers of their own.
    for w, serial in (("st", 1), ("mo", 2), ("st2", 3)):
        subprocess.run(["opusenc", "--quiet", "--serial", str(serial), os.path.join(d, w[:2] + ".wav"),
                        os.path.join(d, w + ".opus")], check=True)
    opus = {w: open(os.path.join(d, w + ".opus"), "rb").read() for w in ("st", "mo", "st2")}
    open(os.path.join(d, "mixed.opus"), "wb").write(opus["st"] + opus["mo"])
    open(os.path.join(d, "chain.opus"), "wb").write(opus["st"] + opus["st2"])
    cases = [
        ('LOADMID 0, "nothere.mid"', "File not found"),
        ('LOADMID 0, ""', "MIDI filename is empty or too long"),
        ('LOADMID 0, "a" + CHR$(0)', "MIDI filename contains NUL"),
        ('LOADMID 0, "a|b.mid"', "Illegal filename"),
        ('LOADMID 0, "bad.mid"', "MIDI format 2 is not supported; use format 0 or 1"),
        ('LOADMID 256, "two.mid"', "MIDI slot must be 0..255"),
        ('PLAYMID 7', "MIDI slot is not loaded"),
        ('LOADMID 0, "two.mid": PLAYMID 0, 2', "PLAYMID loop must be 0 or 1"),
        ('LOADMID 0, "two.mid": PLAYMID 0, 0, 1', "Only wavetable MIDI playback is available"),
        ('MIDCC 0, 3, 1', "Unsupported MIDI controller"),
        ('MIDFX 0, 200, 0', "MIDFX values must be 0..127"),
        ('MIDFX LOUD', "Unknown MIDI command"),
        ('LOADWAV 0, "nothere.wav"', "WAV file not found"),
        ('LOADWAV 0, "two.mid"', "Expected RIFF WAV, native FLAC or Ogg Opus"),
        ('LOADWAV 0, "broken.flac"', "Invalid or truncated FLAC"),
        ('LOADWAV 0, "mixed.opus"', "Opus needs consistent mono/stereo channels across links"),
        ('PLAYWAV 3', "WAV slot is not loaded"),
        ('LOADWAV 256, "st.wav"', "Illegal function call"),
        ('PRINT WAVLENGTH(9)', "WAV slot is not loaded"),
    ]
    for stmt, msg in cases:
        out = run(a.exe, d, "10 %s\n" % stmt, bank, code=1)
        check(msg + " in 10" in out, "%s: %s (%r)" % (stmt, msg, out.strip()[-80:]))
    out = run(a.exe, d, '10 LOADMID 0, "two.mid"\n', bank, audio=False)
    out = run(a.exe, d, '10 LOADMID 0, "two.mid": PLAYMID 0\n', bank, audio=False, code=1)
    check("No PCM sound backend available for MIDI in 10" in out, "PLAYMID without a sound device")
    out = run(a.exe, d, '10 LOADMID 0, "two.mid": PLAYMID 0\n', os.path.join(d, "nobank.qzgm"), code=1)
    check("MIDI wavetable playback needs TAMBRIL_GM.QZGM in 10" in out, "PLAYMID without the bank")

    # A failed load keeps the slot; chained Opus links of one channel count load.
    out = run(a.exe, d, '10 LOADWAV 0, "chain.opus": WAVINFO 0: ON ERROR GOTO 30\n20 LOADWAV 0, "broken.flac"\n'
              '30 PRINT WAVLENGTH(0): FOR I = 0 TO 64: PLAYWAV 0, -1, 1, 0: NEXT\n', code=1)
    check("Source       : Opus, 2 links, stereo" in out, "two chained Opus links load as one sound")
    check("All 64 WAV playback channels are busy in 30" in out, "the 65th PLAYWAV finds no free channel")
    length = out.split("\n")[out.split("\n").index(next(x for x in out.split("\n") if x.startswith("PCM bytes"))) + 1]
    check(abs(float(length) - 0.6) < 0.02, "the slot kept its Opus sound after a failed load (%s s)" % length.strip())
    if failures:
        print("%d failed" % len(failures))
        return 1
    print("all media checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
