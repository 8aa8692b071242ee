#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for FUZZ_SECONDS each, from a scratch copy of its seed corpus
# so that the repository's corpus only changes when someone adds a seed on purpose.
set -euo pipefail
build=${1:?usage: run-fuzzers.sh BUILD_DIR}
seconds=${FUZZ_SECONDS:-30}
root=$(cd "$(dirname "$0")/.." && pwd)

passed=0
failed=0
for target in "$build"/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  work=$(mktemp -d)
  seeds="$root/fuzz/corpus/${name#fuzz_}"
  [ -d "$seeds" ] && cp -r "$seeds/." "$work/"
  echo "fuzz: $name for ${seconds}s"
  if "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=0 \
       -artifact_prefix="$build/$name-" "$work" >"$build/$name.log" 2>&1; then
    passed=$((passed + 1))
    tail -n 1 "$build/$name.log"
  else
    failed=$((failed + 1))
    echo "fuzz: $name FAILED; the crashing input is beside the log in $build"
    tail -n 40 "$build/$name.log"
  fi
  rm -rf "$work"
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
