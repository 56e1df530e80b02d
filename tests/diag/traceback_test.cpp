// The traceback from within: which frames are reported, what is written of them, what happens to
// signals and memory. A second walk of the same stack says which frames there are. Layouts, names
// and lines are in image_test.sh. Last comes its reader, on images and `.trace` sections that are
// cut, damaged or made to mislead: they cost names and nothing else.
//
// The linker leads the library's calls of three routines to the end of this file, where they are
// noted, and where a signal can be raised in the middle of a walk.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <sstream>
#include <thread>

#include "diag/images.h"
#include "diag/tbk_backtrace.h"
#include "diag/trace_scan.h"
#include "support/guard_pages.h"

namespace {

using namespace zorvac::diag;
using namespace std::string_literals;
using addresses = std::vector<std::uint64_t>;
enum layout { frames, block, table };
constexpr std::size_t null = SIZE_MAX, never = 1 << 20;

// What a traceback is asked for, and what happens amid it.
struct scenario {
  layout kind = frames;
  std::size_t room = 1 << 14, beyond = 0;  // of the buffer: what there is, and what is promised
  std::size_t fault = never;               // after so many events
  std::size_t chunks = 1000;               // that malloc gives
  const void* context = nullptr;
  std::uint32_t skip = 1;
  int hides = 2;                       // frames
  std::int32_t answer = TBK_CONTINUE;  // to the 30th frame
};
const scenario* planned = nullptr;  // during a traceback

// An event is one letter: i a frame is looked at, m memory is taken, c a frame is reported, f
// memory is freed. There is room for all: nothing may be allocated on the way.
std::string events(1 << 15, ' ');
addresses told(1 << 13);  // by the unwinder
std::array<void*, 1000> blocks;
std::size_t given = 0;
const zorvac::test::guarded_block memory(1 << 14);  // for texts, which end at its end

// Half of the signals are such as instructions raise; the others come from outside.
bool is_fault(std::size_t event) { return event % 2 == 0; }

void note(char event) {
  if (planned == nullptr) return;
  events += event;
  if (events.size() == planned->fault + 1) raise(is_fault(planned->fault) ? SIGSEGV : SIGRTMAX);
}

// All that a traceback may not change: errno, the lowest descriptor that is free, the signal mask,
// and every signal's action in the kernel's words (handler, flags, restorer, mask).
std::array<long, 260> process() {
  std::array<long, 260> all{errno, dup(2)};
  close(static_cast<int>(all[1]));
  syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, &all[2], 8);
  for (std::size_t number = 1; number <= 64; ++number) {
    long* const action = &all[4 * number];
    syscall(SYS_rt_sigaction, number, nullptr, action, 8);
    action[1] &= ~0x04000000, action[2] = 0;  // the C library gives a restorer to each that it sets
  }
  return all;
}

// The frames above its caller's.
[[gnu::noinline]] addresses callers() {
  told.clear();
  const auto look = [](_Unwind_Context* at, void*) { return _Unwind_GetIP(at), _URC_NO_REASON; };
  _Unwind_Backtrace(look, nullptr);
  return {told.begin() + 2, told.end()};
}

// Calls `body` from below that many frames of a new thread, whose stack is short.
[[gnu::noinline]] void descend(int depth, void (*body)()) {
  depth > 0 ? descend(depth - 1, body) : body();
  asm volatile("" ::: "memory");  // something is left to do: the frame stays
}
void below(int depth, void (*body)()) { std::thread(descend, depth, body).join(); }

std::int32_t record(const tbk_frame* frame, void* user, std::int32_t hidden) {
  EXPECT_EQ(user, &told);
  const auto n = std::count(events.begin(), events.end(), 'c');
  const auto expected = told.begin() + n;
  note('c');
  EXPECT_EQ(hidden, n < planned->hides);
  EXPECT_EQ(tbk_getPC(frame), *expected);
  EXPECT_EQ(tbk_getRetAddr(frame), expected + 1 < told.end() ? expected[1] : 0);
  EXPECT_EQ(tbk_getFramePtr(frame), 0u);
  if (n != 0) return n + 1 == 30 ? planned->answer : TBK_CONTINUE;
  const auto now = process();
  EXPECT_EQ(now[4 * SIGTERM], reinterpret_cast<long>(&tbk_signal_handler));
  EXPECT_TRUE(now[4 * SIGTERM + 1] == 0x40000004 && now[4 * SIGTERM + 3] == 0);
  return TBK_CONTINUE;
}

std::size_t most_frames(const scenario& s) { return 24 * (s.chunks + 1); }

