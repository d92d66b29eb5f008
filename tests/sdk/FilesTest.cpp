#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>
#include <thread>

#include "FileObjects.h"
#include "sdk/files/DirUtils.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/files/FileUtils.h"
#include "sdk/files/Sha256.h"
#include "support/FileSizeLimit.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using SDK::DirUtils;
using SDK::FileUtils;

constexpr long kMegabyte = 1024 * 1024;
constexpr const char* kEmptyDigest =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kAbcDigest =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

std::string DigestOf(const std::string& path, long limit = kMegabyte) {
    std::string digest = "left over";
    EXPECT_EQ(FileUtils::GetFileSha256(path, digest, limit), 0) << path;
    return digest;
}

mode_t ModeOf(const std::string& path) {
    return test::StatOf(path).st_mode & 07777;
}

std::size_t EntriesIn(const std::string& directory) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(directory), {}));
}

class Files : public testing::Test {
  protected:
    std::string MakeFifo() {
        EXPECT_EQ(::mkfifo(dir_.Path("fifo").c_str(), 0600), 0);
        return dir_.Path("fifo");
    }
    std::string MakeLink(const std::string& target, const std::string& name = "link") {
        EXPECT_EQ(::symlink(target.c_str(), dir_.Path(name).c_str()), 0);
        return dir_.Path(name);
    }

    test::TempDir dir_;
};

TEST_F(Files, Digest_CoversAtMostTheLimitAndFollowsOrBlocksOnNothing) {
    EXPECT_EQ(DigestOf(dir_.Write("a", "abc")), kAbcDigest);
    EXPECT_EQ(DigestOf(MakeLink("abc")), kAbcDigest) << "of the link's text";
    // Longer than what is read at once.
    EXPECT_EQ(DigestOf(dir_.Write("huge", std::string(200000, 'x'))),
              DigestOf(dir_.Write("huger", std::string(200001, 'x')), 200000));
    EXPECT_EQ(DigestOf(MakeFifo()), kEmptyDigest);
    EXPECT_EQ(DigestOf("/dev/zero"), kEmptyDigest);
    std::string digest = "left over";
    EXPECT_EQ(FileUtils::GetFileSha256(dir_.Path(), digest, kMegabyte), -1);
    EXPECT_EQ(digest, "");
}

