#include <ctl/Cli.h>
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <unistd.h>

#include "support/ApprovedSite.h"
#include "support/ControlFixture.h"

namespace {

/// morvanectl in this process, the control API, and a stand-in for the module.
class DecisionCtl : public test::ControlFixture {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(server_.Start(socket_, error)) << error;
        queries_.Register("baseline.request", [this](const Json::Value& request) {
            requests_.push_back(request);
            Json::Value answer;
            answer["id"] = 7;
            return answer;
        });
        queries_.Register("baseline.key", [this](const Json::Value& request) {
            keys_.push_back(request["key"].asString());
            return Json::Value(Json::objectValue);
        });
        queries_.Register("baseline.progress", [this](const Json::Value&) {
            Json::Value answer;
            answer["state"] = polls_ == 0 ? "waiting" : polls_ == 1 ? "running" : end_;
            answer["message"] = "said \x1b";
            ++polls_;
            return answer;
        });
        const SDK::FileDescriptor no_terminal(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::dup2(no_terminal.Get(), STDIN_FILENO), STDIN_FILENO);
    }

    int Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"morvanectl", "--socket", socket_});
        std::vector<const char*> pointers;
        for (const std::string& argument : arguments) pointers.push_back(argument.c_str());
        requests_.clear();
        polls_ = 0;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = Ctl::Main(static_cast<int>(pointers.size()), pointers.data());
        out_ = testing::internal::GetCapturedStdout();
        errors_ = testing::internal::GetCapturedStderr();
        return code;
    }

    test::ApprovedSite site_;
    const std::string socket_ = dir_.Path("agent.sock");
    Agent::ControlServer server_{routes_};
    std::vector<Json::Value> requests_;
    std::vector<std::string> keys_;
    std::string end_ = "done";
    int polls_ = 0;
    std::string out_;
    std::string errors_;
};

TEST_F(DecisionCtl, EachDecision_ReachesTheModuleAsItWasMeant) {
    site_.Approve("first");
    const std::string root = site_.Path();
    const std::string key = site_.Data() + "/signing.key";
    struct Row {
        std::vector<std::string> arguments;
        std::string action;
        std::vector<std::string> paths;
        bool all;
    };
    for (const Row& row : std::vector<Row>{
             {{"accept", root + "/a\xff%", root + "/b/"},
              "accept",
              {root + "/a%FF%25", root + "/b"},
              false},
             {{"accept", root + "/home"}, "accept", {root + "/home"}, false},
             {{"accept", "--all"}, "accept", {}, true},
             {{"restore", root + "/a/../x"}, "restore", {root + "/x"}, false},
             {{"baseline", "rollback", "3", "--yes"}, "rollback", {root}, false},
             {{"baseline", "rollback", "3", "--dry-run", root + "/a"},
              "rollback",
              {root + "/a"},
              false},
             {{"accept", "--all", "--key", key}, "accept", {}, true},
         }) {
        EXPECT_EQ(Run(row.arguments), 0) << errors_;
        EXPECT_EQ(out_, "said \\x1b\n");
        EXPECT_EQ(polls_, 3);
        ASSERT_EQ(requests_.size(), 1U);
        const Json::Value& request = requests_.front();
        EXPECT_EQ(request["action"].asString(), row.action);
        std::vector<std::string> paths;
        for (const Json::Value& path : request["paths"]) paths.push_back(path.asString());
        EXPECT_EQ(paths, row.paths);
        EXPECT_EQ(request["generation"].asInt(), row.action == "rollback" ? 3 : 0);
        EXPECT_EQ(request["all"].asBool(), row.all);
    }
    EXPECT_EQ(keys_, std::vector<std::string>{test::TempDir::Read(key)});
}

TEST_F(DecisionCtl, WhatIsNotDecided_AsksTheModuleForNothing) {
    site_.Approve("first");
    for (const auto& [arguments, code] : std::vector<std::pair<std::vector<std::string>, int>>{
             {{"accept"}, 2},
             {{"restore"}, 2},
             {{"accept", "--all", "/a"}, 2},
             {{"accept", ""}, 2},
             {{"baseline", "rollback"}, 2},
             {{"baseline", "rollback", "0", "--yes"}, 2},
             {{"baseline", "rollback", "3"}, 1},
             {{"accept", "--all", "--key", "/none"}, 1},
             {{"accept", "--all", "--key", site_.Data() + "/signing.pub"}, 1},
             {{"restore", "--dry-run", site_.Path()}, 0},
         }) {
        EXPECT_EQ(Run(arguments), code) << arguments.back() << errors_;
        EXPECT_TRUE(requests_.empty()) << arguments.back();
    }
    site_.Write("index.html", "PAGE\n");
    EXPECT_EQ(Run({"restore", "--dry-run", "--all"}), 2);
    EXPECT_NE(out_.find("changed     " + site_.Path("index.html")), std::string::npos) << out_;
}

TEST_F(DecisionCtl, EndThatIsNotGood_HasAnExitCodeOfItsOwn) {
    end_ = "failed";
    EXPECT_EQ(Run({"accept", "--all"}), 1);
    EXPECT_EQ(errors_, "said \\x1b\n");
    queries_.Register("baseline.progress", [](const Json::Value&) {
        Json::Value answer;
        answer["error"] = "forgotten";
        return answer;
    });
    EXPECT_EQ(Run({"accept", "--all"}), 1);
    queries_.Register("baseline.request", [](const Json::Value&) {
        Json::Value answer;
        answer["error"] = "not protected";
        return answer;
    });
    EXPECT_EQ(Run({"accept", "/a"}), 4);
    EXPECT_EQ(errors_, "not protected\n");
    queries_.Unregister("baseline.request");
    EXPECT_EQ(Run({"accept", "/a"}), 1);
    server_.Stop();
    EXPECT_EQ(Run({"accept", "/a"}), 5);
}

}  // namespace