// 24 records are at hand, and each further 24 are taken from the heap. A signal from outside that
// arrives within malloc or free waits until that returns; after a fault within one of them neither
// is called any more.
std::string expected_events(const scenario& s, std::size_t all) {
  std::string expected = "i";
  const std::size_t kept = std::min(all, most_frames(s));
  for (std::size_t n = 1; n < std::min(all, kept + 1); ++n) expected += n % 24 == 0 ? "im" : "i";
  expected.append(s.answer == TBK_CONTINUE ? kept : 30, 'c');
  const std::string freed(given, 'f');
  std::string undisturbed = expected + freed;
  if (s.fault >= undisturbed.size()) return undisturbed;

  std::string until_signal = undisturbed.substr(0, s.fault + 1);
  const bool in_heap = until_signal.back() == 'm' || until_signal.back() == 'f';
  if (in_heap && is_fault(s.fault)) return until_signal;
  return until_signal.back() == 'f' ? undisturbed : until_signal + freed;
}

std::uint32_t expected_status(const scenario& s, std::size_t all) {
  if (s.fault < events.size()) return TBK_FAULT;
  if (s.answer != TBK_CONTINUE) return s.answer == TBK_STOP_FULL ? TBK_BUFFER_FULL : TBK_SUCCESS;
  return all > most_frames(s) ? TBK_FAULT : TBK_SUCCESS;  // the outermost ones are missing
}

// The status or length, and the text.
[[gnu::noinline]] std::pair<std::size_t, std::string> run(const scenario& s) {
  char* const text = s.room == null ? nullptr : reinterpret_cast<char*>(memory.end() - s.room);
  const std::size_t size = s.room + s.beyond;
  const addresses above = callers();
  std::signal(SIGUSR1, SIG_IGN);  // not the default action
  const auto before = process();
  events.clear(), told.clear(), given = 0, frame_count = 0, planned = &s;
  const std::size_t result =
      s.kind == frames ? tbk_trace_stack(s.context, &told, record, s.skip)
                       : tbk_string_stack_signal(s.context, text, size, s.kind == table, s.skip);
  planned = nullptr;
  EXPECT_EQ(before, process());
  EXPECT_STREQ(tbk_geterrorstring(), "No error");
  EXPECT_EQ(frame_count, told.size());
  std::for_each_n(blocks.begin(), given, std::free);

  // The frames of the traceback and of this routine are in front.
  const auto from = told.begin() + std::min(s.kind == frames ? 3l : 4l, std::ssize(told));
  EXPECT_TRUE(std::equal(from, told.end(), above.begin()));
  if (s.kind != frames) return {result, s.room + 1 > 1 ? text : ""};
  EXPECT_EQ(events, expected_events(s, 3 + above.size()));
  EXPECT_EQ(result, expected_status(s, 3 + above.size()));
  return {};
}

TEST(Walk, ReportsEveryFrameInOrderUntilItEndsAndLeavesNothingBehind) {
  for (int depth = 0; depth < 400; depth += 1 + depth / 32) below(depth, [] { run({}); });
  below(80, [] {
    for (const std::size_t chunks : {0u, 1u, 2u, 1000u})
      for (std::size_t fault = 0; fault <= events.size(); ++fault)
        run({.fault = fault, .chunks = chunks});
    for (const std::int32_t answer : {TBK_STOP, TBK_STOP_FULL}) run({.answer = answer});
  });
}

// From a handler on an alternate stack. Its own signal is blocked in it; a second fault must end
// the traceback all the same.
TEST(Walk, AndTextHideWhatTheContextAndTheSkipFlagSay) {
  below(10, [] {
    const zorvac::test::guarded_block stack(1 << 18);
    stack_t alternate{stack.begin(), 0, stack.size()}, old_stack{};
    sigaltstack(&alternate, &old_stack);
    struct sigaction action {};
    action.sa_flags = static_cast<int>(SA_SIGINFO | SA_ONSTACK | SA_RESETHAND);
    action.sa_sigaction = [](int, siginfo_t*, void* interrupted) {
      const ucontext_t none{};
      for (const void* context : std::initializer_list<const void*>{nullptr, &none, interrupted})
        for (const std::uint32_t skip : {0u, 1u, 2u})
          for (const layout kind : {frames, block, table}) {
            run({.kind = kind, .fault = 10, .context = context, .skip = skip});
            const int hides = context == interrupted ? 0 : skip == 0 ? 5 : kind == frames ? 2 : 3;
            const scenario s{.kind = kind, .context = context, .skip = skip, .hides = hides};
            std::istringstream words(run(s).second);
            addresses pcs, expected(told.begin() + hides, told.end());
            for (std::string word; words >> word;)
              if (word.find("0000") < 3) pcs.push_back(std::stoull(word, nullptr, 16));
            std::erase(expected, 0);  // the outermost one may have no address
            EXPECT_TRUE(kind == frames || pcs == expected) << words.str();
          }
    };
    sigaction(SIGSEGV, &action, nullptr);
    raise(SIGSEGV);
    sigaltstack(&old_stack, nullptr);
  });
}

