#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "fleet/SignedDocument.h"

namespace Fleet {

/// A decision of an operator for hosts, which they carry out as if it came from morvanectl. Good
/// once and for a limited time.
struct SignedAct {
    static constexpr std::int64_t kLongestS = 7LL * 24 * 3600;  ///< from `issued_s` to `expires_s`

    std::int64_t number = 0;  ///< a host takes only greater ones
    Audience hosts;
    std::int64_t issued_s = 0;  ///< since the epoch, by the signer's clock
    std::int64_t expires_s = 0;
    std::string signer;                      ///< whom reports name; the signature does not prove it
    std::string name;                        ///< one of ActNames
    Json::Value request{Json::objectValue};  ///< its arguments
};

/// accept, restore, rollback, pause, resume, deploy, verify, check.
bool IsActName(const std::string& name);

/// The content to sign.
std::string ContentOf(const SignedAct& act);

/// False when the content is not complete, is no known act, or has a time that is too long.
bool ReadContent(const std::string& content, SignedAct& act);

/// Reads a published document. False with `error` when it is not signed by `key` or is malformed;
/// nothing of the content is read before the signature is found good.
bool ReadSigned(const std::string& document, const SDK::SigningKey& key, SignedAct& act,
                std::string& error);

}  // namespace Fleet
