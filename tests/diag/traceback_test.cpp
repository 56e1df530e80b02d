// The traceback from within: which frames are reported, what is written of them, what happens to
// signals and memory. The frames come a second time from the C library's backtrace, the text from a
// model of the layouts.
//
// The linker leads the library's calls of four routines through counters here, which can raise a
// signal in the middle of a walk.
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "diag/tbk_backtrace.h"
#include "support/guard_pages.h"
#include "zorvac/diag.h"

namespace {
bool counting = false;
int allocated = 0, live = 0;
int blocks_left = -1;  // until the memory is used up; never when it is negative

enum place { nowhere, in_walk, in_callback, in_look_up };
place fault_place = nowhere;
int calls_before_fault = 0;
int fault_signal = SIGSEGV;

void pass(place here) {
  if (here == fault_place && calls_before_fault-- == 0) raise(fault_signal);
}
}  // namespace

extern "C" {
void* __real_malloc(std::size_t bytes);
void __real_free(void* block);
_Unwind_Ptr __real__Unwind_GetIP(_Unwind_Context* context);
int __real_dladdr(const void* address, Dl_info* info);

void* __wrap_malloc(std::size_t bytes) {
  if (counting && blocks_left-- == 0) return nullptr;
  allocated += counting;
  live += counting;
  return __real_malloc(bytes);
}
void __wrap_free(void* block) {
  live -= counting && block != nullptr;
  __real_free(block);
}
_Unwind_Ptr __wrap__Unwind_GetIP(_Unwind_Context* context) {
  pass(in_walk);
  return __real__Unwind_GetIP(context);
}
int __wrap_dladdr(const void* address, Dl_info* info) {
  pass(in_look_up);
  return __real_dladdr(address, info);
}
}

