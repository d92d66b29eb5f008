#include <tree/WalkQueue.h>
#include <tree/Watch.h>

#include <random>
#include <thread>

#include "NotifyFixture.h"

namespace test {

using Engine::FileNotify::DirNode;
using Engine::FileNotify::WalkQueue;

/// First walks of trees that are large enough for the second thread.
class Walks : public NotifyTest {
  protected:
    static constexpr int kDirectories = 3000;

    std::string Dir(int number) const {
        return Root("d" + std::to_string(number % 20) + "/e" + std::to_string(number % 400) + "/f" +
                    std::to_string(number));
    }

    void MakeTree() const {
        for (int i = 0; i < kDirectories; ++i) {
            fs::create_directories(Dir(i));
            TouchFile(Dir(i) + "/file");
        }
    }
};

TEST_F(Walks, TreeChangesMeanwhile_IndexIsTheTreeAndEveryDirectoryIsWatched) {
    MakeTree();
    std::atomic<bool> stop{false};
    std::thread storm([&] {
        std::mt19937 random(1);
        std::error_code ignored;
        for (int step = 0; step < 1500 && !stop; ++step) {
            const std::string one = Dir(static_cast<int>(random() % kDirectories));
            const std::string other = Dir(static_cast<int>(random() % kDirectories));
            if (random() % 2 == 0) fs::rename(one, other + "/moved", ignored);
            if (random() % 4 == 0) fs::rename(fs::path(one).parent_path(), other, ignored);
            if (random() % 4 == 0) fs::remove_all(other, ignored);
            fs::create_directories(one + "/new/deep", ignored);
            TouchFile(one + "/new/deep/file");
        }
    });
    Watch(Root());
    stop = true;
    storm.join();
    ExpectIndexedAndWatched();
}

TEST_F(Walks, WatchesRunOutOnTheWay_TheRestIsCountedAndMendedLater) {
    MakeTree();
    faults_.watches_left = kDirectories / 2;
    receiver_->Ask(Root(), kMasks, Tree());
    ASSERT_TRUE(Reaches(Root(), "degraded"));
    EXPECT_TRUE(WaitFor([&] { return IndexAgrees(); }, kDeadline))
        << WatchStatus(Root()).toStyledString();
    EXPECT_GE(WatchStatus(Root())["unwatched"].asInt(), kDirectories / 2);
    faults_.watches_left = 2 * kDirectories;
    EXPECT_TRUE(Reaches(Root(), "ready"));
    TouchFile(Dir(0) + "/file");
    TouchFile(Dir(kDirectories - 1) + "/file");
    EXPECT_TRUE(Sees(IN_MODIFY, Dir(0) + "/file"));
    EXPECT_TRUE(Sees(IN_MODIFY, Dir(kDirectories - 1) + "/file"));
}

TEST_F(Walks, ExcludedSubdirectoriesOfSeveralLevels_HaveNoKernelWatch) {
    for (const char* dir : {"var/cache/a/b", "var/cache2/a", "var/log", "cache/a", "cache/b"}) {
        fs::create_directories(Root(dir));
    }
    _FileNotifyOpt options = Tree();
    options.excluded_subdirs = {"/var/cache/", "cache/a", "not/there"};
    Watch(Root(), "ready", options);
    // root, var, var/cache2, var/cache2/a, var/log, cache, cache/b
    EXPECT_EQ(WatchStatus(Root())["directories"].asInt(), 7);
    const std::uint64_t watched = Counter("watched_directories");
    fs::create_directories(Root("var/cache/c/d"));
    fs::create_directories(Root("var/cache/a/e"));
    fs::remove_all(Root("cache/a"));
    fs::create_directories(Root("cache/a/again"));
    fs::create_directories(Root("not/there/either"));
    const auto seen = SeenUntilNow();
    EXPECT_TRUE(Has(seen, IN_CREATE | IN_ISDIR, Root("not")));
    EXPECT_EQ(seen.size(), 1U) << Print(seen);
    ASSERT_TRUE(CounterIs("walk_queue", 0));
    EXPECT_EQ(Counter("watched_directories"), watched + 1);
}

TEST(WalkQueue, ReasonsAddUpAndCancelledJobsAreSkipped) {
    WalkQueue queue;
    DirNode a;
    DirNode b;
    Engine::FileNotify::Watch owner;
    queue.Push(a, WalkQueue::kFirst, &owner);
    queue.Push(b, WalkQueue::kFirst, &owner);
    queue.Push(a, WalkQueue::kReconcile, nullptr);
    EXPECT_EQ(owner.jobs, 2U);
    queue.Cancel(b);
    EXPECT_EQ(owner.jobs, 1U);
    EXPECT_TRUE(queue.IsReconciling());
    EXPECT_EQ(queue.Pop(WalkQueue::kIndexing).node, nullptr);
    const WalkQueue::Job job = queue.Pop(WalkQueue::kAnnouncing);
    EXPECT_EQ(job.node, &a);
    EXPECT_EQ(job.reasons, WalkQueue::kFirst | WalkQueue::kReconcile);
    EXPECT_EQ(owner.jobs, 0U);
    EXPECT_FALSE(queue.IsReconciling());
    EXPECT_TRUE(queue.Empty());
    queue.Push(a, WalkQueue::kVerify, nullptr);
    EXPECT_EQ(queue.Pop(WalkQueue::kIndexing).node, &a);
}

}  // namespace test
