#!/usr/bin/env bash
# Runs every benchmark program of a build; each prints its targets beside the ratios it measured, and
# the targets of all of them are listed together at the end. Fails when a target is not met.
set -uo pipefail
build=${1:?usage: run-benchmarks.sh BUILD_DIR [benchmark flags]}
shift
status=0
output=$(mktemp)
summary=$(mktemp)
figures=$(mktemp)
trap 'rm -f "$output" "$summary" "$figures"' EXIT
for program in "$build"/bench/bench_*; do
  [ -x "$program" ] || continue
  name=$(basename "$program")
  echo "== $name"
  # Repetitions in random order, compared by their medians, so that a busy moment of the machine
  # does not land on one side of a ratio only.
  "$program" --benchmark_min_time=0.2 --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true "$@" | tee "$output"
  [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
  # The table's colour codes may run into the next line, so they go before the targets are picked out.
  sed -e 's/\x1b\[[0-9;]*m//g' "$output" | sed -n "s/^target:/$name:/p" >>"$summary"
  sed -e 's/\x1b\[[0-9;]*m//g' "$output" | sed -n "s/^figure:/$name:/p" >>"$figures"
done
echo
echo "== Targets"
if [ -s "$summary" ]; then cat "$summary"; else echo "(no benchmark printed a target)"; fi
# Figures have no target: what they measure depends on the machine's disk and database as much as on us.
if [ -s "$figures" ]; then
  echo
  echo "== Figures"
  cat "$figures"
fi
exit $status
