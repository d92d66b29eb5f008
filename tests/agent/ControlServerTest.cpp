
#include <filesystem>
#include <future>

#include "support/ControlFixture.h"
#include "support/RawConnection.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;
using test::RawConnection;

constexpr std::size_t kMiB = 1024 * 1024;

std::string Put(const std::string& body, std::size_t claimed) {
    return "PUT /v1/policies/feature_a HTTP/1.1\r\nHost: x\r\nContent-Length: " +
           std::to_string(claimed) + "\r\n\r\n" + body;
}

class ControlServer : public test::ControlFixture {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(server_.Start(socket_, error)) << error;
    }

    /// The status code of the answer; 0 when there was none. The answer is JSON.
    int Status(const std::string& request) {
        RawConnection client(socket_);
        client.Send(request);
        return StatusOf(client.Receive());
    }

    static int StatusOf(const std::string& answer) {
        if (answer.compare(0, 9, "HTTP/1.1 ") != 0) return 0;
        EXPECT_NE(answer.find("application/json"), std::string::npos) << answer;
        EXPECT_NE(answer.find("\r\n\r\n{"), std::string::npos) << answer;
        return std::stoi(answer.substr(9));
    }

    int Healthy() { return Status("GET /v1/status HTTP/1.1\r\nHost: x\r\n\r\n"); }

    const std::string socket_ = dir_.Path("agent.sock");
    Agent::ControlServer server_{routes_};
};

TEST_F(ControlServer, Socket_IsOursAloneAndPeersAreChecked) {
    EXPECT_EQ(std::filesystem::status(socket_).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(Healthy(), 200);
    server_.Stop();
    Agent::ControlServer strict(routes_, [](const Poco::Net::StreamSocket&) { return false; });
    std::string error;
    ASSERT_TRUE(strict.Start(socket_, error)) << error;
    EXPECT_EQ(Healthy(), 403);
}

TEST_F(ControlServer, MalformedRequests_AreRefusedAndHarmNothing) {
    EXPECT_EQ(Status("GET /v1/status HTTP/1.1\r\n" + std::string(1000, 'x') + ": y\r\n\r\n"), 400);
    EXPECT_EQ(Status("GET /" + std::string(100000, 'x') + " HTTP/1.1\r\n\r\n"), 400);
    EXPECT_EQ(Status("PUT /v1/policies/feature_a HTTP/1.1\r\nContent-Length: x\r\n\r\non"), 400);
    EXPECT_EQ(Status("PUT /v1/policies/feature_a HTTP/1.1\r\nContent-Length: -5\r\n\r\non"), 400);
    EXPECT_EQ(Status("PUT /v1/policies/feature_a HTTP/1.1\r\nHost: x\r\n\r\n"), 411);
    for (const auto& [line, status] :
         std::vector<std::pair<std::string, int>>{{"GET /v1/%zz", 400},
                                                  {"GET /v1/reports?kind=x", 400},
                                                  {"GET /v1/reports?after=-1", 400},
                                                  {"GET /v1/reports?limit=ten", 400},
                                                  {"GET /v1/reports?wait_ms=", 400},
                                                  {"GET /v1/reports?colour=1", 400},
                                                  {"GET /v2/status", 404},
                                                  {"POST /v1/tasklets/none", 404},
                                                  {"POST /v1/tasklets/broken", 500},
                                                  {"DELETE /v1/status", 405},
                                                  {"DELETE /v1/policies/feature_a", 405}}) {
        EXPECT_EQ(Status(line + " HTTP/1.1\r\nContent-Length: 0\r\n\r\n"), status) << line;
    }
    EXPECT_EQ(Status("PUT /v1/policies/%2e%2e/x HTTP/1.1\r\nContent-Length: 2\r\n\r\non"), 400);
    std::string header = "GET /v1/status HTTP/1.1\r\n";
    for (int i = 0; i < 20000; ++i) header += "X-" + std::to_string(i) + ": y\r\n";
    EXPECT_EQ(Status(header + "\r\n"), 400);
    Status(std::string("\0\xff\x16\x03\x01\0\n\n\n", 9) + "\r\n\r\n");
    EXPECT_TRUE(host_.applied.empty());
    EXPECT_EQ(Healthy(), 200);
}

TEST_F(ControlServer, BodyOverTheLimit_IsTooLargeHoweverItIsSent) {
    EXPECT_EQ(Status(Put(std::string(10 * kMiB, 'x'), 10 * kMiB)), 413);
    EXPECT_EQ(Status("PUT /v1/policies/feature_a HTTP/1.1\r\nExpect: 100-continue\r\n"
                     "Content-Length: 10485760\r\n\r\n"),
              413);
    std::string chunks =
        "PUT /v1/policies/feature_a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < 5; ++i) chunks += "100000\r\n" + std::string(kMiB, 'x') + "\r\n";
    EXPECT_EQ(Status(chunks + "0\r\n\r\n"), 413);
    EXPECT_TRUE(host_.applied.empty());
}

TEST_F(ControlServer, BodyThatEndsEarly_IsNotApplied) {
    RawConnection client(socket_);
    ASSERT_TRUE(client.Send(Put("on", 100)));
    client.Close();
    EXPECT_EQ(StatusOf(client.Receive()), 400);
    EXPECT_TRUE(host_.applied.empty());
    EXPECT_EQ(Status(Put("on", 2)), 200);
}

TEST_F(ControlServer, ClientsThatDawdle_HoldUpNeitherOthersNorTheStop) {
    std::vector<RawConnection> slow;
    for (int i = 0; i < 8; ++i) {
        slow.emplace_back(socket_);
        ASSERT_TRUE(slow.back().Send("PUT /v1/policies/feature_a HTT"));
    }
    auto waiting = std::async(std::launch::async, [&] {
        return Status("GET /v1/reports?after=0&wait_ms=30000 HTTP/1.1\r\nHost: x\r\n\r\n");
    });
    ASSERT_TRUE(test::WaitFor([&] { return reports_.TimesAsked() > 0; }, 5s));
    EXPECT_EQ(Healthy(), 200);
    auto stopped = std::async(std::launch::async, [&] {
        reader_.Stop();
        server_.Stop();
    });
    EXPECT_EQ(stopped.wait_for(9s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), 200);
}

}  // namespace
