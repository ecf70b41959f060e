#!/usr/bin/env python3
"""Random programs run with the JIT on and off: the output must be identical.

Programs mix what compiled code runs natively (integer and floating scalars of
every type, arrays, FOR/NEXT with any step, WHILE/WEND, one-line IF/THEN/ELSE,
GOTO, GOSUB/RETURN, PRINT) with what makes it fall back or fail (overflow,
division by zero, subscripts out of range, ON ERROR with RESUME NEXT, string
statements inside loops), and complex/quaternion/octonion values (sums,
products and quotients of mixed kinds, components, signed zeros, overflow).
Every batch runs three ways: JIT OFF, JIT ON, and JIT ON with AVX2 switched
off (TAMBRIL_AVX2=OFF: the SSE2 encoding of the @ arithmetic). Many programs go to one session (NEW, lines, RUN),
so thousands run in a few processes; a batch that differs is split down to
the single program, which is printed.

  differential.py --exe build/tambril --count 2000 [--seed N] [--runner wine]
"""
import argparse
import os
import random
import shlex
import subprocess
import sys

INT_VARS = ["A%", "B%", "C%", "I&", "J&", "K&&", "L&&"]
FLT_VARS = ["X!", "Y!", "Z#", "W#", "V"]
ARRAYS = [("P%", 10), ("Q&&", 10), ("R#", 10), ("S!", 10)]
HYP_VARS = ["H@", "G@", "F@"]
COMPONENTS = ["R", "I", "J", "K", "E1", "E4", "E7"]
# The three runs: JIT OFF is the reference.
MODES = [("OFF", {"TAMBRIL_JIT": "OFF"}), ("ON", {"TAMBRIL_JIT": "ON"}),
         ("ON, AVX2 off", {"TAMBRIL_JIT": "ON", "TAMBRIL_AVX2": "OFF"})]


