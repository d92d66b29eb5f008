#pragma once

#include <json/value.h>

#include <string>

namespace Engine {

/// A protection policy without "dirlist" keeps the paths of the policy before it. Returns `text`
/// with the "dirlist" of `last`, the policy before, so that one document is complete. Returns
/// `text` as it is when it has a list, when `last` has none, or when either cannot be read.
std::string WithDirListOf(const std::string& text, const std::string& last);

/// The answer to a query {"text","last"}: {"text"}.
Json::Value AnswerCompletion(const Json::Value& request);

}  // namespace Engine
