#pragma once

#include <fleet/SignedDocument.h>

#include <memory>
#include <string>

#include "commands/Commands.h"

namespace Collector {

/// The operator's private key; null with a sentence.
std::unique_ptr<SDK::SigningKey> ReadPrivateKey(const std::string& file, std::string& error);

/// Whom --host, --group and --all-hosts name; empty: nobody.
Fleet::Audience AudienceOf(const Arguments& arguments);

}  // namespace Collector