class Gen:
    def __init__(self, rnd):
        self.r = rnd

    def const(self):
        r = self.r
        k = r.random()
        if k < 0.45:
            return str(r.choice([0, 1, 2, 3, 5, 7, 10, 100, 255, 1000, 32767, 30000, 65536, 2147483647]))
        if k < 0.6:
            return str(r.randint(0, 50))
        if k < 0.75:
            return r.choice(["0.5", "1.5", "2.25", ".1", "3.7", "1E10", "1E30", "0.1#", "2.5#", "1D300"])
        if k < 0.85:
            return r.choice(["4000000000&&", "9223372036854775807&&", "123456789&", "40000&"])
        return str(r.randint(-9, 9))

    def var(self):
        return self.r.choice(INT_VARS + FLT_VARS)

    def element(self, depth):
        name, _ = self.r.choice(ARRAYS)
        return "%s(%s)" % (name, self.subscript(depth))

    def subscript(self, depth):
        r = self.r
        if r.random() < 0.7:
            return str(r.randint(0, 11) if r.random() < 0.1 else r.randint(0, 10))
        return "(%s) MOD 11" % self.expr(depth + 1) if r.random() < 0.5 else self.var()

    def expr(self, depth=0):
        r = self.r
        if depth > 3 or r.random() < 0.3:
            k = r.random()
            if k < 0.4:
                return self.const()
            if k < 0.85:
                return self.var()
            return self.element(depth)
        k = r.random()
        if k < 0.55:
            op = r.choice(["+", "-", "*", "+", "-", "*", "/", "\\", " MOD ", "^", " AND ", " OR ", " XOR ",
                           "=", "<>", "<", "<=", ">", ">="])
            return "%s%s%s" % (self.expr(depth + 1), op, self.expr(depth + 1))
        if k < 0.7:
            return "(%s)" % self.expr(depth + 1)
        if k < 0.78:
            return "-" + self.expr(depth + 1)
        if k < 0.82:
            return "NOT " + self.expr(depth + 1)
        fn = r.choice(["ABS", "INT", "FIX", "SGN", "SQR", "SIN", "COS", "ATN", "LOG", "EXP", "CSNG", "CDBL", "TANH"])
        return "%s(%s)" % (fn, self.expr(depth + 1))

    def hconst(self):
        return self.r.choice(["0", "1", "-1", "2.5", "0#", "-0#", "0.5#", "-3", "1E200#", "1D300", "1E-200#", "7"])

    def hleaf(self, depth):
        r = self.r
        k = r.random()
        if k < 0.45:
            return r.choice(HYP_VARS)
        if k < 0.55:
            return "U@(%d)" % r.randint(0, 4)
        if k < 0.85:
            n = r.choice([2, 4, 8])
            name = {2: "CPLX", 4: "QUAT", 8: "OCT"}[n]
            return "%s(%s)" % (name, ", ".join(self.hconst() for _ in range(n)))
        return self.const() if r.random() < 0.5 else self.var()

    def hexpr(self, depth=0):
        r = self.r
        if depth > 2 or r.random() < 0.35:
            return self.hleaf(depth)
        k = r.random()
        if k < 0.7:
            op = r.choice(["+", "-", "*", "*", "/"])
            return "%s %s %s" % (self.hexpr(depth + 1), op, self.hexpr(depth + 1))
        if k < 0.8:
            return "(%s)" % self.hexpr(depth + 1)
        if k < 0.9:
            return "-" + self.hexpr(depth + 1)
        return "CONJ(%s)" % self.hexpr(depth + 1)

    def hyper(self, loopvars):
        r = self.r
        k = r.random()
        if k < 0.45:
            return "%s = %s" % (r.choice(HYP_VARS), self.hexpr())
        if k < 0.6:
            return "U@(%d) = %s" % (r.randint(0, 4), self.hexpr())
        if k < 0.8:
            return "PRINT %s" % self.hexpr(1)
        c = r.choice(COMPONENTS)
        target = r.choice([v for v in ["Z#", "W#", "V"] if v not in loopvars])
        return "%s = %s.%s * 2 + %s" % (target, r.choice(HYP_VARS), c, self.expr(2))

    def simple(self, loopvars):
        r = self.r
        if self.hyp and r.random() < 0.4:
            return self.hyper(loopvars)
        k = r.random()
        if k < 0.45:
            target = self.var()
            while target in loopvars:
                target = self.var()
            return "%s = %s" % (target, self.expr())
        if k < 0.65:
            return "%s = %s" % (self.element(1), self.expr())
        if k < 0.8:
            return "PRINT %s" % "; ".join(self.expr(2) for _ in range(r.randint(1, 3)))
        if k < 0.88:
            return "IF %s THEN %s ELSE %s" % (self.expr(1), self.simple_flat(loopvars), self.simple_flat(loopvars))
        if k < 0.93:
            return "IF %s THEN %s" % (self.expr(1), self.simple_flat(loopvars))
        if k < 0.97:
            # Read back what the subroutines assign, before anything else
            # could reload it.
            return "%s: L&& = L&& + B%% + C%% + P%%(%d)" % (self.gosub(), r.randint(0, 10))
        return 'T$ = "s" + STR$(%s)' % self.expr(2)

    def gosub(self):
        # Subroutines that assign what a loop around the GOSUB may hold in
        # registers: scalars, an array's elements, the array itself, the
        # WHILE loops' counter.
        return "GOSUB %d" % self.r.choice([7000, 7000, 7100, 7200, 7300])

    def simple_flat(self, loopvars):
        r = self.r
        target = self.var()
        while target in loopvars:
            target = self.var()
        k = r.random()
        if k < 0.6:
            return "%s = %s" % (target, self.expr(1))
        if k < 0.8:
            return "PRINT %s" % self.expr(1)
        return self.gosub()

    def program(self):
        r = self.r
        self.hyp = r.random() < 0.35
        lines = []
        n = 10
        if r.random() < 0.4:
            lines.append("%d ON ERROR GOTO 8000" % n)
            n += 10
        lines.append("%d DIM P%%(10), Q&&(10), R#(10), S!(10), U@(4)" % n)
        n += 10
        if self.hyp:
            for v in HYP_VARS:
                lines.append("%d %s = %s" % (n, v, self.hleaf(0)))
                n += 10
        for v in INT_VARS + FLT_VARS:
            if r.random() < 0.6:
                lines.append("%d %s = %s" % (n, v, self.const()))
                n += 10
        loopvars = []
        for _ in range(r.randint(3, 9)):
            k = r.random()
            if k < 0.35 and len(loopvars) < 3:
                v = r.choice(["I%", "J&", "K&&", "Z#", "X!"])
                if v in loopvars:
                    continue
                start, stop = r.randint(-3, 3), r.randint(-3, 12)
                step = r.choice(["", "", " STEP 2", " STEP -1", " STEP 0.5", " STEP 3"])
                if step == " STEP 0.5" and v[-1] in "%&":
                    step = ""
                lines.append("%d FOR %s = %d TO %d%s" % (n, v, start, stop, step))
                n += 10
                loopvars.append(v)
                body = [self.simple(loopvars) for _ in range(r.randint(1, 4))]
                if r.random() < 0.3:
                    # A way out of the loop from its middle.
                    body.insert(r.randint(0, len(body)), "IF %s THEN {EXIT}" % self.expr(1))
                exit_line = n + 10 * (len(body) + 1)
                for b in body:
                    lines.append("%d %s" % (n, b.replace("{EXIT}", str(exit_line))))
                    n += 10
                lines.append("%d NEXT %s" % (n, v))
                n += 10
                loopvars.pop()
            elif k < 0.5:
                lines.append("%d C%% = 0" % n)
                n += 10
                lines.append("%d WHILE C%% < %d" % (n, r.randint(0, 6)))
                n += 10
                for _ in range(r.randint(1, 3)):
                    lines.append("%d %s" % (n, self.simple(["C%"])))
                    n += 10
                lines.append("%d C%% = C%% + 1: WEND" % n)
                n += 10
            elif k < 0.55:
                lines.append("%d IF %s THEN %d" % (n, self.expr(1), n + 20))
                n += 10
                lines.append("%d %s" % (n, self.simple([])))
                n += 10
            else:
                lines.append("%d %s" % (n, self.simple([])))
                n += 10
        lines.append("%d PRINT \"END\"; A%%; I&; K&&; X!; Z#; V; P%%(3); R#(4); H@; U@(1)" % n)
        lines.append("%d END" % (n + 10))
        # The subroutines come before the error handler, so that a region
        # compiled from the main program takes them in as native calls.
        lines.append("7000 L&& = L&& + 1: RETURN")
        lines.append("7100 B% = B% + 1: P%(B% AND 7) = B%: Y! = Y! * 0.5: RETURN")
        lines.append("7200 C% = C% + 1: RETURN")
        lines.append("7300 ERASE P%: DIM P%(10): RETURN")
        lines.append("8000 PRINT \"ERR\"; ERR; ERL: RESUME NEXT")
        return lines


