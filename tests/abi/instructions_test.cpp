// Checks the instructions of the shared library and of its objects, which libelf finds and libZydis
// decodes: only sources that may use more than SSE2 have instructions beyond it.
#include <Zydis/Zydis.h>
#include <gelf.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>

namespace {

// The instructions beyond the baseline in a file, each with its count. TZCNT does not count: an old
// processor executes it as BSF and ignores the prefix, and compilers use it for any processor where
// the value cannot be zero.
using counts = std::map<std::string, int>;
counts past_baseline(const std::string& path) {
  static const std::set<ZydisISAExt> baseline = {
      ZYDIS_ISA_EXT_BASE, ZYDIS_ISA_EXT_LONGMODE, ZYDIS_ISA_EXT_X87,  ZYDIS_ISA_EXT_SSE,
      ZYDIS_ISA_EXT_SSE2, ZYDIS_ISA_EXT_CET,      ZYDIS_ISA_EXT_XSAVE};
  ZydisDecoder decoder;
  ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
  counts found;
  elf_version(EV_CURRENT);
  std::ifstream file(path, std::ios::binary);
  std::string image(std::istreambuf_iterator<char>(file), {});
  Elf* const elf = elf_memory(image.data(), image.size());
  for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
    GElf_Shdr header;
    if ((gelf_getshdr(section, &header)->sh_flags & SHF_EXECINSTR) == 0) continue;
    const Elf_Data* const code = elf_getdata(section, nullptr);
    ZydisDecodedInstruction i;
    for (std::size_t at = 0; at < code->d_size; at += i.length) {
      const auto* const here = static_cast<const unsigned char*>(code->d_buf) + at;
      if (ZYAN_FAILED(
              ZydisDecoderDecodeInstruction(&decoder, nullptr, here, code->d_size - at, &i)))
        throw std::runtime_error(path + " at " + std::to_string(at));
      if (!baseline.contains(i.meta.isa_ext) && i.mnemonic != ZYDIS_MNEMONIC_TZCNT)
        ++found[ZydisMnemonicGetString(i.mnemonic)];
    }
  }
  elf_end(elf);
  return found;
}

// The objects show which source an instruction comes from. The counts over the linked library show
// that it has no instructions from elsewhere.
TEST(Instructions, BeyondTheBaselineAreOnlyInSourcesThatMayHaveThem) {
  counts permitted;
  std::ifstream list(OBJECTS);
  std::string path;
  for (bool extended = false; list >> extended >> path;) {
    const counts found = past_baseline(path);
    EXPECT_EQ(!found.empty(), extended) << path << ' ' << testing::PrintToString(found);
    for (const auto& [name, times] : found) permitted[name] += times;
  }
  EXPECT_EQ(past_baseline(LIBRARY), permitted);
}

}  // namespace
