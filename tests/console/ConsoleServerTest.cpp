#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>
#include <console/ConsoleServer.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <cstdlib>
#include <utility>

#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

/// Answers with what it was asked.
class EchoBackend : public Console::Backend {
  public:
    std::string Mode() const override { return "host"; }
    Console::Reply Handle(const Console::Request& request) override {
        Console::Reply reply;
        if (request.path == std::vector<std::string>{"file"}) {
            reply.content = "<script>";
            reply.file_name = "found.bin";
            return reply;
        }
        reply.body["method"] = request.method;
        for (const std::string& segment : request.path) reply.body["path"].append(segment);
        reply.body["user"] = request.user.name;
        reply.body["body"] = request.body;
        return reply;
    }
    void Stop() override {}
};

struct Got {
    int status = 0;
    HTTPResponse response;
    std::string text;
    Json::Value body;
};

class Server : public ::testing::Test {
  protected:
    void SetUp() override { Start(); }

    void Start(std::chrono::seconds idle_limit = 1h) {
        server_.reset();
        Console::ConsoleServer::Options options;
        options.idle_limit = idle_limit;
        server_ = std::make_unique<Console::ConsoleServer>(options, access_, backend_);
        std::string error;
        ASSERT_TRUE(server_->Start(error)) << error;
    }

    using Headers = std::vector<std::pair<std::string, std::string>>;

    Got Send(const std::string& method, const std::string& address, const std::string& body = "",
             Headers headers = {}) const {
        const Poco::URI uri(server_->Url());
        Poco::Net::HTTPClientSession session(uri.getHost(), uri.getPort());
        HTTPRequest request(method, address, HTTPRequest::HTTP_1_1);
        request.setHost(uri.getAuthority());
        if (!cookie_.empty()) request.set("Cookie", "sentrel_session=" + cookie_);
        for (const auto& [name, value] : headers) request.set(name, value);
        request.setContentLength(static_cast<std::streamsize>(body.size()));
        Got got;
        session.sendRequest(request) << body;
        Poco::StreamCopier::copyToString(session.receiveResponse(got.response), got.text);
        got.status = got.response.getStatus();
        SDK::JsonUtils::ParseJsonStr(got.text.data(), got.text.size(), got.body);
        return got;
    }

    Got LogIn(const std::string& token) {
        Got got = Send("POST", "/api/login", "{\"token\":\"" + token + "\"}");
        std::vector<Poco::Net::HTTPCookie> cookies;
        got.response.getCookies(cookies);
        if (!cookies.empty()) cookie_ = cookies.front().getValue();
        csrf_ = SDK::JsonUtils::GetStringValue(got.body, "csrf", "");
        return got;
    }

    Headers WithCsrf() const { return {{"X-Csrf-Token", csrf_}}; }

    Console::OneTimeToken access_{{"root", Console::Role::kAdmin}, 1h};
    EchoBackend backend_;
    std::unique_ptr<Console::ConsoleServer> server_;
    std::string cookie_;
    std::string csrf_;
};

TEST_F(Server, TokenIsGoodOnceAndTheCookieIsOutOfReachOfScripts) {
    EXPECT_EQ(Send("GET", "/api/hosts").status, 401);
    EXPECT_FALSE(Send("GET", "/api/session").body["logged_in"].asBool());
    EXPECT_EQ(LogIn("").status, 401);
    EXPECT_EQ(LogIn(std::string(64, '0')).status, 401);
    EXPECT_EQ(Send("POST", "/api/login", "{\"token\":7}").status, 401);
    const Got first = LogIn(access_.Token());
    ASSERT_EQ(first.status, 200);
    const std::string cookie = first.response.get("Set-Cookie");
    for (const char* part : {"HttpOnly", "SameSite=Strict", "path=/"}) {
        EXPECT_NE(cookie.find(part), std::string::npos) << cookie;
    }
    const Got hosts = Send("GET", "/api/hosts/a%2Fb?x=1");
    EXPECT_EQ(hosts.body["user"], "root");
    EXPECT_EQ(hosts.body["path"][1], "a/b");
    const std::string before = std::exchange(cookie_, "");
    EXPECT_EQ(LogIn(access_.Token()).status, 401) << "a second time";
    EXPECT_EQ(Send("GET", "/api/hosts", "", {{"Cookie", "sentrel_session=" + before + "0"}}).status,
              401);
}

TEST_F(Server, ChangesMustComeFromItsOwnPage) {
    ASSERT_EQ(LogIn(access_.Token()).status, 200);
    const std::string body = "{\"all\":true}";
    EXPECT_EQ(Send("POST", "/api/hosts/1/accept", body).status, 403);
    EXPECT_EQ(Send("POST", "/api/hosts/1/accept", body, {{"X-Csrf-Token", cookie_}}).status, 403);
    Headers foreign = WithCsrf();
    foreign.emplace_back("Origin", "http://evil.example");
    EXPECT_EQ(Send("POST", "/api/hosts/1/accept", body, foreign).status, 403);
    foreign.back().second = "null";
    EXPECT_EQ(Send("POST", "/api/hosts/1/accept", body, foreign).status, 403);
    Headers own = WithCsrf();
    own.emplace_back("Origin", server_->Url());
    const Got done = Send("POST", "/api/hosts/1/accept", body, own);
    EXPECT_EQ(done.status, 200);
    EXPECT_TRUE(done.body["body"]["all"].asBool());
    EXPECT_EQ(Send("POST", "/api/logout", "{}", WithCsrf()).status, 200);
    EXPECT_EQ(Send("GET", "/api/hosts").status, 401);
}

