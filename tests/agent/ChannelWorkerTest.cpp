#include <gtest/gtest.h>
#include <notify/ChannelWorker.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "support/AlarmReports.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;
using Notify::ChannelWorker;

/// Answers "reports.read" as the store does.
struct Store {
    bool Read(const Json::Value& request, Json::Value& answer) {
        const std::lock_guard<std::mutex> lock(mutex);
        answer = Json::Value(Json::objectValue);
        answer["reports"] = Json::Value(Json::arrayValue);
        answer["first_seq"] = static_cast<Json::Int64>(first <= last ? first : 0);
        answer["last_seq"] = static_cast<Json::Int64>(last);
        answer["more"] = false;
        for (long long seq = std::max<long long>(first, request["after"].asInt64() + 1);
             request.isMember("after") && seq <= last; ++seq) {
            answer["reports"].append(test::AlarmReport(seq, seq * 1000, "modify",
                                                       "/srv/" + std::to_string(seq), "restored"));
        }
        return true;
    }
    void Add(long long count) {
        const std::lock_guard<std::mutex> lock(mutex);
        last += count;
    }
    void Prune(long long up_to) {
        const std::lock_guard<std::mutex> lock(mutex);
        first = up_to + 1;
    }
    std::mutex mutex;
    long long first = 1;
    long long last = 0;
};

/// A receiver: takes deliveries, refuses them, or does not answer.
struct Receiver {
    enum { kTakes, kRefuses, kHangs };
    std::atomic<int> mood{kTakes};
    std::mutex mutex;
    std::vector<long long> taken;       ///< numbers of reports
    std::vector<std::string> attempts;  ///< "first-last", each try
    long long lost = 0;
    std::vector<bool> digests;  ///< of what was taken

    std::vector<std::string> Tries() {
        const std::lock_guard<std::mutex> lock(mutex);
        return attempts;
    }
    std::size_t Attempts() { return Tries().size(); }
    std::vector<long long> Taken() {
        const std::lock_guard<std::mutex> lock(mutex);
        return taken;
    }
};

class FakeChannel : public Notify::Channel {
  public:
    explicit FakeChannel(Receiver& receiver) : receiver_(receiver) {}
    void Add(const Json::Value& report) override { seqs_.push_back(report["seq"].asInt64()); }
    std::string Deliver(const Notify::Delivery& delivery) override {
        {
            const std::lock_guard<std::mutex> lock(receiver_.mutex);
            receiver_.attempts.push_back(std::to_string(delivery.first_seq) + "-" +
                                         std::to_string(delivery.last_seq));
        }
        if (receiver_.mood == Receiver::kHangs) {
            pollfd stop{SDK::CommandInterrupter::CurrentDescriptor(), POLLIN, 0};
            ::poll(&stop, 1, -1);
        }
        if (receiver_.mood != Receiver::kTakes) return "refused";
        const std::lock_guard<std::mutex> lock(receiver_.mutex);
        receiver_.taken.insert(receiver_.taken.end(), seqs_.begin(), seqs_.end());
        receiver_.lost += delivery.lost;
        receiver_.digests.push_back(delivery.is_digest);
        return "";
    }
    void Clear() override { seqs_.clear(); }
    std::string Test() override { return ""; }

  private:
    Receiver& receiver_;
    std::vector<long long> seqs_;
};

class ChannelWorkerTest : public testing::Test {
  protected:
    void Start(bool is_retried = true) {
        Notify::ChannelPlan plan;
        plan.name = "fake";
        plan.pacing = pacing_;
        plan.pacing.longest_ms = 3600 * 1000;
        plan.pacing.is_retried = is_retried;
        plan.pacing.is_repeated_whole = is_retried;
        plan.make = [this] { return std::make_unique<FakeChannel>(receiver_); };
        worker_ = std::make_unique<ChannelWorker>(
            plan,
            [this](const Json::Value& request, Json::Value& answer) {
                return store_.Read(request, answer);
            },
            Notify::KeepInFile(dir_.Path("mark")), ChannelWorker::Times{1, 1, 5, 0});
        ASSERT_TRUE(
            test::WaitFor([&] { return !test::TempDir::Read(dir_.Path("mark")).empty(); }, 10s));
    }
    bool WaitForAttempts(std::size_t count) {
        return test::WaitFor([&] { return receiver_.Attempts() >= count; }, 10s);
    }
    bool WaitForTaken(const std::vector<long long>& wanted) {
        return test::WaitFor([&] { return receiver_.Taken() == wanted; }, 10s);
    }
    Notify::Pacing pacing_;
    test::TempDir dir_;
    Store store_;
    Receiver receiver_;
    std::unique_ptr<ChannelWorker> worker_;
};

