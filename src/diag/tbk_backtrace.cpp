// The walk records all frames first and then reports them. In both steps the action of every signal
// jumps back here. Whatever ends the walk, the same few steps clean up.
#include "diag/tbk_backtrace.h"

#include <signal.h>
#include <ucontext.h>
#include <unwind.h>
#include <zorvac/mem.h>

#include <csetjmp>
#include <cstdlib>

#include "diag/errno_guard.h"
#include "diag/heap_code.h"
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
//
// The handler jumps to the place that sigsetjmp stored last, so no signal may arrive before that:
//
//   begin()          open()             close()                       end()
//     | all are blocked |  the caller's mask |  all are blocked          |
//     | 65 actions      |  less the faults   |  the next jump is prepared|
//
// After a jump all signals are blocked, so nothing disturbs the cleaning up.
class protection {
 public:
  static void begin() {
    prepare_masks();
    sigprocmask(SIG_SETMASK, &all_, &caller_);
    open_ = caller_;
    for (const int fault : faults) sigdelset(&open_, fault);
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    action.sa_sigaction = reinterpret_cast<void (*)(int, siginfo_t*, void*)>(tbk_signal_handler);
    for (int number = 0; number < signals; ++number) sigaction(number, &action, &actions_[number]);
    sigaction(SIGSEGV, nullptr, &action);
    restorers_[0] = action.sa_restorer;
    restorers_used_ = 1;
    for (const struct sigaction& previous : actions_) add_restorer(previous.sa_restorer);
  }
  static void open() { sigprocmask(SIG_SETMASK, &open_, nullptr); }
  static void close() { sigprocmask(SIG_SETMASK, &all_, nullptr); }
  static void end() {
    close();
    for (int number = 0; number < signals; ++number) sigaction(number, &actions_[number], nullptr);
    sigprocmask(SIG_SETMASK, &caller_, nullptr);
  }

  // While one of these exists, only faults lead to a jump; other signals wait.
  class faults_only {
   public:
    faults_only() { sigprocmask(SIG_SETMASK, &all_but_faults_, &previous_); }
    ~faults_only() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }
    faults_only(const faults_only&) = delete;
    faults_only& operator=(const faults_only&) = delete;
  };

  // Whether a handler returns to this place. The C library gives every action the same place; a
  // program that sets an action without the C library may give another.
  static bool is_restorer(std::uint64_t pc) {
    for (int i = 0; i < restorers_used_; ++i)
      if (pc != 0 && pc == reinterpret_cast<std::uintptr_t>(restorers_[i])) return true;
    return false;
  }
  // The C library's place, which is in its own code.
  static std::uintptr_t restorer() { return reinterpret_cast<std::uintptr_t>(restorers_[0]); }

 private:
  static void prepare_masks() {
    sigfillset(&all_);
    all_but_faults_ = all_;
    for (const int fault : faults) sigdelset(&all_but_faults_, fault);
  }

  using restorer_fn = void (*)();
  static void add_restorer(restorer_fn added) {
    if (added == nullptr || is_restorer(reinterpret_cast<std::uintptr_t>(added))) return;
    restorers_[restorers_used_++] = added;
  }

  // A fault would end the process where its signal is blocked, as it is in that signal's handler.
  static constexpr int faults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS};
  static constexpr int signals = 65;  // sigaction() refuses 0 and all others that are no signals
  static struct sigaction actions_[signals];
  static restorer_fn restorers_[1 + signals];  // each once
  static int restorers_used_;
  static sigset_t all_, all_but_faults_, caller_, open_, previous_;
};
struct sigaction protection::actions_[signals];
protection::restorer_fn protection::restorers_[1 + signals];
int protection::restorers_used_;
sigset_t protection::all_, protection::all_but_faults_, protection::caller_, protection::open_,
    protection::previous_;

constexpr std::uint32_t chunk_frames = 24;
struct chunk {
  tbk_frame frames[chunk_frames];
  chunk* next;
  chunk* previous;
};

