#include <gtest/gtest.h>

#include <set>

#include "progress/BackupProgress.h"
#include "progress/OpenObjects.h"
#include "support/TempDir.h"

namespace {

using Engine::OpenObjects;

class OpenObjectsTest : public ::testing::Test {
  protected:
    bool Covers(const std::string& below) const {
        return open_.Covers(below, [this](const std::string& one) { return copied_.count(one); });
    }

    OpenObjects open_{3};
    std::set<std::string> copied_;
};

TEST_F(OpenObjectsTest, Object_CoversOnlyItselfAndWhatIsBelow) {
    open_.Add("a/b/deep", EAGAIN);
    open_.Add("a/b", ENOSPC);
    open_.Add("a/b/later", EAGAIN);
    open_.Add("a-b", EAGAIN);
    EXPECT_EQ(open_.Size(), 2U);
    for (const char* below : {"a/b", "a/b/deep", "a/b/c/d", "a-b"})
        EXPECT_TRUE(Covers(below)) << below;
    for (const char* below : {"a", "a/bc", "a/b-c", "a/b.d/e", "b", "a-"}) {
        EXPECT_FALSE(Covers(below)) << below;
    }
    EXPECT_TRUE(open_.HasAnyIn("a") && open_.HasAnyIn("") && open_.HasAnyIn("a/b"));
    EXPECT_FALSE(open_.HasAnyIn("a/c") || open_.HasAnyIn("b"));
    open_.Remove("a/b");
    open_.Remove("a-b");
    EXPECT_TRUE(open_.IsEmpty());
}

TEST_F(OpenObjectsTest, FullSet_ReplacesTheEntriesOfADirectoryByOne) {
    open_.Add("x/1", EAGAIN);
    open_.Add("x/2", EAGAIN);
    open_.Add("y/1", EAGAIN);
    open_.Add("x/3", EAGAIN);
    EXPECT_EQ(open_.Size(), 2U);
    EXPECT_TRUE(open_.IsCollapsed());
    copied_ = {"x/page", "x/dir", "x/dir/page"};
    for (const char* below : {"x/1", "x/3", "x/new", "x/newdir/any", "y/1"}) {
        EXPECT_TRUE(Covers(below)) << below;
    }
    for (const char* below : {"x", "x/page", "x/dir", "x/dir/page", "x/dir/new", "y/2", "new"}) {
        EXPECT_FALSE(Covers(below)) << below;
    }
    open_.Add("z/1", EAGAIN);
    open_.Add("x/dir/deep/1", EAGAIN);  // full again: collapses the nearest directory with an entry
    EXPECT_EQ(open_.Size(), 3U);
    EXPECT_TRUE(Covers("x/dir/new") && Covers("z/1"));
    EXPECT_FALSE(Covers("x/dir/page") || Covers("z/2"));
}

TEST_F(OpenObjectsTest, ManyObjects_StayWithinTheLimits) {
    OpenObjects many;
    const std::string longest(200, 'd');
    for (int at = 0; at < 60'000; ++at) {
        many.Add(longest + std::to_string(at % 5000) + "/" + std::to_string(at), EAGAIN);
        ASSERT_LE(many.Size(), OpenObjects::kCapacity);
    }
    const auto no_copy = [](const std::string&) { return false; };
    for (int at = 0; at < 60'000; at += 999) {
        EXPECT_TRUE(
            many.Covers(longest + std::to_string(at % 5000) + "/" + std::to_string(at), no_copy));
    }
    std::size_t bytes = 0;
    OpenObjects deep;
    for (int at = 0; at < 5000; ++at) deep.Add(std::to_string(at) + std::string(4000, 'n'), EAGAIN);
    for (const auto& entry : deep.Entries(OpenObjects::kCapacity)) bytes += entry.below.size();
    EXPECT_LE(bytes, OpenObjects::kMostBytes);
    EXPECT_TRUE(deep.Covers("4999" + std::string(4000, 'n'), no_copy));
}

TEST_F(OpenObjectsTest, BackupProgress_KnowsTheOpenObjectsOfACompleteRuleInItsRound) {
    const test::TempDir copies;
    Engine::SentrelDirRule rule;
    rule.real_path = "/site/";
    rule.backup_path = copies.Path();
    copies.Write("site/known.html", "known");
    Engine::BackupProgress progress;
    EXPECT_FALSE(progress.IsOpen(rule, "/site/leased"));
    OpenObjects open(2);
    open.Add("leased", EAGAIN);
    EXPECT_TRUE(progress.NoteComplete(rule, progress.Round(), open));
    EXPECT_TRUE(progress.IsOpen(rule, "/site/leased") && progress.IsOpen(rule, "/site/leased/"));
    for (const char* path : {"/site/", "/site", "/site/leased2", "/sitx/leased", "/"}) {
        EXPECT_FALSE(progress.IsOpen(rule, path)) << path;
    }
    EXPECT_TRUE(progress.HasOpenIn(rule, "/site/"));
    progress.NoteTried(rule, progress.Round(), "leased", {});
    EXPECT_FALSE(progress.IsOpen(rule, "/site/leased") || progress.HasOpenIn(rule, "/site/"));
    for (const char* name : {"1", "2", "3"}) open.Add(name, EAGAIN);
    EXPECT_TRUE(progress.NoteComplete(rule, progress.Round(), open));
    EXPECT_TRUE(progress.IsOpen(rule, "/site/new"));
    EXPECT_FALSE(progress.IsOpen(rule, "/site/known.html"));
    progress.Restart();
    EXPECT_FALSE(progress.IsOpen(rule, "/site/new") || progress.IsComplete(rule));
}

}  // namespace
