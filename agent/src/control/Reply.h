#pragma once

#include <json/value.h>

#include <string>

namespace Agent {

/// An answer of the control API, before it becomes HTTP.
struct Reply {
    int status = 200;
    Json::Value body;
    std::string allow;  ///< with 405: the methods that are possible
};

/// {"error": sentence} with that status.
Reply ErrorReply(int status, const std::string& sentence);

}  // namespace Agent
