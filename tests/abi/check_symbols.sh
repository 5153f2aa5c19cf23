#!/usr/bin/env bash
# Compares the dynamic symbols that libmorbase defines with the checked-in
# export lists (one file per family, one symbol per line, # comments).
# Fails on a missing symbol, an unlisted one, or any C++ (_Z) symbol.
set -eu
lib=$1 lists=$2
want=$(mktemp) have=$(mktemp)
trap 'rm -f "$want" "$have"' EXIT
cat "$lists"/*.txt | sed 's/#.*//; s/[[:space:]]//g; /^$/d' | sort -u >"$want"
nm -D --defined-only "$lib" | awk '{print $NF}' | sed 's/@.*//' |
  grep -vxE '_init|_fini|_edata|_end|__bss_start|__odr_asan\..*' | sort -u >"$have"
status=0
if grep -q '^_Z' "$have"; then
  echo "C++ symbols exported:"; grep '^_Z' "$have"; status=1
fi
missing=$(comm -23 "$want" "$have")
extra=$(comm -13 "$want" "$have")
[ -z "$missing" ] || { echo "listed but not exported:"; echo "$missing"; status=1; }
[ -z "$extra" ] || { echo "exported but not listed:"; echo "$extra"; status=1; }
[ $status -eq 0 ] && echo "exports match: $(wc -l <"$have") symbols"
exit $status
