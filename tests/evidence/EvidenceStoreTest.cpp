#include <evidence/EvidenceStore.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "support/TempDir.h"

namespace {

using Evidence::EvidenceStore;
using Evidence::Limits;
using Evidence::Record;

class Keeping : public testing::Test {
  protected:
    std::optional<Record> Keep(const std::string& name, const std::string& content,
                               std::uint64_t most = 1 << 20) {
        const SDK::FileDescriptor object(
            ::open(dir_.Write(name, content).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        return store_->Keep(object.Get(), "/site/" + name, most);
    }
    void Limit(std::uint64_t bytes) {
        Limits limits;
        limits.most_bytes = bytes;
        limits.left_free = 0;
        store_ = std::make_unique<EvidenceStore>(dir_.Path("evidence"), limits);
    }
    std::string Content(const std::string& id) const {
        const SDK::FileDescriptor content = store_->Open(id);
        std::string text(1 << 20, '\0');
        const ssize_t size = ::read(content.Get(), text.data(), text.size());
        text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
        return text;
    }
    /// All that the files of the store contain.
    std::string Bytes() const {
        std::string all;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.Path("evidence"))) {
            all += test::TempDir::Read(entry.path());
        }
        return all;
    }

    test::TempDir dir_;
    std::unique_ptr<EvidenceStore> store_ =
        std::make_unique<EvidenceStore>(dir_.Path("evidence"), Limits{1 << 20, 1 << 20, 0, 30});
};

TEST_F(Keeping, EqualContents_AreKeptOnceAndListedEachTime) {
    const auto first = Keep("index.html", "defaced");
    const auto second = Keep("about.html", "defaced");
    const auto other = Keep("shell.php", std::string("<?php\0", 6));
    ASSERT_TRUE(first && second && other && store_->Write());
    EXPECT_EQ(first->id, second->id);
    EXPECT_EQ(Content(first->id), "defaced");
    EXPECT_EQ(Content(other->id), std::string("<?php\0", 6));
    const auto listed = store_->List();
    ASSERT_EQ(listed.size(), 3U);
    EXPECT_EQ(listed[1].path, "/site/about.html");
    EXPECT_EQ(listed[2].size, 6U);
    EXPECT_EQ(store_->Find(first->id.substr(0, 8)), std::vector<std::string>{first->id});
    struct stat info {};
    ASSERT_EQ(::stat(dir_.Path("evidence").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & ALLPERMS, 0700U);
}

TEST_F(Keeping, HugeSparseFile_IsKeptInPart) {
    ASSERT_EQ(::truncate(dir_.Write("huge", "begin").c_str(), 6LL << 30), 0);
    const SDK::FileDescriptor object(::open(dir_.Path("huge").c_str(), O_PATH | O_CLOEXEC));
    const auto record = store_->Keep(object.Get(), "/site/huge", 4096);
    ASSERT_TRUE(record && store_->Write());
    EXPECT_EQ(record->size, 6ULL << 30);
    EXPECT_EQ(record->kept, 4096U);
    EXPECT_EQ(Content(record->id).substr(0, 5), "begin");
}

TEST_F(Keeping, LinkIsKeptAsItsText_OtherKindsAreNot) {
    ASSERT_EQ(::symlink("/etc/shadow", dir_.Path("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(dir_.Path("fifo").c_str(), 0600), 0);
    const SDK::FileDescriptor link(
        ::open(dir_.Path("link").c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const SDK::FileDescriptor fifo(::open(dir_.Path("fifo").c_str(), O_PATH | O_CLOEXEC));
    const auto record = store_->Keep(link.Get(), "/site/link", 4096);
    ASSERT_TRUE(record && store_->Write());
    EXPECT_EQ(Content(record->id), "/etc/shadow");
    EXPECT_FALSE(store_->Keep(fifo.Get(), "/site/fifo", 4096));
}

TEST_F(Keeping, BeyondItsLimit_DropsTheOldestAndNeverExceeds) {
    Limit(10'000);
    const auto first = Keep("first", std::string(4000, '1'));
    ASSERT_TRUE(first);
    for (char c = 'a'; c <= 'h'; ++c) {
        const auto kept = Keep(std::string(1, c), std::string(4000, c));
        ASSERT_TRUE(kept && store_->Write());
        EXPECT_EQ(Content(kept->id), std::string(4000, c));
        std::uint64_t bytes = 0;
        for (const Record& record : store_->List()) bytes += record.kept;
        EXPECT_LE(bytes, 10'000U);
    }
    EXPECT_LE(Bytes().size(), 12'000U);  // with the list
    EXPECT_FALSE(Keep("larger", std::string(20'000, 'x')));
}

TEST_F(Keeping, AfterARemoval_ContentsWithARecordStay) {
    const auto shared = Keep("one", "shared");
    Keep("two", "shared");
    const auto alone = Keep("three", "alone");
    const auto large = Keep("four", std::string(70'000, 'x'));
    ASSERT_TRUE(shared && alone && large && store_->Write());
    EXPECT_EQ(Content(large->id), std::string(70'000, 'x'));
    EXPECT_EQ(store_->Remove([](const Record& record) { return record.path != "/site/two"; }), 2U);
    EXPECT_EQ(Content(shared->id), "shared");
    EXPECT_EQ(Bytes().find("alone"), std::string::npos);
    EXPECT_FALSE(store_->Open(alone->id).IsOpen());
    EXPECT_EQ(store_->List().size(), 1U);
    // Another process removes while this one keeps the list open.
    EXPECT_EQ(EvidenceStore(dir_.Path("evidence")).Remove([](const Record&) { return true; }), 1U);
    Keep("four", "after the removal");
    EXPECT_TRUE(store_->Write());
    EXPECT_EQ(store_->List().size(), 1U);
}

TEST_F(Keeping, WhileAnotherProcessHasItsTurn_RecordsWaitAndAreWrittenLater) {
    ASSERT_TRUE(Keep("one", "first") && store_->Write());
    const SDK::FileDescriptor other(::open(dir_.Path("evidence").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(other.Get(), LOCK_EX), 0);
    ASSERT_TRUE(Keep("two", "second"));
    EXPECT_FALSE(store_->Write());
    EXPECT_EQ(store_->List().size(), 1U);
    ASSERT_EQ(::flock(other.Get(), LOCK_UN), 0);
    store_.reset();  // writes what waits
    store_ = std::make_unique<EvidenceStore>(dir_.Path("evidence"));
    EXPECT_EQ(store_->List().size(), 2U);
    EXPECT_EQ(Content(store_->List().back().id), "second");
}

/// Limits the size of files that this process writes.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t most) {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &former_);
        const rlimit limit{most, former_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { ::setrlimit(RLIMIT_FSIZE, &former_); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    rlimit former_{};
};

TEST_F(Keeping, WhenTheDiskIsFull_TheListNamesNothingThatIsMissing) {
    ASSERT_TRUE(Keep("one", "first") && store_->Write());
    const auto second = Keep("two", std::string(3000, '2'));
    const std::string list = test::TempDir::Read(dir_.Path("evidence/list.jsonl"));
    for (const rlim_t most : {rlim_t{1000}, rlim_t{3100}}) {  // fails at the content, at the record
        const FileSizeLimit limit(most);
        for (int i = 0; most > 3000 && i < 20; ++i) Keep("again" + std::to_string(i), "first");
        EXPECT_FALSE(store_->Write());
        EXPECT_EQ(test::TempDir::Read(dir_.Path("evidence/list.jsonl")), list);
    }
    ASSERT_TRUE(second && store_->Write());
    EXPECT_EQ(store_->List().size(), 22U);
    EXPECT_EQ(Content(second->id), std::string(3000, '2'));
}

TEST_F(Keeping, FilesOfAnEarlierVersion_AreReadAndDropped) {
    const auto known = Keep("one", "earlier");
    ASSERT_TRUE(known);
    store_ = std::make_unique<EvidenceStore>(dir_.Path("old"));
    dir_.Write("old/" + known->id, "earlier");
    dir_.Write("old/list.jsonl", "{\"id\":\"" + known->id +
                                     "\",\"path\":\"/x\",\"time\":1,\"mode\":33188,"
                                     "\"user\":0,\"group\":0,\"modified\":1,\"size\":7,"
                                     "\"kept\":7}\n");
    EXPECT_EQ(Content(known->id), "earlier");
    EXPECT_EQ(store_->Remove([](const Record&) { return true; }), 1U);
    EXPECT_FALSE(std::filesystem::exists(dir_.Path("old/" + known->id)));
}

TEST_F(Keeping, DamagedLinesAndForeignNames_AreLeftOut) {
    const auto good = Keep("one", "good");
    ASSERT_TRUE(good && store_->Write());
    std::ofstream(dir_.Path("evidence/list.jsonl"), std::ios::app)
        << "{\"id\":\"../../../etc/passwd\",\"path\":\"/x\"}\nnot json\n{\"id\":\"" << good->id;
    EXPECT_EQ(store_->List().size(), 1U);
    EXPECT_FALSE(store_->Open("../list.jsonl").IsOpen());
    dir_.Write("evidence/pack-1", std::string(4, '\0'));
    EXPECT_FALSE(store_->Open(good->id).IsOpen());
}

}  // namespace
