#ifndef ZORVAC_ARRAY_LEVELS_H
#define ZORVAC_ARRAY_LEVELS_H
// The registers that matrix products are computed in, level by level, with one interface.
//
// The last elements of a column may not fill a register. The lanes without an element of their own
// then repeat the first element. They compute the same values as its lane, so they raise no
// exception flag that the matrix product itself does not raise. They are never stored.
//
// Everything in here has internal linkage, so that no other source can get a copy that was compiled
// for AVX.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace zorvac::array {
namespace {

// A vector of `Bytes` bytes of `Scalar`, anywhere in memory.
template <class Scalar, std::size_t Bytes>
struct vector {
  typedef Scalar reg __attribute__((vector_size(Bytes)));
  typedef Scalar anywhere __attribute__((vector_size(Bytes), aligned(1), may_alias));
  static reg load(const void* p) { return *static_cast<const anywhere*>(p); }
  static void store(void* p, reg v) { *static_cast<anywhere*>(p) = v; }
};

// Makes the compiler have the value in a register at this point. Without it, compilers finish one
// sum over several terms before they start the next, and run out of registers; or they load an
// operand again at each use. Either costs these loops half of their speed.
template <class Reg>
[[gnu::always_inline]] inline void hold(Reg& x) {
  asm volatile("" : "+v"(x));
}

// Not those of core/unaligned.h: with these, g++ assigns registers worse in some kernels.
template <class Word>
Word load_word(const void* p) {
  typedef Word anywhere __attribute__((aligned(1), may_alias));
  return *static_cast<const anywhere*>(p);
}
template <class Word>
void store_word(void* p, Word word) {
  typedef Word anywhere __attribute__((aligned(1), may_alias));
  *static_cast<anywhere*>(p) = word;
}

// A level has these members:
//   bytes                the size of a register
//   ..._tile_registers   registers of rows in a tile of C, for real and for complex elements: as
//                        many as still leave the sums of four columns, the rows and a factor in
//                        registers
//   prefix<ElementBytes> loads and stores the first few elements of a register
//   has_masks            `prefix` needs one masked instruction for a load, and one for a store
//   spread               puts one value into every lane
//   side_by_side         loads 16 bytes of as many places as a register has room for
//   low_32, high_64, ... interleave the lower or upper elements in each 16 bytes of two registers
//   turned               exchanges the two parts of each complex number, for its product with i
//   plus_turned          adds x, a product with the pairs, and y, a product with the turned pairs.
//                        i times (ar, ai) is (-ai, ar): `turned` flips the sign of ai, unless the
//                        level has an instruction that lets `plus_turned` do it

// Plain x86-64.
struct sse2 {
  static constexpr std::size_t bytes = 16;
  static constexpr int real_tile_registers = 2, complex_tile_registers = 2;
  static constexpr bool has_masks = false;

  template <std::size_t ElementBytes>
  struct prefix {
    using word = std::conditional_t<ElementBytes == 4, std::uint32_t, std::uint64_t>;
    using reg = typename vector<word, bytes>::reg;
    static constexpr std::size_t words = bytes / sizeof(word);
    std::size_t count;  // words; an element of 16 bytes always fills the register

    explicit prefix(std::size_t elements) : count(elements) {}
    [[nodiscard]] reg load(const void* p) const {
      const auto* const from = static_cast<const char*>(p);
      reg v{};
      for (std::size_t i = 0; i < words; ++i)
        v[i] = load_word<word>(from + (i < count ? i : 0) * sizeof(word));
      return v;
    }
    void store(void* p, reg v) const {
      auto* const to = static_cast<char*>(p);
      for (std::size_t i = 0; i < words; ++i)
        if (i < count) store_word<word>(to + i * sizeof(word), v[i]);
    }
  };

  static __m128i side_by_side(const void* only, const void*) {
    return _mm_loadu_si128(static_cast<const __m128i*>(only));
  }
  static __m128i low_32(__m128i a, __m128i b) { return _mm_unpacklo_epi32(a, b); }
  static __m128i high_32(__m128i a, __m128i b) { return _mm_unpackhi_epi32(a, b); }
  static __m128i low_64(__m128i a, __m128i b) { return _mm_unpacklo_epi64(a, b); }
  static __m128i high_64(__m128i a, __m128i b) { return _mm_unpackhi_epi64(a, b); }

