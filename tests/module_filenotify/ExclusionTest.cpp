#include <iterator>

#include "NotifyFixture.h"

namespace test {

/// A site with pages and uploads; the receiver ignores the uploads.
class Exclusions : public NotifyTest {
  protected:
    static constexpr int kPages = 10;
    static constexpr int kUploads = 40;

    void SetUp() override {
        NotifyTest::SetUp();
        for (int i = 0; i < kPages; ++i) site_.Write(Page(i), "x");
        for (int i = 0; i < kUploads; ++i) fs::create_directories(Root(Upload(i)));
        engine_.Queries().Register("exclusions.receiver", [this](const Json::Value& question) {
            Json::Value answer;
            const std::string path = question["path"].asString();
            answer["prefixes"].append((path.back() == '/' ? path : path + "/") + "uploads");
            return answer;
        });
    }
    static std::string Page(int i) { return "root/pages/p" + std::to_string(i) + "/file"; }
    static std::string Upload(int i) {
        return "uploads/u" + std::to_string(i % 8) + "/" + std::to_string(i);
    }
    /// Watches the root with the kernel watches that the pages and their paths need, and `more`.
    void WatchWithFew(int more) {
        const fs::path root = Root();
        const auto steps = static_cast<int>(std::distance(root.begin(), root.end()));
        faults_.watches_left = steps + 1 + kPages + more;
        Watch(Root() + "/");
        ASSERT_TRUE(CounterIs("walk_queue", 0));
        ASSERT_GT(Counter("excluded_unwatched"), 0U);
    }
};

TEST_F(Exclusions, TooFewWatches_ExcludedDirectoriesComeLastAndAreEvicted) {
    WatchWithFew(5);
    EXPECT_EQ(Counter("watches_given_up"), 0U);
    EXPECT_EQ(WatchStatus(Root())["unwatched"].asInt(), 0);
    for (int i = 0; i < kPages; ++i) {
        EXPECT_TRUE(SeesTouch(IN_MODIFY, site_.Path(Page(i))));
    }
    const std::uint64_t excluded = Counter("excluded_unwatched");
    for (const char* name : {"new/a", "new/b", "new/c", "uploads/later"}) {
        fs::create_directories(Root(name));
    }
    ASSERT_TRUE(CounterIs("watches_given_up", 4));
    EXPECT_EQ(Counter("unwatched_directories"), 0U);
    EXPECT_TRUE(WaitFor([&] { return Counter("excluded_unwatched") >= excluded + 4; }, kDeadline));
    for (const char* name : {"new/a/f", "new/b/f", "new/c/f"}) {
        EXPECT_TRUE(SeesTouch(IN_CREATE, Root(name)));
    }
    EXPECT_TRUE(Reaches(Root(), "ready"));
}

TEST_F(Exclusions, MovedToTheProtectedPart_IsWatchedThroughout) {
    WatchWithFew(2);
    // Only the two uppermost directories of the uploads can have a watch.
    fs::rename(Root("uploads"), Root("moved"));
    faults_.watches_left = 9;
    ASSERT_TRUE(Reaches(Root(), "degraded"));  // no watch is left to evict
    faults_.watches_left = 100;
    ASSERT_TRUE(Reaches(Root(), "ready"));
    EXPECT_EQ(Counter("excluded_unwatched"), 0U);
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("moved/u3/11/file")));
}

TEST_F(Exclusions, MoreWatchesLater_ExcludedDirectoriesAreAnnouncedAgain) {
    WatchWithFew(2);
    TouchFile(Root(Upload(7) + "/missed"));
    faults_.watches_left = 1000;
    EXPECT_TRUE(CounterIs("excluded_unwatched", 0));
    EXPECT_TRUE(Sees(IN_MODIFY, Root(Upload(7) + "/missed")));
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root(Upload(8) + "/seen")));
    EXPECT_TRUE(WaitFor([&] { return IndexAgrees(); }, kDeadline));
}

TEST_F(Exclusions, NamesThatOnlyBeginAlikeOrAreWatchedOtherwise_AreNotEvicted) {
    Make({"upload/", "uploads/u1/1/inner/deep/"});
    auto other = NewReceiver("other");
    other->Ask(Root("uploads/u1/1/inner"), kMasks, Tree());
    WatchWithFew(1 + 5 + 1);  // upload, and the inner one with the way to it and what it holds
    EXPECT_EQ(Counter("unwatched_directories"), 0U);
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("upload/f")));
    TouchFile(Root("uploads/u1/1/inner/deep/f"));
    EXPECT_TRUE(Sees(IN_CREATE, Root("uploads/u1/1/inner/deep/f"), other));
}

}  // namespace test
