// What the calling convention keeps for the caller survives every path of every worker:
// callee-saved registers, the direction flag, the floating-point control registers, and upper
// halves that were zero, since dirty ones slow down SSE code.
#include "support/registers.h"

#include <algorithm>

#include "mem/members.h"
#include "support/guard_pages.h"

namespace zorvac::test {
namespace {

class RegistersOf : public over_members {};

TEST_P(RegistersOf, CalleeSavedAndControlRegistersSurvive) {
  guarded_block from(32768), to(32768);
  fill_with_pattern(from.begin(), from.size());
  for (const cache_values& caches : cache_settings) {
    const under_caches scope(caches);
    for (const std::size_t count : {0u, 1u, 5u, 33u, 100u, 200u, 600u, 1100u, 5300u, 9400u, 20000u})
      for (const std::size_t low : {0u, 64u}) {  // some members choose a direction by these bits
        SCOPED_TRACE(testing::Message() << caches << ", count " << count);
        register_file in = filled_registers(static_cast<unsigned>(count));
        in.general[rdi] = reinterpret_cast<std::uintptr_t>(to.begin() + low + 1);
        in.general[rsi] = reinterpret_cast<std::uintptr_t>(from.begin() + 64 - low + 6);
        in.general[rdx] = count;
        for (auto& vector : in.vector) std::fill(vector.begin() + 16, vector.end(), 0);
        in.mxcsr = 0x1f80 | 0x6000 | 0x8040;  // toward zero, flushing
        in.x87_control = 0x0f7f;
        const register_file out =
            call_with_registers(reinterpret_cast<void (*)()>(entry_of(GetParam().call)), in);
        for (const gpr kept : {rbx, rbp, r12, r13, r14, r15})
          ASSERT_EQ(out.general[kept], in.general[kept]) << kept;
        ASSERT_EQ(out.flags & 0x400, 0u) << "direction flag";
        ASSERT_EQ(out.mxcsr, in.mxcsr);
        ASSERT_EQ(out.x87_control, in.x87_control);
        for (std::size_t i = 0; i < 16; ++i)
          ASSERT_EQ(std::count(out.vector[i].begin() + 16, out.vector[i].end(), 0), 48) << i;
      }
  }
}
INSTANTIATE_TEST_SUITE_P(Block, RegistersOf, testing::ValuesIn(members), name_of_row);

}  // namespace
}  // namespace zorvac::test
