// The console of a fleet in a real browser, with 5,000 hosts, some of them hostile.
#include <console/ConsoleServer.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "base/Password.h"
#include "console/FleetBackend.h"
#include "console/UserAccess.h"
#include "support/TempDir.h"

namespace {

constexpr int kHosts = 5000;

class FleetConsole : public testing::Test {
  protected:
    FleetConsole() {
        EXPECT_TRUE(store_.Open(Database())) << store_.Error();
        EXPECT_TRUE(store_.Begin());
        for (int at = 0; at < kHosts; ++at) AddHost(at);
        AddAlarms();
        EXPECT_TRUE(store_.Commit());
        Collector::UserStore users;
        EXPECT_TRUE(users.Open(Database()));
        Collector::UserRecord user;
        user.name = "anna";
        user.role = Console::Role::kAdmin;
        user.password_hash = Collector::HashPassword("correct horse");
        EXPECT_TRUE(users.Save(user));
    }

    std::string Database() const { return dir_.Path("fleet.db"); }

    static std::string StateOf(int at) {
        // A host may say anything.
        if (at == 1)
            return R"({"host":7,"health":{"state":[],"reasons":[1,{"text":{}}]},"protected_paths":[1,{}]})";
        if (at == 2) return "no JSON";
        Json::Value state;
        state["host"] = at == 3 ? "<img src=x onerror=hacked=1>" : "web" + std::to_string(at);
        state["version"] = "0.1.0";
        state["health"]["state"] = at % 100 == 0 ? "degraded" : "healthy";
        if (at % 100 == 0) state["health"]["reasons"][0]["text"] = "1 change waits for a decision";
        state["protected_paths"][0]["path"] = "/var/www/html/";
        state["protected_paths"][0]["state"] = "ready";
        return SDK::JsonUtils::JsonToString(state);
    }

    void AddHost(int at) {
        Collector::HostRecord host;
        host.agent_id = "host-" + std::to_string(at);
        host.state = StateOf(at);
        host.silent = at == 42;
        host.last_seen_ms = std::time(nullptr) * 1000;
        ASSERT_TRUE(store_.AddHost(host));
        if (at == 42) {
            ASSERT_TRUE(store_.AddEvent(host.id, "silent", "the connection of the host is lost",
                                        host.last_seen_ms));
            ASSERT_TRUE(store_.SaveResult(
                host.id, "sentrel_feature",
                R"({"verdict":"on","version":3,"sha256":"abcdef0123456789"})", host.last_seen_ms));
        }
    }

    void AddAlarms() {
        Collector::HostRecord host;
        host.id = 1;
        const char* const bodies[] = {
            R"({"event_count":1,"file_info":[{"action":"modify","file_path":"/var/www/html/index.html",)"
            R"("diff":"1c1\n< <script>hacked = 1</script>\n---\n> welcome\n","diff_attr":""}]})",
            R"({"event_count":1e300,"file_info":[7]})",
            R"({"file_info":{}})",
            "[]",
            "\xff",
            ""};
        Fleet::Report report;
        report.kind = "alarm";
        report.outcome = "restored";
        for (const char* body : bodies) {
            ++report.seq;
            report.time_ms = std::time(nullptr) * 1000;
            report.duration_ms = report.seq == 1 ? "0.8" : "nan";
            report.body = body;
            ASSERT_TRUE(store_.AddReport(host, report, report.time_ms));
        }
    }

    test::TempDir dir_;
    Collector::FleetStore store_;
};

TEST_F(FleetConsole, PersonWithABrowser_FindsTheHostThatMatters) {
    const std::string folder = SENTREL_BROWSER_TEST;
    if (!std::filesystem::exists(folder + "/node_modules")) {
        GTEST_SKIP() << "scripts/test.sh installs what drives the browser";
    }
    Collector::UserAccess access([] { return static_cast<std::int64_t>(std::time(nullptr)); });
    Collector::FleetBackend backend;
    std::string error;
    ASSERT_TRUE(access.Open(Database(), error)) << error;
    ASSERT_TRUE(backend.Open(Database(), error)) << error;
    Console::ConsoleServer server({}, access, backend);
    ASSERT_TRUE(server.Start(error)) << error;
    EXPECT_EQ(
        std::system(("exec timeout 100 node " + folder + "/fleet.mjs " + server.Url()).c_str()), 0);
}

}  // namespace
