#!/usr/bin/env python3
"""Grammar-based random BASIC programs, run through the interpreter.

Each program is built from the statement grammar (expressions of every type,
assignments, arrays, strings, PRINT and PRINT USING, IF/ELSE, FOR/NEXT,
WHILE/WEND, GOSUB/RETURN, ON ... GOTO, DATA/READ, error trapping with RESUME
NEXT, files in a scratch directory, and now and then a damaged token) and
ends by construction: jumps go forward, loops are bounded, subroutines
return. Every program must end within the time limit with exit code 0 or 1
and no sanitizer report. A failing program is written out to keep as a
regression input.

Usage: gen_programs.py --exe tambril [--count N] [--seed S] [--keep DIR]
"""
import argparse
import os
import random
import subprocess
import sys
import tempfile

NUM_VARS = ["A", "B", "I%", "J&", "K&&", "X!", "Y#", "Z"]
STR_VARS = ["S$", "T$", "U$"]
FUNCS1 = ["ABS", "INT", "FIX", "SGN", "SQR", "SIN", "COS", "ATN", "EXP", "LOG", "CINT", "CDBL", "CSNG"]


class Gen:
    def __init__(self, rnd):
        self.r = rnd

    def num(self, depth=0):
        r = self.r
        c = r.randrange(10 if depth < 3 else 4)
        if c == 0:
            return str(r.choice([0, 1, 2, 3, 7, 10, 100, 255, 32767, 32768, 65535, 2147483647, -1]))
        if c == 1:
            return r.choice(["0.5", "1.5", ".1#", "1E10", "2.5D-3", "&HFF", "&O17", "3.25!", "1E38"])
        if c in (2, 3):
            return r.choice(NUM_VARS)
        if c == 4:
            return "AR(%s)" % r.randrange(0, 11)
        if c == 5:
            return "(%s %s %s)" % (self.num(depth + 1), r.choice(["+", "-", "*", "/", "\\", "MOD", "^", "AND",
                                                                    "OR", "XOR", "=", "<>", "<", ">="]),
                                   self.num(depth + 1))
        if c == 6:
            return "-%s" % self.num(depth + 1)
        if c == 7:
            return "%s(%s)" % (r.choice(FUNCS1), self.num(depth + 1))
        if c == 8:
            return r.choice(["LEN(%s)", "ASC(%s + \"x\")", "VAL(%s)", "INSTR(%s, \"a\")"]) % self.str(depth + 1)
        return "NOT %s" % self.num(depth + 1)

    def str(self, depth=0):
        r = self.r
        c = r.randrange(8 if depth < 3 else 3)
        if c == 0:
            return '"%s"' % r.choice(["", "a", "hello", "A,B", " x ", "123", "1E5"])
        if c == 1:
            return r.choice(STR_VARS)
        if c == 2:
            return 'SA$(%d)' % r.randrange(0, 6)
        if c == 3:
            return "%s + %s" % (self.str(depth + 1), self.str(depth + 1))
        if c == 4:
            return "LEFT$(%s, %s)" % (self.str(depth + 1), self.small())
        if c == 5:
            return "MID$(%s, %s, %s)" % (self.str(depth + 1), self.small(1), self.small())
        if c == 6:
            return "STR$(%s)" % self.num(depth + 1)
        return "STRING$(%s, %s)" % (self.small(), r.choice(['"*"', "65"]))

    def small(self, lo=0):
        return str(self.r.randrange(lo, 12))

    def simple(self):
        r = self.r
        c = r.randrange(14)
        if c < 3:
            return "%s = %s" % (r.choice(NUM_VARS), self.num())
        if c < 5:
            return "%s = %s" % (r.choice(STR_VARS), self.str())
        if c == 5:
            return "AR(%s) = %s" % (self.small(), self.num())
        if c == 6:
            return "SA$(%d) = %s" % (r.randrange(0, 6), self.str())
        if c == 7:
            sep = r.choice(["; ", ", ", " "])
            return "PRINT " + sep.join(self.num() if r.random() < 0.5 else self.str()
                                       for _ in range(r.randrange(1, 4))) + r.choice(["", ";", ","])
        if c == 8:
            return 'PRINT USING "%s"; %s' % (r.choice(["##.##", "+#.###^^^^", "$$#,###.##", "####.", "&", "!"]),
                                             self.num() if r.random() < 0.7 else self.str())
        if c == 9:
            return "READ %s" % r.choice(NUM_VARS[:2] + STR_VARS)
        if c == 10:
            return "RESTORE"
        if c == 11:
            return r.choice(['LSET S$ = %s' % self.str(), 'MID$(T$, 1) = %s' % self.str(), "SWAP A, B",
                             'S$ = SPACE$(%s)' % self.small()])
        if c == 12:
            return r.choice(['OPEN "O", #1, "F.TXT": PRINT #1, %s: CLOSE #1' % self.num(),
                             'OPEN "F.TXT" FOR APPEND AS #2: WRITE #2, %s, %s: CLOSE' % (self.num(), self.str()),
                             'OPEN "I", #1, "F.TXT": IF NOT EOF(1) THEN LINE INPUT #1, U$: CLOSE ELSE CLOSE'])
        return r.choice(["ERROR %d" % r.randrange(1, 256), "X! = 1 / 0", "I% = 40000", "A = SQR(-1)"])

    def program(self):
        r = self.r
        lines = ["DIM AR(10), SA$(5)", "ON ERROR GOTO 9000", "DATA 1, 2.5, \"three\", 4, -5, \"six\""]
        n = r.randrange(3, 25)
        subs = []
        for i in range(n):
            c = r.randrange(10)
            line_no = 100 + 10 * i
            if c < 4:
                stmt = ": ".join(self.simple() for _ in range(r.randrange(1, 4)))
            elif c == 4:
                stmt = "IF %s THEN %s ELSE %s" % (self.num(), self.simple(), self.simple())
            elif c == 5:
                stmt = "FOR L%d = 1 TO %s: %s: NEXT L%d" % (i, self.small(), self.simple(), i)
            elif c == 6:
                stmt = "W%d = 0: WHILE W%d < %s: W%d = W%d + 1: %s: WEND" % ((i,) * 2 + (self.small(),) + (i,) * 2 +
                                                                          (self.simple(),))
            elif c == 7:
                target = 8000 + 10 * len(subs)
                subs.append("%d %s: RETURN" % (target, self.simple()))
                stmt = "GOSUB %d" % target
            elif c == 8:
                stmt = "ON %s GOTO %d, %d" % (self.small(), line_no + 10, line_no + 20)
            else:
                stmt = self.simple()
            if r.random() < 0.05:
                # A damaged statement: junk behind it, a stray ELSE, a cut line.
                stmt = r.choice([stmt + " ELSE", stmt + " )", "ELSE " + stmt, stmt[: max(1, len(stmt) // 2)]])
            lines.append(stmt)
        out = ["%d %s" % (10 * (k + 1), s) for k, s in enumerate(lines[:3])]
        out += ["%d %s" % (100 + 10 * k, s) for k, s in enumerate(lines[3:])]
        out.append("%d END" % (100 + 10 * (len(lines) - 3) + 10))
        out += subs
        out.append("9000 E = E + 1: IF E > 50 THEN END")
        out.append("9010 RESUME NEXT")
        return "\n".join(out) + "\n"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("--count", type=int, default=200)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--timeout", type=float, default=20)
    ap.add_argument("--keep", default=None)
    a = ap.parse_args()
    rnd = random.Random(a.seed)
    gen = Gen(rnd)
    failures = 0
    with tempfile.TemporaryDirectory(prefix="tambril-gen-") as scratch:
        for i in range(a.count):
            text = gen.program()
            path = os.path.join(scratch, "P.BAS")
            with open(path, "w") as f:
                f.write(text)
            why = None
            try:
                p = subprocess.run([a.exe, "--headless", "--batch", path], cwd=scratch, capture_output=True,
                                   timeout=a.timeout, stdin=subprocess.DEVNULL)
                err = p.stderr.decode("utf-8", "replace")
                if p.returncode not in (0, 1):
                    why = "exit code %d" % p.returncode
                elif "Sanitizer" in err or "runtime error" in err:
                    why = "sanitizer report"
            except subprocess.TimeoutExpired:
                why = "no end within %.0f s" % a.timeout
                err = ""
            if why:
                failures += 1
                print("program %d (seed %d): %s\n%s\n%s" % (i, a.seed, why, text, err[-3000:]))
                if a.keep:
                    os.makedirs(a.keep, exist_ok=True)
                    with open(os.path.join(a.keep, "gen_%d_%d.bas" % (a.seed, i)), "w") as f:
                        f.write(text)
    print("%d passed, %d failed" % (a.count - failures, failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
