#include <gtest/gtest.h>
#include <sdk/commands/RunningCommand.h>

#include <algorithm>
#include <iterator>

#include "rsync/DaemonUnit.h"
#include "support/TempDir.h"

namespace {

constexpr const char* kProperty = "--property=";

/// The unit that `words` make, as a unit file.
std::string UnitFile(const std::vector<std::string>& words) {
    std::string text = "[Service]\nExecStart=/bin/true\n";
    std::string head = "[Unit]\nDescription=d\n";
    for (const std::string& word : words) {
        if (word.rfind(kProperty, 0) != 0) continue;
        const std::string setting = word.substr(std::string(kProperty).size());
        const bool is_order = setting.rfind("BindsTo=", 0) == 0 || setting.rfind("After=", 0) == 0;
        (is_order ? head : text) += setting + "\n";
    }
    return head + text;
}

/// What systemd-analyze prints, which is not allowed to leave anything on this machine.
std::string Analyze(const std::string& arguments, int& code) {
    SDK::RunningCommand analyze(
        {"/usr/bin/unshare", "--mount", "--propagation", "private", "/bin/sh", "-c",
         "mount -t tmpfs none /run && exec systemd-analyze --no-pager " + arguments + " 2>&1"},
        20000);
    std::string output;
    analyze.Wait(code, output, 65536);
    return output;
}

TEST(DaemonUnit, StartCommand_IsUnderstoodBySystemdAndClosed) {
    const test::TempDir dir;
    const std::vector<std::string> words = Engine::DaemonUnit::StartCommand(
        {"d.service", "a.service", "/opt/a b/d.pid", {"/srv/a \"b\" \\c"}, {"/bin/true", "--x"}});
    const std::string unit = dir.Write("d.service", UnitFile(words));
    int code = -1;
    EXPECT_EQ(Analyze("verify --man=no --recursive-errors=no " + unit, code), "");
    EXPECT_EQ(code, 0);
    const std::string exposure = Analyze("security --offline=true --threshold=40 " + unit, code);
    EXPECT_EQ(code, 0) << exposure;
}

TEST(DaemonUnit, StartCommand_QuotesPathsAndEndsItsOptions) {
    const std::vector<std::string> words = Engine::DaemonUnit::StartCommand(
        {"d.service", "", "/p", {"/srv/a \"b\" \\c"}, {"/x/rsync", "--daemon"}});
    const auto has = [&words](const std::string& word) {
        return std::find(words.begin(), words.end(), word) != words.end();
    };
    EXPECT_TRUE(has(R"(--property=ReadWritePaths=-"/srv/a \"b\" \\c")"));
    EXPECT_TRUE(has("--property=PIDFile=/p"));
    const std::vector<std::string> last(std::prev(words.end(), 3), words.end());
    EXPECT_EQ(last, (std::vector<std::string>{"--", "/x/rsync", "--daemon"}));
}

}  // namespace
