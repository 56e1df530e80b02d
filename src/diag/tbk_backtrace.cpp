// The walk: records all frames first, then reports them, both under the protection of a signal
// action that jumps back here. Whatever ends it, the same few steps clean up.
#include "diag/tbk_backtrace.h"

#include <signal.h>
#include <ucontext.h>
#include <unwind.h>
#include <zorvac/mem.h>

#include <csetjmp>
#include <cstdlib>

#include "diag/errno_guard.h"
#include "diag/images.h"
#include "startup/vrt_msg_support.h"

#pragma weak _Unwind_Backtrace
#pragma weak _Unwind_ForcedUnwind
#pragma weak _Unwind_GetIP
#pragma weak _Unwind_GetRegionStart

namespace zorvac::diag {

std::uint32_t frame_count;
int walk_diagnostic;

namespace {

namespace message = startup::message;

// The signals of a process while it is being walked. Static, as a signal stack may be small.
class protection {
 public:
  static void begin() {
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    action.sa_sigaction = reinterpret_cast<void (*)(int, siginfo_t*, void*)>(tbk_signal_handler);
    for (int number = 0; number < signals; ++number) sigaction(number, &action, &actions_[number]);
    sigaction(SIGSEGV, nullptr, &action);
    own_restorer_ = action.sa_restorer;
    // A fault whose signal is blocked, as it is in that signal's handler, would end the process.
    sigset_t faults;
    sigemptyset(&faults);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP}) sigaddset(&faults, fault);
    sigprocmask(SIG_UNBLOCK, &faults, &mask_);
  }
  static void end() {
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
    for (int number = 0; number < signals; ++number) sigaction(number, &actions_[number], nullptr);
  }
  // The C library gives every action the same place to return to; a program that does without it
  // may give its own.
  static bool is_restorer(std::uint64_t pc) {
    bool is = pc == reinterpret_cast<std::uintptr_t>(own_restorer_);
    for (const struct sigaction& action : actions_)
      is = is || pc == reinterpret_cast<std::uintptr_t>(action.sa_restorer);
    return pc != 0 && is;
  }

 private:
  static constexpr int signals = 65;  // 0 and those that are no signals are refused each time
  static struct sigaction actions_[signals];
  static void (*own_restorer_)();
  static sigset_t mask_;
};
struct sigaction protection::actions_[signals];
void (*protection::own_restorer_)();
sigset_t protection::mask_;

constexpr std::uint32_t chunk_frames = 24;
struct chunk {
  tbk_frame frames[chunk_frames];
  chunk* next;
  chunk* previous;
};

// What the unwinder's callbacks and the report share. It lives in memory from one sigsetjmp to the
// other: its address is out.
struct walk {
  std::uint64_t start_pc = 0;  // recording begins with the frame of this address; 0: at once
  chunk* current = &first;
  tbk_frame* last = nullptr;  // the record before the next one
  std::uint32_t total = 0;
  std::uint32_t used = 0;  // of the current chunk
  std::uint32_t hidden = 0;
  std::uint32_t status = TBK_SUCCESS;
  volatile bool in_heap = false;
  chunk first = {};
};

bool add_chunk(walk& w) {
  w.in_heap = true;
  auto* added = static_cast<chunk*>(std::malloc(sizeof(chunk)));
  w.in_heap = false;
  if (added == nullptr) return false;
  _zorva_fast_memset(added, 0, sizeof *added);
  added->previous = w.current;
  w.current->next = added;
  w.current = added;
  w.used = 0;
  return true;
}

// False where there is no memory for it.
bool record(walk& w, std::uint64_t pc) {
  if (w.last != nullptr) w.last->return_address = pc;
  if (w.used == chunk_frames && !add_chunk(w)) return false;
  w.last = &w.current->frames[w.used++];
  w.last->pc = pc;
  ++w.total;
  return true;
}

