// The abstract status and control words of the floating-point environment: one view of MXCSR and of
// the x87 control and status words.
//
// Both registers have the six exceptions in the same order, and code the rounding as the abstract
// word does. Only the places of the fields differ. So offsets describe a register, and each routine
// below is written once for both.

#include "core/mxcsr.h"
#include "core/processor.h"
#include "core/unaligned.h"
#include "quad/x87.h"
#include "zorvac/quad.h"

using namespace zorvac;

namespace {

// The exceptions' abstract bits in the order of the hardware's flags and masks, from bit 0 up.
constexpr std::uint32_t exceptions[] = {ZORVAC_FP_INVALID,        ZORVAC_FP_DENORMAL,
                                        ZORVAC_FP_DIVIDE_BY_ZERO, ZORVAC_FP_OVERFLOW,
                                        ZORVAC_FP_UNDERFLOW,      ZORVAC_FP_INEXACT};

// The lowest six bits of `hardware` as an abstract word, and back.
constexpr std::uint32_t abstract_exceptions(std::uint32_t hardware) {
  std::uint32_t word = 0;
#pragma GCC unroll 6
  for (int i = 0; i < 6; ++i) word |= exceptions[i] * (hardware >> i & 1);
  return word;
}
constexpr std::uint32_t hardware_exceptions(std::uint32_t word) {
  std::uint32_t hardware = 0;
#pragma GCC unroll 6
  for (int i = 0; i < 6; ++i) hardware |= std::uint32_t{(word & exceptions[i]) != 0} << i;
  return hardware;
}

// A field of two bits, from bit `first` up.
constexpr std::uint32_t field(std::uint32_t word, int first) { return word >> first & 3; }
constexpr std::uint32_t with_field(std::uint32_t word, int first, std::uint32_t value) {
  return (word & ~(std::uint32_t{3} << first)) | value << first;
}
constexpr int abstract_rounding = 8, abstract_precision = 16, abstract_flush = 24;

// What MXCSR and the x87 control word have in common.
struct control_layout {
  int masks, rounding;
};
constexpr control_layout mxcsr_layout{mxcsr::mask_shift, mxcsr::rounding_shift};
constexpr control_layout x87_layout{0, 10};

std::uint32_t with_masks_and_rounding(std::uint32_t reg, control_layout at, std::uint32_t value,
                                      std::uint32_t mask) {
  const std::uint32_t chosen = hardware_exceptions(mask) << at.masks;
  reg = (reg & ~chosen) | (hardware_exceptions(value) << at.masks & chosen);
  if (has<std::uint32_t>(mask, ZORVAC_FP_ROUNDING))
    reg = with_field(reg, at.rounding, field(value, abstract_rounding));
  return reg;
}

std::uint32_t masks_and_rounding(std::uint32_t reg, control_layout at) {
  return abstract_exceptions(reg >> at.masks) | field(reg, at.rounding) << abstract_rounding;
}

// The flush modes: two bits of MXCSR. Their code in the abstract word is the index in this table.
constexpr std::uint32_t flush_modes[] = {0, mxcsr::flush_to_zero | mxcsr::denormals_are_zero,
                                         mxcsr::denormals_are_zero, mxcsr::flush_to_zero};
constexpr std::uint32_t all_flush_modes = flush_modes[1];

std::uint32_t with_flush(std::uint32_t reg, std::uint32_t value, std::uint32_t mask) {
  if (!has<std::uint32_t>(mask, ZORVAC_FP_FLUSH)) return reg;
  return (reg & ~all_flush_modes) | flush_modes[field(value, abstract_flush)];
}

std::uint32_t flush(std::uint32_t reg) {
  std::uint32_t code = 0;
  while (flush_modes[code] != (reg & all_flush_modes)) ++code;
  return code << abstract_flush;
}

// The x87's precision control. Its value 1 is reserved and reads as full precision. The abstract
// code 3 changes nothing.
constexpr int x87_precision = 8;

std::uint32_t with_precision(std::uint32_t control, std::uint32_t value, std::uint32_t mask) {
  constexpr std::uint32_t hardware_code[] = {3, 2, 0};
  const std::uint32_t code = field(value, abstract_precision);
  if (!has<std::uint32_t>(mask, ZORVAC_FP_PRECISION) || code == 3) return control;
  return with_field(control, x87_precision, hardware_code[code]);
}

std::uint32_t precision(std::uint32_t control) {
  constexpr std::uint32_t abstract_code[] = {2, 0, 1, 0};
  return abstract_code[field(control, x87_precision)] << abstract_precision;
}

// Both registers after a change.
struct environment {
  std::uint32_t mxcsr, x87;
};

// Writes both registers even where nothing changes.
environment change(std::uint32_t value, std::uint32_t mask) {
  environment now;
  now.mxcsr =
      with_masks_and_rounding(with_flush(mxcsr::read(), value, mask), mxcsr_layout, value, mask);
  mxcsr::write(now.mxcsr);
  now.x87 = with_precision(
      with_masks_and_rounding(x87_unit::read_control(), x87_layout, value, mask), value, mask);
  x87_unit::write_control(static_cast<std::uint16_t>(now.x87));
  return now;
}

void clear_flags() {
  x87_unit::clear_exceptions();
  mxcsr::write(mxcsr::read() & ~mxcsr::all_flags);
}

}  // namespace

std::uint32_t _statusfp() { return abstract_exceptions(mxcsr::read()); }

std::uint32_t _status87() { return abstract_exceptions(x87_unit::wait_and_read_status()); }

std::uint32_t _clearfp() {
  const std::uint32_t status = abstract_exceptions(mxcsr::read());
  clear_flags();
  return status;
}

std::uint32_t _clear87() {
  const std::uint32_t status = abstract_exceptions(x87_unit::read_status());
  clear_flags();
  return status;
}

std::uint32_t _controlfp(std::uint32_t value, std::uint32_t mask) {
  const environment now = change(value, mask & ~std::uint32_t{ZORVAC_FP_DENORMAL});
  return masks_and_rounding(now.mxcsr, mxcsr_layout) | flush(now.mxcsr) | precision(now.x87);
}

std::uint32_t _control87(std::uint32_t value, std::uint32_t mask) {
  const environment now = change(value, mask);
  return masks_and_rounding(now.x87, x87_layout) | flush(now.mxcsr) | precision(now.x87);
}

void save_fp_state(void* state) { x87_unit::save(*static_cast<x87_unit::state*>(state)); }

void restore_fp_state(const void* state) {
  x87_unit::restore(*static_cast<const x87_unit::state*>(state));
}

void get_fp_statusword(void* status) { store_unaligned(status, x87_unit::read_status()); }

void get_fp_controlword(void* control) { store_unaligned(control, x87_unit::read_control()); }

void set_fp_controlword(const void* control) {
  x87_unit::write_control(load_unaligned<std::uint16_t>(control));
}