def run(exe, runner, programs, mode, timeout):
    text = []
    for i, prog in enumerate(programs):
        text.append("NEW")
        text.extend(prog)
        text.append("PRINT \"=== %d\"" % i)
        text.append("RUN")
    env = dict(os.environ, **dict(MODES)[mode])
    cmd = shlex.split(runner) + [exe, "--headless", "--no-banner"]
    p = subprocess.run(cmd, input=("\n".join(text) + "\n").encode("latin-1"), capture_output=True,
                       env=env, timeout=timeout)
    return p.stdout.decode("utf-8", errors="replace")


def find_difference(exe, runner, programs, timeout):
    if len(programs) == 1:
        return programs[0]
    half = len(programs) // 2
    for part in (programs[:half], programs[half:]):
        outputs = [run(exe, runner, part, m, timeout) for m, _ in MODES]
        if any(o != outputs[0] for o in outputs):
            return find_difference(exe, runner, part, timeout)
    return programs[0]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--runner", default="")
    ap.add_argument("--count", type=int, default=2000)
    ap.add_argument("--batch", type=int, default=100)
    ap.add_argument("--seed", type=int, default=None)
    ap.add_argument("--timeout", type=float, default=300)
    a = ap.parse_args()
    seed = a.seed if a.seed is not None else random.randrange(1 << 30)
    rnd = random.Random(seed)
    gen = Gen(rnd)
    done = 0
    while done < a.count:
        programs = [gen.program() for _ in range(min(a.batch, a.count - done))]
        outputs = [run(a.exe, a.runner, programs, m, a.timeout) for m, _ in MODES]
        if any(o != outputs[0] for o in outputs):
            prog = find_difference(a.exe, a.runner, programs, a.timeout)
            print("JIT ON, OFF and ON with AVX2 off differ (seed %d) on this program:" % seed)
            print("\n".join(prog))
            for m, _ in MODES:
                print("--- JIT %s\n" % m + run(a.exe, a.runner, [prog], m, a.timeout))
            return 1
        done += len(programs)
    print("%d programs, seed %d: JIT ON, OFF and ON with AVX2 off print the same" % (done, seed))
    return 0


if __name__ == "__main__":
    sys.exit(main())
