// Records for the page which run-time libraries quad_bench compares with.
#include "support/libc_peer.h"

namespace {

const bool recorded = [] {
  zorvac::bench::record_libgcc();
#ifdef ZORVAC_BENCH_CLANG_RT
  zorvac::bench::record_peer("clang's library", "compiler-rt " ZORVAC_BENCH_CLANG_RT);
#endif
  return true;
}();

}  // namespace
