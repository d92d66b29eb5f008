#include <iterator>

#include "NotifyFixture.h"

namespace test {

/// A site with pages and uploads; the receiver ignores the uploads.
class Exclusions : public NotifyTest {
  protected:
    void SetUp() override {
        NotifyTest::SetUp();
        Make({"pages/p1/in/f", "pages/p2/f", "uploads/u1/deep/f", "uploads/u2/", "uploads2/"});
        engine_.Queries().Register("exclusions.receiver", [this](const Json::Value& question) {
            Json::Value answer;
            const std::string path = question["path"].asString();
            answer["prefixes"].append((path.back() == '/' ? path : path + "/") + excluded_.load());
            return answer;
        });
    }
    void WatchRoot() {
        Watch(Root() + "/");
        ASSERT_TRUE(CounterIs("walk_queue", 0));
    }
    /// The directories with a kernel watch.
    int Watched() const { return static_cast<int>(Counter("watched_directories")); }
    /// Waits until so many directories of the site have a kernel watch.
    bool Watches(int directories) const {
        const fs::path root = Root();
        const auto above = static_cast<int>(std::distance(root.begin(), root.end())) - 1;
        return WaitFor([&] { return Watched() - above == directories; }, kDeadline);
    }
    /// The paths below `directory` of which anything was told.
    std::string ToldBelow(const std::string& directory) {
        std::string told;
        for (const SeenChange& change : SeenUntilNow()) {
            if (change.path.rfind(Root(directory) + "/", 0) == 0) told += change.path + "\n";
        }
        return told;
    }

    std::atomic<const char*> excluded_{"uploads/"};
};

TEST_F(Exclusions, ExcludedDirectories_HaveNoWatch) {
    excluded_ = "uploads";  // any name that begins so
    WatchRoot();
    const std::uint64_t received = Counter("events_received");
    TouchFile(Root("uploads/u1/deep/new"));
    fs::create_directories(Root("uploads/u3/new"));
    TouchFile(Root("uploads2/new"));
    EXPECT_EQ(ToldBelow("uploads") + ToldBelow("uploads2"), "");
    EXPECT_LE(Counter("events_received") - received, 16U) << "only those of the cookie files";
    EXPECT_TRUE(Watches(5));
    // As before after lost events.
    faults_.forget_unread = true;
    TouchFile(Root("pages/lost"));
    EXPECT_TRUE(Sees(IN_CREATE, Root("pages/lost")));
    EXPECT_EQ(ToldBelow("uploads"), "");
    EXPECT_TRUE(Watches(5));
}

TEST_F(Exclusions, MovedToTheProtectedPart_IsAnArrivalAndWatchedThroughout) {
    WatchRoot();
    fs::rename(Root("uploads/u1"), Root("pages/u1"));
    EXPECT_TRUE(Sees(IN_MOVED_TO | IN_ISDIR, Root("pages/u1")));
    EXPECT_TRUE(Sees(IN_CREATE, Root("pages/u1/deep/f")));
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("pages/u1/deep/new")));
    fs::rename(Root("uploads"), Root("moved"));
    EXPECT_TRUE(Sees(IN_CREATE | IN_ISDIR, Root("moved/u2")));
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("moved/u2/new")));
    ASSERT_TRUE(Exchange(Root("moved"), Root("pages/p2")));
    ExpectIndexedAndWatched();
}

TEST_F(Exclusions, MovedToTheExcludedPart_LosesItsWatches) {
    WatchRoot();
    fs::rename(Root("pages/p1"), Root("uploads/p1"));
    EXPECT_TRUE(Sees(IN_MOVED_FROM | IN_ISDIR, Root("pages/p1")));
    EXPECT_TRUE(Watches(4)) << "root, pages, p2 and uploads2";
    fs::remove_all(Root("uploads"));
    fs::rename(Root("pages/p2"), Root("uploads"));
    EXPECT_TRUE(Watches(3)) << "root, pages and uploads2";
    TouchFile(Root("uploads/new"));
    EXPECT_EQ(ToldBelow("uploads"), "");
}

TEST_F(Exclusions, OtherExclusionsThanBefore_ApplyToANewWatch) {
    WatchRoot();
    excluded_ = "pages/p1";
    receiver_->Ask(Root() + "/", kMasks, Removal());
    Watch(Root() + "/");
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("uploads/u1/deep/new")));
    TouchFile(Root("pages/p1/in/new"));
    EXPECT_EQ(ToldBelow("pages/p1"), "");
}

TEST_F(Exclusions, NamesThatOnlyBeginAlikeOrAreWatchedOtherwise_AreWatched) {
    Make({"uploads/u1/deep/inner/in/"});
    auto other = NewReceiver("other");
    other->Ask(Root("uploads/u1/deep/inner"), kMasks, Tree());
    WatchRoot();
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("uploads2/f")));
    TouchFile(Root("uploads/u1/deep/inner/in/f"));
    EXPECT_TRUE(Sees(IN_CREATE, Root("uploads/u1/deep/inner/in/f"), other));
    // The way to it needs its watches only as long.
    const int with_inner = Watched();
    other->Ask(Root("uploads/u1/deep/inner"), kMasks, Removal());
    EXPECT_TRUE(WaitFor([&] { return Watched() == with_inner - 5; }, kDeadline))
        << with_inner << " " << Watched();
}

}  // namespace test
