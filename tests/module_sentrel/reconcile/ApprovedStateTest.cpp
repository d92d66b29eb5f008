#include <framework/ConfigManager.h>
#include <sdk/text/SigningKey.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <fstream>

#include "fixtures/Protection.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// A protected site whose state an operator approved, by a policy that was applied.
class ApprovedState : public test::Protection {
  protected:
    ApprovedState() { site_.Write("sub/more.html", "more"); }
    ~ApprovedState() override {
        engine_.Stop();  // its tasks read the configuration
        Framework::ConfigManager::GetInstance().Reset();
    }

    void Configure(const std::string& sentrel) {
        std::string error;
        const std::string file =
            install_.dir.Write("conf/agent.json", R"({"sentrel": )" + sentrel + "}");
        EXPECT_TRUE(Framework::ConfigManager::GetInstance().Load(file, true, error)) << error;
    }
    void Approve() {
        Protect();
        AwaitBackup();
        ASSERT_TRUE(test::WaitFor([this] { return !Status()["baseline"].isNull(); }, 20s));
    }
    Json::Value Status() { return Ask("status.sentrel")["protected_paths"][0]; }
    void StopProtection() { engine_.ApplyPolicy("sentrel_feature", R"({"enabled": false})"); }
    /// What the agent does when it starts.
    void StartProtection() {
        Json::Value policy = test::Installation::Policy();
        policy["content"]["diff_attr"] = true;
        policy["content"]["dirlist"].append(
            test::Installation::Entry(site_.Path(), backup_.Path()));
        const auto outcome = engine_.ApplyPolicy("sentrel_feature", test::Text(policy),
                                                 Framework::PolicyOrigin::kKept);
        EXPECT_NE(outcome.result, 0);
        EXPECT_TRUE(test::WaitFor([this] { return IsWatched(); }, 20s));
    }
    void AwaitCheck() {
        EXPECT_TRUE(test::WaitFor([this] { return !Status()["last_check"].isNull(); }, 20s));
    }
    std::string Content(const std::string& name) const {
        return test::TempDir::Read(site_.Path(name));
    }
    std::string Copy(const std::string& name) const { return backup_.Path() + site_.Path(name); }
    int Generation() { return Status()["baseline"]["generation"].asInt(); }
    std::string Problem() { return Status()["problem"].asString(); }
    std::string Handled(const std::string& name) {
        return Alarm(site_.Path(name))["outcome"].asString();
    }
    /// Has the request carried out; returns how it ended.
    Json::Value Decide(const std::string& action, const std::vector<std::string>& names,
                       unsigned int generation = 0) {
        Json::Value request(Json::objectValue);
        request["generation"] = generation;
        request["action"] = action;
        request["all"] = names.empty();
        request["uid"] = 0U;
        request["pid"] = 4711;
        for (const std::string& name : names) request["paths"].append(site_.Path(name));
        const Json::Value known = Ask("baseline.request", request);
        EXPECT_TRUE(known.isMember("id")) << test::Text(known);
        Json::Value progress;
        EXPECT_TRUE(test::WaitFor(
            [&] {
                progress = Ask("baseline.progress", known);
                return progress["state"] == "done" || progress["state"] == "failed";
            },
            20s));
        return progress;
    }
    void ChangeAll() const {
        site_.Write("index.html", "defaced");
        fs::remove(site_.Path("sub/page.html"));
        site_.Write("evil/shell.php", "evil");
        ::chmod(site_.Path("sub").c_str(), 0777);
    }
};

TEST_F(ApprovedState, ChangesWhileTheAgentWasAway_AreHeldAndTheRestIsProtected) {
    Approve();
    StopProtection();
    ChangeAll();
    StartProtection();
    AwaitCheck();
    for (const char* name : {"index.html", "sub/page.html", "evil/", "sub/"}) {
        EXPECT_EQ(Handled(name), "held") << name;
    }
    EXPECT_EQ(Content("index.html") + Content("evil/shell.php"), "defacedevil");
    EXPECT_EQ(test::TempDir::Read(Copy("index.html")), "welcome") << "nothing is approved";
    site_.Write("sub/more.html", "defaced");
    site_.Write("sub/shell.php", "evil");
    EXPECT_TRUE(Becomes(site_.Path("sub/more.html"), "more"));
    EXPECT_TRUE(test::WaitFor([&] { return !fs::exists(site_.Path("sub/shell.php")); }, 20s));
    EXPECT_FALSE(fs::exists(site_.Path("sub/page.html"))) << "held while its neighbours change";
}

