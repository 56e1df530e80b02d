// Processes in trouble, for process_test.sh:
//
//   process SCENE            plays a scene of the table in front of main
//   process SCENE threads    the same beside an idle thread: with two, the heap has a lock
//
// Tracebacks and what else is seen go to standard output, for the test to compare.
#define _GNU_SOURCE
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zorvac/diag.h>

#define ROUTINE __attribute__((noinline)) void

// Prints the stack as a table.
ROUTINE show(const void* context) {
  static char text[1 << 16];
  const size_t length = tbk_string_stack_signal(context, text, sizeof text, 1, 1);
  (void)!write(STDOUT_FILENO, text, length);
}

// Calls a routine from so many calls further down.
ROUTINE deeper(int calls, void (*last)(void)) {
  if (calls > 0) {
    deeper(calls - 1, last);
  } else {
    last();
  }
  __asm__("" ::: "memory");  // something is left to do: the frame stays
}

static void show_own(void) { show(NULL); }
static void show_deeper(void) { deeper(1, show_own); }

static void on_fatal(int number, siginfo_t* info, void* context) {
  (void)number, (void)info;
  show(context);
  _exit(0);
}

static void catch_fatal_signals(void) {
  const struct sigaction action = {.sa_sigaction = on_fatal, .sa_flags = SA_SIGINFO};
  sigaction(SIGABRT, &action, NULL);
  sigaction(SIGSEGV, &action, NULL);
}

static void* idle(void* unused) {
  for (;;) pause();
  return unused;
}

// A thread that takes no signal: one that comes during a traceback leads into that.
static void start_idle_thread(void) {
  pthread_t thread;
  sigset_t all, mask;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &mask);
  pthread_create(&thread, NULL, idle, NULL);
  pthread_sigmask(SIG_SETMASK, &mask, NULL);
}

// ---- Ignored signals arrive all the time, and at every step ----

enum { stormy_children = 50 };

struct signal_state {
  sigset_t mask;
  struct sigaction actions[NSIG];
};

static void read_signal_state(struct signal_state* state) {
  sigprocmask(SIG_BLOCK, NULL, &state->mask);
  for (int number = 1; number < NSIG; ++number) sigaction(number, NULL, &state->actions[number]);
}

static void compare_signal_states(const struct signal_state* before,
                                  const struct signal_state* after) {
  for (int number = 1; number < NSIG; ++number) {
    if (sigismember(&before->mask, number) != sigismember(&after->mask, number))
      printf("signal %d: blocked or unblocked\n", number);
    if (before->actions[number].sa_handler != after->actions[number].sa_handler)
      printf("signal %d: another action\n", number);
  }
}

static int32_t go_on(const tbk_frame* frame, void* user, int32_t hidden) {
  (void)frame, (void)user, (void)hidden;
  return TBK_CONTINUE;
}

static void trace_in_storm(void) {
  const uint32_t status = tbk_trace_stack(NULL, NULL, go_on, 1);
  if (status != TBK_SUCCESS && status != TBK_FAULT) printf("status %u\n", status);
}

static void start_storm(void) {
  const pid_t target = getpid();
  int begun[2];
  char byte = 0;
  if (pipe(begun) != 0) abort();
  signal(SIGFPE, SIG_IGN);
  signal(SIGUSR1, SIG_IGN);
  if (fork() == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (write(begun[1], &byte, 1) != 1) abort();
    for (;;) {
      kill(target, SIGUSR1);
      kill(target, SIGFPE);
    }
  }
  if (read(begun[0], &byte, 1) != 1) abort();
}

// A first and later tracebacks, with and without blocks of the heap.
static void live_in_storm(void) {
  static struct signal_state before, after;
  read_signal_state(&before);
  for (int calls = 0; calls < 100; calls += 33) deeper(calls, trace_in_storm);
  read_signal_state(&after);
  compare_signal_states(&before, &after);
  for (size_t bytes = 1; bytes < 1 << 16; bytes *= 2) free(malloc(bytes));
}

