#pragma once

#include <cstdint>
#include <string>

#include "fleet/SignedDocument.h"

namespace Fleet {

constexpr std::size_t kMaxPolicyBytes = kMaxDocumentBytes;

/// A policy as the operator of the fleet signs it.
struct SignedPolicy {
    std::int64_t version = 0;  ///< a host takes only greater ones
    Audience hosts;
    std::string feature;
    std::string text;  ///< the policy document itself
};

/// The content to sign.
std::string ContentOf(const SignedPolicy& policy);

/// False when the content is not complete.
bool ReadContent(const std::string& content, SignedPolicy& policy);

/// The document to publish: the content and its signature. Empty when `key` cannot sign.
std::string Sign(const SignedPolicy& policy, const SDK::SigningKey& key);

/// Reads a published document. False with `error` when it is not signed by `key` or is malformed;
/// nothing of the content is read before the signature is found good.
bool ReadSigned(const std::string& document, const SDK::SigningKey& key, SignedPolicy& policy,
                std::string& error);

}  // namespace Fleet
