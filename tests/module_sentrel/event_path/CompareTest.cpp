#include <sys/inotify.h>

#include <filesystem>

#include "feature_sentrel/SentrelInotifyTask.h"
#include "fixtures/Installation.h"
#include "utils/SentrelUtils.h"

namespace {

using Engine::SentrelInotifyTask;
using Engine::SentrelUtils;
using Poco::Message;

class Compare : public ::testing::Test {
  protected:
    test::Installation install_;
    SentrelInotifyTask task_{install_.state};
    test::TempDir data_;
};

TEST_F(Compare, FileComparisons_DetectModeOwnerAndContent) {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const std::string a = data_.Write("a", "same");
    const std::string b = data_.Write("b", "same");
    EXPECT_TRUE(utils->IsFileFullEqual(a, b));
    ::chmod(b.c_str(), 0600);
    EXPECT_FALSE(utils->IsFileFullEqual(a, b));
    ::chmod(b.c_str(), 0644);
    data_.Write("b", "diff");
    EXPECT_FALSE(utils->IsFileFullEqual(a, b));
    EXPECT_FALSE(utils->IsFileFullEqual(data_.Path("missing"), b));
    struct stat info {};
    ASSERT_EQ(::stat(a.c_str(), &info), 0);
    EXPECT_TRUE(utils->IsFileAttrEqual(a, info.st_mode, info.st_uid, info.st_gid));
    EXPECT_FALSE(utils->IsFileAttrEqual(a, info.st_mode & 07777, info.st_uid, info.st_gid));
    std::filesystem::create_symlink(a, data_.Path("link"));
    EXPECT_FALSE(
        utils->IsFileAttrEqual(data_.Path("link"), info.st_mode, info.st_uid, info.st_gid));
    std::string digest = test::Installation::DigestOf(a);
    EXPECT_TRUE(utils->IsFileHashEqual(a, digest));
    digest[digest.find_first_of("abcdef")] -= 'a' - 'A';
    EXPECT_FALSE(utils->IsFileHashEqual(a, digest));
}

TEST_F(Compare, EventPaths_EndInASlashForDirectories) {
    std::string file1;
    std::string file2;
    EXPECT_TRUE(task_.HandleEventBuildStr("/s/a", "/s/b", false, IN_MOVED_FROM, file1, file2));
    EXPECT_EQ(file1 + " " + file2, "/s/a /s/b");
    EXPECT_TRUE(task_.HandleEventBuildStr("/s/a", "/s/b/", true, IN_MOVED_FROM, file1, file2));
    EXPECT_EQ(file1 + " " + file2, "/s/a/ /s/b/");
    EXPECT_FALSE(task_.HandleEventBuildStr("/s/a.", "", false, IN_CREATE, file1, file2));
    EXPECT_TRUE(task_.HandleEventBuildStr(data_.Path("d"), "", true, IN_DELETE, file1, file2));
    EXPECT_FALSE(task_.HandleEventBuildStr(data_.Path("no/d"), "", true, IN_DELETE, file1, file2));
    EXPECT_EQ(install_.Debugs("Parent dir " + data_.Path("no") +
                              " maybe deleted, filePath:" + data_.Path("no/d/") + "."),
              1);
    EXPECT_TRUE(task_.HandleEventBuildStr(data_.Path("no/f"), "", false, IN_DELETE, file1, file2));
}

TEST_F(Compare, AttrDiff_DescribesBothSides) {
    const std::string backup = data_.Write("backup", "12345");
    const std::string changed = data_.Write("changed", "1");
    ::chmod(backup.c_str(), 0640);
    ::chmod(changed.c_str(), 04755);
    const std::string ids =
        "uid:" + std::to_string(::getuid()) + " gid:" + std::to_string(::getgid());
    EXPECT_EQ(
        task_.HandleFileAttrDiff(backup, changed),
        "before(" + ids + " mode:-rw-r----- size:5) after(" + ids + " mode:-rwsr-xr-x size:1)");
    EXPECT_EQ(task_.HandleFileAttrDiff("/no/a", "/no/b"),
              "before(uid: gid: mode: size:) after(uid: gid: mode: size:)");
}

TEST_F(Compare, ContentDiff_IsShortTextOrNothing) {
    const std::string backup = data_.Write("backup", "hello\nworld\n");
    const std::string changed = data_.Write("changed", "hacked\nworld\n");
    EXPECT_EQ(task_.HandleFileContentDiff(backup, changed), "1c1\n< hacked\n---\n> hello\n");
    data_.Write("changed", "HELLO\n\n\nworld  \n");
    EXPECT_EQ(task_.HandleFileContentDiff(backup, changed), "");
    data_.Write("changed", std::string(5000, 'x'));
    EXPECT_EQ(task_.HandleFileContentDiff(backup, changed).size(), 1024U);
    EXPECT_EQ(task_.HandleFileContentDiff("/no/backup", changed), std::string(1024, 'x'));
    EXPECT_EQ(install_.Debugs("read(" + changed + ") -> [0] [1024]"), 1);
    data_.Write("changed",
                "\x7f"
                "ELF and more");
    EXPECT_EQ(task_.HandleFileContentDiff(backup, changed), "");
    EXPECT_EQ(task_.HandleFileContentDiff(backup, data_.Path()), "");
}

}  // namespace
