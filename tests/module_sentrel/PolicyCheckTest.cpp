#include <PolicyKeyCheck.h>
#include <ScheduleStatus.h>
#include <SentrelPolicy.h>
#include <SentrelPolicyCheck.h>

#include <filesystem>

#include "Installation.h"

namespace {

namespace fs = std::filesystem;
using Engine::PolicyFinding;
using Engine::PolicyFindings;
using Engine::SentrelPolicyCheck;

bool Holds(const std::vector<PolicyFinding>& findings, const std::string& pointer,
           const std::string& part = "") {
    return std::any_of(findings.begin(), findings.end(), [&](const PolicyFinding& finding) {
        return finding.pointer == pointer && finding.message.find(part) != std::string::npos;
    });
}

std::string Listed(const std::vector<PolicyFinding>& findings) {
    std::string lines;
    for (const PolicyFinding& finding : findings) {
        lines += finding.pointer + ": " + finding.message + "\n";
    }
    return lines;
}

class PolicyCheck : public ::testing::Test {
  protected:
    PolicyCheck() {
        data_.Write("site/index.html", "x");
        document_ = test::Installation::Policy();
        AddEntry(data_.Path("site"), data_.Path("backup"));
    }
    void AddEntry(const std::string& path, const std::string& backup) {
        document_["content"]["dirlist"].append(test::Installation::Entry(path, backup));
    }
    Json::Value& Content() { return document_["content"]; }
    Json::Value& Entry() { return document_["content"]["dirlist"][0]; }
    PolicyFindings Check() { return SentrelPolicyCheck::CheckProtection(test::Text(document_)); }

    /// One change of a good document gives an error at `pointer`, and nothing else.
    void ExpectError(Json::Value& member, const Json::Value& value, const std::string& pointer,
                     const std::string& part = "") {
        const Json::Value before = member;
        member = value;
        const PolicyFindings findings = Check();
        EXPECT_EQ(findings.errors.size(), 1U) << test::Text(value) << Listed(findings.errors);
        EXPECT_TRUE(Holds(findings.errors, pointer, part)) << pointer << " " << part << "\n"
                                                           << Listed(findings.errors);
        member = before;
        for (Json::Value* object : {&document_, &Content(), &Entry()}) {
            for (const std::string& name : object->getMemberNames()) {
                if ((*object)[name].isNull()) object->removeMember(name);
            }
        }
    }

