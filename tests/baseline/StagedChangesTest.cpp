#include <baseline/StagedChanges.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;

/// A tree with a, d/x, d/y and the link l, and an empty directory of what is staged.
class StagedChanges : public testing::Test {
  protected:
    StagedChanges() {
        for (const char* name : {"a", "d/x", "d/y"}) base_.Write(name, "same");
        fs::create_symlink("a", base_.Path("l"));
        fs::permissions(staged_.Path(), fs::status(base_.Path()).permissions());
    }
    void Whiteout(const std::string& name) {
        ASSERT_EQ(::mknod(staged_.Path(name).c_str(), S_IFCHR, ::makedev(0, 0)), 0);
    }
    /// "kind path detail" of each change; ignored objects as "ignored"; or the problem.
    std::string Read() {
        const auto staged = SDK::PathAnchor::Open(staged_.Path());
        const auto base = SDK::PathAnchor::Open(base_.Path());
        Baseline::StagedChanges::Request request;
        request.staged = staged.get();
        request.base = base.get();
        request.ignored = [](const std::string& path, bool) { return path == "cache"; };
        request.is_over = [] { return false; };
        const auto result = Baseline::StagedChanges(std::move(request)).Read();
        if (!result.problem.empty()) return result.problem;
        std::string text;
        for (const auto& one : result.changes) {
            text += std::string(1, "c=+-"[static_cast<int>(one.kind)]) + one.path + " " +
                    one.detail + "; ";
        }
        for (const auto& one : result.ignored) text += "ignored " + one + "; ";
        return text;
    }
    test::TempDir base_;
    test::TempDir staged_;
};

TEST_F(StagedChanges, EachKind_IsToldOnce) {
    fs::create_directory(staged_.Path("d"));
    staged_.Write("a", "else");
    Whiteout("d/x");
    staged_.Write("new/deep/file", "1");
    staged_.Write("cache", "not protected");
    fs::create_directory(staged_.Path("l"));
    staged_.Write("l/inside", "1");
    EXPECT_EQ(Read(), "ca content; -d/x ; cl type; +new ; ignored cache; ");
}

TEST_F(StagedChanges, EqualObjectsAndStrayWhiteouts_AreNoChange) {
    for (const char* name : {"a", "d/x"}) {
        staged_.Write(name, "same");
        fs::last_write_time(staged_.Path(name), fs::last_write_time(base_.Path(name)));
        ::setxattr(staged_.Path(name).c_str(), "user.overlay.origin", "x", 1, 0);
    }
    Whiteout("nothing");
    EXPECT_EQ(Read(), "");
    fs::permissions(staged_.Path("a"), fs::perms(0600));
    ::setxattr(staged_.Path("d/x").c_str(), "user.mine", "x", 1, 0);
    EXPECT_EQ(Read(), "=a mode 0644 -> 0600; =d/x extended attributes; ");
}

TEST_F(StagedChanges, OpaqueDirectory_HidesWhatWasInIt) {
    staged_.Write("d/z", "new");
    EXPECT_EQ(Read(), "+d/z ; ");
    ASSERT_EQ(::setxattr(staged_.Path("d").c_str(), "user.overlay.opaque", "y", 1, 0), 0);
    EXPECT_EQ(Read(), "-d/x ; -d/y ; +d/z ; ");
}

TEST_F(StagedChanges, SpecialFile_IsAProblemWhereverItLies) {
    staged_.Write("new/deep/file", "1");
    ASSERT_EQ(::mkfifo(staged_.Path("new/deep/pipe").c_str(), 0600), 0);
    EXPECT_NE(Read().find("new/deep/pipe"), std::string::npos);
}

TEST_F(StagedChanges, LinkOutOfTheTree_IsNotFollowed) {
    const test::TempDir outside;
    outside.Write("x", "same");
    fs::remove_all(base_.Path("d"));
    fs::create_symlink(outside.Path(), base_.Path("d"));
    staged_.Write("d/x", "same");
    EXPECT_EQ(Read(), "cd type; ");
}

}  // namespace
