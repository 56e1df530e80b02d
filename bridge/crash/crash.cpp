// Handles fatal signals: reports one, and then lets it end the process.
//
// For the program, the default action of these signals seems unchanged. A program that asks for the
// action gets the default one. If it sets the default action, the report stays on. If it sets a
// handler of its own, only that handler runs.
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <threads.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "diag/texts.h"
#include "report.h"

extern "C" {
// The C library's sigaction(), under a name that nobody replaces.
int __sigaction(int number, const struct sigaction* action, struct sigaction* previous) noexcept;
}

namespace zorvac::crash {
namespace {

bool enabled;  // set once, before the program begins

// ---- The handler ----

// The reporting thread, also after its report: the ids of process and thread. An id of another
// process does not count: the process may have forked during a report.
std::atomic<std::uint64_t> reporter;
constexpr std::uint64_t is_done = 1u << 31;  // thread ids are smaller
std::uint64_t process_of(std::uint64_t thread) { return thread >> 32; }
std::uint64_t this_thread() {
  return static_cast<std::uint64_t>(getpid()) << 32 |
         static_cast<std::uint64_t>(syscall(SYS_gettid));
}

void on_signal(int number, siginfo_t* info, void* context);

struct sigaction reporting_action() {
  struct sigaction action = {};
  action.sa_sigaction = on_signal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigfillset(&action.sa_mask);
  return action;
}
bool is_ours(const struct sigaction& action) { return action.sa_sigaction == on_signal; }
bool is_fatal(int number) {
  for (const int fatal : fatal_signals)
    if (number == fatal) return true;
  return false;
}

// Sends the same signal again. Its default action runs as soon as the handler has returned to the
// place of the fault, so registers, cause and status are those of a process without this library.
// No other signal may come first. The first process of a container does not end by a signal that is
// sent: it executes the faulting instruction again, which ends it.
void let_take_its_course(int number, const siginfo_t& info, ucontext_t& context) {
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  struct sigaction standard = {};
  standard.sa_handler = SIG_DFL;
  __sigaction(number, &standard, nullptr);
  const pid_t thread = static_cast<pid_t>(syscall(SYS_gettid));
  if (syscall(SYS_rt_tgsigqueueinfo, getpid(), thread, number, &info) != 0) raise(number);
  constexpr std::size_t kernel_bytes = 8;  // of the kernel's signal set; other data follow it
  sigdelset(&all, number);
  std::memcpy(&context.uc_sigmask, &all, kernel_bytes);
}

void on_signal(int number, siginfo_t* info, void* opaque_context) {
  const std::uint64_t self = this_thread();
  std::uint64_t owner = reporter.load();
  // A thread may be cancelled when it reads or writes a file.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  if (owner == self) leave_step();
  ucontext_t& context = *static_cast<ucontext_t*>(opaque_context);
  if (process_of(owner) != process_of(self) && reporter.compare_exchange_strong(owner, self)) {
    const struct sigaction action = reporting_action();
    for (const int fatal : fatal_signals) __sigaction(fatal, &action, nullptr);
    __sigaction(time_is_over, &action, nullptr);
    report(number, *info, context);
    reporter.store(self | is_done);
  } else if (owner != (self | is_done)) {
    // Waits for the report of another thread, and for the end of the process after it.
    while ((reporter.load() & is_done) == 0) poll(nullptr, 0, 10);
    poll(nullptr, 0, 1000);
  }
  let_take_its_course(number, *info, context);
}

// The default action as it was set. The program gets it in place of our action.
struct sigaction& default_action(int number) {
  static struct sigaction actions[_NSIG];
  return actions[number];
}

// Installs our action unless the signal has another handler or is ignored.
void report_if_default(int number) {
  struct sigaction now;
  if (__sigaction(number, nullptr, &now) != 0 || now.sa_handler != SIG_DFL) return;
  default_action(number) = now;
  const struct sigaction action = reporting_action();
  __sigaction(number, &action, nullptr);
}

// For signal() and the like: returns the previous handler as the program may know it.
sighandler_t after_change(int number, sighandler_t previous) {
  const bool was_ours =
      reinterpret_cast<std::uintptr_t>(previous) == reinterpret_cast<std::uintptr_t>(on_signal);
  if (enabled && is_fatal(number)) report_if_default(number);
  return was_ours ? SIG_DFL : previous;
}

// ---- The signal stack of each thread ----

// A handler cannot run on a full stack. Handlers of the program with SA_ONSTACK use this stack too,
// so it is larger than the report needs.
//
//   | guard | stack, which grows down | thread_start |
struct thread_start {
  void (*routine)();  // the thread's routine, of either type
  void* argument;
};
constexpr std::size_t guard_bytes = 4096, mapped_bytes = guard_bytes + (1 << 16);

pthread_key_t key_of_stack;  // its destructor runs at every end of a thread

char* begin_of_mapping(thread_start* start) {
  return reinterpret_cast<char*>(start + 1) - mapped_bytes;
}

// A few stacks of ended threads are kept for new threads, as the C library keeps the stacks that
// threads run on.
std::atomic<thread_start*> unused_stacks[16];

thread_start* map_signal_stack() {
  for (std::atomic<thread_start*>& unused : unused_stacks)
    if (thread_start* const start = unused.exchange(nullptr)) return start;
  void* const begin =
      mmap(nullptr, mapped_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (begin == MAP_FAILED) return nullptr;
  mprotect(begin, guard_bytes, PROT_NONE);
  return reinterpret_cast<thread_start*>(static_cast<char*>(begin) + mapped_bytes) - 1;
}

void use_signal_stack(thread_start* start) {
  char* const begin = begin_of_mapping(start) + guard_bytes;
  const stack_t stack{.ss_sp = begin,
                      .ss_flags = 0,
                      .ss_size = static_cast<std::size_t>(reinterpret_cast<char*>(start) - begin)};
  sigaltstack(&stack, nullptr);
}

void unmap_signal_stack(thread_start* start) {
  for (std::atomic<thread_start*>& unused : unused_stacks) {
    thread_start* nothing = nullptr;
    if (unused.compare_exchange_strong(nothing, start)) return;
  }
  munmap(begin_of_mapping(start), mapped_bytes);
}

// A thread that ends in a handler, on this stack, keeps it.
void end_thread(void* opaque_start) {
  auto* const start = static_cast<thread_start*>(opaque_start);
  stack_t now;
  sigaltstack(nullptr, &now);
  if ((now.ss_flags & SS_ONSTACK) != 0) return;
  if (now.ss_sp == begin_of_mapping(start) + guard_bytes) {
    now.ss_flags = SS_DISABLE;
    sigaltstack(&now, nullptr);
  }
  unmap_signal_stack(start);
}

// POSIX threads return a pointer, C threads a number.
template <class Result>
Result run_thread(void* opaque_start) {
  auto* const start = static_cast<thread_start*>(opaque_start);
  pthread_setspecific(key_of_stack, start);
  use_signal_stack(start);
  return reinterpret_cast<Result (*)(void*)>(start->routine)(start->argument);
}

// `create` calls the C library to create a thread that runs a routine with an argument. It returns
// 0 for success.
template <class Result, class Create>
int create_thread(Result (*routine)(void*), void* argument, Create create) {
  thread_start* const start = enabled ? map_signal_stack() : nullptr;
  if (start == nullptr) return create(routine, argument);
  *start = {reinterpret_cast<void (*)()>(routine), argument};
  const int status = create(run_thread<Result>, start);
  if (status != 0) unmap_signal_stack(start);
  return status;
}

// A routine of the C library that one of ours replaces. All are looked up when this library is
// loaded, or earlier if a constructor creates a thread: later, the look-up may wait for the
// loader's lock.
template <class Routine>
struct next_routine {
  const char* name;
  std::atomic<Routine*> found = nullptr;

  Routine* find() {
    if (found == nullptr) found = reinterpret_cast<Routine*>(dlsym(RTLD_NEXT, name));
    return found;
  }
};
constinit next_routine<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>
    next_pthread_create{"pthread_create"};
constinit next_routine<int(thrd_t*, thrd_start_t, void*)> next_thrd_create{"thrd_create"};

// ---- The start ----

void report_unknown(const char* value) {
  char name[256];
  diag::put_text(value, name, sizeof name);
  diag::hide_commands(name);
  write_text("ZORVAC_CRASH is neither \"on\" nor \"off\": \"");
  write_text(name);
  write_text("\". Crashes are reported.\n");
}

[[gnu::constructor]] void start() {
  next_pthread_create.find();
  next_thrd_create.find();
  const char* const value = std::getenv("ZORVAC_CRASH");
  if (value != nullptr) {
    if (std::strcmp(value, "off") == 0) return;
    if (*value != '\0' && std::strcmp(value, "on") != 0) report_unknown(value);
  }
  enabled = pthread_key_create(&key_of_stack, end_thread) == 0;
  stack_t stack;
  sigaltstack(nullptr, &stack);
  if ((stack.ss_flags & SS_DISABLE) != 0)
    if (thread_start* const mapped = map_signal_stack()) use_signal_stack(mapped);
  for (const int number : fatal_signals) report_if_default(number);
}

}  // namespace
}  // namespace zorvac::crash

// ---- The routines that programs call ----

using namespace zorvac::crash;

extern "C" {
#pragma GCC visibility push(default)

int sigaction(int number, const struct sigaction* action, struct sigaction* previous) noexcept {
  const int status = __sigaction(number, action, previous);
  if (status != 0) return status;
  if (previous != nullptr && is_ours(*previous)) *previous = default_action(number);
  if (enabled && action != nullptr && is_fatal(number)) report_if_default(number);
  return status;
}

sighandler_t signal(int number, sighandler_t handler) noexcept {
  return after_change(number, ssignal(number, handler));
}

sighandler_t __sysv_signal(int number, sighandler_t handler) noexcept {
  return after_change(number, sysv_signal(number, handler));
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept {
  return create_thread(routine, argument, [&](void* (*run)(void*), void* start) {
    return next_pthread_create.find()(thread, attributes, run, start);
  });
}

int thrd_create(thrd_t* thread, thrd_start_t routine, void* argument) {
  return create_thread(routine, argument, [&](thrd_start_t run, void* start) {
    return next_thrd_create.find()(thread, run, start);
  });
}

#pragma GCC visibility pop
}
