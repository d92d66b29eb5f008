#pragma once

#include <PolicyFindings.h>
#include <json/value.h>

#include <functional>
#include <string>

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

    /// The answer to a query {"text": document}.
    static Json::Value Answer(const Json::Value& request,
                              const std::function<PolicyFindings(const std::string&)>& check);
};

}  // namespace Engine
