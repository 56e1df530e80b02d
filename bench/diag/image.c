// A shared object that traceback_bench has frames in.
typedef void (*continuation)(void*);

static __attribute__((noinline)) void inner(continuation next, void* argument) { next(argument); }
static __attribute__((noinline)) void middle(continuation next, void* argument) {
  inner(next, argument);
}
void pass(continuation next, void* argument) { middle(next, argument); }
