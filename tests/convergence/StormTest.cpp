#include <gtest/gtest.h>

#include "StormRun.h"

namespace test {

using Mode = StormRun::Mode;

/// Fixed seeds; scripts/storm.sh runs any number of others.
class Storm : public testing::TestWithParam<std::pair<Mode, std::uint64_t>> {};

TEST_P(Storm, WhenItEnds_SiteEqualsItsCopyAndEveryDifferenceHasAnAlarm) {
    AgentProcess agent;
    StormRun::Prepare(agent);
    ASSERT_TRUE(agent.Start());
    for (std::uint64_t seed = GetParam().second; seed < GetParam().second + 3; ++seed) {
        StormRun run(agent, seed, GetParam().first, 200);
        EXPECT_TRUE(run.Run());
        std::puts(run.Report().c_str());
    }
    EXPECT_EQ(agent.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Restoring, Storm,
                         testing::Values(std::make_pair(Mode::kRestore, 1U),
                                         std::make_pair(Mode::kMonitor, 11U),
                                         std::make_pair(Mode::kOverflow, 21U),
                                         std::make_pair(Mode::kSlow, 15U)));

}  // namespace test
