#include <framework/FeaturePolicy.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "EngineFixture.h"

namespace test {

using Framework::Policy;

/// Pushed policies, tasklets, queries and the objects that parse policies.
class PolicyTest : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        second_ = AddModule("second");
    }
    ScriptedModule* second_ = nullptr;
};

/// Counts its existing objects.
class CountedPolicy : public Framework::FeaturePolicy {
  public:
    explicit CountedPolicy(const std::string& name) : FeaturePolicy(name) { ++alive; }
    ~CountedPolicy() override { --alive; }
    bool Parse(const std::string&) override { return true; }
    static inline int alive = 0;
};

/// A callback that runs on its own thread and counts its existing objects.
class LongAction : public Framework::AbstractTaskletCallback {
  public:
    LongAction(Signal& started, const Signal& release) : started_(started), release_(release) {
        ++alive;
    }
    ~LongAction() override { --alive; }
    int invoke(const std::string&) const override {
        started_.Set();
        return release_.Wait() ? 5 : -1;
    }
    bool IsLongAction() const override { return true; }
    static inline std::atomic<int> alive{0};

  private:
    Signal& started_;
    const Signal& release_;
};

TEST_F(PolicyTest, Dispatch_GoesRoundInOrderUntilHandled) {
    std::vector<std::string> asked;
    module_->on_policy = [&](const std::string& feature, Policy*& policy) {
        asked.push_back("first " + feature);
        EXPECT_EQ(policy->Name(), feature);
        if (feature == "mine") policy->SetHandled(true);
        return 3;
    };
    second_->on_policy = [&](const std::string& feature, Policy*& policy) {
        asked.push_back("second " + feature);
        if (feature == "other") {
            delete policy;
            policy = new CountedPolicy(feature);  // the framework frees it
            policy->SetHandled(true);
        }
        return 4;
    };
    const auto mine = engine_.ApplyPolicy("mine", "{}");
    EXPECT_TRUE(mine.handled);
    EXPECT_EQ(mine.result, 3);
    EXPECT_EQ(engine_.ApplyPolicy("other", "{}").result, 4);
    EXPECT_EQ(CountedPolicy::alive, 0);
    const auto unknown = engine_.ApplyPolicy("unknown", "{}");
    EXPECT_FALSE(unknown.handled);
    EXPECT_EQ(unknown.result, 0);
    EXPECT_EQ(asked, (std::vector<std::string>{"first mine", "first other", "second other",
                                               "first unknown", "second unknown"}));
}

TEST_F(PolicyTest, CallbackThrows_OutcomeSaysWhatAndTheOthersAreAsked) {
    module_->on_policy = [](const std::string&, Policy*&) -> int {
        throw std::runtime_error("bad value");
    };
    EXPECT_EQ(engine_.ApplyPolicy("feature", "{}").exception, "bad value");
    second_->on_policy = [](const std::string&, Policy*& policy) {
        policy->SetHandled(true);
        return 1;
    };
    const auto outcome = engine_.ApplyPolicy("feature", "{}");
    EXPECT_TRUE(outcome.handled);
    EXPECT_EQ(outcome.exception, "");
    EXPECT_TRUE(LogSays("bad value"));
    // Without a released gate this would block.
    EXPECT_TRUE(engine_.ApplyPolicy("feature", "{}").handled);
}

TEST_F(PolicyTest, Tasklet_AnswersOnTheFrameworkThread) {
    std::thread::id framework;
    engine_.RunOnFrameworkThread([&] { framework = std::this_thread::get_id(); });
    module_->on_tasklet = [&](const std::string& request) {
        EXPECT_EQ(std::this_thread::get_id(), framework);
        if (request.empty()) throw std::runtime_error("empty");
        return static_cast<int>(request.size());
    };
    EXPECT_EQ(engine_.InvokeTasklet("tasklet", "four").result, 4);
    EXPECT_EQ(engine_.InvokeTasklet("tasklet", "").exception, "empty");
    engine_.RunOnFrameworkThread([&] {
        EXPECT_FALSE(module_->RegisterPolicyCallback("null", nullptr));
        EXPECT_FALSE(module_->RegisterTaskletCallback("null", nullptr));
        module_->UnRegisterPolicyCallback("tasklet");
        second_->UnRegisterPolicyCallback("tasklet");
    });
    EXPECT_FALSE(engine_.InvokeTasklet("tasklet", "four").found);
}

