#include <sqlite3.h>

#include <filesystem>

#include "StoreFixture.h"
#include "support/FileSizeLimit.h"

namespace {

namespace fs = std::filesystem;

class ReportFaults : public test::StoreTest {
  protected:
    std::vector<std::string> FilesSetAside() const {
        std::vector<std::string> files;
        for (const auto& entry : fs::directory_iterator(directory_.Path("data"))) {
            const std::string name = entry.path().string();
            if (name.find(".corrupt-") != std::string::npos) files.push_back(name);
        }
        return files;
    }
};

TEST_F(ReportFaults, FileIsNoDatabase_IsKeptAsideAndAFreshOneBegun) {
    directory_.Write("data/reports.db", std::string(5000, 'x'));
    const std::int64_t seq = Store("first");
    EXPECT_GT(seq, test::kStartMs) << "readers remember sequence numbers";
    ASSERT_EQ(FilesSetAside().size(), 1U);
    EXPECT_EQ(test::TempDir::Read(FilesSetAside()[0]), std::string(5000, 'x'));
    EXPECT_EQ(log_.Count("Error", "is damaged"), 1);
    EXPECT_EQ(ReadAll().size(), 1U);
    for (int again = 0; again < 4; ++again) {
        ++now_ms_;
        store_.reset();
        directory_.Write("data/reports.db", "not a database");
        Reopen();
        ASSERT_GT(Store("after"), 0);
    }
    EXPECT_EQ(FilesSetAside().size(), 3U) << "only the newest are kept";
}

TEST_F(ReportFaults, PagesOverwritten_IsSetAsideWhenItIsMet) {
    for (int i = 0; i < 100; ++i) Store(std::string(1000, 'x'));
    store_.reset();
    const std::string content = test::TempDir::Read(path_);
    directory_.Write("data/reports.db",
                     content.substr(0, 4096) + std::string(content.size() - 4096, '\x55'));
    Reopen();
    EXPECT_GT(Store("after"), 0);
    EXPECT_EQ(ReadAll().size(), 1U);
    EXPECT_EQ(FilesSetAside().size(), 1U);
}

TEST_F(ReportFaults, DiskFails_IsCountedLoggedOnceAndRecovers) {
    ASSERT_GT(Store(std::string(50000, 'x')), 0);
    {
        const test::FileSizeLimit only_the_log_fits(16384);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(Store("lost"), 0);
        EXPECT_FALSE(store_->Status().working);
    }
    EXPECT_EQ(log_.Count("Error", "cannot store a report"), 1);
    EXPECT_GT(Store("after"), 0);
    EXPECT_EQ(store_->Status().reports_failed, 3U);
    ASSERT_EQ(ReadAll().size(), 2U);
    EXPECT_EQ(ReadAll()[1].body, "after");
    EXPECT_TRUE(FilesSetAside().empty());
}

TEST_F(ReportFaults, LockedByAnotherProcess_FailsInTimeAndRecovers) {
    ASSERT_GT(Store("before"), 0);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(Store("lost"), 0);
    sqlite3_close(other);
    EXPECT_GT(Store("after"), 0);
}

TEST_F(ReportFaults, FileRemovedByHand_IsBegunAnewWithRisingNumbers) {
    Store("one");
    const std::int64_t last = Store("two");
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(path_ + suffix);
    store_->Maintain();
    EXPECT_EQ(Store("three"), last + 1);
    Reopen();
    ASSERT_EQ(ReadAll().size(), 1U);
}

}  // namespace
