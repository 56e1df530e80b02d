// Programs and a shared object whose parts of memory are not where one would expect them, for
// process_test.sh:
//
//   mapped SCENE [OBJECT...]   plays a scene of the table in front of main, then prints the stack
//                              as a table, from a routine that the objects (or, without one, the
//                              program) call three calls deep
//   KERNEL=old mapped ...      the same, as on a kernel that does not look addresses up
//
// Built with OBJECT defined, the shared object.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zorvac/diag.h>

#define ROUTINE __attribute__((noinline)) void

typedef void (*continuation)(void);

ROUTINE inner(continuation next) { next(); }
ROUTINE middle(continuation next) { inner(next); }
ROUTINE outer(continuation next) { middle(next); }

#ifndef OBJECT

enum { page = 4096 };

static void fail(const char* what) {
  printf("%s: %s\n", what, strerror(errno));
  exit(3);
}

// ---- What the library asks of the system: these are its open and its ioctl ----

static int maps_opened, wrong_flags, opened_amid_traceback;

int open(const char* path, int flags, ...) {
  const int expected = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  if (opened_amid_traceback && strstr(path, "/maps") != NULL) ++maps_opened;
  if (opened_amid_traceback && flags != expected) ++wrong_flags;
  return (int)syscall(SYS_openat, AT_FDCWD, path, flags, 0);
}

static int kernel_is_old;

int ioctl(int file, unsigned long request, ...) {
  if (kernel_is_old) {
    errno = ENOTTY;
    return -1;
  }
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return (int)syscall(SYS_ioctl, file, request, argument);
}

static void show(void) {
  static char text[1 << 18];
  opened_amid_traceback = 1;
  const size_t length = tbk_string_stack_signal(NULL, text, sizeof text, 1, 1);
  opened_amid_traceback = 0;
  (void)!write(STDOUT_FILENO, text, length);
}

// ---- Scenes: they are played when the objects are loaded ----

static const char* program_path;

// Of the object that is loaded last; a static program has none.
static const char* volatile object_path;
static char* volatile object_begin;
static char* volatile object_routine;

static void nothing(void) {}

// Maps so many bytes of the object's file in front of the object, as data or to be run.
static void map_file(off_t offset, size_t bytes, int access) {
  enum { distance = 16 * page };
  const int file = (int)syscall(SYS_openat, AT_FDCWD, object_path, O_RDONLY, 0);
  char* place = object_begin;
  char* mapped = NULL;
  do {
    place -= distance;
    mapped = mmap(place, bytes, access, MAP_PRIVATE | MAP_FIXED_NOREPLACE, file, offset);
  } while (mapped == MAP_FAILED && errno == EEXIST);
  if (mapped != place) fail("mmap");
  close(file);
}
static size_t file_bytes(void) {
  struct stat status;
  if (stat(object_path, &status) != 0) fail("stat");
  return (size_t)status.st_size;
}
static void map_page(void) { map_file(page, page, PROT_READ); }
static void map_first_page(void) { map_file(0, page, PROT_READ | PROT_EXEC); }
static void map_whole(void) { map_file(0, file_bytes(), PROT_READ); }

// As programs do that want their code on large pages.
static void copy_code(void) {
  char* const code = (char*)((uintptr_t)object_routine & -(uintptr_t)page);
  char* const copy = mmap(NULL, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memcpy(copy, code, page);
  mprotect(copy, page, PROT_READ | PROT_EXEC);
  if (mremap(copy, page, page, MREMAP_MAYMOVE | MREMAP_FIXED, code) != code) fail("mremap");
}

// The system then keeps the auxiliary vector from it.
static void change_user(void) {
  const uid_t nobody = 65534;
  if (getuid() == 0 && setresuid(nobody, nobody, nobody) != 0) fail("setresuid");
  prctl(PR_SET_DUMPABLE, 0);
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/auxv", getpid());
  if (syscall(SYS_openat, AT_FDCWD, path, O_RDONLY, 0) >= 0) puts("auxv can be read");
}

// Two are left, for the traceback to make do with.
static void use_up_descriptors(void) {
  const int lowest = dup(STDOUT_FILENO);
  const struct rlimit limit = {(rlim_t)lowest + 2, (rlim_t)lowest + 2};
  close(lowest);
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) fail("setrlimit");
}

static void map_thousands(void) {
  for (int i = 0; i < 4000; ++i) {  // neighbours differ, or they would be one mapping
    const int access = i % 2 == 0 ? PROT_READ : PROT_READ | PROT_WRITE;
    if (mmap(NULL, page, access, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED) fail("mmap");
  }
}

// Of addresses that are not the program's, and of one that is.
static void name_addresses(void) {
  static const char data = 0;
  const struct {
    const char* what;
    uint64_t address;
  } places[] = {
      {"data", (uint64_t)(uintptr_t)&data},
      {"vdso", getauxval(AT_SYSINFO_EHDR) + sizeof(Elf64_Ehdr)},
      {"stack", (uint64_t)(uintptr_t)&places},
      {"heap", (uint64_t)(uintptr_t)malloc(1)},
      {"null", 0},
  };
  for (size_t i = 0; i < sizeof places / sizeof *places; ++i) {
    char name[256];
    tbk_getModuleName(places[i].address, name, sizeof name);
    const int is_program = strcmp(name, strrchr(program_path, '/') + 1) == 0;
    printf("%s: %s\n", places[i].what, is_program ? "the program" : "not the program");
  }
  fflush(stdout);
}

static void count_maps(void) {
  printf("maps opened: %d, with other flags: %d\n", maps_opened, wrong_flags);
}

static const struct {
  const char* name;
  continuation before, after;  // the traceback
} scenes[] = {
    {"nothing", nothing, nothing},
    {"page", map_page, nothing},
    {"first_page", map_first_page, nothing},
    {"whole", map_whole, nothing},
    {"copied_code", copy_code, nothing},
    {"other_user", change_user, nothing},
    {"no_descriptors", use_up_descriptors, nothing},
    {"addresses", name_addresses, nothing},
    {"count", map_thousands, count_maps},
};

static int object_count;
static void (**routines)(continuation);

// Through one object after the other, the last one first.
static void next_object(void) {
  if (object_count-- == 0) {
    show();
  } else {
    routines[object_count](next_object);
  }
}

#ifdef STATIC
static void load_objects(char** paths) { (void)paths; }
#else
static void load_objects(char** paths) {
  for (int i = 0; i < object_count; ++i) {
    Dl_info object;
    void* const handle = dlopen(paths[i], RTLD_NOW);
    if (handle == NULL) puts(dlerror());
    *(void**)&routines[i] = dlsym(handle, "outer");
    if (dladdr(*(void**)&routines[i], &object) == 0) fail("dladdr");
    object_path = paths[i];
    object_begin = object.dli_fbase;
    object_routine = *(void**)&routines[i];
  }
}
#endif

int main(int argc, char** argv) {
  const char* const kernel = getenv("KERNEL");
  kernel_is_old = kernel != NULL && strcmp(kernel, "old") == 0;
  program_path = argv[0];
  object_count = argc - 2;
  routines = calloc((size_t)argc, sizeof *routines);
  if (object_count == 0) routines[object_count++] = outer;
  if (argc > 2) load_objects(argv + 2);
  for (size_t i = 0; i < sizeof scenes / sizeof *scenes; ++i) {
    if (strcmp(argv[1], scenes[i].name) != 0) continue;
    scenes[i].before();
    next_object();
    scenes[i].after();
    return fflush(stdout);
  }
  return 2;
}
#endif
