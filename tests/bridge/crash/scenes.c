// A program that dies in many ways, and a plug-in of it, for crash_test.sh:
//
//   scenes SCENE [FILE]     plays a scene of the table in front of main; some load a file
//   scenes watch SCENE...   the same in a process of its own, and tells on standard output how that
//                           ended: for comparison with a run without the crash library
//
// Lines that die, or call what does, are marked. Built with PLUGIN defined, the plug-in.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#define ROUTINE __attribute__((noinline)) void
#define STAY __asm__("" ::: "memory")  // something is left to do: the frame stays

static volatile int* volatile nowhere = (volatile int*)8;
ROUTINE store_null(void) {
  *nowhere = 1;  // dies
  STAY;
}

#ifdef PLUGIN

__attribute__((visibility("default"))) ROUTINE plugin_entry(void) {
  store_null();  // dies
  STAY;
}

#ifdef HANGS  // while it is loaded, with the loader's lock
static __attribute__((constructor)) void hang(void) {
  for (;;) pause();
}
#endif

#else

extern char** environ;

static const char* file;  // that a scene loads

static void fail(const char* what) {
  printf("%s: %s\n", what, strerror(errno));
  exit(3);
}

// ---- Faults ----

static volatile int zero;
ROUTINE divide(void) {
  zero = 1000 / zero;  // dies
  STAY;
}

ROUTINE execute_nothing(void) {
  __asm__ volatile("ud2");  // dies
  STAY;
}

ROUTINE read_past_file(void) {
  FILE* const empty = tmpfile();
  volatile char* const mapped = mmap(NULL, 4096, PROT_READ, MAP_PRIVATE, fileno(empty), 0);
  zero = *mapped;  // dies
  STAY;
}

static volatile int is_endless = 1;
ROUTINE recurse(void) {       // dies
  volatile char room[200];    // dies
  room[0] = 1;                // dies
  if (is_endless) recurse();  // dies
  room[1] = room[0];
}
ROUTINE overflow(void) {
  recurse();
  STAY;
}

// Fails with the stack pointer still in the stack.
ROUTINE push_forever(void) {
  __asm__ volatile("1: push %rax; jmp 1b");  // dies
}

// Its stack pointer is far below the end of the stack before anything is stored.
ROUTINE overflow_at_once(void) {
  volatile char room[1 << 28];
  for (int i = 0; i < is_endless; ++i) room[i] = room[i + 1] = 1;  // dies
  STAY;
}

// ---- Calls of what is no code ----

static void (*volatile target)(void);
ROUTINE call_target(void) {
  target();  // dies
  STAY;
}
static void call_null(void) { call_target(); }
static void call_wild(void) {
  target = (void (*)(void))0x123456;
  call_target();
}
ROUTINE return_wild(void) { __asm__ volatile("pushq $0; pushq $0x123456; ret"); }

// The walk faults with the stack.
ROUTINE lose_stack(void) {
  __asm__ volatile("movq $0x1000, %rsp; movq $0x1000, %rbp; ud2");  // dies
}

// ---- The heap ----

enum { large = 0x8000 };  // taken from the end of the heap
static void* volatile block;

ROUTINE allocate(void) {
  block = malloc(large);  // dies
  STAY;
}
ROUTINE deeper(int calls) {
  if (calls > 0) {
    deeper(calls - 1);
  } else {
    allocate();
  }
  STAY;
}

static void* idle(void* unused) {
  for (;;) pause();
  return unused;
}

// With a second thread the heap has a lock, and with this depth a walk has many frames.
static void break_heap(void) {
  pthread_t thread;
  pthread_create(&thread, NULL, idle, NULL);
  block = malloc(large);
  size_t* const bytes_left = (size_t*)((char*)block + malloc_usable_size(block));
  *bytes_left = SIZE_MAX;
  deeper(200);
}

// ---- Signals that are sent ----