static void play_in_child(int number, void (*start)(void), void (*live)(void)) {
  int status = 0;
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    start_idle_thread();
    start();
    live();
    exit(0);
  }
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) printf("child %d: ended by signal %d\n", number, WTERMSIG(status));
}

static void storm(void) {
  for (int i = 0; i < stormy_children; ++i) play_in_child(i, start_storm, live_in_storm);
  puts("all children are back");
}

// The library's calls, which this program has in place of the C library's: a signal arrives after
// one of them.
static int steps_to_signal;

static int step(int result) {
  if (--steps_to_signal == 0) raise(SIGUSR1);
  return result;
}
int __sigaction(int number, const struct sigaction* action, struct sigaction* old);
int sigaction(int number, const struct sigaction* action, struct sigaction* old) {
  return step(__sigaction(number, action, old));
}
int sigprocmask(int how, const sigset_t* mask, sigset_t* old) {
  return step(pthread_sigmask(how, mask, old));
}

static int signalled_step;
static void ignore_signal(void) { signal(SIGUSR1, SIG_IGN); }
static void live_with_signal(void) {
  steps_to_signal = signalled_step;
  trace_in_storm();
  steps_to_signal = 0;
  live_in_storm();
}

static void every_step(void) {
  for (signalled_step = 1; signalled_step < 150; ++signalled_step)
    play_in_child(signalled_step, ignore_signal, live_with_signal);
  puts("all children are back");
}

// ---- The heap finds itself broken, and aborts with its lock held ----

enum { large = 0x8000 };  // taken from the end of the heap
static void* volatile block;
// To a program that cannot be moved, these addresses are those of stubs.
static void* (*volatile address_of_malloc)(size_t);
static void (*volatile address_of_free)(void*);

static void break_end_of_heap(void) {
  block = malloc(large);
  size_t* const bytes_left = (size_t*)((char*)block + malloc_usable_size(block));
  *bytes_left = SIZE_MAX;
}

ROUTINE guilty_malloc(void) {
  break_end_of_heap();
  block = malloc(large);
}
ROUTINE guilty_calloc(void) {
  break_end_of_heap();
  block = calloc(1, large);
}
ROUTINE guilty_realloc(void) {
  break_end_of_heap();
  block = realloc(block, 2 * large);
}
ROUTINE guilty_free(void) {
  block = malloc(large);
  void* const behind = malloc(large);
  free(block);
  free(block);
  free(behind);
}
// Every allocator looks at what it keeps in front of a block, or on the page that the block is in.
ROUTINE guilty_wild_free(void) {
  block = (void*)0x123456789010;
  free(block);
}

static void die(void (*guilty)(void)) {
  address_of_malloc = malloc;
  address_of_free = free;
  catch_fatal_signals();
  deeper(30, guilty);
}
static void die_in_malloc(void) { die(guilty_malloc); }
static void die_in_calloc(void) { die(guilty_calloc); }
static void die_in_realloc(void) { die(guilty_realloc); }
static void die_in_free(void) { die(guilty_free); }
static void die_in_wild_free(void) { die(guilty_wild_free); }

static const struct {
  const char* name;
  void (*play)(void);
} scenes[] = {
    // clang-format off
    {"show", show_deeper},
    {"storm", storm},
    {"every_step", every_step},
    {"malloc", die_in_malloc},
    {"calloc", die_in_calloc},
    {"realloc", die_in_realloc},
    {"free", die_in_free},
    {"wild_free", die_in_wild_free},
    // clang-format on
};

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IONBF, 0);  // children have nothing of it in store
  if (argc > 2 && strcmp(argv[2], "threads") == 0) start_idle_thread();
  for (size_t i = 0; i < sizeof scenes / sizeof *scenes; ++i) {
    if (strcmp(argv[1], scenes[i].name) != 0) continue;
    scenes[i].play();
    return 0;
  }
  return 2;
}