TEST_F(PolicyTest, LongAction_LeavesTheFrameworkThreadFreeAndIsWaitedFor) {
    Signal started;
    Signal release;
    Signal unregistered;
    engine_.RunOnFrameworkThread([&] {
        module_->RegisterTaskletCallback("long", new LongAction(started, release));
        module_->RegisterTaskletCallback("long", new LongAction(started, release));
    });
    EXPECT_EQ(LongAction::alive, 1);  // the second has replaced the first
    std::thread asking([&] { EXPECT_EQ(engine_.InvokeTasklet("long", "").result, 5); });
    ASSERT_TRUE(started.Wait());
    EXPECT_TRUE(engine_.InvokeTasklet("tasklet", "").found);
    std::thread removing([&] {
        engine_.RunOnFrameworkThread([&] { module_->UnRegisterPolicyCallback("long"); });
        unregistered.Set();
    });
    EXPECT_FALSE(unregistered.IsSet());
    release.Set();
    removing.join();
    asking.join();
    EXPECT_EQ(LongAction::alive, 0);
}

TEST_F(PolicyTest, FeaturePolicies_OnePerNameIsKept) {
    new CountedPolicy("a");
    new CountedPolicy("b");
    auto* const last = new CountedPolicy("a");
    EXPECT_EQ(CountedPolicy::alive, 2);
    EXPECT_TRUE(last->PolicyChanged("1", ""));
    last->StoreIdentity("1", "text");
    EXPECT_FALSE(last->PolicyChanged("1", "text"));
    EXPECT_TRUE(last->PolicyChanged("1", "other"));
    delete last;
    EXPECT_EQ(CountedPolicy::alive, 1);
    Framework::FeaturePolicy::DeleteAll();
    EXPECT_EQ(CountedPolicy::alive, 0);
    new CountedPolicy("a");
    engine_.Stop();
    EXPECT_EQ(CountedPolicy::alive, 0);
}

TEST_F(PolicyTest, Queries_AnswerByNameAndAreWaitedFor) {
    Framework::QueryRegistry& queries = engine_.Queries();
    Json::Value answer;
    queries.Register("status.a", [](const Json::Value& request) { return request["n"]; });
    queries.Register("status.b", [](const Json::Value&) -> Json::Value {
        throw std::runtime_error("no answer");
    });
    queries.Register("reports.read", [](const Json::Value&) { return Json::Value(); });
    EXPECT_EQ(queries.Names("status."), (std::vector<std::string>{"status.a", "status.b"}));
    Json::Value request;
    request["n"] = 3;
    EXPECT_TRUE(queries.Ask("status.a", request, answer));
    EXPECT_EQ(answer, 3);
    EXPECT_FALSE(queries.Ask("status.b", request, answer));
    EXPECT_TRUE(LogSays("no answer"));

    Signal started;
    Signal release;
    std::atomic<bool> ended{false};
    queries.Register("slow", [&](const Json::Value&) {
        started.Set();
        ended = release.Wait();
        return Json::Value();
    });
    std::thread asking([&] { EXPECT_TRUE(queries.Ask("slow", {}, answer)); });
    ASSERT_TRUE(started.Wait());
    std::thread removing([&] {
        queries.Unregister("slow");
        EXPECT_TRUE(ended);
    });
    release.Set();
    asking.join();
    removing.join();
    Json::Value none;
    EXPECT_FALSE(queries.Ask("slow", {}, none));
}

}  // namespace test
