#include <ctl/ExitCodes.h>
#include <ctl/ReportFollower.h>

#include <atomic>
#include <future>

#include "support/ControlFixture.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;

class ReportFollower : public test::ControlFixture {
  protected:
    std::unique_ptr<Agent::ControlServer> Serve() {
        auto server = std::make_unique<Agent::ControlServer>(routes_);
        std::string error;
        EXPECT_TRUE(server->Start(socket_, error)) << error;
        return server;
    }

    const std::string socket_ = dir_.Path("agent.sock");
    const Ctl::ControlClient client_{socket_};
};

TEST_F(ReportFollower, Stored_AreReadOnceInOrder) {
    const auto server = Serve();
    reports_.Add("one");
    reports_.Add("two");
    std::string seen;
    Ctl::ReportQuery query;
    query.has_since = true;
    query.since = 60;
    Ctl::ReportFollower follower(client_, query, [&](const Json::Value& report) {
        seen += report["body"].asString() + " ";
        return true;
    });
    EXPECT_EQ(follower.ReadStored(), Ctl::kExitOk);
    EXPECT_EQ(seen, "one two ");
}

TEST_F(ReportFollower, AgentThatIsRestarted_IsFollowedOnWithoutGapOrRepeat) {
    auto server = Serve();
    reports_.Add("before");
    std::atomic<int> count{0};
    std::string seen;
    Ctl::ReportFollower follower(client_, {}, [&](const Json::Value& report) {
        seen += report["body"].asString() + " ";
        return ++count < 2;
    });
    auto end = std::async(std::launch::async, [&] { return follower.Follow(); });
    ASSERT_TRUE(test::WaitFor([&] { return reports_.LastRequest().isMember("wait_ms"); }, 10s));
    reports_.Add("first");
    ASSERT_TRUE(test::WaitFor([&] { return count == 1; }, 10s));
    server.reset();
    reports_.Add("second");
    server = Serve();
    ASSERT_EQ(end.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(end.get(), Ctl::kExitOk);
    EXPECT_EQ(seen, "first second ");
}

TEST_F(ReportFollower, NoAgentToBeginWith_IsSaidAtOnce) {
    Ctl::ReportFollower follower(client_, {}, [](const Json::Value&) { return true; });
    EXPECT_EQ(follower.Follow(), Ctl::kExitNoAgent);
    EXPECT_EQ(follower.ReadStored(), Ctl::kExitNoAgent);
}

}  // namespace
