#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "FileObjects.h"
#include "OddTree.h"
#include "sdk/files/DirUtils.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/files/PathAnchor.h"
#include "sdk/restore/TreeRestorer.h"
#include "sdk/time/CommandInterrupter.h"
#include "sdk/time/TimeUtils.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

namespace fs = std::filesystem;
using SDK::ObjectRestorer;
using SDK::PathAnchor;
using SDK::TreeRestorer;
using test::Seeds;
using Outcome = ObjectRestorer::Outcome;

const std::vector<std::string> kExclusions = {"*.log", "uploads", "\xff"};

/// What rsync makes of the exclusions above.
bool IsExcluded(const std::string& below, bool) {
    const std::string name = below.substr(below.rfind('/') + 1);
    const bool has_suffix = name.size() >= 4 && name.compare(name.size() - 4, 4, ".log") == 0;
    return has_suffix || name == "uploads" || name == "\xff";
}

ObjectRestorer::Result Restore(const std::string& root,
                               const TreeRestorer::ExclusionFilter& filter = {}) {
    const auto anchor = PathAnchor::Open(root);
    return TreeRestorer::Restore(anchor->OpenParent("copy"), anchor->OpenParent("live"), filter);
}

bool IsDirectory(const std::string& description) {
    return description[0] == '4';  // as the octal mode of a directory begins
}

/// What stands at the path or above it in the copy, where that is no directory; "" when none does.
std::string FileAtOrAbove(const test::TreeState& copy, const std::string& below) {
    for (std::size_t end = below.find('/');; end = below.find('/', end + 1)) {
        const auto found = copy.find(below.substr(0, end));
        if (found != copy.end() && !IsDirectory(found->second)) return found->first;
        if (end == std::string::npos) return "";
    }
}

/// Nothing is promised of a foreign directory that is kept for what is excluded in it.
void ForgetForeignDirectories(const test::TreeState& copy, test::TreeState& state) {
    for (auto& [below, description] : state) {
        const bool is_foreign = copy.count(below) == 0 && !IsExcluded(below, true);
        if (is_foreign && IsDirectory(description)) description = "4";
    }
}

/// Where a directory has taken a file's place and holds something excluded, rsync fails, and waits
/// for ever when that file has several names. To a name of something excluded it gives attributes.
void SpareRsyncWhatItCannotDo(const test::TreeState& copy, const std::string& live) {
    for (const auto& [below, description] : test::StateOf(live)) {
        const std::string path = live + "/" + below;
        struct stat info {};
        if (!IsExcluded(below, false) || ::lstat(path.c_str(), &info) != 0) continue;
        const std::string file = FileAtOrAbove(copy, below);
        const bool is_in_place_of_file = !file.empty() && !IsExcluded(file, false);
        const bool is_linked = !S_ISDIR(info.st_mode) && info.st_nlink > 1;
        if (is_in_place_of_file || is_linked) fs::remove_all(path);
    }
}

std::string Describe(const ObjectRestorer::Result& result) {
    return result.step + ": " + std::strerror(result.error);
}

class TreeRestore : public testing::Test {
  protected:
    void ExpectAsCopy() {
        EXPECT_EQ(
            test::Differences(test::StateOf(dir_.Path("copy")), test::StateOf(dir_.Path("live"))),
            "");
    }
    void ExpectRestored(const TreeRestorer::ExclusionFilter& filter = {}) {
        const ObjectRestorer::Result result = Restore(dir_.Path(), filter);
        EXPECT_EQ(result.outcome, Outcome::kRestored) << Describe(result);
    }

    test::TempDir dir_;
};

