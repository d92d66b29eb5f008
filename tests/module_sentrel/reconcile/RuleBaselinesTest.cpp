#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "baseline/RuleBaselines.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Engine::RuleAnchors;
using Engine::RuleBaselines;

class Baselines : public ::testing::Test {
  protected:
    Baselines() {
        site_.Write("index.html", "welcome");
        rule_.filepath = rule_.real_path = site_.Path("");
        rule_.backup_path = data_.Path("backup");
        baselines_.Reset(data_.Path("baselines"), 3);
        MakeBackupFolder();
    }
    void MakeBackupFolder() const {
        fs::remove_all(rule_.backup_path);
        fs::create_directory(rule_.backup_path);
        ::chmod(rule_.backup_path.c_str(), 0700);
    }
    RuleBaselines::Committed CopyAndCommit() {
        fs::create_directories(rule_.backup_path + rule_.real_path);
        fs::copy(rule_.real_path, rule_.backup_path + rule_.real_path, fs::copy_options::recursive);
        RuleBaselines::Commitment commitment;
        commitment.is_over = [] { return false; };
        std::string problem;
        RuleAnchors anchors;
        return baselines_.Commit(*anchors.Of(rule_).anchors, commitment, problem);
    }

    test::TempDir site_;
    test::TempDir data_;
    Engine::SentrelDirRule rule_;
    RuleBaselines baselines_;
};

TEST_F(Baselines, LostCopiesThatAreMadeAnew_AreNotMissedUntilTheyAreListed) {
    baselines_.BeginCopying(rule_, "test");
    ASSERT_EQ(CopyAndCommit(), RuleBaselines::Committed::kYes);
    MakeBackupFolder();
    EXPECT_FALSE(baselines_.HasBackup(rule_));
    baselines_.BeginCopying(rule_, "test");
    EXPECT_TRUE(baselines_.HasBackup(rule_)) << "nothing can be said of unfinished copies";
    RuleBaselines after_restart;
    after_restart.Reset(data_.Path("baselines"), 3);
    EXPECT_EQ(after_restart.Adopt(rule_).outcome, RuleBaselines::Adoption::kNone);
    EXPECT_TRUE(after_restart.HasBackup(rule_));
    ASSERT_EQ(CopyAndCommit(), RuleBaselines::Committed::kYes);
    EXPECT_TRUE(baselines_.HasBackup(rule_));
    MakeBackupFolder();
    EXPECT_FALSE(baselines_.HasBackup(rule_));
}

}  // namespace
