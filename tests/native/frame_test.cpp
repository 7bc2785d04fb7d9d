#include <gtest/gtest.h>

#include "frame/arith.h"

namespace valmetra {
namespace {

TEST(RoundHalfEven, Halves) {
  struct Case { double in; double out; };
  for (auto c : {Case{2.5, 2}, Case{3.5, 4}, Case{-2.5, -2}, Case{-3.5, -4}, Case{0.5, 0},
                 Case{-0.5, -0.0}, Case{1.4999999999999998, 1}, Case{2.5000000000000004, 3}}) {
    EXPECT_EQ(round_half_even(c.in), c.out) << c.in;
  }
}

}  // namespace
}  // namespace valmetra
