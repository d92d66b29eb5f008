#include <changes/RecentFileTypes.h>
#include <gtest/gtest.h>
#include <index/NameIndex.h>
#include <malloc.h>

#include <set>
#include <string>
#include <vector>

namespace test {

using Engine::FileNotify::DirNode;
using Engine::FileNotify::NameIndex;
using Engine::FileNotify::NameSet;
using Engine::FileNotify::RecentFileTypes;
using Kind = NameIndex::Kind;

TEST(NameSet, ManyNamesComeAndGo_AgreesWithAPlainSet) {
    NameSet names;
    std::set<std::string> expected;
    unsigned int random = 7;
    for (int step = 0; step < 20000; ++step) {
        random = random * 1103515245U + 12345U;
        const std::string name = "n" + std::to_string((random >> 16) % 700);
        if ((random >> 8) % 5 < 3) {
            EXPECT_EQ(names.Insert(name), expected.insert(name).second);
        } else {
            EXPECT_EQ(names.Erase(name), expected.erase(name) == 1);
        }
        if (step % 5000 == 4999) {  // empty it: small and hashed forms alternate
            for (const auto& each : std::set<std::string>(expected)) names.Erase(each);
            expected.clear();
        }
        ASSERT_EQ(names.Size(), expected.size());
        ASSERT_EQ(names.Contains(name), expected.count(name) == 1);
    }
    std::set<std::string> listed;
    names.ForEach([&](std::string_view name) { listed.emplace(name); });
    EXPECT_EQ(listed, expected);
    EXPECT_FALSE(names.Insert(""));
    EXPECT_FALSE(names.Insert(std::string(256, 'x')));
    EXPECT_TRUE(names.Insert(std::string(255, 'x')));
}

TEST(NameIndex, DirectoryMoved_PathsAndTotalsFollow) {
    NameIndex index;
    DirNode& a = index.AddDirectory(index.Root(), "a");
    DirNode& b = index.AddDirectory(a, "b");
    DirNode& c = index.AddDirectory(index.Root(), "c");
    EXPECT_TRUE(index.AddFile(b, "f"));
    EXPECT_FALSE(index.AddFile(b, "f"));
    index.SetUnwatched(b, true);
    EXPECT_EQ(NameIndex::PathOf(b, "f"), "/a/b/f");
    EXPECT_EQ(NameIndex::PathBelow(&a, b, "f"), "b/f");
    EXPECT_EQ(NameIndex::PathOf(index.Root()), "/");
    index.Move(b, c, "new");
    EXPECT_EQ(NameIndex::PathOf(b, "f"), "/c/new/f");
    EXPECT_EQ(NameIndex::Lookup(a, "b"), Kind::kNone);
    EXPECT_EQ(NameIndex::Lookup(c, "new"), Kind::kDirectory);
    EXPECT_EQ(NameIndex::Lookup(b, "f"), Kind::kOther);
    EXPECT_EQ(a.totals.files, 0U);
    EXPECT_EQ(c.totals.files, 1U);
    EXPECT_EQ(c.totals.unwatched, 1U);
    EXPECT_EQ(index.Root().totals.directories, 4U);
    EXPECT_TRUE(NameIndex::IsWithin(b, c));
    index.Exchange(a, b);
    EXPECT_EQ(NameIndex::PathOf(b, "f"), "/a/f");
    EXPECT_EQ(NameIndex::PathOf(a), "/c/new");
    index.AddDirectory(b, "f");  // the other kind takes the name
    EXPECT_EQ(index.Root().totals.files, 0U);
}

TEST(NameIndex, WideAndVeryDeepTreeRemoved_EachIsReportedDeepestFirst) {
    NameIndex index;
    DirNode& top = index.AddDirectory(index.Root(), "top");
    DirNode* at = &top;
    for (int i = 0; i < 3000; ++i) at = &index.AddDirectory(*at, "d");
    for (int i = 0; i < 2000; ++i) index.AddDirectory(top, "w" + std::to_string(i));
    EXPECT_NE(top.dirs.Find("w1999"), nullptr);
    std::set<const DirNode*> removed;
    std::size_t count = 0;
    index.Remove(top, [&](DirNode& node) {
        ++count;
        EXPECT_EQ(removed.count(node.parent), 0U);
        removed.insert(&node);
    });
    EXPECT_EQ(count, 5001U);
    EXPECT_EQ(index.Root().totals.directories, 1U);
    EXPECT_TRUE(index.Root().dirs.All().empty());
}

TEST(NameIndex, TenFilesInEachDirectory_TakesFewBytes) {
    constexpr int kDirectories = 20000;
    const std::size_t before = mallinfo2().uordblks;
    NameIndex index;
    DirNode* parent = &index.Root();
    for (int i = 0; i < kDirectories; ++i) {
        if (i % 20 == 0) parent = &index.AddDirectory(index.Root(), "parent" + std::to_string(i));
        DirNode& dir = index.AddDirectory(*parent, "directory" + std::to_string(i));
        for (int f = 0; f < 10; ++f) index.AddFile(dir, "file-" + std::to_string(f) + ".html");
        dir.files.Shrink();
    }
    const std::size_t each = (mallinfo2().uordblks - before) / kDirectories;
    RecordProperty("bytes_per_directory", static_cast<int>(each));
    // mallinfo2 reports nothing under sanitizers.
    if (before != 0) {
        EXPECT_LT(each, 550U);
    }
}

TEST(RecentFileTypes, OtherKindAtTheSamePath_IsNoticedOnce) {
    RecentFileTypes memory;
    memory.Remember("/a", true);
    memory.Remember("/b", false);
    EXPECT_FALSE(memory.TakeChanged("/b", false));
    EXPECT_TRUE(memory.TakeChanged("/a", false));
    EXPECT_FALSE(memory.TakeChanged("/a", false));
    memory.Remember("/old", true);
    for (std::size_t i = 0; i < RecentFileTypes::kCapacity; ++i) {
        memory.Remember("/n" + std::to_string(i), true);
    }
    EXPECT_FALSE(memory.TakeChanged("/old", false));
    EXPECT_TRUE(memory.TakeChanged("/n1", false));
}

}  // namespace test
