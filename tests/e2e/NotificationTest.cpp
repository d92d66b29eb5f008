// People are told what happened, by the agent as it is.
#include <sdk/text/Hmac.h>
#include <sdk/text/JsonUtils.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <fstream>

#include "support/HttpReceiver.h"
#include "support/ProtectedSite.h"

namespace {

using test::TempDir;

class Notification : public test::ProtectedSite {
  protected:
    std::string Script(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(agent_.Path(name)).parent_path());
        std::ofstream(agent_.Path(name)) << "#!/bin/sh\n" << text;
        ::chmod(agent_.Path(name).c_str(), 0755);
        return agent_.Path(name);
    }
    void Configure(const std::string& webhook) const {
        const std::string secret = agent_.Path("conf/webhook.secret");
        std::ofstream(secret) << "key";
        ::chmod(secret.c_str(), 0600);
        std::ofstream(agent_.Path("conf/agent.json"))
            << R"({"notify": {"settle_seconds": 1, "webhook": {"url": ")" << webhook
            << R"(", "secret_file": "conf/webhook.secret"}, "mail": {"to": "root", "sendmail": ")"
            << Script("conf/sendmail", "cat >> " + agent_.Path("data/mail")) << R"("}}})";
    }
    std::string Incident(const test::HttpReceiver& receiver) const {
        for (const auto& request : receiver.Requests()) {
            if (request.body.find(R"("kind":"incident")") != std::string::npos) return request.body;
        }
        return "";
    }
};

TEST_F(Notification, ChangesDuringAnOutage_AreToldAfterAStart) {
    test::HttpReceiver receiver;
    Configure(receiver.Url("/sentrel"));
    Script("conf/hooks/after-restore", "tr '\\0' '\\n' >> " + agent_.Path("data/restored"));
    receiver.Answer(503);
    Protect();
    EXPECT_TRUE(TamperingIsUndone("index.html"));
    EXPECT_TRUE(Await([&] { return !Incident(receiver).empty(); }));
    EXPECT_TRUE(Await([&] {
        return TempDir::Read(agent_.Path("data/restored")) == site_.Path("index.html") + "\n";
    }));
    EXPECT_TRUE(Await([&] {
        return TempDir::Read(agent_.Path("data/mail"))
                   .find("    - modify " + site_.Path("index.html") + ": restored in ") !=
               std::string::npos;
    })) << TempDir::Read(agent_.Path("data/mail"));
    EXPECT_EQ(agent_.Ctl({"notify", "status"}).exit_code, 1);
    EXPECT_EQ(agent_.Ctl({"notify", "test", "webhook"}).exit_code, 1);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(agent_.Stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, test::Scaled(std::chrono::seconds(10)));
    receiver.Answer(204);
    const std::size_t before = receiver.Requests().size();
    ASSERT_TRUE(agent_.Start());
    EXPECT_TRUE(Await([&] { return receiver.Requests().size() > before; }));
    const auto again = receiver.Requests().back();
    EXPECT_EQ(again.header.get("X-Sentrel-Id"),
              receiver.Requests().front().header.get("X-Sentrel-Id"));
    EXPECT_EQ(again.header.get("X-Sentrel-Signature"),
              "sha256=" + SDK::HmacSha256(
                              "key", again.header.get("X-Sentrel-Timestamp") + "." + again.body));
    EXPECT_TRUE(Await([&] {
        return agent_.Ctl({"notify", "status"}).exit_code == 0;
    })) << agent_.Ctl({"notify", "status"}).out;
    const test::CommandResult test = agent_.Ctl({"notify", "test"});
    EXPECT_EQ(test.exit_code, 0) << test.out << test.err;
}

TEST_F(Notification, MetricsOfARunningAgent_PassThePrometheusChecker) {
    if (std::system("command -v promtool > /dev/null") != 0) {
        GTEST_SKIP() << "promtool (Debian package prometheus) is not installed";
    }
    Protect();
    EXPECT_TRUE(TamperingIsUndone("index.html"));
    const std::string file = agent_.Path("data/metrics");
    std::ofstream(file) << agent_.Ctl({"metrics"}).out;
    EXPECT_EQ(std::system(("promtool check metrics < " + file).c_str()), 0) << TempDir::Read(file);
}

TEST_F(Notification, WrongSettings_AreToldAndDoNotStopTheProtection) {
    Configure("http://example.org/");
    const test::CommandResult check = agent_.RunAgent({"--check"});
    EXPECT_EQ(check.exit_code, 1);
    EXPECT_NE(check.err.find("/notify/webhook/url: must begin with https://"), std::string::npos)
        << check.err;
    Protect();
    EXPECT_TRUE(TamperingIsUndone("index.html"));
    const test::CommandResult status = agent_.Ctl({"status"});
    EXPECT_EQ(status.exit_code, 1);
    EXPECT_NE(status.out.find("notification"), std::string::npos) << status.out;
}

}  // namespace
