// Owns the conversion from HTTP and its rules of safety. It must not know what the requests mean
// (Backend does). Runs on the threads of the server's pool.
#include "RequestHandler.h"

#include <Poco/Net/HTTPCookie.h>
#include <Poco/Net/NameValueCollection.h>
#include <Poco/Net/NetException.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <istream>
#include <ostream>
#include <sstream>
#include <utility>

#include "Pages.h"

namespace Console {

using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;
using SDK::JsonUtils;

namespace {

constexpr char kCookie[] = "sentrel_session";
constexpr char kCsrfHeader[] = "X-Csrf-Token";
constexpr std::size_t kMostBodyBytes = 4UL * 1024 * 1024;

constexpr int kBadRequest = 400;
constexpr int kNotLoggedIn = 401;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kWrongMethod = 405;
constexpr int kTooLarge = 413;
constexpr int kMisdirected = 421;

const char* TypeOf(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    const std::string suffix = dot == std::string::npos ? "" : path.substr(dot);
    if (suffix == ".html") return "text/html; charset=utf-8";
    if (suffix == ".css") return "text/css; charset=utf-8";
    if (suffix == ".js") return "text/javascript; charset=utf-8";
    if (suffix == ".json") return "application/json";
    return "image/svg+xml";
}

/// Only what this server itself serves may be loaded, and no other page may show this one.
void AddSafetyHeaders(HTTPServerResponse& response) {
    response.set("Content-Security-Policy",
                 "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
                 "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
    response.set("X-Content-Type-Options", "nosniff");
    response.set("X-Frame-Options", "DENY");
    response.set("Referrer-Policy", "no-referrer");
    response.set("Cross-Origin-Opener-Policy", "same-origin");
    response.set("Cross-Origin-Resource-Policy", "same-origin");
    response.set("Cache-Control", "no-store");
}

void Send(HTTPServerResponse& response, const Reply& reply) {
    response.setStatus(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(reply.status));
    if (!reply.file_name.empty()) {
        response.setContentType("application/octet-stream");
        response.set("Content-Disposition", "attachment; filename=\"" + reply.file_name + "\"");
        response.sendBuffer(reply.content.data(), reply.content.size());
        return;
    }
    response.setContentType("application/json");
    const std::string text = JsonUtils::JsonToString(reply.body);
    response.sendBuffer(text.data(), text.size());
}

/// False when it is larger than what the console takes.
bool ReadBody(HTTPServerRequest& request, std::string& text) {
    std::istream& stream = request.stream();
    std::string piece(64UL * 1024, '\0');
    while (text.size() <= kMostBodyBytes) {
        stream.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        text.append(piece.data(), static_cast<std::size_t>(stream.gcount()));
        if (!stream) return text.size() <= kMostBodyBytes;
    }
    return false;
}

/// A reply when the body is no JSON object.
std::optional<Reply> ReadObject(HTTPServerRequest& request, Json::Value& body) {
    std::string text;
    if (!ReadBody(request, text)) return ErrorReply(kTooLarge, "The request is too large.");
    if (JsonUtils::ParseJsonStr(text.data(), text.size(), body) != 0 || !body.isObject()) {
        return ErrorReply(kBadRequest, "The request is no JSON object.");
    }
    return {};
}

std::string CookieOf(const HTTPServerRequest& request) {
    Poco::Net::NameValueCollection cookies;
    request.getCookies(cookies);
    return cookies.get(kCookie, "");
}

void SetCookie(HTTPServerResponse& response, const std::string& value, bool is_secure) {
    Poco::Net::HTTPCookie cookie(kCookie, value);
    cookie.setHttpOnly(true);
    cookie.setSecure(is_secure);
    cookie.setPath("/");
    cookie.setSameSite(Poco::Net::HTTPCookie::SAME_SITE_STRICT);
    response.addCookie(cookie);
}

/// Decoded one by one: a "/" that is encoded belongs to its segment. Throws Poco::SyntaxException.
std::vector<std::string> SegmentsOf(const std::string& address) {
    std::vector<std::string> segments;
    std::istringstream path(address.substr(0, address.find_first_of("?#")));
    for (std::string raw; std::getline(path, raw, '/');) {
        std::string segment;
        Poco::URI::decode(raw, segment);
        if (!segment.empty()) segments.push_back(segment);
    }
    return segments;
}

}  // namespace

std::string RoleName(Role role) {
    switch (role) {
        case Role::kViewer:
            return "viewer";
        case Role::kOperator:
            return "operator";
        case Role::kAdmin:
            break;
    }
    return "admin";
}

Reply ErrorReply(int status, const std::string& sentence) {
    Reply reply;
    reply.status = status;
    reply.body["error"] = sentence;
    return reply;
}

void RequestHandler::handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) {
    try {
        AddSafetyHeaders(response);
        if (!IsForUs(request)) {
            // Another name that leads here may be an attacker's, who would then read the answers.
            return Send(response, ErrorReply(kMisdirected, "This server has another address."));
        }
        const Poco::URI uri(request.getURI());
        std::vector<std::string> path = SegmentsOf(request.getURI());
        if (path.empty() || path.front() != "api") return SendPage(uri.getPath(), response);
        path.erase(path.begin());
        Send(response, AnswerApi(request, response, path));
    } catch (const Poco::SyntaxException&) {
        Send(response, ErrorReply(kBadRequest, "The address cannot be read."));
    } catch (const Poco::Net::NetException&) {
        // The browser has gone away.
    }
}

bool RequestHandler::IsForUs(const HTTPServerRequest& request) const {
    const std::string host = request.get("Host", "");
    return std::find(state_.names.begin(), state_.names.end(), host) != state_.names.end();
}

bool RequestHandler::IsFromOurPage(const HTTPServerRequest& request) const {
    const std::string origin = request.get("Origin", "");
    return origin.empty() || origin == state_.scheme + "://" + request.get("Host", "");
}

void RequestHandler::SendPage(const std::string& path, HTTPServerResponse& response) const {
    const std::string wanted = path == "/" || path.empty() ? "/index.html" : path;
    const auto found = std::find_if(Pages().begin(), Pages().end(),
                                    [&](const Page& page) { return page.path == wanted; });
    if (found == Pages().end()) {
        return Send(response, ErrorReply(kNotFound, "There is no such page."));
    }
    response.setContentType(TypeOf(wanted));
    response.sendBuffer(found->content.data(), found->content.size());
}

Reply RequestHandler::AnswerApi(HTTPServerRequest& request, HTTPServerResponse& response,
                                const std::vector<std::string>& path) {
    Request asked;
    asked.method = request.getMethod();
    asked.path = path;
    if (asked.method != "GET" && asked.method != "POST") {
        return ErrorReply(kWrongMethod, "The console takes GET and POST only.");
    }
    const bool is_change = asked.method == "POST";
    if (is_change && !IsFromOurPage(request)) {
        return ErrorReply(kForbidden, "The request comes from another page.");
    }
    if (is_change && path == std::vector<std::string>{"login"}) return LogIn(request, response);
    const std::string cookie = CookieOf(request);
    auto session = state_.sessions.Find(cookie);
    if (session && !state_.access.MayGoOn(session->user)) {
        state_.sessions.End(cookie);
        session.reset();
    }
    if (path == std::vector<std::string>{"session"}) return Describe(session);
    if (!session) return ErrorReply(kNotLoggedIn, "Log in first.");
    if (is_change) {
        if (!IsSameToken(request.get(kCsrfHeader, ""), session->csrf)) {
            return ErrorReply(kForbidden, "The request does not come from the page.");
        }
        if (auto refused = ReadObject(request, asked.body)) return *refused;
    }
    if (is_change && path == std::vector<std::string>{"logout"}) {
        state_.sessions.End(cookie);
        SetCookie(response, "", IsSecure());
        return {};
    }
    for (const auto& [name, value] : Poco::URI(request.getURI()).getQueryParameters()) {
        asked.parameters[name] = value;
    }
    asked.user = session->user;
    return state_.backend.Handle(asked);
}

Reply RequestHandler::LogIn(HTTPServerRequest& request, HTTPServerResponse& response) {
    Json::Value credentials;
    if (auto refused = ReadObject(request, credentials)) return *refused;
    const std::optional<User> user = state_.access.LogIn(credentials);
    if (!user) return ErrorReply(kNotLoggedIn, "This is not valid, or no longer.");
    const std::string id = state_.sessions.Begin(*user);
    SetCookie(response, id, IsSecure());
    return Describe(state_.sessions.Find(id));
}

Reply RequestHandler::Describe(const std::optional<Sessions::Session>& session) const {
    Reply reply;
    reply.body["logged_in"] = session.has_value();
    reply.body["access"] = state_.access.Kind();
    if (!session) return reply;
    reply.body["mode"] = state_.backend.Mode();
    reply.body["user"] = session->user.name;
    reply.body["role"] = RoleName(session->user.role);
    reply.body["csrf"] = session->csrf;
    return reply;
}

}  // namespace Console
