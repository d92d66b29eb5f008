#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>

#include "FileObjects.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/files/PathAnchor.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using SDK::FileDescriptor;
using SDK::PathAnchor;

ino_t InodeOf(int fd) {
    struct stat info {};
    EXPECT_EQ(::fstat(fd, &info), 0);
    return info.st_ino;
}

ino_t InodeOf(const std::string& path) {
    return test::StatOf(path).st_ino;
}

/// A site beside what nobody may be led to, and the site's anchor.
class Anchor : public testing::Test {
  protected:
    Anchor() {
        dir_.Write("site/a/b/c/file", "x");
        dir_.Write("else/b/c/file", "y");
        anchor_ = PathAnchor::Open(dir_.Path("site/"));
    }

    /// The errno of each way to resolve `below`; 0 where it works.
    int DirectoryError(const std::string& below) const {
        return anchor_->OpenDirectory(below).IsOpen() ? 0 : errno;
    }
    int ParentError(const std::string& below) const {
        return anchor_->OpenParent(below).IsOpen() ? 0 : errno;
    }
    int StatError(const std::string& below) const {
        struct stat info {};
        return anchor_->Stat(below, info) == 0 ? 0 : errno;
    }

    test::TempDir dir_;
    std::unique_ptr<PathAnchor> anchor_;
};

TEST_F(Anchor, WhatLiesBelow_IsFoundWithAnySpelling) {
    ASSERT_TRUE(anchor_);
    EXPECT_EQ(anchor_->Path(), dir_.Path("site"));
    const std::string c = dir_.Path("site/a/b/c");
    for (const char* below : {"a/b/c", "a/b/c///", "./a//b/./c"}) {
        EXPECT_EQ(InodeOf(anchor_->OpenDirectory(below).Get()), InodeOf(c)) << below;
        struct stat info {};
        ASSERT_EQ(anchor_->Stat(below, info), 0) << below;
        EXPECT_EQ(info.st_ino, InodeOf(c)) << below;
    }
    EXPECT_EQ(InodeOf(anchor_->OpenDirectory("").Get()), InodeOf(dir_.Path("site")));
    const PathAnchor::Entry entry = anchor_->OpenParent("a/b/c/missing\n");
    ASSERT_TRUE(entry.IsOpen());
    EXPECT_EQ(InodeOf(entry.directory.Get()), InodeOf(c));
    EXPECT_EQ(entry.name, "missing\n");
    EXPECT_EQ(StatError("a/missing"), ENOENT);
    EXPECT_EQ(DirectoryError("a/b/c/file"), ENOTDIR);
    EXPECT_EQ(StatError("a/b/c/file/below"), ENOTDIR);
}

TEST_F(Anchor, WhatIsNoPathBelow_IsRefused) {
    for (const std::string& below : {std::string("/etc"), std::string(".."), std::string("../else"),
                                     std::string("a/../../else"), std::string("a/.."),
                                     std::string("a/../a/"), std::string("a\0b", 3)}) {
        EXPECT_EQ(DirectoryError(below), EINVAL) << below;
        EXPECT_EQ(ParentError(below), EINVAL) << below;
        EXPECT_EQ(StatError(below), EINVAL) << below;
    }
    for (const char* below : {"", ".", "a/."}) EXPECT_EQ(ParentError(below), EINVAL) << below;
    ::mkdir(dir_.Path("site/..a").c_str(), 0700);
    EXPECT_EQ(DirectoryError("..a"), 0);
}

