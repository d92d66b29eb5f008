#include <RsyncVersion.h>
#include <SentrelStatus.h>
#include <SentrelUtils.h>
#include <framework/ConfigManager.h>

#include <filesystem>

#include "Installation.h"

namespace {

using Engine::SentrelStatus;
using Engine::SentrelUtils;
using Poco::Message;

class Provision : public ::testing::Test {
  protected:
    Provision() { Offer("#!/bin/sh\necho 'rsync  version 3.5.0  protocol version 32'\n"); }

    /// Makes a file with that content the one that the policy names.
    void Offer(const std::string& content) {
        utils_->rsync_url = "file://" + install_.dir.Write("download/rsync", content);
        utils_->rsync_hash = test::Installation::DigestOf(install_.dir.Path("download/rsync"));
        std::filesystem::remove(rsync_);
        success_ = "download file success, url=" + utils_->rsync_url +
                   ", hash=" + utils_->rsync_hash + ".";
    }
    long Downloads() const { return install_.Infos(success_); }

    test::Installation install_;
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    const std::string rsync_ = install_.Path() + "bin/rsync";
    std::string success_;
};

TEST_F(Provision, FirstCall_DownloadsAndLaterCallsTrustTheSameFile) {
    ASSERT_TRUE(utils_->DownloadRsync());
    struct stat info {};
    ASSERT_EQ(::stat(rsync_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0500U);
    EXPECT_EQ(install_.Infos("chmod(" + rsync_ + ", 500) -> 0."), 1);
    EXPECT_TRUE(utils_->DownloadRsync());
    EXPECT_EQ(Downloads(), 1);
    std::filesystem::last_write_time(
        rsync_, std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
    EXPECT_TRUE(utils_->DownloadRsync());
    EXPECT_EQ(Downloads(), 2);
}

TEST_F(Provision, FileAlreadyThere_IsFetchedAgain) {
    std::filesystem::copy_file(install_.dir.Path("download/rsync"), rsync_);
    ::chmod(rsync_.c_str(), 0500);
    EXPECT_TRUE(utils_->DownloadRsync());
    EXPECT_EQ(Downloads(), 1);
}

TEST_F(Provision, FailedDownload_KeepsTheOldFileAndSaysSo) {
    install_.dir.Write("bin/rsync", "old");
    utils_->rsync_hash = std::string(64, '0');
    EXPECT_FALSE(utils_->DownloadRsync());
    EXPECT_EQ(test::TempDir::Read(rsync_), "old");
    EXPECT_EQ(install_.Errors("download file failed, url=" + utils_->rsync_url +
                              ", hash=" + utils_->rsync_hash + "."),
              1);
    utils_->rsync_url.clear();
    EXPECT_FALSE(utils_->DownloadRsync());
}

TEST_F(Provision, OldRsync_IsUsedWithOneWarningAndAMarkInTheStatus) {
    Offer("#!/bin/sh\necho 'rsync  version 3.2.7  protocol version 31'\n");
    EXPECT_TRUE(utils_->DownloadRsync());
    EXPECT_TRUE(utils_->DownloadRsync());
    const std::string reason = "rsync 3.2.7 is older than 3.5.0: follows planted links as root";
    EXPECT_EQ(install_.log.Texts(Message::PRIO_WARNING),
              std::vector<std::string>{"rsync degraded: " + reason + "."});
    Json::Value rsync = SentrelStatus::Instance().ToJson(Json::Value())["rsync"];
    EXPECT_EQ(rsync["version"], "3.2.7");
    EXPECT_TRUE(rsync["degraded"].asBool());
    EXPECT_EQ(rsync["reason"], reason);
    Offer("#!/bin/sh\necho 'rsync  version v3.10.1  protocol version 33'\n");
    EXPECT_TRUE(utils_->DownloadRsync());
    rsync = SentrelStatus::Instance().ToJson(Json::Value())["rsync"];
    EXPECT_EQ(rsync["version"], "3.10.1");
    EXPECT_FALSE(rsync["degraded"].asBool());
    EXPECT_TRUE(Engine::FollowsPlantedLinks("3.4.99") && !Engine::FollowsPlantedLinks("3.5.0"));
}

TEST_F(Provision, NapLibrary_IsUsedWhereItCanBeLoadedAndNotSwitchedOff) {
    const auto why_not = [this] {
        Offer("#!/bin/sh\necho 'rsync  version 3.5.0  protocol version 32'\n");
        EXPECT_TRUE(utils_->DownloadRsync());
        const Json::Value nap = SentrelStatus::Instance().ToJson(Json::Value())["rsync"]["nap"];
        EXPECT_EQ(nap["in_use"].asBool(), nap["reason"].asString().empty());
        std::string output;
        EXPECT_EQ(SDK::ExecuteCmdUtils::ExecuteCmd(rsync_, output, 4096), 0);
        EXPECT_EQ(output, "rsync  version 3.5.0  protocol version 32\n");
        return nap["reason"].asString();
    };
    const std::string library = install_.dir.Path("lib/librsync_nap.so");
    EXPECT_EQ(why_not(), library + " cannot be read");
    install_.dir.Write("lib/librsync_nap.so", "no library");
    EXPECT_EQ(why_not(), library + " cannot be loaded into rsync");
    EXPECT_EQ(install_.log.Texts(Message::PRIO_NOTICE).size(), 2U);
    std::filesystem::remove(library);
    std::filesystem::create_symlink(SENTREL_MODULE_DIR "/../lib/librsync_nap.so", library);
    EXPECT_EQ(why_not(), "");
    Framework::ConfigManager& config = Framework::ConfigManager::GetInstance();
    std::string error;
    ASSERT_TRUE(config.Load(install_.dir.Write("a.json", R"({"sentrel": {"rsync_nap": false}})"),
                            true, error));
    EXPECT_EQ(why_not(), "switched off in conf/agent.json");
    EXPECT_EQ(install_.log.Texts(Message::PRIO_NOTICE).size(), 2U);
}

}  // namespace
