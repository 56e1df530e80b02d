// The dispatchers of the letter-coded start-up checks, as a program sees them that defines all 40
// variants itself (stand_ins.S): which variant each takes for which indicator, that a program can
// replace every variant, and that the stubs leave all registers alone, the flags word among them.
#include "support/dispatch.h"

#include "zorvac/startup.h"

namespace {

using namespace zorvac::test;

struct dispatcher {
  std::string name;
  void* routine;
  std::vector<std::pair<std::uint64_t, const char*>> levels;

  [[nodiscard]] selections rows() const {
    selections all;
    for (const auto& [mask, letter] : levels) all.push_back({mask, name + '.' + letter});
    all.push_back({1, name + ".A"});
    return all;
  }
};
#define DISPATCHER(name, ...)                                                  \
  {                                                                            \
    "__zorva_" #name, reinterpret_cast<void*>(__zorva_##name), { __VA_ARGS__ } \
  }
const dispatcher dispatchers[] = {
    DISPATCHER(new_proc_init, {0x3f, "H"}),
    DISPATCHER(new_proc_init_B, {0xff, "L"}, {0x7f, "K"}),
    DISPATCHER(new_proc_init_N, {0xff, "L"}, {0x7f, "K"}),
    DISPATCHER(new_proc_init_P, {0xff, "L"}),
    DISPATCHER(new_proc_init_T, {0x1ff, "M"}),
    DISPATCHER(new_proc_init_L, {0x1ff, "O"}),
    DISPATCHER(new_proc_init_S, {0x3ff, "N"}),
    DISPATCHER(new_proc_init_H, {0x17ff, "P"}),
    DISPATCHER(new_proc_init_G, {0x117ff, "R"}),
    DISPATCHER(new_proc_init_I, {0x197ff, "S"}),
    DISPATCHER(new_proc_init_E, {0x9d97ff, "V"}),
    DISPATCHER(proc_init, {0x3f, "H"}),
    DISPATCHER(proc_init_B, {0xff, "L"}, {0x7f, "K"}),
    DISPATCHER(proc_init_N, {0xff, "L"}, {0x7f, "K"}),
    DISPATCHER(proc_init_P, {0xff, "L"}),
    DISPATCHER(proc_init_T, {0x1ff, "M"}),
};

TEST(StartupDispatch, TakesTheFirstMaskThatIsWhollyPresent) {
  for (const dispatcher& d : dispatchers) {
    SCOPED_TRACE(d.name);
    expect_selections(d.routine, d.rows());
  }
}

TEST(StartupDispatch, DetectsFirstWhenNothingIsKnown) {
  for (const dispatcher& d : dispatchers) {
    __zorva_cpu_feature_indicator = 0;
    const std::string variant = taken_from(d.routine);  // detection, too, changes no register
    EXPECT_EQ(__zorva_cpu_feature_indicator & 1, 1u);
    EXPECT_EQ(variant, selected(d.rows(), __zorva_cpu_feature_indicator));
  }
}

}  // namespace
