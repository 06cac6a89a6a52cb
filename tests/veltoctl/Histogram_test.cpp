#include "tools/veltoctl/Histogram.h"

#include <gtest/gtest.h>

namespace velto::ctl {

TEST(AHistogram, TellsPercentilesToASixteenth) {
  Histogram histogram;
  for (std::uint64_t each = 1; each <= 10000; ++each) histogram.count(each * 1000);
  EXPECT_EQ(histogram.total(), 10000u);
  EXPECT_EQ(histogram.least(), 1000u);
  EXPECT_EQ(histogram.greatest(), 10'000'000u);
  for (const double part : {0.5, 0.9, 0.99, 0.999}) {
    const double right = part * 1e7;
    EXPECT_GE(static_cast<double>(histogram.percentile(part)), right);
    EXPECT_LE(static_cast<double>(histogram.percentile(part)), right * 17 / 16);
  }
  EXPECT_EQ(histogram.percentile(1), histogram.greatest());
}

TEST(AHistogram, TakesEveryDuration) {
  Histogram histogram;
  for (const std::uint64_t each :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{15}, std::uint64_t{16}, UINT64_MAX}) {
    histogram.count(each);
  }
  EXPECT_EQ(histogram.total(), 5u);
  EXPECT_EQ(histogram.percentile(1), UINT64_MAX);
  EXPECT_EQ(histogram.percentile(0.2), 0u);
}

TEST(AHistogram, OfNothingHasNothing) {
  const Histogram histogram;
  EXPECT_EQ(histogram.percentile(0.5), 0u);
  EXPECT_EQ(histogram.least(), 0u);
  EXPECT_TRUE(histogram.octaves().empty());
}

TEST(AHistogram, HasClassesWithoutTheEmptyOnesAtBothEnds) {
  Histogram histogram;
  histogram.count(100);
  histogram.count(1000);
  const auto octaves = histogram.octaves();
  ASSERT_EQ(octaves.size(), 4u);
  EXPECT_EQ(octaves.front(), (std::pair<std::uint64_t, std::uint64_t>(127, 1)));
  EXPECT_EQ(octaves.back(), (std::pair<std::uint64_t, std::uint64_t>(1023, 1)));
}

}  // namespace velto::ctl