TEST_F(Files, ReadFile_TakesRegularFilesOnly) {
    std::string content;
    EXPECT_EQ(FileUtils::ReadFile(MakeLink(dir_.Write("a", "abcdef")), content, 4), 0);
    EXPECT_EQ(content, "abcd");
    EXPECT_EQ(FileUtils::ReadFile("/proc/self/stat", content, kMegabyte), 0);  // of size 0
    EXPECT_FALSE(content.empty());
    EXPECT_EQ(FileUtils::ReadFile(MakeFifo(), content, kMegabyte), -1);
    EXPECT_EQ(FileUtils::ReadFile("/dev/zero", content, kMegabyte), -1);
    EXPECT_EQ(FileUtils::ReadFile(dir_.Path(), content, kMegabyte), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(Files, WriteFile_ReplacesOrAppends) {
    const std::string file = dir_.Path(std::string(NAME_MAX, 'n'));
    ::umask(0);
    EXPECT_EQ(FileUtils::WriteFile(file, "one", false), 0);
    EXPECT_EQ(FileUtils::WriteFile(file, std::string("t\0o", 3), false), 0);
    EXPECT_EQ(FileUtils::WriteFile(file, "+", true), 0);
    EXPECT_EQ(test::TempDir::Read(file), std::string("t\0o+", 4));
    EXPECT_EQ(ModeOf(file), 0600U);
    EXPECT_EQ(FileUtils::WriteFile(MakeFifo(), "+", true), -1);
    EXPECT_EQ(EntriesIn(dir_.Path()), 2U);
}

TEST_F(Files, WriteThatFails_LeavesTheOldContentAndNothingElse) {
    const std::string file = dir_.Write("file", "old");
    const std::string large = dir_.Write("large", std::string(100000, 'x'));
    fs::create_directories(dir_.Path("folder/inside"));
    EXPECT_EQ(FileUtils::WriteFile(dir_.Path("folder"), "x", false), -1);

    const test::FileSizeLimit full_disk(50000);
    EXPECT_EQ(FileUtils::WriteFile(file, std::string(100000, 'x'), false), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(FileUtils::TalCopyFile(large, file, kMegabyte), -1);
    EXPECT_EQ(test::TempDir::Read(file), "old");
    EXPECT_EQ(EntriesIn(dir_.Path()), 3U);
}

TEST_F(Files, MakeDirs_GivesTheModeWhateverTheUmask) {
    ::umask(0077);
    EXPECT_EQ(DirUtils::MakeDirs(dir_.Path("a/b//c/"), 0755), 0);
    for (const char* name : {"a", "a/b", "a/b/c"})
        EXPECT_EQ(ModeOf(dir_.Path(name)), 0755U) << name;
    dir_.Write("file", "");
    EXPECT_EQ(DirUtils::MakeDirs(dir_.Path("file"), 0755), -1);
}

TEST_F(Files, DeleteDir_RemovesTheTreeAndFollowsNoLink) {
    const test::TempDir outside;
    outside.Write("kept/file", "x");
    dir_.Write("tree/a/b/file", "x");
    MakeLink(outside.Path("kept"), "tree/a/link");
    ASSERT_EQ(::mkfifo(dir_.Path("tree/a/fifo").c_str(), 0600), 0);
    EXPECT_EQ(DirUtils::DeleteDir(dir_.Path("tree/")), 0);
    EXPECT_EQ(EntriesIn(dir_.Path()), 0U);

    const std::string link = MakeLink(outside.Path("kept"));
    EXPECT_FALSE(DirUtils::IsDir(link + "/"));
    EXPECT_EQ(DirUtils::DeleteDir(link), -1);
    EXPECT_EQ(DirUtils::DeleteDir(link + "/"), -1);
    EXPECT_EQ(DirUtils::DeleteDir("//"), -1);
    EXPECT_TRUE(fs::exists(outside.Path("kept/file")));
}

TEST_F(Files, DeleteDirWhileFilesAreAdded_LeavesNothing) {
    dir_.Write("tree/first", "x");
    std::thread writer([this] {
        for (int file = 0; file < 300; ++file) {
            const std::string path = dir_.Path("tree/") + std::to_string(file);
            ::close(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        }
    });
    EXPECT_EQ(DirUtils::DeleteDir(dir_.Path("tree")), 0) << errno;
    writer.join();
    EXPECT_FALSE(fs::exists(dir_.Path("tree")));
}

TEST_F(Files, DeleteBeneath_RemovesAnythingButThroughALink) {
    const test::TempDir outside;
    outside.Write("kept/file", "x");
    const auto remove = [this](const std::string& path) {
        return DirUtils::DeleteBeneath(dir_.Path() + "/", path);
    };
    dir_.Write("tree/a/b/file", "x");
    dir_.Write("tree/single", "x");
    MakeLink(outside.Path("kept"), "tree/a/link");
    EXPECT_EQ(remove("tree/single"), 0);
    EXPECT_EQ(remove("tree/a/link/file"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(remove("tree/a/"), 0);
    EXPECT_EQ(EntriesIn(dir_.Path("tree")), 0U);
    for (const std::string& refused :
         {std::string(), std::string("."), std::string("tree/../tree"), dir_.Path("tree")}) {
        EXPECT_EQ(remove(refused), -1) << refused;
        EXPECT_EQ(errno, EINVAL) << refused;
    }
    MakeLink(outside.Path(), "root");
    EXPECT_EQ(DirUtils::DeleteBeneath(dir_.Path("root/"), "kept"), -1);
    EXPECT_TRUE(fs::exists(outside.Path("kept/file")));
}

}  // namespace
