// The variants of the letter-coded start-up checks, made from the family's table.
//
// The older generation takes no argument. Its variants are declared with the flags word too, and do
// not use it, which costs a caller nothing.
#include "core/export.h"
#include "startup/proc_init_utils.h"
#include "startup/vrt_msg_support.h"

using namespace zorvac::startup;

#define ROUTINE(routine)
#define ACCEPT(routine, mask, letter, known, flags_word) DIRECT(routine, letter, known, flags_word)
#define DIRECT(routine, letter, known, flags_word)                       \
  ZORVAC_EXPORT_AS("__zorva_" #routine "." #letter,                      \
                   void routine##_##letter([[maybe_unused]] int flags)); \
  void routine##_##letter([[maybe_unused]] int flags) {                  \
    __zorva_proc_init_ftzdazule(known, flags_word);                      \
  }
#define REFUSE(routine, letter, reporter, needed)                                  \
  ZORVAC_EXPORT_AS("__zorva_" #routine "." #letter, void routine##_##letter(int)); \
  void routine##_##letter(int) { reporter(message::needed); }
#define IGNORE(routine, letter)                                                    \
  ZORVAC_EXPORT_AS("__zorva_" #routine "." #letter, void routine##_##letter(int)); \
  void routine##_##letter(int) {}
#include "startup/proc_init_family.inc"
