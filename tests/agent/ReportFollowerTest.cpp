#include <ctl/client/ExitCodes.h>
#include <ctl/commands/reports/ReportFollower.h>

#include <atomic>
#include <future>

#include "support/ControlFixture.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;

using ReportFollower = test::ControlFixture;

TEST_F(ReportFollower, AgentThatIsRestarted_IsFollowedOnWithoutGapOrRepeat) {
    const std::string socket = dir_.Path("agent.sock");
    const Ctl::ControlClient client(socket);
    auto server = std::make_unique<Agent::ControlServer>(routes_);
    std::string error;
    ASSERT_TRUE(server->Start(socket, error)) << error;
    reports_.Add("before");
    std::atomic<int> count{0};
    std::string seen;
    Ctl::ReportFollower follower(client, {}, [&](const Json::Value& report) {
        seen += report["body"].asString() + " ";
        return ++count < 2;
    });
    auto end = std::async(std::launch::async, [&] { return follower.Follow(); });
    ASSERT_TRUE(test::WaitFor([&] { return reports_.LastRequest().isMember("wait_ms"); }, 10s));
    reports_.Add("first");
    ASSERT_TRUE(test::WaitFor([&] { return count == 1; }, 10s));
    server.reset();
    reports_.Add("second");
    server = std::make_unique<Agent::ControlServer>(routes_);
    ASSERT_TRUE(server->Start(socket, error)) << error;
    ASSERT_EQ(end.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(end.get(), Ctl::kExitOk);
    EXPECT_EQ(seen, "first second ");
}

}  // namespace
