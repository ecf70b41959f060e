#!/usr/bin/env python3
"""What the MIDI controllers do to the sound, measured in --audio-out.

The test bank (run_audio.make_sf2) plays a steady 440 Hz sine on program 0
and a click on the drum kits. Songs written here switch one controller at a
time between notes, and the rendered WAV is measured around each note:
pitch by zero crossings in 20 ms windows (portamento glides, vibrato from
pressure, the foot controller and NRPNs, the vibrato delay), and level by
RMS (breath, tremolo, phaser, the GS cutoff and drum level NRPNs).

usage: run_midi_controls.py --exe build/tambril --conv build/tambril_bankconv [--runner wine]
"""
import argparse
import os
import shlex
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from run_audio import RUNNER, ours, make_sf2, read_wav, rms, onset, frequency  # noqa: E402
from run_media import check, failures, run, smf  # noqa: E402

TICKS = 192  # a second at 96 ticks per quarter note and the default tempo
WIN = 960    # 20 ms


def song(timed):
    """A format 0 song of (seconds, event bytes), in time order."""
    events, now = [], 0
    for t, e in timed:
        tick = round(t * TICKS)
        events.append((tick - now, e))
        now = tick
    return smf(events)


def cc(n, v, ch=0):
    return bytes([0xB0 | ch, n, v])


def on(note, ch=0, vel=127):
    return bytes([0x90 | ch, note, vel])


def off(note, ch=0):
    return bytes([0x80 | ch, note, 0])


def play(exe, d, bank, name, events):
    with open(os.path.join(d, name), "wb") as f:
        f.write(song(events))
    out = run(exe, d, '10 LOADMID 0, "%s": MIDFX OFF: PLAYMID 0: WAITMID: MIDINFO 0\n' % name, bank)
    _, _, left, _ = read_wav(os.path.join(d, "out.wav"))
    return left, onset(left), out


def at(start, seconds):
    return start + round(seconds * 48000)


def pitch(x, a):
    return frequency(x, a, a + WIN)