// In a buffer of every size, and in one that ends before it should: at a page that faults.
TEST(Text, IsWholeOrSaysWhyNot) {
  below(0, [] {
    const std::string overflow = "\nStack trace buffer overflow; further frames not shown.\n";
    for (const layout kind : {block, table}) {
      std::string whole;
      for (const std::size_t beyond : {0u, 5000u})
        for (std::size_t room = 1 << 14; room-- > 0; room = std::min(room, whole.size() + 70)) {
          const std::size_t promised = room + beyond;
          const std::size_t most = promised - std::min(promised, overflow.size() + 1);
          std::string expected = whole.size() < most ? whole : whole.substr(0, most) + overflow;
          if (beyond > 0 && room <= whole.size()) {  // the frames that there is room for
            const std::size_t end = whole.rfind(kind == table ? "\n" : "\n---", room - 2) + 1;
            expected = whole.substr(0, end) + "\nStack trace terminated abnormally.\n";
            if (expected.size() >= room || room % 8 != 0) continue;
          }
          const auto [result, text] = run({.kind = kind, .room = room, .beyond = beyond});
          if (whole.empty()) expected = whole = text;
          ASSERT_EQ(result, std::min(expected.size(), room));
          ASSERT_EQ(text, expected.substr(0, std::max(room, 1ul) - 1));
        }
      EXPECT_EQ(run({.kind = kind, .room = null}).first, whole.size() + overflow.size() + 2);
    }
  });
}

// Alone, then as in a traceback: a stack may go through more images than are kept open at a time.
TEST(Services, NameAnImageAndGiveItsBias) {
  const void* const places[] = {&planned, stderr, nullptr};  // here, in the C library, and nowhere
  for (std::size_t n = 0; n < 60; ++n) {
    if (n == 3) hold_images();
    const auto pc = reinterpret_cast<std::uint64_t>(places[n % 3]);
    Dl_info object{"Unknown", reinterpret_cast<void*>(77), nullptr, nullptr};
    const bool known = dladdr(places[n % 3], &object) != 0;
    const std::string path = object.dli_fname, name = path.substr(path.rfind('/') + 1);
    char* const cut = reinterpret_cast<char*>(memory.end() - 1 - n % 20);
    tbk_getModuleName(pc, cut, 1 + n % 20);
    EXPECT_EQ(cut, name.substr(0, n % 20));
    tbk_pc_info info;
    std::uint64_t bias = 77;  // left alone where there is none
    const auto look_up = n % 2 == 0 ? tbk_get_pc_info : tbk_get_pc_info_pie;
    look_up((known ? name : "no image " + std::to_string(n)).c_str(), pc, &bias, &info);
    EXPECT_EQ(bias, reinterpret_cast<std::uint64_t>(object.dli_fbase));
  }
  release_images();
}

TEST(Services, HandlerJumpsWithMinusOne) {
  const int value = sigsetjmp(tbk__jmp_env, 1);
  if (value == 0) tbk_signal_handler(SIGSEGV, nullptr, nullptr);
  EXPECT_EQ(value, -1);
}

// In front of a section, the record of a file. In it, what a linker and other writers may put:
// padding, records that nobody knows, a routine without lines, a span of other addresses. Then the
// example of docs/trace-format.md, byte for byte.
const std::string names = "\0.trace\0"s, around = "\x0b\1\1\0\0\0!"s;
const std::string others =
    "\0\x4d\1\1\0\0\0?\x0c\x09\0\0\0\0"s
    "\x0a\2\0\x09\0\0\0\0\0\0\x10\0\0\0\1\0x"s
    "\x0d\1\x14\0\0\0\0\x20\0\0\0\0\0\0\7\0\0\0\0\0\0\0\0\0\0\0"s;
