#ifndef ZORVAC_ARRAY_PACK_H
#define ZORVAC_ARRAY_PACK_H
// Packing a block of A or B into panels of 4 rows or columns, "lanes" here: for each k in order,
// the 4 values side by side, then zeros up to a multiple of 4 terms. Lanes past the last whole
// panel are left out.
//
// A panel is too short a stream for the processor to see the next one coming, so that is
// prefetched; what lies past the last one does no harm.
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

// The lanes lie side by side already, each k `distance` apart.
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

// The terms of a lane lie side by side, the lanes `distance` apart: pairs are transposed.
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
