// The shared object seen from outside: what it exports, what it needs, how it is linked, and which
// instructions stand in it and in the objects that it is made of. libelf and libZydis do the
// reading.
#include <Zydis/Zydis.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gelf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

namespace {

using section_body = std::function<void(Elf*, const GElf_Shdr&, Elf_Data*)>;
void each_section(const std::string& path, std::uint32_t type, const section_body& body) {
  elf_version(EV_CURRENT);
  const int file = open(path.c_str(), O_RDONLY);
  Elf* const elf = elf_begin(file, ELF_C_READ, nullptr);
  EXPECT_EQ(elf_kind(elf), ELF_K_ELF) << path;
  for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
    GElf_Shdr header;
    if (gelf_getshdr(section, &header)->sh_type == type)
      body(elf, header, elf_getdata(section, nullptr));
  }
  elf_end(elf);
  close(file);
}
// What a symbol table (SHT_SYMTAB, SHT_DYNSYM) defines.
using symbol_body = std::function<void(const GElf_Sym&, const std::string&)>;
void each_definition(const std::string& path, std::uint32_t table, const symbol_body& body) {
  each_section(path, table, [&](Elf* elf, const GElf_Shdr& header, Elf_Data* data) {
    GElf_Sym symbol;
    for (int i = 1; gelf_getsym(data, i, &symbol) != nullptr; ++i)
      if (symbol.st_shndx != SHN_UNDEF)
        body(symbol, elf_strptr(elf, header.sh_link, symbol.st_name));
  });
}

TEST(Exports, AreTheListedNamesAndNoOthers) {
  std::set<std::string> listed, exported;  // "function NAME" or "data NAME BYTES"
  std::ifstream list(EXPORTS);
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string entry, word;
    for (words >> entry; words >> word;) entry += ' ' + word;
    if (entry.empty() || entry[0] == '#') continue;
    EXPECT_TRUE(listed.insert(entry).second) << entry << " is listed twice";
  }
  each_definition(LIBRARY, SHT_DYNSYM, [&](const GElf_Sym& s, const std::string& name) {
    EXPECT_EQ(GELF_ST_BIND(s.st_info), STB_GLOBAL) << name;
    exported.insert(GELF_ST_TYPE(s.st_info) == STT_OBJECT
                        ? "data " + name + ' ' + std::to_string(s.st_size)
                        : "function " + name);
  });
  EXPECT_EQ(exported, listed);
}

TEST(Linkage, NeedsTheCLibraryAloneAndIsBoundAtLoad) {
  std::map<std::int64_t, std::string> tags;  // in the end, the texts or values of each
  int stacks = 0;
  each_section(LIBRARY, SHT_DYNAMIC, [&](Elf* elf, const GElf_Shdr& header, Elf_Data* data) {
    GElf_Dyn entry;
    for (int i = 0; gelf_getdyn(data, i, &entry) != nullptr; ++i) {
      const bool is_text = entry.d_tag == DT_NEEDED || entry.d_tag == DT_SONAME;
      tags[entry.d_tag] += is_text ? elf_strptr(elf, header.sh_link, entry.d_un.d_val)
                                   : std::to_string(entry.d_un.d_val);
    }
    GElf_Phdr segment;
    for (int i = 0; gelf_getphdr(elf, i, &segment) != nullptr; ++i) {
      EXPECT_NE(segment.p_flags & (PF_W | PF_X), PF_W | PF_X) << "segment " << i;
      stacks += segment.p_type == PT_GNU_STACK;
    }
  });
  EXPECT_EQ(stacks, 1);  // without one, the stack would be executable
  EXPECT_EQ(tags[DT_SONAME], "libzorvac.so.5");
  EXPECT_EQ(tags[DT_NEEDED], "libc.so.6");
  EXPECT_EQ(tags[DT_FLAGS], std::to_string(DF_BIND_NOW));  // neither symbolic nor relocated text
  for (const int unwanted : {DT_SYMBOLIC, DT_TEXTREL, DT_RPATH, DT_RUNPATH})
    EXPECT_FALSE(tags.contains(unwanted)) << unwanted;
}