namespace {

using zorvac::test::guarded_block;

using addresses = std::vector<std::uint64_t>;

struct walk {
  std::vector<tbk_frame> frames;  // without the outermost one, where that has no address
  std::size_t calls = 0;
  std::size_t hidden = 0;  // all in front of the others, or the test fails
  std::size_t stop_after = SIZE_MAX;
  std::int32_t answer = TBK_STOP;
  std::function<void()> look = [] {};
  std::uint32_t status = 99;
};
std::int32_t record(const tbk_frame* frame, void* user, std::int32_t hidden) {
  walk& w = *static_cast<walk*>(user);
  pass(in_callback);
  w.look();
  if (hidden != 0 && w.hidden++ != w.calls) ADD_FAILURE();
  if (frame->pc != 0) w.frames.push_back(*frame);
  return ++w.calls < w.stop_after ? TBK_CONTINUE : w.answer;
}

// The frames below its caller, as the C library sees them (and a sanitizer, which puts frames of its
// own in front).
[[gnu::noinline]] addresses callers() {
  static std::array<void*, 8192> pcs;
  const int count = backtrace(pcs.data(), static_cast<int>(pcs.size()));
  auto* const end = pcs.begin() + count;
  addresses result;
  for (auto* at = std::find(pcs.begin(), end, __builtin_return_address(0)) + 1; at < end; ++at)
    result.push_back(reinterpret_cast<std::uint64_t>(*at));
  return result;
}

// Calls `body` from below that many frames.
[[gnu::noinline]] void descend(int depth, void (*body)()) {
  if (depth > 0)
    descend(depth - 1, body);
  else
    body();
  asm volatile("" ::: "memory");  // something is left to do: the frame stays
}
// On the short stack of a new thread.
void from_thread(void (*body)(), int depth = 0) { std::thread(descend, depth, body).join(); }

addresses tail(const addresses& all, std::size_t count) {
  return {all.end() - static_cast<std::ptrdiff_t>(std::min(count, all.size())), all.end()};
}

// ---- Walking

TEST(Walk, ReportsEveryFrameInOrder) {
  const auto check = [] {
    const addresses expected = callers();
    walk w;
    w.frames.reserve(8192);
    allocated = live = 0;
    const std::uint32_t counted = zorvac::diag::frame_count;
    counting = true;
    w.status = tbk_trace_stack(nullptr, &w, record, 1);
    counting = false;
    EXPECT_EQ(w.status, std::uint32_t{TBK_SUCCESS});
    EXPECT_EQ(w.hidden, 2u);
    EXPECT_EQ(zorvac::diag::frame_count - counted, w.calls);
    ASSERT_EQ(w.frames.size(), 3 + expected.size());
    addresses found;
    for (std::size_t i = 0; i < w.frames.size(); ++i) {
      const tbk_frame& f = w.frames[i];
      if (i >= 3) found.push_back(tbk_getPC(&f));
      EXPECT_EQ(tbk_getRetAddr(&f), i + 1 < w.frames.size() ? w.frames[i + 1].pc : 0);
      EXPECT_EQ(tbk_getFramePtr(&f), 0u);
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(static_cast<std::size_t>(allocated), (w.calls - 1) / 24);
    EXPECT_EQ(live, 0);
    EXPECT_STREQ(tbk_geterrorstring(), "No error");
  };
  for (int depth = 0; depth < 80; ++depth) from_thread(check, depth);
  for (const int depth : {200, 5000}) from_thread(check, depth);
}

TEST(Walk, ShowsWhatThereIsMemoryFor) {
  from_thread(
      [] {
        const addresses expected = callers();
        for (const int blocks : {0, 1, 2}) {
          walk w;
          w.frames.reserve(100);
          allocated = live = 0, blocks_left = blocks;
          counting = true;
          w.status = tbk_trace_stack(nullptr, &w, record, 1);
          counting = false;
          blocks_left = -1;
          EXPECT_EQ(w.status, std::uint32_t{TBK_SUCCESS});
          ASSERT_EQ(w.frames.size(), 24u * (static_cast<unsigned>(blocks) + 1));
          for (std::size_t i = 3; i < w.frames.size(); ++i)
            EXPECT_EQ(w.frames[i].pc, expected[i - 3]) << i;
          EXPECT_EQ(allocated, blocks);
          EXPECT_EQ(live, 0);
        }
      },
      80);
}

TEST(Walk, EndsWhenTheCallbackSaysSo) {
  for (const std::int32_t answer : {TBK_STOP, TBK_STOP_FULL}) {
    walk w;
    w.stop_after = 4;
    w.answer = answer;
    EXPECT_EQ(tbk_trace_stack(nullptr, &w, record, 1),
              std::uint32_t{answer == TBK_STOP ? TBK_SUCCESS : TBK_BUFFER_FULL});
    EXPECT_EQ(w.frames.size(), 4u);
  }
}

// ---- Text

constexpr char overflow[] = "\nStack trace buffer overflow; further frames not shown.\n";
constexpr char abnormal[] = "\nStack trace terminated abnormally.\n";

template <class... Values>
std::string format(const char* text, Values... values) {
  std::array<char, 1024> buffer{};
  std::snprintf(buffer.data(), buffer.size(), text, values...);
  return buffer.data();
}

std::string image_of(std::uint64_t pc) {
  Dl_info info{};
  if (__real_dladdr(reinterpret_cast<void*>(pc), &info) == 0) return "Unknown";
  return std::filesystem::path(info.dli_fname).filename();
}

// What is written in one piece: the header, then a frame each. None of the images has a .trace.
std::vector<std::string> pieces(const addresses& pcs, bool table) {
  std::vector<std::string> result;
  result.push_back(table ? format("%-19.19s%-18.18s%-19.19s%-12.12s%-19.19s\n", "Image", "PC",
                                  "Routine", "Line", "Source")
                         : "\n\nTraceback symbolic or hex stack dump follows:\n\n");
  for (const std::uint64_t pc : pcs)
    result.push_back(
        table ? format("%-17.17s  %16.16lX  %-17.17s  %10.10s  %s\n", image_of(pc).c_str(), pc,
                       "Unknown", "Unknown", "Unknown")
              : format("--------- Frame # %zu ---------------------------------------\n\n"
                       "Image:         %s\nPC:            0x%16.16lx\nRoutine name:  Unknown\n"
                       "Source file:   Unknown\nLine number:   Unknown\n\n",
                       result.size() - 1, image_of(pc).c_str(), pc));
  return result;
}
std::string join(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += part;
  return text;
}

// The addresses that a text in either layout shows.
addresses shown(const std::string& text, bool table) {
  addresses pcs;
  const std::string before = table ? "\n" : "PC:            0x";
  for (std::size_t at = 0; (at = text.find(before, at)) != std::string::npos;) {
    at += before.size();
    if (at + 40 < text.size())
      pcs.push_back(std::stoull(text.substr(at + (table ? 19 : 0), 16), nullptr, 16));
  }
  return pcs;
}

std::string whole_text(const void* context, bool table, std::uint32_t skip) {
  std::string text(1 << 20, '\0');
  text.resize(tbk_string_stack_signal(context, text.data(), text.size(), table, skip));
  return text;
}

TEST(Text, IsCutToEverySizeOfBuffer) {
  from_thread(
      [] {
        for (const bool table : {false, true}) {
          const guarded_block block(1 << 16);
          addresses pcs;
          std::string text;
          std::size_t needed = 0;
          const std::size_t reserve = std::strlen(overflow);
          // The first two rounds are for the size that is needed and the text as a whole.
          for (std::size_t round = 0; round < 2 || round <= needed + 10; ++round) {
            const std::size_t size = round == 0 ? 0 : round == 1 ? block.size() : round - 2;
            char* const buffer = round == 0 ? nullptr : reinterpret_cast<char*>(block.end() - size);
            std::memset(block.begin(), '#', block.size());
            const std::size_t result = tbk_string_stack_signal(nullptr, buffer, size, table, 1);
            if (round == 0) {
              needed = result;
              continue;
            }
            if (round == 1) {
              const addresses expected = callers();
              pcs = shown(buffer, table);
              ASSERT_EQ(pcs.size(), 1 + expected.size());
              EXPECT_EQ(tail(pcs, expected.size()), expected);
              text = join(pieces(pcs, table));
              EXPECT_EQ(needed, reserve + text.size() + 2);
            }
            const std::size_t usable = size > reserve ? size - reserve - 1 : 0;
            const bool fits = text.size() < usable;
            if (size > reserve) {
              const std::string kept = fits ? text : text.substr(0, usable);
              ASSERT_EQ(std::string(buffer), fits ? kept : kept + overflow) << size;
            } else if (size > 0) {
              ASSERT_EQ(std::string(buffer), std::string(overflow).substr(0, size - 1)) << size;
            }
            ASSERT_EQ(result, fits ? text.size() : std::min(usable + reserve, size)) << size;
          }
        }
      },
      2);
}

// ---- Hidden frames

TEST(Walk, HidesWhatTheContextAndTheSkipFlagSay) {
  from_thread(
      [] {
        ucontext_t none{}, some{};
        some.uc_mcontext.gregs[REG_RIP] = 1;
        for (const ucontext_t* context :
             {static_cast<const ucontext_t*>(nullptr), static_cast<const ucontext_t*>(&none),
              static_cast<const ucontext_t*>(&some)})
          for (const std::uint32_t skip : {0u, 1u, 2u}) {
            const addresses expected = callers();
            walk w;
            tbk_trace_stack(context, &w, record, skip);
            const bool by_context = context == &some;
            EXPECT_EQ(w.hidden, by_context ? 0u : skip == 0 ? 5u : 2u);
            EXPECT_EQ(w.frames.size(), 3 + expected.size());
            for (const bool table : {false, true}) {
              const addresses pcs = shown(whole_text(context, table, skip), table);
              const std::size_t hidden = by_context ? 0 : skip == 0 ? 5 : 3;
              // Three frames of the traceback and two of this test stand in front.
              ASSERT_EQ(pcs.size(), 5 + expected.size() - hidden) << skip << table;
              EXPECT_EQ(tail(pcs, expected.size()), tail(expected, pcs.size()));
            }
          }
      },
      10);
}

// ---- Signals

using action =
    std::array<unsigned long, 4>;  // as the kernel has it: handler, flags, restorer, mask

std::vector<action> actions() {
  std::vector<action> all(65);
  for (int number = 1; number <= 64; ++number)
    syscall(SYS_rt_sigaction, number, nullptr, all[static_cast<std::size_t>(number)].data(), 8);
  return all;
}

std::size_t open_files() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

// Everything that a walk borrows from the process.
struct borrowed {
  std::vector<action> signals = actions();
  std::size_t files = open_files();
  sigset_t mask = [] {
    sigset_t set;
    sigemptyset(&set);
    pthread_sigmask(SIG_SETMASK, nullptr, &set);
    return set;
  }();
  bool operator==(const borrowed& other) const {
    return signals == other.signals && files == other.files &&
           std::memcmp(&mask, &other.mask, 8) == 0;
  }
};

class Signals : public testing::Test {
 protected:
  Signals() {
    struct sigaction distinct {};
    distinct.sa_handler = [](int) {};
    for (int number = 1; number <= 64; ++number) {
      sigaddset(&distinct.sa_mask, number % 30 + 1);
      distinct.sa_flags ^= number % 2 != 0 ? SA_RESTART : SA_ONSTACK;
      if (number != SIGKILL && number != SIGSTOP && number != 32 && number != 33)
        sigaction(number, &distinct, &before_[static_cast<std::size_t>(number)]);
    }
    sigset_t some;
    sigemptyset(&some);
    for (const int number : {SIGUSR2, SIGWINCH}) sigaddset(&some, number);
    pthread_sigmask(SIG_BLOCK, &some, &mask_);
  }
  ~Signals() override {
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
    for (int number = 1; number <= 64; ++number)
      sigaction(number, &before_[static_cast<std::size_t>(number)], nullptr);
  }

 private:
  std::array<struct sigaction, 65> before_{};
  sigset_t mask_{};
};

TEST_F(Signals, AllLeadToTheHandlerDuringAWalkOnly) {
  const borrowed before;
  std::vector<action> during;
  walk w;
  w.look = [&] { during = actions(); };
  tbk_trace_stack(nullptr, &w, record, 1);
  EXPECT_EQ(before, borrowed());
  for (std::size_t number = 1; number <= 64; ++number) {
    const bool refused = number == SIGKILL || number == SIGSTOP || number == 32 || number == 33;
    const action& a = during.at(number);
    EXPECT_EQ(a[0] == reinterpret_cast<unsigned long>(&tbk_signal_handler), !refused) << number;
    if (refused) continue;
    EXPECT_EQ(a[1] & ~0x04000000ul, 0x40000004u) << number;  // without the C library's own flag
    EXPECT_EQ(a[3], 0u) << number;
  }
}

TEST_F(Signals, AFaultEndsTheWalkAndLeavesNothingBehind) {
  static place at;
  for (const place here : {in_walk, in_callback})
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGABRT, SIGTERM, SIGRTMAX})
      for (const int calls : {0, 1, 23, 24, 25, 50}) {
        static int after, with;
        at = here, after = calls, with = number;
        from_thread(
            [] {
              const borrowed before;
              walk w;
              w.frames.reserve(100);
              allocated = live = 0;
              fault_place = at, calls_before_fault = after, fault_signal = with;
              counting = true;
              w.status = tbk_trace_stack(nullptr, &w, record, 1);
              counting = false;
              fault_place = nowhere;
              EXPECT_EQ(w.status, std::uint32_t{TBK_FAULT});
              EXPECT_EQ(w.calls, at == in_walk ? 0u : static_cast<std::size_t>(after));
              EXPECT_EQ(allocated, at == in_walk ? std::max(after - 1, 0) / 24 : 3);
              EXPECT_EQ(live, 0);
              EXPECT_EQ(before, borrowed());
            },
            80);
      }
}

