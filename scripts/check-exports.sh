#!/usr/bin/env bash
# Checks the dynamic symbol table of libfirewall.so: it must define exactly
# the three module entry points and nothing else (no project symbol, no
# runtime library symbol pulled in by static linking), and it must take the
# C++ runtime from the shared libstdc++.
#
#   scripts/check-exports.sh [path/to/libfirewall.so]
#
# NM and READELF may name other tools (for example the cross binutils);
# by default the aarch64 ones are used for an AArch64 library.
set -euo pipefail

lib=${1:-build/default/libfirewall.so}
if [[ ! -f $lib ]]; then
  echo "check-exports: $lib not found" >&2
  exit 1
fi

if [[ -z ${NM:-} || -z ${READELF:-} ]]; then
  prefix=
  if LC_ALL=C readelf -h "$lib" 2>/dev/null | grep -q 'Machine:.*AArch64' \
     && [[ $(uname -m) != aarch64 ]] && command -v aarch64-linux-gnu-nm >/dev/null; then
    prefix=aarch64-linux-gnu-
  fi
  NM=${NM:-${prefix}nm}
  READELF=${READELF:-${prefix}readelf}
fi

expected=(oroCanUnloadModule oroCreateObject oroGetObjectFactory)

# Defined dynamic symbols, names only, without version suffixes.
mapfile -t exported < <("$NM" -D --defined-only --format=posix "$lib" \
  | awk '{print $1}' | sed 's/@.*//' | LC_ALL=C sort -u)

status=0
unexpected=()
for sym in "${exported[@]}"; do
  ok=0
  for e in "${expected[@]}"; do [[ $sym == "$e" ]] && ok=1 && break; done
  (( ok )) || unexpected+=("$sym")
done
missing=()
for e in "${expected[@]}"; do
  found=0
  for sym in "${exported[@]}"; do [[ $sym == "$e" ]] && found=1 && break; done
  (( found )) || missing+=("$e")
done

if (( ${#unexpected[@]} )); then
  echo "check-exports: $lib exports ${#unexpected[@]} unexpected symbol(s):" >&2
  printf '  %s\n' "${unexpected[@]:0:40}" >&2
  (( ${#unexpected[@]} > 40 )) && echo "  ..." >&2
  status=1
fi
if (( ${#missing[@]} )); then
  echo "check-exports: $lib does not export: ${missing[*]}" >&2
  status=1
fi

# The C++ runtime must come from the shared libstdc++, not be linked in.
needed=$(LC_ALL=C "$READELF" -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
if ! grep -q '^libstdc++\.so' <<<"$needed"; then
  if "$NM" --defined-only "$lib" 2>/dev/null \
       | grep -Eq ' [TtWw] (__cxa_throw|__cxa_begin_catch|__gxx_personality_v0)$'; then
    echo "check-exports: $lib carries its own copy of the C++ runtime (libstdc++ linked statically)" >&2
    status=1
  fi
fi

if (( status == 0 )); then
  echo "check-exports: $lib exports only: ${exported[*]}"
  echo "check-exports: needs: $(tr '\n' ' ' <<<"$needed")"
fi
exit $status
