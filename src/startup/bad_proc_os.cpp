// Refuses a processor, or an operating system that does not enable all of the processor's features.
#include <cstdlib>

#include "startup/proc_init_utils.h"
#include "startup/vrt_msg_support.h"

using namespace zorvac::startup;

extern "C" void __bad_processor_or_os(int msgno) {
  __libvrt_print(to_standard_error, message::line_end, 0);
  __libvrt_print(to_standard_error, message::not_built_for_system, 0);
  __libvrt_print(to_standard_error, msgno, 0);
  __libvrt_print(to_standard_error, message::line_end, 0);
  std::exit(1);
}