TEST_F(ChannelWorkerTest, OutageWithAStartBetween_LosesNothingAndRepeatsTheSameDelivery) {
    store_.Add(5);
    Start();
    EXPECT_EQ(receiver_.Attempts(), 0U) << "what was before the channel was switched on";
    receiver_.mood = Receiver::kRefuses;
    store_.Add(2);
    ASSERT_TRUE(WaitForAttempts(3));
    EXPECT_FALSE(worker_->Status()["working"].asBool());
    EXPECT_TRUE(worker_->Status()["degraded"].asBool());
    EXPECT_EQ(worker_->Status()["last_error"], "refused");
    store_.Add(3);
    worker_.reset();
    const std::size_t before = receiver_.Attempts();
    Start();
    ASSERT_TRUE(WaitForAttempts(before + 2));
    const std::vector<std::string> attempts = receiver_.Tries();
    EXPECT_TRUE(std::all_of(attempts.begin(), attempts.end(), [&](const std::string& one) {
        return one == attempts.front();
    })) << testing::PrintToString(attempts);
    receiver_.mood = Receiver::kTakes;
    EXPECT_TRUE(WaitForTaken({6, 7, 8, 9, 10})) << testing::PrintToString(receiver_.Taken());
    ASSERT_TRUE(test::WaitFor([&] { return worker_->Status()["acked_seq"] == 10; }, 10s));
    EXPECT_TRUE(worker_->Status()["working"].asBool());
    EXPECT_FALSE(worker_->Status()["degraded"].asBool());
    worker_.reset();
    Start();
    store_.Add(1);
    EXPECT_TRUE(WaitForTaken({6, 7, 8, 9, 10, 11})) << "nothing is sent twice";
}

TEST_F(ChannelWorkerTest, ReceiverThatDoesNotAnswer_DoesNotHoldTheStop) {
    Start();
    receiver_.mood = Receiver::kHangs;
    store_.Add(1);
    ASSERT_TRUE(WaitForAttempts(1));
    const auto begin = std::chrono::steady_clock::now();
    worker_.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    receiver_.mood = Receiver::kTakes;
    Start();
    EXPECT_TRUE(WaitForTaken({1}));
}

TEST_F(ChannelWorkerTest, ReportsThatTheStoreDropped_AreCountedAndTold) {
    Start();
    worker_.reset();
    store_.Add(10);
    store_.Prune(7);
    Start();
    EXPECT_TRUE(WaitForTaken({8, 9, 10}));
    EXPECT_EQ(worker_->Status()["lost_reports"], 7);
    EXPECT_EQ(receiver_.lost, 7);
}

TEST_F(ChannelWorkerTest, BeyondTheLimit_TheRestComesInOneDigestAlsoAfterAStart) {
    pacing_.most_per_hour = 1;
    pacing_.digest_s = 2;
    Start();
    store_.Add(1);
    ASSERT_TRUE(WaitForTaken({1}));
    store_.Add(1);
    ASSERT_TRUE(test::WaitFor([&] { return worker_->Status()["limited"].asBool(); }, 10s));
    worker_.reset();
    Start();
    store_.Add(2);
    EXPECT_TRUE(WaitForTaken({1, 2, 3, 4}));
    EXPECT_EQ(receiver_.digests, (std::vector<bool>{false, true}));
}

TEST_F(ChannelWorkerTest, StoreThatWasBegunAnew_IsReadFromItsBeginning) {
    store_.Add(100);
    Start();
    worker_.reset();
    store_.last = 2;
    Start();
    EXPECT_TRUE(WaitForTaken({1, 2}));
}

TEST_F(ChannelWorkerTest, ChannelWithoutRetries_GoesOnAfterAFailure) {
    Start(false);
    receiver_.mood = Receiver::kRefuses;
    store_.Add(1);
    ASSERT_TRUE(test::WaitFor([&] { return worker_->Status()["failures"] == 1; }, 10s));
    receiver_.mood = Receiver::kTakes;
    store_.Add(1);
    EXPECT_TRUE(WaitForTaken({2}));
}

}  // namespace
