// The shared library from outside: this program stands in for every routine that another one of the
// array family calls, notes the call and passes it on. So it sees which variant an indicator
// selects, in which order the extents arrive, and the steps of the blocked kernels.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <sstream>

#include "array/matrix.h"
#include "zorvac/cpu.h"

namespace {

using zorvac::test::u64;

std::vector<std::string> calls;
bool kernels_run;  // or are only noted
const char *a_base, *b_base, *c_base;
const double *packed_a, *packed_b, *strip;

// Notes a call: pointers by the element that they point to, from the start of a matrix.
template <class... Arguments>
void note(const std::string& name, const Arguments&... arguments) {
  std::ostringstream line;
  line << name;
  ((line << ' ' << arguments), ...);
  calls.push_back(line.str());
}
u64 bytes_from(const void* p, const char* base) {
  return static_cast<u64>(static_cast<const char*>(p) - base);
}
template <class Function>
Function* next(const char* symbol) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

}  // namespace

namespace zorvac::test {

void pass_product(const char* symbol, bool runs, const void* a, const void* b, void* c, u64 x,
                  u64 y, u64 z, u64 lda, u64 ldb, u64 ldc) {
  note(symbol, bytes_from(a, a_base), bytes_from(b, b_base), bytes_from(c, c_base), x, y, z, lda,
       ldb, ldc);
  if (runs) next<product_fn>(symbol)(a, b, c, x, y, z, lda, ldb, ldc);
}
extern "C" {
#define PASS_PRODUCT(id, symbol, runs)                                                             \
  product_fn id __asm__(symbol);                                                                   \
  void id(const void* a, const void* b, void* c, u64 x, u64 y, u64 z, u64 lda, u64 ldb, u64 ldc) { \
    pass_product(symbol, runs, a, b, c, x, y, z, lda, ldb, ldc);                                   \
  }
#define PASS_TYPE(type, a, b)                                                             \
  PASS_PRODUCT(generic_##type##_##a##_##b, "_MATMUL_" #type "_" #a "_" #b ".A", true)     \
  PASS_PRODUCT(general_##type##_##a##_##b, "_MATMUL_" #type "_" #a "_" #b "_pst_General", \
               kernels_run)
#define PASS_BLOCKED(type, a, b)                                                   \
  PASS_PRODUCT(fast_##type##_##a##_##b, "_MATMUL_" #type "_" #a "_" #b ".J", true) \
  PASS_PRODUCT(blocked_##type##_##a##_##b, "_MATMUL_" #type "_" #a "_" #b "_XK64w", kernels_run)
#define PASS_CLEAR(type)                                                        \
  void _MATMUL_##type##_n_n_pst_init(void* c, u64 rows, u64 columns, u64 ldc) { \
    const char* const symbol = "_MATMUL_" #type "_n_n_pst_init";                \
    note(symbol, bytes_from(c, c_base), rows, columns, ldc);                    \
    if (kernels_run) next<clear_fn>(symbol)(c, rows, columns, ldc);             \
  }
#define PASS_ALL(type) ZORVAC_TEST_STORAGES(PASS_TYPE, type) PASS_CLEAR(type)
PASS_ALL(r4)
PASS_ALL(r8)
PASS_ALL(c4)
PASS_ALL(c8)
ZORVAC_TEST_STORAGES(PASS_BLOCKED, r8)

#define PASS_COPY(name, operand)                                          \
  void name(u64 x, u64 y, const double* source, u64 ld, double* packed) { \
    note(#name, x, y, bytes_from(source, operand##_base), ld);            \
    packed_##operand = packed;                                            \
    next<copy_fn>(#name)(x, y, source, ld, packed);                       \
  }
PASS_COPY(__zorva_dgcopyan_xk64w, a)
PASS_COPY(__zorva_dgcopyat_xk64w, a)
PASS_COPY(__zorva_dgcopybn_psc, b)
PASS_COPY(__zorva_dgcopybt_psc, b)

#define PASS_INNER(name)                                                                         \
  void name(const u64* m, const u64* n, const u64* kp, const double* a, const double* b,         \
            const u64* block, double* c, const u64* ldc, double* duplicated, const u64* zeros) { \
    note(#name, *m, *n, *kp, bytes_from(c, c_base), *ldc);                                       \
    EXPECT_TRUE(a == packed_a && b == packed_b && *block == 112 && zeros[0] == 0 &&              \
                zeros[1] == 0);                                                                  \
    strip = duplicated;                                                                          \
    next<decltype(name)>(#name)(m, n, kp, a, b, block, c, ldc, duplicated, zeros);               \
  }
PASS_INNER(__zorva_dinnerz_roll_xk64w)
PASS_INNER(__zorva_dinner_xk64w)

#define NOTE_VECTOR(storages, parameters, ...)                                                   \
  void MATMUL_v_##storages##_pst(const double* a, const double* b, double* c, u64 x, u64 y,      \
                                 u64 lda parameters) {                                           \
    note("v_" #storages, bytes_from(a, a_base), bytes_from(b, b_base), bytes_from(c, c_base), x, \
         y, lda __VA_ARGS__);                                                                    \
  }
#define AND ,
NOTE_VECTOR(nn, )
NOTE_VECTOR(tn, )
NOTE_VECTOR(nt, AND u64 ldb, AND ldb)
NOTE_VECTOR(tt, AND u64 ldb, AND ldb)

// Detection promises to change no register.
static u64 detected;
static int detections;
__attribute__((no_caller_saved_registers, target("general-regs-only"))) void detection() __asm__(
    "__zorva_cpu_features_init");
void detection() {
  ++detections;
  __zorva_cpu_feature_indicator = detected;
}

#define NOTE_QUAD(result, name, ...) \
  result name(__VA_ARGS__) {         \
    note(#name);                     \
    return result();                 \
  }
NOTE_QUAD(void, __addq, void*, const void*, const void*)
NOTE_QUAD(void, __subq, void*, const void*, const void*)
NOTE_QUAD(void, __mulq, void*, const void*, const void*)
NOTE_QUAD(void, __cmulq, void*, const void*, const void*, const void*, const void*)
NOTE_QUAD(int, __leq, const void*, const void*)
NOTE_QUAD(int, __geq, const void*, const void*)
void* _zorva_fast_memset(void* target, int value, std::size_t bytes) {
  note("_zorva_fast_memset", value, bytes);
  return target;
}
}

namespace {

using strings = std::vector<std::string>;

template <class... Words>
std::string line(const Words&... words) {
  std::ostringstream text;
  ((text << words << ' '), ...);
  std::string s = text.str();
  s.pop_back();
  return s;
}

// The calls that an entry makes, the extents in the order of entries, then of kernels.
template <class E>
void expect_calls(const std::string& type, u64 indicator, u64 detects, int expected_detections) {
  for (const routines& r : routines_of<E>) {
    const std::string stem = "_MATMUL_" + type + '_' + r.a + '_' + r.b;
    const char base[] = "abc";
    a_base = b_base = c_base = base;
    calls.clear();
    detections = 0;
    detected = detects;
    __zorva_cpu_feature_indicator = indicator;
    r.entry(base + 1, base + 2, const_cast<char*>(base) + 3, 2, 3, 4, 5, 6, 7);
    const u64 known = expected_detections != 0 ? detects : indicator;
    if (type == "r8" && (known & 0x7f) == 0x7f)
      EXPECT_EQ(calls, (strings{stem + ".J 1 2 3 2 3 4 5 6 7", stem + "_XK64w 1 2 3 2 4 3 5 6 7"}));
    else
      EXPECT_EQ(calls,
                (strings{stem + ".A 1 2 3 2 3 4 5 6 7", "_MATMUL_" + type + "_n_n_pst_init 3 2 4 7",
                         stem + "_pst_General 1 2 3 2 4 3 5 6 7"}));
    EXPECT_EQ(detections, expected_detections) << stem << ' ' << std::hex << indicator;
  }
}

TEST(MatrixDispatch, SelectsByTheIndicatorAndSwapsTheExtents) {
  kernels_run = false;
  struct {
    u64 indicator, detected;
    int detections;
  } static const rows[] = {{0x7f, 0, 0},    {0xff, 0, 0},    {~u64{0}, 0, 0}, {1, 0, 0},
                           {0x3f, 0, 0},    {0x5f, 0, 0},    {0x7d, 0, 0},    {0x6f, 0, 0},
                           {0x77, 0, 0},    {0x7b, 0, 0},    {0, 1, 1},       {0, 0x7f, 1},
                           {0x7e, 0x7f, 1}, {0xfe, 0x3f, 1}, {~u64{1}, 1, 1}};
  for (const auto& row : rows) {
    expect_calls<float>("r4", row.indicator, row.detected, row.detections);
    expect_calls<double>("r8", row.indicator, row.detected, row.detections);
    expect_calls<std::complex<float>>("c4", row.indicator, row.detected, row.detections);
    expect_calls<std::complex<double>>("c8", row.indicator, row.detected, row.detections);
  }
}

TEST(MatrixDispatch, OfComplexGeneralKernelsDetectsOnce) {
  for (const std::string type : {"c4", "c8"})
    for (const std::string storages : {"n_n", "t_n", "n_t", "t_t"})
      for (const u64 found : {u64{1}, u64{0xff}}) {
        const std::complex<double> i[2] = {{0, 1}, {0, 1}};
        const std::complex<float> i4[2] = {{0, 1}, {0, 1}};
        std::complex<double> c = 1;
        std::complex<float> c4 = 1;
        detections = 0;
        detected = found;
        __zorva_cpu_feature_indicator = 0xfe;
        const auto general =
            next<product_fn>(("_MATMUL_" + type + '_' + storages + "_pst_General").c_str());
        if (type == "c8")
          general(i, i, &c, 1, 1, 1, 1, 1, 1);
        else
          general(i4, i4, &c4, 1, 1, 1, 1, 1, 1);
        EXPECT_EQ(detections, 1);
        EXPECT_EQ(type == "c8" ? c : std::complex<double>(c4), 0.0);  // 1 + i i
      }
}

// Every step of a blocked kernel, in order, with its extents and places.
TEST(BlockedKernel, TakesItsSteps) {
  kernels_run = true;
  __zorva_cpu_feature_indicator = 0x7f;
  const u64 m = 525, k = 115 + 112, n = 2007, kb0 = 3, kp0 = 4, panel = 2000;
  operands<double> x({m, k, n});
  for (const routines& r : routines_of<double>) {
    x.store_for(r);
    const matrix<double>&sa = x.sa, &sb = x.sb, c = x.result();
    a_base = reinterpret_cast<const char*>(sa.data());
    b_base = reinterpret_cast<const char*>(sb.data());
    c_base = reinterpret_cast<const char*>(c.data());
    const auto a_at = [&](u64 i, u64 kk) {
      return 8 * (r.a == 'n' ? i + kk * sa.ld() : kk + i * sa.ld());
    };
    const auto b_at = [&](u64 kk, u64 j) {
      return 8 * (r.b == 'n' ? kk + j * sb.ld() : j + kk * sb.ld());
    };
    const auto c_at = [&](u64 i, u64 j) { return 8 * (i + j * c.ld()); };
    const std::string stem = std::string("_MATMUL_r8_") + r.a + '_' + r.b;
    const std::string copy_a = std::string("__zorva_dgcopya") + r.a + "_xk64w";
    const std::string copy_b = std::string("__zorva_dgcopyb") + r.b + "_psc";
    strings expected;
    for (const auto& [j0, w] : {std::pair{u64{0}, panel}, {panel, u64{4}}})
      for (const auto& [k0, kb] :
           {std::pair{k - kb0, kb0}, {u64{0}, u64{112}}, {u64{112}, u64{112}}}) {
        const bool first = kb == kb0;
        expected.push_back(line(copy_b, kb, w, b_at(k0, j0), sb.ld()));
        for (const auto& [i0, h] :
             {std::pair{u64{0}, u64{260}}, {u64{260}, u64{260}}, {u64{520}, u64{4}}}) {
          expected.push_back(line(copy_a, h, kb, a_at(i0, k0), sa.ld()));
          expected.push_back(line(first ? "__zorva_dinnerz_roll_xk64w" : "__zorva_dinner_xk64w", h,
                                  w, first ? kp0 : kb, c_at(i0, j0), c.ld()));
        }
        if (first)
          expected.push_back(line("_MATMUL_r8_n_n_pst_init", c_at(m - 1, j0), 1, w, c.ld()));
        expected.push_back(line(stem + "_pst_General", a_at(m - 1, k0), b_at(k0, j0),
                                c_at(m - 1, j0), 1, w, kb, sa.ld(), sb.ld(), c.ld()));
      }
    for (u64 j = n / 4 * 4; j < n; ++j) {
      const bool m_first = r.a == 'n';
      std::string step = line(std::string("v_") + r.a + r.b, 0, b_at(0, j), c_at(0, j),
                              m_first ? m : k, m_first ? k : m, sa.ld());
      if (r.b == 't') step += line("", sb.ld());
      expected.push_back(step);
    }
    calls.clear();
    next<product_fn>((stem + "_XK64w").c_str())(sa.data(), sb.data(), c.data(), m, n, k, sa.ld(),
                                                sb.ld(), c.ld());
    ASSERT_EQ(calls, expected) << stem;
    EXPECT_EQ(reinterpret_cast<u64>(packed_a) % 4096, 0u);
    EXPECT_EQ(reinterpret_cast<u64>(packed_b) - reinterpret_cast<u64>(packed_a), 0x3b000u);
    EXPECT_EQ(reinterpret_cast<u64>(strip) % 128, 0u);
  }
}

TEST(Reductions, CallTheQuadRoutinesAndTheFill) {
  unsigned char t[64] = {}, p[64] = {};
  const auto expect = [&](std::uint32_t type, std::uint32_t op, const strings& expected) {
    calls.clear();
    __zorva_simd_reduction_final_array(t, p, 2, 0, 0, op, type);
    EXPECT_EQ(calls, expected) << type << ' ' << op;
  };
  expect(13, 1, {"__addq", "__addq"});
  expect(13, 2, {"__mulq", "__mulq"});
  expect(13, 3, {"__subq", "__subq"});
  expect(13, 4, {"__leq", "__leq"});
  expect(13, 5, {"__geq", "__geq"});
  expect(23, 1, {"__addq", "__addq", "__addq", "__addq"});
  expect(23, 2, {"__cmulq", "__cmulq"});
  expect(23, 3, {"__subq", "__subq", "__subq", "__subq"});
  calls.clear();
  __zorva_reduction_init_array(t, 3, 5, 2);
  __zorva_reduction_init_array(t, 0x1fe, 0, 1);
  EXPECT_EQ(calls, (strings{"_zorva_fast_memset 127 3", "_zorva_fast_memset 254 510"}));
}

}  // namespace
}  // namespace zorvac::test