// Each block is out of the list before it is freed: a fault here, which leads here again, does not
// free it twice. After a fault within malloc or free the blocks stay: the heap is broken, or its
// lock is taken for good.
void free_chunks(walk& w) {
  while (!w.in_heap && w.first.next != nullptr) {
    chunk* const freed = w.first.next;
    w.first.next = nullptr;
    w.first.next = freed->next;
    w.in_heap = true;
    std::free(freed);
    w.in_heap = false;
  }
}

_Unwind_Reason_Code record_frame(_Unwind_Context* frame, void* data) {
  walk& w = *static_cast<walk*>(data);
  const std::uint64_t pc = _Unwind_GetIP(frame);
  ++frame_count;
  return record(w, pc) ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// Skips frames up to the one whose routine was interrupted.
_Unwind_Reason_Code stop_at_frame(int, _Unwind_Action, _Unwind_Exception_Class, _Unwind_Exception*,
                                  _Unwind_Context* frame, void* data) {
  constexpr auto stop = static_cast<_Unwind_Reason_Code>(2);
  walk& w = *static_cast<walk*>(data);
  const std::uint64_t pc = _Unwind_GetIP(frame);
  ++frame_count;
  if (pc == 0) return stop;
  if (w.start_pc != 0) {
    if (w.start_pc < _Unwind_GetRegionStart(frame) || w.start_pc > pc) return _URC_NO_REASON;
    w.start_pc = 0;
  }
  return record(w, pc) ? _URC_NO_REASON : stop;
}

std::uint32_t report(walk& w, void* user, tbk_frame_callback callback) {
  const chunk* at = &w.first;
  for (std::uint32_t i = 0; i < w.total; ++i) {
    const std::uint32_t index = i % chunk_frames;
    if (i != 0 && index == 0) at = at->next;
    const std::int32_t answer = callback(&at->frames[index], user, i < w.hidden ? 1 : 0);
    if (answer == TBK_STOP) break;
    if (answer == TBK_STOP_FULL) return TBK_BUFFER_FULL;
  }
  return TBK_SUCCESS;
}

}  // namespace

std::uint64_t interrupted_pc(const void* signal_context) {
  if (signal_context == nullptr) return 0;
  const auto* context = static_cast<const ucontext_t*>(signal_context);
  return static_cast<std::uint64_t>(context->uc_mcontext.gregs[REG_RIP]);
}

bool is_signal_return(std::uint64_t pc) { return protection::is_restorer(pc); }

std::uint32_t tbk_trace_stack_impl(const void* signal_context, void* user,
                                   tbk_frame_callback callback, std::uint32_t skip,
                                   std::uint32_t frames_to_hide) {
  walk_diagnostic = message::no_error;
  if (_Unwind_ForcedUnwind == nullptr) {
    walk_diagnostic = message::no_unwinder;
    return TBK_SUCCESS;
  }
  const errno_guard unchanged;
  walk w;
  hold_images();
  protection::begin();
  if (sigsetjmp(tbk__jmp_env, -1) == 0) {
    w.start_pc = interrupted_pc(signal_context);
    w.hidden = w.start_pc != 0 ? 0 : skip == 0 ? 5 : frames_to_hide;
    // The unwinder's first frame is that of its caller, so both calls stand in this very routine.
    if (_Unwind_Backtrace != nullptr) {
      _Unwind_Backtrace(record_frame, &w);
    } else {
      _Unwind_Exception exception = {};
      _Unwind_ForcedUnwind(&exception, stop_at_frame, &w);
    }
    if (sigsetjmp(tbk__jmp_env, -1) == 0) {
      w.status = report(w, user, callback);
    } else {
      w.status = TBK_FAULT;
    }
  } else {
    w.status = TBK_FAULT;
  }
  // A fault from here on comes back here by the last jump point.
  free_chunks(w);
  release_images();
  protection::end();
  return w.status;
}

}  // namespace zorvac::diag
