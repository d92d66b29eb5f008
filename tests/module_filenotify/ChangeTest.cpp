#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include "NotifyFixture.h"

namespace test {

using Changes = NotifyTest;

TEST_F(Changes, FileCreatedWrittenChangedDeleted_EachIsAnnouncedInOrder) {
    EXPECT_EQ(Watch(Root() + "/"), Root());
    const std::string file = Root("a");
    ASSERT_TRUE(SeesTouch(IN_MODIFY, file));
    fs::permissions(file, fs::perms::owner_read);
    ASSERT_TRUE(Sees(IN_ATTRIB, file));
    fs::remove(file);
    const auto seen = SeenUntilNow();
    EXPECT_LT(IndexOf(seen, IN_CREATE, file), IndexOf(seen, IN_MODIFY, file)) << Print(seen);
    EXPECT_TRUE(Has(seen, IN_DELETE, file)) << Print(seen);
    for (const SeenChange& change : seen) EXPECT_EQ(change.watch, Root());
    EXPECT_EQ(Counter("events_dropped"), 0U);
}

// The kernel reports no write through a mapping, and the descriptor may be closed before it.
TEST_F(Changes, WriteThroughAMapping_IsAnnouncedWhenTheMappingEnds) {
    const std::string file = site_.Write("root/mapped", "before");
    Watch(Root());
    SDK::FileDescriptor fd(::open(file.c_str(), O_RDWR | O_CLOEXEC));
    void* memory = ::mmap(nullptr, 6, PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0);
    ASSERT_NE(memory, MAP_FAILED);
    fd.Reset();
    ASSERT_FALSE(Has(SeenUntilNow(), IN_MODIFY, file));
    std::memcpy(memory, "beyond", 6);
    ASSERT_EQ(::munmap(memory, 6), 0);
    EXPECT_TRUE(Sees(IN_MODIFY, file));
}

TEST_F(Changes, AttributesOfRootAndInnerDirectory_AreAnnouncedOnceEach) {
    Make({"d/"});
    Watch(Root());
    ::chmod(Root("d").c_str(), 0700);
    ::chmod(Root().c_str(), 0711);
    const auto seen = SeenUntilNow();
    ASSERT_EQ(seen.size(), 2U) << Print(seen);
    EXPECT_TRUE(Has(seen, IN_ATTRIB | IN_ISDIR, Root("d")));
    EXPECT_TRUE(Has(seen, IN_ATTRIB | IN_ISDIR, Root()));
}

TEST_F(Changes, DirectoryMovedWithin_KeepsItsWatchesUnderTheNewName) {
    Make({"old/in/file", "to/"});
    Watch(Root());
    fs::rename(Root("old"), Root("to/new"));
    TouchFile(Root("to/new/in/file"));
    const auto seen = SeenUntilNow();
    const std::size_t from = IndexOf(seen, IN_MOVED_FROM | IN_ISDIR, Root("old"));
    ASSERT_LT(from, seen.size()) << Print(seen);
    EXPECT_EQ(seen[from].moveto, Root("to/new"));
    EXPECT_TRUE(Has(seen, IN_MOVED_TO | IN_ISDIR, Root("to/new"))) << Print(seen);
    EXPECT_TRUE(Has(seen, IN_MODIFY, Root("to/new/in/file"))) << Print(seen);
    // Known already: renamed, not walked.
    EXPECT_FALSE(Has(seen, IN_CREATE | IN_ISDIR, Root("to/new/in"))) << Print(seen);
}

TEST_F(Changes, TwoDirectoriesSwapped_EachIsKnownByItsNewName) {
    Make({"a/of_a", "b/of_b"});
    Watch(Root());
    ASSERT_TRUE(Exchange(Root("a"), Root("b")));
    TouchFile(Root("b/of_a"));
    TouchFile(Root("a/of_b"));
    const auto seen = SeenUntilNow();
    // Modified when the exchange was recognised, new when only its effects were.
    for (const std::string& file : {Root("b/of_a"), Root("a/of_b")}) {
        EXPECT_TRUE(WaitFor([&] { return Announced(0, receiver_).count(file) == 1; }, kDeadline))
            << file << "\n"
            << Print(receiver_->Seen());
    }
    EXPECT_TRUE(Has(seen, IN_MOVED_TO | IN_ISDIR, Root("a"))) << Print(seen);
    EXPECT_TRUE(Has(seen, IN_MOVED_TO | IN_ISDIR, Root("b"))) << Print(seen);
}

TEST_F(Changes, DirectoryMovedOutAndIn_IsUnwatchedThenAnnouncedWithItsContentTopDown) {
    Make({"d/e/file"});
    Watch(Root());
    fs::rename(Root("d"), site_.Path("outside"));
    ASSERT_TRUE(Sees(IN_MOVED_FROM | IN_ISDIR, Root("d")));
    receiver_->Forget();
    for (const char* name : {"file", "more"}) TouchFile(site_.Path("outside/e/") + name);
    EXPECT_EQ(Print(SeenUntilNow()), "");
    EXPECT_EQ(WatchStatus(Root())["directories"].asInt(), 1);
    fs::rename(site_.Path("outside"), Root("d"));
    ASSERT_TRUE(Sees(IN_CREATE, Root("d/e/file")));
    ASSERT_TRUE(SeesTouch(IN_CREATE, Root("d/e/later")));
    const auto seen = SeenUntilNow();
    const std::size_t arrived = IndexOf(seen, IN_MOVED_TO | IN_ISDIR, Root("d"));
    const std::size_t inner = IndexOf(seen, IN_CREATE | IN_ISDIR, Root("d/e"));
    EXPECT_LT(arrived, inner) << Print(seen);
    EXPECT_LT(inner, IndexOf(seen, IN_CREATE, Root("d/e/file"))) << Print(seen);
}

TEST_F(Changes, DeepTreesMadeByRacingWriters_EveryFileIsAnnounced) {
    Watch(Root());
    constexpr int kWriters = 4;
    constexpr int kTrees = 60;
    const auto path_of = [](int writer, int tree, int level) {
        std::string path = "w" + std::to_string(writer) + "/t" + std::to_string(tree);
        for (int i = 0; i < level; ++i) path += "/l" + std::to_string(i);
        return path;
    };
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([&, writer] {
            for (int tree = 0; tree < kTrees; ++tree) {
                for (int level = 0; level < 5; ++level) {
                    fs::create_directories(Root(path_of(writer, tree, level)));
                    TouchFile(Root(path_of(writer, tree, level) + "/f"));
                }
                if (tree % 3 == 0) {
                    fs::rename(Root(path_of(writer, tree, 0)),
                               Root(path_of(writer, tree, 0) + "moved"));
                }
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    std::vector<std::string> expected;
    for (const auto& entry : fs::recursive_directory_iterator(Root())) {
        if (entry.is_regular_file()) expected.push_back(entry.path().string());
    }
    ASSERT_EQ(expected.size(), std::size_t{kWriters * kTrees * 5});
    // A moved tree may be announced by its top alone when all of it was known before.
    const auto is_announced = [&](const std::vector<SeenChange>& seen, const std::string& file) {
        if (Has(seen, IN_CREATE, file)) return true;
        const std::size_t moved = file.find("moved/");
        if (moved == std::string::npos) return false;
        return Has(seen, IN_CREATE, file.substr(0, moved) + file.substr(moved + 5)) &&
               Has(seen, IN_MOVED_TO | IN_ISDIR, file.substr(0, moved + 5));
    };
    std::string missing;
    EXPECT_TRUE(WaitFor(
        [&] {
            const auto seen = receiver_->Seen();
            const auto it = std::find_if(expected.begin(), expected.end(), [&](const auto& file) {
                return !is_announced(seen, file);
            });
            missing = it == expected.end() ? "" : *it;
            return missing.empty();
        },
        kDeadline))
        << missing;
    ExpectIndexedAndWatched();
}

TEST_F(Changes, DirectoryReplacedByLink_ParentIsAnnouncedAfterIt) {
    Make({"p/d/file"});
    Watch(Root());
    fs::rename(Root("p/d"), site_.Path("away"));
    fs::create_directory_symlink(site_.Path("away"), Root("p/d"));
    ASSERT_TRUE(Sees(IN_ATTRIB | IN_ISDIR, Root("p")));
    auto seen = SeenUntilNow();
    EXPECT_LT(IndexOf(seen, IN_CREATE, Root("p/d")), IndexOf(seen, IN_ATTRIB | IN_ISDIR, Root("p")))
        << Print(seen);
    receiver_->Forget();
    fs::remove(Root("p/d"));
    fs::create_directory(Root("p/d"));
    EXPECT_TRUE(Sees(IN_ATTRIB | IN_ISDIR, Root("p")));
    receiver_->Forget();
    fs::remove(Root("p/d"));
    fs::create_directory(Root("p/d"));  // the same kind again
    seen = SeenUntilNow();
    EXPECT_FALSE(Has(seen, IN_ATTRIB | IN_ISDIR, Root("p"))) << Print(seen);
}

TEST_F(Changes, FileMovedOverByDirectorySwap_ParentsAreAnnounced) {
    Make({"p/d/file", "q/f"});
    Watch(Root());
    ASSERT_TRUE(Exchange(Root("p/d"), Root("q/f")));
    EXPECT_TRUE(Sees(IN_ATTRIB | IN_ISDIR, Root("p")));
    EXPECT_TRUE(Sees(IN_ATTRIB | IN_ISDIR, Root("q")));
    EXPECT_TRUE(SeesTouch(IN_MODIFY, Root("q/f/file")));
}

TEST_F(Changes, LinkToDirectory_IsNotFollowed) {
    site_.Write("outside/file", "x");
    fs::create_directory_symlink(site_.Path("outside"), Root("before"));
    Watch(Root());
    fs::create_directory_symlink(site_.Path("outside"), Root("after"));
    TouchFile(site_.Path("outside/file"));
    TouchFile(site_.Path("outside/new"));
    const auto seen = SeenUntilNow();
    ASSERT_EQ(seen.size(), 1U) << Print(seen);
    EXPECT_TRUE(Has(seen, IN_CREATE, Root("after")));
    EXPECT_EQ(WatchStatus(Root())["directories"].asInt(), 1);
}

TEST_F(Changes, MasksAndSuffixes_NothingElseIsAnnounced) {
    _FileNotifyOpt options = Tree();
    options.report_directories = false;
    options.excluded_suffixes = {".log"};
    EXPECT_EQ(receiver_->Ask(Root(), {IN_CREATE}, options), Root());
    ASSERT_TRUE(Reaches(Root(), "ready"));
    Make({"a.log", "d/f"});
    fs::remove_all(Root("d"));
    TouchFile(Root("f"));
    const auto seen = SeenUntilNow();
    EXPECT_TRUE(Has(seen, IN_CREATE, Root("f")));
    for (const SeenChange& change : seen) {
        EXPECT_EQ(change.mask, static_cast<std::uint32_t>(IN_CREATE)) << Print(seen);
        EXPECT_NE(change.path, Root("a.log"));
    }
}

TEST_F(Changes, NotRecursive_OnlyDirectChildrenAreAnnounced) {
    Make({"d/"});
    _FileNotifyOpt options = Tree();
    options.recursive = false;
    Watch(Root(), "ready", options);
    TouchFile(Root("d/f"));
    TouchFile(Root("f"));
    const auto seen = SeenUntilNow();
    EXPECT_TRUE(Has(seen, IN_CREATE, Root("f")));
    EXPECT_FALSE(Has(seen, IN_CREATE, Root("d/f"))) << Print(seen);
}

/// Replaces a page as a restore does: an unnamed file gets a temporary name and is renamed.
class RestoreEcho : public NotifyTest {
  protected:
    static constexpr const char* kTemporary = ".morvane-restore-00112233445566";

    void Replace(const std::string& name, int number) const {
        const SDK::FileDescriptor dir(::open(Root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const SDK::FileDescriptor file(
            ::openat(dir.Get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
        ASSERT_TRUE(file.IsOpen());
        ASSERT_EQ(::write(file.Get(), "good", 4), 4);
        ASSERT_EQ(::fchmod(file.Get(), 0644), 0);
        const std::string temporary = kTemporary + std::to_string(10 + number % 90);
        const std::string unnamed = "/proc/self/fd/" + std::to_string(file.Get());
        ASSERT_EQ(
            ::linkat(AT_FDCWD, unnamed.c_str(), dir.Get(), temporary.c_str(), AT_SYMLINK_FOLLOW),
            0);
        ASSERT_EQ(::renameat(dir.Get(), temporary.c_str(), dir.Get(), name.c_str()), 0);
    }
};

// The kernel reports changes of an unnamed file as "#<inode>"; it may have a name by then.
TEST_F(RestoreEcho, PagesPutBack_OnlyNewPlacesAreAnnounced) {
    constexpr int kPages = 200;
    const auto page = [](int i) { return "page" + std::to_string(i); };
    for (int i = 0; i < kPages; ++i) TouchFile(Root(page(i)));
    Watch(Root());
    for (int i = 0; i < kPages; ++i) Replace(page(i), i);
    auto seen = SeenUntilNow();
    seen.erase(std::remove_if(seen.begin(), seen.end(),
                              [](const auto& one) { return one.path.find("/#") != one.path.npos; }),
               seen.end());
    EXPECT_EQ(seen.size(), std::size_t{kPages}) << Print(seen);
    for (int i = 0; i < kPages; ++i) EXPECT_TRUE(Has(seen, IN_MOVED_TO, Root(page(i)))) << i;
    EXPECT_TRUE(WaitFor([&] { return IndexAgrees(); }, kDeadline));
}

TEST_F(RestoreEcho, FilesOfSuchNamesThatStay_AreAnnounced) {
    Watch(Root());
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("#5")));
    const std::string temporary = Root(std::string(kTemporary) + "ab");
    EXPECT_TRUE(SeesTouch(IN_CREATE, temporary));
    // Made and moved away again and again, and there at last.
    for (int i = 0; i < 50; ++i) {
        TouchFile(temporary + "x");
        fs::rename(temporary + "x", Root("shell"));
        fs::rename(Root("shell"), temporary);
    }
    fs::rename(temporary, Root("shell"));
    receiver_->Forget();
    EXPECT_TRUE(SeesTouch(IN_CREATE, temporary));
    EXPECT_TRUE(WaitFor([&] { return IndexAgrees(); }, kDeadline));
}

}  // namespace test
