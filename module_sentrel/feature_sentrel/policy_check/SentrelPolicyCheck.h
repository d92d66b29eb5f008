#pragma once

#include <json/value.h>

#include <functional>
#include <string>

#include "feature_sentrel/policy_check/PolicyFindings.h"
#include "feature_sentrel/schedule/WorkSchedule.h"

namespace Engine {

/// Checks a policy document before it is applied. Reads the document, the paths that it names and
/// this host's addresses; changes nothing. The module accepts a document without errors, unless the
/// disk fails. Stateless; thread-safe. May block for a moment on a large tree.
class SentrelPolicyCheck {
  public:
    /// A document of the feature "sentrel_feature". `earlier` is what the policies so far have
    /// disabled.
    static PolicyFindings CheckProtection(const std::string& text, const WorkSchedule& earlier);

    /// A document of the feature "backupserver_feature".
    static PolicyFindings CheckBackUpServer(const std::string& text);

    /// For a document that was accepted before: only whether its paths are still safe from other
    /// users.
    static PolicyFindings CheckProtectionPlaces(const std::string& text);
    static PolicyFindings CheckBackUpServerPlaces(const std::string& text);

    using Check = std::function<PolicyFindings(const std::string& text)>;

    /// The answer to a query {"text": document} by `whole`, or with "places_only": true by
    /// `places`: {"errors","warnings"}, arrays of {"pointer","message"}.
    static Json::Value Answer(const Json::Value& request, const Check& whole, const Check& places);
};

}  // namespace Engine
