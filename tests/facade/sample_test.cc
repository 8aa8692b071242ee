#include "facade/sample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace verdalune::sessionreplay {
namespace {

// Each id with the fraction its hash gives, computed independently with arbitrary-precision integers.
struct Case {
  std::int64_t sessionId;
  float fraction;
};

TEST(Sample, ComparesTheHashFractionStrictlyWithTheRate) {
  const Case cases[] = {
      {1, 0.19f},              // "1": h = 49, m = 1519
      {0, 0.88f},              //
      {-1, 0.64f},             // the sign is hashed as '-'
      {-42, 0.17f},            //
      {123456789, 0.27f},      //
      {1700000000000, 0.10f},  // a millisecond timestamp, the usual session id
      {std::numeric_limits<std::int64_t>::max(), 0.74f},
      {5567713808534132990, -0.30f},  // h × 31 wraps to a negative number
      {std::numeric_limits<std::int64_t>::min(), -0.18f},
  };
  for (const auto& [sessionId, fraction] : cases) {
    EXPECT_FALSE(Sample::isInSample(sessionId, fraction)) << sessionId << " equal to the rate is out";
    EXPECT_TRUE(Sample::isInSample(sessionId, std::nextafter(fraction, 1.0f))) << sessionId;
    EXPECT_TRUE(Sample::isInSample(sessionId, 1.0f)) << sessionId;
  }
}

TEST(Sample, RateZeroKeepsOnlySessionsWhoseHashWrappedNegative) {
  EXPECT_FALSE(Sample::isInSample(1, 0.0f));
  EXPECT_FALSE(Sample::isInSample(1700000000000, 0.0f));
  EXPECT_TRUE(Sample::isInSample(5567713808534132990, 0.0f));
  EXPECT_TRUE(Sample::isInSample(-7491968275375482579, 0.0f));
}

}  // namespace
}  // namespace verdalune::sessionreplay
