// The start-up check that takes the required features as a mask and names the missing ones.
#include "startup/new_proc_init.h"

#include <cstdlib>
#include <cstring>

#include "core/levels.h"
#include "startup/proc_init_utils.h"
#include "startup/vrt_msg_support.h"

using namespace zorvac::startup;

#define ZORVAC_NAME(bit, id, name) name,
extern "C" constexpr const char* c_feature_names[] = {"", ZORVAC_FEATURES(ZORVAC_NAME)};
#undef ZORVAC_NAME

// The latest name is held back: only the next name, or the end of the scan, decides whether a comma
// or the separator goes before it.
bool zorvac::startup::list_features(std::uint64_t missing, const char* separator,
                                    feature_list& list) {
  constexpr std::size_t capacity = 1024;
  const char* held = nullptr;
  for (int bit = 0; bit < feature_count; ++bit) {
    if ((missing >> bit & 1) == 0) continue;
    const char* name = c_feature_names[bit + 1];
    if (*name == '\0') return false;
    if (list.empty()) {
      list.append(name);
      continue;
    }
    if (held != nullptr) {
      const std::size_t needed = list.length() + std::strlen(held) + std::strlen(separator) +
                                 std::strlen(name) + std::strlen(", ");
      if (needed >= capacity) break;
      list.append(", ");
      list.append(held);
    }
    held = name;
  }
  if (held != nullptr) {
    list.append(separator);
    list.append(held);
  }
  return true;
}

namespace {

// Prints one message between two empty lines and ends the process.
[[noreturn]] void refuse(int msgno, const char* substitution = nullptr) {
  __libvrt_print(to_standard_error, message::line_end, 0);
  __libvrt_print(to_standard_error, msgno, substitution != nullptr ? 1 : 0, substitution);
  __libvrt_print(to_standard_error, message::line_end, 0);
  std::exit(1);
}

}  // namespace

extern "C" void __zorva_new_feature_proc_init(int flags, std::uint64_t required) {
  if (__zorva_cpu_feature_indicator == 0) __zorva_cpu_features_init();
  const std::uint64_t indicator = __zorva_cpu_feature_indicator;
  if (indicator == 0) refuse(message::inconsistent_library);
  if ((indicator & required) == required) {
    if ((indicator & ZORVAC_FEATURE_SSE) != 0) __zorva_proc_init_ftzdazule(nothing_known, flags);
    return;
  }
  if ((required & ZORVAC_INITIALISED) != 0) refuse(message::verify_compatible_library);

  feature_list missing;
  const char* separator = __libvrt_get_msg(message::list_separator, 0);
  if (!list_features(required & ~indicator, separator, missing) || missing.empty())
    refuse(message::verify_compatible_library);
  refuse(message::verify_features, missing.c_str());
}
