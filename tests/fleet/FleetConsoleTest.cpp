// The console of a fleet in a real browser, with 5,000 hosts, some of them hostile.
#include <console/ConsoleServer.h>
#include <fleet/SignedAct.h>
#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <thread>

#include "base/Password.h"
#include "centre/Delivery.h"
#include "centre/Rollouts.h"
#include "console/FleetBackend.h"
#include "console/UserAccess.h"
#include "support/TempDir.h"

namespace {

constexpr int kHosts = 5000;

std::int64_t NowMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

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
        state["time_ms"] = Json::Int64{NowMs() - (at == 4 ? 600'000 : 0)};
        state["health"]["state"] = at % 100 == 0 ? "degraded" : "healthy";
        if (at >= 10 && at < 30) state["groups"].append("web");
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

    /// Publishes what the console takes, and answers as hosts with that key do. host-10 rejects
    /// policies.
    void AnswerAsHosts(const SDK::SigningKey& key, const std::atomic<bool>& is_over) {
        Collector::RolloutStore rollouts;
        ASSERT_TRUE(rollouts.Open(Database()));
        std::vector<Collector::HostRecord> known;
        ASSERT_TRUE(store_.ReadHosts(known));
        Collector::Rollouts service(rollouts, {200, 60'000}, [&](const Fleet::Message& sent) {
            const auto topic = Fleet::ParseTopic(sent.topic);
            const auto host = std::find_if(known.begin(), known.end(), [&](const auto& one) {
                return one.agent_id == topic->agent_id;
            });
            Fleet::SignedAct act;
            Fleet::SignedPolicy policy;
            std::string error;
            Json::Value answer;
            answer["sha256"] = Collector::DigestOf(sent.payload);
            const bool is_act = topic->channel == "act";
            const bool is_signed = is_act ? Fleet::ReadSigned(sent.payload, key, act, error)
                                          : Fleet::ReadSigned(sent.payload, key, policy, error);
            answer["verdict"] = !is_signed ? "refused" : is_act ? "done" : "on";
            if (is_signed && host->agent_id == "host-10" && !is_act) answer["verdict"] = "rejected";
            answer["message"] = is_signed ? "As asked for." : error;
            if (act.name == "verify") {
                answer["details"]["differences"][0]["path"] = "/var/www/html/new <b>.php";
                answer["details"]["differences"][0]["kind"] = "added";
            }
            const std::string text = SDK::JsonUtils::JsonToString(answer);
            return is_act ? store_.SaveActResult(host->id, std::stoll(topic->leaf), text, NowMs())
                          : store_.SaveResult(host->id, topic->leaf, text, NowMs());
        });
        while (!is_over) {
            service.Work(NowMs());
            std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the service's own pace
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
    const auto key = SDK::SigningKey::Generate();
    std::atomic<bool> is_over{false};
    std::thread hosts([&] { AnswerAsHosts(*key, is_over); });
    EXPECT_EQ(std::system(("exec timeout 150 node " + folder + "/fleet.mjs " + server.Url() + " " +
                           dir_.Write("operator.key", key->PrivatePem()) + " " +
                           dir_.Write("other.key", SDK::SigningKey::Generate()->PrivatePem()))
                              .c_str()),
              0);
    is_over = true;
    hosts.join();
}

}  // namespace
