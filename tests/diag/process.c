// Programs and a shared object that print their own stack, for process_test.sh:
//
//   process SCENE [OBJECT...]   loads the objects, prepares a scene of the table before main, and
//                               plays it: three calls deep in the program, or in each of the
//                               objects, the last one first
//
// With OLD_KERNEL in the environment, the kernel seems unable to look up addresses.
//
// With OBJECT defined, this is the shared object. If it is preloaded, it is an unwinder, too, which
// has only _Unwind_ForcedUnwind and reports an artificial stack.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>
#include <zorvac/diag.h>

#define ROUTINE __attribute__((noinline)) void

typedef void (*action)(void);

// The test searches the stack for these, and this file for their lines.
ROUTINE inner(action next) { next(); }
ROUTINE middle(action next) { inner(next); }
ROUTINE outer(action next) { middle(next); }

#ifdef OBJECT

struct _Unwind_Context {
  _Unwind_Ptr ip;
};
_Unwind_Ptr _Unwind_GetIP(struct _Unwind_Context* frame) { return frame->ip; }
_Unwind_Ptr _Unwind_GetRegionStart(struct _Unwind_Context* frame) { return frame->ip & 0xf000; }

_Unwind_Reason_Code _Unwind_ForcedUnwind(struct _Unwind_Exception* exception, _Unwind_Stop_Fn stop,
                                         void* argument) {
  static struct _Unwind_Context stack[] = {{0x1010}, {0x2020}, {0x3030}, {0x4040}, {0}, {5}};
  _Unwind_Reason_Code answer = 0;
  for (size_t i = 0; answer == 0 && i < sizeof stack / sizeof *stack; ++i)
    answer = stop(1, 10, 0, exception, &stack[i], argument);
  printf("stop %d\n", answer);
  fflush(stdout);
  return answer;
}

#else

// ---- The calls of the system: the library uses this open, pread and ioctl ----

static int amid_traceback, maps_opened, wrong_flags, reads;

// The file with an image's name may be a pipe, which must not be waited for, or a terminal, which
// must not become the controlling terminal.
int open(const char* path, int flags, ...) {
  const int expected = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  if (amid_traceback && strstr(path, "/maps") != NULL) ++maps_opened;
  if (amid_traceback && flags != expected) ++wrong_flags;
  return (int)syscall(SYS_openat, AT_FDCWD, path, flags, 0);
}

ssize_t pread(int file, void* to, size_t bytes, off_t offset) {
  ++reads;
  return syscall(SYS_pread64, file, to, bytes, offset);
}

int ioctl(int file, unsigned long request, void* argument) {
  if (getenv("OLD_KERNEL") == NULL) return (int)syscall(SYS_ioctl, file, request, argument);
  errno = ENOTTY;
  return -1;
}

// ---- The actions of the scenes: the last routines that are called ----

static void print_stack(const void* context) {
  static char text[1 << 18];
  amid_traceback = 1;
  const size_t length = tbk_string_stack_signal(context, text, sizeof text, 1, 1);
  amid_traceback = 0;
  (void)!write(STDOUT_FILENO, text, length);
}

static void show(void) {
  print_stack(NULL);
  if (strcmp(tbk_geterrorstring(), "No error") != 0) puts(tbk_geterrorstring());
  const int few = 1500;  // enough for 200 frames of ten routines of a large image
  if (reads > few || wrong_flags != 0) printf("%d reads, %d wrong flags\n", reads, wrong_flags);
}
static void show_opened(void) {
  show();
  printf("maps opened: %d\n", maps_opened);
}

// As if a signal had interrupted code of the artificial stack.
static void show_interrupted(void) {
  static const greg_t places[] = {0x1000, 0x3030, 0, 0x3031};
  for (size_t i = 0; i < sizeof places / sizeof *places; ++i) {
    const ucontext_t context = {.uc_mcontext.gregs[REG_RIP] = places[i]};
    print_stack(&context);
  }
}

// Fails at its first instruction.
void crash(void);
__asm__(".globl crash; crash: .cfi_startproc; ud2; .cfi_endproc");

static void on_fatal(int number, siginfo_t* info, void* context) {
  (void)number, (void)info;
  print_stack(getenv("NO_CONTEXT") == NULL ? context : NULL);
  _exit(0);
}

