#pragma once

#include <fleet/BrokerClient.h>
#include <fleet/SignedDocument.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/FleetStore.h"

namespace Collector {

/// A signed document on its way to hosts. The collector does not verify it: hosts do.
struct Delivery {
    Fleet::DocumentKind kind = Fleet::DocumentKind::kPolicy;
    std::string name;            ///< feature of the policy, or name of the act
    std::int64_t number = 0;     ///< version of the policy, or number of the act
    std::int64_t expires_s = 0;  ///< of an act; 0: never
    std::string signer;          ///< of an act
    Fleet::Audience hosts;
    std::string document;

    /// Retained, so that a host that is away gets it later; the broker drops an act when it
    /// expires.
    Fleet::Message MessageTo(const std::string& agent_id, std::int64_t now_s) const;
};

/// None when the text is no signed policy or act, or its content is not complete.
std::optional<Delivery> ReadDelivery(const std::string& document);

/// What hosts call the document: the SHA-256 of its bytes.
std::string DigestOf(const std::string& document);

/// The hosts that the audience names; agent ids that are not known are added when
/// `with_unknown`. Ordered as `known`.
std::vector<std::string> TargetsOf(const Fleet::Audience& audience,
                                   const std::vector<HostRecord>& known, bool with_unknown);

/// The groups that the host says it is in.
std::vector<std::string> GroupsOf(const HostRecord& host);

}  // namespace Collector
