#include <ctl/commands/policies/ProtectPlan.h>
#include <ctl/protect/PathProgress.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <filesystem>
#include <tuple>

#include "support/TempDir.h"

namespace {

using Ctl::PathProgress;
using Ctl::ProtectionPolicy;

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value), 0) << text;
    return value;
}

TEST(SiteKind, Applications_AreKnownByTheirFilesAlsoInADocumentRoot) {
    for (const auto& [files, name, written] :
         std::vector<std::tuple<std::vector<const char*>, const char*, const char*>>{
             {{"wp-includes/version.php"}, "WordPress", "wp-content/uploads/"},
             {{"web/core/lib/Drupal.php"}, "Drupal", "web/sites/default/files/"},
             {{"administrator/manifests/files/joomla.xml"}, "Joomla", "cache/"},
             {{"occ", "version.php", "lib/private/Server.php"}, "Nextcloud", "data/"},
             {{"artisan", "bootstrap/app.php", "public/index.php"}, "Laravel", "storage/"},
             {{"hugo.toml"}, "Hugo", "resources/_gen/"},
             {{"index.html"}, "static pages", ""},
             {{"index.html", "index.php"}, "", ""},
             {{"artisan"}, "", ""}}) {
        const test::TempDir site;
        for (const char* file : files) site.Write(file, "x");
        const Ctl::SiteKind kind = Ctl::RecogniseSite(site.Path());
        EXPECT_EQ(kind.name, name);
        EXPECT_EQ(kind.written.empty() ? "" : kind.written.front().path, written) << name;
        for (const auto& one : kind.written) EXPECT_EQ(one.path.back(), '/') << one.path;
    }
}

TEST(ProtectionPolicy, Changes_KeepWhatTheyAreNotAbout) {
    auto policy = ProtectionPolicy::Parse(R"({"enabled":false,"own":1,"content":{"disable_week":[1],
        "rsync_x86_64_url":"https://elsewhere/rsync","rsync_x86_64_hash":"other","dirlist":[
        {"enable":true,"filepath":"/srv/a/","backup_path":"/copies/a","note":"kept"}]}})");
    ASSERT_TRUE(policy);
    policy->UseRsync("/usr/bin/rsync", "digest");
    policy->SwitchOn();
    policy->Put({"/srv/b", "/copies/b", true, true, {"uploads/"}, {".log"}});
    policy->Put({"/srv/a", "/copies/a", true, true, {}, {}});
    Json::Value root = Parse(policy->Text());
    EXPECT_TRUE(root["enabled"].asBool() && root["own"] == 1);
    EXPECT_EQ(root["content"]["disable_week"][0], 1);
    EXPECT_EQ(root["content"]["os_type"], 0);
    EXPECT_EQ(root["content"]["rsync_x86_64_url"], "https://elsewhere/rsync");
    EXPECT_EQ(root["content"]["dirlist"].size(), 2U);
    EXPECT_EQ(root["content"]["dirlist"][0]["note"], "kept");
    EXPECT_EQ(root["content"]["dirlist"][1]["ignored_subdir"][0], "uploads/");
    policy->Remove("/srv/a");
    ASSERT_EQ(policy->Entries().size(), 1U);
    EXPECT_EQ(policy->Entries()[0].path, "/srv/b");
    for (const char* wrong : {"", "[]", "{\"content\":7}", "{\"content\":{\"dirlist\":{}}}"}) {
        EXPECT_FALSE(ProtectionPolicy::Parse(wrong)) << wrong;
    }
}

TEST(ProtectionPolicy, DefaultBackupPath_IsItsOwn) {
    EXPECT_EQ(Ctl::DefaultBackupPath("/copies", "/var/www/h\n t", {}), "/copies/var-www-h__t");
    EXPECT_EQ(Ctl::DefaultBackupPath("/copies", "/a/b", {"/copies/a-b/", "/copies/a-b-2"}),
              "/copies/a-b-3");
}

TEST(PathProgress, StatusDocument_TellsHowFarAPathIs) {
    using Stage = PathProgress::Stage;
    const std::string on = R"({"protection":{"on":true,"working":true},"protected_paths":[{"path":
        "/srv/a/","configured_path":"/srv/link","backup_path":"/copies/"}],"health":{"reasons":[)";
    const auto reason = [](const char* code) {
        return std::string(R"({"path":"/srv/a/","text":"why","code":")") + code + "\"}]}}";
    };
    for (const auto& [text, stage] : std::vector<std::pair<std::string, Stage>>{
             {"{}", Stage::kUnknown},
             {R"({"protection":{"on":true,"working":true},"protected_paths":[]})", Stage::kUnknown},
             {on + "]}}", Stage::kReady},
             {on + reason("walking"), Stage::kWatching},
             {on + reason("missing"), Stage::kWatching},
             {on + reason("backup_incomplete"), Stage::kCopying},
             {on + reason("open_objects"), Stage::kReady}}) {
        EXPECT_EQ(Ctl::ProgressOf(Parse(text), "/srv/link").stage, stage) << text;
    }
    EXPECT_EQ(Ctl::ProgressOf(Parse(on + "]}}"), "/srv/a").copies, "/copies/srv/a");
    EXPECT_EQ(Ctl::ProgressOf(Parse(on + "]}}"), "/srv").stage, Stage::kUnknown);
    EXPECT_EQ(Ctl::ProgressOf(Parse(on + reason("open_objects")), "/srv/a").reasons.size(), 1U);
}

