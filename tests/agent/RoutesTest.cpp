#include "support/ControlFixture.h"

namespace {

using Agent::Reply;

class Routes : public test::ControlFixture {
  protected:
    Reply Ask(const std::string& method, const std::vector<std::string>& path,
              const std::string& body = "") {
        return routes_.Handle({method, path, {}, body});
    }
};

TEST_F(Routes, Policy_IsAppliedShownAndListed) {
    EXPECT_EQ(Ask("GET", {"v1", "policies", "feature_a"}).status, 404);
    const Reply on = Ask("PUT", {"v1", "policies", "feature_a"}, "on, odd");
    EXPECT_EQ(on.status, 200);
    EXPECT_EQ(on.body["state"], "on");
    EXPECT_EQ(on.body["warnings"].size(), 1u);
    EXPECT_EQ(Ask("PUT", {"v1", "policies", "feature_a"}, "off").body["state"], "off");
    EXPECT_EQ(Ask("GET", {"v1", "policies", "feature_a"}).body["text"], "off");
    EXPECT_EQ(Ask("GET", {"v1", "policies"}).body["policies"][0]["feature"], "feature_a");
}

TEST_F(Routes, RefusedPolicy_IsUnprocessableWithItsErrors) {
    const Reply reply = Ask("PUT", {"v1", "policies", "feature_a"}, "wrong");
    EXPECT_EQ(reply.status, 422);
    EXPECT_EQ(reply.body["state"], "rejected");
    EXPECT_EQ(reply.body["errors"][0]["pointer"], "/content");
    const Reply check = Ask("POST", {"v1", "policies", "feature_a", "check"}, "wrong");
    EXPECT_EQ(check.status, 200);
    EXPECT_EQ(check.body["errors"].size(), 1u);
    EXPECT_TRUE(host_.applied.empty());
}

TEST_F(Routes, Tasklet_GivesItsResultOrSaysWhyNot) {
    EXPECT_EQ(Ask("POST", {"v1", "tasklets", "echo"}, "four").body["result"], 4);
    EXPECT_EQ(Ask("POST", {"v1", "tasklets", "none"}, "").status, 404);
    EXPECT_EQ(Ask("POST", {"v1", "tasklets", "echo"}, "throw").status, 500);
}

TEST_F(Routes, WrongAddressOrMethod_IsAnErrorWithASentence) {
    const std::vector<std::pair<int, Reply>> replies = {
        {404, Ask("GET", {})},
        {404, Ask("GET", {"v1"})},
        {404, Ask("GET", {"v2", "status"})},
        {404, Ask("GET", {"v1", "status", "more"})},
        {404, Ask("POST", {"v1", "policies", "feature_a", "checks"})},
        {400, Ask("PUT", {"v1", "policies", "..", "..", "etc"}, "on")},
        {400, Ask("PUT", {"v1", "policies", "a b"}, "on")},
        {405, Ask("POST", {"v1", "status"})},
        {405, Ask("DELETE", {"v1", "policies", "feature_a"})},
        {405, Ask("GET", {"v1", "tasklets", "echo"})},
    };
    for (std::size_t i = 0; i < replies.size(); ++i) {
        EXPECT_EQ(replies[i].second.status, replies[i].first) << i;
        EXPECT_FALSE(replies[i].second.body["error"].asString().empty()) << i;
        EXPECT_EQ(replies[i].second.allow.empty(), replies[i].first != 405) << i;
    }
}

}  // namespace
