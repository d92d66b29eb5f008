// An unprivileged user swaps directories, links and files at every level of a tree, and what a
// restore puts into it, while root restores it.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "OddTree.h"
#include "sdk/files/PathAnchor.h"
#include "sdk/restore/ObjectRestorer.h"
#include "sdk/restore/TreeRestorer.h"
#include "sdk/time/TimeUtils.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using SDK::ObjectRestorer;
using SDK::PathAnchor;
using SDK::TreeRestorer;
using Outcome = ObjectRestorer::Outcome;

constexpr uid_t kAttacker = 33;
constexpr std::int64_t kRunMs = 1500;
constexpr std::int64_t kDeadlineMs = 30'000;
const std::vector<std::string> kLevels = {"", "/a", "/a/b", "/a/b/c", "/a/b/c/page", "/a/b/page"};

/// The attacker's process. It owns the site and is gone with the object.
class Attacker {
  public:
    Attacker(std::string live, std::string bystander)
        : live_(std::move(live)), bystander_(std::move(bystander)) {
        void* shared = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        swaps_ = new (shared) std::atomic<int>(0);
        const pid_t parent = ::getpid();
        child_ = ::fork();
        if (child_ != 0) return;
        if (::setgroups(0, nullptr) != 0 || ::setgid(kAttacker) != 0 || ::setuid(kAttacker) != 0) {
            ::_exit(1);
        }
        while (::getppid() == parent) Swap();
        ::_exit(0);
    }
    ~Attacker() {
        Stop();
        ::munmap(swaps_, sizeof(*swaps_));
    }
    Attacker(const Attacker&) = delete;
    Attacker& operator=(const Attacker&) = delete;

    int Swaps() const { return *swaps_; }
    void Stop() {
        if (child_ <= 0) return;
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
        child_ = -1;
    }

  private:
    void Swap() {
        for (const std::string& level : kLevels) {
            const std::string path = live_ + level;
            const std::string aside = path + ".aside";
            const std::string theirs = bystander_ + level;
            if (::rename(path.c_str(), aside.c_str()) == 0) ++*swaps_;
            switch (*swaps_ % 4) {
                case 0:
                    ::mkdir(path.c_str(), 0777);
                    ::symlink(bystander_.c_str(), (path + "/planted").c_str());
                    break;
                case 1:
                    ::mkfifo(path.c_str(), 0666);
                    break;
                default:
                    ::symlink(theirs.c_str(), path.c_str());
                    break;
            }
            SwapTemporaries(path.substr(0, path.rfind('/')));
            if (*swaps_ % 2 == 0) {
                ::unlink(path.c_str());
                ::rename(aside.c_str(), path.c_str());
            }
            ::unlink(aside.c_str());
        }
    }

    /// Puts links in place of what a restore is about to rename.
    void SwapTemporaries(const std::string& directory) const {
        DIR* const stream = ::opendir(directory.c_str());
        if (stream == nullptr) return;
        while (const dirent* entry = ::readdir(stream)) {
            const std::string name = entry->d_name;
            if (name.rfind(ObjectRestorer::kTemporaryPrefix, 0) != 0) continue;
            const std::string path = directory + "/" + name;
            if (::rename(path.c_str(), (path + ".stolen").c_str()) != 0) continue;
            ::symlink((bystander_ + "/a/b/c/page").c_str(), path.c_str());
        }
        ::closedir(stream);
    }

    const std::string live_;
    const std::string bystander_;
    std::atomic<int>* swaps_ = nullptr;
    pid_t child_ = -1;
};

class RestoreRace : public testing::Test {
  protected:
    RestoreRace() {
        EXPECT_EQ(::chmod(dir_.Path().c_str(), 0755), 0);
        for (const char* root : {"copy", "bystander"}) {
            for (const char* name : {"/a/b/c/page", "/a/b/page", "/a/b/c/other", "/page"}) {
                dir_.Write(root + std::string(name), *root == 'c' ? "the page" : "not yours");
            }
            fs::create_symlink("page", dir_.Path(root + std::string("/a/link")));
            // As far as the attacker is let he would change these.
            for (const auto& entry : fs::recursive_directory_iterator(dir_.Path(root))) {
                const bool is_copy = *root == 'c';
                EXPECT_EQ(::lchown(entry.path().c_str(), is_copy ? kAttacker : 0, 0), 0);
                if (entry.is_symlink()) continue;
                EXPECT_EQ(::chmod(entry.path().c_str(), entry.is_directory() ? 0755 : 0644), 0);
            }
            EXPECT_EQ(::chmod(dir_.Path(root).c_str(), 0755), 0);
        }
        EXPECT_EQ(::chown(dir_.Path("copy").c_str(), kAttacker, 0), 0);
        fs::create_directory(dir_.Path("site"));
        EXPECT_EQ(::chown(dir_.Path("site").c_str(), kAttacker, 0), 0);
        copy_ = PathAnchor::Open(dir_.Path());
        site_ = PathAnchor::Open(dir_.Path("site"));
    }

    ObjectRestorer::Result RestoreTree() {
        return TreeRestorer::Restore(copy_->OpenParent("copy"), site_->OpenParent("live"), {});
    }
    ObjectRestorer::Result RestorePage(const std::string& below) {
        return ObjectRestorer::Restore(copy_->OpenParent("copy" + below),
                                       site_->OpenParent("live" + below));
    }

    test::TempDir dir_;
    std::unique_ptr<PathAnchor> copy_;
    std::unique_ptr<PathAnchor> site_;
};

TEST_F(RestoreRace, SwapsAtEveryLevel_NeverLeadOutOfTheSite) {
    const test::TreeState bystander = test::StateOf(dir_.Path("bystander"));
    const test::TreeState copy = test::StateOf(dir_.Path("copy"));
    ASSERT_EQ(RestoreTree().outcome, Outcome::kRestored);
    Attacker attacker(dir_.Path("site/live"), dir_.Path("bystander"));
    int restored = 0;
    int failed = 0;
    const std::int64_t start = SDK::TimeUtils::GetMonotonicMs();
    const auto elapsed = [start] { return SDK::TimeUtils::GetMonotonicMs() - start; };
    while (elapsed() < kRunMs ||
           ((attacker.Swaps() < 200 || failed == 0) && elapsed() < kDeadlineMs)) {
        const auto count = [&](const ObjectRestorer::Result& result) {
            ++(result.outcome == Outcome::kRestored ? restored : failed);
        };
        count(RestoreTree());
        for (const char* page : {"/a/b/c/page", "/a/b/page", "/a/link", "/page"}) {
            count(RestorePage(page));
        }
    }
    attacker.Stop();
    EXPECT_GE(attacker.Swaps(), 200);
    EXPECT_GT(restored, 20);
    EXPECT_GT(failed, 0) << "the attacker was never in the way";
    EXPECT_EQ(test::Differences(bystander, test::StateOf(dir_.Path("bystander"))), "");
    EXPECT_EQ(test::Differences(copy, test::StateOf(dir_.Path("copy"))), "");

    // And nothing that he did lasts.
    EXPECT_EQ(RestoreTree().outcome, Outcome::kRestored);
    EXPECT_EQ(test::Differences(copy, test::StateOf(dir_.Path("site/live"))), "");
}

}  // namespace