TEST_F(Anchor, LinkAtAnyLevel_IsNotFollowed) {
    for (const char* level : {"a", "a/b", "a/b/c"}) {
        const std::string path = dir_.Path("site/") + level;
        fs::rename(path, path + ".moved");
        // Also one that would lead to what is allowed.
        fs::create_directory_symlink(path + ".moved", path);
        EXPECT_NE(DirectoryError("a/b/c"), 0) << level;
        EXPECT_NE(DirectoryError("a/b/c/"), 0) << level;
        EXPECT_NE(ParentError("a/b/c/file"), 0) << level;
        EXPECT_NE(StatError("a/b/c/file"), 0) << level;
        struct stat info {};
        EXPECT_EQ(anchor_->Stat(std::string(level) + "/", info), 0) << level;
        EXPECT_TRUE(S_ISLNK(info.st_mode)) << level;
        EXPECT_NE(StatError(std::string(level) + "/."), 0) << level;
        fs::remove(path);
        fs::rename(path + ".moved", path);
    }
    EXPECT_EQ(DirectoryError("a/b/c"), 0);
}

TEST_F(Anchor, PathBeyondPathMax_IsResolvedAndItsLinksAreNotFollowed) {
    const std::string name(NAME_MAX, 'n');
    std::string below;
    FileDescriptor at = anchor_->OpenDirectory("");
    constexpr int kDepth = 48;  // three times what a path can be
    test::MakeDeep(at, name, kDepth);
    for (int level = 0; level < kDepth; ++level) below += name + "//";
    EXPECT_EQ(InodeOf(anchor_->OpenDirectory(below).Get()), InodeOf(at.Get()));
    ASSERT_EQ(::mkdirat(at.Get(), "last", 0700), 0);
    EXPECT_EQ(DirectoryError(below + "last"), 0);
    EXPECT_EQ(InodeOf(anchor_->OpenParent(below + "last").directory.Get()), InodeOf(at.Get()));
    struct stat info {};
    EXPECT_EQ(anchor_->Stat(below + "last", info), 0);
    EXPECT_EQ(DirectoryError(std::string(2 * PATH_MAX, 'n')), ENAMETOOLONG);

    // In the first piece, while the rest would be there.
    fs::rename(dir_.Path("site/" + name), dir_.Path("else/" + name));
    fs::create_directory_symlink(dir_.Path("else/" + name), dir_.Path("site/" + name));
    EXPECT_EQ(DirectoryError(below + "last"), ELOOP);
}

TEST_F(Anchor, AnchorThatIsMovedOrReplaced_IsSeenAndNeverLeadsToTheImpostor) {
    const ino_t inode = InodeOf(dir_.Path("site/a/b"));
    EXPECT_TRUE(anchor_->IsInPlace());
    fs::rename(dir_.Path("site"), dir_.Path("site.old"));
    EXPECT_FALSE(anchor_->IsInPlace());
    fs::create_directory_symlink(dir_.Path("site.old"), dir_.Path("site"));
    EXPECT_FALSE(anchor_->IsInPlace());
    fs::remove(dir_.Path("site"));
    fs::create_directories(dir_.Path("site/a/b"));
    EXPECT_FALSE(anchor_->IsInPlace());
    EXPECT_EQ(InodeOf(anchor_->OpenDirectory("a/b").Get()), inode);
    fs::remove_all(dir_.Path("site"));
    fs::rename(dir_.Path("site.old"), dir_.Path("site"));
    EXPECT_TRUE(anchor_->IsInPlace());
}

TEST_F(Anchor, PathThatIsNoDirectoryItself_IsNotOpened) {
    fs::create_directory_symlink(dir_.Path("site"), dir_.Path("link"));
    ASSERT_EQ(::mkfifo(dir_.Path("fifo").c_str(), 0600), 0);
    for (const char* name : {"link", "link/", "link/.", "link//./", "fifo", "missing", ""}) {
        EXPECT_FALSE(PathAnchor::Open(*name == '\0' ? "" : dir_.Path(name))) << name;
    }
    const auto root = PathAnchor::Open("/");
    ASSERT_TRUE(root);
    EXPECT_EQ(root->Path(), "/");
    EXPECT_TRUE(root->IsInPlace());
    EXPECT_TRUE(root->OpenDirectory(dir_.Path().substr(1)).IsOpen());
}

}  // namespace
