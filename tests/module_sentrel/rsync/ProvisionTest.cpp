#include <framework/ConfigManager.h>
#include <sdk/host/RsyncVersion.h>
#include <sys/xattr.h>

#include <filesystem>
#include <thread>
#include <vector>

#include "fixtures/Installation.h"
#include "rsync/RsyncEnvironment.h"
#include "utils/SentrelUtils.h"

namespace {

using Engine::SentrelUtils;
using Poco::Message;

constexpr const char* kAcl = "system.posix_acl_access";

class Provision : public ::testing::Test {
  protected:
    Provision() { Offer("#!/bin/sh\necho 'rsync  version 3.5.0  protocol version 32'\n"); }

    /// Makes the policy's download a file with that content.
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

TEST_F(Provision, FirstCall_DownloadsAndLaterCallsUseTheSameFile) {
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

TEST_F(Provision, ConcurrentCalls_DownloadOnce) {
    std::vector<std::thread> tasks;
    for (int i = 0; i < 3; ++i) {
        tasks.emplace_back([this] { EXPECT_TRUE(utils_->DownloadRsync()); });
    }
    for (std::thread& task : tasks) task.join();
    EXPECT_EQ(Downloads(), 1);
}

TEST_F(Provision, ExistingFile_IsDownloadedAgain) {
    std::filesystem::copy_file(install_.dir.Path("download/rsync"), rsync_);
    ::chmod(rsync_.c_str(), 0500);
    EXPECT_TRUE(utils_->DownloadRsync());
    EXPECT_EQ(Downloads(), 1);
}

TEST_F(Provision, FailedDownload_KeepsTheOldFileAndLogs) {
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

TEST_F(Provision, OldRsync_IsUsedWithOneWarningAndADegradedStatus) {
    Offer("#!/bin/sh\necho 'rsync  version 3.2.7  protocol version 31'\n");
    EXPECT_TRUE(utils_->DownloadRsync());
    EXPECT_TRUE(utils_->DownloadRsync());
    const std::string reason = "rsync 3.2.7 is older than 3.5.0: follows planted links as root";
    EXPECT_EQ(install_.log.Texts(Message::PRIO_WARNING),
              std::vector<std::string>{"rsync degraded: " + reason + "."});
    Json::Value rsync = utils_->Rsync().ToJson();
    EXPECT_EQ(rsync["version"], "3.2.7");
    EXPECT_TRUE(rsync["degraded"].asBool());
    EXPECT_EQ(rsync["reason"], reason);
    Offer("#!/bin/sh\necho 'rsync  version v3.10.1  protocol version 33'\n");
    EXPECT_TRUE(utils_->DownloadRsync());
    rsync = utils_->Rsync().ToJson();
    EXPECT_EQ(rsync["version"], "3.10.1");
    EXPECT_FALSE(rsync["degraded"].asBool());
    EXPECT_TRUE(SDK::FollowsPlantedLinks("3.4.99") && !SDK::FollowsPlantedLinks("3.5.0"));
}

TEST_F(Provision, PreloadLibrary_IsUsedWhenItCanBeLoadedAndIsNotSwitchedOff) {
    const auto why_not = [this] {
        Offer("#!/bin/sh\necho 'rsync  version 3.5.0  protocol version 32'\n");
        EXPECT_TRUE(utils_->DownloadRsync());
        const Json::Value preload = utils_->Rsync().ToJson()["preload"];
        EXPECT_EQ(preload["in_use"].asBool(), preload["reason"].asString().empty());
        std::string output;
        EXPECT_EQ(SDK::ExecuteCmdUtils::ExecuteCmd(rsync_, output, 4096), 0);
        EXPECT_EQ(output, "rsync  version 3.5.0  protocol version 32\n");
        return preload["reason"].asString();
    };
    const std::string library = install_.dir.Path("lib/librsync_preload.so");
    EXPECT_EQ(why_not(), library + " cannot be read");
    install_.dir.Write("lib/librsync_preload.so", "no library");
    EXPECT_EQ(why_not(), library + " cannot be loaded into rsync");
    EXPECT_EQ(install_.log.Texts(Message::PRIO_NOTICE).size(), 2U);
    std::filesystem::remove(library);
    std::filesystem::create_symlink(SENTREL_MODULE_DIR "/../lib/librsync_preload.so", library);
    EXPECT_EQ(why_not(), "");
    Framework::ConfigManager& config = Framework::ConfigManager::GetInstance();
    std::string error;
    ASSERT_TRUE(config.Load(
        install_.dir.Write("a.json", R"({"sentrel": {"rsync_preload": false}})"), true, error));
    EXPECT_EQ(why_not(), "switched off in conf/agent.json");
    EXPECT_EQ(install_.log.Texts(Message::PRIO_NOTICE).size(), 2U);
}

TEST_F(Provision, OptionAliases_FitTheRsyncAndTheKindOfCopy) {
    const auto run = [this](const std::string& arguments) {
        std::string output;
        const std::string line = rsync_ + " -az -H -X --links --delete-excluded --debug=nstr ";
        EXPECT_EQ(SDK::ExecuteCmdUtils::ExecuteCmd(line + arguments, output, 4096), 0) << output;
        return output;
    };
    const auto holds = [](const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    };
    const std::string from = install_.dir.Write("from/f", "content");
    const std::string to = install_.dir.Path("to/");
    const std::string server = install_.WriteScript(
        "server",
        "exec " + rsync_ + " --server --daemon --config=" +
            install_.dir.Write("rsyncd.conf", "[m]\npath=" + install_.dir.Path() +
                                                  "\nuse chroot=no\nuid=0\ngid=0\nread only=no\n") +
            " .\n");
    const std::string secret = install_.dir.Write("secret", "x\n");
    ::chmod(secret.c_str(), 0600);
    utils_->rsync_url = "file://" + test::Installation::RealRsync();
    utils_->rsync_hash = test::Installation::DigestOf(test::Installation::RealRsync());
    std::string version;
    SDK::ExecuteCmdUtils::ExecuteCmd("/usr/bin/rsync --version", version, 4096);
    // An ACL that names user 33 and leaves the mode as it is.
    const std::string acl(
        "\2\0\0\0\1\0\6\0\xff\xff\xff\xff\2\0\4\0\x21\0\0\0\4\0\4\0\xff\xff\xff\xff"
        "\x10\0\4\0\xff\xff\xff\xff\x20\0\4\0\xff\xff\xff\xff",
        44);
    ASSERT_EQ(::setxattr(from.c_str(), kAcl, acl.data(), acl.size(), 0), 0);
    const auto has_acl = [&](const std::string& path) {
        return ::getxattr(path.c_str(), kAcl, nullptr, 0) > 0;
    };
    for (const std::string home : {"", "sha1", "sha1-acls"}) {
        const bool named = !home.empty();
        const std::string aliases = "/conf/home/" + home + "/.popt";
        std::filesystem::create_directories(install_.dir.Path("conf/home/" + home));
        std::filesystem::copy_file(SENTREL_MODULE_DIR "/.." + aliases, install_.dir.Path(aliases),
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::remove(rsync_);
        EXPECT_TRUE(utils_->DownloadRsync());
        const std::string restore = run(from + " " + to);
        const bool known = Engine::HasChecksum(version, "sha1");
        EXPECT_EQ(holds(restore, "Client checksum: xxh128,sha1\n"), named && known) << restore;
        EXPECT_FALSE(holds(restore, "compress")) << restore;
        EXPECT_EQ(has_acl(to + "f"), home == "sha1-acls");
        EXPECT_EQ(utils_->Rsync().KeepsAcls(), home == "sha1-acls");
        const std::string backup = run("-R " + from + " " + to);
        EXPECT_TRUE(holds(backup, "negotiated checksum") && !holds(backup, "compress")) << backup;
        EXPECT_EQ(has_acl(to + from), home == "sha1-acls");
        std::filesystem::remove_all(to + install_.dir.Path());
        const std::string push =
            run("-R --password-file=" + secret + " -e " + server + " " + from + " h::m/to/");
        EXPECT_TRUE(holds(push, "negotiated checksum") && holds(push, "compress: z")) << push;
        EXPECT_TRUE(std::filesystem::exists(to + from) && !has_acl(to + from)) << push;
    }
    EXPECT_TRUE(Engine::HasChecksum("a\nChecksum list:\n    xxh64 sha1\nCompress list:", "sha1"));
    EXPECT_FALSE(Engine::HasChecksum("Checksum list:\n    xxh64\nDaemon list:\n sha1\n", "sha1"));
}

}  // namespace