TEST_F(Signals, TextBeforeAFaultIsKept) {
  from_thread([] {
    for (const bool table : {false, true}) {
      std::vector<std::string> all;  // of the first round, which has no fault
      std::size_t kept = 0;
      for (int calls = -1; calls < 12; ++calls) {
        const borrowed before;
        fault_place = calls < 0 ? nowhere : in_look_up, calls_before_fault = calls;
        const std::string text = whole_text(nullptr, table, 1);
        fault_place = nowhere;
        EXPECT_EQ(before, borrowed());
        if (calls < 0) all = pieces(shown(text, table), table);
        if (calls < 0 || calls_before_fault >= 0) continue;
        const auto part = [&] {
          return join({all.begin(), all.begin() + static_cast<std::ptrdiff_t>(kept)});
        };
        while (kept < all.size() && part() + abnormal != text) ++kept;
        EXPECT_GE(kept, 1u);
        EXPECT_LT(kept, all.size()) << text;
      }
      EXPECT_GE(kept, 3u);
    }
  });
}

// ---- From a handler

struct {
  sigjmp_buf back;
  walk seen;
  std::uint64_t pc;
  addresses below;
  bool restored;
} in_handler;

// The handler's own signal is blocked in it. A second fault must end the walk all the same.
TEST(Handler, OnAnAlternateStackSeesTheInterruptedCode) {
  static bool faulting;
  for (const bool fault : {false, true}) {
    faulting = fault;
    in_handler.seen = {};
    from_thread(
        [] {
          const guarded_block block(1 << 16);
          stack_t alternate{}, old_stack{};
          alternate.ss_sp = block.begin();
          alternate.ss_size = block.size();
          sigaltstack(&alternate, &old_stack);
          struct sigaction jump {
          }, old{};
          jump.sa_flags = SA_SIGINFO | SA_ONSTACK;
          jump.sa_sigaction = [](int, siginfo_t*, void* context) {
            in_handler.pc = static_cast<std::uint64_t>(
                static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
            in_handler.below = callers();
            const borrowed before;
            fault_place = faulting ? in_walk : nowhere, calls_before_fault = 10;
            faulting = false;  // a signal left pending would come again
            in_handler.seen.status = tbk_trace_stack(context, &in_handler.seen, record, 1);
            fault_place = nowhere;
            in_handler.restored = before == borrowed();
            siglongjmp(in_handler.back, 1);
          };
          sigaction(SIGSEGV, &jump, &old);
          if (sigsetjmp(in_handler.back, 1) == 0) *reinterpret_cast<volatile int*>(block.end()) = 1;
          sigaction(SIGSEGV, &old, nullptr);
          sigaltstack(&old_stack, nullptr);
        },
        30);
    EXPECT_TRUE(in_handler.restored);
    EXPECT_EQ(in_handler.seen.status, std::uint32_t{fault ? TBK_FAULT : TBK_SUCCESS});
    if (fault) continue;
    EXPECT_EQ(in_handler.seen.hidden, 0u);
    addresses found;
    for (const tbk_frame& f : in_handler.seen.frames) found.push_back(f.pc);
    EXPECT_EQ(std::count(found.begin(), found.end(), in_handler.pc), 1);
    ASSERT_EQ(found.size(), 3 + in_handler.below.size());
    EXPECT_EQ(tail(found, in_handler.below.size()), in_handler.below);
  }
}

// ---- Services

TEST(ModuleName, IsCutToTheBuffer) {
  const auto here = reinterpret_cast<std::uint64_t>(&__wrap_malloc);
  for (const auto& [pc, name] : {std::pair<std::uint64_t, std::string>{here, image_of(here)},
                                 {16, "Unknown"},
                                 {UINT64_MAX, "Unknown"}})
    for (std::size_t size = 0; size < 20; ++size) {
      const guarded_block block(1);
      char* const buffer = reinterpret_cast<char*>(block.end() - size);
      tbk_getModuleName(pc, buffer, size);
      if (size > 0 && buffer != name.substr(0, size - 1)) ADD_FAILURE() << buffer;
    }
}

TEST(PcInfo, GivesTheLoadBiasOfItsImage) {
  const void* const places[] = {reinterpret_cast<const void*>(&__wrap_malloc),
                                reinterpret_cast<const void*>(&std::qsort)};
  for (const void* place : places)
    for (const auto look_up : {tbk_get_pc_info, tbk_get_pc_info_pie}) {
      Dl_info object{};
      void* map = nullptr;
      ASSERT_NE(dladdr1(place, &object, &map, RTLD_DL_LINKMAP), 0);
      const auto pc = reinterpret_cast<std::uint64_t>(place);
      tbk_pc_info info{};
      std::uint64_t bias = 0;
      look_up(image_of(pc).c_str(), pc, &bias, &info);
      EXPECT_EQ(bias, static_cast<const link_map*>(map)->l_addr);
      EXPECT_STREQ(info.routine, "Unknown");
      EXPECT_STREQ(info.file, "Unknown");
      EXPECT_EQ(info.line, 0u);
    }
}

}  // namespace
