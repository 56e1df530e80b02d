#!/usr/bin/env bash
# The shared library seen from outside, as binutils tell it: what it exports and needs, how it is
# linked, and which of its routines reach which others through the dynamic symbol table.
#
#   abi_test.sh SOURCE_DIR LIBRARY LIST_OF_OBJECTS
set -euo pipefail
export LC_ALL=C
abi=$1/abi library=$2 objects=$3
trap 'echo "abi_test.sh: line $LINENO"' ERR

# The listed names and no others.
diff <(awk '!/^#/ && NF { $1 = $1; print }' "$abi/exports.txt" | sort) <(
  readelf -W --dyn-syms "$library" | awk '$7 ~ /^[0-9]+$/ {
    print ($4 == "OBJECT" ? "data " $8 " " $3 : "function " $8), $5 }' | sed 's/ GLOBAL$//' | sort)

# It needs the C library alone and is bound at load. It has no path in it, no executable stack.
diff - <(readelf -Wd "$library" |
  sed -nE 's/.*\((NEEDED|SONAME|SYMBOLIC|TEXTREL|RPATH|RUNPATH|FLAGS)\) +//p' | sort) <<'END'
BIND_NOW
Library soname: [libzorvac.so.5]
Shared library: [libc.so.6]
END
readelf -Wl "$library" |
  awk '/ R?WE / { bad = 1 } /GNU_STACK .* RW / { stack = 1 } END { exit bad || !stack }'

# A weak symbol of an object with special instructions could become everybody's copy.
if sed -n 's/^1 //p' "$objects" | xargs nm | grep ' [VWu] '; then false; fi

# The exported names that each source refers to are the listed ones. The linked library has no
# instruction that goes straight to one from elsewhere.
diff <(awk '!/^#/ { for (i = 1; i <= NF; ++i) if ($i ~ /:$/) source = $i; else print source, $i }' \
  "$abi/hops.txt" | sort) <(
  sed 's/^. //' "$objects" | xargs objdump -d -r "$library" | awk '
    NR == FNR { if (NF > 1) exported[$2]; next }
    / file format / { source = $1; sub(/.*\/src\//, "src/", source); sub(/\.o:/, ":", source) }
    $2 ~ /^R_X86_64_/ { to = $3; sub(/[-+]0x.*/, "", to); if (to in exported) print source, to }
    /^[0-9a-f]+ <.*>:$/ { routine = substr($2, 2, length($2) - 3); sub(/\.cold$/, "", routine) }
    source ~ /\.so/ && /<[^+]*>$/ {
      to = substr($NF, 2, length($NF) - 2); if (to in exported && to != routine) print source, to }
    ' "$abi/exports.txt" - | sort -u)
