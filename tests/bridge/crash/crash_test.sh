#!/usr/bin/env bash
# What processes that die show with the crash library, linked and preloaded; and that they end and
# behave as without it.
#
#   crash_test.sh FOLDER_OF_PROGRAMS LIBRARY MKTRACE SOURCE
set -euo pipefail
export LC_ALL=C
programs=$1 library=$2 mktrace=$3 source=$4
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
cp "$programs"/crash_* .
for file in crash_*; do [ -d "$file" ] || "$mktrace" "$file"; done
cp "$programs/crash_plugin.so" crash_plugin_plain.so
unset ZORVAC_CRASH LD_PRELOAD
ulimit -S -c 0
failures=0

# compare NAME EXPECTED SEEN
compare() {
  [ "$3" != "$2" ] || return 0
  failures=$((failures + 1))
  echo "$1:"
  diff -u --label expected --label seen <(echo "$2") <(echo "$3") | tail -n +4 | head -n 20 || true
}

# The report in a line: signal, reason, low addresses, then routines of the source and the plug-in,
# and the number of the line where it begins if that is not marked.
in_short() {
  sed -E 's/(^Fatal .*), address 0x[0-9a-f]{9,}$/\1/; /^malloc\(\): /d' | awk -v source="$source" '
    function add(word) { if (word != last) text = text " " word; last = word }
    BEGIN { for (i = 1; (getline line < source) > 0; ++i) marked[i] = line ~ /\/\/ dies/ }
    /^Fatal signal [0-9]+ \(SIG[A-Z]+\) in process [0-9]+, thread [0-9]+: / {
      if (text != "") print text
      text = substr($4, 2, length($4) - 2) ", " substr($0, index($0, ": ") + 2)
      sub(/process [0-9]+$/, "another process", text)
      text = text ":"
      is_first = 1
      next
    }
    /^\.\.\. [0-9]+ frames \.\.\.$/ { add("..."); next }
    /^#[0-9]+ +a signal, whose handler is above$/ { add("(signal)"); next }
    /^#[0-9]+ .* at .*\/scenes\.c:[0-9]+ \(crash_[a-z_.]+\+0x[0-9a-f]+\)$/ {
      number = $4
      sub(/.*:/, "", number)
      if (is_first && !marked[number]) text = text " [line " number "]"
      is_first = 0
      add($2)
      next
    }
    /^#[0-9]+ .* \(crash_plugin/ { add($2); next }
    /^#[0-9]+ +[^ ]+ \(.*\)$/ && !/libzorvac_crash/ { next }
    { print }
    END { if (text != "") print text }'
}

# plays EXPECTED [VARIABLE=VALUE...] SCENE [FILE]: the report in short. Output and end of the
# process are those of a process without the library.
plays() {
  local expected=$1 setting='' mode output run
  shift
  if [[ $1 = *=* ]]; then
    setting=$1
    shift
  fi
  output=$(timeout 60 ./crash_scenes watch "$@" 2>report)
  for mode in "LD_PRELOAD=$library ./crash_scenes" ./crash_scenes_linked; do
    read -ra run <<<"$setting $mode"
    compare "$mode $*: output" "$output" "$(timeout 60 env "${run[@]}" watch "$@" 2>report)"
    compare "$mode $*: report" "$expected" "$(in_short <report)"
  done
}

# ---- What happened, and where ----
plays 'SIGSEGV, memory not mapped, address 0x8: store_null main' null
plays 'SIGFPE, integer division by zero, or with a quotient too large: divide main' divide
plays 'SIGILL, illegal instruction: execute_nothing main' illegal
plays 'SIGBUS, mapped memory is missing: past the end of its file?: read_past_file main' past_file
plays 'SIGBUS, sent by another process: be_killed main' killed
plays 'SIGABRT, raised by the program itself: allocate deeper ... deeper break_heap main' heap
(
  trap '' FPE # as whoever starts a program may ask for
  plays '' raise
  exit $failures
) || failures=$((failures + $?))

# ---- Stacks that are used up ----
plays 'SIGSEGV, stack overflow: recurse ... recurse overflow main' overflow
plays 'SIGSEGV, stack overflow: overflow_at_once main' overflow_at_once
plays 'SIGSEGV, stack overflow: recurse ... recurse overflow run_in_thread' overflow_thread
plays 'SIGSEGV, stack overflow: push_forever' own_stack
plays '' stacks

# ---- Calls of what is no code, and a stack that is lost ----
no_code='SIGSEGV, no code to execute'
plays "$no_code, address 0x0: call_target call_null main" call_null
plays "$no_code, address 0x123456: call_target call_wild main" call_wild
plays "$no_code, address 0x123456:" return_wild
plays 'SIGILL, illegal instruction: lose_stack' lose_stack

# ---- Handlers of the program's own ----
null='SIGSEGV, memory not mapped, address 0x8: store_null'
plays '' own_handler
plays '' late "$library"
plays "SIGFPE, integer division by zero, or with a quotient too large: divide divide_in_handler \
(signal) store_null divide_in_own_handler main" divide_in_handler
plays 'SIGSEGV, raised by the program itself: store_null pass_on_from_own_handler main' pass_on
plays "$null restore_previous main" previous

# ---- Other objects, processes and threads ----
plays "$null plugin_entry call_target die_in_plugin main" \
  plugin ./crash_plugin.so
plays "$null die_in_child main" child
plays "$null die_cancelled main" cancelled
for _ in {1..10}; do plays "$null die_together" concurrent; done
plays "$null die_with_loader_locked main" loader_locked ./crash_hangs.so
plays '' no_reader

# ---- What the environment asks for ----
plays '' ZORVAC_CRASH=off null
plays '' ZORVAC_CRASH=off overflow_thread
plays "$null main" ZORVAC_CRASH=on null
plays "$null main" ZORVAC_CRASH= null
unknown='ZORVAC_CRASH is neither "on" nor "off": "of?f". Crashes are reported.'
# By the process that watches, by the one that is watched, and not by its child.
plays "$unknown
$unknown
$null die_in_child main" ZORVAC_CRASH=$'of\ef' child

# ---- Exported names, and addresses that other programs know how to read ----
LD_PRELOAD=$library ./crash_scenes plugin ./crash_plugin_plain.so 2>report || true
address=$(sed -nE 's/^#1 +plugin_entry \(crash_plugin_plain\.so\+(0x[0-9a-f]+)\)$/\1/p' report)
line=$(grep -nE '^  store_null\(\);  // dies' "$source" | cut -d: -f1)
compare 'a plug-in without .trace' "$line" \
  "$(addr2line -e crash_plugin_plain.so "${address:-0}" | sed 's/.*://; s/ .*//')"

# ---- Core files, where the system writes them into the folder ----
ulimit -S -c "$(ulimit -H -c)"
plays "$null main" null
for preloaded in '' "$library"; do
  rm -f core*
  LD_PRELOAD=$preloaded ./crash_scenes call_null 2>/dev/null || true
  for core in core*; do
    [ -e "$core" ] || continue
    # The end of an address is the same wherever the program is loaded.
    eu-readelf -n "$core" | grep -oE ' rip: .*|si_signo: .*|fault address: .*' |
      sed -E 's/ rip: .*(...)$/rip: ...\1/' >>"${preloaded:+preloaded_}cause"
  done
done
if [ -s cause ]; then
  compare 'cause of death in a core file' "$(cat cause)" "$(cat preloaded_cause)"
else
  echo 'left out: no core files here'
fi

echo "$failures scenes are not as expected"
[ $failures -eq 0 ]