// What the unwinder's callbacks and the report share. It is in memory and not in registers, because
// other routines have its address. So its values survive the jump to a sigsetjmp.
struct walk {
  std::uint64_t start_pc = 0;  // recording begins at the frame of this address; 0: at the first one
  chunk* current = &first;
  tbk_frame* last = nullptr;  // the record before the next one
  std::uint32_t total = 0;
  std::uint32_t used = 0;  // of the current chunk
  std::uint32_t hidden = 0;
  enum { recording, reporting, done } step = recording;
  bool cut_short = false;  // there was no memory for all frames
  std::uint32_t status = TBK_SUCCESS;
  volatile bool heap_is_usable = true;
  chunk first = {};
};

// Protects a call of malloc or free. Signals from outside wait until it has ended, because a jump
// out of it would leave the heap locked for ever. After a fault in it the heap is not used any
// more.
class heap_call {
 public:
  explicit heap_call(walk& w) : walk_{w} { walk_.heap_is_usable = false; }
  ~heap_call() { walk_.heap_is_usable = true; }
  heap_call(const heap_call&) = delete;
  heap_call& operator=(const heap_call&) = delete;

 private:
  protection::faults_only faults_only_;
  walk& walk_;
};

// Whether one of the heap's routines is among the frames of this chunk: then the process is dying
// in its heap. Signals from outside wait during the search for malloc's object, which takes a lock
// of the loader.
bool is_in_heap(const chunk& recorded) {
  const protection::faults_only no_jump_with_lock;
  const heap_code heap(protection::restorer());
  for (const tbk_frame& frame : recorded.frames)
    if (heap.holds(frame.pc)) return true;
  return false;
}

bool add_chunk(walk& w) {
  if (is_in_heap(*w.current)) w.heap_is_usable = false;
  if (!w.heap_is_usable) return false;
  const heap_call call(w);
  auto* added = static_cast<chunk*>(std::malloc(sizeof(chunk)));
  if (added == nullptr) return false;
  _zorva_fast_memset(added, 0, sizeof *added);
  added->previous = w.current;
  w.current->next = added;
  w.current = added;
  w.used = 0;
  return true;
}

// Records a frame; false where there is no memory for it.
bool record(walk& w, std::uint64_t pc) {
  if (w.last != nullptr) w.last->return_address = pc;
  if (w.used == chunk_frames && !add_chunk(w)) {
    w.cut_short = true;
    return false;
  }
  w.last = &w.current->frames[w.used++];
  w.last->pc = pc;
  if (w.total++ >= w.hidden) foresee(pc);
  return true;
}

// Each block leaves the list before it is freed, because a fault in free() leads here again and
// must not free the block twice. Where the heap cannot be used, the blocks stay allocated.
void free_chunks(walk& w) {
  if (w.first.next == nullptr || !w.heap_is_usable) return;
  const heap_call call(w);
  while (w.first.next != nullptr) {
    chunk* const freed = w.first.next;
    w.first.next = freed->next;
    std::free(freed);
  }
}

_Unwind_Reason_Code record_frame(_Unwind_Context* frame, void* data) {
  walk& w = *static_cast<walk*>(data);
  const std::uint64_t pc = _Unwind_GetIP(frame);
  ++frame_count;
  return record(w, pc) ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// Records frames like record_frame(), but skips those before the routine that was interrupted.
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
    if (answer == TBK_STOP) return TBK_SUCCESS;
    if (answer == TBK_STOP_FULL) return TBK_BUFFER_FULL;
  }
  return w.cut_short ? TBK_FAULT : TBK_SUCCESS;
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
  while (w.step != walk::done) {
    if (sigsetjmp(tbk__jmp_env, -1) != 0) {
      w.status = TBK_FAULT;
      free_chunks(w);
      break;
    }
    protection::open();
    if (w.step == walk::recording) {
      w.start_pc = interrupted_pc(signal_context);
      w.hidden = w.start_pc != 0 ? 0 : skip == 0 ? 5 : frames_to_hide;
      // The unwinder's first frame is that of its caller, so both calls must be in this routine.
      if (_Unwind_Backtrace != nullptr) {
        _Unwind_Backtrace(record_frame, &w);
      } else {
        _Unwind_Exception exception = {};
        _Unwind_ForcedUnwind(&exception, stop_at_frame, &w);
      }
      w.step = walk::reporting;
    } else {
      w.status = report(w, user, callback);
      free_chunks(w);
      w.step = walk::done;
    }
    protection::close();
  }
  release_images();
  protection::end();
  return w.status;
}

}  // namespace zorvac::diag
