#include <baseline/BaselineStore.h>
#include <baseline/ManifestBuilder.h>
#include <baseline/TreeVerifier.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sdk/files/FileUtils.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <set>

#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

namespace fs = std::filesystem;
using Baseline::BaselineStore;
using Baseline::Generation;
using Strings = std::set<std::string>;
using namespace std::chrono_literals;

/// A site with copies that rsync could have made of it, and a store.
class BaselineTest : public ::testing::Test {
  protected:
    BaselineTest() {
        site_.Write("index.html", "page");
        site_.Write("a/style.css", "style");
        site_.Write("a.txt", "between a and a/ by bytes");
        site_.Write("cache/x", "ignored");
        fs::create_symlink("index.html", site_.Path("home"));
    }

    void CopySite() {
        fs::remove_all(Copy());
        fs::create_directories(fs::path(Copy()).parent_path());
        ASSERT_EQ(std::system(("cp -a " + site_.Path() + " " + Copy()).c_str()), 0);
    }
    std::string Copy(const std::string& name = "") const {
        return backup_.Path() + site_.Path() + (name.empty() ? "" : "/" + name);
    }

    static bool IsIgnored(const std::string& path, bool) { return path == "cache"; }

    Generation Commit(std::vector<std::string> open = {}, std::size_t* hashed = nullptr) {
        const auto copies = SDK::PathAnchor::Open(Copy());
        const auto live = SDK::PathAnchor::Open(site_.Path());
        const Generation last = store_.Newest(site_.Path() + "/", backup_.Path());
        Baseline::ManifestBuilder::Request request;
        request.copies.anchor = copies.get();
        request.live.anchor = live.get();
        request.last = last.manifest.get();
        ::clock_gettime(CLOCK_REALTIME, &request.begun);
        request.open = std::move(open);
        request.ignored = IsIgnored;
        request.is_over = [] { return false; };
        request.threads = 2;
        request.parts = parts_;
        Baseline::ManifestBuilder builder(std::move(request));
        Baseline::ManifestWriter writer;
        EXPECT_TRUE(builder.Build(writer));
        if (hashed != nullptr) *hashed = builder.Hashed();
        Baseline::ManifestInfo info;
        info.real_path = site_.Path() + "/";
        info.backup_path = backup_.Path();
        info.exclusions = {"cache", ""};
        info.approval = "test";
        return store_.Commit(writer, info, BaselineStore::kDefaultKept, lent_.get());
    }

    /// "kind path"; the kinds: changed, permissions, added, missing.
    Strings Differences(const Baseline::Manifest& manifest, bool full = false,
                        const std::string& below = "", unsigned int threads = 2) {
        const auto live = SDK::PathAnchor::Open(site_.Path());
        Strings found;
        Baseline::TreeVerifier::Request request;
        request.root.anchor = live.get();
        request.manifest = &manifest;
        request.full = full;
        request.below = below;
        request.ignored = IsIgnored;
        request.is_over = [] { return false; };
        request.threads = threads;
        request.found = [&](const Baseline::Difference& one) {
            found.insert(std::string(1, "cpam"[static_cast<int>(one.kind)]) + " " + one.path);
        };
        Baseline::TreeVerifier verifier(std::move(request));
        EXPECT_TRUE(verifier.Run().is_complete);
        return found;
    }

    /// The kernel's clock for files has moved on: an object that is changed now has another ctime.
    void AwaitTick() const {
        struct stat before {};
        struct stat now {};
        const std::string file = backup_.Path("tick");
        ::close(::creat(file.c_str(), 0600));
        ::stat(file.c_str(), &before);
        ASSERT_TRUE(test::WaitFor(
            [&] {
                ::chmod(file.c_str(), 0600);
                ::stat(file.c_str(), &now);
                return now.st_ctim.tv_nsec != before.st_ctim.tv_nsec;
            },
            5s));
    }

    test::TempDir site_;
    test::TempDir backup_;
    test::TempDir data_;
    BaselineStore store_{data_.Path("baseline")};
    std::unique_ptr<SDK::SigningKey> lent_;
    std::optional<std::vector<std::string>> parts_;  ///< that Commit approves; none: all
};

