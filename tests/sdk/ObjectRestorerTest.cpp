#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "FileObjects.h"
#include "OddTree.h"
#include "OpenAcl.h"
#include "WithoutCall.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/files/PathAnchor.h"
#include "sdk/restore/ObjectRestorer.h"
#include "sdk/time/CommandInterrupter.h"
#include "support/FileSizeLimit.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using SDK::ObjectRestorer;
using SDK::PathAnchor;
using Outcome = ObjectRestorer::Outcome;

constexpr const char* kAccessAcl = "system.posix_acl_access";
constexpr const char* kDefaultAcl = "system.posix_acl_default";

ObjectRestorer::Result Restore(const std::string& root, const std::string& name,
                               SDK::StagingDirectory* staging = nullptr) {
    const auto copy = PathAnchor::Open(root + "/copy");
    const auto live = PathAnchor::Open(root + "/live");
    return ObjectRestorer::Restore(copy->OpenParent(name), live->OpenParent(name),
                                   ObjectRestorer::kMaxSize, staging);
}

/// What inotify tells of the directory while `action` runs: the names, one a line.
template <typename Action>
std::string NamesTold(const std::string& directory, Action action) {
    const SDK::FileDescriptor inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    EXPECT_GE(::inotify_add_watch(inotify.Get(), directory.c_str(), IN_ALL_EVENTS), 0);
    action();
    alignas(inotify_event) std::array<char, 65536> buffer{};
    const ssize_t size = ::read(inotify.Get(), buffer.data(), buffer.size());
    std::string names;
    for (ssize_t at = 0; at < size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
        if (event->len > 0) names += std::string(event->name) + "\n";
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    return names;
}

/// A copy, a live directory, and an outside directory that must not change.
class Restorer : public testing::Test {
  protected:
    Restorer() {
        for (const char* name : {"copy", "live", "bystander"})
            fs::create_directory(dir_.Path(name));
        dir_.Write("bystander/file", "not yours");
        bystander_ = test::StateOf(dir_.Path("bystander"));
    }
    ~Restorer() override {
        EXPECT_EQ(test::Differences(bystander_, test::StateOf(dir_.Path("bystander"))), "");
    }

    /// Restores `name`, which must succeed and leave nothing beside it.
    void ExpectRestored(const std::string& name = "page") {
        const ObjectRestorer::Result result = Restore(dir_.Path(), name);
        EXPECT_EQ(result.outcome, Outcome::kRestored) << result.step << std::strerror(result.error);
        ExpectAsCopy(name);
    }
    void ExpectAsCopy(const std::string& name = "page") {
        test::TreeState copy = test::StateOf(dir_.Path("copy"));
        test::TreeState live = test::StateOf(dir_.Path("live"));
        copy.erase("");
        live.erase("");
        EXPECT_EQ(test::Differences(copy, live), "") << name;
    }

    test::TempDir dir_;
    test::TreeState bystander_;
};

TEST_F(Restorer, EveryKindOfObject_IsAsRsyncLeavesIt) {
    for (unsigned seed = 0; seed < test::Seeds(24); ++seed) {
        const test::TempDir dir;
        for (const char* name : {"copy", "live", "theirs"}) fs::create_directory(dir.Path(name));
        test::OddTree tree(seed);
        const std::string name = tree.Name();
        const bool is_link = tree.Roll(4) == 0;
        is_link ? tree.MakeLink(dir.Path("copy/" + name)) : tree.MakeFile(dir.Path("copy/" + name));
        const std::string live = dir.Path("live/" + name);
        if (tree.Roll(4) == 0) {
            // Avoids targets that rsync follows or fails at.
            is_link ? tree.MakeLink(live) : tree.MakeFile(live);
        } else if (tree.Roll(6) != 0) {
            test::Clone(dir.Path("copy/" + name), live);
            tree.Change(live);
            if (fs::is_directory(fs::symlink_status(live))) fs::remove_all(live);
        }
        ::unlink((live + "+").c_str());
        test::Clone(dir.Path("live"), dir.Path("theirs"));
        // rsync follows a link to a directory, and fails at some dangling links.
        struct stat info {};
        const bool leads = ::stat(live.c_str(), &info) == 0;
        const bool goes_through = leads ? S_ISDIR(info.st_mode) : errno != ENOENT;
        if (!goes_through) {
            ASSERT_EQ(test::RunRsync({}, dir.Path("copy/" + name), dir.Path("theirs/" + name)), 0);
        }
        const ObjectRestorer::Result result = Restore(dir.Path(), name);
        EXPECT_EQ(result.outcome, Outcome::kRestored) << result.step << std::strerror(result.error);
        test::TreeState ours = test::StateOf(dir.Path("live"));
        test::TreeState wanted = test::StateOf(dir.Path(goes_through ? "copy" : "theirs"));
        ours.erase("");
        wanted.erase("");
        EXPECT_EQ(test::Differences(wanted, ours), "") << "seed " << seed;
    }
}

TEST_F(Restorer, WhatIsPlantedInItsPlace_IsReplacedAndNotFollowed) {
    ASSERT_EQ(::chmod(dir_.Write("copy/page", "text").c_str(), 0644), 0);
    const std::string other = dir_.Write("bystander/other", "text");
    ASSERT_EQ(::chmod(other.c_str(), 0600), 0);
    bystander_ = test::StateOf(dir_.Path("bystander"));
    const std::string live = dir_.Path("live/page");
    // rsync would copy into this directory, and give another name of the file other attributes.
    fs::create_directory_symlink(dir_.Path("bystander"), live);
    ExpectRestored();
    fs::remove(live);
    fs::create_hard_link(other, live);
    ExpectRestored();
}

TEST_F(Restorer, EqualContent_KeepsTheInodeUnlessSomebodyCouldGainByIt) {
    const std::string copy = dir_.Write("copy/page", "text");
    const std::string live = dir_.Write("live/page", "text");
    ASSERT_EQ(::chmod(live.c_str(), 0666), 0);
    test::SetAttribute(live, "user.planted", "1");
    const ino_t inode = test::StatOf(live).st_ino;
    ExpectRestored();
    EXPECT_EQ(test::StatOf(live).st_ino, inode);

    // The owner holds it open for writing, and would then own a root program.
    for (const mode_t mode : {04755U, 02755U, 0644U}) {
        ASSERT_EQ(::chmod(copy.c_str(), mode), 0);
        const uid_t owner = mode == 0644 ? 33 : 0;
        ASSERT_EQ(::chown(live.c_str(), owner, owner), 0);
        const ino_t before = test::StatOf(live).st_ino;
        const SDK::FileDescriptor handle(::open(live.c_str(), O_RDWR | O_CLOEXEC));
        ExpectRestored();
        EXPECT_NE(test::StatOf(live).st_ino, before) << mode;
    }
}

TEST_F(Restorer, AccessControlLists_AreThoseOfTheCopy) {
    const std::string copy = dir_.Write("copy/page", "text");
    const std::string live = dir_.Write("live/page", "text");
    test::SetAttribute(live, kAccessAcl, test::kOpenAcl);
    ExpectRestored();

    // What is made in this directory begins with an ACL.
    test::SetAttribute(dir_.Path("live"), kDefaultAcl, test::kOpenAcl);
    fs::remove(live);
    ExpectRestored();
    dir_.Write("live/page", "other text");
    ExpectRestored();

    test::SetAttribute(copy, kAccessAcl, test::kOpenAcl);
    ExpectRestored();
    dir_.Write("live/page", "");
    ExpectRestored();
}

TEST_F(Restorer, Holes_StayHoles) {
    const std::string copy = dir_.Write("copy/page", "begin");
    constexpr off_t kSize = 64 * 1024 * 1024;
    ASSERT_EQ(::truncate(copy.c_str(), kSize), 0);
    std::ofstream(copy, std::ios::app) << "end";
    ASSERT_EQ(::truncate(copy.c_str(), 2 * kSize), 0);
    const ObjectRestorer::Result result = Restore(dir_.Path(), "page");
    EXPECT_EQ(result.outcome, Outcome::kRestored);
    const std::string live = dir_.Path("live/page");
    EXPECT_EQ(test::StatOf(live).st_size, 2 * kSize);
    EXPECT_LT(test::StatOf(live).st_blocks, 1000);
    std::ifstream in(live, std::ios::binary);
    std::string begin(5, '\0');
    std::string end(4, 'x');
    in.read(begin.data(), 5);
    in.seekg(kSize);
    in.read(end.data(), 4);
    EXPECT_EQ(begin, "begin");
    EXPECT_EQ(end, std::string("end\0", 4));
}

TEST_F(Restorer, StagingDirectory_KeepsTheWritingFromTheSitesWatchers) {
    dir_.Write("copy/page", "good");
    dir_.Write("live/page", "defaced");
    fs::create_directory(dir_.Path("staging"));
    SDK::StagingDirectory staging(
        SDK::FileDescriptor(::open(dir_.Path("staging").c_str(), O_RDONLY | O_CLOEXEC)));
    const auto restore = [&] { EXPECT_EQ(Restore(dir_.Path(), "page", &staging).error, 0); };
    const std::string told = NamesTold(dir_.Path("live"), restore);
    EXPECT_NE(told.find("page\n"), std::string::npos);
    EXPECT_EQ(told.find('#'), std::string::npos) << told;
    EXPECT_EQ(told.find(ObjectRestorer::kTemporaryPrefix), std::string::npos) << told;
    EXPECT_GE(staging.Descriptor(), 0);
    ExpectAsCopy();
}

TEST_F(Restorer, StagingDirectoryOfAKilledProcess_LosesItsUnfinishedFilesAlone) {
    const std::string unfinished =
        "staging/" + std::string(ObjectRestorer::kTemporaryPrefix) + "0123456789abcdef";
    dir_.Write(unfinished, "half");
    dir_.Write("staging/other", "of another writer");
    const SDK::StagingDirectory staging(
        SDK::FileDescriptor(::open(dir_.Path("staging").c_str(), O_RDONLY | O_CLOEXEC)));
    staging.RemoveAbandoned(std::time(nullptr));
    EXPECT_TRUE(fs::exists(dir_.Path(unfinished))) << "its restore may still run";
    staging.RemoveAbandoned(std::time(nullptr) + 3600);
    EXPECT_FALSE(fs::exists(dir_.Path(unfinished)));
    EXPECT_TRUE(fs::exists(dir_.Path("staging/other")));
}

TEST_F(Restorer, StagingDirectoryThatCannotBeUsed_IsDoneWithout) {
    dir_.Write("copy/page", std::string(300000, 'g'));
    SDK::StagingDirectory elsewhere(
        SDK::FileDescriptor(::open("/dev/shm", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    if (elsewhere.Descriptor() < 0 ||
        test::StatOf("/dev/shm").st_dev == test::StatOf(dir_.Path()).st_dev) {
        GTEST_SKIP() << "needs two file systems";
    }
    dir_.Write("live/page", "defaced");
    EXPECT_EQ(Restore(dir_.Path(), "page", &elsewhere).outcome, Outcome::kRestored);
    ExpectAsCopy();
    EXPECT_LT(elsewhere.Descriptor(), 0) << "each restore would write its file twice";

    fs::create_directory(dir_.Path("staging"));
    SDK::StagingDirectory removed(
        SDK::FileDescriptor(::open(dir_.Path("staging").c_str(), O_RDONLY | O_CLOEXEC)));
    fs::remove_all(dir_.Path("staging"));
    dir_.Write("live/page", "defaced again");
    EXPECT_EQ(Restore(dir_.Path(), "page", &removed).outcome, Outcome::kRestored);
    ExpectAsCopy();
}

TEST_F(Restorer, WhatIsUnusualOrFails_LeavesEverythingAsItWas) {
    dir_.Write("copy/page", std::string(300'000, 'c'));
    dir_.Write("copy/large", "");
    ASSERT_EQ(::truncate(dir_.Path("copy/large").c_str(), ObjectRestorer::kMaxSize + 1), 0);
    ASSERT_EQ(::mkfifo(dir_.Path("copy/fifo").c_str(), 0600), 0);
    fs::create_directory(dir_.Path("copy/folder"));
    for (const char* name : {"page", "large", "fifo", "folder", "missing"}) {
        dir_.Write(std::string("live/") + name, "live");
    }
    const test::TreeState before = test::StateOf(dir_.Path("live"));
    for (const char* name : {"large", "fifo", "folder"}) {
        EXPECT_EQ(Restore(dir_.Path(), name).outcome, Outcome::kUnusual) << name;
    }
    EXPECT_EQ(Restore(dir_.Path(), "missing").error, ENOENT);
    {
        const test::FileSizeLimit full_disk(100'000);
        EXPECT_EQ(Restore(dir_.Path(), "page").error, EFBIG);
    }
    {
        SDK::CommandInterrupter interrupter;
        const SDK::CommandInterrupter::Scope scope(interrupter);
        interrupter.Interrupt();
        EXPECT_EQ(Restore(dir_.Path(), "page").outcome, Outcome::kInterrupted);
    }
    EXPECT_EQ(ObjectRestorer::Restore({}, {}).outcome, Outcome::kFailed);
    EXPECT_EQ(test::Differences(before, test::StateOf(dir_.Path("live"))), "");
}

TEST_F(Restorer, CopyThatChangesMeanwhile_IsNotRestored) {
    const std::string copy = dir_.Write("copy/page", std::string(32 * 1024 * 1024, 'c'));
    dir_.Write("live/page", "live");
    std::atomic<bool> is_ending{false};
    std::atomic<int> changes{0};
    std::thread writer([&] {
        for (mode_t mode = 0; !is_ending; mode ^= 1U) {
            ::chmod(copy.c_str(), 0600 | mode);
            ++changes;
        }
    });
    while (changes == 0) std::this_thread::yield();
    const ObjectRestorer::Result result = Restore(dir_.Path(), "page");
    is_ending = true;
    writer.join();
    EXPECT_EQ(result.error, ESTALE) << result.step;
    EXPECT_EQ(test::TempDir::Read(dir_.Path("live/page")), "live");
}

TEST_F(Restorer, CallsThatAreMissing_AreDoneWithout) {
    using test::Call;
    for (const Call call : {Call::kNamelessFile, Call::kLinkOfDescriptor, Call::kExchange,
                            Call::kNoAtime, Call::kCopyFileRange}) {
        test::OddTree tree(static_cast<unsigned>(call));
        const std::string text(200'000, 'c');
        dir_.Write("copy/page", text);
        tree.Dress(dir_.Path("copy/page"));
        for (const char* live : {"nothing", "file", "directory"}) {
            fs::remove_all(dir_.Path("live/page"));
            if (*live == 'f') dir_.Write("live/page", "x");
            if (*live == 'd') tree.Fill(dir_.Path("live/page"), 2);
            const auto act = [](const std::string& root) {
                return Restore(root, "page").outcome == Outcome::kRestored ? 0 : 1;
            };
            EXPECT_EQ(test::ActWithout(call, act, dir_.Path()), 0)
                << static_cast<int>(call) << " " << live;
            ExpectAsCopy();
        }
    }
    // A failure must not leave the temporary name behind.
    const auto fail = [](const std::string& root) {
        const test::FileSizeLimit full_disk(100'000);
        return Restore(root, "page").error == EFBIG ? 0 : 1;
    };
    dir_.Write("live/page", "x");
    EXPECT_EQ(test::ActWithout(Call::kNamelessFile, fail, dir_.Path()), 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.Path("live")), {}), 1);
}

}  // namespace
