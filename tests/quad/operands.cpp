// Boundary and random operands.
#include "operands.h"

#include <algorithm>

#include "support/campaign.h"

namespace zorvac::test {
namespace {

constexpr uint128 fraction_mask = (uint128{1} << 112) - 1;
constexpr int no_exponent = 0x7fff;  // of a number

bits assemble(bool negative, int exponent, uint128 fraction) {
  return bits_of(uint128{negative} << 127 | static_cast<uint128>(exponent) << 112 |
                 (fraction & fraction_mask));
}
bits with_exponent(bits q, int exponent) {
  return assemble(q.high >> 63 != 0, exponent, word_of(q));
}

// Bits at both ends, around the word boundary and around the widths of the narrower formats. The
// two with 55: (1 + 2^-57) * (1 - 2^-57) is halfway between 1 - 2^-113 and 1.
constexpr uint128 sparse_fractions[] = {
    // clang-format off
    0, 1, 2, 3, uint128{1} << 55, uint128{1} << 63, uint128{1} << 64, uint128{1} << 110,
    uint128{1} << 111, uint128{1} << 59 | 1, (uint128{1} << 88) - 1, uint128{3} << 48,
    fraction_mask, fraction_mask - 1, fraction_mask << 1, fraction_mask << 55, fraction_mask << 59,
    fraction_mask << 60, fraction_mask << 88, fraction_mask ^ uint128{1} << 64,
    // clang-format on
};

// Boundary exponents x sparse significands x signs.
std::vector<bits> boundary_operands() {
  static constexpr int exponents[] = {0,      1,      2,           0x3fff - 65,  0x3fff - 1,
                                      0x3fff, 0x4000, 0x4000 + 62, 0x4000 + 112, 0x4000 + 126,
                                      0x7ffd, 0x7ffe, 0x7fff};
  std::vector<bits> operands;
  for (const bool negative : {false, true})
    for (const int e : exponents)
      for (const uint128 f : sparse_fractions) operands.push_back(assemble(negative, e, f));
  return operands;
}

// Pairs of numbers whose exponents differ by -130 to 130, whose product's or quotient's exponent
// lies within 130 of the smallest normal one, or at the edge of overflow.
void for_each_aligned_pair(const std::function<void(bits, bits)>& visit) {
  std::vector<std::pair<int, int>> exponents;
  for (int d = -130; d <= 130; ++d) {
    exponents.emplace_back(0x4000, 0x4000 + d);             // sum: every alignment
    exponents.emplace_back(d > 0 ? d : 0, d < 0 ? -d : 0);  // and among the subnormals
    exponents.emplace_back(0x2000, 0x1fff + d);             // product with biased exponent d
    exponents.emplace_back(0x1000, 0x4fff - d);             // quotient with biased exponent d
  }
  for (int d = -3; d <= 3; ++d) {
    exponents.emplace_back(0x6000, 0x5ffe + d);  // product at the edge of overflow
    exponents.emplace_back(0x6000, 0x2001 + d);  // quotient
    exponents.emplace_back(0x7ffe, 0x7ffb + d);  // sum
  }
  unsigned signs = 0;
  for (const auto& [x, y] : exponents)
    for (const uint128 f : sparse_fractions)
      for (const uint128 g : sparse_fractions) {
        ++signs;
        visit(assemble((signs & 1) != 0, x, f), assemble((signs / 3 & 1) != 0, y, g));
      }
}

}  // namespace

uint128 random_operands::fraction() {
  const uint128 any = uint128{random_()} << 64 | random_();
  const uint128 shapes[] = {
      uint128{1} << below(112) ^ uint128{1} << below(112),            // two bits
      (fraction_mask >> below(113)) ^ (fraction_mask >> below(113)),  // a run of ones
      any << below(112),                                              // few leading bits: ties
      fraction_mask - (any & fraction_mask) / (uint128{1} << below(112)),
  };
  const std::uint64_t shape = below(6);
  return shape < 4 ? shapes[shape] : any & fraction_mask;
}

unsigned random_operands::exponent() {
  static constexpr unsigned edges[] = {0, 1, 0x3fff, 0x7ffe};
  const std::uint64_t exponents[] = {(edges[below(4)] + below(4)) & 0x7fff,
                                     0x3fff - 130 + below(260), below(0x8000), below(0x8000)};
  return static_cast<unsigned>(exponents[below(4)]);
}

bits random_operands::operator()() {
  return assemble(below(2) != 0, static_cast<int>(exponent()), fraction());
}

std::pair<bits, bits> random_operands::pair() {
  const bits a = (*this)(), b = (*this)();
  const int ea = static_cast<int>(a.high >> 48 & 0x7fff);
  const int near = static_cast<int>(below(261)) - 130;
  const auto b_with = [&](int e) { return e < 0 || e >= no_exponent ? b : with_exponent(b, e); };
  switch (below(10)) {
    case 0:
      return {a, b_with(ea + near)};  // sums
    case 1:
      return {a, b_with(0x3fff - ea + near)};  // products around the smallest normal number
    case 2:
      return {a, b_with(ea + 0x3fff + near)};  // quotients there
    case 3: {                                  // quotients that are almost exact
      const answer product = oracle::arithmetic(oracle::operation::multiply, a, b, to_nearest);
      return {bits_of(product.value + below(5) - 2), b};
    }
    case 4:  // neighbours, which differ in one bit
      return {a, bits_of(word_of(a) ^ uint128{1} << below(128))};
    default:
      return {a, b};
  }
}

void for_each_pair(const std::function<void(bits, bits)>& visit) {
  const std::vector<bits> boundary = boundary_operands();
  for (const bits a : boundary)
    for (const bits b : boundary) visit(a, b);
  for_each_aligned_pair(visit);
  random_operands random(4);
  for (long i = random_cases(100'000); i > 0; --i) {
    const auto [a, b] = random.pair();
    visit(a, b);
  }
}

void for_each_quad(const visitor& visit) {
  const auto number = [&](int exponent, const bits& q) {
    visit(word_of(with_exponent(q, std::clamp(exponent, 0, 0x7ffe))));
  };
  for (const bits q : boundary_operands()) visit(word_of(q));

  // At, beside and halfway between numbers that end at bit `cut`.
  const auto around = [&](int e, int cut) {
    for (const uint128 kept : {uint128{0}, uint128{1}, ~uint128{0}, ~uint128{1}})
      for (const int beside : {-1, 0, 1})
        for (const uint128 lost : {uint128{0}, uint128{1} << (cut - 1)})
          number(e,
                 assemble((cut & 1) != 0, 0, (kept << cut) + lost + static_cast<uint128>(beside)));
  };
  for (int e = -2; e <= 72; ++e)  // integers
    for (int cut = std::max(1, 109 - e); cut <= std::min(111, 114 - e); ++cut)
      around(0x3fff + e, cut);
  for (const oracle::format to : {oracle::binary32, oracle::binary64, oracle::x87}) {
    const int bias = (1 << (to.exponent_bits - 1)) - 1;
    std::vector<int> exponents = {0, bias - 1, bias, bias + 1};
    for (int e = 0; e <= to.precision + 2; e += e < 3 || e > to.precision - 2 ? 1 : 7)
      exponents.push_back(1 - bias - e);
    for (const int e : exponents)
      for (int cut = 1; cut < 112; ++cut) around(0x3fff + e, cut);
  }

  random_operands random(8);
  for (long i = random_cases(30'000); i > 0; --i) {
    const bits q = random();
    visit(word_of(q));
    for (const int span : {135, 290, 2200})  // exponents of integers, of binary32 and of binary64
      number(0x3fff - (span > 135 ? span / 2 : 4) + static_cast<int>(i % span), q);
  }
}

void for_each_word(oracle::format f, const visitor& visit) {
  const int fraction_bits = f.precision - 1, exponent_at = fraction_bits + f.leading_one_stored;
  const uint128 ones = (uint128{1} << fraction_bits) - 1, top = uint128{1} << (fraction_bits - 1);
  std::mt19937_64 random(9);
  const auto any = [&] { return uint128{random()} << 64 | random(); };
  const int exponents = 1 << f.exponent_bits, bias = exponents / 2 - 1;
  const auto word = [&](bool negative, int e, uint128 fraction) {
    const uint128 leading = f.leading_one_stored && e != 0 ? uint128{1} << fraction_bits : 0;
    visit((any() << 1 | uint128{negative}) << (exponent_at + f.exponent_bits) |
          static_cast<uint128>(e) << exponent_at | leading | (fraction & ones));
  };
  for (int e = 0; e < exponents; ++e) {
    const bool edge = e < 100 || e > exponents - 100 || (e > bias - 5 && e < bias + 135);
    if (!edge && e % 13 != 0) continue;
    for (const bool negative : {false, true})
      for (const uint128 fraction : {uint128{0}, uint128{1}, uint128{2}, ones, ones - 1, top,
                                     top | 1, top - 1, top >> 1, ones >> 3, any(), any(), any()})
        word(negative, e, fraction);
  }
  for (long i = random_cases(250'000); i > 0; --i) {  // in turn any number, and 1/16 to 2^132
    const int integral = std::min(bias - 4 + static_cast<int>(i % 137), exponents - 1);
    word((i & 2) != 0,
         (i & 1) != 0 ? integral : static_cast<int>(random() % static_cast<unsigned>(exponents)),
         any());
  }
}

void for_each_integer(const visitor& visit) {
  const auto both = [&](uint128 n) {
    visit(n);
    visit(-n);
  };
  for (int k = 0; k < 128; ++k)
    for (int d = -2; d <= 2; ++d) both((uint128{1} << k) + static_cast<uint128>(d));
  std::mt19937_64 random(13);
  const auto any = [&] { return uint128{random()} << 64 | random(); };
  for (const int precision : {24, 53, 64, 113})
    for (int lost = 1; lost <= 128 - precision; ++lost)
      for (int i = 0; i < 20; ++i) {
        const uint128 leading = uint128{1} << (precision - 1);
        const uint128 kept =
            i < 4 ? 2 * leading - 1 - static_cast<uint128>(i) : leading | (any() & (leading - 1));
        for (const int beside : {-1, 0, 1})
          for (const uint128 tail : {uint128{0}, uint128{1} << (lost - 1)})
            both((kept << lost) + tail + static_cast<uint128>(beside));
      }
  for (long i = random_cases(120'000); i > 0; --i) both(any() >> random() % 128);
}

}  // namespace zorvac::test