TEST_F(BaselineTest, EveryKindOfChange_IsFoundAndOnlyThat) {
    AwaitTick();
    CopySite();
    AwaitTick();
    const Generation approved = Commit({"home"});
    ASSERT_TRUE(approved) << approved.problem;
    EXPECT_EQ(approved.manifest->Info().exclusions, (std::vector<std::string>{"cache", ""}));
    EXPECT_TRUE(approved.manifest->Find("a.txt")->live.IsKnown());
    for (const bool full : {false, true})
        EXPECT_EQ(Differences(*approved.manifest, full), Strings());
    AwaitTick();
    site_.Write("cache/y", "ignored");
    site_.Write("index.html", "PAGE");  // the same size, and the time set back:
    const timespec old[2] = {{1, 0}, {1, 0}};
    ::utimensat(AT_FDCWD, site_.Path("index.html").c_str(), old, 0);
    ::chmod(site_.Path("a").c_str(), 0777);
    fs::remove(site_.Path("a.txt"));
    fs::create_directory(site_.Path("a.txt"));
    fs::remove(site_.Path("home"));  // open: nothing is approved of it
    site_.Write("a/evil/shell.php", "x");
    fs::remove(site_.Path("a/style.css"));
    const Strings expected{"c index.html", "p a", "c a.txt", "a a/evil", "m a/style.css"};
    for (const unsigned int threads : {1U, 3U}) {
        EXPECT_EQ(Differences(*approved.manifest, false, "", threads), expected);
    }
    EXPECT_EQ(Differences(*approved.manifest, false, "a"),
              (Strings{"p a", "a a/evil", "m a/style.css"}));
    EXPECT_EQ(Differences(*approved.manifest, false, "a/style.css"), Strings{"m a/style.css"});
}

TEST_F(BaselineTest, ObjectChangedAfterItWasCopied_IsNotTakenForTheCopiedOne) {
    CopySite();
    AwaitTick();
    // As rsync sees it, nothing has changed since: size and time are the copy's.
    struct stat info {};
    ::stat(site_.Path("index.html").c_str(), &info);
    site_.Write("index.html", "PAGE");
    const timespec times[2] = {info.st_atim, info.st_mtim};
    ::utimensat(AT_FDCWD, site_.Path("index.html").c_str(), times, 0);
    AwaitTick();
    const Generation approved = Commit();
    ASSERT_TRUE(approved);
    EXPECT_EQ(Differences(*approved.manifest), Strings{"c index.html"});
}

TEST_F(BaselineTest, Generations_AreKeptInTheirNumberAndReadOnlyWhatChanged) {
    CopySite();
    std::size_t hashed = 0;
    EXPECT_EQ(Commit({}, &hashed).number, 1U);
    EXPECT_EQ(hashed, 4U);
    site_.Write("index.html", "new page");
    ASSERT_EQ(std::system(("cp -a " + site_.Path("index.html") + " " + Copy("n")).c_str()), 0);
    fs::rename(Copy("n"), Copy("index.html"));
    EXPECT_EQ(Commit({}, &hashed).number, 2U);
    EXPECT_EQ(hashed, 1U);
    Commit();
    Commit();
    const std::string root = site_.Path() + "/";
    EXPECT_EQ(store_.Numbers(root, backup_.Path()), (std::vector<unsigned int>{2, 3, 4}));
    EXPECT_EQ(store_.All().size(), 1U);
    EXPECT_FALSE(store_.Get(root, backup_.Path(), 1));
    EXPECT_EQ(store_.Newest("/other/", backup_.Path()).number, 0U);
}

TEST_F(BaselineTest, PartsThatAreApproved_LeaveTheRestAsItWasApproved) {
    site_.Write("b/one", "one");
    site_.Write("b/two/deep", "deep");
    CopySite();
    ASSERT_TRUE(Commit());
    const auto change = [&](const std::string& name, const std::string& text) {
        std::ofstream(Copy(name)) << text;
    };
    for (const char* name : {"index.html", "a/style.css", "a/new", "b/one", "b/new", "c"}) {
        change(name, "changed copy");
    }
    fs::remove_all(Copy("b/two"));
    fs::remove(Copy("home"));
    fs::create_symlink("changed", Copy("home"));
    fs::remove(Copy("a.txt"));
    parts_ = {"c", "b/new", "a", "a/style.css", "home", "a.txt"};
    std::size_t hashed = 0;
    const Generation next = Commit({"index.html", "a/style.css"}, &hashed);
    ASSERT_TRUE(next);
    EXPECT_EQ(hashed, 4U) << "a/new, b/new, c, home";
    std::string listed;
    for (std::size_t at = 0; at < next.manifest->Size(); ++at) {
        const Baseline::ManifestEntry entry = next.manifest->At(at);
        listed.append(entry.path) += entry.IsOpen() ? "? " : " ";
    }
    EXPECT_EQ(listed, " a a/new a/style.css? b b/new b/one b/two b/two/deep c home index.html ");
    const Generation first = store_.Get(site_.Path() + "/", backup_.Path(), 1);
    for (const char* name : {"index.html", "b/one", "b/two/deep"}) {
        EXPECT_EQ(next.manifest->Find(name)->content, first.manifest->Find(name)->content) << name;
    }
    EXPECT_NE(next.manifest->Find("home")->content, first.manifest->Find("home")->content);
}

