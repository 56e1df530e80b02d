#!/usr/bin/env bash
# What dying processes report with the crash library, linked and preloaded. Apart from the report,
# they must end and behave as without it. The scenes are routines of scenes.c.
#
#   crash_test.sh FOLDER_OF_PROGRAMS LIBRARY MKTRACE SOURCE
# shellcheck source=tests/diag/scenes.sh
. "$(dirname "$0")/../../diag/scenes.sh"
programs=$1 library=$2 mktrace=$3 source=$4
cp "$programs"/crash_* .
for file in crash_*; do "$mktrace" "$file"; done
cp "$programs/crash_plugin.so" crash_plugin_plain.so
unset ZORVAC_CRASH LD_PRELOAD
ulimit -S -c 0

# The report in one line: signal, reason and low addresses, then the routines of the plug-in and,
# if the line is marked, of the source. Lines that are not as expected stay whole.
marked=$(grep -n '// dies' "$source" | cut -d: -f1 | paste -sd'|')
in_short() {
  sed -E "/^(malloc\(\)|timeout): /d
    s/^Fatal signal [0-9]+ \((SIG[A-Z]+)\) in process [0-9]+, thread [0-9]+: (.*)/\1, \2:/
    s/, address 0x[0-9a-f]{9,}:$/:/
    s/process [0-9]+:$/another process:/
    s/^#[0-9]+ +a signal, whose handler is above$/(signal)/
    s/^#[0-9]+ +(\w+) at .*\/scenes\.c:($marked) \(crash_[a-z_.]+\+0x[0-9a-f]+\)$/\1/
    s/^#[0-9]+ +(\w+) \((crash_plugin|0x).*/\1/
    s/^\.\.\. [0-9]+ frames \.\.\.$/.../
    /libzorvac_crash/! { /^#[0-9]+ +[^ ]+ \(.*\)$/d }" | uniq | paste -sd' '
}

# The program's output and how it ended. Its standard error is the report.
output_of() { # COMMAND...
  { timeout 60 env "$@" 2>report && echo 'status 0' || echo "status $?"; } 2>/dev/null
}

# [setting=...] plays EXPECTED SCENE [FILE]: compares the short report, with this variable or option
# of env. Output and end of the process must be those of a process without the library.
plays() {
  local expected=$1 output mode run
  shift
  output=$(output_of ./crash_scenes "$@")
  for mode in "LD_PRELOAD=$library ./crash_scenes" ./crash_scenes_linked; do
    read -ra run <<<"${setting:-} $mode"
    compare "${run[*]} $*: output" "$output" "$(output_of "${run[@]}" "$@")"
    compare "${run[*]} $*: report" "$expected" "$(in_short <report)"
  done
}

# ---- What happened, and where ----
null='SIGSEGV, memory not mapped, address 0x8: store_null'
division='SIGFPE, integer division by zero, or with a quotient too large: divide'
plays "$null main" store_null
plays 'SIGBUS, mapped memory is missing: past the end of its file?: read_past_file main' \
  read_past_file
plays 'SIGBUS, sent by another process: be_killed main' be_killed
plays 'SIGABRT, raised by the program itself: allocate recurse ... recurse break_heap main' \
  break_heap
# The program is started with the signal ignored. A fault still ends it.
setting=--ignore-signal=FPE plays '' divide

# ---- Full stacks ----
plays 'SIGSEGV, stack overflow: overflow_at_once main' overflow_at_once
plays 'SIGSEGV, stack overflow: recurse ... recurse overflow run_in_thread' overflow_in_thread
plays 'SIGSEGV, stack overflow: recurse ... recurse overflow run_in_c_thread' overflow_in_c_thread
plays 'SIGSEGV, stack overflow: own_small_stack' own_small_stack
plays '' leave_stacks

# ---- Calls of addresses without code, and a lost stack ----
plays 'SIGSEGV, no code to execute, address 0x0: call_target main' call_target
plays 'SIGSEGV, no code to execute, address 0x8: Unknown' jump_without_stack
plays 'SIGILL, illegal instruction: lose_stack' lose_stack

# ---- Handlers of the program's own ----
plays "$division divide_in_handler (signal) store_null divide_in_own_handler main" \
  divide_in_own_handler
plays "$null restore_previous main" restore_previous

# ---- Other objects, processes and threads ----
plays "$null plugin_entry call_target die_in_plugin main" die_in_plugin ./crash_plugin.so
plays "$null die_in_child main" die_in_child
plays "$null die_cancelled main" die_cancelled
for _ in {1..10}; do plays "$null die_together run_in_thread" die_concurrently; done
# The report waits for some seconds. Meanwhile another thread dies.
plays "$null die_with_loader_locked main" die_with_loader_locked ./crash_plugin.so

# ---- Standard error as a pipe that nobody reads ----
mkfifo pipe
exec 8<>pipe
exec 9>pipe 8>&-
compare 'no reader: status' 139 "$(timeout 4 ./crash_scenes_linked store_null 2>&9 || echo $?)"

# ---- Settings in the environment ----
setting=ZORVAC_CRASH=off plays '' overflow_in_thread
setting=ZORVAC_CRASH=off plays '' say_stack
setting=ZORVAC_CRASH=on plays "$null main" store_null
setting=ZORVAC_CRASH= plays "$null main" store_null
# The process says it, and its child does not repeat it.
unknown='ZORVAC_CRASH is neither "on" nor "off": "of?f". Crashes are reported.'
setting=ZORVAC_CRASH=$'of\ef' plays "$unknown $null die_in_child main" die_in_child

# ---- Exported names, and addresses that other programs can look up ----
LD_PRELOAD=$library ./crash_scenes die_in_plugin ./crash_plugin_plain.so 2>report || true
address=$(sed -nE 's/^#1 +plugin_entry \(crash_plugin_plain\.so\+(0x[0-9a-f]+)\)$/\1/p' report)
line=$(grep -nEm1 '^  store_null\(\);  // dies' "$source" | cut -d: -f1)
compare 'a plug-in without .trace' "$line" \
  "$(addr2line -e crash_plugin_plain.so "${address:-0}" | sed 's/.*://; s/ .*//')"

# ---- Core files, if the system writes them into the folder ----
ulimit -S -c "$(ulimit -H -c)"
cause_of_death() { # LIBRARY
  rm -f core*
  LD_PRELOAD=$1 ./crash_scenes call_target 2>/dev/null || true
  # The last digits of an address do not depend on where the program is loaded.
  eu-readelf -n core* | grep -oE ' rip: .*|si_signo: .*|fault address: .*' |
    sed -E 's/ rip: .*(...)$/rip: ...\1/'
}
cause=$(cause_of_death '') || echo 'left out: no core files here'
compare 'cause of death in a core file' "$cause" "$(cause_of_death "$library")"

verdict
