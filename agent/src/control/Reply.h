#pragma once

#include <json/value.h>

#include <string>

namespace Agent {

/// An answer of the control API before its conversion to HTTP.
struct Reply {
    int status = 200;
    Json::Value body;
    std::string allow;  ///< with 405: the allowed methods
};

/// {"error": sentence} with that status.
Reply ErrorReply(int status, const std::string& sentence);

}  // namespace Agent