TEST_F(BaselineTest, ManifestThatWasAltered_IsNotUsed) {
    CopySite();
    const std::string root = site_.Path() + "/";
    ASSERT_TRUE(Commit());
    std::string file;
    for (const auto& entry : fs::recursive_directory_iterator(data_.Path())) {
        if (entry.path().extension() == ".manifest") file = entry.path();
    }
    const std::string good = test::TempDir::Read(file);
    const auto write = [&](const std::string& bytes) {
        ASSERT_EQ(SDK::FileUtils::WriteFile(file, bytes, false), 0);
    };
    for (std::size_t at = 0; at < good.size(); at += 97) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 1);
        write(bad);
        ASSERT_FALSE(store_.Newest(root, backup_.Path())) << at;
        write(good.substr(0, at));
        ASSERT_FALSE(store_.Newest(root, backup_.Path())) << at;
    }
    write(good);
    EXPECT_TRUE(store_.Newest(root, backup_.Path()));
    // Signed with another key.
    fs::remove(data_.Path("baseline/signing.key"));
    fs::remove(data_.Path("baseline/signing.pub"));
    EXPECT_FALSE(store_.Newest(root, backup_.Path()));
}

TEST_F(BaselineTest, OnlyThePrivateKey_Signs) {
    CopySite();
    ASSERT_TRUE(Commit());
    fs::rename(data_.Path("baseline/signing.key"), data_.Path("elsewhere"));
    EXPECT_TRUE(store_.Newest(site_.Path() + "/", backup_.Path()));
    EXPECT_FALSE(Commit());
    EXPECT_FALSE(store_.WhyUnsigned(nullptr).empty());
    EXPECT_EQ(store_.Newest(site_.Path() + "/", backup_.Path()).number, 1U);
    lent_ = SDK::SigningKey::Generate();
    EXPECT_FALSE(Commit()) << "another key";
    lent_ = SDK::SigningKey::Read(test::TempDir::Read(data_.Path("baseline/signing.pub")));
    EXPECT_FALSE(Commit()) << "the public part";
    lent_ = SDK::SigningKey::Read(test::TempDir::Read(data_.Path("elsewhere")));
    EXPECT_EQ(Commit().number, 2U);
    EXPECT_EQ(store_.Forget(site_.Path() + "/", backup_.Path()), 0);
    EXPECT_TRUE(store_.AllKept().empty());
}

TEST_F(BaselineTest, LostBackup_IsRecognised) {
    const std::string root = site_.Path() + "/";
    EXPECT_TRUE(store_.IsMarkedBackup(root, backup_.Path()));
    ASSERT_EQ(store_.MarkBackup(root, backup_.Path()), 0);
    EXPECT_TRUE(store_.IsMarkedBackup(root, backup_.Path()));
    fs::rename(backup_.Path(".morvane-backup-id"), backup_.Path("x"));
    EXPECT_FALSE(store_.IsMarkedBackup(root, backup_.Path()));
    backup_.Write(".morvane-backup-id", "another");
    EXPECT_FALSE(store_.IsMarkedBackup(root, backup_.Path()));
}

TEST(ManifestOrder, PathsBelowADirectoryFollowIt) {
    const std::vector<std::string> ordered = {"", "a", "a/b", "a/b/c", "a/z", "a b", "a.txt", "b"};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            const int order = Baseline::ComparePaths(ordered[i], ordered[j]);
            EXPECT_EQ(order < 0, i < j) << ordered[i] << " " << ordered[j];
            EXPECT_EQ(order == 0, i == j);
        }
    }
    EXPECT_FALSE(Baseline::IsWithin("a.txt", "a"));
    EXPECT_TRUE(Baseline::IsWithin("a/b", "a"));
}

}  // namespace
