#!/usr/bin/env bash
# Tracebacks of processes in trouble. Each row below plays one scene of process.c in a process of
# its own, and has what that is to show.
#
#   process_test.sh FOLDER_OF_PROGRAMS MKTRACE
set -euo pipefail
programs=$1 mktrace=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
cp "$programs/process" .
"$mktrace" process
rows=0 failures=0

# What a traceback says, in short: how many rows it has, the program's own routines in them, a
# repeated one once, and what stands behind the rows. All that is no table stays as it is.
in_short() {
  awk '
    function tell() { if (count) print count " rows:" routines; count = 0; routines = last = "" }
    $1 == "Image" && $2 == "PC" { tell(); next }
    length($2) == 16 && $2 ~ /^[0-9A-F]*$/ {
      ++count
      if ($1 == "process" && $3 != last) routines = routines " " (last = $3)
      next
    }
    $0 != "" { tell(); print }
    END { tell() }'
}

# shows EXPECTED SCENE [threads] [VARIABLE=VALUE]
shows() {
  local expected=$1 words=() variables=(LD_PRELOAD=libgcc_s.so.1)
  for word in "${@:2}"; do
    case $word in
      *=*) variables+=("$word") ;;
      *) words+=("$word") ;;
    esac
  done
  rows=$((rows + 1))
  local seen
  seen=$({ env "${variables[@]}" timeout 20 ./process "${words[@]}" 2>/dev/null ||
    echo "exit status $?"; } | in_short)
  [ "$seen" != "$expected" ] || return 0
  failures=$((failures + 1))
  echo "${*:2}:"
  diff -u --label expected --label seen <(echo "$expected") <(echo "$seen") | tail -n +4 || true
}

# ---- Signals ----
for scene in every_step storm; do shows 'all children are back' "$scene"; done

# ---- The heap ----
# Nothing is taken from a heap that is found broken: what the first 24 records hold is shown.
for scene in malloc calloc realloc free wild_free; do
  for threads in '' threads; do
    shows "24 rows: show on_fatal guilty_$scene deeper
Stack trace terminated abnormally." "$scene" ${threads:+"$threads"}
  done
done

echo "$rows scenes, $failures not as expected"
[ $failures -eq 0 ]