TEST_F(TreeRestore, TreesOfEveryKind_AreAsRsyncLeavesThem) {
    for (unsigned seed = 0; seed < Seeds(16); ++seed) {
        const test::TempDir dir;
        test::OddTree tree(seed);
        tree.Fill(dir.Path("copy"), 3);
        test::Clone(dir.Path("copy"), dir.Path("live"));
        tree.Tamper(dir.Path("live"), 1 + static_cast<int>(tree.Roll(12)));
        const test::TreeState copy = test::StateOf(dir.Path("copy"));
        SpareRsyncWhatItCannotDo(copy, dir.Path("live"));
        test::Clone(dir.Path("live"), dir.Path("theirs"));
        const bool excludes = tree.Roll(3) != 0;
        const int code = test::RunRsync(excludes ? kExclusions : std::vector<std::string>{},
                                        dir.Path("copy/"), dir.Path("theirs/"));
        EXPECT_EQ(code, 0) << "seed " << seed;
        const ObjectRestorer::Result result =
            Restore(dir.Path(), excludes ? TreeRestorer::ExclusionFilter(IsExcluded) : nullptr);
        EXPECT_EQ(result.outcome, Outcome::kRestored) << Describe(result);
        test::TreeState theirs = test::StateOf(dir.Path("theirs"));
        test::TreeState ours = test::StateOf(dir.Path("live"));
        if (excludes) ForgetForeignDirectories(copy, theirs);
        if (excludes) ForgetForeignDirectories(copy, ours);
        EXPECT_EQ(test::Differences(theirs, ours), "") << "seed " << seed;
    }
}

TEST_F(TreeRestore, DirectoryInPlaceOfAFile_GoesWithWhatIsExcludedInIt) {
    dir_.Write("copy/page", "text");
    fs::create_hard_link(dir_.Path("copy/page"), dir_.Path("copy/same"));
    dir_.Write("live/page/uploads/planted.log", "x");
    ExpectRestored(IsExcluded);
    ExpectAsCopy();
}

TEST_F(TreeRestore, EqualTree_IsNotTouched) {
    test::OddTree tree(7);
    tree.Fill(dir_.Path("copy"), 3);
    for (const char* name : {"1", "2", "3", "4"}) tree.Fill(dir_.Path("copy/") + name, 3);
    test::Clone(dir_.Path("copy"), dir_.Path("live"));
    const auto changes = [this] {
        std::vector<std::pair<time_t, long>> times;
        for (const auto& [below, description] : test::StateOf(dir_.Path("live"))) {
            struct stat info {};
            ::lstat(dir_.Path("live/" + below).c_str(), &info);
            times.emplace_back(info.st_ctim.tv_sec, info.st_ctim.tv_nsec);
        }
        return times;
    };
    const auto times = changes();
    ASSERT_GT(times.size(), 10U);
    ExpectRestored();
    EXPECT_EQ(changes(), times);
}

// Unread means unchanged: who sets size and time back cannot set back when the kernel saw a change.
TEST_F(TreeRestore, LookAtWhatHasChanged_FindsEveryChangeSinceTheCopyWasMade) {
    const auto set_time_back = [](const std::string& file) { fs::last_write_time(file, {}); };
    for (const char* name : {"same", "longer", "newer", "gone"}) {
        set_time_back(dir_.Write(std::string("live/") + name, "good"));
        set_time_back(dir_.Write(std::string("copy/") + name, "good"));
    }
    const auto is_younger = [&] {
        struct stat copy {};
        struct stat live {};
        set_time_back(dir_.Write("live/same", "evil"));
        return ::stat(dir_.Path("copy/same").c_str(), &copy) == 0 &&
               ::stat(dir_.Path("live/same").c_str(), &live) == 0 &&
               std::tie(live.st_ctim.tv_sec, live.st_ctim.tv_nsec) >
                   std::tie(copy.st_ctim.tv_sec, copy.st_ctim.tv_nsec);
    };
    EXPECT_TRUE(test::WaitFor(is_younger, std::chrono::seconds(5)));
    set_time_back(dir_.Write("live/longer", "evil!"));
    dir_.Write("live/newer", "evil");
    fs::remove(dir_.Path("live/gone"));
    const auto anchor = SDK::PathAnchor::Open(dir_.Path());
    ASSERT_NE(anchor, nullptr);
    const auto result =
        SDK::TreeRestorer::Restore(anchor->OpenParent("copy"), anchor->OpenParent("live"), {},
                                   SDK::TreeRestorer::Comparison::kChanged);
    EXPECT_EQ(result.outcome, Outcome::kRestored) << result.step;
    for (const char* name : {"same", "longer", "newer", "gone"}) {
        EXPECT_EQ(test::TempDir::Read(dir_.Path("live/") + name), "good") << name;
    }
}

