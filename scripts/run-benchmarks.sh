#!/usr/bin/env bash
# Runs every benchmark program of a build; each prints its targets beside the ratios it measured.
set -uo pipefail
build=${1:?usage: run-benchmarks.sh BUILD_DIR [benchmark flags]}
shift
status=0
for program in "$build"/bench/bench_*; do
  [ -x "$program" ] || continue
  echo "== $(basename "$program")"
  # Repetitions in random order, compared by their medians, so that a busy moment of the machine
  # does not land on one side of a ratio only.
  "$program" --benchmark_min_time=0.2 --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true "$@" || status=1
done
exit $status
