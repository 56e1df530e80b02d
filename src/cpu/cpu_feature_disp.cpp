// The feature indicators and the routines that fill them.
//
// Dispatch stubs call detection while the registers hold their caller's arguments, so it preserves
// every register. This source is built for general registers only (see cmake/isa.cmake), and
// everything that it calls is inlined, so the compiler enforces the promise.
#include "cpu/cpu_feature_disp.h"

#include "core/export.h"

using zorvac::cpu::detection_mode;

extern "C" {

std::uint64_t __zorva_cpu_feature_indicator;
std::uint64_t __zorva_cpu_feature_indicator_x;

// Internal: what the two initialisers share.
ZORVAC_PRESERVES_REGISTERS void __zorva_cpu_features_init_body(detection_mode mode) {
  zorvac::cpu::detect_features(zorvac::hardware_processor{}, mode, zorvac::cpu::accepted_vendor,
                               __zorva_cpu_feature_indicator, __zorva_cpu_feature_indicator_x);
}
}

ZORVAC_EXPORT_AS("__zorva_cpu_features_init", ZORVAC_PRESERVES_REGISTERS void features_init());
void features_init() { __zorva_cpu_features_init_body(detection_mode::vendor_checked); }

ZORVAC_EXPORT_AS("__zorva_cpu_features_init_x", ZORVAC_PRESERVES_REGISTERS void features_init_x());
void features_init_x() { __zorva_cpu_features_init_body(detection_mode::any_vendor); }
