#!/usr/bin/env bash
# Cross-build the Windows x64 executables (tambril.exe, tambril-con.exe) with
# mingw-w64 in build-win/, with the Opus libraries of scripts/win-deps.sh, and
# run their tests under Wine: every BASIC transcript headless, the console
# checks, the media tests, executables written by CREATEEXE run on their own,
# and the real window on a virtual X server. Installs the Debian 12 packages
# it needs when they are missing.
# JOBS=n limits the parallel build and test jobs (default: all processors).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh windows

jobs=${JOBS:-$(nproc)}
# libogg, libopus and libopusfile for mingw-w64, built once from Debian's sources.
JOBS=$jobs scripts/win-deps.sh build-win/deps
cmake -S . -B build-win -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64.cmake" >/dev/null
cmake --build build-win -j "$jobs"
# Wine wants a writable home for its own files even with a private prefix.
export HOME="${HOME:-$PWD/build-win}"
# Wine itself now and then crashes (a signal at process exit) or stalls a run
# when many Wine processes start at once; a failed test is run once more, and
# its first failure stays in the log above the second result.
ctest --test-dir build-win -j "$jobs" --output-on-failure --repeat until-pass:2
echo "All Windows tests passed."
