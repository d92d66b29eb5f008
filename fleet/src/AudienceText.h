#pragma once

#include <fleet/SignedDocument.h>
#include <json/value.h>

namespace Fleet {

Json::Value ToJson(const Audience& audience);

/// False for anything but a list of agent ids, groups and "*" that is not empty.
bool ReadAudience(const Json::Value& list, Audience& audience);

}  // namespace Fleet
