#pragma once

#include <json/value.h>

#include <string>

namespace Engine {

/// A protection policy without "dirlist" keeps the paths of the one before it. `text` with the
/// "dirlist" of `last`, the policy before, so that one document says all; just `text` when it has a
/// list of its own, `last` has none, or either cannot be read.
std::string WithDirListOf(const std::string& text, const std::string& last);

/// The answer to a query {"text","last"}: {"text"}.
Json::Value AnswerCompletion(const Json::Value& request);

}  // namespace Engine
