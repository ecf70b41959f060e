#!/usr/bin/env bash
# Install what is missing, build, and run every test: the Release build, a
# Debug build with AddressSanitizer and UBSan, the threaded tests under
# ThreadSanitizer, the fuzz targets (clang), and the Windows build under Wine.
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
# ThreadSanitizer over the threaded parts: PARFOR's pool and workers under
# load, errors from many workers at once, drawing workers, the profiler's
# shared counters; then the whole program (window thread, stdin reader,
# interpreter, pool, exit) on PARFOR transcripts with subroutines, drawing
# and Esc.
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAMBRIL_TSAN=ON >/dev/null
cmake --build build-tsan -j "$jobs" --target tambril_unit tambril
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --test-dir build-tsan -j "$jobs" --output-on-failure \
  -R '^(Parfor\.|ProfileMode\.|basic/jit/parfor_(gosub|draw|break)$)'
# The fuzz targets (clang, ASan and UBSan): the kept regression inputs, then
# FUZZ_SECONDS of libFuzzer each from the seed corpus (30 s in CI).
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAMBRIL_FUZZ=ON \
  -DTAMBRIL_TESTS=OFF >/dev/null
cmake --build build-fuzz -j "$jobs"
tests/fuzz/run.sh build-fuzz "${FUZZ_SECONDS:-30}"
# The Windows build of the same sources, its transcripts under Wine, its window under Xvfb.
JOBS="$jobs" scripts/test-windows.sh
echo "All tests passed."
