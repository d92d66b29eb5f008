#include <gtest/gtest.h>
#include <sdk/text/Utf8.h>

#include <random>

#include "service/Intake.h"
#include "support/Postgres.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using Seqs = std::vector<std::int64_t>;

using test::DatabaseKind;

class IntakeTest : public testing::TestWithParam<DatabaseKind> {
  protected:
    static constexpr std::int64_t kNow = 1'700'000'000'000;

    void SetUp() override {
        ASSERT_TRUE(store_.Open(Location())) << store_.Error();
        ASSERT_TRUE(intake_.Load());
    }

    Database::Location Location() const { return database_.Location(); }

    static Fleet::Message Message(std::int64_t seq, std::int64_t previous,
                                  std::int64_t acknowledged, const std::string& body = "body",
                                  const std::string& stream = "fleet-1") {
        Fleet::Report report;
        report.stream = stream;
        report.seq = seq;
        report.previous = previous;
        report.acknowledged = acknowledged;
        report.kind = "alarm";
        report.body = body;
        return Fleet::ToMessage("host-1", report);
    }

    /// The answer to the host.
    Fleet::Acknowledgement Store(std::vector<Fleet::Message> messages, std::int64_t now_ms = kNow) {
        for (Fleet::Message& message : messages) intake_.Add(std::move(message));
        std::vector<Collector::Reply> replies;
        EXPECT_TRUE(intake_.Store(now_ms, replies));
        return replies.empty() ? Fleet::Acknowledgement() : replies[0].acknowledgement;
    }

    Seqs Stored() {
        Seqs seqs;
        store_.ListReports({}, [&](const Json::Value& row) {
            seqs.push_back(row["seq"].asInt64());
            return true;
        });
        return seqs;
    }

    std::string Events() {
        std::string kinds;
        store_.ListEvents(100, [&](const Json::Value& row) {
            kinds += row["kind"].asString() + " ";
            return true;
        });
        return kinds;
    }

    test::TempDir dir_;
    test::AnyDatabase database_{GetParam()};
    Collector::CollectorSettings settings_;
    Collector::FleetStore store_;
    Collector::Intake intake_{store_, settings_};
};

TEST_P(IntakeTest, Report_IsStoredOnceAndOnlyAfterTheOneBefore) {
    EXPECT_EQ(Store({Message(1, 0, 0), Message(2, 1, 0)}).seq, 2);
    const Fleet::Acknowledgement early = Store({Message(4, 3, 0)});
    EXPECT_EQ(early.seq, 2);
    EXPECT_TRUE(early.again);
    const Fleet::Acknowledgement rest =
        Store({Message(2, 1, 0), Message(3, 2, 0), Message(4, 3, 0)});
    EXPECT_EQ(rest.seq, 4);
    EXPECT_FALSE(rest.again);
    EXPECT_EQ(Stored(), (Seqs{1, 2, 3, 4}));
    EXPECT_EQ(Events(), "");
}

TEST_P(IntakeTest, NumbersThatBeginAnew_AreNoDuplicates) {
    Store({Message(1, 0, 0, "a"), Message(2, 1, 0, "b"), Message(3, 2, 0, "c")});
    // After a loss of power the host has lost 2 and 3, and uses their numbers again.
    EXPECT_EQ(Store({Message(2, 1, 1, "new")}, kNow + 5000).seq, 2);
    // A new report store.
    EXPECT_TRUE(Store({Message(2, 1, 0, "x", "fleet-2")}, kNow + 10000).again);
    EXPECT_EQ(Store({Message(1, 0, 0, "x", "fleet-2")}, kNow + 15000).seq, 1);
    EXPECT_EQ(Stored(), (Seqs{1, 2, 3, 2, 1}));
    EXPECT_EQ(Events(), "renumbered renumbered ");
}

TEST_P(IntakeTest, ReportsThatTheHostHasDropped_AreAGapAndNotWaitedFor) {
    Store({Message(1, 0, 0)});
    EXPECT_EQ(Store({Message(9, 1, 1)}).seq, 9);
    // The collector has lost the end of its own database.
    EXPECT_EQ(Store({Message(21, 20, 20)}, kNow + 5000).seq, 21);
    EXPECT_EQ(Events(), "gap gap ");
}

