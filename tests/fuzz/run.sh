#!/usr/bin/env bash
# Run the fuzz targets of a TAMBRIL_FUZZ build: first every kept regression
# input (tests/fuzz/regressions/<target>/), then libFuzzer for SECONDS per
# target from the seed corpus. A crash fails the run and its input is left in
# the artifact directory, ready to be kept as a regression input.
# Usage: tests/fuzz/run.sh BUILD_DIR SECONDS [target...]   (targets: direct load state http_reply bmp bank midi wav flac)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "$1" && pwd)"
seconds="$2"
shift 2
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(direct load state http_reply bmp bank midi wav flac)
work="$(mktemp -d /tmp/tambril-fuzz-run-XXXXXX)"
status=0
for t in "${targets[@]}"; do
  exe="$build/tests/fuzz/fuzz_$t"
  regressions=("$here/regressions/$t"/*)
  if [ -e "${regressions[0]}" ]; then
    "$exe" -runs=1 "${regressions[@]}" >"$work/$t.replay.log" 2>&1 ||
      { echo "fuzz/$t: a kept regression input fails again"; tail -30 "$work/$t.replay.log"; status=1; continue; }
  fi
  mkdir -p "$work/$t/corpus" "$work/$t/artifacts"
  # Paths are absolute: the targets work inside a scratch directory of their own.
  if "$exe" -dict="$build/tests/fuzz/basic.dict" -max_total_time="$seconds" -timeout=30 -max_len=4096 \
       -print_final_stats=1 -artifact_prefix="$work/$t/artifacts/" "$work/$t/corpus" "$here/corpus/$t" \
       >"$work/$t.log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work/$t.log" | grep -o '[0-9]*$' || echo 0)
    rate=$(grep -o 'stat::average_exec_per_sec: *[0-9]*' "$work/$t.log" | grep -o '[0-9]*$' || echo 0)
    echo "fuzz/$t: ${seconds}s, $runs executions, $rate exec/s, 0 crashes"
  else
    echo "fuzz/$t: FAILED; input kept in $work/$t/artifacts/"
    grep -E -A40 -m1 '^==[0-9]+==|runtime error:|ERROR: libFuzzer|deadly signal' "$work/$t.log" | head -60
    status=1
  fi
done
[ $status -ne 0 ] || rm -rf "$work"
exit $status
