// The dispatchers of the letter-coded start-up checks, made from the family's table.
#include "core/dispatch.inc"

#define ROUTINE(routine) dispatch __zorva_##routine;
#define ACCEPT(routine, mask, letter, known, flags) row (mask), __zorva_##routine.letter;
#define DIRECT(routine, letter, known, flags)
#define REFUSE(routine, letter, reporter, needed) generic __zorva_##routine.letter;
#define IGNORE(routine, letter) generic __zorva_##routine.letter;
#include "startup/proc_init_family.inc"
