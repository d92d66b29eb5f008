#include <framework/ConfigManager.h>
#include <gtest/gtest.h>
#include <sdk/files/PathUtils.h>

#include <filesystem>
#include <utility>
#include <vector>

#include "support/TempDir.h"

namespace test {

class ConfigTest : public ::testing::Test {
  protected:
    ConfigTest() {
        SDK::PathUtils::SetInstallationPath(installation_.Path());
        config_.Reset();
    }
    bool Load(const std::string& json) {
        return config_.Load(installation_.Write("conf/agent.json", json), true, error_);
    }
    std::string IdFile() const { return installation_.Path("data/agent_id"); }

    TempDir installation_;
    Framework::ConfigManager& config_ = Framework::ConfigManager::GetInstance();
    std::string error_;
};

TEST_F(ConfigTest, WholeDocument_IsTakenAndRelativeDirectoriesAreResolved) {
    ASSERT_TRUE(Load(R"({"modules": ["a", "b"],
        "log": {"directory": "logs/", "level": "debug", "rotate_bytes": 5000, "keep_files": 2,
                "console": true},
        "task_period_ms": 20, "policy_grace_ms": 30, "cpu_limit_percent": 40,
        "report": {"anything": 1}})"))
        << error_;
    EXPECT_EQ(config_.Modules(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(config_.GetLoggerConfig().directory, installation_.Path("logs"));
    EXPECT_EQ(config_.GetLoggerConfig().keep_files, 2);
    EXPECT_TRUE(config_.GetLoggerConfig().console);
    EXPECT_EQ(config_.TaskPeriod().count(), 20);
    EXPECT_EQ(config_.PolicyGrace().count(), 30);
    EXPECT_EQ(config_.CpuLimitPercent(), 40);
    EXPECT_EQ(config_.Section("report")["anything"], 1);
    EXPECT_TRUE(config_.Section("filenotify").isObject());
    EXPECT_TRUE(Load(R"({"log": {"directory": "/var/log//"}})"));
    EXPECT_EQ(config_.GetLoggerConfig().directory, "/var/log");
}

TEST_F(ConfigTest, MissingFile_MeansDefaultsUnlessRequired) {
    const std::string missing = installation_.Path("conf/none.json");
    EXPECT_TRUE(config_.Load(missing, false, error_));
    EXPECT_EQ(config_.TaskPeriod().count(), 3000);
    EXPECT_EQ(config_.PolicyGrace().count(), 5000);
    EXPECT_EQ(config_.GetLoggerConfig().directory, installation_.Path("log"));
    EXPECT_FALSE(config_.Load(missing, true, error_));
    EXPECT_NE(error_.find(missing), std::string::npos) << error_;
}

TEST_F(ConfigTest, Mistakes_NameTheirPlaceAndChangeNothing) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"[]", "the document: must be an object"},
        {R"({"task_period_ms": )", "agent.json: "},
        {R"({"perod/ms": 1})", "/perod~1ms: unknown key"},
        {R"({"modules": "a"})", "/modules: must be an array"},
        {R"({"modules": ["a", 1]})", "/modules/1: must be a string"},
        {R"({"modules": ["a", "../b"]})", "/modules/1: \"../b\" is no module name"},
        {R"({"modules": ["a", "b", "a"]})", "/modules/2: \"a\" is named twice"},
        {R"({"log": 1})", "/log: must be an object"},
        {R"({"log": {"levle": "debug"}})", "/log/levle: unknown key"},
        {R"({"log": {"level": "loud"}})", "/log/level: \"loud\" is no level"},
        {R"({"log": {"directory": ""}})", "/log/directory: must not be empty"},
        {R"({"log": {"console": 1}})", "/log/console: must be true or false"},
        {R"({"log": {"rotate_bytes": 1.5}})", "/log/rotate_bytes: must be an integer"},
        {R"({"task_period_ms": 0})", "/task_period_ms: must be an integer from 10"},
        {R"({"task_period_ms": 18446744073709551615})", "/task_period_ms: must be an integer"},
        {R"({"cpu_limit_percent": "5"})", "/cpu_limit_percent: must be an integer from 0 to 100"},
        {R"({"report": []})", "/report: must be an object"},
    };
    for (const auto& [json, expected] : cases) {
        EXPECT_FALSE(Load(json)) << json;
        EXPECT_NE(error_.find(expected), std::string::npos) << json << ": " << error_;
    }
    EXPECT_EQ(config_.TaskPeriod().count(), 3000);
    EXPECT_EQ(config_.Modules().size(), 3U);
}

TEST_F(ConfigTest, AgentId_IsMadeOnceAndNeverReplaced) {
    ASSERT_TRUE(config_.EnsureAgentId(error_)) << error_;
    const std::string id = config_.GetAgentId();
    EXPECT_EQ(id.size(), 36U);
    EXPECT_EQ(std::filesystem::status(IdFile()).permissions(), std::filesystem::perms(0600));
    config_.SetAgentId("");
    ASSERT_TRUE(config_.EnsureAgentId(error_)) << error_;
    EXPECT_EQ(config_.GetAgentId(), id);
    for (const std::string bad : {"", "no uuid", "01234567-89ab-cdef-0123-456789abcdeg"}) {
        installation_.Write("data/agent_id", bad);
        EXPECT_FALSE(config_.EnsureAgentId(error_)) << bad;
        EXPECT_NE(error_.find(IdFile()), std::string::npos) << error_;
        EXPECT_EQ(TempDir::Read(IdFile()), bad);
    }
    std::filesystem::remove(IdFile());
    std::filesystem::create_directory(IdFile());  // there, and not to be read
    EXPECT_FALSE(config_.EnsureAgentId(error_));
    EXPECT_NE(error_.find("cannot read"), std::string::npos) << error_;
}

}  // namespace test
