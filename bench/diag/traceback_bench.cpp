// A traceback of 20 and of 200 frames: walking, and walking with text. The C library's backtrace
// walks, its backtrace_symbols adds exported names, and libdw adds what ours does, routine, file
// and line: from debug information that it has to read first, or has read before ("libdw-warm").
//
// The program is given a .trace section when it is linked, so our frames are found, too. What
// protecting the walk costs (65 signal actions installed and put back) stands beside it.
#include <benchmark/benchmark.h>
#include <elfutils/libdwfl.h>
#include <execinfo.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "zorvac/diag.h"

namespace {

using body = void (*)(benchmark::State&);

// Runs the body's loop so many frames below.
[[gnu::noinline]] void descend(long depth, body run, benchmark::State& state) {
  if (depth > 0)
    descend(depth - 1, run, state);
  else
    run(state);
  asm volatile("" ::: "memory");
}

std::array<void*, 1024> pcs;
int walk_by_backtrace() { return backtrace(pcs.data(), static_cast<int>(pcs.size())); }

void walk(benchmark::State& state) {
  int frames = 0;
  const auto count = [](const tbk_frame*, void* user, std::int32_t hidden) -> std::int32_t {
    *static_cast<int*>(user) += hidden == 0;
    return TBK_CONTINUE;
  };
  for (auto _ : state) benchmark::DoNotOptimize(tbk_trace_stack(nullptr, &frames, count, 1));
}
void walk_peer(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(walk_by_backtrace());
}

std::array<char, 1 << 17> text;
void write_text(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(tbk_string_stack_signal(nullptr, text.data(), text.size(), 1, 1));
}
void write_text_peer(benchmark::State& state) {
  for (auto _ : state) {
    char** symbols = backtrace_symbols(pcs.data(), walk_by_backtrace());
    benchmark::DoNotOptimize(symbols);
    std::free(symbols);
  }
}

Dwfl* open_dwarf() {
  static char* debug_path = nullptr;
  static const Dwfl_Callbacks callbacks{dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo,
                                        nullptr, &debug_path};
  Dwfl* const dwarf = dwfl_begin(&callbacks);
  dwfl_linux_proc_report(dwarf, getpid());
  dwfl_report_end(dwarf, nullptr, nullptr);
  return dwarf;
}
void write_from_dwarf(Dwfl* dwarf) {
  const int count = walk_by_backtrace();
  std::size_t used = 0;
  for (int i = 0; i < count; ++i) {
    const auto pc = reinterpret_cast<Dwarf_Addr>(pcs[static_cast<std::size_t>(i)]);
    Dwfl_Module* const module = dwfl_addrmodule(dwarf, pc);
    const char* const name = dwfl_module_addrname(module, pc);
    Dwfl_Line* const line = dwfl_module_getsrc(module, pc);
    int number = 0;
    const char* const file =
        line != nullptr ? dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr) : "";
    used += static_cast<std::size_t>(std::snprintf(text.data() + used, text.size() - used,
                                                   "%16.16lX %s %d %s\n", pc,
                                                   name != nullptr ? name : "", number, file));
  }
}
void write_text_libdw(benchmark::State& state) {
  for (auto _ : state) {
    Dwfl* const dwarf = open_dwarf();
    write_from_dwarf(dwarf);
    dwfl_end(dwarf);
  }
}
void write_text_libdw_warm(benchmark::State& state) {
  Dwfl* const dwarf = open_dwarf();
  write_from_dwarf(dwarf);
  for (auto _ : state) write_from_dwarf(dwarf);
  dwfl_end(dwarf);
}

void protect(benchmark::State& state) {
  struct sigaction action {};
  std::array<struct sigaction, 65> old{};
  action.sa_handler = SIG_DFL;
  for (auto _ : state) {
    for (int i = 0; i < 65; ++i) sigaction(i, &action, &old[static_cast<std::size_t>(i)]);
    for (int i = 0; i < 65; ++i) sigaction(i, &old[static_cast<std::size_t>(i)], nullptr);
  }
}

// The stack above descend has about ten frames of its own.
const int registered = [] {
  const struct {
    const char* family;
    const char* contender;
    body run;
  } rows[] = {
      {"walk", "zorvac", walk},
      {"walk", "backtrace", walk_peer},
      {"walk", "signals-alone", protect},
      {"text", "zorvac", write_text},
      {"text", "backtrace_symbols", write_text_peer},
      {"text", "libdw", write_text_libdw},
      {"text", "libdw-warm", write_text_libdw_warm},
  };
  for (const auto& row : rows) {
    for (const long depth : {20, 200}) {
      benchmark::RegisterBenchmark(
          (std::string(row.family) + "/" + std::to_string(depth) + "-frames/" + row.contender)
              .c_str(),
          [row, depth](benchmark::State& state) { descend(depth - 10, row.run, state); });
    }
  }
  return 0;
}();

}  // namespace