ROUTINE be_killed(void) {
  const pid_t here = getpid();
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGBUS);
  sigprocmask(SIG_BLOCK, &set, NULL);
  if (fork() == 0) {
    kill(here, SIGBUS);
    _exit(0);
  }
  sigemptyset(&set);
  sigsuspend(&set);  // dies
}

static void raise_fault(void) {
  raise(SIGFPE);
  puts("still here");
}

static void lose_reader(void) {
  int ends[2];
  if (pipe(ends) != 0) fail("pipe");
  dup2(ends[1], STDERR_FILENO);
  close(ends[0]);
  raise(SIGSYS);
}

// ---- Threads ----

static void* run_in_thread(void* routine) {
  ((void (*)(void))routine)();
  return NULL;
}
static void start(pthread_t* thread, void* (*routine)(void*), void* argument) {
  if (pthread_create(thread, NULL, routine, argument) != 0) fail("pthread_create");
}

static void overflow_thread(void) {
  pthread_t thread;
  start(&thread, run_in_thread, (void*)overflow);
  pthread_join(thread, NULL);
}
static void die_cancelled(void) {
  pthread_cancel(pthread_self());
  store_null();
}

static pthread_barrier_t all_are_there;
static void* die_together(void* unused) {
  pthread_barrier_wait(&all_are_there);
  store_null();
  return unused;
}
static void concurrent(void) {
  enum { threads = 8 };
  pthread_t thread;
  pthread_barrier_init(&all_are_there, NULL, threads);
  for (int i = 0; i < threads; ++i) start(&thread, die_together, NULL);
  for (;;) pause();
}

static void* load_file(void* unused) {
  dlopen(file, RTLD_NOW);
  return unused;
}
static void die_with_loader_locked(void) {
  pthread_t thread;
  start(&thread, load_file, NULL);
  usleep(300000);  // or the lock is still free, and the report a little faster
  store_null();
}

static int count_mappings(void) {
  FILE* const maps = fopen("/proc/self/maps", "r");
  int lines = 0;
  for (int c = fgetc(maps); c != EOF; c = fgetc(maps)) lines += c == '\n';
  fclose(maps);
  return lines;
}
static void* end_thread(void* how) {
  pthread_barrier_wait(&all_are_there);
  if (how == &file) pthread_exit(NULL);
  if (how != NULL) {
    pthread_cancel(pthread_self());
    pthread_testcancel();
  }
  return NULL;
}
static void end_threads(void) {
  enum { threads = 40 };
  void* const ways[] = {NULL, (void*)&file, (void*)&block};
  pthread_t all[threads];
  pthread_barrier_init(&all_are_there, NULL, threads);
  for (int i = 0; i < threads; ++i) start(&all[i], end_thread, ways[i % 3]);
  for (int i = 0; i < threads; ++i) pthread_join(all[i], NULL);
}
static void count_stacks(void) {
  end_threads();
  const int before = count_mappings();
  end_threads();
  printf("%d more mappings\n", count_mappings() - before);
}

// ---- The program's own handlers and signal stack ----

static void end_in_handler(int number) {
  printf("own handler of signal %d\n", number);
  fflush(stdout);
  _exit(7);
}
static void divide_in_handler(int number) {
  (void)number;
  divide();
}
static void pass_on(int number) {
  signal(number, SIG_DFL);
  raise(number);  // once the handler has returned
}

static void say_action(int number) {
  struct sigaction now;
  sigaction(number, NULL, &now);
  const int is_member = sigismember(&now.sa_mask, SIGINT);
  printf("signal %d: default %d, flags %x, blocks %d\n", number, now.sa_handler == SIG_DFL,
         (unsigned)now.sa_flags, is_member);
  fflush(stdout);
}

