#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>
#include <sys/stat.h>

#include <filesystem>

#include "alarm_log/AlarmLine.h"
#include "alarm_log/AlarmLog.h"
#include "support/FileSizeLimit.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;

TEST(AlarmLine, AnythingButOneObject_BecomesOneValidLine) {
    const std::string kept = R"({"b":1, "a":[1.50], "path":"/srv/\u00e4"})";
    EXPECT_EQ(Engine::AlarmLine(kept), kept + "\n");
    EXPECT_EQ(Engine::AlarmLine("[1]"), "{\"body\":\"[1]\"}\n");
    const std::vector<std::string> bodies = {
        "{\"a\":\"\xff\xc0\x80\"}",  // no UTF-8
        "{\"a\":\"\xed\xa0\x80\"}",  // a surrogate
        "{\"a\":\"cut \xe2\x82",     // neither JSON nor UTF-8
        std::string("{\"a\":\"\0\"}", 9), "{\"name\":\"a \"quote\"\"}",
        "{\"a\":\"line\nbreak\"}",        "{} {}",
    };
    for (const std::string& body : bodies) {
        const std::string line = Engine::AlarmLine(body);
        EXPECT_NE(line, body + "\n") << body;
        EXPECT_EQ(line.find('\n'), line.size() - 1) << body;
        Json::Value value;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), value), 0) << line;
        EXPECT_TRUE(value.isObject());
        EXPECT_EQ(Engine::AlarmLine(line.substr(0, line.size() - 1)), line) << "valid UTF-8 now";
    }
}

class AlarmLogTest : public ::testing::Test {
  protected:
    std::string Read(const std::string& suffix = "") const {
        return test::TempDir::Read(path_ + suffix);
    }

    const test::LogCapture capture_;
    const test::TempDir directory_;
    const std::string path_ = directory_.Path("log/alarms.jsonl");
    Engine::AlarmLog log_{path_, 20, 2};
};

TEST_F(AlarmLogTest, Full_IsRotatedAndTheOldestGoes) {
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(log_.Append("{\"n\":" + std::to_string(i) + "}"));
    EXPECT_EQ(Read(), "{\"n\":6}\n{\"n\":7}\n");
    EXPECT_EQ(Read(".1"), "{\"n\":4}\n{\"n\":5}\n");
    EXPECT_EQ(Read(".2"), "{\"n\":2}\n{\"n\":3}\n");
    EXPECT_FALSE(fs::exists(path_ + ".3"));
}

TEST_F(AlarmLogTest, MovedOrRemovedByOthers_IsOpenedAnew) {
    log_.Append("{\"n\":1}");
    fs::rename(path_, path_ + ".moved");
    log_.Append("{\"n\":2}");
    EXPECT_EQ(Read(), "{\"n\":2}\n");
    EXPECT_EQ(Read(".moved"), "{\"n\":1}\n");
    fs::remove_all(directory_.Path("log"));
    log_.Append("{\"n\":3}");
    EXPECT_EQ(Read(), "{\"n\":3}\n");
}

TEST_F(AlarmLogTest, TornLine_IsTakenBack) {
    directory_.Write("log/alarms.jsonl", "{\"n\":1}\n{\"n\":");
    log_.Append("{\"n\":2}");
    EXPECT_EQ(Read(), "{\"n\":1}\n{\"n\":2}\n");
}

TEST_F(AlarmLogTest, DiskFull_LeavesWholeLinesAndRecovers) {
    // Long enough for the limit to leave room for the agent's log.
    const std::string first = "{\"n\":\"" + std::string(20000, 'x') + "\"}";
    Engine::AlarmLog log(path_, 1000000, 1);
    ASSERT_TRUE(log.Append(first));
    {
        const test::FileSizeLimit part_of_a_line(first.size() + 4);
        EXPECT_FALSE(log.Append("{\"n\":2}"));
        EXPECT_EQ(Read(), first + "\n");
    }
    EXPECT_EQ(capture_.Count("Error", "cannot write"), 1);
    EXPECT_TRUE(log.Append("{\"n\":4}"));
    EXPECT_EQ(Read(), first + "\n{\"n\":4}\n");
}

TEST_F(AlarmLogTest, LinkOrFifoInItsPlace_IsRefused) {
    fs::create_directories(directory_.Path("log"));
    const std::string elsewhere = directory_.Write("elsewhere", "");
    fs::create_symlink(elsewhere, path_);
    EXPECT_FALSE(log_.Append("{}"));
    fs::remove(path_);
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_FALSE(log_.Append("{}"));
    EXPECT_EQ(fs::file_size(elsewhere), 0U);
}

}  // namespace
