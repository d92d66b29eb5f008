#pragma once

#include <json/value.h>

#include <functional>
#include <string>

#include "feature_sentrel/policy_check/PolicyFindings.h"
#include "feature_sentrel/schedule/WorkSchedule.h"

namespace Engine {

/// Tells what is wrong with a policy document before it is applied. Looks at the document, at the
/// paths that it names and at this host's addresses; changes nothing and keeps nothing. A document
/// without errors is accepted by the module (a failing disk aside). Any thread; may take a moment
/// for a large tree.
class SentrelPolicyCheck {
  public:
    /// A document of the feature "sentrel_feature". `earlier` is what the policies so far have
    /// disabled.
    static PolicyFindings CheckProtection(const std::string& text, const WorkSchedule& earlier);

    /// A document of the feature "backupserver_feature".
    static PolicyFindings CheckBackUpServer(const std::string& text);

    /// Of a document that was good once: only whether the places that it names are safe from other
    /// users still.
    static PolicyFindings CheckProtectionPlaces(const std::string& text);
    static PolicyFindings CheckBackUpServerPlaces(const std::string& text);

    using Check = std::function<PolicyFindings(const std::string& text)>;

    /// The answer to a query {"text": document} by `whole`, or with "places_only": true by
    /// `places`: {"errors","warnings"}, arrays of {"pointer","message"}.
    static Json::Value Answer(const Json::Value& request, const Check& whole, const Check& places);
};

}  // namespace Engine