    test::Installation install_;
    test::TempDir data_;
    Json::Value document_;
};

const std::string kEntry = "/content/dirlist/0";

TEST_F(PolicyCheck, GoodDocument_HasNoRemarksAndParses) {
    Entry()["ignored_postfix"].append(".log");
    Entry()["ignored_postfix"].append("~");
    Entry()["ignored_subdir"].append("/my uploads");
    Content()["rsync_riscv64_url"] = "http://host/rsync";
    const PolicyFindings findings = Check();
    EXPECT_EQ(Listed(findings.errors) + Listed(findings.warnings), "");
    auto* policy = new Engine::SentrelFeaturePolicy("sentrel_feature");
    EXPECT_TRUE(policy->Parse(test::Text(document_)));
}

TEST_F(PolicyCheck, UnreadableDocuments_AreRefusedAsAWhole) {
    const auto errors = [](const std::string& text) {
        return SentrelPolicyCheck::CheckProtection(text).errors;
    };
    EXPECT_TRUE(Holds(errors("{\n  \"enabled\": tru\n}"), "", "ine 2"));
    EXPECT_TRUE(Holds(errors(std::string("\x00\xff\x13", 3)), ""));
    EXPECT_TRUE(Holds(errors("[]"), "", "object"));
    EXPECT_TRUE(Holds(errors(std::string(5 * 1024 * 1024, ' ')), "", "4 MiB"));
    EXPECT_TRUE(Holds(errors(R"({"enabled":true})"), "/content", "missing"));
}

TEST_F(PolicyCheck, Keys_AreCheckedForTypeAndSpelling) {
    ExpectError(document_["enabled"], "yes", "/enabled", "true or false");
    ExpectError(Content()["backup_port"], "873", "/content/backup_port", "whole number");
    ExpectError(Entry()["ignored_postfix"], ".log", kEntry + "/ignored_postfix");
    Entry()["autorestore"] = true;
    document_["conten"] = 1;
    document_["monitor_only"] = true;
    document_["note/x"] = 1;
    const PolicyFindings findings = Check();
    EXPECT_TRUE(Holds(findings.errors, kEntry + "/autorestore", "\"auto_restore\""));
    EXPECT_TRUE(Holds(findings.errors, "/conten", "\"content\""));
    EXPECT_TRUE(Holds(findings.errors, "/monitor_only", "another level"));
    EXPECT_TRUE(Holds(findings.warnings, "/note~1x", "ignored"));
    EXPECT_EQ(Engine::EditDistance("Filepath", "filepaht"), 2U);
    EXPECT_EQ(Engine::EditDistance("", "abc"), 3U);
}

TEST_F(PolicyCheck, Values_AreCheckedForWhatTheModuleCanUse) {
    const Engine::RsyncKeys keys = Engine::RsyncKeys::OfThisHost();
    ExpectError(Content()["os_type"], 1, "/content/os_type");
    ExpectError(Content()[keys.url], "ftp://host/rsync", "/content/" + keys.url, "file:");
    ExpectError(Content()[keys.url], "", "/content/" + keys.url, "missing");
    ExpectError(Content()[keys.hash], std::string(64, 'A'), "/content/" + keys.hash, "lower-case");
    ExpectError(Content()[keys.hash], std::string(63, 'a'), "/content/" + keys.hash);
    Content()["backup_port"] = 873;
    ExpectError(Content()["backup_type"], 2, "/content/backup_addr", "missing");
    Content()["backup_type"] = 2;
    for (const std::string address : {"10.0.0.256", "::1", "a b", "host;id", "-x", "[::g]"}) {
        ExpectError(Content()["backup_addr"], address, "/content/backup_addr");
    }
    Content()["backup_addr"] = "10.0.0.9";
    EXPECT_TRUE(Holds(Check().warnings, "/content/backup_type", "secret set client"));
    install_.dir.Write("conf/rsync_client.secrets", "x");
    for (const std::string address : {"10.0.0.9", "backup-1.example.org", "[::1]"}) {
        Content()["backup_addr"] = address;
        EXPECT_EQ(Listed(Check().errors) + Listed(Check().warnings), "") << address;
    }
}

TEST_F(PolicyCheck, Paths_AreCheckedForWhatTheCommandLineCarries) {
    for (const std::string name :
         {"a b", "a\tb", "a\nb", "a'b", "a\"b", "a\\b", "a$b", "a`b", "a;b", "a&b", "a|b", "a<b",
          "a>b", "a(b",  "a)b",  "a*b", "a?b",  "a[b",  "a]b", "a#b", "a~b", "a!b", "a{b", "a}b"}) {
        ExpectError(Entry()["filepath"], data_.Path(name), kEntry + "/filepath", "cannot carry");
        ExpectError(Entry()["backup_path"], data_.Path(name), kEntry + "/backup_path",
                    "cannot carry");
    }
    fs::create_directory(data_.Path("a b"));
    fs::create_symlink(data_.Path("a b"), data_.Path("plain"));
    ExpectError(Entry()["filepath"], data_.Path("plain"), kEntry + "/filepath", "a blank");
    ExpectError(Entry()["filepath"], "", kEntry + "/filepath", "empty");
    ExpectError(Entry()["filepath"], "var/www", kEntry + "/filepath", "absolute");
    ExpectError(Entry()["filepath"], data_.Path("x/../site"), kEntry + "/filepath", "..");
    ExpectError(Entry()["filepath"], "/dev/null", kEntry + "/filepath", "neither");
    ExpectError(Entry()["backup_path"], "backup", kEntry + "/backup_path", "absolute");
    ExpectError(Entry()["backup_path"], "", kEntry + "/backup_path", "auto_restore");
    ExpectError(Entry()["backup_path"], data_.Write("a_file", "x"), kEntry + "/backup_path");
    Entry()["backup_path"] = data_.Path("b1/b2/");
    EXPECT_TRUE(Holds(Check().warnings, kEntry + "/backup_path", "one level"));
    Entry()["backup_path"] = data_.Path("b1/");
    Entry()["ignored_subdir"].append(" / ");
    for (const std::string bad : {"a\"b", "a$b", "a`b", "a\\b", "a*b", "a\nb"}) {
        ExpectError(Entry()["ignored_subdir"][0], bad, kEntry + "/ignored_subdir/0", "carry");
    }
    ExpectError(Entry()["ignored_subdir"][0], " ", kEntry + "/ignored_subdir/0", "empty");
    EXPECT_TRUE(Holds(Check().warnings, kEntry + "/ignored_subdir/0", "everything"));
}

TEST_F(PolicyCheck, BackupWithinProtectedPath_IsRefusedHoweverItIsWritten) {
    fs::create_symlink(data_.Path("site"), data_.Path("link"));
    const std::string place = kEntry + "/backup_path";
    for (const std::string backup :
         {"site", "site/b", "site/b/c/", "x/../site/b", "link/b", "./site/."}) {
        ExpectError(Entry()["backup_path"], data_.Path(backup), place, "lies within");
    }
    ExpectError(Entry()["backup_path"], data_.Path(), place, "holds");
    Entry()["filepath"] = data_.Path("link");
    ExpectError(Entry()["backup_path"], data_.Path("site/b"), place, "lies within");
    Entry()["backup_path"] = data_.Path("site2");
    EXPECT_EQ(Listed(Check().errors), "");
    AddEntry(data_.Path("site2"), data_.Path("b2"));
    EXPECT_TRUE(Holds(Check().errors, place, "lies within"));
}

TEST_F(PolicyCheck, PlacesThatOthersCanChange_AreRefusedForCopiesAndToldForSites) {
    const std::string place = kEntry + "/backup_path";
    data_.Write("open/b/x", "");
    ::chmod(data_.Path("open").c_str(), 0777);
    ExpectError(Entry()["backup_path"], data_.Path("open/b"), place, "every user may write to");
    ExpectError(Entry()["backup_path"], data_.Path("open/new"), place, "every user may write to");
    EXPECT_FALSE(SentrelPolicyCheck::CheckProtectionPlaces("{").errors.size() > 0);
    Entry()["backup_path"] = data_.Path("open/b");
    EXPECT_EQ(SentrelPolicyCheck::CheckProtectionPlaces(test::Text(document_)).errors.size(), 1U);
    Entry()["enable"] = false;
    EXPECT_EQ(SentrelPolicyCheck::CheckProtectionPlaces(test::Text(document_)).errors.size(), 0U);
    Entry()["enable"] = true;
    Entry()["backup_path"] = data_.Path("backup");
    EXPECT_EQ(Listed(SentrelPolicyCheck::CheckProtectionPlaces(test::Text(document_)).errors), "");
    Entry()["filepath"] = data_.Path("open/b");
    EXPECT_TRUE(Holds(Check().warnings, kEntry + "/filepath", "put something else in its place"));
    EXPECT_EQ(Listed(Check().errors), "");
    // Whoever may enter can change the copies, which belong to the owners of the site.
    ::chmod(data_.Path().c_str(), 0755);
    data_.Write("backup/x", "");
    ::chmod(data_.Path("backup").c_str(), 0755);
    EXPECT_TRUE(Holds(Check().errors, place, "every user may enter"));
    ::chmod(data_.Path("backup").c_str(), 0700);
    EXPECT_EQ(Listed(Check().errors), "");
    ::chmod(install_.dir.Path("bin").c_str(), 0777);
    EXPECT_TRUE(Holds(Check().errors, "", "installation is not safe"));
    EXPECT_TRUE(Holds(SentrelPolicyCheck::CheckProtectionPlaces(test::Text(document_)).warnings, "",
                      "installation is not safe"));
    document_["enabled"] = false;
    EXPECT_EQ(Listed(Check().errors), "") << "off can always be said";
}

TEST_F(PolicyCheck, Places_ThatMeetAreOnlyWarnedAbout) {
    AddEntry(data_.Path("site/"), data_.Path("backup"));
    AddEntry(data_.Path("site/sub"), data_.Path("b3"));
    AddEntry(data_.Path("missing"), data_.Path("b4"));
    const PolicyFindings findings = Check();
    EXPECT_EQ(Listed(findings.errors), "");
    EXPECT_TRUE(Holds(findings.warnings, "/content/dirlist/1/filepath", "too"));
    EXPECT_TRUE(Holds(findings.warnings, "/content/dirlist/1/backup_path", "too"));
    EXPECT_TRUE(Holds(findings.warnings, "/content/dirlist/2/filepath", "lies within"));
    EXPECT_TRUE(Holds(findings.warnings, "/content/dirlist/3/filepath", "does not exist"));
}

TEST_F(PolicyCheck, NamesThatCannotBeRestored_AreCountedOutsideExclusions) {
    data_.Write("site/a b.html", "x");
    data_.Write("site/sub/c$d", "x");
    data_.Write("site/uploads/e f", "x");
    Entry()["ignored_subdir"].append("uploads");
    const PolicyFindings findings = Check();
    EXPECT_EQ(Listed(findings.errors), "");
    EXPECT_TRUE(Holds(findings.warnings, kEntry + "/filepath", "2 names with blanks"))
        << Listed(findings.warnings);
}

TEST_F(PolicyCheck, Exclusions_ThatHitMoreThanTheyMeanAreTold) {
    data_.Write("site/cache/a", "x");
    data_.Write("site/cache2.php", "x");
    data_.Write("site/blog/cache/b", "x");
    for (const std::string subdir : {"cache", " /cache", "cache/"}) {
        Entry()["ignored_subdir"][0] = subdir;
        const auto warnings = Check().warnings;
        const bool prefix = subdir != "cache/";
        EXPECT_EQ(warnings.size(), prefix ? 2U : 1U) << Listed(warnings);
        EXPECT_EQ(Holds(warnings, kEntry + "/filepath", "site/cache2.php"), prefix);
        EXPECT_EQ(Holds(warnings, kEntry + "/filepath", "site/blog/cache"), true)
            << subdir << Listed(warnings);
    }
    Entry()["filepath"] = data_.Path("site/index.html");
    Entry()["ignored_postfix"].append(".css");
    EXPECT_EQ(Listed(Check().warnings), "");
    Entry()["ignored_postfix"].append(".html ");
    EXPECT_TRUE(Holds(Check().warnings, kEntry + "/ignored_postfix/1", "itself"));
    Entry()["ignored_postfix"][0] = " ";
    EXPECT_TRUE(Holds(Check().warnings, kEntry + "/ignored_postfix/0", "everything"));
}

TEST_F(PolicyCheck, Schedule_IsCheckedForFormAndEffect) {
    Content()["distime_enable"] = true;
    Content()["disable_week"].append(0);
    Content()["disable_timerange"].append("22:00-06:30");
    EXPECT_EQ(Listed(Check().errors), "");
    EXPECT_TRUE(Holds(Check().warnings, "/content/disable_timerange/0", "passes midnight"));
    for (const std::string range : {"", "8:00", "24:00-1:00", "1:60-2:00", "8-9", "-1:00-2:00",
                                    "a:b-c:d", "8:00-9:00 ", " 8:00-9:00", "8:00-9:00-10:00"}) {
        ExpectError(Content()["disable_timerange"][0], range, "/content/disable_timerange/0");
    }
    for (const int day : {-1, 7}) {
        ExpectError(Content()["disable_week"][0], day, "/content/disable_week/0", "weekday");
    }
    const auto warned = [this](const std::string& place, const std::string& part) {
        EXPECT_TRUE(Holds(Check().warnings, "/content/" + place, part)) << place << part;
    };
    Content()["disable_week"].clear();
    warned("disable_timerange", "no effect");
    Content()["disable_timerange"][0] = "8:00-8:00";
    warned("disable_timerange/0", "begins where it ends");
    warned("distime_enable", "disables nothing");
    Content()["disable_week"].append(1);
    warned("disable_week", "no effect");
    Content()["distime_enable"] = false;
    warned("distime_enable", "not read");
}

TEST_F(PolicyCheck, Schedule_ThatNeverWorksOrIsHeldUpByEarlierOnes_IsTold) {
    Engine::ScheduleStatus::Instance().Reset();
    const auto warnings = [this] { return Listed(Check().warnings); };
    const std::string place = "/content/distime_enable: ";
    Content()["distime_enable"] = true;
    for (int day = 0; day < 7; ++day) Content()["disable_week"].append(day);
    Content()["disable_timerange"].append("22:00-06:30");
    EXPECT_EQ(warnings(), "");
    Content()["disable_timerange"].append("6:31-21:59");
    EXPECT_EQ(warnings(), place + "protection never works: every minute of the week is disabled\n");
    Content()["disable_week"].resize(6);
    EXPECT_EQ(warnings().find("never works"), std::string::npos);
    // Now with what earlier policies left behind.
    Content()["disable_week"].resize(0);
    Content()["disable_week"].append(2);
    Content()["disable_timerange"].resize(0);
    Content()["disable_timerange"].append("08:00-08:30");
    Engine::WorkSchedule earlier = Engine::WorkSchedule::AlwaysOn();
    earlier.weekdays[2] = false;
    earlier.DisableRange("08:00-08:30");
    Engine::ScheduleStatus::Instance().Publish(earlier, true);
    EXPECT_EQ(warnings(), "");
    const std::string other = place +
                              "earlier policies disabled other times too: they stay disabled until "
                              "the agent restarts\n";
    earlier.DisableRange("08:31-08:32");
    Engine::ScheduleStatus::Instance().Publish(earlier, true);
    EXPECT_EQ(warnings(), other);
    for (const char* key : {"distime_enable", "disable_week", "disable_timerange"}) {
        Content().removeMember(key);
    }
    EXPECT_EQ(warnings(), other);
    earlier.weekdays.fill(false);
    earlier.minutes.fill(false);
    Engine::ScheduleStatus::Instance().Publish(earlier, true);
    EXPECT_NE(warnings().find("which stay so until the agent restarts"), std::string::npos);
    Engine::ScheduleStatus::Instance().Reset();
    EXPECT_EQ(warnings(), "");
}

TEST_F(PolicyCheck, DisabledDocument_IsCheckedForTypesOnly) {
    document_["enabled"] = false;
    Entry()["filepath"] = "";
    Content()["os_type"] = 1;
    EXPECT_EQ(Listed(Check().errors), "");
    Content()["os_type"] = "0";
    EXPECT_TRUE(Holds(Check().errors, "/content/os_type"));
    document_["enabled"] = true;
    Content()["os_type"] = 0;
    Entry()["enable"] = false;
    EXPECT_TRUE(Holds(Check().warnings, "/content/dirlist", "no enabled entry"));
    EXPECT_EQ(Listed(Check().errors), "");
    Content().removeMember("dirlist");
    EXPECT_TRUE(Holds(Check().warnings, "/content/dirlist", "before"));
}

TEST_F(PolicyCheck, BackupServer_IsCheckedForWhatTheDaemonNeeds) {
    document_ = test::Installation::Policy();
    Content().removeMember("os_type");
    const auto check = [this] {
        return SentrelPolicyCheck::CheckBackupServer(test::Text(document_));
    };
    EXPECT_EQ(check().errors.size(), 3U);
    Content()["backupserver_ip"] = "127.0.0.1";
    Content()["backupserver_port"] = 873;
    Content()["backupserver_path"] = data_.Path("new/received");
    EXPECT_EQ(Listed(check().errors), "");
    EXPECT_TRUE(Holds(check().warnings, "/content", "secret set server"));
    install_.dir.Write("conf/rsync_server.secrets", "x");
    EXPECT_EQ(check().warnings.size(), 1U);
    EXPECT_TRUE(Holds(check().warnings, "/content/backupserver_ip", "loopback"));
    Content()["backupserver_ip"] = "::1";
    EXPECT_TRUE(Holds(check().warnings, "/content/backupserver_ip", "IPv6"));
    for (const std::string address : {"", "0.0.0.0", "localhost", "127.0.0.1 ", "127.0.0.256"}) {
        Content()["backupserver_ip"] = address;
        EXPECT_TRUE(Holds(check().errors, "/content/backupserver_ip")) << address;
    }
    for (const std::string path : {"rel", "/a\nb", "/a%b", "/a ", "/a\\"}) {
        Content()["backupserver_path"] = path;
        EXPECT_TRUE(Holds(check().errors, "/content/backupserver_path")) << path;
    }
    Content()["backupserver_path"] = data_.Path("site/index.html/x");
    EXPECT_TRUE(Holds(check().errors, "/content/backupserver_path", "cannot be made"));
    Content()["backupserver_ip"] = "203.0.113.7";
    EXPECT_TRUE(Holds(check().errors, "/content/backupserver_ip", "203.0.113.7"));
}

}  // namespace
