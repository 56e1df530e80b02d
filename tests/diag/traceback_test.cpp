// The traceback from within: which frames are reported, what is written of them, what happens to
// signals and memory. The frames come a second time from the C library's backtrace. Layouts, names and
// lines are in image_test.sh.
//
// The linker leads the library's calls of four routines through here, where a signal can be raised
// in the middle of a walk.
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstring>
#include <thread>

#include "diag/images.h"
#include "diag/tbk_backtrace.h"
#include "support/guard_pages.h"
#include "zorvac/diag.h"

namespace {
enum place { nowhere, in_walk, in_callback, in_look_up, in_malloc };

// What a traceback is asked for, and what happens amid it.
struct scenario {
  place at = nowhere;
  int after = 0;  // so many calls
  int number = SIGSEGV;
  int blocks = INT_MAX;  // that malloc gives
  const void* context = nullptr;
  std::uint32_t skip = 1, hides = 2, stop_after = UINT_MAX;
  std::int32_t answer = TBK_STOP;
};
scenario* planned = nullptr;  // during a traceback
std::vector<void*> given;     // by malloc
int live = 0;                 // of these

template <class Routine>
Routine* pass(place here, Routine* routine) {
  if (planned != nullptr && here == planned->at && planned->after-- == 0) raise(planned->number);
  return routine;
}
}  // namespace

extern "C" {
void* __real_malloc(std::size_t bytes);
void __real_free(void* block);
std::uintptr_t __real__Unwind_GetIP(void* context);
int __real_dladdr(const void* address, Dl_info* info);

void* __wrap_malloc(std::size_t bytes) {
  if (planned == nullptr) return __real_malloc(bytes);
  if (planned->blocks-- == 0) return nullptr;
  given.push_back(std::memset(pass(in_malloc, __real_malloc)(bytes), 0xaa, bytes));
  ++live;
  return given.back();
}
void __wrap_free(void* block) {
  live -= planned != nullptr;
  __real_free(block);
}
std::uintptr_t __wrap__Unwind_GetIP(void* context) {
  return pass(in_walk, __real__Unwind_GetIP)(context);
}
int __wrap_dladdr(const void* address, Dl_info* info) {
  return pass(in_look_up, __real_dladdr)(address, info);
}
}

namespace {

using zorvac::test::guarded_block;
using addresses = std::vector<std::uint64_t>;

// All that a traceback may not change.
struct process {
  int error = errno, file = dup(2);  // the lowest descriptor that is free
  // Every signal's action in the kernel's words (handler, flags, restorer, mask), and the mask. The
  // C library puts a restorer into each that it sets.
  std::array<std::array<unsigned long, 4>, 66> signals{};
  process() {
    close(file);
    for (std::size_t number = 1; number <= 64; ++number) {
      auto& [handler, flags, restorer, mask] = signals[number];
      syscall(SYS_rt_sigaction, number, nullptr, &handler, 8);
      flags &= ~0x04000000ul, restorer = 0;
    }
    syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, signals[65].data(), 8);
  }
  bool operator==(const process&) const = default;
};

// Actions that are not the default ones.
const bool distinct =
    std::signal(SIGUSR1, SIG_IGN) != SIG_ERR && std::signal(SIGRTMAX, [](int) {}) != SIG_ERR;

// The frames below its caller, as the C library sees them (and a sanitizer, which puts frames of its
// own in front).
[[gnu::noinline]] addresses callers() {
  static std::array<void*, 8192> pcs;
  const auto* const end = pcs.begin() + backtrace(pcs.data(), static_cast<int>(pcs.size()));
  addresses result;
  for (const auto* at = std::find(pcs.cbegin(), end, __builtin_return_address(0)); ++at < end;)
    result.push_back(reinterpret_cast<std::uint64_t>(*at));
  return result;
}

// Calls `body` from below that many frames of a new thread, whose stack is short.
[[gnu::noinline]] void descend(int depth, void (*body)()) {
  depth > 0 ? descend(depth - 1, body) : body();
  asm volatile("" ::: "memory");  // something is left to do: the frame stays
}
void below(int depth, void (*body)()) { std::thread(descend, depth, body).join(); }

// ---- Walking

struct report {
  const scenario& s;
  process during = {};
  addresses pcs = {}, returns = {};
};

std::int32_t record(const tbk_frame* frame, void* user, std::int32_t hidden) {
  report& r = *static_cast<report*>(user);
  pass(in_callback, record);
  if (r.pcs.empty()) r.during = process();
  EXPECT_EQ(hidden, r.pcs.size() < r.s.hides);
  EXPECT_EQ(tbk_getFramePtr(frame), 0u);
  r.pcs.push_back(tbk_getPC(frame));
  r.returns.push_back(tbk_getRetAddr(frame));
  return r.pcs.size() < r.s.stop_after ? TBK_CONTINUE : r.s.answer;
}

