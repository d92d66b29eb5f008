#pragma once

#include <fleet/SignedDocument.h>

#include <cstdint>
#include <memory>
#include <string>

#include "commands/Commands.h"

namespace Collector {

/// The operator's private key; null with a sentence.
std::unique_ptr<SDK::SigningKey> ReadPrivateKey(const std::string& file, std::string& error);

/// The number of a document that has none: the time in milliseconds, as the console takes it.
std::int64_t NumberNow();

/// Whom --host, --group and --all-hosts name; empty: nobody.
Fleet::Audience AudienceOf(const Arguments& arguments);

}  // namespace Collector
