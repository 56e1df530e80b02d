// Refuses a processor that the program was not built for.
#include <cstdlib>

#include "core/text_buffer.h"
#include "startup/proc_init_utils.h"
#include "startup/vrt_msg_support.h"

using namespace zorvac;
using namespace zorvac::startup;

extern "C" void __bad_processor_detected(int msgno) {
  __libvrt_print(to_standard_error, message::line_end, 0);
  __libvrt_print(to_standard_error, message::not_built_for_processor, 0);
  text_buffer<message_buffer_bytes> description;  // a copy: the text lives until the next look-up
  description.append(__libvrt_get_msg(msgno, 0));
  __libvrt_print(to_standard_error, message::allowed_processors, 1, description.c_str());
  __libvrt_print(to_standard_error, message::line_end, 0);
  std::exit(1);
}
