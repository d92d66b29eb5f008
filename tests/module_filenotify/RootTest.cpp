#include <sys/stat.h>

#include "NotifyFixture.h"

namespace test {

using Roots = NotifyTest;

TEST_F(Roots, DeletedAndMadeAgain_IsAnnouncedAndWatchedAgain) {
    Make({"d/file"});
    Watch(Root());
    fs::remove_all(Root());
    ASSERT_TRUE(Sees(IN_DELETE | IN_ISDIR, Root()));
    EXPECT_TRUE(Reaches(Root(), "waiting"));
    receiver_->Forget();
    site_.Write("root/d/file", "y");
    EXPECT_TRUE(Sees(IN_CREATE | IN_ISDIR, Root()));
    EXPECT_TRUE(Sees(IN_CREATE, Root("d/file")));
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("d/more")));
    EXPECT_TRUE(Reaches(Root(), "ready"));
}

TEST_F(Roots, ParentsDeletedAndMadeAgain_DeletionIsAnnouncedAgainWhenItCanBeUndone) {
    const std::string root = site_.Path("a/b/c");
    fs::create_directories(root);
    Watch(root + "/");
    fs::remove_all(site_.Path("a"));
    ASSERT_TRUE(Sees(IN_DELETE | IN_ISDIR, root));
    ASSERT_TRUE(Reaches(root, "waiting"));
    receiver_->Forget();
    fs::create_directories(site_.Path("a/b"));
    EXPECT_TRUE(Sees(IN_DELETE | IN_ISDIR, root));
    fs::create_directory(root);
    EXPECT_TRUE(Sees(IN_CREATE | IN_ISDIR, root));
    EXPECT_TRUE(SeesTouch(IN_CREATE, root + "/f"));
}

TEST_F(Roots, AbsentAtRegistration_IsWatchedOnceItAppears) {
    const std::string root = site_.Path("x/y/z");
    EXPECT_EQ(Watch(root + "/", "waiting"), root);
    EXPECT_EQ(WatchStatus(root)["kind"].asString(), "tree");
    site_.Write("prepared/z/file", "x");
    fs::create_directory(site_.Path("x"));
    fs::rename(site_.Path("prepared"), site_.Path("x/y"));
    EXPECT_TRUE(Sees(IN_CREATE | IN_ISDIR, root));
    EXPECT_TRUE(Sees(IN_CREATE, root + "/file"));
    EXPECT_TRUE(Reaches(root, "ready"));
}

TEST_F(Roots, MovedAway_ItsTreeIsSilentAndTheNextOneIsWatched) {
    const std::string root = site_.Path("live");
    site_.Write("live/file", "x");
    Watch(root);
    Watch(Root());
    fs::rename(root, site_.Path("moved"));
    ASSERT_TRUE(Sees(IN_MOVED_FROM | IN_ISDIR, root));
    receiver_->Forget();
    TouchFile(site_.Path("moved/file"));
    EXPECT_EQ(Print(SeenUntilNow()), "");
    site_.Write("next/file", "y");
    fs::rename(site_.Path("next"), root);
    EXPECT_TRUE(Sees(IN_MOVED_TO | IN_ISDIR, root));
    EXPECT_TRUE(Sees(IN_CREATE, root + "/file"));
}

// The directories above a root must report moves too, although no watch requests them.
TEST_F(Roots, ParentMovedAwayAndBack_RootIsAnnouncedGoneAndThere) {
    const std::string root = site_.Path("a/live");
    fs::create_directories(root);
    Watch(root);
    fs::rename(site_.Path("a"), site_.Path("b"));
    EXPECT_TRUE(Sees(IN_DELETE | IN_ISDIR, root));
    EXPECT_TRUE(Reaches(root, "waiting"));
    fs::rename(site_.Path("b"), site_.Path("a"));
    EXPECT_TRUE(Sees(IN_CREATE | IN_ISDIR, root));
}

TEST_F(Roots, NotToBeWatchedAgain_EndsWithItsRoot) {
    const std::string root = site_.Path("once");
    fs::create_directory(root);
    _FileNotifyOpt options = Tree();
    options.rewatch = false;
    Watch(root, "ready", options);
    Watch(Root());
    fs::remove(root);
    ASSERT_TRUE(Sees(IN_DELETE | IN_ISDIR, root));
    receiver_->Forget();
    fs::create_directory(root);
    TouchFile(root + "/f");
    EXPECT_EQ(Print(SeenUntilNow()), "");
}

TEST_F(Roots, ReplacedByLink_IsAnnouncedAndNotFollowed) {
    const std::string root = site_.Path("live");
    fs::create_directory(root);
    site_.Write("trap/file", "x");
    Watch(root);
    Watch(Root());
    fs::remove(root);
    fs::create_directory_symlink(site_.Path("trap"), root);
    ASSERT_TRUE(Sees(IN_CREATE, root));
    EXPECT_TRUE(Sees(IN_ATTRIB, root));
    receiver_->Forget();
    TouchFile(site_.Path("trap/file"));
    EXPECT_EQ(Print(SeenUntilNow()), "");
}

TEST_F(Roots, BehindALink_IsWatchedUnderThePathAsGiven) {
    fs::create_directories(site_.Path("real/www"));
    fs::create_directory_symlink(site_.Path("real"), site_.Path("link"));
    const std::string root = site_.Path("link/www");
    Watch(root + "/");
    EXPECT_TRUE(SeesTouch(IN_CREATE, root + "/f"));
    fs::remove(site_.Path("link"));
    EXPECT_TRUE(Sees(IN_DELETE | IN_ISDIR, root));
    fs::create_directories(site_.Path("other/www"));
    fs::create_directory_symlink(site_.Path("other"), site_.Path("link"));
    EXPECT_TRUE(Sees(IN_CREATE | IN_ISDIR, root));
}

TEST_F(Roots, SingleFile_SurvivesReplacementAndNeighboursAreSilent) {
    const std::string file = site_.Write("root/index.php", "x");
    Make({"d/"});
    EXPECT_EQ(Watch(file), file);
    EXPECT_EQ(WatchStatus(file)["kind"].asString(), "file");
    EXPECT_TRUE(SeesTouch(IN_MODIFY, file));
    for (int round = 0; round < 2; ++round) {
        receiver_->Forget();
        TouchFile(Root("index.php.new"));
        fs::rename(Root("index.php.new"), file);
        EXPECT_TRUE(Sees(IN_MOVED_TO, file));
    }
    fs::remove(file);
    ASSERT_TRUE(Sees(IN_DELETE, file));
    TouchFile(Root("d/neighbour"));
    TouchFile(Root("neighbour"));
    ASSERT_TRUE(SeesTouch(IN_CREATE, file));
    for (const SeenChange& change : receiver_->Seen()) EXPECT_EQ(change.path, file);
}

}  // namespace test
