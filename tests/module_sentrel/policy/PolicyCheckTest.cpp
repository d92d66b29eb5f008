#include <json/reader.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "feature_sentrel/SentrelPolicy.h"
#include "feature_sentrel/policy_check/PolicyCompletion.h"
#include "feature_sentrel/policy_check/SentrelPolicyCheck.h"
#include "fixtures/Installation.h"

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
    PolicyFindings Check() const { return CheckText(test::Text(document_)); }
    PolicyFindings CheckText(const std::string& text) const {
        return SentrelPolicyCheck::CheckProtection(text, earlier_);
    }

    /// The document with a member set to the JSON `value`; empty removes it.
    Json::Value Changed(const std::string& pointer, const std::string& value) const {
        Json::Value document = document_;
        Json::Value* at = &document;
        std::istringstream names(pointer.substr(1));
        for (std::string name; std::getline(names, name, '/');) {
            if (names.eof() && value.empty()) {
                at->removeMember(name);
                return document;
            }
            at = at->isArray() ? &(*at)[std::stoi(name)] : &(*at)[name];
        }
        std::istringstream(value) >> *at;
        return document;
    }
    static std::string Quoted(const std::string& text) { return test::Text(Json::Value(text)); }

    /// True when the module accepts the document and it has a path to protect.
    bool IsAccepted(const Json::Value& document) {
        Engine::SentrelUtils::GetInstance()->dir_rules.clear();
        auto* policy = new Engine::SentrelFeaturePolicy("sentrel_feature", install_.state.progress);
        try {
            return policy->Parse(test::Text(document)) &&
                   !Engine::SentrelUtils::GetInstance()->dir_rules.empty();
        } catch (const std::out_of_range&) {
            return false;
        }
    }
    void ExpectError(Json::Value& member, const Json::Value& value, const std::string& pointer,
                     const std::string& part) {
        const Json::Value before = std::exchange(member, value);
        const PolicyFindings findings = Check();
        EXPECT_EQ(findings.errors.size(), 1U) << test::Text(value) << Listed(findings.errors);
        EXPECT_TRUE(Holds(findings.errors, pointer, part)) << Listed(findings.errors);
        member = before;
    }

    test::Installation install_;
    test::TempDir data_;
    Json::Value document_;
    Engine::WorkSchedule earlier_ = Engine::WorkSchedule::AlwaysOn();
};

const std::string kEntry = "/content/dirlist/0";

TEST_F(PolicyCheck, GoodDocument_HasNoFindingsAndParses) {
    Entry()["ignored_postfix"].append(".log");
    Entry()["ignored_postfix"].append("~");
    Entry()["ignored_subdir"].append("/my uploads");
    Content()["rsync_riscv64_url"] = "http://host/rsync";
    const PolicyFindings findings = Check();
    EXPECT_EQ(Listed(findings.errors) + Listed(findings.warnings), "");
    auto* policy = new Engine::SentrelFeaturePolicy("sentrel_feature", install_.state.progress);
    EXPECT_TRUE(policy->Parse(test::Text(document_)));
}

TEST_F(PolicyCheck, UnreadableDocuments_AreRejected) {
    const auto errors = [this](const std::string& text) { return CheckText(text).errors; };
    EXPECT_TRUE(Holds(errors("{\n  \"enabled\": tru\n}"), "", "ine 2"));
    EXPECT_TRUE(Holds(errors(std::string("\x00\xff\x13", 3)), ""));
    EXPECT_TRUE(Holds(errors("[]"), "", "object"));
    EXPECT_TRUE(Holds(errors(std::string(5 * 1024 * 1024, ' ')), "", "4 MiB"));
}

