// A program that dies in many ways, and a plug-in of it, for crash_test.sh:
//
//   scenes SCENE [FILE]     calls the routine of that name; some load a file
//
// Lines that die, or that call a routine that dies, are marked. With PLUGIN defined, this file is
// the plug-in.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <threads.h>
#include <unistd.h>

#define ROUTINE __attribute__((noinline)) void

static volatile int* volatile nowhere = (volatile int*)8;
ROUTINE store_null(void) {
  *nowhere = 1;  // dies
}

#ifdef PLUGIN

// In threads other than the first, loading never ends and keeps the loader's lock.
static __attribute__((constructor)) void hang(void) {
  while (gettid() != getpid()) pause();
}

__attribute__((visibility("default"))) ROUTINE plugin_entry(void) {
  store_null();  // dies
}

#else

static const char* file;  // the file that a scene loads

static void* run_in_thread(void* routine) {
  ((void (*)(void))routine)();  // dies
  return NULL;
}
static pthread_t start(void (*routine)(void)) {
  pthread_t thread;
  pthread_create(&thread, NULL, run_in_thread, (void*)routine);
  return thread;
}
static void idle(void) { pause(); }

// ---- Faults ----

static volatile int zero;
ROUTINE divide(void) {
  zero = 1000 / zero;  // dies
}

static void (*volatile target)(void);
ROUTINE call_target(void) {
  target();  // dies
}

// The walk faults at the stack pointer.
ROUTINE lose_stack(void) {
  __asm__ volatile("movq $0x1000, %rsp; movq $0x1000, %rbp; ud2");  // dies
}

// Like a call of an address without code, but there is no return address.
ROUTINE jump_without_stack(void) {
  __asm__ volatile("movl $8, %esp; jmp *%rsp");  // dies
}

ROUTINE read_past_file(void) {
  FILE* const empty = tmpfile();
  volatile char* const mapped = mmap(NULL, 4096, PROT_READ, MAP_PRIVATE, fileno(empty), 0);
  zero = *mapped;  // dies
}

ROUTINE be_killed(void) {
  const pid_t here = getpid();
  if (fork() == 0) _exit(kill(here, SIGBUS));  // dies
  for (;;) pause();                            // dies
}

// ---- Deep stacks ----

enum { large = 0x8000 };  // taken from the end of the heap
static void* volatile block;

ROUTINE allocate(void) {
  block = malloc(large);  // dies
}
ROUTINE recurse(int calls) {  // dies
  volatile char room[200];    // dies
  room[0] = 1;                // dies
  if (calls == 0) {
    allocate();  // dies
  } else {
    recurse(calls - 1);  // dies
  }
  room[1] = room[0];
}

// With a second thread the heap has a lock, and with this depth a walk has many frames.
ROUTINE break_heap(void) {
  start(idle);
  block = malloc(large);
  size_t* const bytes_left = (size_t*)((char*)block + malloc_usable_size(block));
  *bytes_left = SIZE_MAX;
  recurse(200);  // dies
}

ROUTINE overflow(void) {
  recurse(-1);  // dies
}
ROUTINE overflow_in_thread(void) { pthread_join(start(overflow), NULL); }

static int run_in_c_thread(void* routine) {
  ((void (*)(void))routine)();  // dies
  return 0;
}
ROUTINE overflow_in_c_thread(void) {
  thrd_t thread;
  thrd_create(&thread, run_in_c_thread, (void*)overflow);
  thrd_join(thread, NULL);
}

// The stack pointer is far below the end of the stack before anything is stored.
ROUTINE overflow_at_once(void) {
  volatile char room[1 << 28];
  for (int i = 0; i <= zero; ++i) room[i] = room[i + 1] = 1;  // dies
}

// The program's own signal stack has only 8 KB, above a page without access. The stack pointer is
// still in the stack when the stack is full.
ROUTINE own_small_stack(void) {
  enum { page = 4096 };
  static _Alignas(page) char room[3 * page];
  mprotect(room, page, PROT_NONE);
  const stack_t own = {.ss_sp = room + page, .ss_size = 2 * page};
  sigaltstack(&own, NULL);
  __asm__ volatile("1: push %rax; jmp 1b");  // dies
}

