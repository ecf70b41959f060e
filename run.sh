#!/usr/bin/env bash
# Install what is missing, build, and start Tambril BASIC: the window when a
# display is there, a headless terminal session otherwise.
set -euo pipefail
cd "$(dirname "$0")"
scripts/deps.sh run
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DTAMBRIL_TESTS=OFF >/dev/null
cmake --build build
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
  exec build/tambril "$@"
else
  exec build/tambril --headless "$@"
fi
