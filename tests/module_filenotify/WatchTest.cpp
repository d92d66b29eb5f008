#include <requests/WatchRequestQueue.h>

#include "NotifyFixture.h"

namespace test {

using Watches = NotifyTest;

TEST_F(Watches, BadRequests_AreRefused) {
    EXPECT_EQ(receiver_->Ask("", kMasks, Tree()), "");
    EXPECT_EQ(receiver_->Ask("relative/path", kMasks, Tree()), "");
    EXPECT_EQ(receiver_->Ask(Root(), {}, Tree()), "");
    EXPECT_EQ(receiver_->Ask(Root() + "//", kMasks, Tree()), Root());
    EXPECT_EQ(Engine::FileNotify::WatchRequestQueue::Split("/a//./b/../c/"),
              (std::vector<std::string>{"a", "c"}));
}

TEST_F(Watches, NestedAndOfSeveralReceivers_EachGetsItsOwnId) {
    Make({"in/deep/"});
    auto other = NewReceiver("other");
    Watch(Root());
    Watch(Root("in"));
    EXPECT_EQ(other->Ask(Root("in/deep"), kMasks, Tree()), Root("in/deep"));
    ASSERT_TRUE(Reaches(Root("in/deep"), "ready"));
    const std::string file = Root("in/deep/f");
    TouchFile(file);
    const auto seen = SeenUntilNow();
    std::vector<std::string> ids;
    for (const SeenChange& change : seen) {
        if (change.path == file && change.mask == IN_CREATE) ids.push_back(change.watch);
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<std::string>{Root(), Root("in")})) << Print(seen);
    EXPECT_TRUE(Sees(IN_CREATE, file, other));
    EXPECT_EQ(other->Seen().front().watch, Root("in/deep"));
    // The inner root moves within the outer tree: gone for the one, moved for the other.
    fs::rename(Root("in/deep"), Root("elsewhere"));
    EXPECT_TRUE(Sees(IN_MOVED_TO | IN_ISDIR, Root("elsewhere")));
    EXPECT_TRUE(Sees(IN_MOVED_FROM | IN_ISDIR, Root("in/deep"), other));
    EXPECT_TRUE(SeesTouch(IN_MODIFY, Root("elsewhere/f")));
    fs::rename(Root("elsewhere"), Root("in/deep"));
    EXPECT_TRUE(Sees(IN_CREATE, file, other));
    TouchFile(Root("in/deep/again"));
    EXPECT_TRUE(Sees(IN_CREATE, Root("in/deep/again"), other));
}

TEST_F(Watches, Removed_NothingMoreIsDeliveredAndReAddingWorksAtOnce) {
    auto other = NewReceiver("other", 1);
    EXPECT_EQ(other->Ask(Root(), kMasks, Tree()), Root());
    Watch(Root());  // the receiver's own watch, for the cookies
    other->SetReading(false);
    for (int i = 0; i < 20; ++i) TouchFile(Root("f" + std::to_string(i)));
    AwaitCookie();
    EXPECT_EQ(other->Ask(Root(), kMasks, Removal()), Root());
    const std::size_t queued = other->QueueLength();
    EXPECT_EQ(other->Ask(Root() + "/", kMasks, Tree()), Root());
    other->SetReading(true);
    TouchFile(Root("after"));
    ASSERT_TRUE(Sees(IN_CREATE, Root("after"), other));
    const auto seen = other->Seen();
    // Of what waited for the watch before, only what its queue held already.
    EXPECT_LE(queued, 1U);
    for (int i = 1; i < 20; ++i) {
        EXPECT_FALSE(Has(seen, IN_CREATE, Root("f" + std::to_string(i)))) << Print(seen);
    }
    EXPECT_GT(Counter("events_dropped"), 0U);
}

TEST_F(Watches, LastOneRemoved_NoKernelWatchIsLeft) {
    Make({"a/b/c/"});
    Watch(Root());
    EXPECT_GE(Counter("watched_directories"), 4U);
    receiver_->Ask(Root(), kMasks, Removal());
    EXPECT_TRUE(CounterIs("watched_directories", 0));
}

TEST_F(Watches, WiderOneAfterNarrowOne_SeesWhatTheNarrowOneLeftOut) {
    Make({"cache/deep/"});
    _FileNotifyOpt narrow = Tree();
    narrow.excluded_subdirs = {"cache"};
    auto other = NewReceiver("other");
    other->Ask(Root(), kMasks, narrow);
    ASSERT_TRUE(Reaches(Root(), "ready"));
    Watch(Root("."));
    TouchFile(Root("cache/deep/f"));
    EXPECT_TRUE(Sees(IN_CREATE, Root("./cache/deep/f")));
}

TEST_F(Watches, LoadedAsAModule_RegistersItsTask) {
    engine_.RunOnFrameworkThread([] {});
    std::unique_ptr<Framework::Module> module(static_cast<Framework::Module*>(CreateModule()));
    ASSERT_NE(module, nullptr);
    EXPECT_STREQ(module->name(), "filenotify_module");
    EXPECT_NE(engine_.FindTask("filenotify_task"), nullptr);
}

TEST(Settings, UnknownKeysAndWrongTypes_AreErrors) {
    Engine::FileNotifyTask::Settings settings;
    std::string error;
    const auto is_valid = [&](const char* key, const Json::Value& value) {
        Json::Value section(Json::objectValue);
        section[key] = value;
        return Engine::FileNotifyTask::ReadSettings(section, settings, error);
    };
    EXPECT_TRUE(Engine::FileNotifyTask::ReadSettings({}, settings, error));
    EXPECT_FALSE(is_valid("retry_ms", "soon"));
    EXPECT_TRUE(is_valid("retry_ms", 50));
    EXPECT_EQ(settings.retry_after, 50ms);
    EXPECT_FALSE(is_valid("max_queued_events", -1));
    EXPECT_TRUE(is_valid("max_queued_events", 65536)) << error;
    EXPECT_EQ(settings.max_queued_events, 65536U);
    EXPECT_FALSE(is_valid("retry", 50));
    EXPECT_NE(error.find("/filenotify/retry "), std::string::npos) << error;
}

}  // namespace test