TEST_P(IntakeTest, HostileMessages_AreCountedAndChangeNothing) {
    Fleet::Message without = Message(1, 0, 0);
    without.properties.erase("seq");
    Fleet::Message text = Message(1, 0, 0);
    text.properties["seq"] = "1e9";
    Fleet::Message minus = Message(1, 0, 0);
    minus.properties["seq"] = "-1";
    Fleet::Message huge = Message(1, 0, 0);
    huge.properties["seq"] = "99999999999999999999";
    Fleet::Message stream = Message(1, 0, 0);
    stream.properties["stream"] = "'; DROP TABLE hosts; --";
    const std::string deep(10000, '[');
    Store({without,
           text,
           minus,
           huge,
           stream,
           Message(1, 1, 0),
           Message(2, 0, 1),
           {"sentrel/host-1/state", deep},
           {"sentrel/host-1/state", "[1]"},
           {"sentrel/host-1/ack", "{}"},
           {"sentrel/host-1/policy/f", "{}"},
           {"a/b", "c"}});
    EXPECT_EQ(Stored(), Seqs());
    EXPECT_EQ(intake_.Counters().refused, 12U);
    std::vector<Fleet::Message> flood;
    for (int i = 1; i <= 600; ++i) flood.push_back(Message(i, i - 1, 0));
    EXPECT_EQ(Store(flood).seq, 500) << "one host may fill only a part of a batch";
}

/// Text that no sane host sends: cut and deep JSON, huge numbers, NUL bytes, wrong UTF-8.
class Nonsense {
  public:
    explicit Nonsense(unsigned seed) : random_(seed) {}

    int Below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }

    std::string Text() {
        static const std::vector<std::string> pieces{
            "",
            "{",
            "}",
            "[",
            "]",
            "\"",
            ":",
            ",",
            "online",
            "seq",
            "state",
            "host",
            "true",
            "null",
            "-1",
            "1e999",
            "\xff",
            "\xc3",
            "\xed\xa0\x80",
            "\\u0000",
            "\\ud800",
            "99999999999999999999",
            std::string(1, '\0'),
            std::string(3000, '['),
            "{\"online\":true,\"health\":[]}",
            "{\"online\":1,\"reports\":{\"last_seq\":1e300}}",
            "'; DROP TABLE hosts; --"};
        std::string text;
        for (int i = Below(5); i >= 0; --i) text += pieces[random_() % pieces.size()];
        return text;
    }

    std::string Topic() {
        static const std::vector<std::string> topics{
            "sentrel/host-1/state",           "sentrel/host-1/report/alarm",
            "sentrel/host-2/policy/f/result", "sentrel/host-1/act/5/result",
            "sentrel/host-1/report/",         "sentrel//state",
            "sentrel/host-1/act/-1/result",   "sentrel/host-1/ack"};
        return Below(4) == 0 ? "sentrel/" + Text() : topics[random_() % topics.size()];
    }

  private:
    std::minstd_rand random_;
};

TEST_P(IntakeTest, RandomMessages_NeverStopTheIntakeNorChangeWhatIsStored) {
    Store({Message(1, 0, 0)});
    Nonsense nonsense(20261122);
    std::vector<Collector::Reply> replies;
    for (int batch = 0; batch < 40; ++batch) {
        for (int i = 0; i < 50; ++i) {
            Fleet::Message message{nonsense.Topic(), nonsense.Text()};
            message.retain = nonsense.Below(3) == 0;
            for (const char* key : {"stream", "seq", "previous", "acknowledged", "time_ms"}) {
                if (nonsense.Below(2) == 0) message.properties[key] = nonsense.Text();
            }
            intake_.Add(std::move(message));
        }
        ASSERT_TRUE(intake_.Store(kNow + batch, replies)) << batch << intake_.Error();
    }
    EXPECT_GT(intake_.Counters().refused, 500U);
    EXPECT_EQ(Store({Message(2, 1, 1)}).seq, 2);
    EXPECT_EQ(Stored(), (Seqs{1, 2}));
    store_.ListResults([](const Json::Value& row) {
        EXPECT_EQ(SDK::ToValidUtf8(row["result"].asString()), row["result"].asString());
        return true;
    });
}