TEST_F(ApprovedState, ChangesWhileTheAgentWasAway_AreUndoneWhereTheConfigurationSaysSo) {
    Configure(R"({"start_check": "restore"})");
    Approve();
    StopProtection();
    ChangeAll();
    StartProtection();
    EXPECT_TRUE(Becomes(site_.Path("index.html"), "welcome"));
    EXPECT_TRUE(Becomes(site_.Path("sub/page.html"), "page"));
    EXPECT_TRUE(test::WaitFor([&] { return !fs::exists(site_.Path("evil")); }, 20s));
    struct stat info {};
    EXPECT_TRUE(test::WaitFor(
        [&] {
            return ::stat(site_.Path("sub").c_str(), &info) == 0 && (info.st_mode & 0777) != 0777;
        },
        20s));
}

TEST_F(ApprovedState, AlteredCopy_IsNeverPutBack) {
    Approve();
    std::ofstream(Copy("index.html")) << "altered copy";
    std::ofstream(Copy("sub/planted.php")) << "planted";
    fs::remove(Copy("sub/more.html"));
    site_.Write("index.html", "defaced");
    const Json::Value alarm = Alarm(Copy("index.html"));
    EXPECT_EQ(alarm["outcome"], "backup copy differs from its manifest: its size differs");
    EXPECT_EQ(Content("index.html"), "defaced");
    // A directory is restored without them, and what was approved is not taken for foreign.
    fs::remove_all(site_.Path("sub"));
    EXPECT_TRUE(Becomes(site_.Path("sub/page.html"), "page"));
    EXPECT_FALSE(Alarm(Copy("sub/planted.php")).isNull());
    site_.Write("sub/more.html", "more");
    EXPECT_FALSE(Alarm(Copy("sub/more.html")).isNull());
    EXPECT_EQ(Content("sub/more.html"), "more");
    EXPECT_FALSE(fs::exists(site_.Path("sub/planted.php")));
}

TEST_F(ApprovedState, AlteredCopy_IsNotApprovedWithSomethingElse) {
    Approve();
    StopProtection();
    ChangeAll();
    StartProtection();
    AwaitCheck();
    std::ofstream(Copy("sub/more.html")) << "altered copy";
    const Json::Value ended = Decide("accept", {"index.html", "evil"});
    EXPECT_EQ(ended["state"], "done") << ended["message"].asString();
    site_.Write("sub/more.html", "defaced");
    EXPECT_FALSE(Alarm(Copy("sub/more.html")).isNull());
    EXPECT_EQ(Content("sub/more.html"), "defaced");
}

TEST_F(ApprovedState, LostBackup_MakesNothingForeignAndIsUsedAgainWhenItIsBack) {
    Approve();
    const std::string elsewhere = backup_.Path() + ".away";
    fs::rename(backup_.Path(), elsewhere);
    fs::create_directory(backup_.Path());
    ::chmod(backup_.Path().c_str(), 0700);
    ASSERT_TRUE(test::WaitFor([this] { return !Problem().empty(); }, 20s));
    site_.Write("index.html", "defaced");
    fs::rename(site_.Path("sub/more.html"), site_.Path("sub/moved.html"));
    fs::rename(site_.Path("sub/moved.html"), site_.Path("sub/more.html"));
    EXPECT_FALSE(Alarm(site_.Path("index.html")).isNull());
    EXPECT_FALSE(Alarm(site_.Path("sub/more.html")).isNull());
    EXPECT_EQ(Content("sub/more.html"), "more");
    StopProtection();
    StartProtection();
    ASSERT_TRUE(test::WaitFor([this] { return !Problem().empty(); }, 20s));
    EXPECT_EQ(Content("index.html"), "defaced") << "nor is a new copy made";
    fs::remove_all(backup_.Path());
    fs::rename(elsewhere, backup_.Path());
    EXPECT_TRUE(test::WaitFor([this] { return Problem().empty(); }, 20s));
    EXPECT_EQ(test::TempDir::Read(Copy("index.html")), "welcome");
    site_.Write("sub/page.html", "defaced");
    EXPECT_TRUE(Becomes(site_.Path("sub/page.html"), "page"));
}

