#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <ctl/Cli.h>
#include <ctl/doctor/AgentChecks.h>
#include <ctl/doctor/ServerChecks.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <thread>

#include "support/ApprovedSite.h"

namespace {

namespace fs = std::filesystem;
using Level = Ctl::Finding::Level;

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value), 0) << text;
    return value;
}

bool Knows(const std::vector<std::string>& list, const std::string& text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

TEST(Doctor, WhatTheAgentSays_BecomesFindings) {
    struct Row {
        const char* status;
        const char* code;
        Level level;
    };
    for (const Row& row : std::vector<Row>{
             {R"({"health":{"state":"off","reasons":[{"code":"off","text":"t","path":""}]}})",
              "off", Level::kProblem},
             {R"({"health":{"reasons":[{"code":"held","text":"t","path":"/s"}]}})", "held",
              Level::kWarning},
             {R"({"health":{"reasons":[{"code":"new","text":"t","path":"/s"}]}})", "new",
              Level::kWarning},
             {R"({"rsync":{"degraded":true}})", "rsync_degraded", Level::kWarning},
             {R"({"rsync":{"preload":{"in_use":false,"reason":"r"}}})", "no_preload",
              Level::kWarning},
             {R"({"reports":{"working":false}})", "report_store", Level::kProblem},
             {R"({"counters":{"planted_links_removed":2}})", "planted_links", Level::kWarning},
             {R"({"filenotify":{"queue_limit_problem":"q"}})", "queue_limit", Level::kWarning},
             {R"({"backup":{"remote_pending":true}})", "remote_pending", Level::kWarning},
             {R"({"health":{"state":"healthy","reasons":[]}})", "", Level::kOk},
         }) {
        Ctl::Answer answer;
        answer.kind = Ctl::Answer::Kind::kAnswered;
        answer.status = 200;
        answer.body = Parse(row.status);
        Ctl::Findings findings;
        Ctl::CheckAgent(answer, 0, findings);
        EXPECT_EQ(findings.Worst(), row.level) << row.status;
        std::vector<std::string> codes;
        for (const Ctl::Finding& one : findings.All()) {
            if (!one.code.empty()) codes.push_back(one.code);
        }
        EXPECT_EQ(codes, row.code[0] == '\0' ? std::vector<std::string>()
                                             : std::vector<std::string>{row.code});
    }
}

/// morvanectl in this process, with an installation without an agent.
class DoctorCtl : public ::testing::Test {
  protected:
    int Run(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "morvanectl");
        testing::internal::CaptureStdout();
        const int code = Ctl::Main(static_cast<int>(arguments.size()), arguments.data());
        out_ = testing::internal::GetCapturedStdout();
        return code;
    }
    std::vector<std::string> Codes() const {
        std::vector<std::string> codes;
        const Json::Value report = Parse(out_);
        for (const Json::Value& check : report["checks"]) {
            codes.push_back(check["code"].asString());
        }
        return codes;
    }

    test::ApprovedSite site_;
    std::string out_;
};

TEST_F(DoctorCtl, LostCopies_AreAProblemWithAdvice) {
    site_.Approve("first");
    site_.WritePolicy(site_.Path());
    EXPECT_EQ(Run({"doctor", "--json"}), 2);
    EXPECT_EQ(Parse(out_)["state"].asString(), "problem");
    EXPECT_TRUE(Knows(Codes(), "no_agent")) << out_;
    EXPECT_FALSE(Knows(Codes(), "copies_gone")) << out_;
    fs::remove_all(site_.Copy());
    EXPECT_EQ(Run({"doctor", "--json"}), 2);
    EXPECT_TRUE(Knows(Codes(), "copies_gone")) << out_;
    EXPECT_EQ(Run({"doctor"}), 2);
    EXPECT_NE(out_.find("To do: mount them, or fetch them"), std::string::npos) << out_;
    EXPECT_NE(out_.find("problems, "), std::string::npos) << out_;
}

TEST_F(DoctorCtl, BackupServer_IsAskedForItsGreeting) {
    Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    const std::string port = std::to_string(socket.address().port());
    site_.WritePolicyText(R"({"enabled":true,"content":{"backup_type":2,"backup_addr":"127.0.0.1",)"
                          R"("backup_port":)" +
                          port + "}}");
    for (const auto& [greeting, is_good] : std::vector<std::pair<std::string, bool>>{
             {"@RSYNCD: 31.0\n", true}, {"SSH-2.0-x", false}}) {
        std::thread server([&socket, greeting = greeting] {
            Poco::Net::StreamSocket client = socket.acceptConnection();
            client.sendBytes(greeting.data(), static_cast<int>(greeting.size()));
        });
        Ctl::Findings findings;
        Ctl::CheckBackupServer(findings);
        server.join();
        ASSERT_EQ(findings.All().size(), 2U);
        EXPECT_EQ(findings.All().front().code, "no_password");
        EXPECT_EQ(findings.All().back().code, is_good ? "" : "no_connection");
    }
    socket.close();
    Ctl::Findings findings;
    Ctl::CheckBackupServer(findings);
    EXPECT_EQ(findings.All().back().code, "no_connection");
}

}  // namespace
