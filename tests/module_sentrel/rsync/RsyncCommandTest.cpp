#include <framework/ConfigManager.h>
#include <sdk/commands/ProcessUtils.h>

#include <cerrno>

#include "fixtures/Installation.h"
#include "support/WaitFor.h"
#include "utils/SentrelUtils.h"

namespace {

using namespace std::chrono_literals;
using Engine::RSYNC_BACKUP;
using Engine::RSYNC_RESTORE;
using Engine::SentrelUtils;
using Poco::Message;
using Strings = std::list<std::string>;

constexpr const char* kBase = "bin/rsync -az -H -X --links --delete-excluded --temp-dir=/tmp ";

class RsyncCommand : public ::testing::Test {
  protected:
    RsyncCommand() { install_.UseRecordingRsync(); }

    void ExpectRun(const std::string& command, bool success = true) {
        const std::string text = "Exec cmd [" + install_.Path() + command + "] ";
        const auto lines = install_.log.Texts(Message::PRIO_DEBUG);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back().substr(0, text.size()), text);
        EXPECT_EQ(lines.back().substr(text.size()).substr(0, 6), success ? "sucess" : "failed");
    }

    test::Installation install_;
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    test::TempDir data_;
};

TEST_F(RsyncCommand, Backup_HasTheExclusionsAndTheFullPath) {
    EXPECT_TRUE(utils_->DoRsyncLocal("/var/www/html", "/backup/", {".log", ".t m p"}, {"cache"},
                                     RSYNC_BACKUP));
    ExpectRun(std::string(kBase) +
              " --exclude \"*.log\"  --exclude \"*.t m p\"  --exclude \"cache\"  "
              "-R /var/www/html /backup/ ");
    EXPECT_EQ(install_.RsyncCalls(),
              "<-az><-H><-X><--links><--delete-excluded><--temp-dir=/tmp><--exclude><*.log>"
              "<--exclude><*.t m p><--exclude><cache><-R></var/www/html></backup/>\n");
}

TEST_F(RsyncCommand, Restore_CopiesAFileOntoItselfAndADirectoryByItsContents) {
    const std::string file = data_.Write("b/site/f", "x").substr(data_.Path("b").size());
    EXPECT_TRUE(utils_->DoRsyncLocal(file, data_.Path("b"), {}, {}, RSYNC_RESTORE));
    ExpectRun(kBase + data_.Path("b") + "/site/f /site/f ");
    EXPECT_TRUE(utils_->DoRsyncLocal("/site", data_.Path("b") + "/", {}, {"c"}, RSYNC_RESTORE));
    ExpectRun(std::string(kBase) + " --exclude \"c\" " + data_.Path("b") + "//site/ /site/ ");
    EXPECT_TRUE(utils_->DoRsyncLocal("/site/", data_.Path("b"), {}, {},
                                     static_cast<Engine::rsync_mode>(7)));
    ExpectRun(kBase + data_.Path("b") + "/site/ /site/ ");
}

TEST_F(RsyncCommand, RestoreWithoutBackupCopy_RunsNothing) {
    EXPECT_FALSE(utils_->DoRsyncLocal("/site/f", data_.Path("b"), {}, {}, RSYNC_RESTORE));
    EXPECT_EQ(install_.RsyncCalls(), "");
    EXPECT_EQ(
        install_.Debugs("file:" + data_.Path("b") + "/site/f  info:" + std::to_string(ENOENT)), 1);
}

TEST_F(RsyncCommand, Remote_NamesServerPortAndAgent) {
    utils_->backup_addr = "10.0.0.9";
    Framework::ConfigManager::GetInstance().SetAgentId("agent-1");
    const std::string base =
        "bin/rsync -az -H -X -R --links --delete-excluded --password-file=" + install_.Path() +
        "conf/rsync_client.secrets";
    EXPECT_TRUE(utils_->DoRsyncRemote("/backup/site/", RSYNC_RESTORE));
    ExpectRun(base + " /backup/site/ morvane_agent@10.0.0.9::morvane_agent/agent-1 ");
    utils_->backup_port = 873;
    EXPECT_TRUE(utils_->DoRsyncRemote("/backup/site/", RSYNC_BACKUP));
    ExpectRun(base + " --port 873 /backup/site/ morvane_agent@10.0.0.9::morvane_agent/agent-1 ");
    Framework::ConfigManager::GetInstance().SetAgentId("");
    EXPECT_FALSE(utils_->DoRsyncRemote("/backup/site/", RSYNC_BACKUP));
    EXPECT_EQ(install_.Debugs("agentid pok."), 1);
}

