#!/usr/bin/env bash
# Runs one libFuzzer target from its seeds.
#   run_fuzzer.sh FUZZER SEED_DIR WORK_DIR [libFuzzer options...]
# New inputs go to WORK_DIR/corpus (the seeds stay untouched), a crashing input to
# WORK_DIR/crash-*. For a long run, e.g.: run_fuzzer.sh ... -runs=10000000
set -euo pipefail
fuzzer=$1 seeds=$2 work=$3
shift 3
mkdir -p "$work/corpus"
# libFuzzer's check for leaks per input is off: the command fuzzer keeps its fixture (the
# store, the loaded plugin) from one input to the next on purpose. The sanitized suites
# check for leaks at the end of every process.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
exec "$fuzzer" -artifact_prefix="$work/" -detect_leaks=0 -print_final_stats=1 "$@" "$work/corpus" "$seeds"
