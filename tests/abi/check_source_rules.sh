#!/usr/bin/env bash
# House rules that the compiler does not check:
#  - every public header brackets its declarations with QEL_BEGIN_DECLS/QEL_END_DECLS
#    and exports through QEL_API only;
#  - no library source writes extern "C" (linkage comes from the header);
#  - exactly one load-time constructor, base_init.
set -eu
top=$1
cd "$top"
status=0
for h in include/qel_*.h; do
  case $h in include/qel_export.h|include/qel_result.h) continue ;; esac
  grep -q QEL_BEGIN_DECLS "$h" && grep -q QEL_END_DECLS "$h" || { echo "$h: no QEL_BEGIN_DECLS/QEL_END_DECLS"; status=1; }
  if grep -n 'visibility("default")' "$h"; then echo "$h: export through QEL_API"; status=1; fi
done
dirs="base containers config sync shm fs system net old strpool"
hits=$(grep -rn 'extern "C"' $dirs --include='*.cpp' --include='*.h' 2>/dev/null || true)
[ -z "$hits" ] || { echo 'extern "C" in library sources:'; echo "$hits"; status=1; }
ctors=$(grep -rn '__attribute__((constructor' $dirs 2>/dev/null | wc -l)
[ "$ctors" -eq 1 ] || { echo "expected one load-time constructor, found $ctors"; status=1; }
[ $status -eq 0 ] && echo "source rules hold"
exit $status