// The instructions of a file past plain x86-64 with SSE2, and how often each stands there. Not
// TZCNT: to a processor that does not know it, its code is a bit scan with a prefix that changes
// nothing, and compilers write the scan of a value that is not zero so for every processor.
using counts = std::map<std::string, int>;
counts past_baseline(const std::string& path) {
  static const std::set<ZydisISAExt> baseline = {
      ZYDIS_ISA_EXT_BASE, ZYDIS_ISA_EXT_LONGMODE, ZYDIS_ISA_EXT_X87,  ZYDIS_ISA_EXT_SSE,
      ZYDIS_ISA_EXT_SSE2, ZYDIS_ISA_EXT_CET,      ZYDIS_ISA_EXT_XSAVE};
  ZydisDecoder decoder;
  ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
  counts found;
  each_section(path, SHT_PROGBITS, [&](Elf*, const GElf_Shdr& header, Elf_Data* data) {
    if ((header.sh_flags & SHF_EXECINSTR) == 0) return;
    const auto* code = static_cast<const unsigned char*>(data->d_buf);
    ZydisDecodedInstruction i;
    for (std::size_t at = 0; at < data->d_size; at += i.length) {
      ASSERT_TRUE(ZYAN_SUCCESS(
          ZydisDecoderDecodeInstruction(&decoder, nullptr, code + at, data->d_size - at, &i)))
          << path << " at " << at;
      if (!baseline.contains(i.meta.isa_ext) && i.mnemonic != ZYDIS_MNEMONIC_TZCNT)
        ++found[ZydisMnemonicGetString(i.mnemonic)];
    }
  });
  return found;
}

// The objects say which source an instruction comes from; the counts over the linked library show
// that nothing came in from elsewhere. A weak symbol of an object with special instructions could
// become everybody's copy.
TEST(Instructions, PastTheBaselineStandOnlyInSourcesThatMayHaveThem) {
  counts permitted;
  std::ifstream list(OBJECTS);
  std::string path;
  for (bool extended = false; list >> extended >> path;) {
    const counts found = past_baseline(path);
    EXPECT_EQ(!found.empty(), extended) << path << ' ' << testing::PrintToString(found);
    for (const auto& [name, times] : found) permitted[name] += times;
    each_definition(path, SHT_SYMTAB, [&](const GElf_Sym& s, const std::string& name) {
      const auto binding = GELF_ST_BIND(s.st_info);
      EXPECT_TRUE(!extended || binding == STB_LOCAL || binding == STB_GLOBAL) << path << name;
    });
  }
  EXPECT_EQ(past_baseline(LIBRARY), permitted);
  EXPECT_GT(permitted.size(), 20u);
}

// The flavour that accepts every vendor, on the processor at hand: the vendor-checked word is the
// vendor-independent one, and caches are found where the system can tell what they are.
TEST(AnyVendor, GetsTheWholeFeatureWordAndItsCaches) {
  void* const library = dlopen(ANY_VENDOR_LIBRARY, RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto word = [&](const char* routine, const char* name) {
    reinterpret_cast<void (*)()>(dlsym(library, routine))();
    return *static_cast<std::uint64_t*>(dlsym(library, name));
  };
  const std::uint64_t x = word("__zorva_cpu_features_init_x", "__zorva_cpu_feature_indicator_x");
  EXPECT_NE(x, 1u);
  EXPECT_EQ(word("__zorva_cpu_features_init", "__zorva_cpu_feature_indicator"), x);
  const auto kilobytes = reinterpret_cast<std::uint32_t (*)(int)>(dlsym(library, "__cacheSize"));
  for (const auto& [level, name] :
       {std::pair{1, _SC_LEVEL1_DCACHE_SIZE}, {2, _SC_LEVEL2_CACHE_SIZE}})
    EXPECT_TRUE(sysconf(name) <= 0 || kilobytes(level) == sysconf(name) / 1024) << level;
}

}  // namespace