TEST_F(Server, NameThatOnlyLeadsHereIsRefused) {
    for (const char* host : {"evil.example", "127.0.0.1", "127.0.0.1:1", "", "localhost:1"}) {
        EXPECT_EQ(Send("GET", "/", "", {{"Host", host}}).status, 421) << host;
    }
    const std::string port = std::to_string(Poco::URI(server_->Url()).getPort());
    EXPECT_EQ(Send("GET", "/", "", {{"Host", "localhost:" + port}}).status, 200);
}

TEST_F(Server, EveryAnswerForbidsForeignScriptsAndFrames) {
    ASSERT_EQ(LogIn(access_.Token()).status, 200);
    for (const char* address : {"/", "/app.js", "/none", "/api/hosts", "/api/file", "/api/session",
                                "/../etc/passwd", "/%2e%2e/etc/passwd", "//"}) {
        const Got got = Send("GET", address);
        const std::string policy = got.response.get("Content-Security-Policy", "");
        EXPECT_EQ(policy.rfind("default-src 'none'; script-src 'self'", 0), 0U) << address;
        EXPECT_NE(policy.find("frame-ancestors 'none'"), std::string::npos) << address;
        EXPECT_EQ(got.response.get("X-Content-Type-Options", ""), "nosniff") << address;
        EXPECT_EQ(got.text.find("root:"), std::string::npos) << address;
    }
    const Got file = Send("GET", "/api/file");
    EXPECT_EQ(file.response.getContentType(), "application/octet-stream");
    EXPECT_EQ(file.response.get("Content-Disposition"), "attachment; filename=\"found.bin\"");
    EXPECT_EQ(Send("GET", "/").text.find("http:"), std::string::npos) << "nothing from elsewhere";
}

TEST_F(Server, BadRequestsGetASentence) {
    ASSERT_EQ(LogIn(access_.Token()).status, 200);
    const std::pair<std::string, int> bodies[] = {
        {"", 400},
        {"[]", 400},
        {"{", 400},
        {std::string(1000, '['), 400},
        {"{\"a\":\"" + std::string(5UL * 1024 * 1024, 'x') + "\"}", 413}};
    for (const auto& [body, status] : bodies) {
        const Got got = Send("POST", "/api/x", body, WithCsrf());
        EXPECT_EQ(got.status, status) << body.substr(0, 20);
        EXPECT_FALSE(got.body["error"].asString().empty());
    }
    for (const char* method : {"PUT", "DELETE", "HEAD", "TRACE", "X"}) {
        EXPECT_EQ(Send(method, "/api/hosts").status, 405) << method;
    }
    EXPECT_EQ(Send("GET", "/api/%zz").status, 400);
}

TEST_F(Server, WithACertificate_SpeaksTlsOnlyAndTheCookieIsSecure) {
    const test::TempDir keys;
    const std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
        "-days 2 -subj /CN=127.0.0.1 -keyout " +
        keys.Path("key") + " -out " + keys.Path("certificate") + " 2>/dev/null";
    ASSERT_EQ(std::system(make.c_str()), 0);
    Console::ConsoleServer::Options options;
    options.certificate = keys.Path("certificate");
    options.key = keys.Path("key");
    Console::ConsoleServer server(options, access_, backend_);
    std::string error;
    ASSERT_TRUE(server.Start(error)) << error;
    const Poco::URI uri(server.Url());
    EXPECT_EQ(uri.getScheme(), "https");
    HTTPRequest request("POST", "/api/login", HTTPRequest::HTTP_1_1);
    request.setHost(uri.getAuthority());
    const std::string body = "{\"token\":\"" + access_.Token() + "\"}";
    request.setContentLength(static_cast<std::streamsize>(body.size()));
    const auto log_in = [&](Poco::Net::HTTPClientSession& session) {
        HTTPResponse response;
        session.sendRequest(request) << body;
        session.receiveResponse(response);
        return response.get("Set-Cookie", "");
    };
    Poco::Net::HTTPClientSession plain(uri.getHost(), uri.getPort());
    EXPECT_THROW(log_in(plain), Poco::Exception);
    const Poco::Net::Context::Ptr trusts_all = new Poco::Net::Context(
        Poco::Net::Context::TLS_CLIENT_USE, "", Poco::Net::Context::VERIFY_NONE);
    Poco::Net::HTTPSClientSession secure(uri.getHost(), uri.getPort(), trusts_all);
    const std::string cookie = log_in(secure);
    EXPECT_NE(cookie.find("secure"), std::string::npos) << cookie;
    server.Stop();
    options.key = keys.Path("none");
    EXPECT_FALSE(Console::ConsoleServer(options, access_, backend_).Start(error));
    EXPECT_FALSE(error.empty());
}

TEST_F(Server, IdleSessionEnds) {
    Start(0s);
    ASSERT_EQ(LogIn(access_.Token()).status, 200);
    // The limit is over as soon as the clock moves.
    EXPECT_EQ(Send("GET", "/api/hosts").status, 401);
}

}  // namespace
