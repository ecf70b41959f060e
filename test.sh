#!/usr/bin/env bash
# Install what is missing, build, and run every test: the Release build and a
# Debug build with AddressSanitizer and UBSan.
set -euo pipefail
cd "$(dirname "$0")"
scripts/deps.sh test
jobs=$(nproc)
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build -j "$jobs" --output-on-failure
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTAMBRIL_SANITIZE=ON >/dev/null
cmake --build build-asan -j "$jobs"
ctest --test-dir build-asan -j "$jobs" --output-on-failure
echo "All tests passed."
