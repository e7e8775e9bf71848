#!/usr/bin/env bash
# Runs one libFuzzer program for a fixed time over a corpus of its own:
#   run-fuzzer.sh <fuzzer> <seconds> <workdir> <seed dir>...
# <workdir>/corpus keeps what the fuzzer finds between runs; the *.der files
# of the seed directories and every file of fuzz/regressions are added to it.
# HOME points into <workdir>, so the library touches no real home directory.
# A crash, leak or time-out leaves its input in <workdir> as crash-*, leak-*
# or timeout-* and the exit status is libFuzzer's (non-zero); the log of the
# run is <workdir>/fuzz.log.
set -euo pipefail
[ $# -ge 3 ] || { echo "usage: $0 <fuzzer> <seconds> <workdir> <seed dir>..." >&2; exit 2; }
fuzzer=$1 seconds=$2 work=$3
shift 3
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

mkdir -p "$work/corpus" "$work/home"
for dir in "$@"; do
  [ -d "$dir" ] && find "$dir" -maxdepth 1 -type f -name '*.der' -exec cp -f {} "$work/corpus/" \;
done
if [ -d "$here/regressions" ]; then
  find "$here/regressions" -maxdepth 1 -type f ! -name 'README*' -exec cp -f {} "$work/corpus/" \;
fi

status=0
HOME="$work/home" "$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
  -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" >"$work/fuzz.log" 2>&1 || status=$?
grep -E '^(#[0-9]+[[:space:]]+DONE|stat::number_of_executed_units|stat::peak_rss_mb|==[0-9]+==ERROR|SUMMARY)' "$work/fuzz.log" || true
if [ "$status" -ne 0 ]; then
  tail -n 60 "$work/fuzz.log"
  ls "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-* 2>/dev/null || true
fi
exit "$status"
