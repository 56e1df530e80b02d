#ifndef ZORVAC_STARTUP_NEW_PROC_INIT_H
#define ZORVAC_STARTUP_NEW_PROC_INIT_H
// Names the features that a program requires and that the processor lacks.
#include <cstdint>

#include "core/text_buffer.h"

namespace zorvac::startup {

inline constexpr int feature_count = 40;
using feature_list = text_buffer<1024>;

// Lists the names of the bits of `missing` from 0 to 39, in ascending order, as "A", "A and B" or
// "A, B and C"; `separator` is the " and ". Returns false at a bit that has no name. If the list
// has no room for all names, the last ones are left out.
bool list_features(std::uint64_t missing, const char* separator, feature_list& list);

}  // namespace zorvac::startup

// The name of feature bit n is at index n + 1. Index 0 and bits without a name have the empty text.
extern "C" const char* const c_feature_names[zorvac::startup::feature_count + 1];
#endif