TEST_P(IntakeTest, HostThatIsNotHeard_IsSilentOnceAndBackWithItsNextState) {
    Store({{"sentrel/host-1/state", "{\"online\":true}"}});
    EXPECT_TRUE(intake_.CheckSilence(kNow + 40'000, kNow));
    EXPECT_EQ(Events(), "");
    EXPECT_TRUE(intake_.CheckSilence(kNow + 50'000, kNow + 20'000)) << "listening only since then";
    EXPECT_EQ(Events(), "");
    EXPECT_TRUE(intake_.CheckSilence(kNow + 50'000, kNow));
    EXPECT_TRUE(intake_.CheckSilence(kNow + 60'000, kNow));
    EXPECT_EQ(Events(), "silent ");
    Store({{"sentrel/host-1/state", "{\"online\":true}", true}}, kNow + 70'000);
    EXPECT_EQ(Events(), "silent ") << "a retained state says nothing about now";
    Store({{"sentrel/host-1/state", "{\"online\":true}"}}, kNow + 80'000);
    EXPECT_EQ(Events(), "silent back ");
    Store({{"sentrel/host-1/state", "{\"online\":false}"}}, kNow + 80'001);
    EXPECT_EQ(Events(), "silent back silent ");
}

TEST_P(IntakeTest, OldReportsAndThoseBeyondTheSizeOfAHost_AreRemoved) {
    settings_.max_megabytes_per_host = 1;
    settings_.keep_days = 1;
    Collector::Intake intake(store_, settings_);
    ASSERT_TRUE(intake.Load());
    std::vector<Collector::Reply> replies;
    const std::string body(200'000, 'x');
    for (int i = 1; i <= 7; ++i) {
        intake.Add(Message(i, i - 1, 0, body));
        ASSERT_TRUE(intake.Store(kNow, replies));
    }
    EXPECT_LT(Stored().size(), 7U);
    EXPECT_EQ(replies[0].acknowledgement.seq, 7);
    EXPECT_TRUE(intake.Prune(kNow + 25LL * 3600 * 1000));
    EXPECT_EQ(Stored(), Seqs());
}

TEST_P(IntakeTest, SecondCollectorThatKnowsLess_DoublesNothing) {
    Collector::FleetStore store;
    ASSERT_TRUE(store.Open(Location())) << store.Error();
    Collector::Intake other(store, settings_);
    ASSERT_TRUE(other.Load());
    Store({Message(1, 0, 0), Message(2, 1, 0)});
    std::vector<Collector::Reply> replies;
    const auto send = [&] {
        for (int seq = 1; seq <= 3; ++seq) other.Add(Message(seq, seq - 1, 0));
        return other.Store(kNow, replies);
    };
    EXPECT_FALSE(send());
    EXPECT_TRUE(replies.empty());
    ASSERT_TRUE(send()) << other.Error();
    EXPECT_EQ(replies[0].acknowledgement.seq, 3);
    intake_.Add(Message(3, 2, 2, "another body"));
    EXPECT_FALSE(intake_.Store(kNow, replies)) << "3 is stored, which this one does not know";
    EXPECT_EQ(Stored(), (Seqs{1, 2, 3}));
}

INSTANTIATE_TEST_SUITE_P(Database, IntakeTest,
                         testing::Values(DatabaseKind::kSqlite, DatabaseKind::kPostgres),
                         test::NameOfKind);

class Outage : public IntakeTest {};

TEST_P(Outage, DatabaseThatStops_AcknowledgesNothingAndLosesNothing) {
    Store({Message(1, 0, 0), Message(2, 1, 0)});
    database_.Server().Stop();
    std::vector<Collector::Reply> replies;
    for (int i = 0; i < 2; ++i) {
        intake_.Add(Message(3, 2, 2));
        EXPECT_FALSE(intake_.Store(kNow, replies));
        EXPECT_TRUE(replies.empty());
        EXPECT_NE(intake_.Error(), "");
    }
    EXPECT_FALSE(intake_.CheckSilence(kNow + 99'000, kNow));
    EXPECT_TRUE(intake_.AskForMissing().empty()) << "3 is in memory alone";
    ASSERT_TRUE(database_.Server().Start());
    EXPECT_TRUE(test::WaitFor(
        [&] {
            intake_.Add(Message(3, 2, 2));
            return intake_.Store(kNow, replies);
        },
        test::Scaled(std::chrono::seconds(10))))
        << intake_.Error();
    EXPECT_EQ(replies.at(0).acknowledgement.seq, 3);
    EXPECT_EQ(Stored(), (Seqs{1, 2, 3}));
    Database::Location wrong = Location();
    wrong.password_file = dir_.Write("wrong", "a wrong password\n");
    std::filesystem::permissions(wrong.password_file, std::filesystem::perms::owner_read);
    Collector::FleetStore store;
    EXPECT_FALSE(store.OpenExisting(wrong));
    EXPECT_NE(store.Error().find("password"), std::string::npos) << store.Error();
}

INSTANTIATE_TEST_SUITE_P(Database, Outage, testing::Values(DatabaseKind::kPostgres),
                         test::NameOfKind);

}  // namespace
