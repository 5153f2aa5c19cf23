#!/usr/bin/env bash
# Builds the libFuzzer targets (clang) and runs each for SECONDS (default 60),
# starting from its checked-in corpus. New inputs go to build/fuzz/new/<name>,
# so the checked-in corpus stays small; copy a finding there by hand.
# Usage: tools/fuzz.sh [SECONDS] [NAME...]
set -eu
cd "$(dirname "$0")/.."
secs=${1:-60}
[ $# -gt 0 ] && shift
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for f in fuzz/*_fuzzer.cpp; do n=$(basename "$f" .cpp); names+=("${n%_fuzzer}"); done
fi
status=0
for n in "${names[@]}"; do
  mkdir -p "build/fuzz/new/$n"
  if "build/fuzz/fuzz/${n}_fuzzer" -max_total_time="$secs" -rss_limit_mb=4096 \
      "build/fuzz/new/$n" "fuzz/corpus/$n" >"build/fuzz/new/$n.log" 2>&1; then
    echo "$n: $(grep -E '^Done' "build/fuzz/new/$n.log")"
  else
    echo "$n: FAILED, see build/fuzz/new/$n.log"; status=1
  fi
done
exit $status
