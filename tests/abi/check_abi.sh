#!/usr/bin/env bash
# Holds the built shared library to its ABI: the soname, the exported names (exactly the
# vdx functions the internal archive defines, each listed in the version script and bound
# to VDX_1), and the libraries it needs (the C and C++ runtimes only).
# usage: check_abi.sh LIBRARY VERSION_SCRIPT ARCHIVE SANITIZED(0|1) "NAME..."
# The last argument lists the functions built so far: the library exports exactly these.
# grep reads here-strings, not pipes: under pipefail, "echo | grep -q" fails whenever grep
# has its answer and exits before echo has written everything.
set -euo pipefail
lib=$1 script=$2 archive=$3 sanitized=$4 built=$5
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libzovdx.so.1" ] || fail "soname is '$soname', not libzovdx.so.1"

# The names between "global:" and "local:" of the version script.
listed=$(sed -e 's|/\*.*\*/||g' "$script" | awk '/global:/ { on = 1; next } /local:/ { on = 0 } on' |
         tr -d ' ;' | grep -v '^$' | sort)
[ "$(echo "$listed" | wc -l)" -eq 19 ] || fail "the version script lists $(echo "$listed" | wc -l) names, not 19"

# Defined dynamic symbols, as name@@version (the version node's own ABS entry aside).
exported=$(readelf --dyn-syms -W "$lib" |
           awk '$7 != "UND" && $7 != "Ndx" && ($5 == "GLOBAL" || $5 == "WEAK") && NF >= 8 && !($4 == "OBJECT" && $7 == "ABS") { print $8 }' | sort)
[ -n "$exported" ] || fail "the library exports nothing"
for entry in $exported; do
  name=${entry%%@*}
  case "$entry" in
    *@@VDX_1) ;;
    *) fail "$entry is not bound to the default version VDX_1" ;;
  esac
  grep -qx "$name" <<< "$listed" || fail "$name is exported but not in the version script"
done

# Every vdx function that the archive defines must reach users.
defined=$(nm --defined-only "$archive" 2>/dev/null | awk '$2 == "T" && $3 ~ /^vdx/ { print $3 }' | sort -u)
for name in $defined; do
  grep -qx "$name@@VDX_1" <<< "$exported" || fail "$name is defined but not exported"
done
for name in $built; do
  grep -qx "$name@@VDX_1" <<< "$exported" || fail "$name is missing"
done
for entry in $exported; do
  grep -q " ${entry%%@*} " <<< " $built " || fail "${entry%%@*} is exported but not built yet"
done

# ld-linux is the C library's own loader: thread-local storage (std::call_once keeps its
# state there) is reached through it, as libstdc++ itself does.
allowed='^(libstdc\+\+\.so\.6|libpthread\.so\.0|libdl\.so\.2|librt\.so\.1|libm\.so\.6|libgcc_s\.so\.1|libc\.so\.6|ld-linux-x86-64\.so\.2)$'
[ "$sanitized" = 1 ] && allowed="${allowed%)\$}|libasan\.so\.[0-9]+|libubsan\.so\.[0-9]+)\$"
needed=$(readelf -d "$lib" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p')
for dep in $needed; do
  grep -Eq "$allowed" <<< "$dep" || fail "needs $dep, which is not a system runtime library"
done

if [ "$failures" -ne 0 ]; then
  echo "$failures ABI check(s) failed"
  exit 1
fi
echo "ABI ok: soname $soname; exports $(echo "$exported" | tr '\n' ' '); needs $(echo "$needed" | tr '\n' ' ')"
