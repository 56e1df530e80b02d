// The register interfaces: inputs where they belong, and the registers that survive. The routines
// are called with a canary in the 32 bytes above the return address, which are their caller's.
#include "support/registers.h"

#include "string/ground.h"

// Calls what is in routine_under_test with every register as it came in.
extern "C" {
void (*routine_under_test)() = nullptr;
int canary_deaths = 0;
[[gnu::naked]] void call_above_canary() {
  __asm__(
      "sub $40, %rsp\n\t"
      ".irp at, 0, 8, 16, 24\n\t movq $0x5ca1ab1e, \\at(%rsp)\n\t .endr\n\t"
      "call *routine_under_test(%rip)\n\t"
      ".irp at, 0, 8, 16, 24\n\t cmpq $0x5ca1ab1e, \\at(%rsp)\n\t jne 1f\n\t .endr\n\t"
      "jmp 2f\n"
      "1:\n\t incl canary_deaths(%rip)\n"
      "2:\n\t add $40, %rsp\n\t ret");
}
}

namespace zorvac::test {
namespace {

// What a routine gets and what it is to return; the addresses are those of the scene below.
enum class kind { tail, reader, copier, appender, maker, tokens };
struct entry {
  const char* name;
  level instructions;
  void* address;
  kind how;
};

#define ENTRY(l, op, k) \
  { "__zorva_" #l "_" #op, level::l, reinterpret_cast<void*>(&__zorva_##l##_##op), kind::k }
#define ENTRIES_OF_ALL(l)                                                        \
  ENTRY(l, strcpy, copier), ENTRY(l, stpcpy, copier), ENTRY(l, strncpy, copier), \
      ENTRY(l, stpncpy, copier), ENTRY(l, strrchr, reader)
#define ENTRIES_OF_TWO(l)                                                                 \
  ENTRY(l, strlen, tail), ENTRY(l, strend, tail), ENTRY(l, strchr, tail),                 \
      ENTRY(l, strnlen, reader), ENTRY(l, strcat, appender), ENTRY(l, strncat, appender), \
      ENTRY(l, strdup, maker), ENTRY(l, strncmp, reader), ENTRY(l, strspn, reader),       \
      ENTRY(l, strcspn, reader), ENTRY(l, strpbrk, reader), ENTRY(l, strtok, tokens)
const entry entries[] = {ENTRIES_OF_ALL(sse2),      ENTRIES_OF_TWO(sse2),
                         ENTRIES_OF_ALL(ssse3),     ENTRIES_OF_ALL(sse4),
                         ENTRIES_OF_TWO(sse4),      ENTRY(sse4, atoi, reader),
                         ENTRY(sse4, atol, reader), ENTRY(sse4, atoll, reader)};
static_assert(std::size(entries) == 42);

std::uint64_t address(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

register_file call(const entry& e, const register_file& in) {
  routine_under_test = reinterpret_cast<void (*)()>(e.address);
  return call_with_registers(call_above_canary, in);
}

TEST(StringRegisters, ThoseToBePreservedAre) {
  ground text_ground, other_ground;
  std::mt19937 random(8);
  for (const entry& e : entries) {
    if (!host_has(e.instructions)) continue;
    for (std::size_t turn = 0; turn < 2000; ++turn) {
      SCOPED_TRACE(testing::Message() << e.name << ", turn " << turn);
      const bool number = turn % 2 != 0 && std::strstr(e.name, "ato") != nullptr;
      const std::string text =
          number ? std::string(turn % 40, '7') : random_text(random() % 150, random);
      char* const s = text_ground.before_page(text, random() % 64);
      char* other = other_ground.before_page(random_text(random() % 40, random), random() % 64);
      register_file in = filled_registers(static_cast<unsigned>(turn));
      if (e.how == kind::tail) {
        in.general[rax] = address(s) & ~std::uint64_t{15};
        in.general[rax] -= 16;
        in.general[rdx] = address(s);
        in.vector[1].fill(0);
        for (std::size_t i = 0; i < (e.instructions == level::sse2 ? 16u : 1u); ++i)
          in.vector[1][i] = 'a';
      } else {
        if (e.how == kind::copier || e.how == kind::appender) {
          other = other_ground.room(600, random() % 64);
          *other = 0;
        }
        in.general[rcx] = address(s);
        in.general[rdx] = address(other);
        in.general[r8] = random() % 200;
      }
      const register_file out = call(e, in);
      if (e.how == kind::maker) std::free(reinterpret_cast<void*>(out.general[rax]));
      for (const gpr kept : {rbx, rbp, rsi, rdi, r12, r13, r14, r15})
        ASSERT_EQ(out.general[kept], in.general[kept]) << "general register " << kept;
      for (std::size_t i = 6; i < 16; ++i)
        ASSERT_EQ(std::memcmp(out.vector[i].data(), in.vector[i].data(), 16), 0)
            << "vector register " << i;
      ASSERT_EQ(out.flags & 0x400, 0u) << "direction flag";
      ASSERT_EQ(out.mxcsr, in.mxcsr);
      ASSERT_EQ(canary_deaths, 0);
    }
  }
}

// One string in which each stated interface has something to find:
//
//   block    0                16               32
//            |x\0.............|...x...y\0.x....|    what block 0 has has been looked at
struct stated {
  const char* name;
  level instructions;
  void* address;
  char character;         // in XMM1, for strchr
  const char *rcx, *rdx;  // texts, for the others
  std::uint64_t result;   // tails: offset from the string, or 0
};
#define SSE4(op, ...) \
  { "__zorva_sse4_" #op, level::sse4, reinterpret_cast<void*>(&__zorva_sse4_##op), __VA_ARGS__ }
#define BOTH(op, ...)                                                                           \
  {"__zorva_sse2_" #op, level::sse2, reinterpret_cast<void*>(&__zorva_sse2_##op), __VA_ARGS__}, \
      SSE4(op, __VA_ARGS__)
constexpr char scene[] = "x\0------------------x---y\0-x---z";
constexpr std::size_t begin_of_scene = 5;  // in its first block
const stated stated_entries[] = {
    BOTH(strlen, 0, nullptr, nullptr, 25 - begin_of_scene),
    BOTH(strend, 0, nullptr, nullptr, 25),
    BOTH(strchr, 'x', nullptr, nullptr, 20),
    BOTH(strchr, 'z', nullptr, nullptr, 0),  // only behind the end, in the same block
    BOTH(strchr, 0, nullptr, nullptr, 25),
    BOTH(strspn, 0, "aabbcab", "ab", 4),
    SSE4(atoi, 0, " \t\n-123abc", nullptr, static_cast<std::uint32_t>(-123)),
    SSE4(atol, 0, " \t\n-12345678901abc", nullptr, static_cast<std::uint64_t>(-12345678901)),
    SSE4(atoll, 0, "+7", nullptr, 7),
};

TEST(StringRegisters, StatedInterfacesTakeAndReturnWhatTheySay) {
  ground g;
  for (const stated& e : stated_entries) {
    if (!host_has(e.instructions)) continue;
    SCOPED_TRACE(e.name);
    register_file in = filled_registers(9);
    const bool tail = e.rcx == nullptr;
    char* const block = g.begin();
    if (tail) {
      std::memcpy(block, scene, sizeof scene);
      in.general[rax] = address(block);
      if (std::strstr(e.name, "strlen") != nullptr)
        in.general[rdx] = address(block + begin_of_scene);
      in.vector[1].fill(0);
      for (std::size_t i = 0; i < (e.instructions == level::sse2 ? 16u : 1u); ++i)
        in.vector[1][i] = static_cast<std::uint8_t>(e.character);
    } else {
      in.general[rcx] = address(e.rcx);
      if (e.rdx != nullptr) in.general[rdx] = address(e.rdx);
    }
    const register_file out = call({e.name, e.instructions, e.address, kind::reader}, in);
    const bool pointer = tail && std::strstr(e.name, "strlen") == nullptr;
    const bool narrow = std::strstr(e.name, "atoi") != nullptr;
    EXPECT_EQ(narrow ? out.general[rax] & 0xffffffff : out.general[rax],
              pointer && e.result != 0 ? address(block) + e.result : e.result);
  }
}

// The copy that generated code has begun: the source position is a multiple of four.
TEST(StringRegisters, CopyGoesOnWhereTheCallerStopped) {
  alignas(16) const char source[] = "copied inline, and the rest";
  char destination[40] = "copi";
  register_file in = filled_registers(10);
  in.general[rcx] = address(source + 4);
  in.general[rdx] = address(destination + 4);
  const entry e = ENTRY(sse2, strcpy, copier);
  const register_file out = call(e, in);
  EXPECT_STREQ(destination, source);
  EXPECT_EQ(out.general[rax], address(destination + 4));
}

}  // namespace
}  // namespace zorvac::test
