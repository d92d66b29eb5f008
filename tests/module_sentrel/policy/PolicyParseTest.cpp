#include <filesystem>
#include <stdexcept>

#include "feature_sentrel/SentrelPolicy.h"
#include "fixtures/Installation.h"
#include "utils/SentrelUtils.h"

namespace {

using Engine::SentrelDirRule;
using Engine::SentrelFeaturePolicy;
using Engine::SentrelUtils;
using Poco::Message;

class PolicyParse : public ::testing::Test {
  protected:
    bool Parse(const Json::Value& document) { return policy_.Parse(test::Text(document)); }

    test::Installation install_;
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    SentrelFeaturePolicy& policy_ =
        *new SentrelFeaturePolicy("sentrel_feature", install_.state.progress);  // registry's
};

TEST_F(PolicyParse, RejectedDocument_LogsTheFailedStep) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"", "parse feature policy failed."},
        {"{\"content\":", "parse feature policy failed."},
        {R"({"content":[]})", "parse content failed."},
        {R"({"content":{"os_type":"0"}})", "parse os type failed."},
        {R"({"content":{"os_type":0}})", "parse rsync policy failed."},
    };
    utils_->local_backup_pending = false;
    for (const auto& [text, message] : table) {
        install_.log.Clear();
        EXPECT_FALSE(policy_.Parse(text)) << text;
        EXPECT_EQ(install_.log.Texts(Message::PRIO_ERROR), std::vector<std::string>{message});
    }
    EXPECT_FALSE(utils_->local_backup_pending);
}

TEST_F(PolicyParse, AcceptedDocument_SetsTopLevelSettings) {
    Json::Value document = test::Installation::Policy();
    Json::Value& content = document["content"];
    content["backup_type"] = 2;
    content["backup_port"] = 873;
    content["backup_addr"] = "192.168.0.10";
    content["monitor_only"] = true;
    content["diff_attr"] = true;
    utils_->local_backup_pending = false;
    utils_->remote_backup_pending = false;
    ASSERT_TRUE(Parse(document));
    EXPECT_EQ(utils_->backup_type, 2);
    EXPECT_EQ(utils_->backup_port, 873);
    EXPECT_EQ(utils_->backup_addr, "192.168.0.10");
    EXPECT_TRUE(utils_->monitor_only && utils_->diff_attr && !utils_->diff_content);
    EXPECT_TRUE(utils_->local_backup_pending && utils_->remote_backup_pending);
    EXPECT_EQ(install_.Infos("diff_content=false, diff_attr=true"), 1);
    EXPECT_EQ(install_.Debugs("Sentrel parse policy " + test::Text(document) + "."), 1);
}

TEST_F(PolicyParse, RsyncLengths_AreCheckedAndOnlyTheInvalidOneIsCleared) {
    Json::Value document = test::Installation::Policy();
    const Engine::RsyncKeys keys = Engine::RsyncKeys::OfThisHost();
    Json::Value& content = document["content"];
    content[keys.url] = std::string(10240, 'u');
    content[keys.hash] = std::string(128, 'a');
    EXPECT_TRUE(Parse(document));
    content[keys.hash] = std::string(129, 'a');
    EXPECT_FALSE(Parse(document));
    EXPECT_EQ(utils_->rsync_hash, "");
    EXPECT_EQ(utils_->rsync_url.size(), 10240U);
    content[keys.url] = std::string(10241, 'u');
    content.removeMember(keys.hash);
    EXPECT_FALSE(Parse(document));
    EXPECT_EQ(utils_->rsync_url, "");
}

TEST_F(PolicyParse, RsyncKeys_FollowArchitectureAndFamily) {
    EXPECT_EQ(Engine::RsyncKeys::Of("x86_64", 1).url, "rsync_x86_64_tx_url");
    EXPECT_EQ(Engine::RsyncKeys::Of("aarch64", 0).hash, "rsync_aarch64_tx_hash");
    EXPECT_EQ(Engine::RsyncKeys::Of("x86_64", 2).hash, "rsync_x86_64_hash");
}

TEST_F(PolicyParse, DirList_ResolvesEachKindOfPath) {
    const test::TempDir data;
    const std::string file = data.Write("site/index.html", "x");
    const std::string tree = data.Path("site");
    const std::string link = data.Path("link");
    const std::string file_link = data.Path("file_link");
    std::filesystem::create_symlink(tree, link);
    std::filesystem::create_symlink(file, file_link);
    Json::Value document = test::Installation::Policy();
    for (const std::string& path : {tree, file, link, file_link}) {
        document["content"]["dirlist"].append(test::Installation::Entry(path, "/backup"));
    }
    Json::Value& first = document["content"]["dirlist"][0];
    first["ignored_subdir"].append(" /cache ");
    first["ignored_subdir"].append("logs");
    first["ignored_postfix"].append(" .log ");
    Json::Value off = test::Installation::Entry(tree, "/b");
    off["enable"] = false;
    document["content"]["dirlist"].append(off);
    ASSERT_TRUE(Parse(document));
    ASSERT_EQ(utils_->dir_rules.size(), 4U);
    auto rule = utils_->dir_rules.begin();
    EXPECT_EQ(rule->filepath, tree + "/");
    EXPECT_EQ(rule->real_path, tree + "/");
    EXPECT_EQ(rule->ignored_subdir, (std::list<std::string>{"cache", "logs"}));
    EXPECT_EQ(rule->ignored_postfix, std::list<std::string>{".log"});
    ++rule;
    EXPECT_TRUE(rule->is_file && rule->real_path == file && rule->auto_restore);
    ++rule;
    EXPECT_TRUE(!rule->is_file && rule->filepath == link && rule->real_path == tree + "/");
    ++rule;
    EXPECT_TRUE(rule->is_file && rule->filepath == file_link && rule->real_path == file);
}

