#!/usr/bin/env bash
# Runs one libFuzzer target from its seeds.
#   run_fuzzer.sh FUZZER SEED_DIR WORK_DIR [libFuzzer options...]
# New inputs go to WORK_DIR/corpus (the seeds stay untouched), a crashing input to
# WORK_DIR/crash-*. For a long run, e.g.: run_fuzzer.sh ... -runs=10000000
#
# Memory an input leaves allocated is looked for after every input when
# QUILLON_FUZZ_DETECT_LEAKS=1 (a leaking input is written to WORK_DIR/leak-*): for the
# fuzzers that keep nothing from one input to the next. The command fuzzer keeps its
# fixture (the store, the loaded plugin) on purpose and runs without; the sanitized
# suites check for leaks at the end of every process.
set -euo pipefail
fuzzer=$1 seeds=$2 work=$3
shift 3
mkdir -p "$work/corpus"
leaks=${QUILLON_FUZZ_DETECT_LEAKS:-0}
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=$leaks"
exec "$fuzzer" -artifact_prefix="$work/" -detect_leaks="$leaks" -print_final_stats=1 "$@" "$work/corpus" "$seeds"
