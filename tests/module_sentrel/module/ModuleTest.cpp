#include <sys/inotify.h>

#include "SentrelModule.h"
#include "fixtures/FakeTasks.h"
#include "fixtures/Installation.h"
#include "support/WaitFor.h"
#include "utils/SentrelUtils.h"

namespace {

using namespace std::chrono_literals;
using Engine::SentrelUtils;
using Poco::Message;
using Strings = std::vector<std::string>;

class ModuleTest : public ::testing::Test {
  protected:
    ModuleTest() {
        std::unique_ptr<Framework::Module> module(
            static_cast<Framework::Module*>(::CreateModule()));
        module_ = static_cast<Engine::SentrelModule*>(module.get());
        std::string error;
        EXPECT_TRUE(running_.engine.AddModule(std::move(module), error)) << error;
        site_.Write("index.html", "x");
        policy_ = test::Installation::Policy();
        policy_["content"]["dirlist"].append(
            test::Installation::Entry(site_.Path(), backup_.Path()));
    }

    int Apply(const std::string& text, const std::string& feature = "sentrel_feature") {
        const Framework::PolicyOutcome outcome = running_.engine.ApplyPolicy(feature, text);
        EXPECT_EQ(outcome.handled, outcome.exception.empty());
        exception_ = outcome.exception;
        rejection_ = outcome.rejection;
        return outcome.result;
    }
    bool IsOn(const std::string& task) const { return running_.engine.FindTask(task) != nullptr; }
    bool ProtectionIsOn() const {
        EXPECT_EQ(IsOn("sentrel_inotify_task"), IsOn("sentrel_backup_task"));
        return IsOn("sentrel_inotify_task");
    }
    /// Bodies of the exceptions reported since the last call.
    Strings Exceptions() {
        Strings bodies;
        const auto seen = running_.fakes->cmd.Seen();
        for (; exceptions_ < seen.size(); ++exceptions_) bodies.push_back(seen[exceptions_].body);
        return bodies;
    }
    Json::Value Status() {
        Json::Value answer;
        EXPECT_TRUE(running_.engine.Queries().Ask("status.sentrel", Json::objectValue, answer));
        return answer;
    }