  static __m128d spread(double x) { return _mm_set1_pd(x); }
  static __m128 spread(float x) { return _mm_set1_ps(x); }
  static __m128d turned(__m128d a) {
    const __m128d flipped = _mm_xor_pd(a, _mm_setr_pd(0.0, -0.0));
    return _mm_shuffle_pd(flipped, flipped, 1);
  }
  static __m128 turned(__m128 a) {
    const __m128 flipped = _mm_xor_ps(a, _mm_setr_ps(0.0f, -0.0f, 0.0f, -0.0f));
    return _mm_shuffle_ps(flipped, flipped, 0xb1);
  }
  static __m128d plus_turned(__m128d x, __m128d y) { return x + y; }
  static __m128 plus_turned(__m128 x, __m128 y) { return x + y; }
};

#ifdef __SSE3__
struct sse3 : sse2 {
  static __m128d turned(__m128d a) { return _mm_shuffle_pd(a, a, 1); }
  static __m128 turned(__m128 a) { return _mm_shuffle_ps(a, a, 0xb1); }
  static __m128d plus_turned(__m128d x, __m128d y) { return _mm_addsub_pd(x, y); }
  static __m128 plus_turned(__m128 x, __m128 y) { return _mm_addsub_ps(x, y); }
};
#endif

#ifdef __AVX2__
struct avx2 {
  static constexpr std::size_t bytes = 32;
  static constexpr int real_tile_registers = 2, complex_tile_registers = 2;
  static constexpr bool has_masks = true;

  template <std::size_t ElementBytes>
  struct prefix {
    __m256i mask;

    explicit prefix(std::size_t elements)
        : mask(_mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(elements * ElementBytes / 4)),
                                  _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7))) {}
    static __m256i repeat(const void* p) {
      if constexpr (ElementBytes == 4) return _mm256_set1_epi32(load_word<int>(p));
      if constexpr (ElementBytes == 8) return _mm256_set1_epi64x(load_word<long long>(p));
      return _mm256_broadcastsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(p)));
    }
    [[nodiscard]] __m256i load(const void* p) const {
      const __m256i some = _mm256_maskload_epi32(static_cast<const int*>(p), mask);
      return _mm256_blendv_epi8(repeat(p), some, mask);
    }
    void store(void* p, __m256i v) const { _mm256_maskstore_epi32(static_cast<int*>(p), mask, v); }
  };

  static __m256i side_by_side(const void* low, const void* high) {
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(low))),
        _mm_loadu_si128(static_cast<const __m128i*>(high)), 1);
  }
  static __m256i low_32(__m256i a, __m256i b) { return _mm256_unpacklo_epi32(a, b); }
  static __m256i high_32(__m256i a, __m256i b) { return _mm256_unpackhi_epi32(a, b); }
  static __m256i low_64(__m256i a, __m256i b) { return _mm256_unpacklo_epi64(a, b); }
  static __m256i high_64(__m256i a, __m256i b) { return _mm256_unpackhi_epi64(a, b); }

  static __m256d spread(double x) { return _mm256_set1_pd(x); }
  static __m256 spread(float x) { return _mm256_set1_ps(x); }
  static __m256d turned(__m256d a) { return _mm256_permute_pd(a, 0x5); }
  static __m256 turned(__m256 a) { return _mm256_permute_ps(a, 0xb1); }
  static __m256d plus_turned(__m256d x, __m256d y) { return _mm256_addsub_pd(x, y); }
  static __m256 plus_turned(__m256 x, __m256 y) { return _mm256_addsub_ps(x, y); }
};
#endif

#ifdef __AVX512VL__
// The same width, which was measured to be the fastest, with mask registers and twice as many
// vector registers.
struct avx512 : avx2 {
  static constexpr int real_tile_registers = 4, complex_tile_registers = 2;

  template <std::size_t ElementBytes>
  struct prefix {
    __mmask8 mask;

    explicit prefix(std::size_t elements)
        : mask(static_cast<__mmask8>((1u << elements * ElementBytes / 4) - 1)) {}
    [[nodiscard]] __m256i load(const void* p) const {
      return _mm256_mask_loadu_epi32(avx2::prefix<ElementBytes>::repeat(p), mask, p);
    }
    void store(void* p, __m256i v) const { _mm256_mask_storeu_epi32(p, mask, v); }
  };
};
#endif

