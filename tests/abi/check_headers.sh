#!/usr/bin/env bash
# Compiles every public header alone, as C99 and as C++, with strict warnings.
set -eu
cc=$1 cxx=$2 abi=$3 inc=$4 geninc=$5 out=$6
mkdir -p "$out"
status=0 n=0
for h in "$inc"/qel_*.h "$geninc"/morbase.h; do
  b=$(basename "$h" .h)
  printf '#include "%s.h"\nint main(void) { return 0; }\n' "$b" >"$out/$b.c"
  cp "$out/$b.c" "$out/$b.cpp"
  # shellcheck disable=SC2086
  $cc $abi -std=c99 -Wall -Wextra -pedantic -Werror -I"$inc" -I"$geninc" -c "$out/$b.c" -o "$out/$b.c.o" || { echo "C99: $b.h"; status=1; }
  # shellcheck disable=SC2086
  $cxx $abi -std=c++17 -Wall -Wextra -pedantic -Werror -I"$inc" -I"$geninc" -c "$out/$b.cpp" -o "$out/$b.cpp.o" || { echo "C++: $b.h"; status=1; }
  n=$((n + 1))
done
[ $status -eq 0 ] && echo "$n headers compile alone as C99 and C++"
exit $status