    test::Installation install_;
    test::RunningEngine running_{install_.log};
    test::TempDir site_;
    test::TempDir backup_;
    Json::Value policy_;
    Engine::SentrelModule* module_ = nullptr;
    std::string exception_;
    std::string rejection_;
    std::size_t exceptions_ = 0;
};

TEST_F(ModuleTest, UnInit_UnregistersEverythingAndCanBeCalledTwice) {
    ASSERT_NE(Apply(test::Text(policy_)), 0);
    for (int pass = 0; pass < 2; ++pass) {
        running_.engine.RunOnFrameworkThread([this] { module_->UnInit(); });
        EXPECT_FALSE(ProtectionIsOn());
    }
    EXPECT_EQ(install_.Infos("delete backup server task class."), 1);
    EXPECT_FALSE(running_.engine.InvokeTasklet("sentrel_getpasswd_10001", "{}").found);
    EXPECT_FALSE(running_.engine.ApplyPolicy("sentrel_feature", "{}").handled);
    EXPECT_TRUE(running_.engine.Queries().Names("status.sentrel").empty());
}

TEST_F(ModuleTest, ValidPolicy_StartsWatchesAndBackupAndReportsIt) {
    EXPECT_NE(Apply(test::Text(policy_)), 0) << exception_;
    EXPECT_TRUE(ProtectionIsOn());
    EXPECT_EQ(test::TempDir::Read(install_.dir.Path("sudo.log")),
              "tee -a /etc/sysctl.conf\nsysctl -p\n");
    auto& fakes = *running_.fakes;
    EXPECT_TRUE(test::WaitFor([&] { return fakes.data.Seen().size() == 1; }, 10s));
    EXPECT_EQ(fakes.data.Seen()[0].name, "sentrel_status_1");
    EXPECT_EQ(fakes.data.Seen()[0].body,
              R"({"feature":"sentrel_feature","status":"protect","task":"SentrelInotifyTask"})");
    EXPECT_TRUE(test::WaitFor([&] { return !fakes.notify.Requests().empty(); }, 10s));
    EXPECT_EQ(fakes.notify.Mask(),
              static_cast<unsigned>(IN_CREATE | IN_MODIFY | IN_DELETE | IN_ATTRIB | IN_MOVE |
                                    IN_DELETE_SELF | IN_MOVE_SELF));
    const _FileNotifyOpt& options = fakes.notify.Options();
    EXPECT_TRUE(options.recursive && options.report_directories && options.rewatch);
    const std::string copy = backup_.Path() + site_.Path("index.html");
    EXPECT_TRUE(
        test::WaitFor([&] { return !SentrelUtils::GetInstance()->local_backup_pending; }, 30s));
    EXPECT_EQ(test::TempDir::Read(copy), "x");
    const Json::Value status = Status();
    EXPECT_TRUE(status["protection"]["on"].asBool() && status["protection"]["working"].asBool());
    EXPECT_EQ(status["protected_paths"][0]["path"], site_.Path() + "/");
    EXPECT_GT(status["protected_paths"][0]["last_local_backup"].asInt64(), 0);
    EXPECT_FALSE(status["backup"]["local_pending"].asBool());
    EXPECT_FALSE(status["rsync"]["version"].asString().empty());
    EXPECT_TRUE(Exceptions().empty());
}

TEST_F(ModuleTest, SamePolicyTwice_RegistersTheTasksAgain) {
    for (int pass = 0; pass < 2; ++pass) {
        EXPECT_NE(Apply(test::Text(policy_)), 0);
        EXPECT_TRUE(test::WaitFor(
            [&] { return running_.fakes->notify.Requests().size() == 2U * pass + 1; }, 10s));
    }
    const std::string root = site_.Path() + "/";
    EXPECT_EQ(running_.fakes->notify.Requests(), (Strings{"+" + root, "-" + root, "+" + root}));
    EXPECT_EQ(install_.Infos("register backup task."), 2);
    EXPECT_EQ(install_.Infos("Task(sentrel_inotify_task) uninit."), 1);
}

TEST_F(ModuleTest, RejectedAndEmptyPolicies_HaveTheirOutcome) {
    const Strings failed{
        R"({"feature":"sentrel_feature", "exception":"parse feature policy failed."})"};
    struct Case {
        std::string text;
        bool is_rejected;
        bool stays_on;
        std::string log;  ///< followed by " [sentrel_feature]."
    };
    Json::Value no_entry = policy_;
    no_entry["content"]["dirlist"][0]["enable"] = false;
    Json::Value bad = policy_;
    bad["content"]["os_type"] = 1;
    const std::vector<Case> table = {
        {"{", true, true, "parse feature policy failed"},
        {"{}", false, false, "disable feature"},
        {test::Text(bad), true, false, "parse feature policy failed"},
        {test::Text(no_entry), false, false, "rule list is empty, disable feature"},
    };
    for (const Case& c : table) {
        ASSERT_NE(Apply(test::Text(policy_)), 0);
        install_.log.Clear();
        EXPECT_EQ(Apply(c.text), 0) << c.text;
        const auto priority = c.is_rejected ? Message::PRIO_ERROR : Message::PRIO_INFORMATION;
        EXPECT_EQ(install_.log.Count(priority, c.log + " [sentrel_feature]."), 1) << c.text;
        EXPECT_EQ(Exceptions(), c.is_rejected ? failed : Strings()) << c.text;
        EXPECT_EQ(rejection_, c.is_rejected ? "parse feature policy failed." : "");
        EXPECT_EQ(ProtectionIsOn(), c.stays_on) << c.text;
        EXPECT_EQ(Status()["protection"]["on"].asBool(), c.stays_on);
    }
}

TEST_F(ModuleTest, RejectedPolicy_IsReportedWithoutAReportStore) {
    running_.engine.RunOnFrameworkThread(
        [this] { running_.fakes->UnRegisterTask("cmd_comm_report_task"); });
    ASSERT_EQ(running_.engine.FindTask("cmd_comm_report_task"), nullptr);
    for (const std::string feature : {"sentrel_feature", "backupserver_feature"}) {
        EXPECT_EQ(Apply(R"({"enabled":true})", feature), 0);
        EXPECT_EQ(rejection_, "parse feature policy failed.") << feature;
        EXPECT_EQ(Apply(R"({"enabled":false})", feature), 0);
        EXPECT_EQ(rejection_, "") << feature;
    }
}

TEST_F(ModuleTest, LinkWithATrailingSlash_ProtectsItsTarget) {
    const std::string link = install_.dir.Path("link");
    std::filesystem::create_directory_symlink(site_.Path(), link);
    policy_["content"]["dirlist"][0]["filepath"] = link + "/";
    ASSERT_NE(Apply(test::Text(policy_)), 0);
    // The task writes its status after the requests that it lists.
    EXPECT_TRUE(test::WaitFor(
        [&] { return Status()["protected_paths"][0]["configured_path"] == link + "/"; }, 10s));
    EXPECT_EQ(running_.fakes->notify.Requests(), (Strings{"+" + site_.Path() + "/"}));
}

TEST_F(ModuleTest, BackupServerFeature_SwitchesOnlyItsOwnTask) {
    install_.UseRecordingRsync();
    Json::Value document = test::Installation::Policy();
    Json::Value& content = document["content"];
    content["backupserver_ip"] = "127.0.0.1";
    content["backupserver_port"] = 1;
    content["backupserver_path"] = backup_.Path();
    EXPECT_EQ(Apply(test::Text(document), "no_feature_of_ours"), 0);
    content[Engine::RsyncKeys::OfThisHost().hash] = "wrong";  // the recording rsync stays
    EXPECT_NE(Apply(test::Text(document), "backupserver_feature"), 0);
    EXPECT_TRUE(IsOn("sentrel_backupserver_task"));
    EXPECT_FALSE(ProtectionIsOn());
    EXPECT_TRUE(test::WaitFor(
        [&] { return install_.RsyncCalls().find("<--daemon>") != std::string::npos; }, 10s));
    EXPECT_EQ(Apply("{", "backupserver_feature"), 0);
    EXPECT_TRUE(IsOn("sentrel_backupserver_task"));
    content["backupserver_port"] = 0;
    EXPECT_EQ(Apply(test::Text(document), "backupserver_feature"), 0);
    EXPECT_FALSE(IsOn("sentrel_backupserver_task"));
    EXPECT_EQ(Apply(R"({"enabled":false})", "backupserver_feature"), 0);
    EXPECT_EQ(install_.Infos("disable feature [backupserver_feature]."), 1);
}

}  // namespace
