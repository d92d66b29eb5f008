#include <gtest/gtest.h>
#include <json/writer.h>
#include <sdk/text/JsonUtils.h>

#include <functional>

#include "ActReceiver.h"
#include "support/TempDir.h"

namespace {

constexpr std::int64_t kNow = 1'700'000'000;

class Acts : public testing::Test {
  protected:
    Acts() { Start(); }

    /// A host that begins, perhaps again.
    void Start() {
        const auto ask = [this](const std::string& query, const Json::Value& request,
                                Json::Value& answer) {
            asked_.push_back(query + " " + request["action"].asString());
            answer = Json::Value(Json::objectValue);
            answer["state"] = progress_;
            answer["id"] = 1;
            return true;
        };
        receiver_ = std::make_unique<Engine::ActReceiver>(
            Fleet::Identity{"host-1", {"web"}}, key_, dir_.Path("acts.json"),
            std::make_unique<Engine::ActRunner>(
                ask, [](const std::vector<std::string>&, std::string&) { return 0; }),
            Engine::ActReceiver::Hooks{
                [this](const std::string&, const Json::Value& result) { last_ = result; },
                [this](const std::string&, const std::string& why) { refusal_ = why; },
                [this](const Json::Value&) { ++recorded_; }});
    }

    static Fleet::SignedAct Pause(std::int64_t number) {
        Fleet::SignedAct act;
        act.number = number;
        act.hosts = {"host-1"};
        act.issued_s = kNow;
        act.expires_s = kNow + 60;
        act.signer = "anna";
        act.name = "pause";
        act.request["path"] = "/var/www";
        act.request["seconds"] = 60;
        return act;
    }

    std::string Sealed(const Fleet::SignedAct& act) const {
        return Fleet::Seal(Fleet::DocumentKind::kAct, Fleet::ContentOf(act), *key_);
    }

    /// Hands it over and lets it end; the verdict.
    std::string Take(const std::string& number, const std::string& document,
                     bool is_retained = false, std::int64_t now_s = kNow + 1) {
        last_ = Json::Value();
        refusal_.clear();
        receiver_->Take(number, std::string(document), is_retained);
        for (int step = 0; step < 3; ++step) receiver_->Work(now_ms_ += 61'000, now_s);
        return last_["verdict"].asString();
    }

    test::TempDir dir_;
    const std::shared_ptr<SDK::SigningKey> key_ = SDK::SigningKey::Generate();
    std::int64_t now_ms_ = 0;
    std::string progress_ = "done";
    std::vector<std::string> asked_;
    Json::Value last_;
    std::string refusal_;
    int recorded_ = 0;
    std::unique_ptr<Engine::ActReceiver> receiver_;
};

TEST_F(Acts, SignedAct_IsCarriedOutOnceWithItsSigner) {
    const std::string document = Sealed(Pause(7));
    EXPECT_EQ(Take("7", document), "done") << last_;
    EXPECT_EQ(asked_, std::vector<std::string>{"pause begin"});
    EXPECT_EQ(last_["signer"], "anna");
    EXPECT_EQ(recorded_, 1);
    // The broker has it retained: answered once more, also after a start, and no fault.
    Start();
    EXPECT_EQ(Take("7", document, true), "done");
    EXPECT_EQ(refusal_, "");
    // Somebody has published it again.
    EXPECT_EQ(Take("7", document), "done");
    EXPECT_EQ(refusal_, "it was carried out already");
    Fleet::SignedAct other = Pause(7);
    other.request["path"] = "/srv";
    EXPECT_EQ(Take("7", Sealed(other)), "done");
    EXPECT_EQ(refusal_, "another act has this number");
    EXPECT_EQ(Take("6", Sealed(Pause(6))), "refused") << "an older one";
    EXPECT_EQ(asked_.size(), 1U);
}

TEST_F(Acts, WrongAct_IsRefusedAndReported) {
    const struct {
        const char* why;
        std::function<void(Fleet::SignedAct&)> change;
    } cases[] = {
        {"other hosts",
         [](auto& act) {
             act.hosts = {"host-2", "@db"};
         }},
        {"for the number 8", [](auto& act) { act.number = 8; }},
        {"expired 1 s ago",
         [](auto& act) {
             act.expires_s = kNow;
             act.issued_s = kNow - 9;
         }},
        {"in the future by the clock",
         [](auto& act) {
             act.issued_s += 900;
             act.expires_s += 900;
         }},
        {"not complete", [](auto& act) { act.expires_s = kNow + 30LL * 24 * 3600; }},
        {"not complete", [](auto& act) { act.name = "shutdown"; }},
    };
    for (const auto& each : cases) {
        Fleet::SignedAct act = Pause(7);
        each.change(act);
        EXPECT_EQ(Take("7", Sealed(act)), "refused") << each.why;
        EXPECT_NE(refusal_.find(each.why), std::string::npos) << refusal_;
    }
    const std::string policy =
        Fleet::Seal(Fleet::DocumentKind::kPolicy, Fleet::ContentOf(Pause(7)), *key_);
    EXPECT_EQ(Take("7", policy), "refused") << "signed as another kind of document";
    EXPECT_TRUE(asked_.empty());
    EXPECT_EQ(Take("7", Sealed(Pause(7))), "done") << "none of them has used up the number";
}

TEST_F(Acts, ActThatAKillInterrupts_IsNotCarriedOutAgain) {
    progress_ = "running";
    Fleet::SignedAct accept = Pause(7);
    accept.name = "accept";
    accept.request["all"] = true;
    EXPECT_EQ(Take("7", Sealed(accept)), "pending");
    const std::size_t asked = asked_.size();
    Start();
    EXPECT_EQ(Take("7", Sealed(accept), true), "failed");
    EXPECT_EQ(asked_.size(), asked);
}

TEST_F(Acts, ActsThatTheBrokerHasKept_AreCarriedOutInOrder) {
    receiver_->Restart(now_ms_);
    Fleet::SignedAct resume = Pause(8);
    resume.name = "resume";
    resume.hosts = {"@web"};
    receiver_->Take("8", Sealed(resume), true);
    receiver_->Work(now_ms_ + 1, kNow);
    receiver_->Take("7", Sealed(Pause(7)), true);
    for (int step = 0; step < 5; ++step) receiver_->Work(now_ms_ += 1'000, kNow);
    EXPECT_EQ(asked_, (std::vector<std::string>{"pause begin", "pause end"}));
}

}  // namespace
