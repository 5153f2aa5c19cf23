#!/usr/bin/env bash
# Second command of the README (and CI): installs what is missing, then builds
# and runs every test on both ABIs and under the sanitizers.
set -u
cd "$(dirname "$0")/.."
bash tools/deps.sh || exit 1
presets=${MORBASE_PRESETS:-"i386 x86_64 asan tsan"}
passed=0 failed=0 broken=""
for preset in $presets; do
  echo "== $preset =="
  start=$(date +%s)
  if ! cmake --preset "$preset" >"build-$preset.log" 2>&1; then
    cat "build-$preset.log"; broken="$broken $preset(configure)"; continue
  fi
  if ! cmake --build --preset "$preset" >>"build-$preset.log" 2>&1; then
    tail -n 60 "build-$preset.log"; broken="$broken $preset(build)"; continue
  fi
  out=$(ctest --preset "$preset" 2>&1); rc=$?
  printf '%s\n' "$out" | grep -vE '^ *[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed' 
  total=$(printf '%s\n' "$out" | sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' | tail -n 1)
  nfail=$(printf '%s\n' "$out" | sed -n 's/.* \([0-9]*\) tests failed out of.*/\1/p' | tail -n 1)
  total=${total:-0} nfail=${nfail:-0}
  [ $rc -ne 0 ] && [ "$nfail" -eq 0 ] && { nfail=1; broken="$broken $preset(ctest)"; }
  passed=$((passed + total - nfail)) failed=$((failed + nfail))
  echo "== $preset: $((total - nfail))/$total passed in $(( $(date +%s) - start ))s =="
  rm -f "build-$preset.log"
done
[ -z "$broken" ] || echo "broken:$broken"
echo "total: $passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ -z "$broken" ]