// ---- The process dies in its heap ----

static void* volatile block;
// In a program that is linked to a fixed address, these are the addresses of stubs.
static void* (*volatile address_of_malloc)(size_t);
static void (*volatile address_of_free)(void*);

enum { large = 0x8000 };  // taken from the end of the heap

ROUTINE guilty_malloc(void) { block = malloc(large); }
ROUTINE guilty_calloc(void) { block = calloc(1, large); }
ROUTINE guilty_realloc(void) { block = realloc(block, large); }
ROUTINE guilty_free(void) { free(block); }

// malloc and calloc detect this, and abort with the heap's lock held.
static void break_end_of_heap(void) {
  address_of_malloc = malloc;
  block = malloc(large);
  size_t* const bytes_left = (size_t*)((char*)block + malloc_usable_size(block));
  *bytes_left = SIZE_MAX;
}
// Every allocator reads its own data before a block, or on the page of the block.
static void choose_wild_block(void) {
  address_of_free = free;
  block = (void*)0x123456789010;
}

// ---- How a process is prepared, after the objects are loaded ----

enum { page = 4096 };

static const char* program_path;

// Data about `outer` of the object that was loaded last; a static program has none.
Dl_info object;

static void nothing(void) {}

static void delete_image(void) {
  unlink(object.dli_fname == NULL ? program_path : object.dli_fname);
}

// Copies the code as programs do that want it on large pages.
static void copy_code(void) {
  char* const code = (char*)((uintptr_t)object.dli_saddr & -(uintptr_t)page);
  char* const copy = mmap(NULL, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memcpy(copy, code, page);
  mprotect(copy, page, PROT_READ | PROT_EXEC);
  if (mremap(copy, page, page, MREMAP_MAYMOVE | MREMAP_FIXED, code) != code) err(3, "mremap");
}

// Then the process may not read /proc/PID/auxv.
static void change_user(void) {
  const uid_t nobody = 65534;
  if (getuid() == 0 && setresuid(nobody, nobody, nobody) != 0) err(3, "setresuid");
  prctl(PR_SET_DUMPABLE, 0);
}

struct scene {
  const char* name;
  action prepare, play;
};

static const struct scene scenes[] = {
    {"show", nothing, show},
    {"interrupted", nothing, show_interrupted},
    {"crash", nothing, crash},
    {"malloc", break_end_of_heap, guilty_malloc},
    {"calloc", break_end_of_heap, guilty_calloc},
    {"realloc", choose_wild_block, guilty_realloc},
    {"free", choose_wild_block, guilty_free},
    {"deleted", delete_image, show},
    {"copied_code", copy_code, show_opened},
    {"other_user", change_user, show},
};

static const struct scene* scene;
static int object_count;
static void (**routines)(action);

// Calls `outer` of one object after the other, the last one first.
static void next_object(void) {
  if (object_count-- == 0) {
    scene->play();
  } else {
    routines[object_count](next_object);
  }
}

#ifdef STATIC
static void load_objects(char** paths) { (void)paths; }
#else
static void load_objects(char** paths) {
  for (int i = 0; i < object_count; ++i) {
    void* const handle = dlopen(paths[i], RTLD_NOW);
    *(void**)&routines[i] = dlsym(handle, "outer");
    if (dladdr(*(void**)&routines[i], &object) == 0) errx(3, "%s", dlerror());
  }
}
#endif

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IONBF, 0);  // because the traceback is written with write()
  program_path = argv[0];
  object_count = argc - 2;
  routines = calloc((size_t)argc, sizeof *routines);
  load_objects(argv + 2);
  if (object_count == 0) routines[object_count++] = outer;
  scene = scenes;
  while (strcmp(argv[1], scene->name) != 0) ++scene;
  scene->prepare();
  const struct sigaction fatal = {.sa_sigaction = on_fatal, .sa_flags = SA_SIGINFO};
  sigaction(SIGABRT, &fatal, NULL);
  sigaction(SIGILL, &fatal, NULL);
  sigaction(SIGSEGV, &fatal, NULL);
  next_object();
  return 0;
}
#endif
