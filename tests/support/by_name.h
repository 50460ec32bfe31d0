// Names of table rows as names of parameterized tests: a row has a member `name`.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace vx::test {

inline constexpr auto byName = [](const auto& row) { return std::string(row.param.name); };

}  // namespace vx::test