TEST_F(ApprovedState, CopiesThatWereDeletedBeforeAPolicy_AreNotMissedWhileTheyAreMadeAnew) {
    // So many that the places are looked at while they are copied.
    for (int at = 0; at < 1000; ++at) site_.Write("many/" + std::to_string(at), "page");
    Approve();
    StopProtection();
    fs::remove_all(backup_.Path());
    fs::create_directory(backup_.Path());
    ::chmod(backup_.Path().c_str(), 0700);
    Protect();
    std::string problem;
    const auto is_copied = [&] {
        const Json::Value status = Status();
        if (problem.empty()) problem = status["problem"].asString();
        return status["backup_complete"].asBool();
    };
    EXPECT_TRUE(test::WaitFor(is_copied, 60s)) << test::Text(Status());
    EXPECT_EQ(problem, "");
}

TEST_F(ApprovedState, OperatorsPolicy_ApprovesThePresentState) {
    Approve();
    StopProtection();
    site_.Write("index.html", "new release");
    Protect();
    EXPECT_TRUE(Becomes(Copy("index.html"), "new release"));
}

TEST_F(ApprovedState, HeldChanges_AreAcceptedOrRestoredAsTheOperatorDecides) {
    Approve();
    StopProtection();
    ChangeAll();
    StartProtection();
    AwaitCheck();
    EXPECT_EQ(Status()["held"].asInt(), 4);
    Json::Value ended = Decide("accept", {"index.html", "evil"});
    EXPECT_EQ(ended["state"], "done") << ended["message"].asString();
    EXPECT_EQ(ended["objects"].asInt(), 2);
    EXPECT_EQ(test::TempDir::Read(Copy("evil/shell.php")), "evil");
    EXPECT_EQ(Status()["baseline"]["approval"], "accepted by user 0, process 4711");
    ended = Decide("restore", {"sub"});
    EXPECT_EQ(ended["state"], "done") << ended["message"].asString();
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(Status()["held"].asInt(), 0);
    const Json::Value generation = Status()["baseline"]["generation"];
    site_.Write("sub/more.html", "more");
    EXPECT_EQ(Decide("accept", {"sub/more.html"})["objects"].asInt(), 0);
    EXPECT_EQ(Status()["baseline"]["generation"], generation) << "nothing differed";
    // What was accepted is protected from now on.
    site_.Write("index.html", "again");
    EXPECT_TRUE(Becomes(site_.Path("index.html"), "defaced"));
    site_.Write("sub/page.html", "page");
    fs::remove_all(site_.Path("evil"));
    EXPECT_TRUE(Becomes(site_.Path("evil/shell.php"), "evil"));
}

TEST_F(ApprovedState, RollbackThatIsNotPossibleOrEndedHalfWay_LosesNothing) {
    Approve();
    StopProtection();
    ChangeAll();
    site_.Write("index.html", "of another size");
    fs::create_hard_link(site_.Path("sub/more.html"), site_.Path("twin"));
    Protect();
    EXPECT_TRUE(Becomes(Copy("index.html"), "of another size"));
    ASSERT_TRUE(test::WaitFor([this] { return Generation() == 2; }, 20s));
    const auto kept = [this](const std::string& run, const std::string& name) {
        const fs::path all = backup_.Path(".morvane-generations");
        return fs::directory_iterator(all)->path() / run / name;
    };
    EXPECT_EQ(test::TempDir::Read(kept("1.1", "index.html")), "welcome");
    fs::rename(kept("1.1", "sub/page.html"), kept("1.1", "aside"));
    Json::Value ended = Decide("rollback", {}, 1);
    EXPECT_EQ(ended["state"], "failed");
    EXPECT_NE(ended["message"].asString().find(site_.Path("sub/page.html")), std::string::npos)
        << ended["message"].asString();
    EXPECT_EQ(test::TempDir::Read(Copy("index.html")), "of another size");
    EXPECT_EQ(Content("index.html"), "of another size");
    // As after a crash: one object is back among the copies already.
    fs::rename(kept("1.1", "aside"), kept("1.1", "sub/page.html"));
    fs::rename(kept("1.1", "index.html"), Copy("index.html"));
    EXPECT_EQ(Decide("rollback", {"sub"}, 1)["state"], "failed") << "it would be approved as it is";
    ended = Decide("rollback", {}, 1);
    EXPECT_EQ(ended["state"], "done") << ended["message"].asString();
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    EXPECT_FALSE(fs::exists(site_.Path("evil")));
    EXPECT_FALSE(fs::exists(Copy("twin")));
    EXPECT_EQ(Generation(), 3);
    EXPECT_EQ(Decide("rollback", {}, 7)["state"], "failed");
    EXPECT_EQ(Decide("rollback", {}, 3)["state"], "done") << "nothing differs";
    EXPECT_EQ(Generation(), 3);
}