def spread(x, a, b):
    """How far the pitch moves between a and b (Hz, largest minus smallest)."""
    f = [pitch(x, i) for i in range(a, b - WIN, WIN // 2)]
    return max(f) - min(f)


def level_swing(x, a, b):
    """The quietest 10 ms window against the loudest between a and b."""
    levels = [rms(x, i, i + 480) for i in range(a, b - 480, 240)]
    return min(levels) / max(levels)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--conv", required=True)
    ap.add_argument("--runner", default="")
    a = ap.parse_args()
    RUNNER[:] = shlex.split(a.runner)
    a.exe, a.conv = os.path.abspath(a.exe), os.path.abspath(a.conv)
    d = tempfile.mkdtemp(prefix="tambril_midicc_")
    sf2 = os.path.join(d, "test.sf2")
    make_sf2(sf2)
    bank = os.path.join(d, "bank.qzgm")
    subprocess.run(ours(a.conv, "--form", "raw", sf2, bank), check=True, capture_output=True)

    # Portamento: off, CC84 for one note, then CC65 on (CC5 64: about 0.2 s).
    x, t0, _ = play(a.exe, d, bank, "porta.mid", [
        (0, cc(5, 64)), (0, on(57)), (0.25, off(57)),
        (1.5, on(69)), (2.0, off(69)),
        (3.0, cc(84, 57)), (3.0, on(69)), (3.5, off(69)),
        (4.5, cc(65, 127)), (4.5, on(81)), (5.0, off(81))])
    f = pitch(x, at(t0, 1.5))
    check(abs(f - 440) < 2, "portamento off: the note starts at its pitch (%.1f Hz)" % f)
    early, mid, late = (pitch(x, at(t0, 3.0 + s)) for s in (0, 0.0925, 0.3))
    check(early < 250 and abs(mid - 311) < 12 and abs(late - 440) < 1,
          "CC84 57: note 69 glides from 220 Hz (%.1f, %.1f, then %.1f Hz)" % (early, mid, late))
    early, mid, late = (pitch(x, at(t0, 4.5 + s)) for s in (0, 0.0925, 0.3))
    check(early < 500 and abs(mid - 622) < 20 and abs(late - 880) < 2,
          "CC65 on: note 81 glides up from the last note, 69 (%.1f, %.1f, then %.1f Hz)" % (early, mid, late))

    # Vibrato from channel and key pressure and the foot controller; the
    # vibrato delay (CC78 96: about a second) holds the wheel's vibrato back.
    x, t0, out = play(a.exe, d, bank, "vibrato.mid", [
        (0, on(69)), (0.5, b"\xd0\x7f"), (1.0, off(69)), (1.0, b"\xd0\x00"),
        (1.5, on(69)), (1.6, b"\xa0\x46\x7f"), (2.0, b"\xa0\x45\x7f"), (2.5, off(69)),
        (3.0, cc(4, 127)), (3.0, on(69)), (3.5, off(69)), (3.5, cc(4, 0)),
        (4.0, cc(1, 127)), (4.0, cc(78, 96)), (4.0, on(69)), (5.7, off(69))])
    quiet, moved = spread(x, at(t0, 0.1), at(t0, 0.45)), spread(x, at(t0, 0.6), at(t0, 1.0))
    check(quiet < 1 and moved > 15, "channel pressure 127 adds vibrato (%.2f Hz, then %.1f Hz)" % (quiet, moved))
    quiet, moved = spread(x, at(t0, 1.65), at(t0, 2.0)), spread(x, at(t0, 2.05), at(t0, 2.5))
    check(quiet < 1 and moved > 15,
          "key pressure moves only its own key (other key %.2f Hz, this key %.1f Hz)" % (quiet, moved))
    moved = spread(x, at(t0, 3.05), at(t0, 3.5))
    check(moved > 15, "the foot controller adds vibrato (%.1f Hz)" % moved)
    quiet, moved = spread(x, at(t0, 4.05), at(t0, 4.95)), spread(x, at(t0, 5.2), at(t0, 5.7))
    check(quiet < 1 and moved > 15, "vibrato delay: still for a second (%.2f Hz), then vibrato (%.1f Hz)" %
          (quiet, moved))
    check("ignored controls 0)" in out, "pressure is no longer counted as ignored")

    # Levels: breath, tremolo, phaser, and the GS cutoff NRPN (01 20).
    x, t0, _ = play(a.exe, d, bank, "levels.mid", [
        (0, on(69)), (0.5, off(69)),
        (1.0, cc(2, 64)), (1.0, on(69)), (1.5, off(69)), (1.9, cc(121, 0)),
        (2.0, on(69)), (2.5, off(69)),
        (3.0, cc(92, 127)), (3.0, on(69)), (4.0, off(69)), (4.0, cc(92, 0)),
        (4.5, cc(95, 127)), (4.5, on(69)), (7.1, off(69)), (7.1, cc(95, 0)),
        (7.6, cc(99, 1)), (7.6, cc(98, 0x20)), (7.6, cc(6, 0)), (7.6, on(69)), (8.1, off(69))])
    ref = rms(x, at(t0, 0.1), at(t0, 0.45))
    ratio = rms(x, at(t0, 1.1), at(t0, 1.45)) / ref
    check(abs(ratio - (64 / 127) ** 2) < 0.01, "breath 64 scales the level by %.4f (want %.4f)" %
          (ratio, (64 / 127) ** 2))
    ratio = rms(x, at(t0, 2.1), at(t0, 2.45)) / ref
    check(abs(ratio - 1) < 0.01, "reset all controllers forgets the breath controller (%.4f)" % ratio)
    steady = level_swing(x, at(t0, 0.1), at(t0, 0.45))
    swing = level_swing(x, at(t0, 3.1), at(t0, 3.95))
    check(steady > 0.97 and 0.4 < swing < 0.6, "tremolo 127 dips the level to %.2f (steady note %.2f)" %
          (swing, steady))
    swing = level_swing(x, at(t0, 4.6), at(t0, 7.05))
    check(swing < 0.2, "the phaser's notch sweeps through the tone (quietest %.3f of the loudest)" % swing)
    ratio = rms(x, at(t0, 7.7), at(t0, 8.05)) / ref
    check(ratio < 0.5, "NRPN 01 20 (cutoff) 0 darkens the tone to %.2f of its level" % ratio)

    # NRPNs on a drum part: key 60's level set to 0, key 62 untouched;
    # NRPN 01 09 (vibrato depth) on a melodic part.
    x, t0, out = play(a.exe, d, bank, "nrpn.mid", [
        (0, on(62, 9)), (0.05, off(62, 9)),
        (0.4, cc(99, 0x1A, 9)), (0.4, cc(98, 60, 9)), (0.4, cc(6, 0, 9)),
        (0.5, on(60, 9)), (0.55, off(60, 9)), (1.0, on(62, 9)), (1.05, off(62, 9)),
        (1.5, cc(99, 1)), (1.5, cc(98, 9)), (1.5, cc(6, 127)), (1.5, on(69)), (2.0, off(69)),
        (2.1, cc(99, 0x37)), (2.1, cc(98, 0)), (2.1, cc(6, 1))])
    silent = max(abs(s) for s in x[at(t0, 0.45):at(t0, 0.9)])
    click = max(abs(s) for s in x[at(t0, 0.95):at(t0, 1.3)])
    check(silent < 1e-6 and click > 0.01, "NRPN 1A: drum key 60 at level 0 is silent (%.2g), key 62 plays (%.3f)" %
          (silent, click))
    moved = spread(x, at(t0, 1.55), at(t0, 2.0))
    check(moved > 15, "NRPN 01 09 (vibrato depth) 127 adds vibrato (%.1f Hz)" % moved)
    check("ignored controls 1)" in out, "an NRPN without a meaning here is counted as ignored")
    if failures:
        print("%d failed" % len(failures))
        return 1
    print("all MIDI controller checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
