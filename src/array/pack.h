#ifndef ZORVAC_ARRAY_PACK_H
#define ZORVAC_ARRAY_PACK_H
// Packs a block of A or B into panels of 4 rows or 4 columns, here called lanes. A panel holds, for
// each k in order, the 4 values side by side, and then zeros up to a multiple of 4 terms. Lanes
// past the last whole panel are left out.
//
// A panel is too short for the processor to predict where the next one begins, so later panels are
// prefetched. A prefetch past the end of the matrix does no harm: it cannot fault.
#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

namespace zorvac::array {
namespace {

inline double* pad_panel(double* to, std::size_t terms) {
  for (; terms % 4 != 0; ++terms, to += 4) {
    _mm_storeu_pd(to, _mm_setzero_pd());
    _mm_storeu_pd(to + 2, _mm_setzero_pd());
  }
  return to;
}

// The lanes of one k lie side by side; each k is `distance` elements after the one before.
inline void pack_contiguous_lanes(std::size_t lanes, std::size_t terms, const double* from,
                                  std::size_t distance, double* to) {
  for (; lanes >= 4; lanes -= 4, from += 4) {
    for (std::size_t k = 0; k < terms; ++k, to += 4) {
      const double* const p = from + k * distance;
      __builtin_prefetch(p + 8);  // the panel after next
      const __m128d low = _mm_loadu_pd(p), high = _mm_loadu_pd(p + 2);
      _mm_storeu_pd(to, low);
      _mm_storeu_pd(to + 2, high);
    }
    to = pad_panel(to, terms);
  }
}

// The terms of a lane lie side by side, and each lane is `distance` elements after the one before,
// so the values are transposed, 2 terms at a time.
inline void pack_contiguous_terms(std::size_t lanes, std::size_t terms, const double* from,
                                  std::size_t distance, double* to) {
  for (; lanes >= 4; lanes -= 4, from += 4 * distance) {
    const double* const lane[] = {from, from + distance, from + 2 * distance, from + 3 * distance};
    std::size_t k = 0;
    for (; k + 2 <= terms; k += 2, to += 8) {
      if (k % 8 == 0)  // a cache line of each lane of the next panel
        for (const double* const l : lane) __builtin_prefetch(l + 4 * distance + k);
      const __m128d a = _mm_loadu_pd(lane[0] + k), b = _mm_loadu_pd(lane[1] + k);
      const __m128d c = _mm_loadu_pd(lane[2] + k), d = _mm_loadu_pd(lane[3] + k);
      _mm_storeu_pd(to, _mm_unpacklo_pd(a, b));
      _mm_storeu_pd(to + 2, _mm_unpacklo_pd(c, d));
      _mm_storeu_pd(to + 4, _mm_unpackhi_pd(a, b));
      _mm_storeu_pd(to + 6, _mm_unpackhi_pd(c, d));
    }
    if (k < terms)
      for (std::size_t i = 0; i < 4; ++i) *to++ = lane[i][k];
    to = pad_panel(to, terms);
  }
}

}  // namespace
}  // namespace zorvac::array
#endif