void walk(const scenario& s) {
  report r{s};
  scenario happening = s;
  const std::uint32_t counted = zorvac::diag::frame_count;
  addresses expected = callers();
  const process before;
  given.clear();
  live = 0, planned = &happening;
  const std::uint32_t status = tbk_trace_stack(s.context, &r, record, s.skip);
  planned = nullptr;
  EXPECT_STREQ(tbk_geterrorstring(), "No error");
  EXPECT_TRUE(before == process() && distinct);
  EXPECT_EQ(status, s.at != nowhere ? 1u : s.answer == TBK_STOP_FULL ? 7u : 0u);

  const std::uint32_t seen = std::max(1u, zorvac::diag::frame_count - counted);
  const int chunks = std::min(s.blocks, static_cast<int>(seen - 1) / 24 - (s.at == in_malloc));
  EXPECT_EQ(std::ssize(given), chunks);
  EXPECT_EQ(live, s.at == in_malloc ? chunks : 0);  // or else it would wait for the heap's lock
  if (s.at == in_malloc) std::for_each(given.begin(), given.end(), __real_free);
  const std::uint32_t all = s.blocks == INT_MAX ? seen : 24 * static_cast<unsigned>(1 + chunks);
  ASSERT_EQ(r.pcs.size(), s.at == nowhere       ? std::min(all, s.stop_after)
                          : s.at == in_callback ? static_cast<unsigned>(s.after)
                                                : 0);
  if (r.pcs.empty()) return;
  // Three frames, of the traceback and of this routine, are in front; the outermost one may have no
  // address.
  expected.insert(expected.begin(), r.pcs.begin(), r.pcs.begin() + std::min(3L, std::ssize(r.pcs)));
  EXPECT_TRUE(r.pcs.size() != seen || seen - expected.size() <= 1);
  expected.resize(r.pcs.size());
  EXPECT_EQ(r.pcs, expected);
  expected.push_back(r.pcs.size() == seen ? 0 : r.returns.back());
  EXPECT_TRUE(std::equal(r.returns.begin(), r.returns.end(), expected.begin() + 1));
  for (const int signal : {SIGHUP, SIGSEGV, SIGTERM, SIGRTMIN, SIGRTMAX}) {
    const auto& [handler, flags, restorer, mask] =
        r.during.signals.at(static_cast<unsigned>(signal));
    EXPECT_EQ(handler, reinterpret_cast<std::uintptr_t>(&tbk_signal_handler));
    EXPECT_TRUE(flags == 0x40000004 && mask == 0);
  }
}

TEST(Walk, ReportsEveryFrameInOrder) {
  for (int depth = 0; depth < 80; ++depth) below(depth, [] { walk({}); });
  for (const int depth : {200, 5000}) below(depth, [] { walk({}); });
}

TEST(Walk, EndsWhereItHasToAndLeavesNothingBehind) {
  below(80, [] {
    for (const int after : {0, 1, 23, 24, 25, 50})
      for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGABRT, SIGTERM, SIGRTMAX})
        for (const place at : {in_walk, in_callback})
          walk({.at = at, .after = after, .number = number});
    for (const int blocks : {0, 1, 2}) {
      walk({.at = in_malloc, .after = blocks});
      walk({.blocks = blocks});
    }
    for (const std::int32_t answer : {TBK_STOP, TBK_STOP_FULL})
      walk({.stop_after = 30, .answer = answer});
  });
}

// The handler's own signal is blocked in it. A second fault must end the walk all the same.
TEST(Walk, GoesThroughAHandlerOnAnAlternateStack) {
  below(30, [] {
    const guarded_block block(1 << 18);
    stack_t alternate{block.begin(), 0, block.size()}, old_stack{};
    sigaltstack(&alternate, &old_stack);
    struct sigaction action {
    }, old{};
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    action.sa_sigaction = [](int, siginfo_t*, void* context) {
      walk({.context = context, .hides = 0});
      walk({.at = in_walk, .after = 10, .context = context, .hides = 0});
    };
    sigaction(SIGSEGV, &action, &old);
    raise(SIGSEGV);
    sigaction(SIGSEGV, &old, nullptr);
    sigaltstack(&old_stack, nullptr);
  });
}

// ---- Text

const std::string overflow = "\nStack trace buffer overflow; further frames not shown.\n";
const std::string abnormal = "\nStack trace terminated abnormally.\n";
constexpr std::size_t null = SIZE_MAX;  // no buffer

struct written {
  std::string text;
  std::size_t result, frames;
};

// Three frames, of the traceback, are hidden; two, of the test, are in front of its callers'.
[[gnu::noinline]] written write(bool table, std::size_t bytes, const scenario& s = {}) {
  static const guarded_block block(1 << 14);
  char* const buffer = bytes == null ? nullptr : reinterpret_cast<char*>(block.end() - bytes);
  scenario happening = s;
  const process before;
  planned = &happening;
  const std::size_t result = tbk_string_stack_signal(s.context, buffer, bytes, table, s.skip);
  planned = nullptr;
  EXPECT_TRUE(before == process());
  const std::string text = bytes + 1 > 1 ? buffer : "";
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  return {text, result, table ? lines - 1 : lines / 8};
}

