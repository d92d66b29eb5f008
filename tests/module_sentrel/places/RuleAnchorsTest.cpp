#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "places/RuleAnchors.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Engine::RuleAnchors;
using Engine::RulePlaces;

constexpr uid_t kSomebody = 33;

/// A protected directory whose parents may belong to its user.
class Anchors : public ::testing::Test {
  protected:
    Anchors() {
        data_.Write("www/site/public/index.html", "welcome");
        data_.Write("elsewhere/public/secret", "secret");
        fs::create_directory(data_.Path("backup"));
        fs::permissions(data_.Path("backup"), fs::perms::owner_all);
        rule_.filepath = rule_.real_path = data_.Path("www/site/public/");
        rule_.backup_path = data_.Path("backup");
    }
    void GiveAway(const std::string& name) const {
        ASSERT_EQ(::chown(data_.Path(name).c_str(), kSomebody, kSomebody), 0);
    }
    RulePlaces Places() { return anchors_.Of(rule_); }
    /// True when the held directories lead to the rule's "index.html".
    bool SeesThePage(const RulePlaces& places) const {
        struct stat info {};
        return places && places.anchors->StatLive(rule_.real_path + "index.html", info) == 0;
    }

    RuleAnchors anchors_;
    test::TempDir data_;
    Engine::SentrelDirRule rule_;
};

TEST_F(Anchors, SwappedAncestorOfAnotherUser_IsNotFollowed) {
    GiveAway("www");
    EXPECT_TRUE(SeesThePage(Places()));
    fs::rename(data_.Path("www/site"), data_.Path("www/site.old"));
    fs::create_directory_symlink(data_.Path("elsewhere"), data_.Path("www/site"));
    const RulePlaces places = Places();
    EXPECT_FALSE(places);
    EXPECT_NE(places.problem.find("belongs to"), std::string::npos) << places.problem;
    fs::remove(data_.Path("www/site"));
    fs::rename(data_.Path("www/site.old"), data_.Path("www/site"));
    EXPECT_TRUE(SeesThePage(Places()));
}

TEST_F(Anchors, ReplacedDirectory_IsFollowedOnlyWhenRootReplacedIt) {
    EXPECT_TRUE(SeesThePage(Places()));
    fs::rename(data_.Path("www/site"), data_.Path("www/site.old"));
    data_.Write("www/site/public/index.html", "a new release");
    EXPECT_TRUE(SeesThePage(Places()));
    GiveAway("www/site");
    fs::rename(data_.Path("www/site/public"), data_.Path("www/site/old"));
    fs::rename(data_.Path("elsewhere/public"), data_.Path("www/site/public"));
    EXPECT_FALSE(Places());
}

TEST_F(Anchors, DirectoryMovedAwayAndBack_IsRecognised) {
    GiveAway("www/site");
    ASSERT_TRUE(SeesThePage(Places()));
    fs::rename(data_.Path("www/site/public"), data_.Path("www/site/old"));
    EXPECT_FALSE(SeesThePage(Places()));
    fs::rename(data_.Path("www/site/old"), data_.Path("www/site/public"));
    EXPECT_TRUE(SeesThePage(Places())) << Places().problem;
    // Also when there was another directory meanwhile.
    fs::rename(data_.Path("www/site/public"), data_.Path("www/site/old"));
    EXPECT_TRUE(anchors_.MakeRoot(Places().anchors));
    fs::rename(data_.Path("www/site/public"), data_.Path("www/site/made"));
    fs::rename(data_.Path("www/site/old"), data_.Path("www/site/public"));
    EXPECT_TRUE(SeesThePage(Places())) << Places().problem;
    fs::rename(data_.Path("www/site/public"), data_.Path("www/site/old"));
    fs::rename(data_.Path("www/site/made"), data_.Path("www/site/public"));
    EXPECT_TRUE(Places());
    EXPECT_FALSE(SeesThePage(Places()));
}

TEST_F(Anchors, LostDirectory_IsRecreatedInItsHeldParent) {
    GiveAway("www/site");
    ASSERT_TRUE(Places());
    fs::remove_all(data_.Path("www/site/public"));
    fs::create_directory_symlink(data_.Path("elsewhere/public"), data_.Path("www/site/public"));
    RulePlaces places = Places();
    ASSERT_TRUE(places);
    EXPECT_EQ(places.anchors->Root(), nullptr);
    places = anchors_.MakeRoot(places.anchors);
    ASSERT_TRUE(places) << places.problem;
    EXPECT_NE(places.anchors->Root(), nullptr);
    EXPECT_TRUE(Places());
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(data_.Path("www/site/public"))));
    EXPECT_TRUE(fs::exists(data_.Path("elsewhere/public/secret")));
}

TEST_F(Anchors, BackupPathThatOthersCanReach_IsRejected) {
    EXPECT_TRUE(Places());
    for (const char* what : {"open", "given away"}) {
        anchors_.Forget();
        if (what == std::string("open")) fs::permissions(data_.Path("backup"), fs::perms::all);
        if (what == std::string("given away")) {
            fs::permissions(data_.Path("backup"), fs::perms::owner_all);
            GiveAway("backup");
        }
        const RulePlaces places = Places();
        EXPECT_FALSE(places) << what;
        EXPECT_NE(places.problem.find("backup path is not safe"), std::string::npos);
    }
}

}  // namespace
