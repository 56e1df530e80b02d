// The report is a series of steps: what happened, the walk, the names, each frame. In a process
// that is about to die, any step may fault or wait for ever, for example for the loader's lock.
// Such a step is abandoned, and the next one begins.
//
// The traceback's readers look up names and lines: they use static memory and may be abandoned at
// any point. The traceback's walk is not used. It changes the actions of all signals of the
// process, but other threads run on during a report. It allocates memory for deep stacks; the
// report keeps only the two ends of the stack. The unwinder is linked into this library, so that C
// programs have one.
#include "report.h"

#include <dlfcn.h>
#include <link.h>
#include <poll.h>
#include <setjmp.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <unwind.h>
#include <zorvac/diag.h>

#include <cerrno>
#include <cstring>

#include "core/text_buffer.h"
#include "diag/images.h"
#include "diag/texts.h"

// The first and the last address of this library, defined by the linker.
extern "C" {
[[gnu::visibility("hidden")]] extern const char __ehdr_start[], _end[];
}

namespace zorvac::crash {
namespace {

using diag::decimal;

// ---- Lines ----

class line : public text_buffer<8192> {  // longer than all names of a frame together
 public:
  line& put(const char* text) {
    append(text);
    return *this;
  }
  line& put(std::uint64_t value) { return put(decimal(value).c_str()); }
  line& put_address(std::uint64_t address) {
    char text[2 + 16 + 1];
    char* begin = text + sizeof text - 1;
    *begin = '\0';
    do {
      *--begin = "0123456789abcdef"[address & 15];
      address >>= 4;
    } while (address != 0);
    *--begin = 'x';
    *--begin = '0';
    return put(begin);
  }
  void write() { write_text(put("\n").c_str()); }
};
line current;  // the line of the current step

line& new_line() {
  current.assign("");
  return current;
}

// ---- What happened ----

struct reason {
  int number, code;
  const char* words;
};
constexpr int any_code = 0;
constexpr reason reasons[] = {
    {SIGSEGV, SEGV_MAPERR, "memory not mapped"},
    {SIGSEGV, SEGV_ACCERR, "access not permitted"},
    {SIGSEGV, SEGV_PKUERR, "access not permitted by a protection key"},
    {SIGSEGV, SI_KERNEL, "no such address, or a misaligned vector operand"},
    {SIGBUS, BUS_ADRALN, "misaligned access"},
    {SIGBUS, BUS_ADRERR, "mapped memory is missing: past the end of its file?"},
    {SIGBUS, any_code, "memory failure"},
    {SIGILL, any_code, "illegal instruction"},
    {SIGFPE, FPE_INTDIV, "integer division by zero, or with a quotient too large"},
    {SIGFPE, FPE_INTOVF, "integer overflow"},
    {SIGFPE, FPE_FLTDIV, "floating-point division by zero"},
    {SIGFPE, FPE_FLTOVF, "floating-point overflow"},
    {SIGFPE, FPE_FLTUND, "floating-point underflow"},
    {SIGFPE, FPE_FLTRES, "inexact floating-point result"},
    {SIGFPE, FPE_FLTINV, "invalid floating-point operation"},
    {SIGTRAP, any_code, "breakpoint"},
    {SIGSYS, any_code, "system call not permitted"},
};

std::uint64_t address_in(const siginfo_t& info) {
  return reinterpret_cast<std::uintptr_t>(info.si_addr);
}
std::uint64_t value_of(const ucontext_t& context, int name) {
  return static_cast<std::uint64_t>(context.uc_mcontext.gregs[name]);
}

// The kernel reads the signal set before it rejects the operation.
bool is_readable(std::uint64_t address) {
  constexpr int nothing_to_do = -1;
  constexpr std::size_t bytes = 8;
  return syscall(SYS_rt_sigprocmask, nothing_to_do, address, nullptr, bytes) == 0 ||
         errno != EFAULT;
}

// Code accesses at most 128 bytes below its stack pointer: a return address that it pushes or, in a
// routine without calls, the red zone (System V ABI for AMD64, 3.2.2).
bool is_stack_overflow(const siginfo_t& info, const ucontext_t& context) {
  constexpr std::uint64_t most_below = 128;
  const std::uint64_t stack = value_of(context, REG_RSP);
  const bool is_just_below = stack - address_in(info) - 1 < most_below;
  return is_just_below || !is_readable(stack);
}

// Whether an instruction could not be fetched.
bool is_no_code(int number, const siginfo_t& info, const ucontext_t& context) {
  const bool is_access = info.si_code == SEGV_MAPERR || info.si_code == SEGV_ACCERR;
  return number == SIGSEGV && is_access && address_in(info) == value_of(context, REG_RIP);
}

const char* words_of_fault(int number, const siginfo_t& info, const ucontext_t& context) {
  if (is_no_code(number, info, context)) return "no code to execute";
  const bool has_address = number == SIGSEGV && info.si_code != SI_KERNEL;
  if (has_address && is_stack_overflow(info, context)) return "stack overflow";
  for (const reason& known : reasons)
    if (known.number == number && (known.code == info.si_code || known.code == any_code))
      return known.words;
  return "unknown reason";
}

void write_what_happened(int number, const siginfo_t& info, const ucontext_t& context) {
  line& text = new_line();
  text.put("Fatal signal ")
      .put(static_cast<unsigned>(number))
      .put(" (SIG")
      .put(sigabbrev_np(number));
  text.put(") in process ").put(static_cast<unsigned>(getpid()));
  text.put(", thread ").put(static_cast<std::uint64_t>(syscall(SYS_gettid))).put(": ");
  const int code = info.si_code;
  if (code > 0) {
    text.put(words_of_fault(number, info, context));
    if (number == SIGSYS) {
      text.put(", number ").put(static_cast<unsigned>(info.si_syscall));
    } else if (code != SI_KERNEL) {
      text.put(", address ").put_address(address_in(info));
    }
  } else if (code != SI_USER && code != SI_TKILL && code != SI_QUEUE) {
    text.put("sent by the system");
  } else if (info.si_pid == getpid()) {
    text.put("raised by the program itself");
  } else {
    text.put("sent by process ").put(static_cast<unsigned>(info.si_pid));
  }
  text.write();
}

// ---- The walk ----

void* pointer_to(std::uint64_t address) {
  return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

// The loaded object that contains an address, or null. This takes no lock.
const link_map* object_of(std::uint64_t address) {
  dl_find_object found;
  return _dl_find_object(pointer_to(address), &found) == 0 ? found.dlfo_link_map : nullptr;
}

struct frame {
  std::uint64_t pc;
  bool is_interrupted;     // a signal arrived at `pc`; otherwise a call returns there
  bool is_end_of_handler;  // a signal's handler returns there
};

// Both ends of the stack: the failure, and the start. An endless recursion is between them.
constexpr std::size_t innermost = 64, outermost = 32;
struct {
  std::size_t count;
  frame first[innermost], last[outermost];
  frame& at(std::size_t i) { return i < innermost ? first[i] : last[(i - innermost) % outermost]; }
  [[nodiscard]] bool has(std::size_t i) const { return i < innermost || i + outermost >= count; }
} frames;

bool is_own(std::uint64_t pc) {
  return pc >= reinterpret_cast<std::uintptr_t>(__ehdr_start) &&
         pc < reinterpret_cast<std::uintptr_t>(_end);
}

// Frame 0 is recorded before the walk. The walk reaches it after the frames of the report and of
// the signal's delivery.
_Unwind_Reason_Code record_frame(_Unwind_Context* context, void* data) {
  bool& is_past_first = *static_cast<bool*>(data);
  int is_interrupted = 0;
  const std::uint64_t pc = _Unwind_GetIPInfo(context, &is_interrupted);
  if (pc == 0) return _URC_END_OF_STACK;
  if (!is_past_first) {
    is_past_first = is_interrupted != 0;
  } else if (!is_own(pc)) {
    if (is_interrupted != 0) frames.at(frames.count - 1).is_end_of_handler = true;
    frames.at(frames.count) = {pc, is_interrupted != 0, false};
    ++frames.count;
  }
  return _URC_NO_REASON;
}

// A call of an address without code has only pushed its return address. This is undone: the byte
// before the return address is part of the call. The unwinder has no data for an address that is in
// no object, and could not find the caller.
void take_back_call(ucontext_t& context) {
  const std::uint64_t stack = value_of(context, REG_RSP);
  if (!is_readable(stack)) return;
  std::uint64_t returns_to = 0;
  std::memcpy(&returns_to, pointer_to(stack), sizeof returns_to);
  if (object_of(returns_to) == nullptr) return;
  context.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(returns_to - 1);
  context.uc_mcontext.gregs[REG_RSP] += sizeof returns_to;
}

void walk(int number, const siginfo_t& info, ucontext_t& context) {
  if (is_no_code(number, info, context)) take_back_call(context);
  frames.first[0] = {value_of(context, REG_RIP), true, false};
  frames.count = 1;
  bool is_past_first = false;
  _Unwind_Backtrace(record_frame, &is_past_first);
}

// ---- The frames ----

// The address to look up. A return address may belong to the next line.
std::uint64_t place_of(const frame& it) { return it.is_interrupted ? it.pc : it.pc - 1; }

// Passes all addresses in advance, so that the process map is read once.
void prepare_names() {
  diag::hold_images();
  for (std::size_t i = 0; i < frames.count; ++i)
    if (frames.has(i)) diag::foresee(place_of(frames.at(i)));
}

// The name of the dynamic symbol whose routine contains an address, if there is one.
void find_exported_name(std::uint64_t place, tbk_pc_info& info) {
  Dl_info symbol;
  if (dladdr(pointer_to(place), &symbol) != 0 && symbol.dli_sname != nullptr)
    diag::put_text(symbol.dli_sname, info.routine, sizeof info.routine);
}

bool is_unknown(const char* text) { return std::strcmp(text, diag::tbk__default_unknown) == 0; }

void write_frame(std::size_t number) {
  static char image[256];
  static tbk_pc_info info;

  const frame& it = frames.at(number);
  line& text = new_line();
  text.put("#").put(number).put(number < 10 ? "   " : "  ");
  if (it.is_end_of_handler) {
    text.put("a signal, whose handler is above").write();
    return;
  }
  const std::uint64_t place = place_of(it);
  tbk_getModuleName(place, image, sizeof image);
  tbk_get_pc_info(image, place, nullptr, &info);
  if (is_unknown(info.routine)) find_exported_name(place, info);
  for (char* const name : {image, info.routine, info.file}) diag::hide_commands(name);
  text.put(info.routine);
  if (!is_unknown(info.file)) text.put(" at ").put(info.file);
  if (info.line != 0) text.put(":").put(info.line);
  if (const link_map* const object = object_of(place)) {
    text.put(" (").put(image).put("+").put_address(place - object->l_addr).put(")").write();
  } else {
    text.put(" (").put_address(it.pc).put(")").write();
  }
}

void write_gap() {
  new_line().put("... ").put(frames.count - innermost - outermost).put(" frames ...").write();
}

// ---- The steps ----

sigjmp_buf next_step;
volatile std::size_t steps_begun;

// Ends each step that takes too long. The steps after such a step have less time.
int start_clock() {
  constexpr itimerspec limits{.it_interval = {0, 200'000'000}, .it_value = {5, 0}};
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = time_is_over;
  event._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
  int clock = -1;
  // The C library's routines of these names allocate.
  syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &clock);
  syscall(SYS_timer_settime, clock, 0, &limits, nullptr);
  return clock;
}

// False if there is no step of this number.
bool take_step(std::size_t step, int number, const siginfo_t& info, ucontext_t& context) {
  constexpr std::size_t first_frame = 3;
  if (step == 0) {
    write_what_happened(number, info, context);
  } else if (step == 1) {
    walk(number, info, context);
  } else if (step == 2) {
    prepare_names();
  } else {
    const std::size_t frame_number = step - first_frame;
    if (frame_number >= frames.count) return false;
    if (frames.has(frame_number)) {
      write_frame(frame_number);
    } else if (frame_number == innermost) {
      write_gap();
    }
  }
  return true;
}

}  // namespace

void write_text(const char* text) {
  for (std::size_t left = std::strlen(text); left > 0;) {
    const ssize_t written = write(STDERR_FILENO, text, left);
    if (written >= 0) {
      text += written;
      left -= static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      pollfd file{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
      poll(&file, 1, -1);
    } else if (errno != EINTR) {
      return;
    }
  }
}

void report(int number, const siginfo_t& info, ucontext_t& context) {
  const greg_t pc = context.uc_mcontext.gregs[REG_RIP];
  const greg_t stack = context.uc_mcontext.gregs[REG_RSP];
  sigset_t of_steps;
  sigemptyset(&of_steps);
  for (const int fatal : fatal_signals) sigaddset(&of_steps, fatal);
  sigaddset(&of_steps, time_is_over);
  frames.count = 0;
  steps_begun = 0;
  const int clock = start_clock();
  // leave_step() jumps here, with all signals blocked. The look-up may then be incomplete.
  volatile bool was_left = sigsetjmp(next_step, 0) != 0;
  sigprocmask(SIG_UNBLOCK, &of_steps, nullptr);
  for (bool more = true; more;) {
    const std::size_t step = steps_begun;
    steps_begun = step + 1;
    if (was_left) diag::hold_images();
    was_left = false;
    more = take_step(step, number, info, context);
  }
  sigprocmask(SIG_BLOCK, &of_steps, nullptr);
  syscall(SYS_timer_delete, clock);
  diag::release_images();
  context.uc_mcontext.gregs[REG_RIP] = pc;
  context.uc_mcontext.gregs[REG_RSP] = stack;
}

void leave_step() { siglongjmp(next_step, 1); }

}  // namespace zorvac::crash
