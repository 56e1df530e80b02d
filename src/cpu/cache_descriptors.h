#ifndef ZORVAC_CPU_CACHE_DESCRIPTORS_H
#define ZORVAC_CPU_CACHE_DESCRIPTORS_H
// The caches that the descriptor bytes of CPUID leaf 2 describe.
#include <cstdint>

namespace zorvac::cpu {

struct cache_record {
  std::uint32_t size_kb;
  std::uint32_t line_bytes;
  std::uint32_t lines_per_sector;
  std::uint32_t ways;
};

// The cache that a descriptor byte describes, in two words. The first has the level in bits 0 to 2
// (0: the byte describes no data or unified cache), the line bytes in bits 3 to 14, the lines per
// sector in bits 15 to 21 and the ways in bits 22 to 31. The second is the size in KB.
struct packed_descriptor {
  std::uint32_t geometry, size_kb;

  [[gnu::always_inline]] constexpr std::uint32_t level() const { return geometry & 0x7; }
  [[gnu::always_inline]] constexpr cache_record record() const {
    return {size_kb, geometry >> 3 & 0xfff, geometry >> 15 & 0x7f, geometry >> 22};
  }
};

struct packed_descriptors {
  packed_descriptor entry[256];
};

// Source: the descriptor encodings in the processor makers' description of CPUID leaf 2. For 0x4c
// the table has 12228 KB instead of the published 12288. That value is part of the interface.
consteval packed_descriptors make_descriptor_table() {
  struct descriptor {
    std::uint8_t code;
    std::uint32_t level, size_kb, ways, line_bytes, lines_per_sector;
  };
  // clang-format off
  constexpr descriptor known[] = {
      {0x0a, 1, 8, 2, 32, 1},       {0x0c, 1, 16, 4, 32, 1},      {0x0d, 1, 16, 4, 64, 1},
      {0x0e, 1, 24, 6, 64, 1},      {0x10, 1, 16, 4, 32, 1},      {0x1a, 2, 96, 6, 64, 1},
      {0x1d, 2, 128, 2, 64, 1},     {0x21, 2, 256, 8, 64, 1},     {0x22, 3, 512, 4, 64, 2},
      {0x23, 3, 1024, 8, 64, 2},    {0x24, 2, 1024, 16, 64, 1},   {0x25, 3, 2048, 8, 64, 2},
      {0x29, 3, 4096, 8, 64, 2},    {0x2c, 1, 32, 8, 64, 1},      {0x39, 2, 128, 4, 64, 1},
      {0x3a, 2, 192, 6, 64, 1},     {0x3b, 2, 128, 2, 64, 1},     {0x3c, 2, 256, 4, 64, 1},
      {0x3d, 2, 384, 6, 64, 1},     {0x3e, 2, 512, 4, 64, 1},     {0x3f, 2, 256, 4, 64, 1},
      {0x41, 2, 128, 4, 32, 1},     {0x42, 2, 256, 4, 32, 1},     {0x43, 2, 512, 4, 32, 1},
      {0x44, 2, 1024, 4, 32, 1},    {0x45, 2, 2048, 4, 32, 1},    {0x46, 3, 4096, 4, 64, 1},
      {0x47, 3, 8192, 8, 64, 1},    {0x48, 2, 3072, 12, 64, 1},   {0x49, 2, 4096, 16, 64, 1},
      {0x4a, 3, 6144, 12, 64, 1},   {0x4b, 3, 8192, 16, 64, 1},   {0x4c, 3, 12228, 12, 64, 1},
      {0x4d, 3, 16384, 16, 64, 1},  {0x4e, 2, 6144, 24, 64, 1},   {0x60, 1, 16, 8, 64, 1},
      {0x62, 1, 32, 8, 64, 1},      {0x66, 1, 8, 4, 64, 2},       {0x67, 1, 16, 4, 64, 2},
      {0x68, 1, 32, 4, 64, 2},      {0x69, 1, 64, 4, 64, 2},      {0x78, 2, 1024, 4, 64, 1},
      {0x79, 2, 128, 8, 64, 2},     {0x7a, 2, 256, 8, 64, 2},     {0x7b, 2, 512, 8, 64, 2},
      {0x7c, 2, 1024, 8, 64, 2},    {0x7d, 2, 2048, 8, 64, 2},    {0x7e, 2, 256, 12, 128, 1},
      {0x7f, 2, 512, 2, 64, 1},     {0x80, 2, 512, 8, 64, 1},     {0x81, 2, 128, 8, 32, 1},
      {0x82, 2, 256, 8, 32, 1},     {0x83, 2, 512, 8, 32, 1},     {0x84, 2, 1024, 8, 32, 1},
      {0x85, 2, 2048, 8, 32, 1},    {0x86, 2, 512, 4, 64, 1},     {0x87, 2, 1024, 8, 64, 1},
      {0x88, 3, 2048, 4, 64, 1},    {0x89, 3, 4096, 4, 64, 1},    {0x8a, 3, 8192, 4, 64, 1},
      {0x8d, 3, 3072, 12, 128, 1},  {0xd0, 3, 512, 4, 64, 1},     {0xd1, 3, 1024, 4, 64, 1},
      {0xd2, 3, 2048, 4, 64, 1},    {0xd6, 3, 1024, 8, 64, 1},    {0xd7, 3, 2048, 8, 64, 1},
      {0xd8, 3, 4096, 8, 64, 1},    {0xdc, 3, 2048, 12, 64, 1},   {0xdd, 3, 4096, 12, 64, 1},
      {0xde, 3, 8192, 12, 64, 1},   {0xe2, 3, 2048, 16, 64, 1},   {0xe3, 3, 4096, 16, 64, 1},
      {0xe4, 3, 8192, 16, 64, 1},   {0xea, 3, 12288, 24, 64, 1},  {0xeb, 3, 18432, 24, 64, 1},
      {0xec, 3, 24576, 24, 64, 1},
  };
  // clang-format on
  packed_descriptors table{};
  for (const descriptor& d : known)
    table.entry[d.code] = {d.level | d.line_bytes << 3 | d.lines_per_sector << 15 | d.ways << 22,
                           d.size_kb};
  return table;
}
inline constexpr packed_descriptors cpuid2_cache_tbl = make_descriptor_table();

}  // namespace zorvac::cpu
#endif
