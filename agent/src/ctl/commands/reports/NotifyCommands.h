#pragma once

#include <json/value.h>

#include <string>

#include "ctl/client/ControlClient.h"

namespace Ctl {

/// The channels in the status document, each in a line, or as one JSON object per line.
int ShowChannels(const ControlClient& client, bool json);

/// Has the agent send a test; `channel`: empty for all.
int TestChannels(const ControlClient& client, const std::string& channel);

/// Lines for people. `status`: the status document.
std::string FormatChannels(const Json::Value& status, long long now_ms);

}  // namespace Ctl
