#ifndef ZORVAC_BENCH_MIXES_BLOCKS_H
#define ZORVAC_BENCH_MIXES_BLOCKS_H
// Block operations as in programs: lists of sizes and places that no branch predictor can learn,
// and the memory that they work on.
//
// The page offsets of source and destination differ by half a page, apart from alignment. A load
// waits for a store still in flight that has the same page offset. This makes some copy loops ten
// times slower, and would hide what is to be measured.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace zorvac::bench {

struct block_call {
  std::uint32_t to, from, bytes;  // offsets into the two areas
};

struct block_mix {
  std::string name;
  std::vector<block_call> calls;
  std::size_t bytes = 0;  // of all calls
};

inline constexpr std::uint32_t page = 4096;

// The same call over and over.
inline block_mix fixed_blocks(std::string name, std::uint32_t bytes, bool aligned) {
  const std::uint32_t to = aligned ? 0 : 3, from = aligned ? 0 : 5;
  // Enough calls to make the loop around them cheap.
  const std::size_t calls = bytes >= page ? 1 : bytes >= 256 ? 16 : 256;
  return {std::move(name), std::vector(calls, block_call{page / 2 + to, from, bytes}),
          calls * bytes};
}

// Sizes drawn from a distribution by `draw`. The blocks stay in the first-level cache. The list is
// so long because today's branch predictors learn a list of 32768 calls.
template <class Draw>
block_mix drawn_blocks(std::string name, std::uint32_t most, bool aligned, Draw draw) {
  constexpr std::uint32_t area = 8192;
  std::mt19937 random(1);
  const auto below = [&](std::uint32_t limit) {
    return static_cast<std::uint32_t>(random() % limit);
  };
  block_mix mix{std::move(name), {}, 0};
  for (int i = 0; i < 131072; ++i) {
    const std::uint32_t bytes = draw(below);
    const std::uint32_t line = below((area - most - 64) / 64) * 64;
    mix.calls.push_back(
        {page / 2 + line + (aligned ? 0 : below(64)), line + (aligned ? 0 : below(64)), bytes});
    mix.bytes += bytes;
  }
  return mix;
}

// Sizes drawn evenly from a range.
inline block_mix mixed_blocks(std::string name, std::uint32_t least, std::uint32_t most,
                              bool aligned) {
  return drawn_blocks(std::move(name), most, aligned,
                      [=](auto below) { return least + below(most - least + 1); });
}

// Sizes as in services: most are tiny, some are zero, few are large. Rounded steps of the
// distributions that Chatelet, Kennelly, Xi, Sykora, Courbet, Li and De Backer published for a
// fleet of servers ("automemcpy: A Framework for Automatic Generation of Fundamental Memory
// Operations", ISMM 2021): 1.5 % zero, 75 % up to 32 bytes, 2 % above 512, evenly within a step.
inline block_mix service_blocks(bool aligned) {
  constexpr struct {
    std::uint32_t below_permille, least, most;
  } steps[] = {{15, 0, 0},     {400, 1, 8},     {600, 9, 16},     {750, 17, 32},     {860, 33, 64},
               {930, 65, 128}, {980, 129, 512}, {995, 513, 1024}, {1000, 1025, 4096}};
  return drawn_blocks(std::string("service") + (aligned ? "-aligned" : "-unaligned"), 4096, aligned,
                      [&](auto below) {
                        const std::uint32_t drawn = below(1000);
                        const auto* step = steps;
                        while (drawn >= step->below_permille) ++step;
                        return step->least + below(step->most - step->least + 1);
                      });
}

inline std::vector<block_mix> block_mixes() {
  std::vector<block_mix> mixes;
  for (const bool aligned : {true, false}) {
    const std::string suffix = aligned ? "-aligned" : "-unaligned";
    for (const auto& [least, most] : {std::pair{1u, 16u}, {1u, 64u}, {16u, 256u}, {64u, 1024u}}) {
      mixes.push_back(
          mixed_blocks("mixed-" + std::to_string(least) + "-" + std::to_string(most) + suffix,
                       least, most, aligned));
    }
    mixes.push_back(service_blocks(aligned));
    for (const char* size : {"1",  "4",  "8",  "16",  "32",  "64",  "128",  "256", "512", "1K",
                             "2K", "4K", "8K", "16K", "32K", "64K", "256K", "1M",  "4M",  "16M"}) {
      char* unit = nullptr;
      auto bytes = static_cast<std::uint32_t>(std::strtoul(size, &unit, 10));
      bytes <<= *unit == 'K' ? 10 : *unit == 'M' ? 20 : 0;
      mixes.push_back(fixed_blocks("fixed-" + std::string(size) + suffix, bytes, aligned));
    }
  }
  return mixes;
}

// Two areas on page boundaries, written to once so that their pages exist.
struct block_arena {
  static constexpr std::size_t bytes = (std::size_t{16} << 20) + std::size_t{4} * page;
  unsigned char* to = area();
  unsigned char* from = area();

 private:
  static unsigned char* area() {
    void* const at = std::aligned_alloc(page, bytes);
    if (at == nullptr) std::abort();
    std::memset(at, 1, bytes);
    return static_cast<unsigned char*>(at);
  }
};

}  // namespace zorvac::bench
#endif