TEST_F(RsyncCommand, Result_DependsOnTheExitCodeAndTheWordError) {
    const std::vector<std::pair<std::string, bool>> table = {
        {"echo all ERROR fine", true},
        {"echo sent error.html", false},
        {"echo to stderr: error >&2", false},
        {"exit 23", false},
        {"kill -9 $$", false},
    };
    for (const auto& [body, success] : table) {
        install_.UseRecordingRsync(body);
        EXPECT_EQ(utils_->DoRsyncLocal("/a", "/b", {}, {}, RSYNC_BACKUP), success) << body;
        EXPECT_EQ(utils_->LastCopyError().empty(), success) << body;
        ExpectRun(std::string(kBase) + " -R /a /b ", success);
    }
}

TEST_F(RsyncCommand, RsyncThatDoesNothing_IsEndedWithItsGroupAndTheNextOneSucceeds) {
    const std::string file = data_.Write("b/site/f", "x").substr(data_.Path("b").size());
    const std::string pid_file = install_.dir.Path("pid");
    utils_->copy_idle_period = 300ms;
    for (const auto mode : {RSYNC_BACKUP, RSYNC_RESTORE}) {
        const auto copy = [&] { return utils_->DoRsyncLocal(file, data_.Path("b"), {}, {}, mode); };
        install_.UseRecordingRsync("sleep 600 & echo $! >" + pid_file + "; wait");
        EXPECT_FALSE(copy());
        EXPECT_EQ(utils_->LastCopyError(), "rsync was held up and has been ended");
        const auto pid = static_cast<unsigned>(std::stoi(test::TempDir::Read(pid_file)));
        EXPECT_TRUE(test::WaitFor([&] { return !SDK::ProcessUtils::IsProcessAlive(pid); }, 10s));
        install_.UseRecordingRsync();
        EXPECT_TRUE(copy());
    }
    utils_->copy_idle_period = Engine::RsyncCopies::kIdlePeriod;
}

TEST_F(RsyncCommand, Records_HaveTheGivenSourceFile) {
    EXPECT_TRUE(utils_->DoRsyncLocal("/a", "/b", {}, {}, RSYNC_BACKUP));
    EXPECT_TRUE(utils_->RunRsyncDaemon(install_.Path() + "conf/none.conf"));
    EXPECT_TRUE(utils_->SetInotifyMaxUserWatches());
    EXPECT_FALSE(utils_->DownloadRsync());
    EXPECT_GE(install_.log.Records().size(), 4U);
    EXPECT_EQ(install_.log.Sources(), std::set<std::string>{"SentrelUtils.cpp"});
}

TEST_F(RsyncCommand, WatchLimit_IsAppendedEachTimeAndReloaded) {
    const std::string command =
        "echo fs.inotify.max_user_watches=819200 | sudo tee -a /etc/sysctl.conf && sudo sysctl -p";
    EXPECT_TRUE(utils_->SetInotifyMaxUserWatches());
    EXPECT_TRUE(utils_->SetInotifyMaxUserWatches());
    EXPECT_EQ(test::TempDir::Read(install_.dir.Path("sudo.log")),
              "tee -a /etc/sysctl.conf\nsysctl -p\ntee -a /etc/sysctl.conf\nsysctl -p\n");
    EXPECT_EQ(install_.Debugs("Exec cmd [" + command + "] sucess."), 2);
    install_.WriteScript("fake/sudo", "cat >/dev/null; echo 'error: refused'");
    EXPECT_FALSE(utils_->SetInotifyMaxUserWatches());
    install_.WriteScript("fake/sudo", "exit 1");
    EXPECT_FALSE(utils_->SetInotifyMaxUserWatches());
    EXPECT_EQ(install_.Debugs("Exec cmd [" + command + "] failed, infor:."), 1);
    install_.WriteScript("fake/sudo", "exec sleep 600");
    utils_->watch_limit_period = std::chrono::milliseconds(300);
    EXPECT_FALSE(utils_->SetInotifyMaxUserWatches());
    utils_->watch_limit_period = Engine::WatchLimit::kPeriod;
    EXPECT_EQ(install_.Debugs("Exec cmd [" + command + "] failed, infor:."), 2);
}

}  // namespace