TEST_F(ApprovedState, SingleFile_IsRolledBackWithItsExtendedAttributes) {
    const std::string page = site_.Path("index.html");
    const bool has_attributes = ::setxattr(page.c_str(), "user.a", "1", 1, 0) == 0;
    const auto apply = [&](int generation) {
        Json::Value policy = test::Installation::Policy();
        policy["content"]["dirlist"].append(test::Installation::Entry(page, backup_.Path()));
        EXPECT_NE(engine_.ApplyPolicy("sentrel_feature", test::Text(policy)).result, 0);
        EXPECT_TRUE(test::WaitFor([&] { return Generation() == generation; }, 20s));
    };
    apply(1);
    StopProtection();
    site_.Write("index.html", "another page");
    ::removexattr(page.c_str(), "user.a");
    ::chmod(page.c_str(), 0600);
    apply(2);
    const Json::Value ended = Decide("rollback", {"index.html"}, 1);
    EXPECT_EQ(ended["state"], "done") << ended["message"].asString();
    EXPECT_EQ(Content("index.html"), "welcome");
    struct stat info {};
    EXPECT_EQ(::stat(page.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & ALLPERMS, 0644U);
    char value = 0;
    EXPECT_EQ(::getxattr(page.c_str(), "user.a", &value, 1), has_attributes ? 1 : -1);
}

TEST_F(ApprovedState, KeyThatIsKeptElsewhere_IsNeededForEachApproval) {
    Approve();
    const std::string data = install_.Path() + "data/baseline/";
    const std::string pem = test::TempDir::Read(data + "signing.key");
    fs::remove(data + "signing.key");
    Json::Value request(Json::objectValue);
    request["action"] = "accept";
    request["all"] = true;
    Json::Value key(Json::objectValue);
    const auto is_refused = [&](const std::string& query, const Json::Value& what) {
        return Ask(query, what).isMember("error");
    };
    Json::Value policy(Json::objectValue);
    policy["text"] = test::Text(test::Installation::Policy());
    policy["to_apply"] = true;
    const auto errors = [&] {
        return Ask("policy.check.sentrel_feature", policy)["errors"].size();
    };
    const auto without_key = errors();
    EXPECT_TRUE(is_refused("baseline.request", request));
    key["key"] = SDK::SigningKey::Generate()->PrivatePem();
    EXPECT_TRUE(is_refused("baseline.key", key)) << "another key";
    key["key"] = pem;
    EXPECT_FALSE(is_refused("baseline.key", key));
    EXPECT_EQ(errors() + 1, without_key);
    StopProtection();
    ChangeAll();
    StartProtection();
    AwaitCheck();
    EXPECT_FALSE(is_refused("baseline.key", key));
    EXPECT_EQ(Decide("accept", {})["state"], "done");
    EXPECT_EQ(Generation(), 2);
    EXPECT_TRUE(is_refused("baseline.request", request)) << "it is forgotten";
}

TEST_F(ApprovedState, ReleaseLinkSwitchedWhileTheAgentWasAway_ApprovesNothing) {
    Approve();
    StopProtection();
    const test::TempDir other;
    other.Write("index.html", "theirs");
    Json::Value policy = test::Installation::Policy();
    policy["content"]["dirlist"].append(test::Installation::Entry(other.Path(), backup_.Path()));
    engine_.ApplyPolicy("sentrel_feature", test::Text(policy), Framework::PolicyOrigin::kKept);
    ASSERT_TRUE(test::WaitFor([this] { return !Problem().empty(); }, 20s));
    EXPECT_FALSE(fs::exists(backup_.Path() + other.Path("index.html")));
    EXPECT_EQ(Decide("accept", {})["state"], "done");
    EXPECT_TRUE(Becomes(backup_.Path() + other.Path("index.html"), "theirs"));
    EXPECT_TRUE(test::WaitFor([this] { return Problem().empty(); }, 20s));
}

}  // namespace
