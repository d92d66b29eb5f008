#include <framework/ConfigManager.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <thread>

#include "feature_sentrel/SentrelBackupTask.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "fixtures/FakeTasks.h"
#include "fixtures/Installation.h"
#include "support/WaitFor.h"
#include "utils/SentrelUtils.h"

namespace {

using Engine::SentrelUtils;
using Poco::Message;

class BackupTask : public ::testing::Test {
  protected:
    BackupTask() {
        install_.UseRecordingRsync("case \"$*\" in *bad*) exit 3;; esac");
        Framework::ConfigManager::GetInstance().SetAgentId("agent-1");
        utils_->backup_addr = "10.0.0.9";
    }
    void Protect(const std::string& path) {
        Engine::SentrelDirRule rule;
        rule.real_path = path;
        rule.backup_path = backup_;
        utils_->dir_rules.push_back(rule);
    }
    long Calls() const {
        const std::string calls = install_.RsyncCalls();
        return std::count(calls.begin(), calls.end(), '\n');
    }

    test::Installation install_;
    const std::string backup_ = install_.dir.Path("backup");
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    Engine::SentrelBackupTask task_{install_.state};
};

TEST_F(BackupTask, OneFailure_RepeatsThePassForTheFailedPath) {
    Protect("/a/");
    Protect("/bad/");
    task_.Run();
    EXPECT_EQ(install_.log.Texts(Message::PRIO_TRACE),
              std::vector<std::string>{"Backup (/a/) to (" + backup_ + ") success num(1)."});
    EXPECT_EQ(install_.log.Texts(Message::PRIO_ERROR),
              std::vector<std::string>{"Backup (/bad/) to (" + backup_ + ") faild."});
    EXPECT_TRUE(utils_->local_backup_pending);
    task_.Run();
    EXPECT_EQ(Calls(), 3);
    utils_->dir_rules.pop_back();
    for (int pass = 0; pass < 2; ++pass) task_.Run();
    EXPECT_TRUE(!utils_->local_backup_pending && utils_->remote_backup_pending);
    EXPECT_EQ(Calls(), 3);
}

TEST_F(BackupTask, LinkInPlaceOfTheDirectory_IsNotCopied) {
    std::filesystem::create_directories(install_.dir.Path("elsewhere"));
    std::filesystem::create_directory_symlink(install_.dir.Path("elsewhere"),
                                              install_.dir.Path("site"));
    Protect(install_.dir.Path("site/"));
    task_.Run();
    EXPECT_EQ(Calls(), 0);
    EXPECT_TRUE(utils_->local_backup_pending);
    EXPECT_FALSE(install_.state.progress.IsComplete(utils_->dir_rules.front()));
    std::filesystem::remove(install_.dir.Path("site"));
    task_.Run();
    EXPECT_TRUE(install_.state.progress.IsComplete(utils_->dir_rules.front()));
}

TEST_F(BackupTask, Remote_PushesTheBackupCopies) {
    Protect("/a/");
    Protect("/bad/");
    utils_->backup_type = 2;
    utils_->local_backup_pending = false;
    task_.Run();
    EXPECT_EQ(Calls(), 2);
    EXPECT_EQ(install_.log.Texts(Message::PRIO_TRACE),
              std::vector<std::string>{"Backup (" + backup_ + "/a/) to remote success."});
    EXPECT_EQ(install_.log.Texts(Message::PRIO_ERROR),
              std::vector<std::string>{"Backup (" + backup_ + "/bad/) to remote faild."});
    EXPECT_TRUE(utils_->remote_backup_pending);
    utils_->dir_rules.pop_back();
    task_.Run();
    EXPECT_FALSE(utils_->remote_backup_pending);
}

TEST_F(BackupTask, PauseThatEndsDuringAPass_RepeatsThePass) {
    const std::string gate = install_.dir.Path("gate");
    ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
    install_.UseRecordingRsync("case \"$*\" in */backup/a/*) [ ! -p " + gate + " ] || read x <" +
                               gate + ";; esac");
    Protect("/a/");
    Protect("/b/");
    utils_->backup_type = 2;
    std::thread pass([this] { task_.Run(); });
    std::ofstream opened(gate);  // opens when the push of the first path waits
    utils_->is_run = false;
    Engine::SentrelInotifyTask(install_.state).CheckDisableTime();
    opened << "go\n" << std::flush;
    pass.join();
    EXPECT_EQ(Calls(), 4);
    EXPECT_TRUE(utils_->local_backup_pending && utils_->remote_backup_pending);
    std::filesystem::remove(gate);
    task_.Run();
    EXPECT_FALSE(utils_->local_backup_pending || utils_->remote_backup_pending);
    EXPECT_TRUE(install_.state.progress.IsComplete(utils_->dir_rules.front()));
}

TEST_F(BackupTask, TypesAndEmptyList_DoNothing) {
    Protect("/a/");
    for (const int type : {1, 3}) {
        utils_->backup_type = type;
        task_.Run();
    }
    EXPECT_EQ(install_.Traces("remote backup not local."), 2);
    utils_->backup_type = 0;
    utils_->dir_rules.clear();
    task_.Run();
    EXPECT_FALSE(utils_->local_backup_pending || utils_->remote_backup_pending);
    EXPECT_EQ(install_.log.Texts(Message::PRIO_INFORMATION),
              (std::vector<std::string>{"local backup all ok.", "remote backup all ok."}));
    task_.Run();
    EXPECT_EQ(install_.Traces("all backup ok, no need backup again."), 1);
    EXPECT_EQ(Calls(), 0);
}

TEST_F(BackupTask, PathThatIsNotWatchedYet_IsCopiedWhenItIs) {
    const test::RunningEngine running(install_.log);
    Framework::Task watcher("sentrel_inotify_task", "test", Framework::TaskCondition::kPeriodic, 1);
    watcher.duplicate();
    running.fakes->RegisterTask(&watcher, false);
    std::mutex mutex;
    Json::Value watch;
    std::atomic<int> asked{0};
    Framework::Engine::Instance().Queries().Register("filenotify.watches", [&](const Json::Value&) {
        const std::lock_guard<std::mutex> lock(mutex);
        ++asked;
        Json::Value answer(Json::objectValue);
        answer["watches"].append(watch);
        return answer;
    });
    const auto answer = [&](const char* id, const char* state) {
        const std::lock_guard<std::mutex> lock(mutex);
        watch["receiver"] = "sentrel_inotify_task";
        watch["id"] = id;
        watch["state"] = state;
        return asked.load();
    };
    const auto is_asked_since = [&](int before) {
        return test::WaitFor([&] { return asked > before + 1; }, std::chrono::seconds(5));
    };
    Protect("/a/");
    std::thread pass([this] { task_.Run(); });
    EXPECT_TRUE(is_asked_since(answer("/b", "ready")));
    EXPECT_TRUE(is_asked_since(answer("/a", "walking")));
    EXPECT_EQ(Calls(), 0);
    answer("/a", "degraded");
    pass.join();
    EXPECT_EQ(Calls(), 1);
    EXPECT_FALSE(utils_->local_backup_pending);
    Framework::Engine::Instance().Queries().Unregister("filenotify.watches");
    running.fakes->UnRegisterTask("sentrel_inotify_task");
}

TEST_F(BackupTask, InitWithoutRsync_ReportsAndContinues) {
    const test::RunningEngine running(install_.log);
    EXPECT_TRUE(task_.Init());
    EXPECT_EQ(install_.Errors("download rsync failed."), 1);
    const auto seen = running.fakes->cmd.Seen();
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].name, "feature_exception_1");
    EXPECT_EQ(seen[0].body,
              R"({"feature":"sentrel_feature", "exception":"download rsync failed."})");
    EXPECT_EQ(install_.Infos("send feature_exception_1 to cmd_comm_report_task, length=" +
                             std::to_string(seen[0].body.size()) + ", result=0"),
              1);
}

}  // namespace
