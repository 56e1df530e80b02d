// A traceback of 20 and of 200 frames: walking, and walking with text. The C library's backtrace
// walks, its backtrace_symbols adds exported names. libdw adds the routine, file and line, as ours
// does, from debug information that it reads first, or has read before ("libdw-warm").
//
// Then larger processes: frames through up to 16 shared objects, and up to 4,000 mappings. Their
// peer is backtrace_symbols_fd, which like ours needs no heap. It writes to /dev/null.
//
// The program gets a .trace section when it is linked, so that our traceback finds its lines, too.
// The cost of protecting the walk (installing 65 signal actions and restoring them) has a row of
// its own.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <elfutils/libdwfl.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/libc_peer.h"
#include "zorvac/diag.h"

namespace {

using body = void (*)(benchmark::State&);

// Runs the body's loop `depth` frames further down the stack.
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

void write_text_to_file_peer(benchmark::State& state) {
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  for (auto _ : state) backtrace_symbols_fd(pcs.data(), walk_by_backtrace(), nowhere);
  close(nowhere);
}

// Runs the body's loop below frames of `images` objects, three of each.
constexpr int most_images = 16;
using pass_fn = void (*)(void (*next)(void*), void* argument);
struct image_chain {
  std::array<pass_fn, most_images> passes{};
  int images = 0, passed = 0;
  body run = nullptr;
  benchmark::State* state = nullptr;
};
void next_image(void* argument) {
  auto& chain = *static_cast<image_chain*>(argument);
  if (chain.passed == chain.images)
    chain.run(*chain.state);
  else
    chain.passes.at(static_cast<std::size_t>(chain.passed++))(next_image, argument);
  asm volatile("" ::: "memory");
}
void run_below_images(int images, body run, benchmark::State& state) {
  image_chain chain{.images = images, .run = run, .state = &state};
  for (int i = 0; i < images; ++i) {
    const std::string path = ZORVAC_BENCH_IMAGES "/traceback_image" + std::to_string(i) + ".so";
    void* const image = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const pass = image != nullptr ? dlsym(image, "pass") : nullptr;
    if (pass == nullptr) return state.SkipWithError(dlerror());
    chain.passes.at(static_cast<std::size_t>(i)) = reinterpret_cast<pass_fn>(pass);
  }
  next_image(&chain);
}

// Runs it while the process has `count` more mappings. Neighbours differ, or the kernel would merge
// them.
void run_beside_mappings(int count, body run, benchmark::State& state) {
  constexpr std::size_t page = 4096;
  std::vector<void*> mappings;
  for (int i = 0; i < count; ++i) {
    const int access = i % 2 == 0 ? PROT_READ : PROT_READ | PROT_WRITE;
    mappings.push_back(mmap(nullptr, page, access, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  }
  descend(32 - 10, run, state);
  for (void* const mapping : mappings) munmap(mapping, page);
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

// The callers of descend have about ten frames.
const int registered = [] {
  zorvac::bench::record_libc();
  zorvac::bench::record_peer("libdw", dwfl_version(nullptr));
  const struct {
    const char* family;
    const char* contender;
    body run;
  } rows[] = {
      {"walk", "zorvac", walk},
      {"walk", "backtrace", walk_peer},
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
  benchmark::RegisterBenchmark("protection/65-signals/alone", protect);
  const struct {
    const char* contender;
    body run;
  } texts[] = {{"zorvac", write_text}, {"backtrace_symbols_fd", write_text_to_file_peer}};
  for (const auto& text_row : texts) {
    const auto add = [&](const std::string& row, auto run) {
      benchmark::RegisterBenchmark(("text/" + row + "/" + text_row.contender).c_str(), run);
    };
    const body run = text_row.run;
    add("32-frames", [run](benchmark::State& state) { descend(32 - 10, run, state); });
    for (const int images : {1, 4, most_images}) {
      add(std::to_string(images) + (images == 1 ? "-image" : "-images"),
          [=](benchmark::State& state) { run_below_images(images, run, state); });
    }
    for (const int mappings : {100, 1000, 4000}) {
      add(std::to_string(mappings) + "-mappings",
          [=](benchmark::State& state) { run_beside_mappings(mappings, run, state); });
    }
  }
  return 0;
}();

}  // namespace
