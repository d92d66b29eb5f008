#include <sdk/text/JsonUtils.h>

#include "store/FleetStore.h"
#include "support/FleetHost.h"

namespace {

class FleetAct : public test::FleetHost {
  protected:
    void SetUp() override {
        EXPECT_EQ(collector_
                      .Run({"policy", "keygen", "--key", collector_.Path("operator.key"),
                            "--public", collector_.Path("operator.pub")})
                      .exit_code,
                  0);
        Json::Value fleet(Json::objectValue);
        fleet["policy_key"] = collector_.Path("operator.pub");
        fleet["groups"].append("web");
        JoinFleet(fleet);
        ASSERT_TRUE(broker_.Start());
        ASSERT_TRUE(collector_.Start());
        Protect();
        ASSERT_TRUE(Await([&] { return collector_.Status()["exit_code"].asInt() == 0; }))
            << collector_.Status();
    }

    /// Prepares, signs elsewhere and publishes; the answer of the host.
    Json::Value Act(std::vector<std::string> words) const {
        words.insert(words.begin(), "act");
        words.insert(words.end(), {"--group", "web", "--signer", "anna"});
        const test::CommandResult prepared = collector_.Run(words);
        EXPECT_EQ(prepared.exit_code, 0) << prepared.err;
        const test::CommandResult document =
            collector_.Run({"sign", "--key", collector_.Path("operator.key"),
                            scratch_.Write("prepared", prepared.out)});
        EXPECT_EQ(document.exit_code, 0) << document.err;
        const std::size_t before = collector_.Lines({"acts"}).size();
        const test::CommandResult published = collector_.Run(
            {"publish", "--user", "operator", scratch_.Write("signed", document.out)});
        EXPECT_EQ(published.exit_code, 0) << published.err;
        Json::Value answer;
        EXPECT_TRUE(Await([&] {
            const std::vector<Json::Value> acts = collector_.Lines({"acts"});
            if (acts.size() <= before) return false;
            const std::string text = acts[0]["result"].asString();
            return SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), answer) == 0 &&
                   answer["verdict"] != "pending";
        }));
        return answer;
    }

    /// The id in the host's last heartbeat.
    std::string ApprovedState() const {
        Collector::FleetStore store;
        std::vector<Collector::HostRecord> hosts;
        Json::Value state;
        if (!store.OpenExisting(collector_.Database()) || !store.ReadHosts(hosts)) return "";
        const std::string text = hosts.at(0).state;
        SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), state);
        EXPECT_GE(state["approved"]["look_age_seconds"].asInt(), -1);
        return state["approved"]["id"].asString();
    }

    test::TempDir scratch_;
};

TEST_F(FleetAct, OperatorAtTheCentre_PausesAcceptsAndResumes) {
    const std::string site = site_.Path();
    const std::string approved = ApprovedState();
    EXPECT_FALSE(approved.empty()) << HostAtCollector();
    Json::Value answer = Act({"pause", site, "--for", "10m", "--reason", "release 7"});
    ASSERT_EQ(answer["verdict"], "done") << answer;
    const Json::Value pause = agent_.Status()["pauses"][0];
    EXPECT_EQ(pause["reason"], "release 7 (signed by anna)") << agent_.Status();
    site_.Write("index.html", "a new release");
    answer = Act({"verify", site});
    ASSERT_EQ(answer["verdict"], "done") << answer;
    ASSERT_EQ(answer["details"]["differences"].size(), 1U) << answer;
    answer = Act({"accept", site});
    ASSERT_EQ(answer["verdict"], "done") << answer;
    EXPECT_TRUE(Await([&] { return ApprovedState() != approved; })) << "the heartbeat tells it";
    EXPECT_EQ(Act({"resume", site})["verdict"], "done");
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "a new release");
    EXPECT_TRUE(TamperingIsUndone("about.html"));
    const Json::Value baseline = agent_.Status()["protected_paths"][0]["baseline"];
    EXPECT_NE(baseline["approval"].asString().find("signed by anna"), std::string::npos)
        << baseline;
    EXPECT_TRUE(Await([&] {
        std::size_t recorded = 0;
        for (const Json::Value& report : Reports("data")) {
            if (report["name"] == "sentrel_fleet_act_1") ++recorded;
        }
        return recorded == 4;
    }));
    // What a host does not protect is no act for it.
    EXPECT_EQ(Act({"pause", "/nowhere", "--for", "1m"})["verdict"], "failed");
    answer = Act({"deploy-begin", site, "--for", "10m"});
    ASSERT_EQ(answer["verdict"], "done") << answer;
    const std::string id = answer["details"]["id"].asString();
    // On the host, where an overlay can be mounted.
    const test::CommandResult mounted = agent_.Ctl({"deploy", "mount", id});
    if (mounted.exit_code == 0) {
        const std::string tree = mounted.out.substr(0, mounted.out.find('\n'));
        std::ofstream(tree + "/news.html") << "deployed from the centre";
        EXPECT_EQ(test::RunWords({"umount", tree}).exit_code, 0);
        answer = Act({"deploy-commit", "--id", id});
        EXPECT_EQ(answer["verdict"], "done") << answer;
        EXPECT_EQ(test::TempDir::Read(site_.Path("news.html")), "deployed from the centre");
    } else {
        EXPECT_EQ(Act({"deploy-abort", "--id", id})["verdict"], "done") << mounted.err;
    }
    EXPECT_EQ(Act({"deploy-commit", "--id", id})["verdict"], "failed");
}

}  // namespace
