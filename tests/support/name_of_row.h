#ifndef ZORVAC_TESTS_SUPPORT_NAME_OF_ROW_H
#define ZORVAC_TESTS_SUPPORT_NAME_OF_ROW_H
// Names the instances of a parameterised test by the `name` of their rows.
#include <gtest/gtest.h>

#include <string>

namespace zorvac::test {

inline constexpr auto name_of_row = [](const auto& row) -> std::string { return row.param.name; };

}  // namespace zorvac::test
#endif
