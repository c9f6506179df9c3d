#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "media/VPMVideoDecimator.h"
#include "support/SimClock.h"

namespace {

using lumo::test::ScopedSimClock;

// Feeds `frames` frames at `fps` on the simulated clock; returns the pattern, 'd' for a
// dropped frame and 'k' for a kept one.
std::string Feed(FPS::VPMVideoDecimator& d, ScopedSimClock& sim, int fps, int frames) {
  std::string pattern;
  for (int i = 0; i < frames; ++i) {
    d.UpdateIncomingFrameRate();
    pattern += d.IsDropFrame() ? 'd' : 'k';
    sim.clock.AdvanceUs(1000000 / fps);
  }
  return pattern;
}

size_t Drops(const std::string& pattern) { return std::count(pattern.begin(), pattern.end(), 'd'); }

class DecimatorTest : public ::testing::Test {
 protected:
  void Target(unsigned fps) {
    d.Reset();
    d.SetMaxFrameRate(fps);
    d.SetTargetFrameRate(fps);
  }
  ScopedSimClock sim;
  FPS::VPMVideoDecimator d;
};

TEST_F(DecimatorTest, SixtyInThirtyWantedDropsEveryOtherFrame) {
  Target(30);
  Feed(d, sim, 60, 60);  // one second to measure the rate
  EXPECT_EQ(Feed(d, sim, 60, 12), "dkdkdkdkdkdk");
  EXPECT_EQ(Drops(Feed(d, sim, 60, 600)), 300u);
}

TEST_F(DecimatorTest, FiftyInThirtyWantedDropsTwoOfEveryFive) {
  Target(30);
  Feed(d, sim, 50, 50);
  const std::string pattern = Feed(d, sim, 50, 500);
  EXPECT_EQ(Drops(pattern), 200u);
  for (size_t i = 0; i + 5 <= pattern.size(); i += 5) {
    EXPECT_EQ(Drops(pattern.substr(i, 5)), 2u) << pattern.substr(i, 5);
  }
  EXPECT_EQ(pattern.find("dd"), std::string::npos);  // spread out, never two in a row
}

TEST_F(DecimatorTest, MatchingOrSlowerSourcesKeepEveryFrame) {
  Target(30);
  EXPECT_EQ(Drops(Feed(d, sim, 30, 300)), 0u);
  EXPECT_EQ(Drops(Feed(d, sim, 31, 300)), 0u);  // jitter of a frame is not a faster source
  EXPECT_EQ(Drops(Feed(d, sim, 24, 300)), 0u);
}

TEST_F(DecimatorTest, NoTargetKeepsEverything) {
  EXPECT_EQ(Drops(Feed(d, sim, 120, 240)), 0u);  // as constructed
  Target(30);
  d.Reset();
  EXPECT_EQ(Drops(Feed(d, sim, 120, 240)), 0u);
}

TEST_F(DecimatorTest, TargetIsCappedByTheMaximum) {
  d.SetMaxFrameRate(30);
  d.SetTargetFrameRate(60);
  EXPECT_EQ(d.TargetFrameRate(), 30u);
  Feed(d, sim, 60, 60);
  EXPECT_EQ(Drops(Feed(d, sim, 60, 120)), 60u);
}

TEST_F(DecimatorTest, FollowsAChangeOfIncomingRateWithinASecond) {
  Target(30);
  Feed(d, sim, 60, 120);
  Feed(d, sim, 30, 31);  // the one-second window forgets the faster frames
  EXPECT_NEAR(d.IncomingFrameRate(), 30.0, 0.5);
  EXPECT_EQ(Drops(Feed(d, sim, 30, 90)), 0u);
}

}  // namespace