TEST_F(TreeRestore, DeepTree_TakesAFewDescriptors) {
    const std::string name(200, 'd');
    constexpr int kDepth = 60;  // three times what a path can be
    for (const char* root : {"copy", "live"}) {
        fs::create_directory(dir_.Path(root));
        SDK::FileDescriptor at(::open(dir_.Path(root).c_str(), O_RDONLY | O_CLOEXEC));
        test::MakeDeep(at, name, kDepth);
        // The copy's deepest directory has a page, the live one a foreign tree just as deep.
        if (*root == 'c') {
            const SDK::FileDescriptor page(
                ::openat(at.Get(), "page", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
            EXPECT_EQ(::fchmod(page.Get(), 0640), 0);
            continue;
        }
        test::MakeDeep(at, "foreign", kDepth);
    }
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few{30, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
    ExpectRestored([](const std::string&, bool) { return false; });
    ::setrlimit(RLIMIT_NOFILE, &limit);
    std::string below;
    for (int level = 0; level < kDepth; ++level) below += name + "/";
    const auto live = PathAnchor::Open(dir_.Path("live"));
    struct stat info {};
    EXPECT_EQ(live->Stat(below + "page", info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0640U);
    EXPECT_EQ(live->Stat(below + "foreign", info), -1);
    // Too deep for what removes the test's directory.
    for (const char* root : {"copy", "live"}) {
        EXPECT_EQ(SDK::DirUtils::DeleteDir(dir_.Path(root)), 0);
    }
}

TEST_F(TreeRestore, WhatFails_CostsOnlyItself) {
    dir_.Write("copy/a/page", "text");
    dir_.Write("copy/mounted/page", "text");
    dir_.Write("copy/z/page", "text");
    dir_.Write("live/mounted/page", "text");
    dir_.Write("live/foreign/mounted/file", "x");
    dir_.Write("bystander/file", "not yours");
    const std::string root = dir_.Path();
    // The mounts are seen by a child process only.
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string bystander = root + "/bystander";
        const bool is_ready = ::unshare(CLONE_NEWNS) == 0 &&
                              ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                              ::mount(bystander.c_str(), (root + "/live/mounted").c_str(), nullptr,
                                      MS_BIND, nullptr) == 0 &&
                              ::mount(bystander.c_str(), (root + "/live/foreign/mounted").c_str(),
                                      nullptr, MS_BIND, nullptr) == 0;
        const ObjectRestorer::Result result = Restore(root);
        const bool is_told =
            result.outcome == Outcome::kFailed && (result.error == EXDEV || result.error == EBUSY);
        ::_exit(!is_ready ? 2 : is_told ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(test::TempDir::Read(dir_.Path("live/a/page")), "text");
    EXPECT_EQ(test::TempDir::Read(dir_.Path("live/z/page")), "text");
    EXPECT_EQ(test::TempDir::Read(dir_.Path("bystander/file")), "not yours");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.Path("bystander")), {}), 1);
}

TEST_F(TreeRestore, MissingCopyAndInterruption_LeaveTheTree) {
    dir_.Write("live/page", "live");
    EXPECT_EQ(Restore(dir_.Path()).error, ENOENT);
    dir_.Write("copy", "no directory");
    EXPECT_EQ(Restore(dir_.Path()).error, ENOTDIR);
    fs::remove(dir_.Path("copy"));
    dir_.Write("copy/page", "copy");
    SDK::CommandInterrupter interrupter;
    const SDK::CommandInterrupter::Scope scope(interrupter);
    interrupter.Interrupt();
    EXPECT_EQ(Restore(dir_.Path()).outcome, Outcome::kInterrupted);
    EXPECT_EQ(test::TempDir::Read(dir_.Path("live/page")), "live");
}

}  // namespace
