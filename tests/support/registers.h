#ifndef ZORVAC_TESTS_SUPPORT_REGISTERS_H
#define ZORVAC_TESTS_SUPPORT_REGISTERS_H
// Calls a routine with every register filled and returns what it left in each. For routines that
// promise more than the platform's calling convention, or have their own convention.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zorvac::test {

// In the kernel's order.
// clang-format off
enum gpr : std::size_t { r8, r9, r10, r11, r12, r13, r14, r15,
                         rdi, rsi, rbp, rbx, rdx, rax, rcx, rsp };
// clang-format on

// Everything that a routine could change.
struct register_file {
  std::array<std::uint64_t, 16> general{};                // RSP is not set; out: a difference
  std::array<std::array<std::uint8_t, 64>, 32> vector{};  // XMM, YMM or ZMM, as the host has them
  std::array<std::uint64_t, 8> mask{};
  std::array<std::uint64_t, 4> above{};  // the 32 bytes above the return address
  std::uint32_t mxcsr = 0x1f80;
  std::uint16_t x87_control = 0x037f;
  std::uint64_t flags = 0;
};

// A file with different bytes everywhere.
register_file filled_registers(unsigned seed);

// Calls `routine` with the registers of `in` and returns the registers after the call.
register_file call_with_registers(void (*routine)(), const register_file& in);

// The names of the registers that differ. R10 and R11 are not compared.
std::vector<std::string> changed_registers(const register_file& before, const register_file& after);

}  // namespace zorvac::test
#endif