// ---- Threads ----

enum { threads = 20 };
static void* signal_stacks[threads];
static int begun;

// A thread that ends after the thread that it starts, so that all exist at the same time.
static void nest_threads(void) {
  stack_t own;
  sigaltstack(NULL, &own);
  signal_stacks[begun++] = own.ss_sp;
  if (begun < threads) pthread_join(start(nest_threads), NULL);
  pthread_exit(NULL);
}
static void* stack_of_next_thread(void) {
  begun = threads - 1;
  pthread_join(start(nest_threads), NULL);
  return signal_stacks[begun - 1];
}
ROUTINE leave_stacks(void) {
  pthread_join(start(nest_threads), NULL);
  const void* const first_left = signal_stacks[threads - 1];
  int waiting = 0;
  for (int i = 0; i < threads; ++i) waiting += msync(signal_stacks[i], 1, MS_ASYNC) == 0;
  printf("the page below is readable: %d\n", write(1, (const char*)first_left - 1, 1) == 1);
  printf("at most 16 signal stacks wait: %d\n", waiting <= 16);
  printf("the next thread has the first one: %d\n", stack_of_next_thread() == first_left);
}
ROUTINE say_stack(void) { printf("signal stack: %p\n", stack_of_next_thread()); }

ROUTINE die_cancelled(void) {
  pthread_cancel(pthread_self());
  store_null();  // dies
}

static pthread_barrier_t all_are_there;
ROUTINE die_together(void) {
  pthread_barrier_wait(&all_are_there);
  store_null();  // dies
}
ROUTINE die_concurrently(void) {
  pthread_barrier_init(&all_are_there, NULL, threads);
  for (int i = 0; i < threads; ++i) start(die_together);
  idle();
}

static void load_file(void) { dlopen(file, RTLD_NOW); }
static void die_meanwhile(void) {
  sleep(1);
  store_null();  // dies
}
// The C library's frames, whose names take the lock, are between the program's.
ROUTINE die_with_loader_locked(void) {
  start(load_file);
  start(die_meanwhile);
  usleep(300000);  // until the lock is taken
  atexit(store_null);
  exit(0);  // dies
}

// ---- Handlers of the program's own ----

static void divide_in_handler(int number) {
  (void)number;
  divide();  // dies
}
ROUTINE divide_in_own_handler(void) {
  signal(SIGSEGV, divide_in_handler);
  signal(SIGFPE, SIG_DFL);  // so it is reported
  store_null();             // dies
}

static void say_action(int number) {
  struct sigaction now;
  sigaction(number, NULL, &now);
  dprintf(1, "signal %d: default %d, flags %x, blocks %d\n", number, now.sa_handler == SIG_DFL,
          (unsigned)now.sa_flags, sigismember(&now.sa_mask, SIGINT));
}
ROUTINE restore_previous(void) {
  const struct sigaction own = {.sa_handler = divide_in_handler};
  struct sigaction previous;
  sigaction(SIGSEGV, &own, &previous);
  say_action(SIGSEGV);
  sigaction(SIGSEGV, &previous, NULL);
  say_action(SIGSEGV);
  dprintf(1, "default %d, ", signal(SIGFPE, divide_in_handler) == SIG_DFL);
  dprintf(1, "own %d\n", signal(SIGFPE, SIG_DFL) == divide_in_handler);
  say_action(SIGFPE);
  store_null();  // dies
}

// ---- Other processes and objects ----

ROUTINE die_in_child(void) {
  int status = 0;
  const pid_t child = fork();
  if (child == 0) store_null();  // dies
  waitpid(child, &status, 0);
  printf("child: %x\n", (unsigned)status & ~0x80u);  // without the bit for a core file
}

ROUTINE die_in_plugin(void) {
  void* const plugin = dlopen(file, RTLD_NOW);
  *(void**)&target = dlsym(plugin, "plugin_entry");
  call_target();  // dies
}

int main(int argc, char** argv) {
  if (argc > 2) file = argv[2];
  void (*scene)(void);
  *(void**)&scene = dlsym(NULL, argv[1]);
  scene();  // dies
  return 0;
}
#endif
