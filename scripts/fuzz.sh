#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz/<name>_fuzz.cpp) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in build/fuzz, and runs each for a while.
#
#   bash scripts/fuzz.sh                         every target for 5 seconds (the test command's run)
#   bash scripts/fuzz.sh 1800                    every target for 30 minutes
#   bash scripts/fuzz.sh 1800 control_message    one target (or several, by name)
#
# Each target starts from its seeds in tests/fuzz/corpus/<name>/ (when there are any) and from
# what earlier runs on this machine found, kept in build/fuzz/corpus/<name>/; new finds go there,
# never into the source tree. A crash, a sanitizer report, a verifier bugcheck or a leak of the
# filter's pool ends that target's run with its input saved as build/fuzz/crashes/<name>-crash-*;
# rerun it with build/fuzz/<name>_fuzz <that file>. The script goes on with the other targets and
# fails at the end when any target failed.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-5}
shift || true
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -eq 0 ]; then
  echo "usage: $0 [seconds per target] [target name...]" >&2
  exit 2
fi

# clang and its run-time library, which carries libFuzzer and the sanitizers' run-times.
bash scripts/install-deps.sh clang libclang-rt-dev

# Optimized as fuzzers are (-O1), with line tables enough for symbolized reports and cheaper to
# build than full debug information.
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DFM_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -gline-tables-only -DNDEBUG" >/dev/null
cmake --build build/fuzz -j "$(nproc)" --target fuzz_targets

if [ $# -gt 0 ]; then
  names=("$@")
else
  names=()
  for source in tests/fuzz/*_fuzz.cpp; do
    [ -e "$source" ] || continue
    base=$(basename "$source" .cpp)
    names+=("${base%_fuzz}")
  done
fi

export ASAN_OPTIONS="abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
mkdir -p build/fuzz/crashes build/fuzz/logs
passed=0
failed=0
for name in "${names[@]}"; do
  program="build/fuzz/${name}_fuzz"
  if [ ! -x "$program" ]; then
    echo "fuzz: no target $name (tests/fuzz/${name}_fuzz.cpp)" >&2
    failed=$((failed + 1))
    continue
  fi
  corpora=("build/fuzz/corpus/$name")
  mkdir -p "${corpora[0]}"
  [ -d "tests/fuzz/corpus/$name" ] && corpora+=("tests/fuzz/corpus/$name")
  log="build/fuzz/logs/$name.log"
  # -max_len: a request's largest message (2088 + 2 x 65534 bytes) or a configuration with all its
  # folders fits; -timeout: an input that takes this long is a hang (a lost wake-up, a deadlock).
  if "$program" -max_total_time="$seconds" -max_len=262144 -timeout=30 -print_final_stats=1 \
       -artifact_prefix="build/fuzz/crashes/$name-" "${corpora[@]}" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    echo "fuzz: $name: ${runs:-?} inputs in ${seconds}s, no fault"
    passed=$((passed + 1))
  else
    echo "fuzz: $name FAILED; the end of $log:" >&2
    tail -n 60 "$log" >&2
    failed=$((failed + 1))
  fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
