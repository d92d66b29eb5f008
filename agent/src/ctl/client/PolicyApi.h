#pragma once

#include <json/value.h>

#include <string>

#include "ctl/client/ControlClient.h"

namespace Ctl {

// Requests about the policy of one feature. Each blocks; applying may take minutes.

constexpr int kPolicyUnknown = 404;  ///< the feature has no policy
constexpr int kPolicyRefused = 422;

Answer GetPolicy(const ControlClient& client, const std::string& feature);
Answer CheckPolicyText(const ControlClient& client, const std::string& feature,
                       const std::string& text);
Answer ApplyPolicyText(const ControlClient& client, const std::string& feature,
                       const std::string& text);

}  // namespace Ctl
