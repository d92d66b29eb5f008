#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "fixtures/Installation.h"
#include "support/WaitFor.h"
#include "utils/SentrelUtils.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Engine::SentrelUtils;

/// An rsync without our library that opens a pipe where it saw a file before.
class HeldRsync : public ::testing::Test {
  protected:
    HeldRsync() {
        data_.Write("site/" + name_, "good");
        data_.Write("site/zz.html", std::string(300000, 'z'));
        install_.UseRealRsync();
        EXPECT_TRUE(Copy("site/", Engine::RSYNC_BACKUP));
        utils_->copy_idle_period = 300ms;
        // Only the content differs from the copy.
        const auto time = fs::last_write_time(Site());
        data_.Write("site/" + name_, "evil");
        fs::last_write_time(Site(), time);
    }

    std::string Site() const { return data_.Path("site/" + name_); }
    bool Copy(const std::string& what, Engine::rsync_mode mode) {
        return utils_->DoRsyncLocal(data_.Path(what), data_.Path("backup"), {}, {}, mode);
    }
    void SwapAt(const std::string& path) const {
        fs::remove(install_.dir.Path("bin/rsync"));
        install_.WriteScript(
            "bin/rsync", "echo $$ >" + install_.dir.Path("pid") +
                             "; exec env LD_PRELOAD=" SENTREL_SWAP_LIBRARY " SENTREL_SWAP=" + path +
                             " /usr/bin/rsync \"$@\"");
    }
    /// No process and no temporary file of that rsync is left.
    void ExpectAllGone() const {
        const pid_t group = std::stoi(test::TempDir::Read(install_.dir.Path("pid")));
        EXPECT_TRUE(test::WaitFor([&] { return ::killpg(group, 0) != 0 && errno == ESRCH; }, 10s));
        for (const auto& entry : fs::directory_iterator("/tmp")) {
            EXPECT_EQ(entry.path().string().find("/." + name_), std::string::npos) << entry;
        }
    }
    void ExpectHeld(const std::string& what, Engine::rsync_mode mode) {
        SwapAt(Site());
        EXPECT_FALSE(Copy(what, mode));
        EXPECT_EQ(utils_->LastCopyError(), "rsync was held up and has been ended");
        EXPECT_TRUE(fs::is_fifo(Site()));
        ExpectAllGone();
        fs::remove(install_.dir.Path("bin/rsync"));
        install_.UseRealRsync();
        utils_->copy_idle_period = Engine::RsyncCopies::kIdlePeriod;
    }

    test::Installation install_;
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    test::TempDir data_;
    const std::string name_ = "held" + std::to_string(::getpid()) + ".html";
};

TEST_F(HeldRsync, Restore_TimesOutAndTheNextOneSucceeds) {
    ExpectHeld("site/" + name_, Engine::RSYNC_RESTORE);
    EXPECT_TRUE(Copy("site/" + name_, Engine::RSYNC_RESTORE));
    EXPECT_EQ(test::TempDir::Read(Site()), "good");
}

TEST_F(HeldRsync, Backup_TimesOutWithoutChangingTheCopy) {
    data_.Write("site/" + name_, "an update");
    ExpectHeld("site/", Engine::RSYNC_BACKUP);
    const std::string copy = data_.Path("backup") + Site();
    EXPECT_EQ(test::TempDir::Read(copy), "good");
    fs::remove(Site());
    data_.Write("site/" + name_, "an update");
    EXPECT_TRUE(Copy("site/", Engine::RSYNC_BACKUP));
    EXPECT_EQ(test::TempDir::Read(copy), "an update");
}

}  // namespace