static void own_handler(void) {
  say_action(SIGSEGV);
  signal(SIGSEGV, end_in_handler);
  say_action(SIGSEGV);
  store_null();
}
static void divide_in_own_handler(void) {
  signal(SIGSEGV, divide_in_handler);
  store_null();
}
static void pass_on_from_own_handler(void) {
  signal(SIGSEGV, pass_on);
  store_null();
}
static void restore_previous(void) {
  const struct sigaction own = {.sa_handler = end_in_handler};
  struct sigaction previous, again;
  sigaction(SIGSEGV, &own, &previous);
  sigaction(SIGSEGV, &previous, &again);
  printf("default %d, own %d\n", previous.sa_handler == SIG_DFL,
         again.sa_handler == end_in_handler);
  printf("default %d", signal(SIGFPE, end_in_handler) == SIG_DFL);
  printf(", own %d", signal(SIGFPE, SIG_DFL) == end_in_handler);
  printf(", default %d\n", signal(SIGFPE, SIG_DFL) == SIG_DFL);
  say_action(SIGSEGV);
  say_action(SIGFPE);
  say_action(SIGUSR1);
  store_null();
}

static void load_library_late(void) {
  signal(SIGSEGV, end_in_handler);
  if (dlopen(file, RTLD_NOW) == NULL) puts(dlerror());
  store_null();
}

// As small as a signal stack of 8 KB, beside a page without access.
static void own_small_stack(void) {
  const size_t page = 4096, bytes = 2 * page;
  char* const mapped =
      mmap(NULL, page + bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  mprotect(mapped, page, PROT_NONE);
  const stack_t own = {.ss_sp = mapped + page, .ss_size = bytes};
  if (sigaltstack(&own, NULL) != 0) fail("sigaltstack");
  stack_t now;
  sigaltstack(NULL, &now);
  printf("own stack %d\n", now.ss_sp == own.ss_sp && now.ss_size == own.ss_size);
  fflush(stdout);
  push_forever();
}

// ---- Other processes and objects ----

ROUTINE die_in_child(void) {
  int status = 0;
  const pid_t child = fork();
  if (child == 0) store_null();
  waitpid(child, &status, 0);
  printf("child: %x\n", (unsigned)status & ~0x80u);  // less the mark of a core file
}

static void die_in_plugin(void) {
  void* const plugin = dlopen(file, RTLD_NOW);
  if (plugin == NULL) puts(dlerror());
  *(void**)&target = dlsym(plugin, "plugin_entry");
  call_target();
}

struct scene {
  const char* name;
  void (*play)(void);
};

static const struct scene scenes[] = {
    {"null", store_null},
    {"divide", divide},
    {"illegal", execute_nothing},
    {"past_file", read_past_file},
    {"overflow", overflow},
    {"overflow_at_once", overflow_at_once},
    {"overflow_thread", overflow_thread},
    {"call_null", call_null},
    {"call_wild", call_wild},
    {"return_wild", return_wild},
    {"lose_stack", lose_stack},
    {"heap", break_heap},
    {"killed", be_killed},
    {"raise", raise_fault},
    {"no_reader", lose_reader},
    {"cancelled", die_cancelled},
    {"concurrent", concurrent},
    {"loader_locked", die_with_loader_locked},
    {"stacks", count_stacks},
    {"own_handler", own_handler},
    {"divide_in_handler", divide_in_own_handler},
    {"pass_on", pass_on_from_own_handler},
    {"previous", restore_previous},
    {"late", load_library_late},
    {"own_stack", own_small_stack},
    {"child", die_in_child},
    {"plugin", die_in_plugin},
};

static int watch(char** arguments) {
  pid_t child;
  siginfo_t end;
  if (posix_spawn(&child, "/proc/self/exe", NULL, NULL, arguments, environ) != 0) fail("spawn");
  waitid(P_PID, (id_t)child, &end, WEXITED);
  printf("%s %d\n",
         end.si_code == CLD_EXITED   ? "exit status"
         : end.si_code == CLD_DUMPED ? "core file, signal"
                                     : "signal",
         end.si_status);
  return 0;
}

int main(int argc, char** argv) {
  if (strcmp(argv[1], "watch") == 0) return watch(argv + 1);
  if (argc > 2) file = argv[2];
  const struct scene* scene = scenes;
  while (strcmp(argv[1], scene->name) != 0) ++scene;
  scene->play();
  fflush(stdout);
  return 0;
}
#endif