// Transposes elements of rows into columns, for elements of a size at a level.
template <class Level, std::size_t ElementBytes>
struct square {
  static constexpr std::size_t terms_of_16_bytes = 16 / ElementBytes;
  using whole = vector<std::uint64_t, Level::bytes>;

  // Takes 16 bytes of each of as many rows as a register holds elements. `place(r)` is where they
  // are in row r. Calls `give` for each of the columns, with its number.
  template <class Place, class Give>
  [[gnu::always_inline]] static void transpose(const Place& place, const Give& give) {
    // The rows that share a register are as far from each other as it has elements in 16 bytes.
    const auto rows = [&](std::size_t r) {
      return Level::side_by_side(place(r), place(Level::bytes > 16 ? r + terms_of_16_bytes : r));
    };
    const auto give_column = [&](std::size_t number, auto elements) {
      give(number, reinterpret_cast<typename whole::reg>(elements));
    };
    if constexpr (ElementBytes == 16) {
      give_column(0, rows(0));
    } else if constexpr (ElementBytes == 8) {
      const auto a = rows(0), b = rows(1);
      give_column(0, Level::low_64(a, b));
      give_column(1, Level::high_64(a, b));
    } else {
      const auto a = rows(0), b = rows(1), c = rows(2), d = rows(3);
      const auto low_ab = Level::low_32(a, b), high_ab = Level::high_32(a, b);
      const auto low_cd = Level::low_32(c, d), high_cd = Level::high_32(c, d);
      give_column(0, Level::low_64(low_ab, low_cd));
      give_column(1, Level::high_64(low_ab, low_cd));
      give_column(2, Level::low_64(high_ab, high_cd));
      give_column(3, Level::high_64(high_ab, high_cd));
    }
  }
};

// An element type over a level. It defines an operand of A (several rows in a register), a factor
// of B (one element, spread over all lanes), and their product.
template <class Level, class Scalar>
struct real : square<Level, sizeof(Scalar)> {
  using level = Level;
  using element = Scalar;
  using memory = vector<Scalar, Level::bytes>;
  using reg = typename memory::reg;
  using prefix = typename Level::template prefix<sizeof(element)>;
  using operand = reg;
  using factor = reg;
  static constexpr std::size_t width = Level::bytes / sizeof(element);
  static constexpr int tile_registers = Level::real_tile_registers;
  static constexpr bool products_first = true;  // of a column of the tile, then its sums

  static operand as_operand(reg a) { return a; }
  static factor as_factor(const element& b) { return Level::spread(b); }
  static void hold_factor(factor& b) { hold(b); }
  static reg product(operand a, factor b) { return a * b; }
};

template <class Scalar>
struct complex_number {
  Scalar re, im;
  friend complex_number operator+(complex_number a, complex_number b) {
    return {a.re + b.re, a.im + b.im};
  }
};

// The product (ar br - ai bi, ar bi + ai br) is the pair a br plus the pair (-ai, ar) bi.
template <class Level, class Scalar>
struct complex : square<Level, 2 * sizeof(Scalar)> {
  using level = Level;
  using element = complex_number<Scalar>;
  using memory = vector<Scalar, Level::bytes>;
  using reg = typename memory::reg;
  using prefix = typename Level::template prefix<sizeof(element)>;
  struct operand {
    reg straight, turned;
  };
  struct factor {
    reg re, im;
  };
  static constexpr std::size_t width = Level::bytes / sizeof(element);
  static constexpr int tile_registers = Level::complex_tile_registers;
  static constexpr bool products_first = Level::bytes == 16;

  static operand as_operand(reg a) { return {a, Level::turned(a)}; }
  static factor as_factor(const element& b) { return {Level::spread(b.re), Level::spread(b.im)}; }
  static void hold_factor(factor& b) {
    hold(b.re);
    hold(b.im);
  }
  static reg product(operand a, factor b) {
    return Level::plus_turned(a.straight * b.re, a.turned * b.im);
  }
};

}  // namespace
}  // namespace zorvac::array
#endif
