#!/usr/bin/env bash
# Checks the shared library from outside with binutils: what it exports and needs, how it is linked,
# and which of its routines call which others through the dynamic symbol table.
#
#   abi_test.sh SOURCE_DIR LIBRARY ARCHIVE LIST_OF_OBJECTS VERSION
set -euo pipefail
export LC_ALL=C
abi=$1/abi library=$2 archive=$3 objects=$4 version=$5
trap 'echo "abi_test.sh: line $LINENO"' ERR

for list in exports released hops; do test -s "$abi/$list.txt"; done

# Names of a release do not change, and new names have a version that is not released yet.
rows() { awk '!/^#/ && NF { $1 = $1; print }' "$abi/$1" | sort; }
awk -v version="$version" '
  NR == FNR { released[$0]; old[$2]; next }
  $0 in released { delete released[$0]; next }
  $2 != version || $2 in old { print "it is new, but not of the next release: " $0; bad = 1 }
  END { for (row in released) { print "programs of a release use it: " row; bad = 1 }
    exit bad }' <(rows released.txt) <(rows exports.txt)

# It exports the listed names and no others.
diff <(rows exports.txt | cut -d' ' -f1,3- | sort) <(
  readelf -W --dyn-syms "$library" | awk '$7 ~ /^[0-9]+$/ {
    print ($4 == "OBJECT" ? "data " $8 " " $3 : "function " $8), $5 }' | sed 's/ GLOBAL$//' | sort)

# Every routine that a source defines with default visibility is listed. (Templates of the
# compiler's headers have it, too; the linker's map hides them.)
diff <(awk '!/^#/ && NF { print $3 }' "$abi/exports.txt" | sort) <(
  sed 's/^. //' "$objects" | xargs readelf -Ws |
    awk '$5 ~ /GLOBAL|WEAK/ && $6 == "DEFAULT" && $7 ~ /^[0-9]+$/ && $8 !~ /^_Z/ { print $8 }' |
    sort -u)

# It needs only the C library and is bound at load. It has no search path and no executable stack.
diff - <(readelf -Wd "$library" |
  sed -nE 's/.*\((NEEDED|SONAME|SYMBOLIC|TEXTREL|RPATH|RUNPATH|FLAGS)\) +//p' | sort) <<'END'
BIND_NOW
Library soname: [libzorvac.so.5]
Shared library: [libc.so.6]
END
readelf -Wl "$library" |
  awk '/ R?WE / { bad = 1 } /GNU_STACK .* RW / { stack = 1 } END { exit bad || !stack }'

# Every C library since glibc 2.16 has the versions that it needs, also those of weak symbols.
newest=$(readelf -WV "$library" | sed -nE 's/.*Name: ([^ ]+) .*/\1/p' | sort -V | tail -1)
[ "$newest" = GLIBC_2.16 ] || { echo "needs $newest" && false; }

# It is marked as fit for shadow stacks, and so is each object of the archive: with one object that
# is not marked, a whole program has none.
readelf -Wn "$library" | grep -q 'x86 feature: SHSTK'
readelf -Wn "$archive" | awk '
  /^File: / { if (file) exit; file = $2 }
  /x86 feature: SHSTK/ { file = "" }
  END { if (file) { print "not marked: " file; exit 1 } }'

# The archive takes no plain word from a program: a global name is exported, or begins with an
# underscore or a prefix of the library, or is not a C identifier. Plain words are local, but are
# not removed. No name has a version, because versions match nothing in a static program.
nm "$archive" 2>/dev/null | awk '
  NR == FNR { exported[$3]; next }
  $NF ~ /@/ || $2 ~ /^[A-TV-Z]$/ && !($3 in exported) && $3 !~ /^(_|tbk_|zorvac_)|\./ {
    print "global: " $NF; bad = 1 }
  $2 ~ /^[a-z]$/ { name[$3] }
  END { if (!("work_pool" in name && "c_feature_names" in name)) { print "names lost"; bad = 1 }
    exit bad }' "$abi/exports.txt" -

# Objects with special instructions have no weak symbols: the linker could use their copy
# everywhere.
symbols=$(sed -n 's/^1 //p' "$objects" | xargs nm -A)
if grep ' [VWu] ' <<<"$symbols"; then false; fi

# Each source refers to the exported names that are listed for it, and to no others. In the linked
# library no instruction calls or jumps directly to an exported routine of another source.
diff <(awk '!/^#/ { for (i = 1; i <= NF; ++i) if ($i ~ /:$/) source = $i; else print source, $i }' \
  "$abi/hops.txt" | sort) <(
  sed 's/^. //' "$objects" | xargs objdump -d -r "$library" | awk '
    NR == FNR { if (NF > 1) exported[$3]; next }
    / file format / { source = $1; sub(/.*\/src\//, "src/", source); sub(/\.o:/, ":", source) }
    $2 ~ /^R_X86_64_/ { to = $3; sub(/[-+]0x.*/, "", to); if (to in exported) print source, to }
    /^[0-9a-f]+ <.*>:$/ { routine = substr($2, 2, length($2) - 3); sub(/\.cold$/, "", routine) }
    source ~ /\.so/ && /<[^+]*>$/ {
      to = substr($NF, 2, length($NF) - 2); if (to in exported && to != routine) print source, to }
    ' "$abi/exports.txt" - | sort -u)