TEST_F(PolicyCheck, Check_RejectsADocumentExactlyWhenTheModuleDoes) {
    const Engine::RsyncKeys keys = Engine::RsyncKeys::OfThisHost();
    const std::string content = "/content/";
    const std::string entry = kEntry + "/";
    std::map<std::string, std::vector<std::string>> changes = {
        {"/content", {"", "[]"}},
        {"/note", {"7"}},
        {"/conten", {"1"}},
        {"/enable", {"1"}},
        {"/monitor_only", {"true"}},
        {content + "monitor_onl", {"true"}},
        {content + "monitor_only", {R"("yes")"}},
        {content + "os_type", {"", "1", R"("0")"}},
        {content + "backup_type", {"2", "[]"}},
        {content + "backup_port", {"70000"}},
        {content + "backup_addr", {R"("a b;id")"}},
        {content + "diff_content", {"1"}},
        {content + "distime_enable", {"true"}},
        {content + "disable_week", {R"([7, -1, "0"])"}},
        {content + "disable_timerange",
         {R"(["0:90-3:00", "8:00", "24:00-1:00", 7, {}])", R"("8:00-9:00")"}},
        {content + "dirlist/1", {"7"}},
        {content + "rsync_riscv64_url", {"7"}},
        {content + keys.url,
         {Quoted(""), Quoted("ftp://host/rsync"), Quoted(std::string(10240, 'u')),
          Quoted(std::string(10241, 'u'))}},
        {content + keys.hash,
         {Quoted(""), Quoted(std::string(64, 'A')), Quoted(std::string(63, 'a')),
          Quoted(std::string(128, 'x')), Quoted(std::string(129, 'a'))}},
        {entry + "autorestore", {"true"}},
        {entry + "ignored_subdir",
         {R"([""])", R"([" "])", "[null]", "[{}]", "[7]", R"("cache")",
          R"(["a*b", "$c`d\"e\\f", "a\nb", "- x", "!"])"}},
        {entry + "ignored_postfix", {R"(["", 7, [], "*?"])"}},
        {entry + "filepath",
         {Quoted(""), "7", Quoted("var/www"), Quoted("/dev/null"), Quoted(data_.Path("none"))}},
    };
    for (const std::string name : {"a b", "-a", "a\nb", "a'\"b", "a\\b", "a$(b)`c`", "a;b|c&d",
                                   "a*b?[c]", "#a~b!{c}<d>", "\xc3\xa4"}) {
        fs::create_directory(data_.Path(name));
        changes[entry + "filepath"].push_back(Quoted(data_.Path(name)));
        changes[entry + "backup_path"].push_back(Quoted(data_.Path(name + " copies")));
    }
    for (const auto& [pointer, values] : changes) {
        for (const std::string& value : values) {
            const Json::Value document = Changed(pointer, value);
            const auto errors = CheckText(test::Text(document)).errors;
            EXPECT_EQ(errors.empty(), IsAccepted(document)) << pointer << " " << value << "\n"
                                                            << Listed(errors);
        }
    }
}

TEST_F(PolicyCheck, SettingsWithoutTheIntendedEffect_HaveWarnings) {
    const Engine::RsyncKeys keys = Engine::RsyncKeys::OfThisHost();
    const std::string content = "/content/";
    const std::string entry = kEntry + "/";
    Content()["distime_enable"] = true;
    Content()["disable_week"].append(0);
    Content()["disable_timerange"].append("8:00-9:00");
    struct Expected {
        std::string pointer;
        std::string value;
        std::string place;  ///< empty: the same pointer
        std::string part;
    };
    const std::vector<Expected> table = {
        {"/conten", "1", "", "\"content\"?"},
        {"/note~1x", "1", "/note~01x", "ignored"},
        {"/monitor_only", "true", "", "another level"},
        {entry + "autorestore", "true", "", "\"auto_restore\"?"},
        {content + "monitor_only", "1", "", "must be true or false"},
        {content + keys.hash, Quoted(std::string(64, 'A')), "", "download will fail"},
        {content + keys.hash, Quoted(std::string(128, 'a')), "", "download will fail"},
        {content + keys.url, "\"ftp://host/x\"", "", "download will fail"},
        {content + "backup_port", "873.5", "", "must be a whole number"},
        {content + "backup_port", "65536", "", "no copy reaches"},
        {content + "backup_type", "3", "", "no backup copy"},
        {content + "backup_type", "2", content + "backup_type", "secret set client"},
        {content + "backup_type", "2", content + "backup_addr", "no copy reaches"},
        {content + "disable_week", "[0, 7]", content + "disable_week/1", "weekday"},
        {content + "disable_week", "[]", content + "disable_timerange", "no effect"},
        {content + "disable_timerange", "[]", content + "disable_week", "no effect"},
        {content + "disable_timerange", "[\"0:90-3:00\"]", content + "disable_timerange/0",
         "is read as 1:30-3:00"},
        {content + "disable_timerange", "[\"8:00\"]", content + "disable_timerange/0",
         "disables nothing"},
        {content + "disable_timerange", "[\"8:00-8:00\"]", content + "disable_timerange/0",
         "begins where it ends"},
        {content + "disable_timerange", "[\"22:00-6:00\"]", content + "disable_timerange/0",
         "passes midnight"},
        {content + "distime_enable", "false", "", "not read"},
        {content + "dirlist", "", "", "before"},
        {content + "dirlist", "[]", "", "no enabled entry"},
        {entry + "ignored_subdir", "[\"cache*\"]", entry + "ignored_subdir/0", "pattern"},
        {entry + "ignored_subdir", "[\" / \"]", entry + "ignored_subdir/0", "everything"},
        {entry + "ignored_subdir", "[\"!\"]", entry + "ignored_subdir/0", "for a name"},
    };
    EXPECT_EQ(Listed(Check().warnings), "");
    for (const Expected& expected : table) {
        const PolicyFindings findings =
            CheckText(test::Text(Changed(expected.pointer, expected.value)));
        EXPECT_EQ(Listed(findings.errors), "") << expected.pointer;
        EXPECT_TRUE(Holds(findings.warnings,
                          expected.place.empty() ? expected.pointer : expected.place,
                          expected.part))
            << expected.pointer << " " << expected.value << "\n"
            << Listed(findings.warnings);
    }
    install_.dir.Write("conf/rsync_client.secrets", "x");
    Content()["backup_type"] = 2;
    for (const std::string address : {"10.0.0.9", "backup-1.example.org", "[::1]"}) {
        Content()["backup_addr"] = address;
        EXPECT_EQ(Listed(Check().warnings), "") << address;
    }
    for (const std::string address : {"10.0.0.256", "::1", "-x", "[::g]"}) {
        Content()["backup_addr"] = address;
        EXPECT_TRUE(Holds(Check().warnings, "/content/backup_addr")) << address;
    }
}

TEST_F(PolicyCheck, InvalidEntry_IsOnlyAWarningWhileAnotherEntryIsValid) {
    fs::create_symlink(data_.Path("none"), data_.Path("dangling"));
    struct Useless {
        std::string key;
        std::string value;
        std::string part;
    };
    const std::vector<Useless> table = {
        {"filepath", "var/www", "absolute"},
        {"filepath", data_.Path("x/../site"), "does not exist"},
        {"filepath", data_.Path("./site"), "without"},
        {"filepath", data_.Path("dangling"), "does not exist"},
        {"filepath", "/dev/null", "neither"},
        {"backup_path", "", "auto_restore needs"},
        {"backup_path", "backup", "absolute"},
        {"backup_path", data_.Write("a_file", "x"), "not a directory"},
        {"backup_path", data_.Path("dangling/"), "not a directory"},
    };
    for (const Useless& useless : table) {
        ExpectError(Entry()[useless.key], useless.value, kEntry + "/" + useless.key, useless.part);
    }
    data_.Write("other/x", "");
    AddEntry(data_.Path("other"), data_.Path("b2"));
    for (const Useless& useless : table) {
        const Json::Value document = Changed(kEntry + "/" + useless.key, Quoted(useless.value));
        const PolicyFindings findings = CheckText(test::Text(document));
        EXPECT_EQ(Listed(findings.errors), "") << useless.value;
        EXPECT_TRUE(Holds(findings.warnings, kEntry + "/" + useless.key, useless.part));
    }
}

TEST_F(PolicyCheck, BackupWithinAProtectedPath_IsRejectedInAnyNotation) {
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

TEST_F(PolicyCheck, PathsThatOthersCanChange_AreErrorsForCopiesAndWarningsForSites) {
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
    // The site's users own the copies, so that they could change them there.
    ::chmod(data_.Path().c_str(), 0755);
    data_.Write("backup/x", "");
    ::chmod(data_.Path("backup").c_str(), 0755);
    EXPECT_TRUE(Holds(Check().warnings, place, "every user may enter"));
    EXPECT_EQ(Listed(Check().errors), "");
    ::chmod(data_.Path("backup").c_str(), 0700);
    EXPECT_EQ(Listed(Check().errors), "");
    ::chmod(install_.dir.Path("bin").c_str(), 0777);
    EXPECT_TRUE(Holds(Check().errors, "", "installation is not safe"));
    EXPECT_TRUE(Holds(SentrelPolicyCheck::CheckProtectionPlaces(test::Text(document_)).warnings, "",
                      "installation is not safe"));
    document_["enabled"] = false;
    EXPECT_EQ(Listed(Check().errors), "") << "switching off must always be possible";
}

TEST_F(PolicyCheck, OverlappingPaths_HaveWarnings) {
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

TEST_F(PolicyCheck, ExclusionsThatMatchMoreThanIntended_HaveWarnings) {
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

TEST_F(PolicyCheck, ScheduleWithoutWorkTimeOrWithEarlierTimes_HasWarnings) {
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
    // With the disabled times of earlier policies.
    Content()["disable_week"].resize(0);
    Content()["disable_week"].append(2);
    Content()["disable_timerange"].resize(0);
    Content()["disable_timerange"].append("08:00-08:30");
    earlier_.weekdays[2] = false;
    earlier_.DisableRange("08:00-08:30");
    EXPECT_EQ(warnings(), "");
    const std::string other = place +
                              "earlier policies disabled other times too: they stay disabled until "
                              "the agent restarts\n";
    earlier_.DisableRange("08:31-08:32");
    EXPECT_EQ(warnings(), other);
    for (const char* key : {"distime_enable", "disable_week", "disable_timerange"}) {
        Content().removeMember(key);
    }
    EXPECT_EQ(warnings(), other);
    earlier_.weekdays.fill(false);
    earlier_.minutes.fill(false);
    EXPECT_NE(warnings().find("which stay so until the agent restarts"), std::string::npos);
    earlier_ = Engine::WorkSchedule::AlwaysOn();
    EXPECT_EQ(warnings(), "");
}

TEST_F(PolicyCheck, Off_IsAlwaysAcceptedAndAMissingListIsTheOneBefore) {
    for (const char* off : {"{}", R"({"enabled":false,"content":7})",
                            R"({"enabled":0,"content":{"os_type":"x","dirlist":[[],7]}})"}) {
        EXPECT_EQ(Listed(CheckText(off).errors), "") << off;
    }
    const std::string last = test::Text(document_);
    const auto list_of = [](const std::string& text) {
        Json::Value root;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root), 0);
        return root["content"]["dirlist"];
    };
    const Json::Value list = Content()["dirlist"];
    Content().removeMember("dirlist");
    EXPECT_EQ(list_of(Engine::WithDirListOf(test::Text(document_), last)), list);
    EXPECT_EQ(list_of(Engine::WithDirListOf(R"({"enabled":false})", last)), list);
    for (const std::string& own :
         {last, std::string(R"({"content":{"dirlist":[]}})"), std::string(R"({"content":7})"),
          std::string("{"), std::string("[]")}) {
        EXPECT_EQ(Engine::WithDirListOf(own, last), own);
    }
    EXPECT_EQ(Engine::WithDirListOf(R"({"content":{}})", "{"), R"({"content":{}})");
}

TEST_F(PolicyCheck, BackupServerPolicy_IsCheckedForTheDaemon) {
    Content().clear();
    Content()["backupserver_ip"] = "127.0.0.1";
    Content()["backupserver_port"] = 873;
    Content()["backupserver_path"] = data_.Path("new/received");
    const auto check = [](const Json::Value& document) {
        return SentrelPolicyCheck::CheckBackUpServer(test::Text(document));
    };
    const std::string content = "/content/";
    EXPECT_EQ(Listed(check(document_).errors), "");
    EXPECT_TRUE(Holds(check(document_).warnings, "/content", "secret set server"));
    EXPECT_TRUE(Holds(check(document_).warnings, content + "backupserver_ip", "loopback"));
    EXPECT_TRUE(Holds(check(document_).warnings, content + Engine::RsyncKeys::OfThisHost().url,
                      "is missing"));
    Content()["backupserver_ip"] = "::1";
    EXPECT_TRUE(Holds(check(document_).warnings, content + "backupserver_ip", "IPv6"));
    Content()["backupserver_ip"] = "127.0.0.1";
    fs::create_symlink(data_.Path("none"), data_.Path("dangling"));
    data_.Write("open/x", "");
    ::chmod(data_.Path("open").c_str(), 0777);
    for (const std::string& path :
         {std::string("rel"), std::string("/a\nb"), std::string("/a%b"), std::string("/a "),
          std::string("/a\\"), std::string(), data_.Path("site/index.html/x"),
          data_.Path("dangling"), data_.Path("dangling/x"), data_.Path("open/received")}) {
        const auto found = check(Changed(content + "backupserver_path", Quoted(path)));
        EXPECT_TRUE(Holds(found.errors, content + "backupserver_path")) << path;
    }
    for (const std::string address :
         {"", "0.0.0.0", "localhost", "127.0.0.1 ", "127.0.0.256", "203.0.113.7"}) {
        const auto found = check(Changed(content + "backupserver_ip", Quoted(address)));
        EXPECT_TRUE(Holds(found.errors, content + "backupserver_ip")) << address;
    }
    for (const char* port : {"", "0", "-1", "65536", "\"873\""}) {
        const auto found = check(Changed(content + "backupserver_port", port));
        EXPECT_TRUE(Holds(found.errors, content + "backupserver_port")) << port;
    }
    EXPECT_EQ(Listed(check(Changed("/content", "")).errors),
              "/content: is missing, or no object\n");
}

}  // namespace
