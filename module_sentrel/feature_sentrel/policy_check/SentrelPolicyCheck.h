#pragma once

#include <json/value.h>

#include <string>

#include "feature_sentrel/policy_check/PolicyFindings.h"

namespace Engine {

/// Tells what is wrong with a policy document before it is applied. Looks at the document, at the
/// paths that it names and at this host's addresses; changes nothing and keeps nothing. A document
/// without errors is accepted by the module (a failing disk aside). Any thread; may take a moment
/// for a large tree.
class SentrelPolicyCheck {
  public:
    /// A document of the feature "sentrel_feature".
    static PolicyFindings CheckProtection(const std::string& text);

    /// A document of the feature "backupserver_feature".
    static PolicyFindings CheckBackupServer(const std::string& text);

    /// Of a document that was good once: only whether the places that it names are safe from other
    /// users still.
    static PolicyFindings CheckProtectionPlaces(const std::string& text);
    static PolicyFindings CheckBackupServerPlaces(const std::string& text);

    using Check = PolicyFindings (*)(const std::string& text);

    /// The answer to a query {"text": document} by `whole`, or with "places_only": true by
    /// `places`:
    /// {"errors","warnings"}, arrays of {"pointer","message"}.
    static Json::Value Answer(const Json::Value& request, Check whole, Check places);
};

}  // namespace Engine
