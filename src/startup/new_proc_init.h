#ifndef ZORVAC_STARTUP_NEW_PROC_INIT_H
#define ZORVAC_STARTUP_NEW_PROC_INIT_H
// Naming the features that a program requires and a processor lacks.
#include <cstdint>

#include "core/text_buffer.h"

namespace zorvac::startup {

inline constexpr int feature_count = 40;
using feature_list = text_buffer<1024>;

// Lists the names of the bits of `missing` from 0 to 39, in ascending order, as "A", "A and B" or
// "A, B and C", where `separator` stands for " and ". Returns false at a bit that has no name.
// Names that would not leave room for the ones before them are dropped from the end.
bool list_features(std::uint64_t missing, const char* separator, feature_list& list);

}  // namespace zorvac::startup

// The name of feature bit n at index n + 1; the empty text at 0 and for a bit without a name.
extern "C" const char* const c_feature_names[zorvac::startup::feature_count + 1];
#endif
