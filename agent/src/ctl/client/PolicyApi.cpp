#include "ctl/client/PolicyApi.h"

#include <Poco/Net/HTTPRequest.h>

namespace Ctl {

using Poco::Net::HTTPRequest;

namespace {

/// A policy may wait for another one, and for tasks that run commands.
constexpr int kApplyTimeoutS = 300;

std::string Address(const std::string& feature) {
    return "/v1/policies/" + Encoded(feature);
}

}  // namespace

Answer GetPolicy(const ControlClient& client, const std::string& feature) {
    return client.Get(Address(feature));
}

Answer CheckPolicyText(const ControlClient& client, const std::string& feature,
                       const std::string& text) {
    return client.Send(HTTPRequest::HTTP_POST, Address(feature) + "/check", text, kApplyTimeoutS);
}

Answer ApplyPolicyText(const ControlClient& client, const std::string& feature,
                       const std::string& text) {
    return client.Send(HTTPRequest::HTTP_PUT, Address(feature), text, kApplyTimeoutS);
}

}  // namespace Ctl
