#pragma once

#include <sdk/text/SigningKey.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Fleet {

constexpr std::size_t kMaxPolicyBytes = 1024 * 1024;

/// A policy as the operator of the fleet signs it.
struct SignedPolicy {
    std::int64_t version = 0;        ///< a host takes only greater ones
    std::vector<std::string> hosts;  ///< agent ids; "*" alone: every host of this key
    std::string feature;
    std::string text;  ///< the policy document itself

    bool IsFor(const std::string& agent_id) const;
};

/// The document to publish: the content and its signature. Empty when `key` cannot sign.
std::string Sign(const SignedPolicy& policy, const SDK::SigningKey& key);

/// Reads a published document. False with `error` when it is not signed by `key` or is malformed;
/// nothing of the content is read before the signature is found good.
bool ReadSigned(const std::string& document, const SDK::SigningKey& key, SignedPolicy& policy,
                std::string& error);

}  // namespace Fleet
