#!/usr/bin/env python3
"""Interactive terminal sessions driven through tmux: keys go in with
send-keys, the screen comes back with capture-pane. Every check polls for
the expected screen with a generous time-out, so a loaded machine only
makes the test slower.

Usage: run_term.py --exe build/tambril [case ...]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

TIMEOUT = 30.0


class Pane:
    def __init__(self, exe, cols=80, rows=24):
        self.exe = exe
        self.sock = "tambril-term-%d-%d" % (os.getpid(), int(time.time() * 1000) % 100000)
        self.home = tempfile.mkdtemp(prefix="tambril-term-")
        self.tmux("new-session", "-d", "-x", str(cols), "-y", str(rows),
                  "-e", "COLORTERM=truecolor", "-e", "PS1=$ ", "-c", self.home,
                  "bash --norc --noprofile")
        self.wait(lambda s: s.strip() != "", "the shell prompt")

    def tmux(self, *args):
        return subprocess.run(["tmux", "-L", self.sock, "-f", "/dev/null", *args],
                              check=True, capture_output=True, text=True).stdout

    def keys(self, *keys):
        self.tmux("send-keys", "-t", "0", *keys)

    def type(self, text):
        self.tmux("send-keys", "-t", "0", "-l", text)

    def line(self, text):
        self.type(text)
        self.keys("Enter")

    def screen(self, colours=False):
        args = ["capture-pane", "-p", "-t", "0"] + (["-e"] if colours else [])
        return self.tmux(*args)

    def rows(self):
        return self.screen().split("\n")

    def info(self, fmt):
        return self.tmux("display-message", "-p", "-t", "0", fmt).strip()

    def wait(self, pred, what, timeout=TIMEOUT):
        deadline = time.time() + timeout
        text = ""
        while time.time() < deadline:
            text = self.screen()
            if pred(text):
                return text
            time.sleep(0.05)
        raise AssertionError("timed out waiting for %s; screen:\n%s" % (what, text))

    def wait_text(self, needle, count=1):
        return self.wait(lambda s: s.count(needle) >= count, repr(needle))

    def start(self, args=""):
        self.line("exec_tambril() { %s --headless --no-banner %s; echo \"exit=$?\"; }; exec_tambril"
                  % (self.exe, args))
        self.wait_text("Ready.")
        self.wait(lambda s: self.info("#{alternate_on}") == "1", "the alternate screen")

    def close(self):
        subprocess.run(["tmux", "-L", self.sock, "kill-server"], capture_output=True)
        shutil.rmtree(self.home, ignore_errors=True)


def check(cond, message):
    if not cond:
        raise AssertionError(message)


def terminal_restored(p):
    """After the session: the shell's screen is back and the line discipline
    is cooked again (stty answers with icanon and echo on)."""
    # The line "exit=N" that the shell prints once the process has ended
    # (the command line itself shows "exit=$?").
    p.wait(lambda s: re.search(r"^exit=\d+", s, re.M), "the end of the process")
    p.wait(lambda s: p.info("#{alternate_on}") == "0", "the normal screen")
    check(p.info("#{cursor_flag}") == "1", "cursor left hidden")
    p.line("stty -a | tr ' ' '\\n' | grep -x -e icanon -e echo -e isig | tr '\\n' ,; echo")
    p.wait(lambda s: "icanon,isig,echo," in s or "isig,icanon,echo," in s or
           re.search(r"(icanon|isig|echo),(icanon|isig|echo),(icanon|isig|echo),", s), "stty sane")


def case_editing(p):
    """Typing and editing a line with the arrow keys, Home/End, Delete,
    Backspace and Insert; EDIT changes a stored line in the middle."""
    p.start()
    p.type('10 PRINT "HELLO"')
    p.keys("Left", "Left", "Left", "Left", "Left", "Left", "BSpace")  # the opening quote
    p.type("X")
    p.keys("Home", "Delete")  # the 1 of 10
    p.type("2")
    p.keys("End", "BSpace")   # the closing quote
    p.keys("Enter")
    p.line("LIST")
    p.wait_text('20 PRINT XHELLO\n')
    p.line("EDIT 20")
    p.wait_text("EDIT 20\n20 PRINT XHELLO")
    # Cursor into the middle: overwrite mode replaces, insert mode adds.
    for _ in range(5):
        p.keys("Left")
    p.keys("Insert")
    p.type("J")
    p.keys("Insert")
    p.type("\"")
    p.keys("End")
    p.type("\"")
    p.keys("Enter")
    p.wait_text('20 PRINT XJ"ELLO"')
    p.line("RUN")
    p.wait_text(" 0 ELLO\n")  # XJ is a variable now
    # Esc throws the typed line away; the cursor is where the editor has it.
    p.type("PRINT 12345")
    p.keys("Left", "Left")
    p.wait(lambda s: p.info("#{cursor_x}") == "9", "the cursor on the 4")
    ready = p.screen().count("Ready.")
    p.keys("Escape")
    # A key right after Esc would make it Alt+key: wait for the Esc to land.
    p.wait(lambda s: s.count("Ready.") > ready, "Esc abandoning the line")
    p.line("PRINT 7*6")
    p.wait_text(" 42\n")
    check("\n 12345\n" not in p.screen(), "Esc ran the line")


def case_break_cont(p):
    """Ctrl+C and Esc break a running program without ending the session;
    CONT goes on from where it stopped."""
    p.start()
    p.line("10 I = I + 1: GOTO 10")
    p.line("RUN")
    time.sleep(0.3)
    p.keys("C-c")
    p.wait_text("Break in 10")
    p.line("PRINT I > 0")
    p.wait_text("-1\n")
    p.line("A = I: CONT")
    time.sleep(0.3)
    p.keys("Escape")
    p.wait_text("Break in 10", 2)
    p.line("PRINT I > A")
    p.wait_text("-1\n", 2)
    # Ctrl+C at the prompt only abandons the line.
    p.type("PRINT 99")
    p.keys("C-c")
    p.line("PRINT 5")
    p.wait_text(" 5\n")
    check("\n 99\n" not in p.screen(), "Ctrl+C at the prompt ran the line")


def case_inkey_game(p):
    """A game loop steers a star with the arrow keys through INKEY$ (CHR$(0)
    and the scan code), drawn with LOCATE; q ends it."""
    p.start()
    for text in [
        "10 CLS: X = 10: Y = 5",
        '20 LOCATE Y, X: PRINT "*";',
        "30 K$ = INKEY$: IF K$ = \"\" THEN 30",
        '40 LOCATE Y, X: PRINT " ";',
        '50 IF K$ = CHR$(0) + "M" THEN X = X + 1',
        '60 IF K$ = CHR$(0) + "K" THEN X = X - 1',
        '70 IF K$ = CHR$(0) + "P" THEN Y = Y + 1',
        '80 IF K$ = CHR$(0) + "H" THEN Y = Y - 1',
        '90 IF K$ = "q" THEN LOCATE 20, 1: PRINT "END"; X; Y: END',
        "100 GOTO 20",
    ]:
        p.line(text)
    p.line("RUN")
    p.wait(lambda s: len(p.rows()) > 4 and p.rows()[4][9:10] == "*", "the star at row 5, column 10")
    for k in ["Right", "Right", "Right", "Down", "Down", "Up", "Left"]:
        p.keys(k)
    # Row 6 (index 5), column 12 (index 11).
    p.wait(lambda s: p.rows()[5][11:12] == "*", "the star moved to row 6, column 12")
    check(p.screen().count("*") == 1, "the star left a trail")
    p.keys("F1")  # a function key is a key too (CHR$(0)+";"), not a line
    p.type("q")
    p.wait_text("END 12  6")


def case_screen(p):
    """LOCATE, COLOR and CLS land where they should; TXTMAXX and TXTMAXY
    follow the terminal, also after it is resized."""
    p.start()
    p.line('CLS: LOCATE 5, 20: COLOR 14, 1: PRINT "YELLOW";: COLOR 15, 0: LOCATE 12, 1')
    p.wait(lambda s: p.rows()[4][19:25] == "YELLOW", "YELLOW at row 5, column 20")
    check(p.rows()[0].strip() == "", "CLS left text at the top")
    coloured = p.screen(colours=True).split("\n")[4]
    check("38;2;255;255;85" in coloured and "48;2;0;0;170" in coloured,
          "COLOR 14,1 not drawn as yellow on blue: %r" % coloured)
    p.line("PRINT TXTMAXX; TXTMAXY")
    p.wait_text(" 80  24\n")
    p.tmux("resize-window", "-t", "0", "-x", "100", "-y", "30")
    p.wait(lambda s: p.info("#{pane_width}") == "100", "the resize")
    p.line("PRINT TXTMAXX; TXTMAXY")
    p.wait_text(" 100  30\n")
    # Output that wraps uses the new width: 100 characters fill one row.
    p.line('PRINT STRING$(100, "=")')
    p.wait(lambda s: "=" * 100 in s, "a full row of 100")
    p.line("SYSTEM")
    terminal_restored(p)


def case_shrink(p):
    """The terminal shrinks under a waiting prompt: the text above the prompt
    moves up with it and the typed line stays in sight."""
    p.start()
    p.line("FOR I = 1 TO 30: PRINT I: NEXT")
    p.wait_text(" 30\n")
    p.tmux("resize-window", "-t", "0", "-x", "60", "-y", "12")
    p.wait(lambda s: p.info("#{pane_height}") == "12", "the resize")
    p.type("PRINT 5")
    p.wait(lambda s: p.rows()[11].startswith("PRINT 5") and p.rows()[9].strip() == "30",
           "the prompt on the last row under the output")
    p.keys("Enter")
    p.wait_text(" 5\n")


def case_crash(p):
    """A crash signal (SIGSEGV sent to the process) still puts the terminal
    back: normal screen, cursor shown, cooked mode."""
    p.start()
    p.line("10 GOTO 10")
    p.line("RUN")
    pid = None
    deadline = time.time() + TIMEOUT
    while pid is None and time.time() < deadline:
        # The shell in the pane started it: its child, not any other tambril.
        out = subprocess.run(["pgrep", "-P", p.info("#{pane_pid}")],
                             capture_output=True, text=True).stdout.split()
        pid = int(out[0]) if out else None
        time.sleep(0.05)
    check(pid is not None, "no interpreter process")
    os.kill(pid, 11)
    terminal_restored(p)


def case_ctrl_d(p):
    """Ctrl+D at an empty Ready prompt ends the session (exit code 0); with
    text typed it does nothing."""
    p.start()
    p.type("PRINT 3")
    p.keys("C-d")
    p.keys("Enter")
    p.wait_text(" 3\n")
    p.keys("C-d")
    p.wait(lambda s: re.search(r"^exit=0$", s, re.M), "exit code 0")
    terminal_restored(p)


CASES = {
    "editing": case_editing,
    "break_cont": case_break_cont,
    "inkey_game": case_inkey_game,
    "screen": case_screen,
    "shrink": case_shrink,
    "crash": case_crash,
    "ctrl_d": case_ctrl_d,
}


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--exe", required=True)
    ap.add_argument("cases", nargs="*")
    a = ap.parse_args()
    exe = os.path.abspath(a.exe)
    failed = 0
    for name in a.cases or list(CASES):
        p = Pane(exe)
        try:
            CASES[name](p)
            print("ok   %s" % name)
        except Exception as e:  # report every case, then fail
            failed += 1
            print("FAIL %s: %s" % (name, e))
        finally:
            p.close()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