TEST(PathProgress, UndecidedChanges_KeepAPolicyFromApprovingThem) {
    const auto status = [](const char* code, const char* path) {
        return Parse(std::string(R"({"health":{"reasons":[{"code":")") + code +
                     R"(","text":"why","path":")" + path + "\"}]}}");
    };
    EXPECT_EQ(Ctl::WhyNothingCanBeApproved(status("held", "/srv/a/"), ""), "/srv/a/: why");
    EXPECT_EQ(Ctl::WhyNothingCanBeApproved(status("held", "/srv/a/"), "/srv/a"), "");
    EXPECT_EQ(Ctl::WhyNothingCanBeApproved(status("held", "/srv/a/"), "/srv/b"), "/srv/a/: why");
    EXPECT_EQ(Ctl::WhyNothingCanBeApproved(status("not_undone", ""), ""), "why");
    EXPECT_EQ(Ctl::WhyNothingCanBeApproved(status("walking", "/srv/a/"), ""), "");
}

class Plan : public testing::Test {
  protected:
    Plan() {
        site_.Write("wp-includes/version.php", "x");
        site_.Write("index.php", "pages");
        site_.Write("wp-content/uploads/a.jpg", "left out");
        site_.Write("error.log", "log");
    }
    Ctl::ProtectPlan Make(Ctl::ProtectOptions options) const {
        if (options.path.empty()) options.path = site_.Path() + "/.";
        return Ctl::MakePlan(options, policy_);
    }

    test::TempDir site_;
    ProtectionPolicy policy_;
};

TEST_F(Plan, OptionsAndProposals_AreInTheEntryAndInWords) {
    const auto plan = Make({"", "/copies/x/", {site_.Path("sub"), "./up/"}, {".log"}});
    ASSERT_EQ(plan.error, "");
    EXPECT_EQ(plan.entry.path, site_.Path());
    EXPECT_EQ(plan.entry.backup_path, "/copies/x");
    EXPECT_EQ(plan.entry.subdirs,
              (std::vector<std::string>{"sub/", "up/", "wp-content/uploads/", "wp-content/cache/",
                                        "wp-content/upgrade/"}));
    EXPECT_EQ(plan.survey.files, 2U) << "what is left out is not counted";
    EXPECT_EQ(plan.survey.bytes, 6U);
    const std::string text = Ctl::FormatPlan(plan, policy_);
    for (const char* part : {"WordPress, 2 files, ", "  (uploaded files)", "end in .log"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
    }
    policy_.Put(plan.entry);
    EXPECT_TRUE(Make({"", "", {"sub"}}).is_unchanged);
    EXPECT_FALSE(Make({"", "", {"other"}}).is_unchanged);
    EXPECT_FALSE(Make({"", "", {}, {}, true}).entry.auto_restore);
}

TEST_F(Plan, NamesThatMatter_AreFound) {
    std::filesystem::create_symlink("/etc/passwd", site_.Path("link"));
    site_.Write("odd\x1bname.", "x");
    site_.Write(".git/config", "x");
    std::string findings;
    for (const std::string& one : Make({}).survey.findings) findings += one + "\n";
    for (const char* part : {"links out of the tree", ": 1, link\n", "control characters",
                             "odd\\x1bname.", "end in a dot", "Git repositories", "error.log"}) {
        EXPECT_NE(findings.find(part), std::string::npos) << part << " in " << findings;
    }
}

TEST_F(Plan, WhatCannotBeProtected_IsSaidInASentence) {
    policy_.Put({site_.Path("wp-content"), "/copies/a"});
    for (const auto& [path, part] : std::vector<std::pair<std::string, const char*>>{
             {site_.Path("missing"), "There is no "},
             {"/proc", "no place"},
             {"/", "no place"},
             {site_.Path("wp-content/uploads"), "lies within"},
             {site_.Path(), "Unprotect that one first"}}) {
        const auto plan = Make({path});
        EXPECT_NE(plan.error.find(part), std::string::npos) << path << ": " << plan.error;
        EXPECT_EQ(plan.exit_code, 4);
    }
    policy_ = ProtectionPolicy();
    for (const char* wrong : {"..", "a/../b", "/etc", ".", "", "a*", "index.php"}) {
        EXPECT_EQ(Make({"", "", {wrong}}).exit_code, 2) << wrong;
    }
    for (const char* wrong : {"", "a/b", "*.log"}) {
        EXPECT_EQ(Make({"", "", {}, {wrong}}).exit_code, 2) << wrong;
    }
}

}  // namespace
