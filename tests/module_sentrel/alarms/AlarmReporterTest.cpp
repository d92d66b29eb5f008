#include <evidence/EvidenceStore.h>
#include <fcntl.h>
#include <unistd.h>

#include <set>

#include "feature_sentrel/alarms/DifferenceWorker.h"
#include "feature_sentrel/alarms/EvidenceSettings.h"
#include "feature_sentrel/alarms/MergedAlarms.h"
#include "fixtures/EventFixture.h"

namespace {

namespace fs = std::filesystem;
using Engine::SentrelStatus;
using test::Event;

TEST_F(Event, ContentBehindAPlantedLink_IsNotInTheAlarm) {
    utils_->monitor_only = true;
    utils_->diff_content = true;
    PlantLink("sub");
    Tell(File("sub/page.html"), IN_MODIFY);
    fs::remove(File("index.html"));
    fs::create_symlink(data_.Path("elsewhere/passwd"), File("index.html"));
    Tell(File("index.html"), IN_CREATE);
    for (const auto& alarm : running_.fakes->data.Seen()) {
        EXPECT_EQ(alarm.body.find("secret"), std::string::npos) << alarm.body;
    }
    EXPECT_EQ(Alarms(), "modify sub/page.html: reported only\nmodify index.html: reported only\n");
}

TEST_F(Event, Alarm_DescribesTheObjectBeforeItsRestore) {
    utils_->diff_content = utils_->diff_attr = true;
    ::chmod(data_.Write("site/index.html", "defaced!").c_str(), 0666);
    Tell(File("index.html"), IN_MODIFY);
    data_.Write("site/shell.php", "evil code");
    Tell(File("shell.php"), IN_CREATE);
    data_.Write("site/sub/page.html", std::string("\0\1", 2));
    Tell(File("sub/page.html"), IN_MODIFY);
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    const auto alarms = running_.fakes->data.Seen();
    ASSERT_EQ(alarms.size(), 3U);
    EXPECT_NE(alarms[0].body.find("< defaced!"), std::string::npos) << alarms[0].body;
    EXPECT_NE(alarms[0].body.find("before(uid:0 gid:0 mode:-rw-r--r-- size:7)"), std::string::npos)
        << alarms[0].body;
    EXPECT_NE(alarms[0].body.find("after(uid:0 gid:0 mode:-rw-rw-rw- size:8)"), std::string::npos)
        << alarms[0].body;
    EXPECT_NE(alarms[1].body.find("\"evil code\""), std::string::npos) << alarms[1].body;
    EXPECT_NE(alarms[2].body.find("Binary files " + File("sub/page.html")), std::string::npos)
        << alarms[2].body;
}

TEST_F(Event, ConcurrentChanges_HaveTheirOwnDifferencesInTheirOrder) {
    utils_->diff_content = true;
    TellAtOnce([&] {
        data_.Write("site/index.html", "defaced index");
        Post("index.html", IN_MODIFY);
        fs::remove(File("sub/page.html"));
        Post("sub/page.html", IN_DELETE);
        data_.Write("site/shell.php", "evil code");
        Post("shell.php", IN_CREATE);
        Post("app.log", IN_MODIFY);  // needs no alarm and must not delay the others
    });
    EXPECT_EQ(AlarmsOnce(3),
              "modify index.html: restored\ndelete sub/page.html: restored\n"
              "add shell.php: removed\n");
    const auto seen = running_.fakes->data.Seen();
    EXPECT_NE(seen[0].body.find("< defaced index"), std::string::npos) << seen[0].body;
    EXPECT_NE(seen[1].body.find(R"("diff":"")"), std::string::npos) << seen[1].body;
    EXPECT_NE(seen[2].body.find(R"("evil code")"), std::string::npos) << seen[2].body;
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
}

TEST_F(Event, WhatIsUndone_IsKept_AndSecretsAreInNoAlarm) {
    utils_->diff_content = true;
    data_.Write("site/.env", "PASSWORD=old");
    data_.Write("backup" + File(".env"), "PASSWORD=new");
    TellAtOnce([&] {
        data_.Write("site/shell.php", "evil code");
        Post("shell.php", IN_CREATE);
        data_.Write("site/index.html", "defaced");
        Post("index.html", IN_MODIFY);
        data_.Write("site/.env", "PASSWORD=stolen");
        Post(".env", IN_MODIFY);
    });
    EXPECT_EQ(AlarmsOnce(3),
              "add shell.php: removed\nmodify index.html: restored\n"
              "modify .env: restored\n");
    const auto seen = running_.fakes->data.Seen();
    const Evidence::EvidenceStore store(Engine::EvidenceSettings::Directory());
    ASSERT_TRUE(test::WaitFor([&] { return store.List().size() == 3; }, std::chrono::seconds(5)));
    std::vector<std::string> kept;
    for (const Evidence::Record& record : store.List()) {
        const SDK::FileDescriptor content = store.Open(record.id);
        kept.push_back(record.path.substr(rule_.real_path.size()) + " " +
                       test::TempDir::Read("/proc/self/fd/" + std::to_string(content.Get())));
        EXPECT_EQ(record.id, seen[kept.size() - 1].note.evidence);
    }
    EXPECT_EQ(kept, (std::vector<std::string>{"shell.php evil code", "index.html defaced",
                                              ".env PASSWORD=stolen"}));
    EXPECT_EQ(seen[2].body.find("PASSWORD"), std::string::npos) << seen[2].body;
}

TEST_F(Event, WhatLiesInAForeignDirectory_IsKeptWhenItIsRemoved) {
    data_.Write("site/kit/shell.php", "evil code");
    data_.Write("site/kit/deep/er/tool", "evil tool");
    fs::create_symlink("/etc/shadow", File("kit/link"));
    ASSERT_EQ(::mkfifo(File("kit/pipe").c_str(), 0600), 0);
    TellAtOnce([&] { Post("kit", IN_CREATE | IN_ISDIR); });
    EXPECT_EQ(AlarmsOnce(1), "add kit/: removed\n");
    EXPECT_FALSE(fs::exists(File("kit")));
    const Evidence::EvidenceStore store(Engine::EvidenceSettings::Directory());
    std::set<std::string> kept;
    const auto list = [&] {
        for (const Evidence::Record& record : store.List()) {
            const SDK::FileDescriptor content = store.Open(record.id);
            kept.insert(record.path.substr(rule_.real_path.size()) + " " +
                        test::TempDir::Read("/proc/self/fd/" + std::to_string(content.Get())));
        }
        return kept.size() >= 3;
    };
    EXPECT_TRUE(test::WaitFor(list, std::chrono::seconds(5)));
    EXPECT_EQ(kept, (std::set<std::string>{"kit/shell.php evil code", "kit/deep/er/tool evil tool",
                                           "kit/link /etc/shadow"}));
}

TEST_F(Event, DefacementRightAfterAnAttributeChange_HasItsAlarmWithDifferenceAndEvidence) {
    utils_->diff_content = true;
    TellAtOnce([&] {
        fs::permissions(File("index.html"), fs::perms::all);
        Post("index.html", IN_ATTRIB);
    });
    EXPECT_TRUE(test::WaitFor(
        [&] { return Content("index.html") == "welcome" && !running_.fakes->data.Seen().empty(); },
        std::chrono::seconds(5)));
    data_.Write("site/index.html", "defaced");
    Post("index.html", IN_MODIFY);
    EXPECT_EQ(AlarmsOnce(2), "attribute index.html: restored\nmodify index.html: restored\n");
    const auto told = running_.fakes->data.Seen().back();
    EXPECT_NE(told.body.find("< defaced"), std::string::npos) << told.body;
    EXPECT_EQ(told.note.evidence.size(), 64U);
    EXPECT_EQ(Counter("alarms_merged"), 1);
}

TEST(MergedAlarms, Repeats_AreCountedByTypeAndOutcomeWithTheirEvidence) {
    using Engine::MergedAlarms;
    const MergedAlarms::Clock::time_point start{};
    const auto alarm = [](Engine::alarm_type type, const char* outcome, const char* evidence) {
        return Engine::Alarm{"/page", type, "", "", {outcome, 1, true, evidence}};
    };
    MergedAlarms merged;
    for (const char* id : {"a", "b", "a", ""}) {
        merged.Add(alarm(Engine::ALARM_MODIFY, "restored", id), false, start);
    }
    merged.Add(alarm(Engine::ALARM_MODIFY, "restore failed", "c"), false, start);
    merged.Add(alarm(Engine::ALARM_DELETE, "restored", ""), true, start);
    const auto at_once = merged.Take(start + MergedAlarms::kNewTypeWait, 10);
    ASSERT_EQ(at_once.size(), 1U);
    EXPECT_EQ(at_once[0].type, Engine::ALARM_DELETE);
    EXPECT_EQ(merged.Take(start + MergedAlarms::kRepeatWait, 1).at(0).note.evidence, "a b");
    merged.Add(alarm(Engine::ALARM_MODIFY, "restore failed", "d"), false, start);
    const auto rest = merged.TakeAll();
    ASSERT_EQ(rest.size(), 1U);
    EXPECT_EQ(rest[0].count, 2U);
    EXPECT_EQ(rest[0].note.evidence, "c d");
    EXPECT_TRUE(merged.TakeAll().empty());
}

TEST(MergedAlarms, BeyondTheirLimit_TheOldestAreToldAtOnce) {
    Engine::MergedAlarms merged;
    const Engine::MergedAlarms::Clock::time_point start{};
    for (std::size_t i = 0; i < Engine::MergedAlarms::kMostCounted + 3; ++i) {
        Engine::Alarm alarm;
        alarm.file = "/page" + std::to_string(i);
        merged.Add(alarm, false, start);
    }
    const auto told = merged.Take(start, 1);
    ASSERT_EQ(told.size(), 3U);
    EXPECT_EQ(told[0].file, "/page0");
}

TEST_F(Event, PageThatIsStillBeingWritten_IsKeptWhole) {
    const SDK::FileDescriptor page(
        ::open(File("index.html").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    Engine::RuleAnchors anchors;
    Engine::PinnedFile held(*anchors.Of(rule_).anchors, File("index.html"));
    fs::rename(data_.Write("site/restored", "welcome"), File("index.html"));
    const std::string directory = data_.Path("evidence");
    Engine::DifferenceWorker worker([] {}, std::chrono::seconds(1));
    worker.KeepIn(std::make_unique<Evidence::EvidenceStore>(directory));
    const auto difference = worker.Ask(std::move(held), "", File("index.html"), false);
    EXPECT_FALSE(
        test::WaitFor([&] { return difference->IsReady(); }, std::chrono::milliseconds(100)));
    ASSERT_EQ(::write(page.Get(), "defaced", 7), 7);
    EXPECT_TRUE(test::WaitFor([&] { return difference->IsReady(); }, std::chrono::seconds(20)));
    worker.Stop();
    const SDK::FileDescriptor kept =
        Evidence::EvidenceStore(directory).Open(difference->EvidenceId());
    EXPECT_EQ(test::TempDir::Read("/proc/self/fd/" + std::to_string(kept.Get())), "defaced");
}

TEST(EvidenceSettings, NamesOfSecrets_MatchWholeNamesOrPaths) {
    Engine::EvidenceSettings settings;
    settings.secret_files = {".env", "*.key", "/srv/app/config/*"};
    for (const char* secret : {"/srv/.env", "/srv/tls/site.key", "/srv/app/config/db.php"}) {
        EXPECT_TRUE(settings.IsSecret(secret)) << secret;
    }
    for (const char* open : {"/srv/.environment", "/srv/.env/page", "/srv/key", "/srv/config/x"}) {
        EXPECT_FALSE(settings.IsSecret(open)) << open;
    }
}

TEST_F(Event, DifferenceOfAHugeFile_IsLeftOutAndTheOutcomeSaysSo) {
    utils_->diff_content = true;
    fs::resize_file(File("index.html"), 6ULL << 30);
    Tell(File("index.html"), IN_MODIFY);
    EXPECT_EQ(Content("index.html"), "welcome");
    EXPECT_EQ(Alarms(), "modify index.html: restored; difference left out\n");
}

}  // namespace