const std::string example =
    "\x0b\1\x0b\0\0\0/src/area.c"s
    "\x0d\1\x14\0\0\0\0\x10\0\0\0\0\0\0\7\0\0\0\0\0\0\0\x22\0\0\0"s
    "\x0a\2\0\x10\0\0\0\0\0\0\7\0\0\0\4\0area"s
    "\x0c\1\x08\0\0\0\1\x3f\0\2\6\5\6\1"s;

// The section is the 33rd, and the last but one.
constexpr std::size_t trace = 33 * 64, end_of_headers = 35 * 64;
const std::size_t section_bytes = others.size() + example.size();
const std::string image = [] {
  std::string file = std::string(end_of_headers, '\0') + names + around + others + example;
  auto& header = reinterpret_cast<Elf64_Ehdr&>(file[0]);
  std::memcpy(header.e_ident, ELFMAG "\2", 5);
  header.e_machine = EM_X86_64;
  header.e_shoff = header.e_shentsize = 64;
  header.e_shnum = 34, header.e_shstrndx = 33;
  auto* const sections = reinterpret_cast<Elf64_Shdr*>(&file[trace]);
  sections[0].sh_name = 1, sections[0].sh_size = section_bytes;
  sections[0].sh_offset = file.size() - section_bytes;
  sections[1].sh_offset = end_of_headers, sections[1].sh_size = names.size();
  return file;
}();
const std::size_t at = image.size() - example.size();

// What the library finds in a file: routine, source file and line.
std::string found(const std::string& file, std::uint64_t address = 0x1003) {
  static byte_source source;
  source.open_memory({reinterpret_cast<const unsigned char*>(file.data()), file.size()});
  tbk_pc_info info{"Unknown", "Unknown", 0};
  Elf64_Ehdr header;
  if (read_elf_header(source, header))
    scan_trace(source, find_trace_section(source, header), address, info);
  return std::string(info.routine) + ' ' + info.file + ' ' + std::to_string(info.line);
}

// What is still found with one byte, at a place, of another value.
const std::pair<std::string, std::vector<std::pair<std::size_t, std::size_t>>> damages[] = {
    // clang-format off
    {"Unknown Unknown 0",
     {{EI_MAG3, 'f'}, {EI_CLASS, ELFCLASS32}, {18, EM_386}, {58, 65}, {60, 32}, {62, 32},  // header
      {trace + 0, 9}, {trace + 4, SHT_NOBITS}, {trace + 9, SHF_COMPRESSED >> 8},
      {trace + 31, 0xff}, {trace + 64 + 32, 7}, {at + 0x18, 0x20}, {at + 0x2c, 3}}},
    {"ar Unknown 0", {{trace + 32, section_bytes - (0x4d - 0x3d)}}},
    {"area /src/area.c 2", {{trace + 32, section_bytes - (0x4d - 0x49)}}},
    {"area Unknown 0", {{at + 0x40, 2}, {at + 0x45, 99}}},
    // Not a file, and a distance to something else, and to the file in front of the section.
    {"area Unknown 7", {{at + 1, 2}, {at + 0x46, 62}, {at + 0x46, 63 + (others + around).size()}}},
    // clang-format on
};

TEST(Hostile, BytesAndCutsCostWhatTheyTellOf) {
  EXPECT_EQ(found(image, 0x90f), "x Unknown 0");
  for (const auto& [says, bytes] : damages)
    for (const auto& [place, value] : bytes) {
      std::string file = image;
      file[place] = static_cast<char>(value);
      EXPECT_EQ(found(file), says) << place;
    }
  for (std::size_t i = 0; i < image.size(); ++i) {
    found(image.substr(0, i));
    const bool is_around = i < image.size() - section_bytes && i >= end_of_headers + names.size();
    for (const char value : {'\x7f', '\x80', '\xff'}) {
      std::string file = image;
      file[i] = value;
      EXPECT_TRUE(found(file) == "area /src/area.c 7" || !is_around) << i;
    }
  }
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t bytes);
void __real_free(void* block);
std::uintptr_t __real__Unwind_GetIP(_Unwind_Context* frame);

void* __wrap_malloc(std::size_t bytes) {
  if (planned == nullptr) return __real_malloc(bytes);
  note('m');
  if (given == planned->chunks) return nullptr;
  return blocks.at(given++) = std::memset(__real_malloc(bytes), 0xaa, bytes);
}
void __wrap_free(void* block) {
  note('f');
  std::replace(blocks.begin(), blocks.end(), block, static_cast<void*>(nullptr));
  __real_free(block);
}
std::uintptr_t __wrap__Unwind_GetIP(_Unwind_Context* frame) {
  note('i');
  return told.emplace_back(__real__Unwind_GetIP(frame));
}
}
