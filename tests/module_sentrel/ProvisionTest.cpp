#include <RsyncVersion.h>
#include <SentrelStatus.h>
#include <SentrelUtils.h>

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
    EXPECT_EQ(install_.log.Texts(Message::PRIO_WARNING).size(), 1U);
    Json::Value rsync = SentrelStatus::Instance().ToJson(Json::Value())["rsync"];
    EXPECT_EQ(rsync["version"], "3.2.7");
    EXPECT_TRUE(rsync["degraded"].asBool());
    Offer("#!/bin/sh\necho 'rsync  version v3.10.1  protocol version 33'\n");
    std::filesystem::remove(rsync_);
    EXPECT_TRUE(utils_->DownloadRsync());
    rsync = SentrelStatus::Instance().ToJson(Json::Value())["rsync"];
    EXPECT_EQ(rsync["version"], "3.10.1");
    EXPECT_FALSE(rsync["degraded"].asBool());
    EXPECT_TRUE(Engine::FollowsPlantedLinks("3.4.99") && !Engine::FollowsPlantedLinks("3.5.0"));
}

}  // namespace