TEST_F(PolicyParse, InvalidEntry_IsSkippedAndLoggedTwice) {
    const test::TempDir data;
    const std::string dangling = data.Path("dangling");
    std::filesystem::create_symlink(data.Path("gone"), dangling);
    const std::string pipe = data.Path("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    Json::Value document = test::Installation::Policy();
    for (const std::string& path :
         {std::string("var/www"), data.Path("missing"), dangling, pipe, data.Path()}) {
        document["content"]["dirlist"].append(test::Installation::Entry(path, "/backup"));
    }
    ASSERT_TRUE(Parse(document));
    EXPECT_EQ(utils_->dir_rules.size(), 1U);
    EXPECT_EQ(install_.log.Texts(Message::PRIO_ERROR).size(), 8U);
    for (const std::string& text :
         {std::string("var/www should be abspath."), "resolve link (" + dangling + ") failed.",
          "file (" + pipe + ") type not support.", "check_path (" + pipe + ") failed."}) {
        EXPECT_EQ(install_.Errors(text), 1) << text;
    }
}

TEST_F(PolicyParse, MissingDirList_KeepsTheRules) {
    const test::TempDir data;
    Json::Value document = test::Installation::Policy();
    Json::Value& list = document["content"]["dirlist"];
    list.append(test::Installation::Entry(data.Path(), "/backup"));
    list.append(test::Installation::Entry("", "/backup"));
    EXPECT_THROW(Parse(document), std::out_of_range);
    EXPECT_EQ(utils_->dir_rules.size(), 1U);
    list[1]["filepath"] = data.Path();
    list[1]["ignored_subdir"].append("  ");
    EXPECT_THROW(Parse(document), std::out_of_range);
    EXPECT_EQ(utils_->dir_rules.size(), 1U);
    document["content"].removeMember("dirlist");
    ASSERT_TRUE(Parse(document));
    EXPECT_EQ(utils_->dir_rules.size(), 1U);
    document["content"]["dirlist"] = Json::Value(Json::arrayValue);
    ASSERT_TRUE(Parse(document));
    EXPECT_TRUE(utils_->dir_rules.empty());
}

TEST_F(PolicyParse, TimeRange_DisablesExactlyItsMinutes) {
    struct Case {
        std::string range;
        int first;
        int last;  ///< below `first`: past midnight
    };
    const std::vector<Case> table = {
        {"22:00-06:30", 1320, 390}, {"08:00-08:01", 480, 481},      {"23:59-00:00", 1439, 0},
        {"0:90-3:00", 90, 180},     {" 1:00- 2:00 daily", 60, 120}, {"100:-5900-2:00", 100, 120},
    };
    for (const Case& c : table) {
        utils_->minute_enabled.fill(true);
        policy_.SetDisableWorkTime(c.range);
        for (int minute = 0; minute < 1440; ++minute) {
            const bool after = minute >= c.first;
            const bool before = minute <= c.last;
            const bool disabled = c.first <= c.last ? after && before : after || before;
            ASSERT_EQ(!utils_->minute_enabled[minute], disabled) << c.range << minute;
        }
    }
    utils_->minute_enabled.fill(true);
    for (const char* range : {"08:00-08:00", "24:00-01:00", "00:00-24:00", "8:00", "a:b-c:d",
                              "-1:00-02:00", "", "1:00-0:99999999999999999999"}) {
        policy_.SetDisableWorkTime(range);
        const auto& minutes = utils_->minute_enabled;
        EXPECT_EQ(std::count(minutes.begin(), minutes.end(), false), 0) << range;
    }
}

TEST_F(PolicyParse, Schedule_AppliesOnlyWhenEnabledAndAccumulates) {
    Json::Value document = test::Installation::Policy();
    Json::Value& content = document["content"];
    for (const int day : {0, 6, 7, -1}) content["disable_week"].append(day);
    content["disable_week"].append(Json::nullValue);
    content["disable_timerange"].append("08:00-08:01");
    ASSERT_TRUE(Parse(document));
    EXPECT_TRUE(utils_->weekday_enabled[0]);
    content["distime_enable"] = true;
    ASSERT_TRUE(Parse(document));
    EXPECT_EQ(utils_->weekday_enabled,
              (std::array<bool, 7>{false, true, true, true, true, true, false}));
    EXPECT_FALSE(utils_->minute_enabled[480]);
    content["disable_week"][0] = 3;
    content["disable_timerange"].clear();
    ASSERT_TRUE(Parse(document));
    EXPECT_FALSE(utils_->weekday_enabled[0] || utils_->weekday_enabled[3]);
    EXPECT_FALSE(utils_->minute_enabled[480]);
}

}  // namespace
