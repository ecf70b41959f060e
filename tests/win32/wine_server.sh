#!/bin/sh
# Starts this prefix's wineserver afresh as a persistent server, with Wine's
# own background processes (services, plugplay, the desktop's explorer)
# started now, by a process whose output goes nowhere.
#
# Otherwise the first test to start a Wine process starts them too, they
# inherit that test's output pipes, and the test waits for their end of file
# until it times out. And Wine's explorer keeps the display it was started
# with: the window tests restart the server under their own X server
# (`wine_server.sh` with DISPLAY set) and again without one when they finish.
set -e
wineserver -k 2>/dev/null || true
wineserver -w
wineserver -p </dev/null >/dev/null 2>&1
wine cmd /c exit </dev/null >/dev/null 2>&1