TEST(Text, IsCutToEverySizeOfBuffer) {
  below(2, [] {
    for (const bool table : {false, true}) {
      const std::size_t needed = write(table, null).result;
      std::string whole;
      for (std::size_t bytes = needed + 10; bytes + 1 > 0; --bytes) {
        const written w = write(table, bytes);
        if (whole.empty()) whole = w.text;
        const std::size_t usable = std::max(bytes, overflow.size() + 1) - overflow.size() - 1;
        const bool fits = whole.size() < usable;
        const std::string text = fits ? whole : whole.substr(0, usable) + overflow;
        ASSERT_EQ(w.result, std::min(text.size(), bytes));
        ASSERT_EQ(w.text, text.substr(0, std::max(bytes, 1ul) - 1));
      }
      EXPECT_EQ(needed, overflow.size() + whole.size() + 2);
      std::size_t at = 0;
      for (const std::uint64_t pc : callers()) {
        std::array<char, 17> digits{};
        std::snprintf(digits.data(), digits.size(), table ? "%016lX" : "%016lx", pc);
        ASSERT_NE(at = whole.find(digits.data(), at), std::string::npos);
      }
    }
  });
}

TEST(Text, AndWalkHideWhatTheContextAndTheSkipFlagSay) {
  below(10, [] {
    ucontext_t none{}, some{};
    some.uc_mcontext.gregs[REG_RIP] = 1;
    for (const ucontext_t* context : {static_cast<ucontext_t*>(nullptr), &none, &some})
      for (const std::uint32_t skip : {0u, 1u, 2u}) {
        const std::uint32_t hides = context == &some ? 0 : skip == 0 ? 5 : 2;
        walk({.context = context, .skip = skip, .hides = hides});
        for (const bool table : {false, true})
          EXPECT_EQ(write(table, 1 << 14, {.context = context, .skip = skip}).frames,
                    5 + callers().size() - (hides == 2 ? 3 : hides));
      }
  });
}

TEST(Text, BeforeAFaultIsKept) {
  below(10, [] {
    for (const bool table : {false, true}) {
      std::string whole;
      for (const int after : {100, 8, 4, 3, 2, 1, 0}) {
        auto [text, result, frames] = write(table, 1 << 14, {.at = in_look_up, .after = after});
        const bool ended = text.ends_with(abnormal);
        text.resize(text.size() - (ended ? abnormal.size() : 0));
        if (whole.empty()) whole = text;
        EXPECT_EQ(ended, after != 100);
        EXPECT_TRUE(whole.starts_with(text) && text.ends_with(table ? "\n" : "\n\n")) << text;
        EXPECT_TRUE(frames >= static_cast<unsigned>(after) / 2 || !ended) << text;
      }
    }
  });
}

// ---- Services

TEST(Services, NameAnImageAndGiveItsBias) {
  for (void* const place : {reinterpret_cast<void*>(&__wrap_malloc),
                            reinterpret_cast<void*>(&std::qsort), static_cast<void*>(nullptr)}) {
    Dl_info object{"Unknown", reinterpret_cast<void*>(77), nullptr, nullptr};
    dladdr(place, &object);
    const std::string path = object.dli_fname, name = path.substr(path.rfind('/') + 1);
    const auto pc = reinterpret_cast<std::uint64_t>(place);
    std::array<char, 20> buffer{};
    for (std::size_t bytes = 1; bytes < buffer.size(); ++bytes) {
      buffer[bytes] = '#';
      tbk_getModuleName(pc, buffer.data(), bytes);
      EXPECT_EQ(buffer.data(), name.substr(0, bytes - 1));
      EXPECT_EQ(buffer[bytes], '#');
    }
    for (const auto look_up : {tbk_get_pc_info, tbk_get_pc_info_pie}) {
      tbk_pc_info info{};
      std::uint64_t bias = 77;  // left alone where there is none
      look_up(place != nullptr ? name.c_str() : "no image", pc, &bias, &info);
      EXPECT_EQ(bias, reinterpret_cast<std::uint64_t>(object.dli_fbase));
      EXPECT_STREQ(info.routine, "Unknown");
    }
  }
}

// A stack may go through more images than are kept open at a time.
TEST(Services, FindImagesAgainThatMadeRoomForOthers) {
  using namespace zorvac::diag;
  const auto pc = reinterpret_cast<std::uint64_t>(&record);
  hold_images();
  const std::string own = file_name_of(executable_path());
  const std::uint64_t bias = find_image(own.c_str(), pc).bias;
  EXPECT_NE(bias, 0u);
  for (int n = 0; n < 20; ++n) {
    const std::string none = "no image " + std::to_string(n);
    EXPECT_EQ(find_image(none.c_str(), pc).name, none);
    EXPECT_EQ(find_image(none.c_str(), pc).bias, 0u);
    EXPECT_EQ(find_image(own.c_str(), pc).bias, bias);
  }
  release_images();
}

TEST(Services, HandlerJumpsWithMinusOne) {
  const int value = sigsetjmp(tbk__jmp_env, 1);
  if (value == 0) tbk_signal_handler(SIGSEGV, nullptr, nullptr);
  EXPECT_EQ(value, -1);
}

}  // namespace
