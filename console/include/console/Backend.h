#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

namespace Console {

/// What a user may do; each includes those before.
enum class Role {
    kViewer,    ///< look
    kOperator,  ///< decide on changes, pause, deploy
    kAdmin,     ///< change policies and users
};

/// "viewer", "operator" or "admin".
std::string RoleName(Role role);

struct User {
    std::string name;
    Role role = Role::kViewer;
    /// Of the credentials; a session ends when it changes. Never sent.
    std::string stamp = {};
};

/// A request of the page below /api/ after its conversion from HTTP, from a user who is logged in.
struct Request {
    std::string method;             ///< "GET" or "POST"
    std::vector<std::string> path;  ///< decoded segments, without "api"
    std::map<std::string, std::string> parameters;
    Json::Value body;  ///< null with GET
    User user;
};

struct Reply {
    int status = 200;
    Json::Value body;  ///< sent unless `content` is
    /// Bytes to save, of any kind: the browser never shows them.
    std::string content = {};
    std::string file_name = {};  ///< of `content`; empty: `body` is sent
};

/// A reply that is a sentence for the user.
Reply ErrorReply(int status, const std::string& sentence);

/// What the console shows and does. Implementations answer from one host or from many.
class Backend {
  public:
    virtual ~Backend() = default;

    /// "host" or "fleet": which pages are shown.
    virtual std::string Mode() const = 0;

    /// Whether the request changes nothing is told by its method. Blocks as long as the operation;
    /// a GET of "changes" waits for news up to half a minute. Thread-safe; must not throw.
    virtual Reply Handle(const Request& request) = 0;

    /// Ends waits at once; called when the server stops.
    virtual void Stop() = 0;
};

}  // namespace Console
