#include <gtest/gtest.h>
#include <policy/PolicyService.h>

#include "support/FakePolicyHost.h"
#include "support/TempDir.h"

namespace {

using Agent::PolicyState;
using Agent::PolicyVerdict;

class PolicyService : public testing::Test {
  protected:
    std::string Kept(const std::string& feature) {
        std::string text;
        return store_.Load(feature, text) ? text : "";
    }
    std::string StateOf(const std::string& feature) {
        return service_.Show(feature)["state"].asString();
    }

    test::TempDir dir_;
    test::FakePolicyHost host_;
    Agent::PolicyStore store_{dir_.Path("policies")};
    Agent::PolicyService service_{host_, store_};
};

TEST(FeatureName, NameThatCouldLeaveTheFolder_IsRefused) {
    for (const std::string& name : {std::string("A-1.b"), std::string(64, 'x')}) {
        EXPECT_TRUE(Agent::IsFeatureName(name)) << name;
    }
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string(".hidden"),
          std::string("a/b"), std::string("../a"), std::string("a b"), std::string("a\0b", 3),
          std::string("\xc3\xa4"), std::string(65, 'x')}) {
        EXPECT_FALSE(Agent::IsFeatureName(name)) << name;
    }
}

TEST_F(PolicyService, PolicyWithErrors_ChangesNothing) {
    dir_.Write("feature_a.json", "not yours");
    service_.Apply("feature_a", "on");
    for (const char* bad : {"uncheckable", "wrong"}) {
        EXPECT_EQ(service_.Apply("feature_a", bad).state, PolicyState::kRejected) << bad;
    }
    EXPECT_EQ(service_.Apply("feature_c", "on").state, PolicyState::kRejected);
    EXPECT_EQ(service_.Apply("../feature_a", "on").state, PolicyState::kRejected);
    std::string error;
    EXPECT_FALSE(store_.Save("../feature_a", "{}", error));
    EXPECT_EQ(Kept("../feature_a"), "");
    EXPECT_EQ(test::TempDir::Read(dir_.Path("feature_a.json")), "not yours");
    EXPECT_EQ(host_.applied.size(), 1u);
    EXPECT_EQ(Kept("feature_a"), "on");
    EXPECT_EQ(StateOf("feature_a"), "on");
    EXPECT_EQ(service_.Show("feature_a")["last_rejection"]["message"], "/content: wrong");
    service_.Apply("feature_a", "on");
    EXPECT_FALSE(service_.Show("feature_a").isMember("last_rejection")) << "a good one followed";
}

TEST_F(PolicyService, PolicyThatFailsWhileApplied_GivesWayToTheLastGoodOne) {
    EXPECT_EQ(service_.Apply("feature_a", "refused").state, PolicyState::kRejected);
    EXPECT_EQ(Kept("feature_a"), "") << "there was none";
    service_.Apply("feature_a", "on");
    for (const char* bad : {"throws", "refused", "unhandled"}) {
        const PolicyVerdict verdict = service_.Apply("feature_a", bad);
        EXPECT_EQ(verdict.state, PolicyState::kRejected) << bad;
        EXPECT_EQ(host_.applied.back().second, "on") << bad;
        EXPECT_EQ(Kept("feature_a"), "on") << bad;
        EXPECT_EQ(StateOf("feature_a"), "on") << bad;
    }
}

TEST_F(PolicyService, RollBackThatFails_IsNotCalledOn) {
    std::string error;
    service_.Apply("feature_a", "on");
    ASSERT_TRUE(store_.Save("feature_a", "throws by now", error));
    const PolicyVerdict verdict = service_.Apply("feature_a", "refused");
    EXPECT_EQ(verdict.state, PolicyState::kRejected);
    const Json::Value shown = service_.Show("feature_a");
    EXPECT_EQ(shown["state"], "failed");
    const std::string why = shown["last_rejection"]["message"].asString();
    EXPECT_NE(why.find("could not be put into force again"), std::string::npos) << why;
    EXPECT_NE(why.find("basic_string::at"), std::string::npos) << why;
}

TEST_F(PolicyService, PolicyThatTakesOverFromTheLastOne_IsKeptAsAWhole) {
    service_.Apply("feature_a", "on with a list");
    service_.Apply("feature_a", "on, partial");
    EXPECT_EQ(host_.applied.back().second, "on, partial; on with a list");
    EXPECT_EQ(Kept("feature_a"), "on, partial; on with a list");
}

TEST_F(PolicyService, PolicyThatCannotBeKept_IsInForceWithAWarning) {
    dir_.Write("policies", "a file where the folder should be");
    const PolicyVerdict verdict = service_.Apply("feature_a", "on");
    EXPECT_EQ(verdict.state, PolicyState::kOn);
    EXPECT_EQ(verdict.warnings.size(), 1u);
}

TEST_F(PolicyService, KeptPolicies_AreAppliedAgainAndOneFailureStopsNoOther) {
    std::string error;
    ASSERT_TRUE(store_.Save("feature_a", "throws", error));
    ASSERT_TRUE(store_.Save("feature_b", "on, wrong by now", error));
    ASSERT_TRUE(store_.Save("feature_c", "on, but unsafe", error));
    ASSERT_TRUE(store_.Save("of_no_module", "on", error));
    host_.features.push_back("feature_c");
    service_.ReapplyStored();
    EXPECT_EQ(StateOf("feature_a"), "failed");
    EXPECT_EQ(StateOf("feature_c"), "failed") << "others can write to the copies by now";
    EXPECT_EQ(StateOf("feature_b"), "on");
    EXPECT_EQ(StateOf("of_no_module"), "failed");
    EXPECT_EQ(Kept("feature_a"), "throws");
    EXPECT_EQ(host_.by_operator, std::vector<bool>(host_.applied.size(), false));
    service_.Apply("feature_b", "on");
    EXPECT_TRUE(host_.by_operator.back());
}

}  // namespace
