#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "fixtures/EventFixture.h"

namespace {

namespace fs = std::filesystem;
using Engine::LargeFileCheck;
using test::Event;

constexpr std::size_t kMiB = 1024 * 1024;

/// A site with a file whose end no digest covers.
class LargeFile : public Event {
  protected:
    LargeFile() {
        data_.Write("site/big.bin", content_);
        EXPECT_TRUE(utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, rule_.ignored_postfix,
                                         rule_.ignored_subdir, Engine::RSYNC_BACKUP));
    }

    /// Overwrites one byte and sets the time back.
    void Alter(std::size_t at) {
        const auto time = fs::last_write_time(File("big.bin"));
        const SDK::FileDescriptor file(::open(File("big.bin").c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(::pwrite(file.Get(), "!", 1, static_cast<off_t>(at)), 1);
        fs::last_write_time(File("big.bin"), time);
    }
    auto Asking(LargeFileCheck& check) {
        return [this, &check] { return check.Ask(watch_, File("big.bin"), Anchors()); };
    }
    std::shared_ptr<const Engine::AnchoredRule> Anchors() {
        return state_.anchors.Of(rule_).anchors;
    }

    const std::string content_ = std::string(12 * kMiB, 'x');
};

TEST_F(LargeFile, AlteredBehindTheDigest_IsRestoredAndReported) {
    Alter(11 * kMiB);
    Tell(File("big.bin"), IN_MODIFY);
    EXPECT_EQ(Alarms(), "") << "the comparison is made in the background";
    EXPECT_TRUE(AwaitInBacklog([&] { return Content("big.bin") == content_; }));
    EXPECT_EQ(Alarms(), "modify big.bin: restored\n");
}

TEST_F(LargeFile, UnchangedPair_IsNotReadTwice) {
    LargeFileCheck::Limits limits;
    limits.settled_after = std::chrono::seconds(0);
    LargeFileCheck check([] {}, limits);
    const auto ask = Asking(check);
    EXPECT_EQ(ask(), LargeFileCheck::Answer::kLater);
    EXPECT_TRUE(test::WaitFor([&] { return ask() == LargeFileCheck::Answer::kEqual; },
                              std::chrono::seconds(10)));
    EXPECT_EQ(check.BytesCompared(), content_.size());
    Alter(11 * kMiB);
    EXPECT_TRUE(test::WaitFor([&] { return ask() == LargeFileCheck::Answer::kDifferent; },
                              std::chrono::seconds(10)));
    EXPECT_EQ(check.TakeDifferent().size(), 1U);
}

TEST_F(LargeFile, ChangeWhileItIsRead_IsFoundByAnotherLook) {
    LargeFileCheck::Limits limits;
    limits.bytes_per_second = 4 * kMiB;
    limits.bytes_per_turn = 3 * kMiB;
    LargeFileCheck check([] {}, limits);
    Asking(check)();
    EXPECT_TRUE(
        test::WaitFor([&] { return check.BytesCompared() >= kMiB; }, std::chrono::seconds(10)));
    Alter(0);
    EXPECT_TRUE(
        test::WaitFor([&] { return check.TakeDifferent().size() == 1; }, std::chrono::seconds(10)));
}

TEST_F(LargeFile, NoRoomForMore_IsToldWhenThereIsAgain) {
    LargeFileCheck::Limits limits;
    limits.waiting = 1;
    limits.settled_after = std::chrono::seconds(0);
    LargeFileCheck check([] {}, limits);
    for (const char* name : {"big.bin", "index.html", "sub/page.html"}) {
        check.Ask(watch_, File(name), Anchors());
    }
    std::set<std::string> left_out;
    EXPECT_TRUE(test::WaitFor([&] { return !(left_out = check.TakeLeftOut()).empty(); },
                              std::chrono::seconds(10)));
    EXPECT_EQ(left_out, std::set<std::string>{watch_});
    EXPECT_TRUE(check.TakeLeftOut().empty());
}

}  // namespace
