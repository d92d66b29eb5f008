#include <sdk/text/JsonUtils.h>
#include <unistd.h>

#include "support/ControlFixture.h"
#include "support/RawConnection.h"

namespace {

/// The control API with a stand-in for the module that answers for baselines.
class BaselineRoutes : public test::ControlFixture {
  protected:
    BaselineRoutes() {
        queries_.Register("baseline.request", [this](const Json::Value& request) {
            last_ = request;
            Json::Value answer;
            if (request["paths"].empty() || request["paths"][0] != "/refused") answer["id"] = 7;
            if (answer.isNull()) answer["error"] = "not protected";
            return answer;
        });
        queries_.Register("baseline.key", [](const Json::Value& request) {
            Json::Value answer(Json::objectValue);
            if (request["key"] != "a key") answer["error"] = "not taken";
            return answer;
        });
        queries_.Register("baseline.progress", [](const Json::Value& request) {
            Json::Value answer;
            answer[request["id"].asInt() == 7 ? "state" : "error"] = "running";
            return answer;
        });
    }

    int Status(const std::string& method, const std::string& address, const std::string& body) {
        Agent::ControlRequest request;
        request.method = method;
        request.body = body;
        request.path = {"v1", "baseline"};
        for (std::size_t at = 0; at != std::string::npos;) {
            const std::size_t end = address.find('/', at);
            request.path.push_back(address.substr(at, end - at));
            at = end == std::string::npos ? end : end + 1;
        }
        const Agent::Reply reply = routes_.Handle(request);
        EXPECT_EQ(reply.status >= 400, reply.body.isMember("error"));
        return reply.status;
    }

    Json::Value last_;
};

TEST_F(BaselineRoutes, OnlyWellFormedRequests_ReachTheModule) {
    struct Row {
        const char* method;
        const char* address;
        const char* body;
        int status;
    };
    for (const Row& row : std::vector<Row>{
             {"POST", "accept", R"({"paths":["/a%FF"]})", 202},
             {"POST", "accept", R"({"all":true})", 202},
             {"POST", "restore", R"({"paths":["/a"],"all":false})", 202},
             {"POST", "rollback", R"({"paths":["/a"],"generation":3})", 202},
             {"POST", "rollback", R"({"generation":3,"dry_run":true})", 202},
             {"POST", "accept", R"({"paths":["/refused"]})", 422},
             {"POST", "accept", "", 400},
             {"POST", "accept", "[]", 400},
             {"POST", "accept", "{}", 400},
             {"POST", "accept", R"({"paths":["/a"],"all":true})", 400},
             {"POST", "accept", R"({"paths":["a"]})", 400},
             {"POST", "accept", R"({"paths":["/a%0"]})", 400},
             {"POST", "accept", R"({"paths":["/a%00"]})", 400},
             {"POST", "accept", R"({"paths":[1]})", 400},
             {"POST", "accept", R"({"paths":"/a"})", 400},
             {"POST", "rollback", R"({"paths":["/a"]})", 400},
             {"POST", "rollback", R"({"generation":-1})", 400},
             {"POST", "rollback", R"({"generation":1,"dry_run":1})", 400},
             {"GET", "key", "", 405},
             {"GET", "accept", "", 405},
             {"POST", "forget", R"({"all":true})", 404},
             {"GET", "requests/7", "", 200},
             {"GET", "requests/8", "", 404},
             {"GET", "requests/-7", "", 400},
             {"POST", "requests/7", "", 405},
         }) {
        last_ = Json::Value();
        EXPECT_EQ(Status(row.method, row.address, row.body), row.status)
            << row.address << " " << row.body;
        const bool asked = row.status == 202 || row.status == 422;
        EXPECT_EQ(last_.isNull(), !asked) << row.body;
    }
    EXPECT_EQ(Status("POST", "key", "a key"), 200);
    EXPECT_EQ(Status("POST", "key", "another"), 422);
    queries_.Unregister("baseline.request");
    EXPECT_EQ(Status("POST", "accept", R"({"all":true})"), 503);
}

TEST_F(BaselineRoutes, Request_TellsTheModuleWhoAsks) {
    Agent::ControlServer server(routes_);
    std::string error;
    ASSERT_TRUE(server.Start(dir_.Path("agent.sock"), error)) << error;
    test::RawConnection client(dir_.Path("agent.sock"));
    const std::string body = R"({"paths":["/a%FF"],"uid":0,"pid":1})";
    client.Send("POST /v1/baseline/accept HTTP/1.1\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_EQ(client.Receive().compare(0, 12, "HTTP/1.1 202"), 0);
    Json::Value expected;
    expected["action"] = "accept";
    expected["paths"].append("/a%FF");
    expected["all"] = false;
    expected["dry_run"] = false;
    expected["uid"] = ::getuid();
    expected["pid"] = ::getpid();
    EXPECT_EQ(SDK::JsonUtils::JsonToString(last_), SDK::JsonUtils::JsonToString(expected));
}

}  // namespace
